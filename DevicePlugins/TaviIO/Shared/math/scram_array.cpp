#include "scram_array.h"

#include "assort.h"

#include <algorithm>
#include <numeric>
#include <vector>

namespace {

constexpr int kSeed = -1234;

template <class Integer>
void scrambleValues(Integer* a, Integer n) {
    Integer seed = kSeed;
    for (Integer i = 0; i < n; ++i) {
        // In single precision the product can round up to n itself, and n to more than it can hold.
        const float count = static_cast<float>(n);
        const float product = static_cast<float>(ran1(&seed)) * count;
        const Integer other = product < count ? std::min(static_cast<Integer>(product), n - 1) : n - 1;
        std::swap(a[i], a[other]);
    }
}

std::vector<int> permutation(int items) {
    std::vector<int> p(static_cast<std::size_t>(items));
    std::iota(p.begin(), p.end(), 0);
    scramble2(p.data(), items);
    return p;
}

// Moves item k to p(k), or back from there.
template <class Element>
void permute(Element* data, int items, int itemSize, bool back) {
    if (items < 2 || itemSize < 1)
        return;
    const long size = itemSize;
    const std::vector<Element> old(data, data + items * size);
    const std::vector<int> p = permutation(items);
    for (long k = 0; k < items; ++k) {
        const long moved = p[static_cast<std::size_t>(k)];
        const long from = back ? moved : k;
        const long to = back ? k : moved;
        std::copy_n(old.data() + from * size, size, data + to * size);
    }
}

} // namespace

void scramble2(int* a, int n) {
    scrambleValues(a, n);
}

void scramble2(long* a, long n) {
    scrambleValues(a, n);
}

void scramble_array(double* data, int items, int itemSize) {
    permute(data, items, itemSize, false);
}

void scramble_array(long* data, int items, int itemSize) {
    permute(data, items, itemSize, false);
}

void scramble_array(unsigned char* data, int items, int itemSize) {
    permute(data, items, itemSize, false);
}

void unscramble_array(double* data, int items, int itemSize) {
    permute(data, items, itemSize, true);
}

void unscramble_array(unsigned char* data, int items, int itemSize) {
    permute(data, items, itemSize, true);
}
