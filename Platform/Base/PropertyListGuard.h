#pragma once

#include <cstdint>
#include <string_view>

namespace Base {

class BinaryPropertyList;

// Looks at the shape of a property list before the library gets it. The library follows references and
// nesting by recursion and copies a shared object once for each reference to it, so bytes that anybody may
// have written could exhaust the stack or the memory. Any thread.
class PropertyListGuard {
public:
    static constexpr int kMaximumDepth = 64;
    static constexpr std::uint64_t kMaximumSize =
        64 << 20; // bytes, shared ones counted as often as they are used
    static constexpr std::uint64_t kMaximumObjects = 1 << 20; // likewise

    static bool isBinary(std::string_view bytes);
    static bool isSafeBinary(std::string_view bytes);
    static bool isSafe(const BinaryPropertyList& list);
    static bool isSafeXml(std::string_view bytes);
};

} // namespace Base
