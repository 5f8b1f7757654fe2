#pragma once

#include "itemStorage.h"

#include <memory>

class cDataCollectionInt;

// Metadata that a caller may hang on a collection; the collection clones it and deletes its clone.
class DescriptionStruct {
public:
    virtual ~DescriptionStruct() = default;
    // A new copy that belongs to the caller.
    virtual DescriptionStruct* clone() const = 0;
    virtual bool operator==(const DescriptionStruct& other) const = 0;
};

// A collection of items with the same number of double elements each, in one block, item after item. It grows
// item by item with addItem, or is given its size at once. Element (i, j) is element j of item i.
//
// Indices out of range and memory that cannot be had end the process (mathAssert.h). An instance belongs to
// one thread at a time. Pointers to items stay valid until the collection grows, is resized or assigned to.
class cDataCollection : public cItemStorage<double> {
public:
    cDataCollection() = default;
    // One item of `items` elements.
    explicit cDataCollection(long items);
    // Contents undefined.
    cDataCollection(long items, long itemSize);
    // Copies items * itemSize values. Without data the collection holds no item, with room for `items` zeroed
    // ones.
    cDataCollection(long items, long itemSize, const double* data);
    cDataCollection(const cDataCollection& other);
    virtual ~cDataCollection() = default;

    // Changes the shape; returns 0. A block that is large enough is kept with the values as they lie in it,
    // otherwise the contents are lost and undefined.
    virtual int resize(long items, long itemSize);

    cDataCollection& operator=(const cDataCollection& other);
    // Same shape, equal descriptions (or none on either side), and the same bytes: unequal zeros differ,
    // equal NaNs do not.
    bool operator==(const cDataCollection& other) const;

    // Appends a copy of one item, which may be one of the collection's own.
    void addItem(const double* item);
    // Append unless an item with squared distance 0, or of at most `tolerance` (squared too), is there.
    void addItemIfUnique(const double* item, bool& added);
    void addItemIfUnique(const double* item, double tolerance, bool& added);

    // New shape and contents, as the constructor with the same arguments would make them.
    void setToData(long items, long itemSize, const double* data);
    // Takes over shape, values and, when the source has one, the description; returns the result of resize.
    int CopyItems(const cDataCollection& source);

    // Index of the item nearest to `item`, the first of equally near ones, and its Euclidean distance; -1 and
    // 1e+50 in an empty collection.
    long getNearestItem(const double* item, double& distance) const;
    // Equality of the bytes.
    bool compareItem(long i, const double* item) const;

    // Element j of every item becomes its old element order[j]; false, and nothing done, unless `order` has
    // one entry per element.
    bool changeItemOrder(const cDataCollectionInt& order);

    // Side by side; empty when the item counts differ.
    cDataCollection itemMerge(const cDataCollection& other) const;
    // One below the other, with this one's description; empty when the item sizes differ, unless this one's
    // is 0.
    cDataCollection combineCollections(const cDataCollection& other) const;
    // A collection of item i alone, with the description.
    cDataCollection getItem(long i) const;

    using cItemStorage::GetItem;
    double GetItem(long itemNum, long elementNumber) const {
        assertElement(itemNum, elementNumber);
        return itemAt(itemNum)[elementNumber];
    }
    double& operator()(long itemNum, long elementNumber) {
        assertElement(itemNum, elementNumber);
        return itemAt(itemNum)[elementNumber];
    }
    double operator()(long itemNum, long elementNumber) const { return GetItem(itemNum, elementNumber); }
    void SetItem(long itemNum, long elementNumber, double value) {
        assertElement(itemNum, elementNumber);
        itemAt(itemNum)[elementNumber] = value;
    }
    void SetItem(long i, const double* values);
    void SetItemToItem(long toItemNum, long fromItemNum, const cDataCollection& fromDC);

    // By position in storage order: row * item size + column.
    double& operator[](int position) {
        assertPosition(position);
        return data()[position];
    }
    double operator[](int position) const {
        assertPosition(position);
        return data()[position];
    }

    // Replaces the description by a clone of `description`; null clears it.
    void setDescription(const DescriptionStruct* description);
    const DescriptionStruct* description() const { return mDescription.get(); }

    // Permutes the items, the same way for the same number of items.
    void scramble();

    // Writes a line per item, each element as "%lf\t"; nothing when `flag` is true. False when the file
    // cannot be written.
    bool dumpToFile(const char* path, bool flag) const;

private:
    void assertElement(long itemNum, long elementNumber, const CallSite& site = CallSite::here()) const {
        mathAssert((itemNum < mNumItems) && (itemNum >= 0) && (elementNumber < mItemSize) &&
                       (elementNumber >= 0),
                   "(itemNum < mNumItems) && (itemNum >=0) && (elementNumber < mItemSize) && "
                   "(elementNumber >= 0)",
                   site);
    }
    void assertPosition(long position, const CallSite& site = CallSite::here()) const {
        mathAssert(position < mNumItems * mItemSize, "position < mNumItems*mItemSize", site);
        mathAssert(position >= 0, "position >= 0", site);
    }

    std::unique_ptr<DescriptionStruct> mDescription;
};
