#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Base {

// A binary property list that is read where its bytes lie, without a tree in between: for messages of which
// many come in a second. Every access is checked to lie inside the bytes, which must outlive this and its
// nodes. Any thread.
class BinaryPropertyList {
public:
    class Node;

    explicit BinaryPropertyList(std::string_view bytes) : mBytes(bytes), mIsWhole(readTrailer()) {}

    static bool isBinary(std::string_view bytes);

    // There is an object table. What its objects refer to may be endless: PropertyListGuard looks at that.
    bool isWhole() const { return mIsWhole; }
    Node root() const;

private:
    enum class Kind : std::uint8_t {
        none,
        no,
        yes,
        integer,
        real,
        date,
        identifier,
        data,
        text,     // characters of one byte
        wideText, // and of two
        array,
        dictionary
    };
    struct Object {
        Kind kind = Kind::none;
        std::uint64_t begin = 0; // of its bytes, or of a container's references
        std::uint64_t count = 0; // bytes, characters, elements or entries
    };

    bool readTrailer();
    Object object(std::uint64_t index) const;
    // Big-endian, up to 8 bytes that are known to be there.
    std::uint64_t number(std::uint64_t position, std::uint64_t size) const;
    bool fits(std::uint64_t position, std::uint64_t count, std::uint64_t size) const {
        return position <= mObjectsEnd && count <= (mObjectsEnd - position) / size;
    }
    // The count of a marker, which may continue in an integer object behind it; moves the position past it.
    std::optional<std::uint64_t> count(std::uint64_t& position, unsigned low) const;
    bool holdsNull(const Object& text) const;

    const std::string_view mBytes;
    std::uint64_t mOffsetSize = 0;
    std::uint64_t mReferenceSize = 0;
    std::uint64_t mObjectCount = 0;
    std::uint64_t mRoot = 0;
    std::uint64_t mOffsetTable = 0;
    std::uint64_t mObjectsEnd = 0; // objects lie before the trailer
    const bool mIsWhole;
};

// One of its values, or none. Small; passed by value.
class BinaryPropertyList::Node {
public:
    Node() = default;

    // There is a value, and it can be read.
    explicit operator bool() const { return mObject.kind != Kind::none; }
    bool isText() const { return mObject.kind == Kind::text || mObject.kind == Kind::wideText; }
    bool isArray() const { return mObject.kind == Kind::array; }
    bool isDictionary() const { return mObject.kind == Kind::dictionary; }
    // The same number is the same value of the list.
    std::uint64_t identity() const { return mIndex; }

    // The bytes of a text or of data, as they stand there; those of another value, too.
    std::uint64_t size() const;
    // A text in valid UTF-8; nothing when it is none. `appendText` saves the copy.
    std::optional<std::string> text() const;
    bool appendText(std::string& to) const;
    std::optional<std::int64_t> integer() const; // a real, truncated, or a boolean counts, too
    std::optional<std::string> data() const;

    // Elements of an array or entries of a dictionary; 0 for what is neither.
    std::uint64_t count() const { return isArray() || isDictionary() ? mObject.count : 0; }
    Node element(std::uint64_t index) const; // of an array
    Node key(std::uint64_t index) const;     // of a dictionary
    Node value(std::uint64_t index) const;
    // The first value under a key; none when there is no such key, or for what is no dictionary.
    Node in(std::string_view key) const;

private:
    friend class BinaryPropertyList;
    Node(const BinaryPropertyList& list, std::uint64_t index)
        : mList(&list), mIndex(index), mObject(list.object(index)) {}
    Node reference(std::uint64_t index) const;
    std::string_view bytes() const;

    const BinaryPropertyList* mList = nullptr;
    std::uint64_t mIndex = 0;
    Object mObject;
};

} // namespace Base
