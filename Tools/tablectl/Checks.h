// Checks of what a command line gives for an option; each says in words what is wrong.
#pragma once

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdlib>
#include <string>

namespace tablectl {

// The whole text as a number; NaN when it is none.
inline double numberIn(const std::string& text) {
    char* end = nullptr;
    const double number = std::strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' ? number : std::nan("");
}

inline CLI::Validator isNumber() {
    return {[](const std::string& text) {
                return std::isnan(numberIn(text)) ? "not a number: " + text : std::string();
            },
            ""};
}

inline CLI::Validator isNotNegative() {
    return {[](const std::string& text) {
                const double number = numberIn(text);
                return std::isfinite(number) && number >= 0 ? std::string()
                                                            : "not a number of 0 or more: " + text;
            },
            ""};
}

inline CLI::Validator isCount() {
    return {[](const std::string& text) {
                const double number = numberIn(text);
                return number >= 1 && number <= 1e6 && number == std::floor(number)
                           ? std::string()
                           : "not a whole number above 0: " + text;
            },
            ""};
}

inline CLI::Validator isOnOrOff() {
    return {[](const std::string& text) {
                return text == "on" || text == "off" ? std::string() : "neither on nor off: " + text;
            },
            ""};
}

} // namespace tablectl
