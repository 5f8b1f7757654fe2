#include "assort.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>

int s1 = 0;

namespace {

// x -> (multiplier x + increment) mod modulus, x from 0 to modulus - 1.
template <std::int64_t Modulus, std::int64_t Multiplier, std::int64_t Increment>
class Congruential {
public:
    static constexpr std::int64_t kModulus = Modulus;
    static constexpr std::int64_t kIncrement = Increment;

    // Takes any whole number.
    void start(std::int64_t value) { mState = ((value % Modulus) + Modulus) % Modulus; }
    std::int64_t next() { return mState = (Multiplier * mState + Increment) % Modulus; }

private:
    std::int64_t mState = 0;
};

// The generator behind ran1. A table of random numbers is filled from two congruential generators, one for
// the leading and one for the trailing digits; each call lets a third generator choose an entry, hands it out
// and replaces it. Published as `ran1` in the first edition of Numerical Recipes (Press et al., 1986), after
// an idea of Bays and Durham.
class ShuffledGenerator {
public:
    template <class Integer>
    double next(Integer* seed) {
        if (!mStarted || *seed < 0) {
            start(static_cast<std::int64_t>(*seed));
            *seed = 1;
        }
        // Drawn in this order, whichever entry is chosen.
        const double fresh = combined();
        const std::int64_t chosen = kEntries * mChooser.next() / Chooser::kModulus;
        if (chosen < 0 || chosen >= kEntries)
            error("Random number error");
        double& entry = mTable[static_cast<std::size_t>(std::clamp<std::int64_t>(chosen, 0, kEntries - 1))];
        const double result = entry;
        entry = fresh;
        return result;
    }

private:
    using Leading = Congruential<259200, 7141, 54773>;
    using Trailing = Congruential<134456, 8121, 28411>;
    using Chooser = Congruential<243000, 4561, 51349>;
    static constexpr std::int64_t kEntries = 97;

    void start(std::int64_t seed) {
        // Reduced first: the difference of any two seeds fits then.
        mLeading.start(Leading::kIncrement - seed % Leading::kModulus);
        mTrailing.start(mLeading.next());
        mChooser.start(mLeading.next());
        for (double& entry : mTable)
            entry = combined();
        mStarted = true;
    }

    double combined() {
        const auto leading = static_cast<double>(mLeading.next());
        const auto trailing = static_cast<double>(mTrailing.next());
        return (leading + trailing / static_cast<double>(Trailing::kModulus)) /
               static_cast<double>(Leading::kModulus);
    }

    Leading mLeading;
    Trailing mTrailing;
    Chooser mChooser;
    std::array<double, kEntries> mTable{};
    bool mStarted = false;
};

// lo + the whole part of draw * 0.999 * (hi - lo), whatever the distance of the two: the arithmetic modulo
// 2^64 of unsigned numbers ends at the right number.
long between(long lo, long hi, double draw) {
    const auto from = static_cast<unsigned long>(lo);
    const auto to = static_cast<unsigned long>(hi);
    const unsigned long distance = lo <= hi ? to - from : from - to;
    const auto step = static_cast<unsigned long>(draw * 0.999 * static_cast<double>(distance));
    return static_cast<long>(lo <= hi ? from + step : from - step);
}

int leadingDigits(const char* text, int& position, int count) {
    int value = 0;
    for (int i = 0; i < count; ++i) {
        const char c = text[position];
        value = 10 * value + (c >= '0' && c <= '9' ? c - '0' : 0);
        position += c != '\0' ? 1 : 0;
    }
    return value;
}

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

bool isInField(char c) {
    return c != '\0' && !isBlank(c);
}

template <class Predicate>
char* skipWhile(char* s, Predicate predicate) {
    while (predicate(*s))
        ++s;
    return s;
}

template <class Number>
char* readFields(char* line, int skip, int count, const char* format, Number* out) {
    char* next = skip_blocks(line, skip);
    for (int i = 0; i < count && next != nullptr; ++i) {
        next = skipWhile(next, isBlank);
        if (!isInField(*next) || std::sscanf(next, format, out + i) != 1)
            next = nullptr;
        else
            next = skipWhile(skipWhile(next, isInField), isBlank);
    }
    if (next == nullptr) {
        *line = '\0';
        return nullptr;
    }
    std::memmove(line, next, std::strlen(next) + 1);
    return line;
}

} // namespace

