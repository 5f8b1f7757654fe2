// Numbers from text, and between kinds. Any thread.
#pragma once

#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>

namespace Base {

// The whole text as a number, with a point in every locale; nothing when it is none or does not fit. A plus
// may lead.
template <typename Number>
std::optional<Number> parseNumber(std::string_view text) {
    if (text.size() > 1 && text[0] == '+' && text[1] != '-')
        text.remove_prefix(1);
    Number value{};
    const char* const textEnd = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), textEnd, value);
    return error == std::errc() && end == textEnd ? std::optional(value) : std::nullopt;
}

// The same, without infinities and what is no number.
template <typename Number>
std::optional<Number> parseFinite(std::string_view text) {
    const std::optional<Number> value = parseNumber<Number>(text);
    return value && std::isfinite(*value) ? value : std::nullopt;
}

// Truncated; the nearest integer there is for what lies beyond, 0 for what is no number.
inline std::int64_t saturated(double value) {
    constexpr double limit = 9223372036854775808.0; // 2^63
    if (std::isnan(value))
        return 0;
    if (value >= limit)
        return std::numeric_limits<std::int64_t>::max();
    if (value < -limit)
        return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(value);
}

} // namespace Base
