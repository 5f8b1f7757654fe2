#include "singularValues.h"

#include <algorithm>
#include <cmath>

using mathKernels::addScaled;
using mathKernels::dot;
using mathKernels::hypotenuse;
using mathKernels::Rotation;

namespace {

constexpr int kMostSweeps = 30;

// Between these the squares of all values that are not negligible are representable.
constexpr int kSafeExponentLow = -400;
constexpr int kSafeExponentHigh = 480;

// Sums of squares in this range have lost nothing to overflow or underflow.
constexpr double kLeastSquare = 0x1p-900;
constexpr double kMostSquare = 0x1p+1000;

// The length of (x, y), mostly without the division that hypotenuse() takes to be safe.
double lengthOf(double x, double y) {
    const double square = x * x + y * y;
    return square > kLeastSquare && square < kMostSquare ? std::sqrt(square) : hypotenuse(x, y);
}

// The rotation that turns (x, y) into (length, 0).
struct Elimination {
    double length;
    Rotation rotation;
};

Elimination eliminate(double x, double y) {
    const double r = lengthOf(x, y);
    return {r, r != 0 ? Rotation{x / r, y / r} : Rotation{}};
}

} // namespace

cSingularValues::cSingularValues(const double* a, long rows, long columns)
    : mRows(rows),
      mColumns(columns),
      mStorage(2 * rows * columns + columns * columns + 5 * columns),
      mRotations(2 * columns) {
    mWork = mStorage.data();
    mLeft = mWork + rows * columns;
    mRight = mLeft + rows * columns;
    mDiagonal = mRight + columns * columns;
    mSuperdiagonal = mDiagonal + columns;
    mLeftH = mSuperdiagonal + columns;
    mRightH = mLeftH + columns;
    mScratch = mRightH + columns;
    std::copy_n(a, rows * columns, mWork);
}

bool cSingularValues::decompose() {
    if (!bringToSafeRange())
        return false;
    bidiagonalise();
    expandReflections(mLeft, std::min(mRows, mColumns), mRows, mLeftH);
    expandReflections(mRight, mColumns, mColumns, mRightH);
    if (!diagonalise())
        return false;
    if (mScale != 1) {
        for (long j = 0; j < mColumns; ++j)
            mDiagonal[j] /= mScale;
    }
    return true;
}

// A matrix of very large or very small elements is scaled by a power of 2, which changes nothing else. False
// when an element is not finite.
bool cSingularValues::bringToSafeRange() {
    double largest = 0;
    for (const double* x = mWork; x != mWork + mRows * mColumns; ++x) {
        if (!std::isfinite(*x))
            return false;
        largest = std::max(largest, std::fabs(*x));
    }
    if (largest == 0)
        return true;
    const int exponent = std::ilogb(largest);
    const int safe = std::clamp(exponent, kSafeExponentLow, kSafeExponentHigh);
    if (exponent != safe) {
        mScale = std::ldexp(1.0, safe - exponent);
        std::for_each(mWork, mWork + mRows * mColumns, [this](double& x) { x *= mScale; });
    }
    return true;
}

// Makes the reflection that turns the vector v into (r, 0, 0, ...) and returns r; v becomes the reflection's
// vector, scaled by the sum of the absolute values so that its squares are safe. A vector of zeros is left
// alone.
double cSingularValues::makeReflection(double* v, long n, double& h) {
    if (n == 1 && v[0] != 0) {
        const double x = v[0];
        v[0] = std::copysign(2.0, x);
        h = -2;
        return -x;
    }
    double scale = 0;
    for (long k = 0; k < n; ++k)
        scale += std::fabs(v[k]);
    h = 0;
    if (scale == 0)
        return 0;
    for (long k = 0; k < n; ++k)
        v[k] /= scale;
    // Of the two vectors of the right length, the one that does not cancel.
    const double r = -std::copysign(std::sqrt(dot(v, v, n)), v[0]);
    v[0] -= r;
    h = r * v[0];
    return scale * r;
}

