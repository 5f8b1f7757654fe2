#include <Base/Utf8.h>

#include <cstdint>
#include <cstring>

namespace Base {
namespace {

// The length of the valid sequence that begins at `position`; 0 when there is none.
std::size_t sequenceLength(std::string_view text, std::size_t position) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(position);
    if (first < 0x80)
        return 1;
    struct Form {
        unsigned char mask, lead;
        std::uint32_t smallest;
    };
    static constexpr Form forms[] = {{0xe0, 0xc0, 0x80}, {0xf0, 0xe0, 0x800}, {0xf8, 0xf0, 0x10000}};
    std::size_t length = 2;
    for (const Form& form : forms) {
        if ((first & form.mask) == form.lead) {
            std::uint32_t code = first & static_cast<unsigned char>(~form.mask);
            for (std::size_t i = 1; i < length; ++i) {
                if (position + i >= text.size() || (byte(position + i) & 0xc0) != 0x80)
                    return 0;
                code = (code << 6) | (byte(position + i) & 0x3f);
            }
            const bool surrogate = code >= 0xd800 && code <= 0xdfff;
            return code >= form.smallest && code <= 0x10ffff && !surrogate ? length : 0;
        }
        ++length;
    }
    return 0;
}

} // namespace

bool isAscii(std::string_view text) {
    std::uint64_t seen = 0;
    for (; text.size() >= sizeof seen; text.remove_prefix(sizeof seen)) {
        std::uint64_t eight = 0;
        std::memcpy(&eight, text.data(), sizeof eight);
        seen |= eight;
    }
    for (const char character : text)
        seen |= static_cast<unsigned char>(character);
    return (seen & 0x8080808080808080) == 0;
}

std::string validUtf8(std::string text) {
    if (isAscii(text))
        return text;
    std::string valid;
    valid.reserve(text.size());
    for (std::size_t position = 0; position < text.size();) {
        const std::size_t length = sequenceLength(text, position);
        if (length == 0) {
            valid += "\xef\xbf\xbd";
            ++position;
            continue;
        }
        valid.append(text, position, length);
        position += length;
    }
    return valid;
}

} // namespace Base
