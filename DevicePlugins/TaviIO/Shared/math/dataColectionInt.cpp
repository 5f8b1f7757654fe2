#include "dataColectionInt.h"

#include "scram_array.h"

#include <cmath>
#include <cstdio>

namespace {

void writeLines(const cDataCollectionInt& collection, std::FILE* file) {
    for (long i = 0; i < collection.GetNumItems(); ++i) {
        for (long j = 0; j < collection.GetItemSize(); ++j)
            std::fprintf(file, "%ld\t", collection.GetItem(i, j));
        std::fputc('\n', file);
    }
}

} // namespace

cDataCollectionInt::cDataCollectionInt(long items) {
    resizeStorage(1, items);
}

cDataCollectionInt::cDataCollectionInt(long items, long itemSize) {
    resizeStorage(items, itemSize);
}

cDataCollectionInt::cDataCollectionInt(long items, long itemSize, const long* data) {
    assignOrReserve(items, itemSize, data);
}

bool cDataCollectionInt::operator==(const cDataCollectionInt& other) const {
    return mNumItems == other.mNumItems && mItemSize == other.mItemSize &&
           std::equal(data(), data() + numberOfElements(), other.data());
}

int cDataCollectionInt::resize(long items, long itemSize) {
    return resizeStorage(items, itemSize);
}

void cDataCollectionInt::addItem(const long* item) {
    append(item);
}

void cDataCollectionInt::addItemIfUnique(const long* item, bool& added) {
    added = isUnique(item);
    if (added)
        append(item);
}

bool cDataCollectionInt::isUnique(const long* item) const {
    for (long i = 0; i < mNumItems; ++i) {
        if (std::equal(itemAt(i), itemAt(i) + mItemSize, item))
            return false;
    }
    return true;
}

void cDataCollectionInt::setToData(long items, long itemSize, const long* data) {
    if (data != nullptr && items == mNumItems && itemSize == mItemSize) {
        if (data != this->data())
            std::copy_n(data, items * itemSize, this->data());
        return;
    }
    assignOrReserve(items, itemSize, data);
}

int cDataCollectionInt::CopyItems(const cDataCollectionInt& source) {
    if (this == &source)
        return 0;
    const int result = resize(source.mNumItems, source.mItemSize);
    std::copy_n(source.data(), source.numberOfElements(), data());
    return result;
}

long cDataCollectionInt::getNearestItem(const long* item, double& distance) const {
    double squared = 0;
    const long nearest = nearestItem(item, squared);
    distance = nearest < 0 ? kNoDistance : std::sqrt(squared);
    return nearest;
}

void cDataCollectionInt::scramble() {
    mathAssert(mNumItems <= std::numeric_limits<int>::max() && mItemSize <= std::numeric_limits<int>::max(),
               "(mNumItems <= INT_MAX) && (mItemSize <= INT_MAX)");
    scramble_array(data(), static_cast<int>(mNumItems), static_cast<int>(mItemSize));
}

bool cDataCollectionInt::dumpToFIle(const char* path) const {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path, "w"), std::fclose);
    if (file == nullptr)
        return false;
    writeLines(*this, file.get());
    return std::fflush(file.get()) == 0 && std::ferror(file.get()) == 0;
}

void cDataCollectionInt::print() const {
    writeLines(*this, stdout);
}