void cSingularValues::bidiagonalise() {
    for (long i = 0; i < mColumns; ++i) {
        if (i < mRows)
            reflectColumn(i);
        if (i < mRows && i + 1 < mColumns)
            reflectRow(i);
        mNorm = std::max(mNorm, std::fabs(mDiagonal[i]) + std::fabs(mSuperdiagonal[i]));
    }
}

// Clears column i below the diagonal. The reflection is kept in the place of U's column i.
void cSingularValues::reflectColumn(long i) {
    double* v = mLeft + i * mRows + i;
    const long length = mRows - i;
    for (long k = 0; k < length; ++k)
        v[k] = mWork[(i + k) * mColumns + i];
    mDiagonal[i] = makeReflection(v, length, mLeftH[i]);
    const long rest = mColumns - i - 1;
    if (mLeftH[i] == 0 || rest == 0)
        return;
    // The part of the matrix to the right becomes A + v (v^T A / h), row by row.
    double* part = mWork + i * mColumns + i + 1;
    std::fill_n(mScratch, rest, 0.0);
    mathKernels::addCombination(mScratch, rest, v, part, mColumns, length);
    for (long j = 0; j < rest; ++j)
        mScratch[j] /= mLeftH[i];
    for (long k = 0; k < length; ++k)
        addScaled(part + k * mColumns, v[k], mScratch, rest);
}

// Clears row i to the right of the superdiagonal. The reflection is kept in the place of V's column i + 1.
void cSingularValues::reflectRow(long i) {
    double* v = mRight + (i + 1) * mColumns + i + 1;
    const long length = mColumns - i - 1;
    std::copy_n(mWork + i * mColumns + i + 1, length, v);
    double& h = mRightH[i + 1];
    mSuperdiagonal[i + 1] = makeReflection(v, length, h);
    if (h == 0)
        return;
    for (long k = i + 1; k < mRows; ++k) {
        double* row = mWork + k * mColumns + i + 1;
        addScaled(row, dot(v, row, length) / h, v, length);
    }
}

// Turns the reflections kept in a basis, number r acting on the elements from r on, into their product's
// columns.
void cSingularValues::expandReflections(double* basis, long count, long length, const double* h) {
    for (long r = count - 1; r >= 0; --r) {
        double* row = basis + r * length;
        double* v = row + r;
        const long n = length - r;
        if (h[r] != 0) {
            for (long j = r + 1; j < count; ++j) {
                double* column = basis + j * length + r;
                addScaled(column, dot(v, column, n) / h[r], v, n);
            }
            const double first = v[0] / h[r];
            for (long k = 0; k < n; ++k)
                v[k] *= first;
        } else {
            std::fill_n(v, n, 0.0);
        }
        v[0] += 1;
        std::fill_n(row, r, 0.0);
    }
}

bool cSingularValues::isNegligible(double x) const {
    return std::fabs(x) + mNorm == mNorm;
}

bool cSingularValues::diagonalise() {
    for (long last = mColumns - 1; last >= 0; --last) {
        int sweeps = 0;
        for (long first = splitBlock(last); first != last; first = splitBlock(last)) {
            if (sweeps++ == kMostSweeps)
                return false;
            sweep(first, last);
        }
        makePositive(last);
    }
    return true;
}

// The start of the block that ends at `last` and falls apart no further: the element above its first diagonal
// element is negligible, or was cleared because the diagonal element before it is.
long cSingularValues::splitBlock(long last) {
    long first = last;
    while (!isNegligible(mSuperdiagonal[first])) {
        if (isNegligible(mDiagonal[first - 1])) {
            clearSuperdiagonal(first, last);
            break;
        }
        --first;
    }
    return first;
}

