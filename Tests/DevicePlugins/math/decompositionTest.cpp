#include "MatrixDC.h"
#include "matrices.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <numeric>
#include <ostream>
#include <string>
#include <vector>

extern "C" void dgesvd_(const char* jobU, const char* jobVt, const int* m, const int* n, double* a,
                        const int* lda, double* values, double* u, const int* ldu, double* vt,
                        const int* ldvt, double* work, const int* lwork, int* info);

namespace {

cMatrixDC identity(long n) {
    cMatrixDC result;
    result.makeIdentity(n);
    return result;
}

std::vector<double> lapackSingularValues(const cMatrixDC& a) {
    const int m = static_cast<int>(a.numberOfRows());
    const int n = static_cast<int>(a.numberOfColumns());
    std::vector<double> columns = a.trans().getVector();
    std::vector<double> values(static_cast<std::size_t>(std::min(m, n)));
    std::vector<double> work(static_cast<std::size_t>(10 * (m + n) + 100));
    const int size = static_cast<int>(work.size());
    const int one = 1;
    int info = -1;
    dgesvd_("N", "N", &m, &n, columns.data(), &m, values.data(), nullptr, &one, nullptr, &one, work.data(),
            &size, &info);
    EXPECT_EQ(info, 0);
    return values;
}

// --- Singular values

struct Kind {
    std::string name;
    std::function<double(long r, long c, double random)> element;
};

const Kind kKinds[] = {
    {"random", [](long, long, double random) { return random; }},
    {"Hilbert", [](long r, long c, double) { return 1.0 / static_cast<double>(r + c + 1); }},
    {"of rank 1", [](long r, long, double) { return static_cast<double>(r + 1); }},
    {"of rank 2", [](long r, long c, double) { return static_cast<double>(r + c); }},
    {"with rows and columns of zeros",
     [](long r, long c, double random) { return r % 3 == 1 || c % 4 == 0 ? 0 : random; }},
    {"graded down",
     [](long r, long, double random) {
         return random * std::pow(10.0, std::max(150 - 15.0 * static_cast<double>(r), -150.0));
     }},
    {"graded up",
     [](long r, long c, double random) {
         return random * std::pow(10.0, std::min(-150 + 15.0 * static_cast<double>(r + c), 150.0));
     }},
    {"huge", [](long, long, double random) { return random * 1e306; }},
    {"tiny", [](long, long, double random) { return random * 1e-306; }},
    {"diagonal", [](long r, long c, double) { return r == c ? static_cast<double>(r % 5) - 2 : 0; }},
    {"upper triangular of ones", [](long r, long c, double) { return c >= r ? 1.0 : 0.0; }},
    {"zero", [](long, long, double) { return 0; }},
};

void PrintTo(const Kind& kind, std::ostream* out) {
    *out << kind.name;
}

constexpr std::array<std::array<long, 2>, 10> kShapes = {
    {{1, 1}, {3, 3}, {1, 7}, {7, 1}, {12, 12}, {11, 4}, {4, 11}, {60, 25}, {25, 60}, {90, 80}}};

cMatrixDC matrixOf(const Kind& kind, long rows, long columns) {
    cMatrixDC a = randomMatrix(rows, columns, 99);
    for (long r = 0; r < rows; ++r) {
        for (long c = 0; c < columns; ++c)
            a(r, c) = kind.element(r, c, a(r, c));
    }
    return a;
}

// Largest element of B^T B - I over the given columns of B.
double deviationFromOrthonormal(const cMatrixDC& b, const std::vector<bool>& columns) {
    const cMatrixDC products = b.mult(b, true, false);
    double largest = 0;
    for (long i = 0; i < products.numberOfRows(); ++i) {
        for (long j = 0; j < products.numberOfRows(); ++j) {
            if (columns[static_cast<std::size_t>(i)] && columns[static_cast<std::size_t>(j)])
                largest = std::max(largest, std::fabs(products(i, j) - (i == j ? 1 : 0)));
        }
    }
    return largest;
}

double unitFor(long m, long n) {
    return 4 * static_cast<double>(std::max(m, n)) * kEpsilon;
}

void expectDecomposition(cMatrixDC a) {
    const long m = a.numberOfRows();
    const long n = a.numberOfColumns();
    const long k = std::min(m, n);
    cMatrixDC u;
    cMatrixDC w;
    cMatrixDC v;
    EXPECT_EQ(a.singularValueDecomp(u, w, v, true), 1);
    ASSERT_TRUE(u.sameSize(cMatrixDC(m, k)));
    ASSERT_TRUE(w.sameSize(cMatrixDC(k, k)));
    ASSERT_TRUE(v.sameSize(cMatrixDC(n, k)));

    const double unit = unitFor(m, n);
    const double norm = w(0, 0);
    EXPECT_LE(largestDifference(u.mult(w).mult(v, false, true), a), unit * norm);

    const std::vector<double> expected = lapackSingularValues(a);
    std::vector<bool> positive;
    double trace = 0;
    for (long i = 0; i < k; ++i) {
        EXPECT_NEAR(w(i, i), expected[static_cast<std::size_t>(i)], unit * norm);
        EXPECT_GE(w(i, i), 0);
        EXPECT_LE(w(i, i), i > 0 ? w(i - 1, i - 1) : norm);
        positive.push_back(w(i, i) > 0);
        trace += w(i, i);
    }
    EXPECT_DOUBLE_EQ(w.sum(), trace) << "nothing beside the diagonal";
    EXPECT_LE(deviationFromOrthonormal(v, std::vector<bool>(static_cast<std::size_t>(k), true)), unit);
    EXPECT_LE(deviationFromOrthonormal(u, positive), unit);
}

void expectFullFormAroundEconomyForm(cMatrixDC a) {
    const long m = a.numberOfRows();
    const long n = a.numberOfColumns();
    const long k = std::min(m, n);
    cMatrixDC u;
    cMatrixDC w;
    cMatrixDC v;
    a.singularValueDecomp(u, w, v, true);
    cMatrixDC fullU;
    cMatrixDC fullW;
    cMatrixDC fullV;
    a.singularValueDecomp(fullU, fullW, fullV, false);
    ASSERT_TRUE(fullU.sameSize(cMatrixDC(m, m)));
    ASSERT_TRUE(fullW.sameSize(cMatrixDC(m, n)));
    ASSERT_TRUE(fullV.sameSize(cMatrixDC(n, n)));
    EXPECT_TRUE(fullU.getSubMatrix(0, m - 1, 0, k - 1) == u);
    EXPECT_TRUE(fullW.getSubMatrix(0, k - 1, 0, k - 1) == w);
    EXPECT_TRUE(fullV.getSubMatrix(0, n - 1, 0, k - 1) == v);
    EXPECT_EQ(fullW.sum(), w.sum());
    if (m > n) {
        EXPECT_EQ(fullU.getSubMatrix(0, m - 1, n, m - 1).NormSquare(), 0);
    }
    EXPECT_LE(deviationFromOrthonormal(fullV, std::vector<bool>(static_cast<std::size_t>(n), true)),
              unitFor(m, n));
}

class SingularValueTest : public testing::TestWithParam<Kind> {};

TEST_P(SingularValueTest, DecomposesEveryShape) {
    for (const auto& [m, n] : kShapes) {
        SCOPED_TRACE(testing::Message() << m << " x " << n);
        const cMatrixDC a = matrixOf(GetParam(), m, n);
        expectDecomposition(a);
        expectFullFormAroundEconomyForm(a);
    }
}

INSTANTIATE_TEST_SUITE_P(AllKinds, SingularValueTest, testing::ValuesIn(kKinds));

TEST(SingularValuesTest, OrdersADiagonal) {
    cMatrixDC a = matrix({{1, 0, 0}, {0, 3, 0}, {0, 0, 2}});
    cMatrixDC u;
    cMatrixDC w;
    cMatrixDC v;
    a.singularValueDecomp(u, w, v, true);
    EXPECT_TRUE(w == matrix({{3, 0, 0}, {0, 2, 0}, {0, 0, 1}}));
    u.absdiff(0);
    v.absdiff(0);
    EXPECT_TRUE(u == matrix({{0, 0, 1}, {1, 0, 0}, {0, 1, 0}}));
    EXPECT_TRUE(v == u);
}

TEST(SingularValuesTest, OutputsMayBeTheMatrixItself) {
    cMatrixDC a = randomMatrix(6, 4, 1);
    const cMatrixDC before(a);
    cMatrixDC w;
    cMatrixDC v;
    a.singularValueDecomp(a, w, v, true);
    EXPECT_LE(largestDifference(a.mult(w).mult(v, false, true), before), 1e-14);
}

TEST(SingularValuesTest, WhatIsNotFiniteDoesNotConverge) {
    for (double bad : {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()}) {
        cMatrixDC a = randomMatrix(5, 4, 1);
        a(3, 2) = bad;
        cMatrixDC u(1, 1);
        cMatrixDC w(2, 2);
        cMatrixDC v(3, 3);
        EXPECT_EQ(a.singularValueDecomp(u, w, v, true), 1);
        EXPECT_EQ(u.numberOfRows() + w.numberOfRows() + v.numberOfRows(), 6) << "all as they were";
        EXPECT_EQ(a.pinv().numberOfElements(), 0);
    }
}

TEST(SingularValuesDeathTest, NeedsElements) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(cMatrixDC().pinv(), R"(\(mNumItems > 0\) && \(mItemSize > 0\))");
}

