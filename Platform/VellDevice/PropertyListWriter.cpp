#include "PropertyListWriter.h"

#include <Base/Utf8.h>

#include <algorithm>
#include <cstring>
#include <functional>

namespace VellService {
namespace {

constexpr std::size_t kFirstTableSize = 256; // a power of two
constexpr std::size_t kTrailerPadding = 6;

void putNumber(std::string& bytes, std::uint64_t value, unsigned size) {
    char text[8];
    for (unsigned i = 0; i < size; ++i)
        text[i] = static_cast<char>(value >> (8 * (size - 1 - i)) & 0xff);
    bytes.append(text, size);
}

// Numbers of one size, straight into their place: a row of a chart has tens of thousands of references.
class NumberRow {
public:
    NumberRow(std::string& bytes, std::size_t count, unsigned size) : mSize(size) {
        const std::size_t begin = bytes.size();
        bytes.resize(begin + count * size);
        mNext = bytes.data() + begin;
    }
    void put(std::uint64_t value) {
        for (unsigned shift = 8 * mSize; shift > 0;)
            *mNext++ = static_cast<char>(value >> (shift -= 8));
    }

private:
    const unsigned mSize;
    char* mNext;
};

// The bytes that a count or reference up to `value` takes.
unsigned sizeFor(std::uint64_t value) {
    return value <= 0xff ? 1 : value <= 0xffff ? 2 : value <= 0xffffffff ? 4 : 8;
}

void putInteger(std::string& bytes, std::int64_t value) {
    // Only the longest form has a sign.
    const unsigned size = value < 0 ? 8 : sizeFor(static_cast<std::uint64_t>(value));
    bytes += static_cast<char>(size == 1 ? 0x10 : size == 2 ? 0x11 : size == 4 ? 0x12 : 0x13);
    putNumber(bytes, static_cast<std::uint64_t>(value), size);
}

// The UTF-16 units of valid UTF-8.
std::vector<std::uint16_t> utf16(std::string_view text) {
    std::vector<std::uint16_t> units;
    for (std::size_t i = 0; i < text.size();) {
        const auto first = static_cast<unsigned char>(text[i]);
        const unsigned length = first < 0x80 ? 1 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
        std::uint32_t code = length == 1 ? first : first & (0x7fU >> length);
        for (unsigned k = 1; k < length; ++k)
            code = code << 6 | (static_cast<unsigned char>(text[i + k]) & 0x3fU);
        i += length;
        if (code >= 0x10000) {
            units.push_back(static_cast<std::uint16_t>(0xd800 + ((code - 0x10000) >> 10)));
            units.push_back(static_cast<std::uint16_t>(0xdc00 + ((code - 0x10000) & 0x3ff)));
        } else {
            units.push_back(static_cast<std::uint16_t>(code));
        }
    }
    return units;
}

} // namespace

PropertyListWriter::PropertyListWriter() : mTable(kFirstTableSize) {
    // Room for most messages.
    mLeaves.reserve(2048);
    mReferences.reserve(kFirstTableSize);
    mObjects.reserve(kFirstTableSize);
}

void PropertyListWriter::putMarker(std::string& bytes, char marker, std::size_t count) const {
    if (count < 15) {
        bytes += static_cast<char>(marker | static_cast<char>(count));
    } else {
        bytes += static_cast<char>(marker | 0x0f);
        putInteger(bytes, static_cast<std::int64_t>(count));
    }
}

PropertyListWriter::Value PropertyListWriter::addLeaf(std::size_t begin) {
    mObjects.push_back({begin, mLeaves.size() - begin, 0});
    return static_cast<Value>(mObjects.size() - 1);
}

PropertyListWriter::Value PropertyListWriter::text(std::string_view utf8) {
    if (Base::isAscii(utf8))
        return plainText(utf8);
    const std::size_t begin = mLeaves.size();
    const auto units = utf16(Base::validUtf8(std::string(utf8)));
    putMarker(mLeaves, 0x60, units.size());
    for (const std::uint16_t unit : units)
        putNumber(mLeaves, unit, 2);
    return addLeaf(begin);
}

PropertyListWriter::Value PropertyListWriter::plainText(std::string_view text) {
    if (mTextCount * 2 >= mTable.size())
        growTable();
    const std::size_t hash = std::hash<std::string_view>()(text);
    std::size_t place = hash & (mTable.size() - 1);
    for (; mTable[place].next != 0; place = (place + 1) & (mTable.size() - 1)) {
        const Slot& slot = mTable[place];
        if (slot.hash == hash && text == std::string_view(mLeaves).substr(slot.textBegin, slot.textSize))
            return slot.next - 1;
    }
    const std::size_t begin = mLeaves.size();
    putMarker(mLeaves, 0x50, text.size());
    const std::size_t textBegin = mLeaves.size();
    mLeaves += text;
    const Value value = addLeaf(begin);
    mTable[place] = {hash, value + 1, static_cast<std::uint32_t>(textBegin),
                     static_cast<std::uint32_t>(text.size())};
    ++mTextCount;
    return value;
}

void PropertyListWriter::growTable() {
    std::vector<Slot> old(mTable.size() * 2);
    old.swap(mTable);
    for (const Slot& slot : old) {
        if (slot.next == 0)
            continue;
        std::size_t place = slot.hash & (mTable.size() - 1);
        while (mTable[place].next != 0)
            place = (place + 1) & (mTable.size() - 1);
        mTable[place] = slot;
    }
}

PropertyListWriter::Value PropertyListWriter::integer(std::int64_t value) {
    const std::size_t begin = mLeaves.size();
    putInteger(mLeaves, value);
    return addLeaf(begin);
}

PropertyListWriter::Value PropertyListWriter::real(double value) {
    const std::size_t begin = mLeaves.size();
    std::uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    mLeaves += '\x23';
    putNumber(mLeaves, bits, 8);
    return addLeaf(begin);
}

PropertyListWriter::Value PropertyListWriter::flag(bool value) {
    const std::size_t begin = mLeaves.size();
    mLeaves += value ? '\x09' : '\x08';
    return addLeaf(begin);
}

PropertyListWriter::Value PropertyListWriter::data(std::string_view bytes) {
    const std::size_t begin = mLeaves.size();
    putMarker(mLeaves, 0x40, bytes.size());
    mLeaves += bytes;
    return addLeaf(begin);
}

PropertyListWriter::Value PropertyListWriter::addContainer(char marker, std::size_t begin) {
    mObjects.push_back({begin, mReferences.size() - begin, marker});
    return static_cast<Value>(mObjects.size() - 1);
}

PropertyListWriter::Value PropertyListWriter::array(const std::vector<Value>& elements) {
    const std::size_t begin = mReferences.size();
    mReferences.insert(mReferences.end(), elements.begin(), elements.end());
    return addContainer('\xa0', begin);
}

PropertyListWriter::Value PropertyListWriter::dictionary(const std::vector<Entry>& entries) {
    const std::size_t begin = mReferences.size();
    for (const Entry& entry : entries)
        mReferences.push_back(entry.first);
    for (const Entry& entry : entries)
        mReferences.push_back(entry.second);
    return addContainer('\xd0', begin);
}

std::string PropertyListWriter::finish(Value root) {
    const unsigned referenceSize = sizeFor(mObjects.size());
    std::string bytes = "bplist00";
    bytes.reserve(mLeaves.size() + mReferences.size() * referenceSize + mObjects.size() * 8 + 64);
    std::vector<std::size_t> offsets;
    offsets.reserve(mObjects.size());
    for (const Object& object : mObjects) {
        offsets.push_back(bytes.size());
        if (!object.container) {
            bytes.append(mLeaves, object.begin, object.size);
            continue;
        }
        putMarker(bytes, object.container, object.container == '\xd0' ? object.size / 2 : object.size);
        NumberRow row(bytes, object.size, referenceSize);
        for (std::size_t i = 0; i < object.size; ++i)
            row.put(mReferences[object.begin + i]);
    }
    const std::size_t table = bytes.size();
    const unsigned offsetSize = sizeFor(table);
    NumberRow row(bytes, offsets.size(), offsetSize);
    for (const std::size_t offset : offsets)
        row.put(offset);
    bytes.append(kTrailerPadding, '\0');
    bytes += static_cast<char>(offsetSize);
    bytes += static_cast<char>(referenceSize);
    putNumber(bytes, mObjects.size(), 8);
    putNumber(bytes, root, 8);
    putNumber(bytes, table, 8);
    return bytes;
}

} // namespace VellService
