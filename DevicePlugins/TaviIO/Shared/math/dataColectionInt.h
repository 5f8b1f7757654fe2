#pragma once

#include "itemStorage.h"

// A collection of items of long integers: index lists, positions, permutations. Same layout, growth and
// failures as cDataCollection, without a description. An instance belongs to one thread at a time.
class cDataCollectionInt : public cItemStorage<long> {
public:
    cDataCollectionInt() = default;
    // One item of `items` elements.
    explicit cDataCollectionInt(long items);
    // Contents undefined.
    cDataCollectionInt(long items, long itemSize);
    // Copies items * itemSize values. Without data the collection holds no item, with room for `items` zeroed
    // ones.
    cDataCollectionInt(long items, long itemSize, const long* data);

    bool operator==(const cDataCollectionInt& other) const;

    // As cDataCollection::resize.
    int resize(long items, long itemSize);

    // Appends a copy of one item, which may be one of the collection's own.
    void addItem(const long* item);
    // Appends unless an equal item is there.
    void addItemIfUnique(const long* item, bool& added);
    // True when no item equals this one.
    bool isUnique(const long* item) const;
    // As cDataCollection::setToData and CopyItems.
    void setToData(long items, long itemSize, const long* data);
    int CopyItems(const cDataCollectionInt& source);
    // As cDataCollection::getNearestItem.
    long getNearestItem(const long* item, double& distance) const;

    using cItemStorage::GetItem;
    long GetItem(long itemNum, long elementNumber) const {
        assertElement(itemNum, elementNumber);
        return itemAt(itemNum)[elementNumber];
    }
    long& operator()(long itemNum, long elementNumber) {
        assertElement(itemNum, elementNumber);
        return itemAt(itemNum)[elementNumber];
    }
    long operator()(long itemNum, long elementNumber) const { return GetItem(itemNum, elementNumber); }
    void SetItem(long itemNum, long elementNumber, long value) { (*this)(itemNum, elementNumber) = value; }

    // By position in storage order.
    long& operator[](int position) {
        assertPosition(position);
        return data()[position];
    }
    long operator[](int position) const {
        assertPosition(position);
        return data()[position];
    }

    // Permutes the items, the same way for the same number of items.
    void scramble();

    // Writes a line per item, each element as "%ld\t", to a file (false when it cannot be written) or to the
    // standard output.
    bool dumpToFIle(const char* path) const;
    void print() const;

private:
    void assertElement(long itemNum, long elementNumber, const CallSite& site = CallSite::here()) const {
        assertItem(itemNum, site);
        mathAssert((elementNumber < mItemSize) && (elementNumber >= 0),
                   "(elementNumber < mItemSize) && (elementNumber >= 0)", site);
    }
    void assertPosition(long position, const CallSite& site = CallSite::here()) const {
        mathAssert((position < mNumItems * mItemSize) && (position >= 0),
                   "(position < mNumItems*mItemSize) && (position >= 0)", site);
    }
};