TEST(PythagTest, AvoidsOverflowAndUnderflow) {
    cMathEngine engine;
    EXPECT_EQ(engine.pythag(3, -4), 5);
    EXPECT_DOUBLE_EQ(engine.pythag(3e200, 4e200), 5e200);
    EXPECT_DOUBLE_EQ(engine.pythag(-3e-200, 4e-200), 5e-200);
    EXPECT_EQ(engine.pythag(0, 0), 0);
    EXPECT_EQ(engine.pythag(0, -2), 2);
    for (const double other : {0.0, 1.0}) {
        EXPECT_TRUE(std::isnan(engine.pythag(other, std::nan(""))));
        EXPECT_TRUE(std::isnan(engine.pythag(std::nan(""), other)));
    }
}

// --- Pseudo-inverse

// The four conditions of Moore and Penrose, which only the pseudo-inverse satisfies.
void expectPseudoInverse(cMatrixDC a, double tolerance) {
    cMatrixDC p = a.pinv();
    ASSERT_TRUE(p.sameSize(a.trans()));
    const cMatrixDC ap = a.mult(p);
    const cMatrixDC pa = p.mult(a);
    EXPECT_LE(largestDifference(ap.mult(a), a), tolerance * largestElement(a));
    EXPECT_LE(largestDifference(pa.mult(p), p), tolerance * largestElement(p));
    EXPECT_LE(largestDifference(ap.trans(), ap), tolerance);
    EXPECT_LE(largestDifference(pa.trans(), pa), tolerance);
}

