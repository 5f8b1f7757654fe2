#include "MatrixDC.h"
#include "matrices.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <utility>
#include <vector>

namespace {

using testing::ElementsAre;

const double kNan = std::numeric_limits<double>::quiet_NaN();

TEST(MatrixTest, TakesCollectionsAndVectors) {
    const cMatrixDC row(std::vector<double>{1, 2, 3});
    EXPECT_TRUE(row == matrix({{1, 2, 3}}));
    const cDataCollection& items = row;
    cMatrixDC assigned(5, 5);
    assigned = items;
    EXPECT_TRUE(assigned == row);
    EXPECT_TRUE(cMatrixDC(items) == row);
    double out[3];
    row.setMemory(out);
    EXPECT_THAT(out, ElementsAre(1, 2, 3));
    EXPECT_EQ(matrix({{1, 2}, {3, 4}}).index(1, 0), 2);
}

TEST(MatrixTest, Fills) {
    cMatrixDC a;
    a.createRangeOfValues(0, 1, 5);
    EXPECT_TRUE(a == matrix({{0}, {0.25}, {0.5}, {0.75}, {1}}));
    a.createRangeOfValues(3, 4, 1);
    EXPECT_TRUE(a == matrix({{3}}));

    cMatrixDC::setRandomNumberSeed(7);
    a.rand(100, 100);
    EXPECT_GT(a.Max(), 0.99);
    EXPECT_LE(a.Max(), 1);
    EXPECT_NEAR(a.mean(), 0.5, 0.02);
    cMatrixDC::setRandomNumberSeed(7);
    cMatrixDC again(100, 100);
    again.rand();
    EXPECT_LT(again.Max(), 0.5);
    again.multiply(4294967295.0 / 2147483647.0);
    EXPECT_LE(largestDifference(again, a), 4 * kEpsilon) << "the same draws on another scale";
}

TEST(MatrixTest, Transposes) {
    const cMatrixDC a = randomMatrix(37, 21, 1);
    const cMatrixDC t = a.trans();
    EXPECT_EQ(t(20, 36), a(36, 20));
    EXPECT_EQ(t(3, 17), a(17, 3));
    EXPECT_TRUE(t.trans() == a);
    cMatrixDC inPlace(a);
    inPlace.Transpose();
    EXPECT_TRUE(inPlace == t);
    inPlace.copyT(inPlace);
    EXPECT_TRUE(inPlace == a);
    cMatrixDC row = matrix({{1, 2, 3}});
    row.Transpose();
    EXPECT_TRUE(row == matrix({{1}, {2}, {3}}));
}

TEST(MatrixTest, PartsFitTogether) {
    const cMatrixDC a = randomMatrix(3, 4, 1);
    const cMatrixDC left = a.getSubMatrix(0, 2, 0, 1);
    const cMatrixDC right = a.getSubMatrix(0, 2, 2, 3);
    EXPECT_TRUE(left.combineColumns(right) == a);
    EXPECT_TRUE(a.getSubMatrix(0).combineRows(a.getSubMatrix(1, 2, 0, 3)) == a);
    EXPECT_TRUE(a.getSubMatrix(1, 2, 0, 0) == a.getMatrixColumn(0).getSubMatrix(1, 2, 0, 0));
    const cMatrixDC tiled = a.expandMatrix(2, 3);
    EXPECT_TRUE(tiled.sameSize(cMatrixDC(6, 12)));
    EXPECT_TRUE(tiled.compareMatrixPart(a, 3, 8, 3));
    EXPECT_FALSE(tiled.compareMatrixPart(a, 3, 7, 3));
    EXPECT_FALSE(tiled.compareMatrixPart(a, 4, 8, 3)) << "sticks out";
}

TEST(MatrixTest, ArithmeticUndoesItself) {
    const cMatrixDC a = matrix({{1, -2, 4}, {8, 16, -32}});
    const cMatrixDC b = matrix({{2, 4, 8}, {-1, 2, 4}});
    const cMatrixDC v = matrix({{4, 2, 0.5}});
    const cMatrixDC column = matrix({{2}, {-4}});
    EXPECT_TRUE(a.add(b).sub(b) == a);
    EXPECT_TRUE(a.multiplyElement(b).div(b) == a);
    EXPECT_TRUE(a.addValue(3).sub(a) == a.sub(a).addValue(3));
    cMatrixDC c(a);
    c.addMatrix(b);
    c.add(2);
    c.subtract(2);
    c.subtract(b);
    c.addVector(v);
    EXPECT_TRUE(c == matrix({{5, 0, 4.5}, {12, 18, -31.5}}));
    c.subtractVector(v);
    c.multiplyByVector(v);
    EXPECT_TRUE(c == matrix({{4, -4, 2}, {32, 32, -16}}));
    c.divide(2);
    c.multiplyByVectorTranspose(column);
    EXPECT_TRUE(c == matrix({{4, -4, 2}, {-64, -64, 32}}));
    c.negate();
    c.absdiff(1);
    EXPECT_TRUE(c == matrix({{5, 3, 3}, {63, 63, 33}}));
    c.absdiff(c.mult(2));
    EXPECT_TRUE(c == matrix({{5, 3, 3}, {63, 63, 33}}));
    c.multiply(matrix({{9, 9, 9}, {1, 2, 3}, {4, 5, 6}}), 1);
    EXPECT_TRUE(c == matrix({{5, 6, 9}, {252, 315, 198}}));
    c.addVector(c);
    EXPECT_TRUE(c == matrix({{10, 12, 18}, {257, 321, 207}})) << "its own first row";
}

TEST(MatrixTest, Powers) {
    const cMatrixDC a = matrix({{1, 4, 9}, {16, 25, 36}});
    cMatrixDC root(a);
    root.squareRoot();
    EXPECT_TRUE(root == matrix({{1, 2, 3}, {4, 5, 6}}));
    EXPECT_TRUE(root.pow(2) == a);
    root.power(matrix({{2, 2, 2}, {2, 2, 2}}));
    EXPECT_TRUE(root == a);
    root.powerVector(matrix({{1, 0.5, 0}}));
    EXPECT_TRUE(root == matrix({{1, 2, 1}, {16, 5, 1}}));
    cMatrixDC logarithms = matrix({{0, std::log(2)}});
    logarithms.exponential();
    EXPECT_LE(largestDifference(logarithms, matrix({{1, 2}})), 2 * kEpsilon);
}

TEST(MatrixTest, ClampsAndChooses) {
    cMatrixDC a = matrix({{1, 5}, {7, 3}});
    a.Min(5);
    a.Max(2);
    EXPECT_TRUE(a == matrix({{2, 5}, {5, 3}}));
    a.Min(matrix({{9, 1}, {9, 9}}));
    a.Max(matrix({{0, 0}, {0, 4}}));
    EXPECT_TRUE(a == matrix({{2, 1}, {5, 4}}));

    const cMatrixDC tested = matrix({{1}, {2}, {3}});
    const cMatrixDC first = matrix({{10, 11}, {20, 21}, {30, 31}});
    const cMatrixDC second = matrix({{-10, 0}, {-20, 0}, {-30, 0}});
    const auto replaced = [&](eCompareType how) {
        const cMatrixDC chosen = tested.chooseValue(how, 2, first, second);
        return std::vector{chosen(0, 1) == 0, chosen(1, 1) == 0, chosen(2, 1) == 0};
    };
    EXPECT_THAT(replaced(eCompareLess), ElementsAre(true, false, false));
    EXPECT_THAT(replaced(eCompareLessOrEqual), ElementsAre(true, true, false));
    EXPECT_THAT(replaced(eCompareGreater), ElementsAre(false, false, true));
    EXPECT_THAT(replaced(eCompareGreaterOrEqual), ElementsAre(false, true, true));
    EXPECT_THAT(replaced(eCompareNotEqual), ElementsAre(true, false, true));
}

TEST(MatrixTest, Reductions) {
    cMatrixDC a = matrix({{1, 5, 5}, {4, -2, 0}, {4, 8, 1}, {3, 0, 2}});
    cMatrixDC out;
    a.sumRows(out);
    EXPECT_TRUE(out == matrix({{11}, {2}, {13}, {5}}));
    a.sumColumns(out);
    EXPECT_TRUE(out == matrix({{12, 11, 8}}));
    EXPECT_EQ(a.sum(), 31);
    EXPECT_EQ(a.Max(), 8);
    EXPECT_EQ(a.Min(), -2);
    cDataCollectionInt where;
    EXPECT_TRUE(a.maxRows(where) == matrix({{5}, {4}, {8}, {3}}));
    EXPECT_THAT(std::vector(where.data(), where.data() + 4), ElementsAre(1, 0, 1, 0))
        << "the first of equals";
    EXPECT_TRUE(a.maxColumns(where) == matrix({{4, 8, 5}}));
    EXPECT_THAT(std::vector(where.data(), where.data() + 3), ElementsAre(1, 2, 0));
    EXPECT_TRUE(a.minRows() == matrix({{1}, {-2}, {1}, {0}}));
    EXPECT_TRUE(a.minColumns() == matrix({{1, -2, 0}}));
    EXPECT_TRUE(a.meanOfItems() == matrix({{3, 2.75, 2}}));
    EXPECT_TRUE(a.median() == matrix({{3.5, 2.5, 1.5}}));
    a.removeItem(1);
    EXPECT_TRUE(a.median() == matrix({{3, 5, 2}}));
    EXPECT_EQ(matrix({{3, 4}}).norm()(0, 0), 5);
    cMatrixDC two = matrix({{3, 4}, {6, 8}});
    EXPECT_TRUE(two.norm() == matrix({{5}, {10}}));
    EXPECT_DOUBLE_EQ(two.normOfAll() * two.normOfAll(), two.NormSquare());
    two.getSqrVectDistance(matrix({{3, 5}}), two);
    EXPECT_TRUE(two == matrix({{1}, {18}}));
}

TEST(MatrixTest, SortsRowsByKeys) {
    const cMatrixDC a = matrix({{2, 1}, {1, 9}, {2, 0}, {1, 9}, {kNan, 5}});
    cDataCollectionInt order;
    const auto places = [&] { return std::vector(order.data(), order.data() + order.numberOfElements()); };
    cMatrixDC sorted = a.sort(false, order, false);
    EXPECT_THAT(places(), ElementsAre(1, 3, 2, 0, 4)) << "equal rows keep their order, NaN comes last";
    EXPECT_TRUE(sorted == a.sortByIndex(order));
    EXPECT_EQ(sorted(2, 1), 0);
    a.sort(true, order, true);
    EXPECT_THAT(places(), ElementsAre(1, 3, 4, 0, 2)) << "by the last column, descending";

    const cMatrixDC rows = matrix({{3, 1, 2}, {7, 9, 8}});
    EXPECT_TRUE(rows.sortRow(false, order) == matrix({{1, 2, 3}, {7, 8, 9}}));
    EXPECT_THAT(places(), ElementsAre(1, 2, 0, 0, 2, 1));
    EXPECT_TRUE(rows.sortRow(true, order) == matrix({{3, 2, 1}, {9, 8, 7}}));
    const long swapped[] = {2, 0};
    EXPECT_TRUE(rows.sortRowByIndex(cDataCollectionInt(1, 2, swapped)) == matrix({{2, 3}, {8, 7}}));
}

TEST(MatrixTest, FitsPolynomials) {
    cMatrixDC x;
    x.createRangeOfValues(-2, 3, 12);
    const cMatrixDC cubic = matrix({{1}, {-2}, {0.5}, {0.25}});
    cMatrixDC y = x.applyPolyFitParams(cubic);
    EXPECT_DOUBLE_EQ(y(0, 0), 1 + 4 + 2 - 2);
    EXPECT_LE(largestDifference(y.getPolyFitParams(x, 3, false), cubic), 1e-13);
    // The best line through the origin: sum of x y over sum of x x.
    const cMatrixDC line = y.getPolyFitParams(x, 1, true);
    EXPECT_EQ(line(0, 0), 0);
    EXPECT_NEAR(line(1, 0), x.dotProduct(y) / x.NormSquare(), 1e-13);
}

// --- Engines

class CountingEngine : public cMathEngine {
public:
    using cMathEngine::multiply;
    int multiply(const cMatrixDC& A, const cMatrixDC& B, cMatrixDC& C) override {
        ++products;
        return cMathEngine::multiply(A, B, C);
    }
    int singularValueDecomp(cMatrixDC& A, cMatrixDC& U, cMatrixDC& W, cMatrixDC& V, bool economy) override {
        ++decompositions;
        return cMathEngine::singularValueDecomp(A, U, W, V, economy);
    }
    cMathEngine* copy() const override { return new CountingEngine(*this); }