// Row first - 1 has only its superdiagonal element left. Rotations with the rows below move it to the right
// until it is negligible or falls off the block.
void cSingularValues::clearSuperdiagonal(long first, long last) {
    double* emptied = mLeft + (first - 1) * mRows;
    Rotation rotation{0, 1};
    for (long i = first; i <= last; ++i) {
        const double moved = rotation.s * mSuperdiagonal[i];
        mSuperdiagonal[i] *= rotation.c;
        if (isNegligible(moved))
            return;
        const auto [length, next] = eliminate(mDiagonal[i], -moved);
        mDiagonal[i] = length;
        rotation = next;
        double* column = mLeft + i * mRows;
        for (long k = 0; k < mRows; ++k) {
            const double x = emptied[k];
            const double y = column[k];
            emptied[k] = rotation.c * x + rotation.s * y;
            column[k] = rotation.c * y - rotation.s * x;
        }
    }
}

// The direction of the first column of B^T B - shift I of the block B: it has only two elements. The shift is
// the eigenvalue of the last 2 x 2 part of B^T B that is nearer to its last element.
Rotation cSingularValues::startOfSweep(long first, long last) const {
    const double top = mDiagonal[first];
    const double before = mDiagonal[last - 1];
    const double end = mDiagonal[last];
    const double above = mSuperdiagonal[last - 1];
    const double beside = mSuperdiagonal[last];
    const double gap = (before - end) * (before + end) + (above - beside) * (above + beside);
    const double coupling = 2 * beside * before;
    const double root = gap + std::copysign(lengthOf(gap, coupling), gap);
    const double shifted = (top - end) * (top + end) + beside * (before * (coupling / root) - beside);
    return eliminate(std::copysign(1.0, top) * shifted, std::fabs(top) * mSuperdiagonal[first + 1]).rotation;
}

// One QR step on the block. A rotation of its first two columns brings in the shift and an element below the
// diagonal; rotations of rows and columns in turn move that element down and out of the block. Those of the
// columns go to V and those of the rows to U, all at once at the end.
void cSingularValues::sweep(long first, long last) {
    const long count = last - first;
    Rotation* ofColumns = mRotations.data();
    Rotation* ofRows = ofColumns + count;
    // The element on the diagonal and the one beside it in the columns that the coming rotation mixes.
    double diagonal = mDiagonal[first];
    double beside = mSuperdiagonal[first + 1];
    Rotation columns = startOfSweep(first, last);
    for (long k = 0; k < count; ++k) {
        const long j = first + k;
        // Columns j and j + 1 mix: an element appears below the diagonal.
        ofColumns[k] = columns;
        const double upper = columns.c * diagonal + columns.s * beside;
        const double besideUpper = columns.c * beside - columns.s * diagonal;
        const double belowUpper = columns.s * mDiagonal[j + 1];
        const double lower = columns.c * mDiagonal[j + 1];
        // Rows j and j + 1 mix so that it goes: another appears to the right of the superdiagonal.
        const auto [length, rows] = eliminate(upper, belowUpper);
        ofRows[k] = rows;
        mDiagonal[j] = length;
        diagonal = rows.c * lower - rows.s * besideUpper;
        mSuperdiagonal[j + 1] = rows.c * besideUpper + rows.s * lower;
        if (k + 1 < count) {
            // The next mixing of columns takes that one away.
            const Elimination next = eliminate(mSuperdiagonal[j + 1], rows.s * mSuperdiagonal[j + 2]);
            mSuperdiagonal[j + 1] = next.length;
            columns = next.rotation;
            beside = rows.c * mSuperdiagonal[j + 2];
        }
    }
    mSuperdiagonal[first] = 0;
    mDiagonal[last] = diagonal;
    mathKernels::rotateRows(mRight + first * mColumns, mColumns, mColumns, ofColumns, count);
    mathKernels::rotateRows(mLeft + first * mRows, mRows, mRows, ofRows, count);
}

void cSingularValues::makePositive(long j) {
    if (mDiagonal[j] >= 0)
        return;
    mDiagonal[j] = -mDiagonal[j];
    double* column = mRight + j * mColumns;
    std::for_each(column, column + mColumns, [](double& x) { x = -x; });
}
