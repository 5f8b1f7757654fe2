#include <Base/BinaryPropertyList.h>
#include <Base/Number.h>
#include <Base/Utf8.h>

#include <algorithm>
#include <cstring>

namespace Base {
namespace {

constexpr std::string_view kMagic = "bplist00";
constexpr std::size_t kTrailerSize = 32;

void appendUtf8(std::string& to, std::uint32_t code) {
    const auto put = [&](std::uint32_t byte) { to += static_cast<char>(byte); };
    if (code < 0x80) {
        put(code);
        return;
    }
    if (code < 0x800) {
        put(0xc0 | code >> 6);
    } else if (code < 0x10000) {
        put(0xe0 | code >> 12);
        put(0x80 | (code >> 6 & 0x3f));
    } else {
        put(0xf0 | code >> 18);
        put(0x80 | (code >> 12 & 0x3f));
        put(0x80 | (code >> 6 & 0x3f));
    }
    put(0x80 | (code & 0x3f));
}

// UTF-16, big-endian. Halves of pairs are left out.
void appendWide(std::string& to, std::string_view bytes) {
    const auto unit = [&](std::size_t i) {
        return std::uint32_t{static_cast<unsigned char>(bytes[i])} << 8 |
               static_cast<unsigned char>(bytes[i + 1]);
    };
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
        const std::uint32_t code = unit(i);
        if (code < 0xd800 || code > 0xdfff) {
            appendUtf8(to, code);
            continue;
        }
        const std::uint32_t next = code < 0xdc00 && i + 3 < bytes.size() ? unit(i + 2) : 0;
        if (next >= 0xdc00 && next <= 0xdfff) {
            appendUtf8(to, 0x10000 + ((code & 0x3ff) << 10) + (next & 0x3ff));
            i += 2;
        }
    }
}

} // namespace

bool BinaryPropertyList::isBinary(std::string_view bytes) {
    return bytes.starts_with(kMagic);
}

std::uint64_t BinaryPropertyList::number(std::uint64_t position, std::uint64_t size) const {
    std::uint64_t value = 0;
    for (std::uint64_t i = 0; i < size; ++i)
        value = value << 8 | static_cast<unsigned char>(mBytes[position + i]);
    return value;
}

bool BinaryPropertyList::readTrailer() {
    if (!isBinary(mBytes) || mBytes.size() < kMagic.size() + kTrailerSize)
        return false;
    mObjectsEnd = mBytes.size() - kTrailerSize;
    mOffsetSize = number(mObjectsEnd + 6, 1);
    mReferenceSize = number(mObjectsEnd + 7, 1);
    mObjectCount = number(mObjectsEnd + 8, 8);
    mRoot = number(mObjectsEnd + 16, 8);
    mOffsetTable = number(mObjectsEnd + 24, 8);
    const auto isSize = [](std::uint64_t size) { return size >= 1 && size <= 8; };
    return isSize(mOffsetSize) && isSize(mReferenceSize) && mRoot < mObjectCount &&
           mOffsetTable >= kMagic.size() && fits(mOffsetTable, mObjectCount, mOffsetSize);
}

std::optional<std::uint64_t> BinaryPropertyList::count(std::uint64_t& position, unsigned low) const {
    if (low != 15)
        return low;
    if (!fits(position, 1, 1))
        return std::nullopt;
    const auto marker = static_cast<unsigned>(number(position, 1));
    const std::uint64_t size = std::uint64_t{1} << (marker & 15U);
    if (marker >> 4 != 1 || size > 8 || !fits(position + 1, 1, size))
        return std::nullopt;
    const std::uint64_t value = number(position + 1, size);
    position += 1 + size;
    return value;
}

// The library ends the process over a key with a null character, and to everybody else a text ends there.
bool BinaryPropertyList::holdsNull(const Object& text) const {
    if (text.kind == Kind::text)
        return std::memchr(mBytes.data() + text.begin, 0, text.count) != nullptr;
    for (std::uint64_t i = 0; i < text.count; ++i) {
        if (number(text.begin + 2 * i, 2) == 0)
            return true;
    }
    return false;
}

