#include "Numbers.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace {
constexpr int kLeast = std::numeric_limits<int>::min();
constexpr int kGreatest = std::numeric_limits<int>::max();
} // namespace

int SaturatedInt(double value) {
    if (std::isnan(value))
        return 0;
    return static_cast<int>(std::clamp(value, static_cast<double>(kLeast), static_cast<double>(kGreatest)));
}

int IntFromText(const char* text) {
    const long value = std::strtol(text, nullptr, 10); // itself saturates to long
    return static_cast<int>(std::clamp(value, static_cast<long>(kLeast), static_cast<long>(kGreatest)));
}

float FloatFromText(const char* text) {
    const double value = std::strtod(text, nullptr);
    if (std::isfinite(value) && std::fabs(value) > static_cast<double>(std::numeric_limits<float>::max()))
        return static_cast<float>(std::copysign(std::numeric_limits<double>::infinity(), value));
    return static_cast<float>(value);
}

std::string TextFromInt(int value) {
    return std::to_string(value);
}

std::string TextFromFloat(float value) {
    char text[64]; // the longest float has 39 digits before its point
    std::snprintf(text, sizeof text, "%f", static_cast<double>(value));
    return text;
}
