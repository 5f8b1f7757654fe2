#pragma once

#include "scratchArray.h"
#include "vectorKernels.h"

// Singular values and vectors of a matrix A (m x n): A = U W V^T.
//
// The method of Golub and Reinsch (1970), in the variant published as `svdcmp` in the second edition of
// Numerical Recipes (Press et al., 1992): Householder reflections bring A to upper bidiagonal form, and
// implicitly shifted QR sweeps with Givens rotations make that diagonal. All n values are found, in no order;
// with m < n at least n - m of them are 0. Values come out 0 or positive.
//
// U and V are kept by columns, one after another in memory, because reflections and rotations act on columns.
// One object is one decomposition; one thread at a time.
class cSingularValues {
public:
    // A is rows x columns, stored row by row, with at least one element.
    cSingularValues(const double* a, long rows, long columns);

    // False when A holds values that are not finite or a singular value does not converge within 30 sweeps;
    // there are no results then.
    bool decompose();

    // The n values.
    const double* values() const { return mDiagonal; }
    // Columns of U (m values) and V (n values) that belong to value j.
    const double* left(long j) const { return mLeft + j * mRows; }
    const double* right(long j) const { return mRight + j * mColumns; }

private:
    // A reflection I + v v^T / h; h = 0 stands for none.
    static double makeReflection(double* v, long n, double& h);
    static void expandReflections(double* basis, long count, long length, const double* h);

    bool bringToSafeRange();
    void bidiagonalise();
    void reflectColumn(long i);
    void reflectRow(long i);
    bool diagonalise();
    bool isNegligible(double x) const;
    long splitBlock(long last);
    void clearSuperdiagonal(long first, long last);
    mathKernels::Rotation startOfSweep(long first, long last) const;
    void sweep(long first, long last);
    void makePositive(long j);

    long mRows;
    long mColumns;
    cScratchArray<double, 96> mStorage; // 4 x 4 and less fit in without allocation
    double* mWork;                      // A on its way to bidiagonal form, m x n
    double* mLeft;                      // n columns of m values
    double* mRight;                     // n columns of n values
    double* mDiagonal;                  // n
    double* mSuperdiagonal;             // n: the element above diagonal element j, 0 for j = 0
    double* mLeftH;                     // n: the h of the reflections
    double* mRightH;                    // n
    double* mScratch;                   // n
    cScratchArray<mathKernels::Rotation, 8> mRotations;
    double mNorm = 0;  // the largest |diagonal| + |superdiagonal|
    double mScale = 1; // what A was multiplied by, a power of 2
};
