// Each operation of the library beside the same operation of a peer, on the same data, in one run and one
// thread. A benchmark whose result is wrong says so in its line instead of a time.

#include "MatrixDC.h"
#include "allocationCount.h"
#include "eigenPeer.h"
#include "sort2.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <utility>
#include <vector>

extern "C" {
void openblas_set_num_threads(int threads);
char* openblas_get_corename();
void dgemm_(const char* transA, const char* transB, const int* m, const int* n, const int* k,
            const double* alpha, const double* a, const int* lda, const double* b, const int* ldb,
            const double* beta, double* c, const int* ldc);
void dgesvd_(const char* jobU, const char* jobVt, const int* m, const int* n, double* a, const int* lda,
             double* values, double* u, const int* ldu, double* vt, const int* ldvt, double* work,
             const int* lwork, int* info);
}

namespace {

cMatrixDC randomMatrix(long rows, long columns, unsigned seed = 2026) {
    std::mt19937_64 generator(seed);
    std::uniform_real_distribution<double> values(-1, 1);
    cMatrixDC matrix(rows, columns);
    for (long i = 0; i < matrix.numberOfElements(); ++i)
        matrix.data()[i] = values(generator);
    return matrix;
}

double largestDifference(const double* a, const double* b, long count) {
    double largest = 0;
    for (long i = 0; i < count; ++i)
        largest = std::max(largest, std::fabs(a[i] - b[i]));
    return largest;
}

bool somethingWasWrong = false;

void check(benchmark::State& state, bool isRight) {
    if (isRight)
        return;
    somethingWasWrong = true;
    state.SkipWithError("wrong result");
}

void check(benchmark::State& state, double error, double tolerance) {
    check(state, error <= tolerance);
}

// --- Products

void productOfPeer(const cMatrixDC& a, const cMatrixDC& b, cMatrixDC& c) {
    eigenPeer::multiply(a.data(), b.data(), c.data(), a.numberOfRows());
}

void productOfBlas(const cMatrixDC& a, const cMatrixDC& b, cMatrixDC& c) {
    // Row by row what BLAS sees column by column: C^T = B^T A^T.
    const int n = static_cast<int>(a.numberOfRows());
    const double one = 1;
    const double zero = 0;
    dgemm_("N", "N", &n, &n, &n, &one, b.data(), &n, a.data(), &n, &zero, c.data(), &n);
}

template <class Product>
void measureProduct(benchmark::State& state, Product product) {
    const long n = state.range(0);
    const cMatrixDC a = randomMatrix(n, n);
    const cMatrixDC b = a.trans();
    cMatrixDC c(n, n);
    for (auto _ : state) {
        product(a, b, c);
        benchmark::DoNotOptimize(c.data());
    }
    cMatrixDC expected;
    expected.multiplySmall(a, b);
    check(state, largestDifference(c.data(), expected.data(), n * n), 1e-12 * static_cast<double>(n));
    state.counters["Gflop/s"] = benchmark::Counter(2e-9 * static_cast<double>(n * n * n),
                                                   benchmark::Counter::kIsIterationInvariantRate);
}

void mult(benchmark::State& state) {
    measureProduct(state, [](const cMatrixDC& a, const cMatrixDC& b, cMatrixDC& c) { c.multiply(a, b); });
}
void multEigen(benchmark::State& state) {
    measureProduct(state, productOfPeer);
}
void multOpenBlas(benchmark::State& state) {
    measureProduct(state, productOfBlas);
}

BENCHMARK(mult)->Arg(3)->Arg(16)->Arg(32)->Arg(128)->Arg(512);
BENCHMARK(multEigen)->Arg(3)->Arg(16)->Arg(32)->Arg(128)->Arg(512);
BENCHMARK(multOpenBlas)->Arg(3)->Arg(16)->Arg(32)->Arg(128)->Arg(512);

// --- Singular values

std::vector<double> blasSingularValues(const cMatrixDC& matrix) {
    const int n = static_cast<int>(matrix.numberOfRows());
    std::vector<double> a = matrix.getVector();
    std::vector<double> values(static_cast<std::size_t>(n));
    std::vector<double> u(a.size());
    std::vector<double> vt(a.size());
    int info = 0;
    int size = -1;
    double wanted = 0;
    dgesvd_("S", "S", &n, &n, a.data(), &n, values.data(), u.data(), &n, vt.data(), &n, &wanted, &size,
            &info);
    size = static_cast<int>(wanted);
    std::vector<double> work(static_cast<std::size_t>(size));
    dgesvd_("S", "S", &n, &n, a.data(), &n, values.data(), u.data(), &n, vt.data(), &n, work.data(), &size,
            &info);
    return values;
}

// Small ones take turns: how many sweeps a matrix needs is a matter of luck.
template <class Decomposition>
void measureSvd(benchmark::State& state, Decomposition decomposition) {
    const long n = state.range(0);
    std::vector<cMatrixDC> matrices;
    for (unsigned seed = 0; seed < (n < 10 ? 32U : 1U); ++seed)
        matrices.push_back(randomMatrix(n, n, seed));
    std::vector<double> values(static_cast<std::size_t>(n));
    std::size_t next = 0;
    for (auto _ : state) {
        decomposition(matrices[next], values);
        benchmark::DoNotOptimize(values.data());
        next = (next + 1) % matrices.size();
    }
    for (cMatrixDC& matrix : matrices) {
        decomposition(matrix, values);
        check(state, largestDifference(values.data(), blasSingularValues(matrix).data(), n),
              1e-13 * static_cast<double>(n));
    }
}

void svd(benchmark::State& state) {
    cMatrixDC u;
    cMatrixDC w;
    cMatrixDC v;
    measureSvd(state, [&](cMatrixDC& a, std::vector<double>& values) {
        a.singularValueDecomp(u, w, v, true);
        for (long i = 0; i < w.numberOfRows(); ++i)
            values[static_cast<std::size_t>(i)] = w(i, i);
    });
}
void svdEigenJacobi(benchmark::State& state) {
    measureSvd(state, [](const cMatrixDC& a, std::vector<double>& values) {
        eigenPeer::jacobiSvd(a.data(), values.data(), a.numberOfRows());
    });
}
void svdEigenJacobiFixed(benchmark::State& state) {
    measureSvd(state, [](const cMatrixDC& a, std::vector<double>& values) {
        eigenPeer::jacobiSvdFixed3(a.data(), values.data());
    });
}
void svdLapack(benchmark::State& state) {
    measureSvd(state,
               [](const cMatrixDC& a, std::vector<double>& values) { values = blasSingularValues(a); });
}

BENCHMARK(svd)->Arg(3)->Arg(100)->Arg(200);
BENCHMARK(svdEigenJacobi)->Arg(3)->Arg(100)->Arg(200);
BENCHMARK(svdEigenJacobiFixed)->Arg(3);
BENCHMARK(svdLapack)->Arg(3)->Arg(100)->Arg(200);

// --- The pseudo-inverse of the chart frame

void pinvOfChartFrame(benchmark::State& state) {
    const std::vector<double> corners = {0, 0, 1, 0, 1, 1, 1, 1, 1};
    cMatrixDC b(3, 3, corners.data());
    const long before = allocationCount();
    for (auto _ : state)
        benchmark::DoNotOptimize(b.pinv().data());
    state.counters["allocations"] = benchmark::Counter(static_cast<double>(allocationCount() - before),
                                                       benchmark::Counter::kAvgIterations);
    cMatrixDC identity;
    identity.makeIdentity(3);
    check(state, largestDifference(b.pinv().mult(b).data(), identity.data(), 9), 1e-14);
}
BENCHMARK(pinvOfChartFrame);

// --- Inverses

template <class Inversion>
void measureInverse(benchmark::State& state, Inversion inversion) {
    const long n = state.range(0);
    const cMatrixDC a = randomMatrix(n, n);
    cMatrixDC result(n, n);
    for (auto _ : state) {
        inversion(a, result);
        benchmark::DoNotOptimize(result.data());
    }
    cMatrixDC identity;
    identity.makeIdentity(n);
    check(state, largestDifference(result.mult(a).data(), identity.data(), n * n), 1e-9);
}

void inverse(benchmark::State& state) {
    measureInverse(state, [](const cMatrixDC& a, cMatrixDC& result) {
        result.CopyItems(a);
        result.inverse();
    });
}
void inverseEigen(benchmark::State& state) {
    measureInverse(state, [](const cMatrixDC& a, cMatrixDC& result) {
        eigenPeer::inverse(a.data(), result.data(), a.numberOfRows());
    });
}
BENCHMARK(inverse)->Arg(3)->Arg(200);
BENCHMARK(inverseEigen)->Arg(3)->Arg(200);

// --- Sorting

template <class Sorting>
void measureSort(benchmark::State& state, Sorting sorting) {
    const long n = state.range(0);
    const std::vector<double> keys = randomMatrix(1, n).getVector();
    std::vector<double> sorted;
    for (auto _ : state) {
        sorted = sorting(keys);
        benchmark::DoNotOptimize(sorted.data());
    }
    check(state, std::is_sorted(sorted.rbegin(), sorted.rend()));
}

void sortDescending(benchmark::State& state) {
    measureSort(state, [](std::vector<double> keys) {
        std::vector<long> companions(keys.size());
        std::iota(companions.begin(), companions.end(), 0L);
        sort_0_lf(static_cast<int>(keys.size()), keys.data(), companions.data());
        benchmark::DoNotOptimize(companions.data());
        return keys;
    });
}
void sortDescendingStd(benchmark::State& state) {
    measureSort(state, [](std::vector<double> keys) {
        std::vector<std::pair<double, long>> pairs(keys.size());
        for (std::size_t i = 0; i < keys.size(); ++i)
            pairs[i] = {keys[i], static_cast<long>(i)};
        std::sort(pairs.begin(), pairs.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
        std::transform(pairs.begin(), pairs.end(), keys.begin(), [](const auto& pair) { return pair.first; });
        return keys;
    });
}
BENCHMARK(sortDescending)->Arg(1000)->Arg(100000);
BENCHMARK(sortDescendingStd)->Arg(1000)->Arg(100000);

} // namespace

int main(int argc, char** argv) {
    openblas_set_num_threads(1);
    benchmark::AddCustomContext("openblas_core", openblas_get_corename());
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    return somethingWasWrong ? 1 : 0;
}
