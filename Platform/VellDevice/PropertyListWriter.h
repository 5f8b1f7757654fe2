#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace VellService {

// Writes a binary property list from the leaves up: each call adds a value and answers a number that stands
// for it in the containers added later. Equal texts are stored once. A row of a chart is thousands of short
// texts, so a writer that needs no tree of them pays. One thread.
class PropertyListWriter {
public:
    using Value = std::uint32_t;
    using Entry = std::pair<Value, Value>; // key (a text) and value

    PropertyListWriter();

    Value text(std::string_view utf8); // made valid first
    Value integer(std::int64_t value);
    Value real(double value);
    Value flag(bool value);
    Value data(std::string_view bytes);
    Value array(const std::vector<Value>& elements);
    Value dictionary(const std::vector<Entry>& entries); // in this order

    // The whole list with `root` outermost; the writer is done with.
    std::string finish(Value root);

private:
    struct Object {
        std::size_t begin; // of a leaf's bytes, or of a container's references
        std::size_t size;
        char container; // the marker of a container; 0 for a leaf
    };

    Value addLeaf(std::size_t begin);
    Value addContainer(char marker, std::size_t begin);
    Value plainText(std::string_view text);
    void putMarker(std::string& bytes, char marker, std::size_t count) const;
    void growTable();

    std::string mLeaves; // as they will stand in the list
    std::vector<Value> mReferences;
    std::vector<Object> mObjects;

    // Where a text was stored, by its hash; 0 marks a free place, else the value plus 1.
    struct Slot {
        std::size_t hash;
        Value next;
        std::uint32_t textBegin; // in mLeaves, behind the marker
        std::uint32_t textSize;
    };
    std::vector<Slot> mTable;
    std::size_t mTextCount = 0;
};

} // namespace VellService