BinaryPropertyList::Object BinaryPropertyList::object(std::uint64_t index) const {
    constexpr Object none;
    if (!mIsWhole || index >= mObjectCount)
        return none;
    std::uint64_t position = number(mOffsetTable + index * mOffsetSize, mOffsetSize);
    if (position < kMagic.size() || !fits(position, 1, 1))
        return none;
    const auto marker = static_cast<unsigned>(number(position++, 1));
    const unsigned low = marker & 15U;
    const auto found = [&](Kind kind, std::uint64_t length, std::uint64_t unit) {
        return fits(position, length, unit) ? Object{kind, position, length} : none;
    };
    switch (marker >> 4) {
    case 0x0:
        return low == 8 || low == 9 ? Object{low == 9 ? Kind::yes : Kind::no, position, 0} : none;
    case 0x1:
        return low <= 4 ? found(Kind::integer, std::uint64_t{1} << low, 1) : none;
    case 0x2:
        return low == 2 || low == 3 ? found(Kind::real, std::uint64_t{1} << low, 1) : none;
    case 0x3:
        return low == 3 ? found(Kind::date, 8, 1) : none;
    case 0x8:
        return found(Kind::identifier, low + 1, 1);
    default:
        break;
    }
    const auto length = count(position, low);
    if (!length)
        return none;
    switch (marker >> 4) {
    case 0x4:
        return found(Kind::data, *length, 1);
    case 0x5:
    case 0x6: {
        const Object text =
            marker >> 4 == 0x5 ? found(Kind::text, *length, 1) : found(Kind::wideText, *length, 2);
        return text.kind != Kind::none && holdsNull(text) ? none : text;
    }
    case 0xa:
        return found(Kind::array, *length, mReferenceSize);
    case 0xd: // keys, then values
        return found(Kind::dictionary, *length, 2 * mReferenceSize);
    default:
        return none;
    }
}

BinaryPropertyList::Node BinaryPropertyList::root() const {
    return Node(*this, mRoot);
}

std::uint64_t BinaryPropertyList::Node::size() const {
    return mObject.kind == Kind::wideText ? 2 * mObject.count : count() == 0 ? mObject.count : 0;
}

std::string_view BinaryPropertyList::Node::bytes() const {
    return mList->mBytes.substr(mObject.begin, size());
}

bool BinaryPropertyList::Node::appendText(std::string& to) const {
    if (mObject.kind == Kind::wideText)
        appendWide(to, bytes());
    else if (mObject.kind == Kind::text && isAscii(bytes()))
        to += bytes();
    else if (mObject.kind == Kind::text)
        to += validUtf8(std::string(bytes()));
    else
        return false;
    return true;
}

std::optional<std::string> BinaryPropertyList::Node::text() const {
    std::string text;
    return appendText(text) ? std::optional(std::move(text)) : std::nullopt;
}

std::optional<std::int64_t> BinaryPropertyList::Node::integer() const {
    const auto low = [&](std::uint64_t size) { // the last bytes
        return mList->number(mObject.begin + mObject.count - size, size);
    };
    switch (mObject.kind) {
    case Kind::integer: // a negative one has 8 bytes, or 16
        return static_cast<std::int64_t>(low(std::min<std::uint64_t>(mObject.count, 8)));
    case Kind::real: {
        if (mObject.count == 4) {
            const auto bits = static_cast<std::uint32_t>(low(4));
            float value = 0;
            std::memcpy(&value, &bits, sizeof value);
            return saturated(value);
        }
        const std::uint64_t bits = low(8);
        double value = 0;
        std::memcpy(&value, &bits, sizeof value);
        return saturated(value);
    }
    case Kind::no:
    case Kind::yes:
        return mObject.kind == Kind::yes ? 1 : 0;
    default:
        return std::nullopt;
    }
}

std::optional<std::string> BinaryPropertyList::Node::data() const {
    return mObject.kind == Kind::data ? std::optional(std::string(bytes())) : std::nullopt;
}

BinaryPropertyList::Node BinaryPropertyList::Node::reference(std::uint64_t index) const {
    const std::uint64_t size = mList->mReferenceSize;
    return Node(*mList, mList->number(mObject.begin + index * size, size));
}

BinaryPropertyList::Node BinaryPropertyList::Node::element(std::uint64_t index) const {
    return isArray() && index < mObject.count ? reference(index) : Node();
}

BinaryPropertyList::Node BinaryPropertyList::Node::key(std::uint64_t index) const {
    return isDictionary() && index < mObject.count ? reference(index) : Node();
}

BinaryPropertyList::Node BinaryPropertyList::Node::value(std::uint64_t index) const {
    return isDictionary() && index < mObject.count ? reference(mObject.count + index) : Node();
}

BinaryPropertyList::Node BinaryPropertyList::Node::in(std::string_view wanted) const {
    for (std::uint64_t i = 0; isDictionary() && i < mObject.count; ++i) {
        const Node candidate = key(i);
        const bool isSame = candidate.mObject.kind == Kind::text && isAscii(candidate.bytes())
                                ? candidate.bytes() == wanted
                                : candidate.text() == wanted;
        if (isSame)
            return value(i);
    }
    return {};
}

} // namespace Base
