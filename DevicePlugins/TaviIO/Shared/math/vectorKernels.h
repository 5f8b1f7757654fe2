#pragma once

#include <span>

// The inner loops of the library on plain arrays of doubles, compiled for several vector widths; the widest
// one that the processor has is chosen when the program runs. The results do not depend on that choice:
// nothing is fused or reordered but the sums of dot(), which always run in the same sixteen lanes. Arrays
// must not overlap. Any thread.
namespace mathKernels {

// Below this length a plain loop is faster than the way to a vector kernel.
constexpr long kShort = 8;

// The Givens rotation (x, y) -> (c x + s y, c y - s x).
struct Rotation {
    double c = 1;
    double s = 0;
};

// The kernels of one vector width.
struct KernelSet {
    double (*dot)(const double* x, const double* y, long n);
    void (*addScaled)(double* y, double a, const double* x, long n);
    void (*addCombination)(double* y, long n, const double* coefficients, const double* rows, long stride,
                           long count);
    void (*rotateRows)(double* rows, long stride, long length, const Rotation* rotations, long count);
    // C (tileRows x tileColumns) += A B; the rows of A and C lie their strides apart, those of B one after
    // another.
    void (*multiplyTile)(long depth, const double* a, long strideOfA, const double* b, double* c,
                         long stride);
    long tileRows;
    long tileColumns;
};
// The sets that this processor can run, the widest one last; and that one.
std::span<const KernelSet* const> supportedKernels();
const KernelSet& kernels();

// Sum of x(i) y(i).
inline double dot(const double* x, const double* y, long n) {
    if (n >= kShort)
        return kernels().dot(x, y, n);
    double sum = 0;
    for (long i = 0; i < n; ++i)
        sum += x[i] * y[i];
    return sum;
}

// y += a x
inline void addScaled(double* y, double a, const double* x, long n) {
    if (n >= kShort)
        return kernels().addScaled(y, a, x, n);
    for (long i = 0; i < n; ++i)
        y[i] += a * x[i];
}

// y += coefficients(0) row(0) + coefficients(1) row(1) + ..., one after another; the rows lie `stride` apart.
inline void addCombination(double* y, long n, const double* coefficients, const double* rows, long stride,
                           long count) {
    if (n >= kShort)
        return kernels().addCombination(y, n, coefficients, rows, stride, count);
    for (long k = 0; k < count; ++k) {
        for (long i = 0; i < n; ++i)
            y[i] += coefficients[k] * rows[k * stride + i];
    }
}

// Rotates row 0 with row 1 by rotations[0], then row 1 with row 2 by rotations[1], and so on.
inline void rotateRows(double* rows, long stride, long length, const Rotation* rotations, long count) {
    if (length >= kShort)
        return kernels().rotateRows(rows, stride, length, rotations, count);
    for (long i = 0; i < length; ++i) {
        double* element = rows + i;
        double upper = *element;
        for (long k = 0; k < count; ++k, element += stride) {
            const auto [c, s] = rotations[k];
            const double lower = element[stride];
            *element = c * upper + s * lower;
            upper = c * lower - s * upper;
        }
        *element = upper;
    }
}

// C (rows x columns) = A (rows x depth) B (depth x columns), all stored row by row. Every element is the sum
// of its products in ascending order.
void multiply(const double* a, const double* b, double* c, long rows, long depth, long columns,
              const KernelSet& set = kernels());

// The length of (a, b), without overflow or underflow on the way.
double hypotenuse(double a, double b);

} // namespace mathKernels
