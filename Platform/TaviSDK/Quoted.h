#pragma once

#include <string>
#include <string_view>

namespace TaviSDK {

// Foreign text for a message, in quotes; a long one is cut, between characters, and its length told.
inline std::string quoted(std::string_view text) {
    constexpr std::size_t limit = 200; // bytes
    if (text.size() <= limit)
        return '"' + std::string(text) + '"';
    std::size_t end = limit;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xc0U) == 0x80U)
        --end;
    return '"' + std::string(text.substr(0, end)) + "...\" (" + std::to_string(text.size()) + " bytes)";
}

} // namespace TaviSDK
