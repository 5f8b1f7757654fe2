#include "Output.h"

#include "Errors.h"

#include <Base/Utf8.h>

#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace tablectl {

Json& Json::addRaw(std::string_view key, std::string_view json) {
    mMembers += (mMembers.empty() ? "" : ",") + quote(key) + ":" + std::string(json);
    return *this;
}

Json& Json::add(std::string_view key, std::string_view text) {
    return addRaw(key, quote(text));
}

Json& Json::add(std::string_view key, bool value) {
    return addRaw(key, value ? "true" : "false");
}

Json& Json::add(std::string_view key, long value) {
    return addRaw(key, std::to_string(value));
}

Json& Json::add(std::string_view key, double value) {
    return addRaw(key, std::isfinite(value) ? numberText(value) : "null");
}

std::string Json::quote(std::string_view text) {
    std::string result = "\"";
    for (const char character : Base::validUtf8(std::string(text))) {
        if (character == '"' || character == '\\') {
            result += '\\';
            result += character;
        } else if (static_cast<unsigned char>(character) < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", character);
            result += escape;
        } else {
            result += character;
        }
    }
    return result + "\"";
}

void Output::write(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            throw DeviceFailure(std::string("cannot write to standard output: ") + std::strerror(errno));
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

namespace {

template <class Number>
std::string shortestText(Number value) {
    char text[64];
    const auto result = std::to_chars(text, text + sizeof text, value);
    return std::string(text, result.ptr);
}

} // namespace

std::string numberText(double value) {
    return shortestText(value);
}

std::string numberText(float value) {
    return shortestText(value);
}

std::string numberText(int value) {
    return shortestText(value);
}

std::string fixedText(double value, int decimals) {
    char text[64];
    const auto result = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, decimals);
    return std::string(text, result.ptr);
}

void reportFailure(bool json, const std::string& text, int deviceCode) {
    std::fprintf(stderr, "tablectl: %s\n", text.c_str());
    if (!json)
        return;
    try {
        Output(json).object(Json().add("event", "error").add("code", deviceCode).add("message", text));
    } catch (const Failure&) {
        // Nobody reads standard output any more.
    }
}

} // namespace tablectl
