#include <Base/PropertyListGuard.h>

#include <algorithm>
#include <optional>
#include <vector>

namespace Base {
namespace {

constexpr std::string_view kBinaryMagic = "bplist00";
constexpr std::size_t kTrailerSize = 32;

// Reads the object table of a binary property list; everything it reads is checked to lie inside the bytes.
class BinaryReader {
public:
    explicit BinaryReader(std::string_view bytes) : mBytes(bytes) {}

    struct Object {
        bool isContainer = false;
        std::uint64_t size = 0;       // bytes of a leaf
        std::uint64_t children = 0;   // references of a container
        std::uint64_t references = 0; // where they begin
    };

    bool readTrailer();
    std::uint64_t root() const { return mRoot; }
    std::optional<Object> object(std::uint64_t index) const;
    std::uint64_t child(const Object& container, std::uint64_t index) const {
        return number(container.references + index * mReferenceSize, mReferenceSize);
    }

private:
    // Big-endian, up to 8 bytes that are known to be there.
    std::uint64_t number(std::uint64_t position, std::uint64_t size) const {
        std::uint64_t value = 0;
        for (std::uint64_t i = 0; i < size; ++i)
            value = value << 8 | static_cast<unsigned char>(mBytes[position + i]);
        return value;
    }
    bool fits(std::uint64_t position, std::uint64_t count, std::uint64_t size) const {
        return position <= mObjectsEnd && count <= (mObjectsEnd - position) / size;
    }
    std::optional<Object> leaf(std::uint64_t position, std::uint64_t count, std::uint64_t unit) const {
        if (!fits(position, count, unit))
            return std::nullopt;
        return Object{false, count * unit, 0, 0};
    }
    // The library ends the process over a key with a null character, and to everybody else a text ends there.
    std::optional<Object> text(std::uint64_t position, std::uint64_t count, std::uint64_t unit) const {
        auto object = leaf(position, count, unit);
        if (object && unit == 1 && mBytes.substr(position, count).find('\0') != std::string_view::npos)
            object.reset();
        for (std::uint64_t i = 0; object && unit > 1 && i < count; ++i) {
            if (number(position + i * unit, unit) == 0)
                object.reset();
        }
        return object;
    }
    std::optional<Object> container(std::uint64_t position, std::uint64_t count,
                                    std::uint64_t perEntry) const {
        if (!fits(position, count, perEntry * mReferenceSize))
            return std::nullopt;
        return Object{true, 0, count * perEntry, position};
    }
    // The count of a marker, which may continue in an integer object behind it; moves the position past it.
    std::optional<std::uint64_t> count(std::uint64_t& position, unsigned low) const;

