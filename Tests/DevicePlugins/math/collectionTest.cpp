#include "MatrixDC.h"
#include "dataColection.h"
#include "dataColectionInt.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

template <class Collection>
auto values(const Collection& collection) {
    return std::vector(collection.data(), collection.data() + collection.numberOfElements());
}

class Label : public DescriptionStruct {
public:
    explicit Label(std::string text) : mText(std::move(text)) { ++living; }
    Label(const Label& other) : mText(other.mText) { ++living; }
    Label& operator=(const Label&) = delete;
    ~Label() override { --living; }
    DescriptionStruct* clone() const override { return new Label(*this); }
    bool operator==(const DescriptionStruct& other) const override {
        return mText == dynamic_cast<const Label&>(other).mText;
    }

    static inline int living = 0;

private:
    std::string mText;
};

const double kSix[] = {1, 2, 3, 4, 5, 6};

TEST(CollectionTest, WithoutDataThereIsRoomButNoItem) {
    cDataCollection collection(3, 2, nullptr);
    EXPECT_EQ(collection.GetNumItems(), 0);
    EXPECT_EQ(collection.GetCapacity(), 3);
    const double* room = collection.data();
    for (int i = 0; i < 3; ++i)
        collection.addItem(kSix + 2 * i);
    EXPECT_EQ(collection.data(), room);
    EXPECT_THAT(values(collection), ElementsAre(1, 2, 3, 4, 5, 6));

    EXPECT_EQ(cMatrixDC(3, 3, nullptr).numberOfRows(), 0);
    EXPECT_EQ(cDataCollection(4).GetItemSize(), 4);
    EXPECT_EQ(cDataCollection().data(), nullptr);
}

TEST(CollectionTest, GrowsByDoublingAndTakesItsOwnItems) {
    cDataCollection collection(0, 1);
    double value = 0;
    for (; value < 10; ++value)
        collection.addItem(&value);
    EXPECT_EQ(collection.GetCapacity(), 10);
    collection.addItem(collection.GetItem(7));
    EXPECT_EQ(collection.GetCapacity(), 20);
    EXPECT_THAT(values(collection), ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 7));
}

TEST(CollectionTest, ResizeKeepsABlockThatIsLargeEnough) {
    cDataCollection collection(2, 3, kSix);
    const double* block = collection.data();
    EXPECT_EQ(collection.resize(3, 2), 0);
    EXPECT_EQ(collection.data(), block);
    EXPECT_EQ(collection.GetCapacity(), 3);
    EXPECT_THAT(values(collection), ElementsAre(1, 2, 3, 4, 5, 6));

    collection.resize(1, 4);
    EXPECT_EQ(collection.data(), block);
    EXPECT_EQ(collection.GetCapacity(), 1) << "six elements are one item of four";
    collection.resize(5, 3);
    EXPECT_EQ(collection.GetCapacity(), 5);
    collection.resize(5, 0);
    EXPECT_EQ(collection.GetCapacity(), 0);
    EXPECT_EQ(collection.data(), nullptr) << "no room, no block";
}

TEST(CollectionTest, CopiesOwnWhatTheyHold) {
    {
        cDataCollection original(2, 3, nullptr);
        original.addItem(kSix);
        const Label label("patches");
        original.setDescription(&label);
        cDataCollection copy(original);
        EXPECT_EQ(copy.GetCapacity(), 1) << "exactly the items";
        EXPECT_TRUE(copy == original);
        copy(0, 1) = 20;
        EXPECT_EQ(original(0, 1), 2);

        copy = original;
        cDataCollection& alias = copy;
        copy = alias;
        EXPECT_TRUE(copy == original);
        copy.setDescription(copy.description());
        EXPECT_TRUE(copy == original);
        copy.setDescription(nullptr);
        EXPECT_FALSE(copy == original) << "one is described, the other is not";
        const Label other("rows");
        copy.setDescription(&other);
        EXPECT_FALSE(copy == original);
        EXPECT_EQ(copy.CopyItems(original), 0);
        EXPECT_TRUE(copy == original);
        EXPECT_TRUE(original.getItem(0) == original);
    }
    EXPECT_EQ(Label::living, 0);
}

TEST(CollectionTest, EqualityComparesBytes) {
    const double zero[] = {0.0};
    const double minusZero[] = {-0.0};
    const double nan[] = {std::nan("")};
    EXPECT_FALSE(cDataCollection(1, 1, zero) == cDataCollection(1, 1, minusZero));
    EXPECT_TRUE(cDataCollection(1, 1, nan) == cDataCollection(1, 1, nan));
    EXPECT_FALSE(cDataCollection(2, 3, kSix) == cDataCollection(3, 2, kSix));
    EXPECT_FALSE(cDataCollection(1, 1, zero).compareItem(0, minusZero));
}