TEST(PseudoInverseTest, SatisfiesItsFourConditions) {
    unsigned seed = 0;
    for (const auto& [m, n] :
         {std::pair{1L, 1L}, {3L, 3L}, {3L, 2L}, {2L, 3L}, {1L, 6L}, {6L, 1L}, {30L, 10L}, {10L, 30L}})
        expectPseudoInverse(randomMatrix(m, n, ++seed), 1e-12);
    // Singular, with zero singular values that come out exactly.
    expectPseudoInverse(matrix({{4, 0, 0}, {0, 0, 0}, {0, 0, 0.5}}), 1e-15);
    expectPseudoInverse(matrix({{1, 2, 0}, {3, 4, 0}, {0, 0, 0}, {0, 0, 0}}), 1e-14);
    expectPseudoInverse(matrix({{0, 0}, {0, 0}, {0, 0}}), 0);
    expectPseudoInverse(matrix({{0, 0, 5}}), 1e-15);
}

TEST(PseudoInverseTest, KnownOnes) {
    EXPECT_TRUE(identity(3).pinv() == identity(3));
    EXPECT_LE(largestDifference(matrix({{1, 0}, {0, 0}}).pinv(), matrix({{1, 0}, {0, 0}})), 0);
    // There is no tolerance: the smallest singular value counts.
    EXPECT_DOUBLE_EQ(matrix({{1, 0}, {0, 1e-200}}).pinv()(1, 1), 1e200);
}

// The frame of a chart from its corners (rows x, y, 1), as the driver fits it.
TEST(PseudoInverseTest, FitsAChartFrame) {
    cMatrixDC corners = matrix({{0, 0, 1}, {0, 1, 1}, {1, 1, 1}});
    const cMatrixDC frame = corners.pinv().mult(matrix({{20, 30, 1}, {25, 130, 1}, {225, 120, 1}}));
    EXPECT_LE(largestDifference(frame, matrix({{200, -10, 0}, {5, 100, 0}, {20, 30, 1}})), 1e-12);
    EXPECT_LE(largestDifference(matrix({{0, 0.5, 1}}).mult(frame), matrix({{22.5, 80, 1}})), 1e-12);
}

// --- LU decomposition

