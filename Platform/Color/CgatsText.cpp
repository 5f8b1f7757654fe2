#include <Color/CgatsText.h>

namespace Color {

namespace {

bool isBareWord(const std::string& text) {
    return !text.empty() && text.find_first_of(" \t\r\n") == text.npos && text[0] != '"' && text[0] != '#';
}

} // namespace

std::string excerpt(std::string_view text) {
    constexpr std::size_t kLongest = 40;
    std::string result = "\"";
    for (const char c : text.substr(0, kLongest)) {
        const bool isPrintable = c >= ' ' && c <= '~';
        result += isPrintable ? c : '?';
    }
    return result + (text.size() > kLongest ? "...\"" : "\"");
}

void appendQuoted(std::string& text, std::string_view value) {
    text += '"';
    for (const char c : value) {
        if (c == '"') {
            text += '"';
        }
        text += c == '\n' || c == '\r' ? ' ' : c;
    }
    text += '"';
}

void appendValue(std::string& text, const Value& value) {
    if (value.isQuoted || !isBareWord(value.text)) {
        appendQuoted(text, value.text);
    } else {
        text += value.text;
    }
}

void appendKeyword(std::string& text, std::string_view keyword, std::string_view value) {
    text.append(keyword).append(" ");
    appendQuoted(text, value);
    text += '\n';
}

} // namespace Color
