// How the values of a CGATS file are written. For the writers of this folder.
#pragma once

#include <array>
#include <charconv>
#include <string>
#include <string_view>

namespace Color {

// A text as the file has it: in quotes where it says so, or else as one bare word.
struct Value {
    std::string text;
    bool isQuoted = false;

    bool operator==(const Value&) const = default;
};

// In quotes; a line break, which would end the line, becomes a space.
void appendQuoted(std::string& text, std::string_view value);
// As it stood where it was read; in quotes, too, where a bare word would not read back.
void appendValue(std::string& text, const Value& value);
// A line of the header.
void appendKeyword(std::string& text, std::string_view keyword, std::string_view value);

// A text of a file in quotes, for error texts: what is long or unprintable does not go there.
std::string excerpt(std::string_view text);

// The shortest form that reads back to the same value.
template <typename Number>
void appendNumber(std::string& text, Number value) {
    std::array<char, 32> digits;
    const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), value);
    text.append(digits.data(), end);
}

} // namespace Color