TEST(CollectionTest, SetToDataReplacesShapeAndRoom) {
    cDataCollection collection(2, 3, kSix);
    const double* block = collection.data();
    const double others[] = {6, 5, 4, 3, 2, 1};
    collection.setToData(2, 3, others);
    EXPECT_EQ(collection.data(), block);
    EXPECT_EQ(collection(0, 0), 6);
    collection.setToData(2, 2, collection.data() + 2); // from its own block
    EXPECT_THAT(values(collection), ElementsAre(4, 3, 2, 1));
    EXPECT_EQ(collection.GetCapacity(), 2);
    collection.setToData(7, 2, nullptr);
    EXPECT_EQ(collection.GetNumItems(), 0);
    EXPECT_EQ(collection.GetCapacity(), 7);
}

TEST(CollectionTest, UniquenessIsASquaredDistance) {
    cDataCollection collection(0, 2);
    bool added = false;
    const double origin[] = {0, 0};
    const double near[] = {0.3, 0.4};
    collection.addItemIfUnique(origin, 10, added);
    EXPECT_TRUE(added) << "nothing is near in an empty collection";
    collection.addItemIfUnique(origin, added);
    EXPECT_FALSE(added);
    collection.addItemIfUnique(near, 0.26, added);
    EXPECT_FALSE(added) << "0.5 away, 0.25 squared";
    collection.addItemIfUnique(near, 0.24, added);
    EXPECT_TRUE(added);
    EXPECT_EQ(collection.GetNumItems(), 2);
}

TEST(CollectionTest, NearestItem) {
    const double item[] = {3, 4};
    double distance = 0;
    cDataCollection collection(0, 2);
    EXPECT_EQ(collection.getNearestItem(item, distance), -1);
    EXPECT_EQ(distance, 1e+50);
    const double items[] = {100, 0, 0, 0, 6, 8, 0, 0};
    collection.setToData(4, 2, items);
    EXPECT_EQ(collection.getNearestItem(item, distance), 1) << "the first of three that are equally near";
    EXPECT_EQ(distance, 5);
    collection(0, 0) = std::nan(""); // near to nothing, and in nobody's way
    EXPECT_EQ(collection.getNearestItem(item, distance), 1);
    bool added = true;
    collection.addItemIfUnique(collection.GetItem(3), added);
    EXPECT_FALSE(added);
}

TEST(CollectionTest, ItemsWithoutElementsStayItems) {
    const cMatrixDC matrix(3, 0);
    EXPECT_EQ(matrix.getItem(1).GetNumItems(), 1);
    EXPECT_EQ(matrix.getSubMatrix(1).GetNumItems(), 1);
    EXPECT_EQ(matrix.maxColumns().GetNumItems(), 1);
}

TEST(CollectionTest, RearrangesItemsAndElements) {
    cDataCollection collection(3, 2, kSix);
    collection.reverseOrder();
    EXPECT_THAT(values(collection), ElementsAre(5, 6, 3, 4, 1, 2));
    collection.removeItem(1);
    EXPECT_THAT(values(collection), ElementsAre(5, 6, 1, 2));
    EXPECT_EQ(collection.GetCapacity(), 3);

    const long swapped[] = {1, 0};
    const cDataCollectionInt order(2, 1, swapped);
    EXPECT_TRUE(collection.changeItemOrder(order));
    EXPECT_THAT(values(collection), ElementsAre(6, 5, 2, 1));
    EXPECT_FALSE(collection.changeItemOrder(cDataCollectionInt(3)));

    collection.SetItemToItem(0, 2, cDataCollection(3, 2, kSix));
    EXPECT_THAT(values(collection), ElementsAre(5, 6, 2, 1));
}

TEST(CollectionTest, Combines) {
    const cDataCollection wide(2, 3, kSix);
    const cDataCollection narrow(2, 1, kSix);
    EXPECT_THAT(values(wide.itemMerge(narrow)), ElementsAre(1, 2, 3, 1, 4, 5, 6, 2));
    EXPECT_EQ(wide.itemMerge(cDataCollection(1, 3, kSix)).GetNumItems(), 0);

    EXPECT_THAT(values(narrow.combineCollections(cDataCollection(1, 1, kSix))), ElementsAre(1, 2, 1));
    EXPECT_EQ(narrow.combineCollections(wide).GetNumItems(), 0);
    EXPECT_TRUE(cDataCollection().combineCollections(wide) == wide);
}

