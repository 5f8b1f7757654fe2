#include "MatrixDC.h"
#include "matrices.h"
#include "vectorKernels.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

// The definition of the product: every element the sum of its products in ascending order.
cMatrixDC plainProduct(const cMatrixDC& a, const cMatrixDC& b) {
    cMatrixDC c(a.numberOfRows(), b.numberOfColumns());
    for (long i = 0; i < a.numberOfRows(); ++i) {
        for (long j = 0; j < b.numberOfColumns(); ++j) {
            double sum = 0;
            for (long t = 0; t < a.numberOfColumns(); ++t)
                sum += a(i, t) * b(t, j);
            c(i, j) = sum;
        }
    }
    return c;
}

const long kProducts[][3] = {{1, 1, 1},       {1, 3, 3},     {3, 3, 3},    {5, 1, 7},     {1, 300, 40},
                             {40, 300, 1},    {20, 20, 20},  {33, 65, 17}, {97, 129, 25}, {128, 128, 128},
                             {100, 200, 300}, {9, 513, 770}, {4, 70, 800}, {200, 5, 9},   {2, 1000, 1000}};

TEST(ProductTest, IsTheAscendingSumBitForBit) {
    unsigned seed = 0;
    for (const auto& [m, k, n] : kProducts) {
        const cMatrixDC a = randomMatrix(m, k, ++seed);
        const cMatrixDC b = randomMatrix(k, n, ++seed);
        const cMatrixDC expected = plainProduct(a, b);
        EXPECT_TRUE(a.mult(b) == expected) << m << " x " << k << " x " << n;
        EXPECT_TRUE(a.trans().mult(b.trans(), true, true) == expected);
        cMatrixDC small;
        small.multiplySmall(a, b);
        EXPECT_TRUE(small == expected);
        for (const mathKernels::KernelSet* set : mathKernels::supportedKernels()) {
            cMatrixDC c(m, n);
            mathKernels::multiply(a.data(), b.data(), c.data(), m, k, n, *set);
            EXPECT_TRUE(c == expected) << m << " x " << k << " x " << n << ", tiles of " << set->tileColumns;
        }
    }
}

TEST(ProductTest, InfinitiesStayInTheirRow) {
    cMatrixDC a = randomMatrix(30, 30, 1);
    a(7, 11) = std::numeric_limits<double>::infinity();
    const cMatrixDC product = a.mult(randomMatrix(30, 31, 2));
    for (long r = 0; r < 30; ++r) {
        for (long c = 0; c < 31; ++c)
            EXPECT_EQ(std::isfinite(product(r, c)), r != 7);
    }
}

TEST(ProductTest, TheResultMayBeAFactor) {
    const cMatrixDC a = randomMatrix(5, 5, 1);
    cMatrixDC squared(a);
    squared.multiply(squared, squared);
    EXPECT_TRUE(squared == plainProduct(a, a));
    cMatrixDC wide = randomMatrix(5, 9, 2);
    const cMatrixDC expected = plainProduct(a, wide);
    wide.multiplySmall(a, wide);
    EXPECT_TRUE(wide == expected);
    cMatrixDC column = randomMatrix(4, 3, 3);
    const cMatrixDC factor = matrix({{1}, {2}, {3}});
    const cMatrixDC products = plainProduct(column, factor);
    const double strided[] = {1, 0, 2, 0, 3};
    column.multiplyRow(column, strided, 2);
    EXPECT_TRUE(column == products);
}

TEST(ProductDeathTest, NeedsRowsAndMatchingShapes) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(cMatrixDC().mult(cMatrixDC(1, 1)), R"(\(itemNum < mNumItems\) && \(itemNum >=0\))");
    EXPECT_DEATH(cMatrixDC(1, 0).mult(cMatrixDC()), R"(\(itemNum < mNumItems\) && \(itemNum >=0\))");
    EXPECT_DEATH(cMatrixDC(2, 3).mult(cMatrixDC(2, 3)), R"(A\.numberOfColumns\(\) == B\.numberOfRows\(\))");
}

// What one vector width computes, every other one computes to the last bit.
TEST(VectorKernelTest, WidthsAgreeBitForBit) {
    const auto sets = mathKernels::supportedKernels();
    const mathKernels::KernelSet& baseline = *sets.front();
    for (long n : {8, 9, 15, 16, 31, 33, 64, 100}) {
        const long rows = 6;
        const cMatrixDC data = randomMatrix(rows, n, static_cast<unsigned>(n));
        const cMatrixDC x = randomMatrix(1, n, 1);
        const cMatrixDC coefficients = randomMatrix(1, rows, 2);
        std::vector<mathKernels::Rotation> rotations;
        for (int k = 1; k < rows; ++k)
            rotations.push_back({std::cos(k), std::sin(k)});

        cMatrixDC expectedSum(x);
        for (long k = 0; k < rows; ++k) {
            for (long i = 0; i < n; ++i)
                expectedSum(0, i) += coefficients(0, k) * data(k, i);
        }
        cMatrixDC expectedRotated(data);
        baseline.rotateRows(expectedRotated.data(), n, n, rotations.data(), rows - 1);
        for (const mathKernels::KernelSet* set : sets) {
            EXPECT_EQ(set->dot(data.data(), x.data(), n), baseline.dot(data.data(), x.data(), n));
            EXPECT_NEAR(set->dot(data.data(), x.data(), n), data.getSubMatrix(0).dotProduct(x), 1e-13);
            cMatrixDC sum(x);
            set->addCombination(sum.data(), n, coefficients.data(), data.data(), n, rows);
            EXPECT_TRUE(sum == expectedSum);
            cMatrixDC stepwise(x);
            for (long k = 0; k < rows; ++k)
                set->addScaled(stepwise.data(), coefficients(0, k), data.GetItem(k), n);
            EXPECT_TRUE(stepwise == expectedSum);
            cMatrixDC rotated(data);
            set->rotateRows(rotated.data(), n, n, rotations.data(), rows - 1);
            EXPECT_TRUE(rotated == expectedRotated);
        }
        // Rotations keep the length of every column.
        for (long c = 0; c < n; ++c)
            EXPECT_NEAR(expectedRotated.getMatrixColumn(c).NormSquare(), data.getMatrixColumn(c).NormSquare(),
                        1e-13);
    }
}

} // namespace