double ran1(int* seed) {
    static ShuffledGenerator generator;
    return generator.next(seed);
}

double ran1(long* seed) {
    static ShuffledGenerator generator;
    return generator.next(seed);
}

long rand1(long lo, long hi) {
    return between(lo, hi, ran1(&s1));
}

long rand1(long lo, long hi, long* seed) {
    return between(lo, hi, ran1(seed));
}

long rand1(long n, int* seed) {
    const float product = static_cast<float>(n) * static_cast<float>(ran1(seed));
    constexpr auto kLimit = static_cast<float>(std::numeric_limits<long>::max());
    return product < kLimit ? static_cast<long>(product) : std::numeric_limits<long>::max();
}

void generate_gaus_kernal(double* k, int n, double a) {
    const int h = n / 2;
    for (int i = 0; i < n; ++i) {
        const double offset = i - h;
        k[i] = h == 0 ? 1 : std::exp(-(offset * offset) * a / (static_cast<double>(h) * h));
    }
}

void generate_decay_curve(double* out, int n, double a, double b, double c) {
    std::printf("%e  %e  %e\n", a, b, c);
    for (int i = 0; i < n; ++i)
        out[i] = c * std::exp((i + a) * b);
}

void convolve(const double* in, double* out, const double* kernel, int n, int klen) {
    std::fill_n(out, std::max(n, 0), 0.0);
    for (long i = 0; i < n; ++i) {
        if (!(in[i] > 0))
            continue;
        const long start = i - klen / 2;
        const long first = std::max(0L, -start);
        const long end = std::min<long>(klen, n - start);
        for (long t = first; t < end; ++t)
            out[start + t] += in[i] * kernel[t];
    }
}

int fround(double x) {
    if (std::isnan(x))
        return 0;
    const double whole = std::trunc(x);
    const double rounded = x - whole >= 0.5 ? whole + 1 : whole;
    return static_cast<int>(
        std::clamp<double>(rounded, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

double delta_angle(double a, double b) {
    const double difference = a - b;
    if (difference > 180)
        return difference - 360;
    return difference < -180 ? difference + 360 : difference;
}

void print_array(const double* a, int n) {
    for (int i = 0; i < n; ++i)
        std::printf("%e  ", a[i]);
    std::printf("\n");
}

void error(const char* text) {
    std::printf("WORKOVER ---- %s\n", text);
}

int decimal_date2(const char* yymmdd, double* out) {
    static constexpr std::array<int, 12> days = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    int position = 0;
    const int year = leadingDigits(yymmdd, position, 2);
    const int month = std::clamp(leadingDigits(yymmdd, position, 2), 1, 12);
    int elapsed = leadingDigits(yymmdd, position, 2);
    const int leapDay = year % 4 == 0 ? 1 : 0;
    for (int m = 1; m < month; ++m)
        elapsed += days[static_cast<std::size_t>(m - 1)] + (m == 2 ? leapDay : 0);
    *out = 1900 + year + elapsed / (365.0 + leapDay);
    return 0;
}

void get_block(const char* s, char* field, int& pos) {
    while (isInField(s[pos]))
        *field++ = s[pos++];
    *field = '\0';
    while (isBlank(s[pos]))
        ++pos;
}

char* skip_blocks(char* s, int n) {
    for (int i = 0; i < n; ++i) {
        s = skipWhile(s, isBlank);
        if (!isInField(*s))
            return nullptr;
        s = skipWhile(skipWhile(s, isInField), isBlank);
    }
    return s;
}

char* sscanf_n(char* line, int skip, int count, double* out) {
    return readFields(line, skip, count, "%lf", out);
}

char* sscanf_n_i(char* line, int skip, int count, int* out) {
    return readFields(line, skip, count, "%d", out);
}

char* sscanf_n_li(char* line, int skip, int count, long* out) {
    return readFields(line, skip, count, "%ld", out);
}

int strcmp2(const char* a, const char* b) {
    return std::strcmp(a, b) == 0 ? 0 : 1;
}

int hasLetters(const char* s) {
    for (; *s != '\0'; ++s) {
        if ((*s >= 'A' && *s <= 'Z') || (*s >= 'a' && *s <= 'z'))
            return 1;
    }
    return 0;
}
