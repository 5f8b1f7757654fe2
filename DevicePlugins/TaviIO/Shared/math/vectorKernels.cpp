#include "vectorKernels.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <type_traits>
#include <vector>

namespace mathKernels {
namespace {

// The kernels are written once, for a vector type V, and inlined into one function per instruction set.
#define MATH_INLINE [[gnu::always_inline]] inline

using Vector2 = double __attribute__((vector_size(16)));
using Vector4 = double __attribute__((vector_size(32)));
using Vector8 = double __attribute__((vector_size(64)));

template <class V>
constexpr long kWidth = static_cast<long>(sizeof(V) / sizeof(double));

// The lanes of the sums of dot(), in all widths.
constexpr long kLanes = 16;

template <class V>
MATH_INLINE void load(V& v, const double* p) {
    __builtin_memcpy(&v, p, sizeof(V));
}

template <class V>
MATH_INLINE void store(double* p, const V& v) {
    __builtin_memcpy(p, &v, sizeof(V));
}

template <class V>
MATH_INLINE double dotWith(const double* x, const double* y, long n) {
    constexpr long kVectors = kLanes / kWidth<V>;
    V sums[kVectors] = {};
    long i = 0;
    for (; i + kLanes <= n; i += kLanes) {
        for (long v = 0; v < kVectors; ++v) {
            V a;
            V b;
            load(a, x + i + v * kWidth<V>);
            load(b, y + i + v * kWidth<V>);
            sums[v] += a * b;
        }
    }
    double lanes[kLanes];
    __builtin_memcpy(lanes, sums, sizeof lanes);
    for (long half = kLanes / 2; half > 0; half /= 2) {
        for (long lane = 0; lane < half; ++lane)
            lanes[lane] += lanes[lane + half];
    }
    for (; i < n; ++i)
        lanes[0] += x[i] * y[i];
    return lanes[0];
}

// Goes through n elements in parts of `Vectors` vectors, then through what is left vector by vector and
// element by element: step(vectors, type, i), with a number of vectors and a type that the compiler knows.
template <class V, long Vectors, class Step>
MATH_INLINE void inParts(long n, const Step& step) {
    long i = 0;
    for (; i + Vectors * kWidth<V> <= n; i += Vectors * kWidth<V>)
        step(std::integral_constant<long, Vectors>(), std::type_identity<V>(), i);
    for (; i + kWidth<V> <= n; i += kWidth<V>)
        step(std::integral_constant<long, 1>(), std::type_identity<V>(), i);
    for (; i < n; ++i)
        step(std::integral_constant<long, 1>(), std::type_identity<double>(), i);
}

template <class V>
MATH_INLINE void addScaledWith(double* y, double a, const double* x, long n) {
    inParts<V, 2>(
        n, [=](auto vectors, auto type, long i) __attribute__((always_inline)) {
            using Part = typename decltype(type)::type;
            constexpr long kVectors = decltype(vectors)::value;
            for (long v = 0; v < kVectors; ++v, i += kWidth<Part>) {
                Part sum;
                Part addend;
                load(sum, y + i);
                load(addend, x + i);
                sum += a * addend;
                store(y + i, sum);
            }
        });
}

template <class V>
MATH_INLINE void addCombinationWith(double* y, long n, const double* coefficients, const double* rows,
                                    long stride, long count) {
    // A part of y stays in registers while all rows are added to it.
    inParts<V, 4>(
        n, [=](auto vectors, auto type, long i) __attribute__((always_inline)) {
            using Part = typename decltype(type)::type;
            constexpr long kVectors = decltype(vectors)::value;
            Part sums[kVectors];
            for (long v = 0; v < kVectors; ++v)
                load(sums[v], y + i + v * kWidth<Part>);
            for (long k = 0; k < count; ++k) {
                for (long v = 0; v < kVectors; ++v) {
                    Part addend;
                    load(addend, rows + k * stride + i + v * kWidth<Part>);
                    sums[v] += coefficients[k] * addend;
                }
            }
            for (long v = 0; v < kVectors; ++v)
                store(y + i + v * kWidth<Part>, sums[v]);
        });
}

template <class V>
MATH_INLINE void rotateRowsWith(double* rows, long stride, long length, const Rotation* rotations,
                                long count) {
    // A rotation leaves its second row for the next one, in registers.
    inParts<V, 4>(
        length, [=](auto vectors, auto type, long i) __attribute__((always_inline)) {
            using Part = typename decltype(type)::type;
            constexpr long kVectors = decltype(vectors)::value;
            Part upper[kVectors];
            double* row = rows + i;
            for (long v = 0; v < kVectors; ++v)
                load(upper[v], row + v * kWidth<Part>);
            for (long k = 0; k < count; ++k, row += stride) {
                const double c = rotations[k].c;
                const double s = rotations[k].s;
                for (long v = 0; v < kVectors; ++v) {
                    Part lower;
                    load(lower, row + stride + v * kWidth<Part>);
                    store(row + v * kWidth<Part>, c * upper[v] + s * lower);
                    upper[v] = c * lower - s * upper[v];
                }
            }
            for (long v = 0; v < kVectors; ++v)
                store(row + v * kWidth<Part>, upper[v]);
        });
}

template <class V, long Rows, long Vectors>
MATH_INLINE void multiplyTileWith(long depth, const double* a, long strideOfA, const double* b, double* c,
                                  long stride) {
    V sums[Rows][Vectors];
    for (long r = 0; r < Rows; ++r) {
        for (long v = 0; v < Vectors; ++v)
            load(sums[r][v], c + r * stride + v * kWidth<V>);
    }
    for (long t = 0; t < depth; ++t, ++a, b += Vectors * kWidth<V>) {
        V factors[Vectors];
        for (long v = 0; v < Vectors; ++v)
            load(factors[v], b + v * kWidth<V>);
        for (long r = 0; r < Rows; ++r) {
            for (long v = 0; v < Vectors; ++v)
                sums[r][v] += a[r * strideOfA] * factors[v];
        }
    }
    for (long r = 0; r < Rows; ++r) {
        for (long v = 0; v < Vectors; ++v)
            store(c + r * stride + v * kWidth<V>, sums[r][v]);
    }
}

// The functions of one instruction set and the set that names them.
#define MATH_KERNEL_SET(NAME, TARGET, V, ROWS, VECTORS)                                                      \
    struct NAME {                                                                                            \
        TARGET static double dot(const double* x, const double* y, long n) { return dotWith<V>(x, y, n); }   \
        TARGET static void addScaled(double* y, double a, const double* x, long n) {                         \
            addScaledWith<V>(y, a, x, n);                                                                    \
        }                                                                                                    \
        TARGET static void addCombination(double* y, long n, const double* coefficients, const double* rows, \
                                          long stride, long count) {                                         \
            addCombinationWith<V>(y, n, coefficients, rows, stride, count);                                  \
        }                                                                                                    \
        TARGET static void rotateRows(double* rows, long stride, long length, const Rotation* rotations,     \
                                      long count) {                                                          \
            rotateRowsWith<V>(rows, stride, length, rotations, count);                                       \
        }                                                                                                    \
        TARGET static void multiplyTile(long depth, const double* a, long strideOfA, const double* b,        \
                                        double* c, long stride) {                                            \
            multiplyTileWith<V, ROWS, VECTORS>(depth, a, strideOfA, b, c, stride);                           \
        }                                                                                                    \
        static constexpr KernelSet kSet{dot,          addScaled, addCombination,    rotateRows,              \
                                        multiplyTile, ROWS,      VECTORS* kWidth<V>};                        \
    };

MATH_KERNEL_SET(Baseline, , Vector2, 4, 2)
#if defined(__x86_64__)
MATH_KERNEL_SET(Avx2, [[gnu::target("avx2")]], Vector4, 4, 2)
MATH_KERNEL_SET(Avx512, [[gnu::target("avx512f")]], Vector8, 8, 2)
#endif

std::vector<const KernelSet*> findSupported() {
    std::vector<const KernelSet*> sets{&Baseline::kSet};
#if defined(__x86_64__)
    if (__builtin_cpu_supports("avx2"))
        sets.push_back(&Avx2::kSet);
    if (__builtin_cpu_supports("avx512f"))
        sets.push_back(&Avx512::kSet);
#endif
    return sets;
}

// --- Product of large matrices: blocks of B are copied into the order in which the tiles read them, so small
// that the tiles find them in the caches.

constexpr long kBlockDepth = 128;
constexpr long kBlockColumns = 768;

// Products smaller than this are not worth the copying.
constexpr std::int64_t kSmallProduct = std::int64_t{16} * 16 * 16;

struct Block {
    const double* data;
    long stride;
    long rows;
    long columns;
};

// Bands of `width` columns, row by row within a band, filled up with zeros.
void packColumns(const Block& b, long width, double* out) {
    for (long c0 = 0; c0 < b.columns; c0 += width) {
        const long present = std::min(width, b.columns - c0);
        for (long t = 0; t < b.rows; ++t) {
            out = std::copy_n(b.data + t * b.stride + c0, present, out);
            out = std::fill_n(out, width - present, 0.0);
        }
    }
}

constexpr long kMostTileRows = 8;
constexpr long kMostTileColumns = 16;

// A tile that sticks out of C, or of A below, works on copies that are filled up with zeros.
void multiplyPartOfTile(const KernelSet& set, const Block& a, const double* band, double* c, long stride,
                        long columns) {
    std::array<double, kMostTileRows * kBlockDepth> rows{};
    std::array<double, kMostTileRows * kMostTileColumns> tile{};
    for (long r = 0; r < a.rows; ++r) {
        std::copy_n(a.data + r * a.stride, a.columns, rows.data() + r * kBlockDepth);
        std::copy_n(c + r * stride, columns, tile.data() + r * set.tileColumns);
    }
    set.multiplyTile(a.columns, rows.data(), kBlockDepth, band, tile.data(), set.tileColumns);
    for (long r = 0; r < a.rows; ++r)
        std::copy_n(tile.data() + r * set.tileColumns, columns, c + r * stride);
}

// Adds the product of a block of A and a packed block of B to the part of C that starts at `c`.
void multiplyBlocks(const KernelSet& set, const Block& a, const double* b, double* c, long stride,
                    long columns) {
    for (long r0 = 0; r0 < a.rows; r0 += set.tileRows) {
        const double* rows = a.data + r0 * a.stride;
        const long height = std::min(set.tileRows, a.rows - r0);
        for (long c0 = 0; c0 < columns; c0 += set.tileColumns) {
            const double* band = b + c0 * a.columns;
            double* target = c + r0 * stride + c0;
            const long width = std::min(set.tileColumns, columns - c0);
            if (width == set.tileColumns && height == set.tileRows)
                set.multiplyTile(a.columns, rows, a.stride, band, target, stride);
            else
                multiplyPartOfTile(set, {rows, a.stride, height, a.columns}, band, target, stride, width);
        }
    }
}

} // namespace

std::span<const KernelSet* const> supportedKernels() {
    static const std::vector<const KernelSet*> supported = findSupported();
    return supported;
}

const KernelSet& kernels() {
    static const KernelSet& widest = *supportedKernels().back();
    return widest;
}

void multiply(const double* a, const double* b, double* c, long rows, long depth, long columns,
              const KernelSet& set) {
    std::fill_n(c, rows * columns, 0.0);
    if (rows < 4 || std::int64_t{rows} * depth * columns < kSmallProduct) {
        for (long r = 0; r < rows; ++r)
            addCombination(c + r * columns, columns, a + r * depth, b, columns, depth);
        return;
    }
    const long bands = (std::min(columns, kBlockColumns) + set.tileColumns - 1) / set.tileColumns;
    const auto packed = std::make_unique_for_overwrite<double[]>(
        static_cast<std::size_t>(std::min(depth, kBlockDepth) * bands * set.tileColumns));
    // The depth is taken in ascending order, block by block: every element receives its products in that
    // order.
    for (long c0 = 0; c0 < columns; c0 += kBlockColumns) {
        const long blockColumns = std::min(kBlockColumns, columns - c0);
        for (long t0 = 0; t0 < depth; t0 += kBlockDepth) {
            const long blockDepth = std::min(kBlockDepth, depth - t0);
            packColumns({b + t0 * columns + c0, columns, blockDepth, blockColumns}, set.tileColumns,
                        packed.get());
            multiplyBlocks(set, {a + t0, depth, rows, blockDepth}, packed.get(), c + c0, columns,
                           blockColumns);
        }
    }
}

double hypotenuse(double a, double b) {
    if (std::isnan(a) || std::isnan(b))
        return std::numeric_limits<double>::quiet_NaN();
    const double larger = std::max(std::fabs(a), std::fabs(b));
    if (larger == 0)
        return 0;
    const double ratio = std::min(std::fabs(a), std::fabs(b)) / larger;
    return larger * std::sqrt(1 + ratio * ratio);
}

} // namespace mathKernels
