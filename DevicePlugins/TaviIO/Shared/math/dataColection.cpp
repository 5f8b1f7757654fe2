#include "dataColection.h"

#include "dataColectionInt.h"
#include "scram_array.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

std::unique_ptr<DescriptionStruct> cloneOf(const DescriptionStruct* description) {
    return std::unique_ptr<DescriptionStruct>(description != nullptr ? description->clone() : nullptr);
}

std::size_t bytes(long elements) {
    return static_cast<std::size_t>(elements) * sizeof(double);
}

// memcmp does not take null pointers, not even for nothing.
bool sameBytes(const double* a, const double* b, long elements) {
    return elements == 0 || std::memcmp(a, b, bytes(elements)) == 0;
}

} // namespace

cDataCollection::cDataCollection(long items) {
    resizeStorage(1, items);
}

cDataCollection::cDataCollection(long items, long itemSize) {
    resizeStorage(items, itemSize);
}

cDataCollection::cDataCollection(long items, long itemSize, const double* data) {
    assignOrReserve(items, itemSize, data);
}

cDataCollection::cDataCollection(const cDataCollection& other)
    : cItemStorage(other), mDescription(cloneOf(other.description())) {}

int cDataCollection::resize(long items, long itemSize) {
    return resizeStorage(items, itemSize);
}

cDataCollection& cDataCollection::operator=(const cDataCollection& other) {
    if (this != &other) {
        cItemStorage::operator=(other);
        setDescription(other.description());
    }
    return *this;
}

bool cDataCollection::operator==(const cDataCollection& other) const {
    if (mNumItems != other.mNumItems || mItemSize != other.mItemSize)
        return false;
    const bool described = description() != nullptr;
    if (described != (other.description() != nullptr) ||
        (described && !(*description() == *other.description())))
        return false;
    return sameBytes(data(), other.data(), numberOfElements());
}

void cDataCollection::addItem(const double* item) {
    append(item);
}

void cDataCollection::addItemIfUnique(const double* item, bool& added) {
    addItemIfUnique(item, 0, added);
}

void cDataCollection::addItemIfUnique(const double* item, double tolerance, bool& added) {
    double squared = 0;
    added = nearestItem(item, squared) < 0 || !(squared <= tolerance);
    if (added)
        append(item);
}

void cDataCollection::setToData(long items, long itemSize, const double* data) {
    if (data != nullptr && items == mNumItems && itemSize == mItemSize) {
        if (items * itemSize > 0)
            std::memmove(this->data(), data, bytes(items * itemSize));
        return;
    }
    assignOrReserve(items, itemSize, data);
}

int cDataCollection::CopyItems(const cDataCollection& source) {
    if (this == &source)
        return 0;
    const int result = resize(source.mNumItems, source.mItemSize);
    std::copy_n(source.data(), source.numberOfElements(), data());
    if (source.description() != nullptr)
        setDescription(source.description());
    return result;
}

long cDataCollection::getNearestItem(const double* item, double& distance) const {
    double squared = 0;
    const long nearest = nearestItem(item, squared);
    distance = nearest < 0 ? kNoDistance : std::sqrt(squared);
    return nearest;
}

bool cDataCollection::compareItem(long i, const double* item) const {
    return sameBytes(GetItem(i), item, mItemSize);
}

bool cDataCollection::changeItemOrder(const cDataCollectionInt& order) {
    if (order.numberOfElements() != mItemSize)
        return false;
    const long* from = order.data();
    for (long j = 0; j < mItemSize; ++j)
        mathAssert(from[j] >= 0 && from[j] < mItemSize, "(order[j] >= 0) && (order[j] < mItemSize)");
    std::vector<double> old(static_cast<std::size_t>(mItemSize));
    for (long i = 0; i < mNumItems; ++i) {
        double* item = itemAt(i);
        std::copy_n(item, mItemSize, old.data());
        for (long j = 0; j < mItemSize; ++j)
            item[j] = old[static_cast<std::size_t>(from[j])];
    }
    return true;
}

cDataCollection cDataCollection::itemMerge(const cDataCollection& other) const {
    cDataCollection merged;
    if (mNumItems != other.mNumItems)
        return merged;
    merged.resize(mNumItems, mItemSize + other.mItemSize);
    for (long i = 0; i < mNumItems; ++i) {
        double* end = std::copy_n(itemAt(i), mItemSize, merged.itemAt(i));
        std::copy_n(other.itemAt(i), other.mItemSize, end);
    }
    return merged;
}

cDataCollection cDataCollection::combineCollections(const cDataCollection& other) const {
    if (mItemSize == 0)
        return other;
    cDataCollection combined;
    if (mItemSize != other.mItemSize)
        return combined;
    combined.resize(mNumItems + other.mNumItems, mItemSize);
    double* end = std::copy_n(data(), numberOfElements(), combined.data());
    std::copy_n(other.data(), other.numberOfElements(), end);
    combined.setDescription(description());
    return combined;
}

cDataCollection cDataCollection::getItem(long i) const {
    cDataCollection item(1, mItemSize);
    std::copy_n(GetItem(i), mItemSize, item.data());
    item.setDescription(description());
    return item;
}

void cDataCollection::SetItem(long i, const double* values) {
    double* item = GetItem(i);
    if (mItemSize > 0)
        std::memmove(item, values, bytes(mItemSize));
}

void cDataCollection::SetItemToItem(long toItemNum, long fromItemNum, const cDataCollection& fromDC) {
    mathAssert((fromItemNum < fromDC.mNumItems) && (fromItemNum >= 0),
               "(fromItemNum < fromDC.mNumItems) && (fromItemNum >=0)");
    mathAssert(mItemSize == fromDC.mItemSize, "mItemSize == fromDC.mItemSize");
    SetItem(toItemNum, fromDC.itemAt(fromItemNum));
}

void cDataCollection::setDescription(const DescriptionStruct* description) {
    // The clone is made first: the argument may be the present description.
    mDescription = cloneOf(description);
}

void cDataCollection::scramble() {
    mathAssert(mNumItems <= std::numeric_limits<int>::max() && mItemSize <= std::numeric_limits<int>::max(),
               "(mNumItems <= INT_MAX) && (mItemSize <= INT_MAX)");
    scramble_array(data(), static_cast<int>(mNumItems), static_cast<int>(mItemSize));
}

bool cDataCollection::dumpToFile(const char* path, bool flag) const {
    if (flag)
        return true;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path, "w"), std::fclose);
    if (file == nullptr)
        return false;
    for (long i = 0; i < mNumItems; ++i) {
        for (long j = 0; j < mItemSize; ++j)
            std::fprintf(file.get(), "%lf\t", itemAt(i)[j]);
        std::fputc('\n', file.get());
    }
    return std::fflush(file.get()) == 0 && std::ferror(file.get()) == 0;
}
