#include "sort2.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace {

// The elements that a sort moves: keys alone, or keys with their companions.
template <class Key>
struct Keys {
    using Value = Key;

    Key* keys;

    Key key(long i) const { return keys[i]; }
    Value get(long i) const { return keys[i]; }
    void put(long i, Value value) const { keys[i] = value; }
    void move(long from, long to) const { keys[to] = keys[from]; }
    static Key keyOf(Value value) { return value; }
};

struct KeysWithCompanions {
    using Value = std::pair<double, long>;

    double* keys;
    long* companions;

    double key(long i) const { return keys[i]; }
    Value get(long i) const { return {keys[i], companions[i]}; }
    void put(long i, const Value& value) const {
        keys[i] = value.first;
        companions[i] = value.second;
    }
    void move(long from, long to) const {
        keys[to] = keys[from];
        companions[to] = companions[from];
    }
    static double keyOf(const Value& value) { return value.first; }
};

// Puts `value` into the heap at `hole` and below, a heap of `size` elements with the last one in sorting
// order at its root. The hole first sinks to a leaf, always to the child that comes later, and the value then
// climbs from there: nearly every value belongs near a leaf, so this takes about half the comparisons of
// looking for its place on the way down, and the choice of a child needs no branch.
template <class Elements, class Before>
void settle(const Elements& elements, long hole, long size, const typename Elements::Value& value,
            Before before) {
    const long top = hole;
    long child = 2 * hole + 1;
    while (child + 1 < size) {
        child += before(elements.key(child), elements.key(child + 1)) ? 1 : 0;
        elements.move(child, hole);
        hole = child;
        child = 2 * hole + 1;
    }
    if (child < size) {
        elements.move(child, hole);
        hole = child;
    }
    while (hole > top) {
        const long parent = (hole - 1) / 2;
        if (!before(elements.key(parent), Elements::keyOf(value)))
            break;
        elements.move(parent, hole);
        hole = parent;
    }
    elements.put(hole, value);
}

// Sorts n elements; stops early once position `lastFilled` and those after it hold their final values.
template <class Elements, class Before>
void heapSort(const Elements& elements, long n, Before before, long lastFilled = 0) {
    for (long i = n / 2 - 1; i >= 0; --i)
        settle(elements, i, n, elements.get(i), before);
    for (long end = n - 1; end >= std::max(lastFilled, 1L); --end) {
        const typename Elements::Value value = elements.get(end);
        elements.move(0, end);
        settle(elements, 0, end, value, before);
    }
}

} // namespace

void sort(int n, double* a) {
    if (n > 1)
        sort_0(n, a + 1);
}

void sort2(int n, double* a, long* b) {
    if (n > 1)
        sort_0(n, a + 1, b + 1);
}

void sort_0(int n, double* a) {
    heapSort(Keys<double>{a}, n, std::less<>());
}

void sort_0(int n, double* a, long* b) {
    heapSort(KeysWithCompanions{a, b}, n, std::less<>());
}

void sort_0(int n, long* a) {
    heapSort(Keys<long>{a}, n, std::less<>());
}

void sort_0_lf(int n, double* a, long* b) {
    heapSort(KeysWithCompanions{a, b}, n, std::greater<>());
}

void sort_0_c(long n, double* a, long* b, int k) {
    heapSort(KeysWithCompanions{a, b}, n, std::greater<>(), std::max(n - 1 - k, 0L));
}

void sort_0_c_lf(long n, double* a, long* b, int k) {
    heapSort(KeysWithCompanions{a, b}, n, std::less<>(), std::max(n - 1 - k, 0L));
}