TEST(LuTest, InvertsAndSolves) {
    // Both are exact in binary.
    cMatrixDC a = matrix({{2, 1, 0}, {0, 4, 2}, {1, 0, 1}});
    const cMatrixDC expected = matrix({{0.4, -0.1, 0.2}, {0.2, 0.2, -0.4}, {-0.4, 0.1, 0.8}});
    const cMatrixDC& constant = a;
    EXPECT_LE(largestDifference(constant.inv(), expected), 4 * kEpsilon);
    cMatrixDC inverted(a);
    EXPECT_EQ(inverted.inverse(), 0);
    EXPECT_LE(largestDifference(inverted, expected), 4 * kEpsilon);

    for (long n : {1, 2, 7, 8, 9, 50, 120}) {
        cMatrixDC random = randomMatrix(n, n, static_cast<unsigned>(n));
        cMatrixDC right = randomMatrix(n, 3, 1);
        cMatrixDC x;
        EXPECT_TRUE(random.solveAxEqB_LU(right, x));
        EXPECT_LE(largestDifference(random.mult(x), right), 1e-10) << n;
        EXPECT_TRUE(random.solveAxEqB_LU(right, right)) << "into the right-hand side";
        EXPECT_TRUE(right == x);
        // One right-hand side by substitution.
        cMatrixDC factors(random);
        double d = 0;
        ASSERT_EQ(factors._ludcmp(d), 0);
        std::vector<double> b = random.mult(cMatrixDC(x.getMatrixColumn(1))).getVector();
        factors._lubksb(b.data());
        EXPECT_LE(largestDifference(cMatrixDC(n, 1, b.data()), x.getMatrixColumn(1)), 1e-10) << n;
    }
}

TEST(LuTest, PivotsByTheScaledSize) {
    // 100 is the larger number, but small within its row.
    cMatrixDC a = matrix({{100, 1e6}, {1, 1}});
    const cMatrixDC before(a);
    double d = 0;
    EXPECT_EQ(a._ludcmp(d), 0);
    EXPECT_EQ(d, -1);
    EXPECT_TRUE(a == matrix({{1, 1}, {100, 1e6 - 100}}));
    // Among equals the first row.
    cMatrixDC equal = matrix({{1, 1}, {1, -1}});
    EXPECT_EQ(equal._ludcmp(d), 0);
    EXPECT_EQ(d, 1);
}

TEST(LuTest, Determinants) {
    const auto determinant = [](const cMatrixDC& a) {
        double d = -1;
        EXPECT_TRUE(a.determinant(d));
        return d;
    };
    EXPECT_EQ(determinant(matrix({{0, 1}, {1, 0}})), -1);
    EXPECT_EQ(determinant(matrix({{0, 0}, {0, 1}})), 0);
    EXPECT_EQ(determinant(matrix({{1, 2}, {2, 4}})), 0);
    EXPECT_EQ(determinant(matrix({{1, 2, 3}, {4, 5, 6}})), 0) << "not square";
    EXPECT_DOUBLE_EQ(determinant(matrix({{6, 1, 1}, {4, -2, 5}, {2, 8, 7}})), -306);
    // Of a Vandermonde matrix: the product of all differences.
    EXPECT_DOUBLE_EQ(determinant(matrix({{1, 1, 1, 1}, {1, 2, 4, 8}, {1, 3, 9, 27}, {1, 5, 25, 125}})), 48);
    cMatrixDC destroyed = matrix({{0, 2}, {3, 0}});
    double d = 0;
    EXPECT_TRUE(destroyed.determinantDestructive(d));
    EXPECT_EQ(d, -6);
    EXPECT_TRUE(destroyed == matrix({{3, 0}, {0, 2}})) << "the factors are left";
}

TEST(LuTest, SingularMatricesAreResults) {
    cMatrixDC singular = matrix({{1, 2}, {2, 4}});
    cMatrixDC right = matrix({{1}, {1}});
    cMatrixDC x = matrix({{7}});
    EXPECT_FALSE(singular.solveAxEqB_LU(right, x));
    EXPECT_EQ(x(0, 0), 7);
    EXPECT_EQ(cMatrixDC(singular).inv().numberOfElements(), 0);
    double d = 0;
    EXPECT_EQ(cMatrixDC(singular)._ludcmp(d), 70);
    EXPECT_EQ(singular.inverse(), 1);
    EXPECT_EQ(matrix({{0, 0}, {0, 1}}).inverse(), 1);
    cMatrixDC wide = matrix({{1, 2, 3}, {4, 5, 6}});
    EXPECT_EQ(wide.inverse(), 1);
    EXPECT_EQ(wide.inv().numberOfElements(), 0);
}

} // namespace
