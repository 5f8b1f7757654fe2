#pragma once

#include "mathAssert.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <new>
#include <type_traits>

// To the nearest item, where there is none.
inline constexpr double kNoDistance = 1e+50;

// What the collections of doubles and of long integers have in common: a block of equally long items, one
// after another (element j of item i at i * item size + j), with room for `capacity` items. A storage without
// room has no block. It is no class to hold on its own; cDataCollection and cDataCollectionInt build on it.
//
// An instance belongs to one thread at a time.
template <class Element>
class cItemStorage {
public:
    long GetNumItems() const { return mNumItems; }
    long GetItemSize() const { return mItemSize; }
    long GetCapacity() const { return mCapacity; }
    long numberOfElements() const { return mNumItems * mItemSize; }

    // All elements; null when there is no room.
    Element* data() { return mData.get(); }
    const Element* data() const { return mData.get(); }

    Element* GetItem(long itemNum) {
        assertItem(itemNum);
        return itemAt(itemNum);
    }
    const Element* GetItem(long itemNum) const {
        assertItem(itemNum);
        return itemAt(itemNum);
    }

    // Removes an item and closes the gap; the room stays.
    void removeItem(long itemNumber) {
        mathAssert(itemNumber >= 0, "itemNumber >=0");
        mathAssert(itemNumber < mNumItems, "itemNumber < mNumItems");
        std::copy(itemAt(itemNumber + 1), itemAt(mNumItems), itemAt(itemNumber));
        --mNumItems;
    }

    void reverseOrder() {
        for (long low = 0, high = mNumItems - 1; low < high; ++low, --high)
            std::swap_ranges(itemAt(low), itemAt(low + 1), itemAt(high));
    }

protected:
    cItemStorage() = default;
    ~cItemStorage() = default;

    // A copy has room for exactly the items of the source.
    cItemStorage(const cItemStorage& other) { assign(other.mNumItems, other.mItemSize, other.data()); }
    cItemStorage& operator=(const cItemStorage& other) {
        if (this != &other)
            assign(other.mNumItems, other.mItemSize, other.data());
        return *this;
    }

    // Keeps the block when it is large enough, contents included; otherwise the contents are lost and
    // undefined.
    int resizeStorage(long items, long itemSize) {
        mathAssert(items >= 0 && itemSize >= 0, "(items >= 0) && (itemSize >= 0)");
        if (items == mNumItems && itemSize == mItemSize)
            return 0;
        const long room = mCapacity * mItemSize;
        if (room < elementCount(items, itemSize)) {
            mData.reset();
            mData = allocate(items, itemSize, "mData");
            mCapacity = items;
        } else {
            mCapacity = itemSize == 0 ? 0 : room / itemSize;
            if (mCapacity == 0)
                mData.reset();
        }
        mNumItems = items;
        mItemSize = itemSize;
        return 0;
    }

    // New room for exactly `items` items, filled from `values`, which may lie in this storage.
    void assign(long items, long itemSize, const Element* values) {
        mathAssert(items >= 0 && itemSize >= 0, "(items >= 0) && (itemSize >= 0)");
        auto fresh = allocate(items, itemSize, "mData");
        if (fresh != nullptr)
            std::copy_n(values, items * itemSize, fresh.get());
        mData = std::move(fresh);
        mNumItems = mCapacity = items;
        mItemSize = itemSize;
    }

    // The same room, zeroed and holding no item yet.
    void reserve(long items, long itemSize) {
        mathAssert(items >= 0 && itemSize >= 0, "(items >= 0) && (itemSize >= 0)");
        mData = allocate(items, itemSize, "mData");
        if (mData != nullptr)
            std::fill_n(mData.get(), items * itemSize, Element{});
        mNumItems = 0;
        mCapacity = items;
        mItemSize = itemSize;
    }

    void assignOrReserve(long items, long itemSize, const Element* values) {
        if (values != nullptr)
            assign(items, itemSize, values);
        else
            reserve(items, itemSize);
    }

    // The item may lie in this storage: the old block lives until it has been copied.
    void append(const Element* item) {
        if (mNumItems < mCapacity) {
            std::copy_n(item, mItemSize, itemAt(mNumItems));
        } else {
            const long capacity = mCapacity == 0 ? std::max(10L, mNumItems + 1) : 2 * mCapacity;
            auto fresh = allocate(capacity, mItemSize, "tempData");
            std::copy_n(mData.get(), numberOfElements(), fresh.get());
            std::copy_n(item, mItemSize, fresh.get() + numberOfElements());
            mData = std::move(fresh);
            mCapacity = capacity;
        }
        ++mNumItems;
    }

    // Squared Euclidean distance of an item of this storage to another one.
    double squaredDistance(long itemNum, const Element* other) const {
        const Element* item = itemAt(itemNum);
        double sum = 0;
        for (long j = 0; j < mItemSize; ++j) {
            const double apart = difference(item[j], other[j]);
            sum += apart * apart;
        }
        return sum;
    }

    // The item with the smallest squared distance, the first of equally near ones; -1 when there is none. An
    // item that holds NaN is near to nothing: it is found only where all do.
    long nearestItem(const Element* other, double& squared) const {
        long nearest = -1;
        for (long i = 0; i < mNumItems; ++i) {
            const double distance = squaredDistance(i, other);
            if (nearest < 0 || distance < squared || (std::isnan(squared) && !std::isnan(distance))) {
                nearest = i;
                squared = distance;
            }
        }
        return nearest;
    }

    void assertItem(long itemNum, const CallSite& site = CallSite::here()) const {
        mathAssert((itemNum < mNumItems) && (itemNum >= 0), "(itemNum < mNumItems) && (itemNum >=0)", site);
    }

    Element* itemAt(long itemNum) { return mData.get() + itemNum * mItemSize; }
    const Element* itemAt(long itemNum) const { return mData.get() + itemNum * mItemSize; }

    long mNumItems = 0;
    long mItemSize = 0;

private:
    // Exact for integers, too large for a double's digits though they may be.
    static double difference(Element a, Element b) {
        if constexpr (std::is_integral_v<Element>) {
            Element exact{};
            if (!__builtin_sub_overflow(a, b, &exact))
                return static_cast<double>(exact);
        }
        return static_cast<double>(a) - static_cast<double>(b);
    }

    // The number of elements, or one that no allocation can satisfy.
    static long elementCount(long items, long itemSize) {
        long count = 0;
        const bool overflow = __builtin_mul_overflow(items, itemSize, &count);
        return overflow ? std::numeric_limits<long>::max() : count;
    }

    static std::unique_ptr<Element[]> allocate(long items, long itemSize, const char* text) {
        const long count = elementCount(items, itemSize);
        if (count == 0)
            return nullptr;
        constexpr long kMost = std::numeric_limits<long>::max() / static_cast<long>(sizeof(Element));
        std::unique_ptr<Element[]> block;
        if (count <= kMost)
            block.reset(new (std::nothrow) Element[static_cast<std::size_t>(count)]);
        mathAssert(block != nullptr, text);
        return block;
    }

    long mCapacity = 0;
    std::unique_ptr<Element[]> mData;
};