    static inline int products = 0;
    static inline int decompositions = 0;
};

TEST(MatrixEngineTest, NewMatricesTakeTheDefaultEngine) {
    const std::unique_ptr<cMathEngine> none(cMatrixDC::getDefaultMathEngine());
    EXPECT_EQ(none, nullptr);
    const CountingEngine engine;
    cMatrixDC before(2, 2);
    before.zeros(2, 2);
    cMatrixDC::setDefaultMathEngine(&engine);
    cMatrixDC a = matrix({{1, 2}, {3, 4}});
    const std::unique_ptr<cMathEngine> copy(cMatrixDC::getDefaultMathEngine());
    EXPECT_NE(dynamic_cast<CountingEngine*>(copy.get()), nullptr);
    a.pinv();
    EXPECT_EQ(CountingEngine::decompositions, 1);
    EXPECT_EQ(CountingEngine::products, 2);
    before.mult(a);
    EXPECT_EQ(CountingEngine::products, 2) << "an older matrix keeps its engine";

    cMatrixDC::setDefaultMathEngine(nullptr);
    cMatrixDC copied(a);
    copied.mult(copied);
    before = a;
    before.mult(a, true, false);
    EXPECT_EQ(CountingEngine::products, 4) << "copies and assignments carry the engine along";
    cMatrixDC solution;
    before.solveAxEqB_LU(copied, solution);
    EXPECT_EQ(CountingEngine::products, 5);
    before.pickMathEngine();
    before.mult(a);
    EXPECT_EQ(CountingEngine::products, 5);
    before.setMathEngine(&engine);
    before = before;
    before.mult(a);
    EXPECT_EQ(CountingEngine::products, 6);
}

TEST(MatrixDeathTest, PreconditionsQuoteTheirExpression) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    cMatrixDC a(2, 3);
    cMatrixDC b(3, 2);
    // The report names the operation, not what it is made of.
    EXPECT_DEATH(a.addMatrix(b), R"(\(sameSize\(inmatrix1\)\), function addMatrix,)");
    EXPECT_DEATH(a.power(b), R"(\(sameSize\(inmatrix1\)\))");
    EXPECT_DEATH(a.index(-1, 0), R"(\(r >= 0\))");
    EXPECT_DEATH(a.index(2, 0), R"(\(r < mNumItems\))");
    EXPECT_DEATH(a.index(0, -1), R"(\(c >= 0\))");
    EXPECT_DEATH(a.getSubMatrix(0, 1, 0, 3), R"(\(c < mItemSize\))");
    EXPECT_DEATH(a.combineRows(b), R"(\(numberOfColumns\(\) == mat2\.numberOfColumns\(\)\))");
    EXPECT_DEATH(a.combineColumns(b), R"(\(numberOfRows\(\) == mat2\.numberOfRows\(\)\))");
    EXPECT_DEATH(a.chooseValue(eCompareLess, 0, a, a), R"(\(GetItemSize\(\) == 1\))");
    EXPECT_DEATH(cMatrixDC(2, 1).chooseValue(eCompareLess, 0, a, b), R"(\(value1\.sameSize\(value2\)\))");
    EXPECT_DEATH(a.addVector(cMatrixDC(1, 2)), "numberOfElements.*, function addVector,");
    EXPECT_DEATH(a.multiply(b, 1), "numberOfElements");
}

} // namespace
