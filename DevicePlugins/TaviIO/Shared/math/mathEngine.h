#pragma once

class cMatrixDC;

// The numerical kernels behind cMatrixDC. Every matrix owns an engine and sends its products, decompositions,
// inversions and element-wise functions through it, so that another engine can take their place for all
// matrices made from then on (cMatrixDC::setDefaultMathEngine).
//
// An engine has no state: any number of threads may use one at the same time, on different matrices. Outputs
// may be the same objects as inputs.
class cMathEngine {
public:
    virtual ~cMathEngine() = default;

    // A (m x n) = U W V^T with the singular values descending on the diagonal of W, by bidiagonalisation and
    // QR sweeps (singularValues.h). With k = min(m, n), the economy form gives U m x k, W k x k, V n x k; the
    // other one U m x m (columns from n on are zero), W m x n, V n x n. Returns 1. When a singular value does
    // not converge, or A holds values that are not finite, U, W and V stay as they are; the result is 1 all
    // the same.
    virtual int singularValueDecomp(cMatrixDC& A, cMatrixDC& U, cMatrixDC& W, cMatrixDC& V, bool economy);

    // C = A B, or with A or B transposed first. Each element is the sum of its products in ascending order,
    // rounded after each step, whatever the shapes and the processor. Matrices without rows and inner
    // dimensions that differ end the process. Returns 1.
    virtual int multiply(const cMatrixDC& A, const cMatrixDC& B, cMatrixDC& C);
    virtual int multiply(cMatrixDC& A, cMatrixDC& B, cMatrixDC& C);
    virtual int multiply(const cMatrixDC& A, const cMatrixDC& B, cMatrixDC& C, bool transA, bool transB);

    // Element by element into `out`, which must have room for as many elements as A and is not resized.
    // Return 1.
    virtual int power(const cMatrixDC& A, const cMatrixDC& E, cMatrixDC& out);
    virtual int power(const cMatrixDC& A, double p, cMatrixDC& out);
    virtual int exponential(const cMatrixDC& A, cMatrixDC& out);
    virtual int squareRoot(const cMatrixDC& A, cMatrixDC& out);

    // Replaces A by its inverse; returns 0, or 1 when A is singular (it then holds its LU factors) or not
    // square (it is then untouched).
    virtual int inverse(cMatrixDC& A);

    // X = A^-1 B through the engine's own inverse and product; false, with X untouched, when A has no
    // inverse.
    virtual bool solveAxEqB_LU(cMatrixDC& A, cMatrixDC& B, cMatrixDC& X);

    // Square root of the sum of the squares of all elements, or of each row into out(0), out(1), ...
    virtual double norm(cMatrixDC& A);
    virtual void norm(cMatrixDC& A, cMatrixDC& out);

    // A new engine of the same kind, which belongs to the caller.
    virtual cMathEngine* copy() const;

    // The length of (a, b), without overflow or underflow on the way.
    double pythag(double a, double b);
};
