#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>

// Working memory whose size is known when it is made: zeroed elements, in the object itself when there are at
// most `Inline` of them, so that small matrices need no allocation.
template <class Element, std::size_t Inline>
class cScratchArray {
public:
    explicit cScratchArray(long count) {
        const auto size = static_cast<std::size_t>(count);
        if (size > Inline)
            mBlock = std::make_unique<Element[]>(size);
        else
            std::fill_n(mInline.data(), size, Element{});
    }
    cScratchArray(const cScratchArray&) = delete;
    cScratchArray& operator=(const cScratchArray&) = delete;

    Element* data() { return mBlock != nullptr ? mBlock.get() : mInline.data(); }
    const Element* data() const { return mBlock != nullptr ? mBlock.get() : mInline.data(); }

private:
    std::unique_ptr<Element[]> mBlock;
    std::array<Element, Inline> mInline;
};