TEST(CollectionTest, ScrambleMovesWholeItemsTheSameWay) {
    cDataCollection collection(50, 2);
    cDataCollectionInt whole(50, 2);
    for (long i = 0; i < 50; ++i) {
        collection.SetItem(i, 0, static_cast<double>(i));
        collection.SetItem(i, 1, static_cast<double>(-i));
        whole.SetItem(i, 0, i);
        whole.SetItem(i, 1, -i);
    }
    const cDataCollection before(collection);
    collection.scramble();
    whole.scramble();
    EXPECT_FALSE(collection == before);
    std::vector<bool> seen(50);
    for (long i = 0; i < 50; ++i) {
        EXPECT_EQ(collection(i, 0), -collection(i, 1));
        EXPECT_EQ(collection(i, 0), static_cast<double>(whole(i, 0)));
        seen[static_cast<std::size_t>(whole(i, 0))] = true;
    }
    EXPECT_THAT(seen, testing::Each(true));
}

TEST(CollectionTest, IntegersAreExact) {
    const long large = (1L << 53) + 1; // not representable as double
    cDataCollectionInt collection;
    collection.resize(0, 1);
    bool added = false;
    for (long value : {large, large - 1, large}) {
        collection.addItemIfUnique(&value, added);
        EXPECT_EQ(added, collection.GetNumItems() == 1 || value != large);
    }
    EXPECT_THAT(values(collection), ElementsAre(large, large - 1));
    const long other = large - 4;
    EXPECT_TRUE(collection.isUnique(&other));
    double apart = 0;
    EXPECT_EQ(collection.getNearestItem(&other, apart), 1);
    EXPECT_EQ(apart, 3);

    const long places[] = {10, 20, 0, 0};
    collection.setToData(2, 2, places);
    double distance = 0;
    const long origin[] = {3, -4};
    EXPECT_EQ(collection.getNearestItem(origin, distance), 1);
    EXPECT_EQ(distance, 5);
    cDataCollectionInt copy;
    copy.CopyItems(collection);
    copy.reverseOrder();
    EXPECT_THAT(values(copy), ElementsAre(0, 0, 10, 20));
    copy.removeItem(0);
    EXPECT_FALSE(copy == collection);
}

TEST(CollectionTest, DumpsALinePerItem) {
    const std::string path = testing::TempDir() + "tavi_math_dump.txt";
    const auto text = [&] {
        std::ostringstream all;
        all << std::ifstream(path).rdbuf();
        return all.str();
    };
    const double numbers[] = {1.5, -2, 0.25, 1e6};
    EXPECT_TRUE(cDataCollection(2, 2, numbers).dumpToFile(path.c_str(), false));
    EXPECT_EQ(text(), "1.500000\t-2.000000\t\n0.250000\t1000000.000000\t\n");
    EXPECT_TRUE(cDataCollection(1, 1, numbers).dumpToFile(path.c_str(), true));
    EXPECT_THAT(text(), HasSubstr("0.25")) << "nothing is written";
    const long whole[] = {7, -8};
    const cDataCollectionInt integers(1, 2, whole);
    EXPECT_TRUE(integers.dumpToFIle(path.c_str()));
    EXPECT_EQ(text(), "7\t-8\t\n");
    std::remove(path.c_str());
    testing::internal::CaptureStdout();
    integers.print();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "7\t-8\t\n");
    EXPECT_FALSE(integers.dumpToFIle("/no/such/folder/file"));
}

// The texts appear in crash reports.
TEST(CollectionDeathTest, PreconditionsQuoteTheirExpression) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    cDataCollection collection(2, 3, kSix);
    cDataCollectionInt integers(2, 3);
    EXPECT_DEATH(
        collection.GetItem(2),
        R"(Assertion failed: \(\(itemNum < mNumItems\) && \(itemNum >=0\)\), function GetItem, file .*itemStorage\.h, line [0-9]+\.)");
    EXPECT_DEATH(collection(0, -1),
                 R"(\(itemNum < mNumItems\) && \(itemNum >=0\) && \(elementNumber < mItemSize\) && )"
                 R"(\(elementNumber >= 0\))");
    EXPECT_DEATH(collection[6], R"(\(position < mNumItems\*mItemSize\))");
    EXPECT_DEATH(collection[-1], "position >= 0");
    EXPECT_DEATH(integers[-1], R"(\(position < mNumItems\*mItemSize\) && \(position >= 0\))");
    EXPECT_DEATH(integers(2, 0), R"(\(itemNum < mNumItems\) && \(itemNum >=0\))");
    EXPECT_DEATH(collection.removeItem(-1), R"(\(itemNumber >=0\))");
    EXPECT_DEATH(collection.removeItem(2), R"(\(itemNumber < mNumItems\))");
    EXPECT_DEATH(collection.SetItemToItem(0, 5, collection),
                 R"(\(fromItemNum < fromDC.mNumItems\) && \(fromItemNum >=0\))");
    EXPECT_DEATH(collection.SetItemToItem(0, 0, cDataCollection(2, 2, kSix)),
                 "mItemSize == fromDC.mItemSize");
    EXPECT_DEATH(collection.resize(std::numeric_limits<long>::max(), 2), R"(\(mData\))");
}

} // namespace