    const std::string_view mBytes;
    std::uint64_t mOffsetSize = 0;
    std::uint64_t mReferenceSize = 0;
    std::uint64_t mObjectCount = 0;
    std::uint64_t mRoot = 0;
    std::uint64_t mOffsetTable = 0;
    std::uint64_t mObjectsEnd = 0; // objects lie before the trailer
};

bool BinaryReader::readTrailer() {
    if (mBytes.size() < kBinaryMagic.size() + kTrailerSize)
        return false;
    mObjectsEnd = mBytes.size() - kTrailerSize;
    mOffsetSize = number(mObjectsEnd + 6, 1);
    mReferenceSize = number(mObjectsEnd + 7, 1);
    mObjectCount = number(mObjectsEnd + 8, 8);
    mRoot = number(mObjectsEnd + 16, 8);
    mOffsetTable = number(mObjectsEnd + 24, 8);
    const auto isSize = [](std::uint64_t size) { return size >= 1 && size <= 8; };
    return isSize(mOffsetSize) && isSize(mReferenceSize) && mRoot < mObjectCount &&
           mOffsetTable >= kBinaryMagic.size() && fits(mOffsetTable, mObjectCount, mOffsetSize);
}

std::optional<std::uint64_t> BinaryReader::count(std::uint64_t& position, unsigned low) const {
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

std::optional<BinaryReader::Object> BinaryReader::object(std::uint64_t index) const {
    if (index >= mObjectCount)
        return std::nullopt;
    std::uint64_t position = number(mOffsetTable + index * mOffsetSize, mOffsetSize);
    if (position < kBinaryMagic.size() || !fits(position, 1, 1))
        return std::nullopt;
    const auto marker = static_cast<unsigned>(number(position++, 1));
    const unsigned low = marker & 15U;
    switch (marker >> 4) {
    case 0x0: // null, booleans
        return Object{};
    case 0x1: // integer
    case 0x2: // real
        return low <= 4 ? leaf(position, 1, std::uint64_t{1} << low) : std::nullopt;
    case 0x3: // date
        return leaf(position, 1, 8);
    case 0x8: // unique identifier
        return leaf(position, low + 1, 1);
    default:
        break;
    }
    const auto length = count(position, low);
    if (!length)
        return std::nullopt;
    switch (marker >> 4) {
    case 0x4: // data
        return leaf(position, *length, 1);
    case 0x5: // characters of one byte
        return text(position, *length, 1);
    case 0x6: // characters of two bytes
        return text(position, *length, 2);
    case 0xa: // array
        return container(position, *length, 1);
    case 0xd: // dictionary: keys, then values
        return container(position, *length, 2);
    default:
        return std::nullopt;
    }
}

// The nesting of elements in XML text, as far as it matters for recursion. What two readers could take for
// different things (a bracket in quotes, a declaration of the text's own) is refused: what this passes over
// as a comment or a text must be one to the library, too.
class XmlScanner {
public:
    explicit XmlScanner(std::string_view text) : mText(text) {}

    // False when the text nests too deep, breaks off inside a construct or has one that is ambiguous.
    bool isShallow() {
        for (;;) {
            mPosition = mText.find('<', mPosition);
            if (mPosition == std::string_view::npos)
                return true;
            if (!passConstruct() || mDepth > PropertyListGuard::kMaximumDepth)
                return false;
        }
    }

private:
    // Past `begin`, which must stand here, and the next `end` behind it; the two may not share a character.
    bool pass(std::string_view begin, std::string_view end) {
        if (mText.substr(mPosition, begin.size()) != begin)
            return false;
        const std::size_t found = mText.find(end, mPosition + begin.size());
        mIsBroken = found == std::string_view::npos || found != mText.find(end, mPosition + 1);
        mPosition = mIsBroken ? mText.size() : found + end.size();
        return true;
    }
    bool passConstruct() {
        if (pass("<!--", "-->") || pass("<![CDATA[", "]]>") || pass("<?", "?>"))
            return !mIsBroken;
        const std::size_t end = mText.find('>', mPosition);
        if (end == std::string_view::npos)
            return false;
        const std::string_view inside = mText.substr(mPosition + 1, end - mPosition - 1);
        mPosition = end + 1;
        if (!isUnambiguous(inside))
            return false;
        if (inside.starts_with('!'))
            return inside.starts_with("!DOCTYPE");
        if (inside.starts_with('/'))
            mDepth = std::max(0, mDepth - 1);
        else if (!inside.ends_with('/'))
            ++mDepth;
        return true;
    }
    static bool isUnambiguous(std::string_view inside) {
        const auto isEven = [&](char quote) {
            return std::count(inside.begin(), inside.end(), quote) % 2 == 0;
        };
        return inside.find_first_of("<[") == std::string_view::npos && isEven('"') && isEven('\'');
    }

    const std::string_view mText;
    std::size_t mPosition = 0;
    int mDepth = 0;
    bool mIsBroken = false;
};

} // namespace

bool PropertyListGuard::isBinary(std::string_view bytes) {
    return bytes.starts_with(kBinaryMagic);
}

bool PropertyListGuard::isSafeBinary(std::string_view bytes) {
    BinaryReader reader(bytes);
    if (!isBinary(bytes) || bytes.size() > kMaximumSize || !reader.readTrailer())
        return false;
    struct Level {
        BinaryReader::Object container;
        std::uint64_t next;
    };
    std::vector<Level> path; // from the root to the container whose children are being looked at
    std::uint64_t size = 0;
    std::uint64_t objects = 0;
    std::uint64_t index = reader.root();
    for (;;) {
        const auto object = reader.object(index);
        if (!object)
            return false;
        size += object->size;
        if (++objects > kMaximumObjects || size > kMaximumSize)
            return false;
        if (object->isContainer && object->children > 0) {
            if (path.size() >= static_cast<std::size_t>(kMaximumDepth))
                return false;
            path.push_back({*object, 0});
        }
        while (!path.empty() && path.back().next == path.back().container.children)
            path.pop_back();
        if (path.empty())
            return true;
        index = reader.child(path.back().container, path.back().next++);
    }
}

bool PropertyListGuard::isSafeXml(std::string_view bytes) {
    return bytes.size() <= kMaximumSize && bytes.find('\0') == std::string_view::npos &&
           XmlScanner(bytes).isShallow();
}

} // namespace Base
