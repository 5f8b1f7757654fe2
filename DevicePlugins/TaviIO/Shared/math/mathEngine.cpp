#include "mathEngine.h"

#include "MatrixDC.h"
#include "singularValues.h"
#include "sort2.h"
#include "vectorKernels.h"

#include <cmath>
#include <numeric>
#include <vector>

namespace {

// out(i) = operation(i) for every element position of A.
template <class Operation>
int intoElements(const cMatrixDC& A, cMatrixDC& out, Operation operation,
                 const CallSite& site = CallSite::here()) {
    const long count = A.numberOfElements();
    mathAssert(out.numberOfElements() >= count, "out.numberOfElements() >= A.numberOfElements()", site);
    for (long i = 0; i < count; ++i)
        out.data()[i] = operation(i);
    return 1;
}

double squares(const double* values, long count) {
    double sum = 0;
    for (long i = 0; i < count; ++i)
        sum += values[i] * values[i];
    return sum;
}

// `target` (length x count) becomes the matrix of the columns that `column` gives for order[0], order[1], ...
template <class Column>
void writeColumns(cMatrixDC& target, long length, const long* order, long count, Column column) {
    for (long j = 0; j < count; ++j) {
        const double* values = column(order[j]);
        double* out = target.data() + j;
        for (long i = 0; i < length; ++i, out += target.numberOfColumns())
            *out = values[i];
    }
}

} // namespace

int cMathEngine::singularValueDecomp(cMatrixDC& A, cMatrixDC& U, cMatrixDC& W, cMatrixDC& V, bool economy) {
    const long m = A.numberOfRows();
    const long n = A.numberOfColumns();
    cSingularValues decomposition(A.GetItem(0), m, n);
    if (!decomposition.decompose())
        return 1;

    cScratchArray<double, 8> sorted(n);
    double* values = std::copy_n(decomposition.values(), n, sorted.data()) - n;
    cScratchArray<long, 8> columns(n);
    long* order = columns.data();
    std::iota(order, order + n, 0L);
    sort_0_lf(static_cast<int>(n), values, order);

    const long k = std::min(m, n);
    W.zeros(economy ? k : m, economy ? k : n);
    for (long i = 0; i < k; ++i)
        W(i, i) = values[i];
    if (economy)
        U.resize(m, k);
    else
        U.zeros(m, m);
    writeColumns(U, m, order, k, [&](long j) { return decomposition.left(j); });
    const long columnsOfV = economy ? k : n;
    V.resize(n, columnsOfV);
    writeColumns(V, n, order, columnsOfV, [&](long j) { return decomposition.right(j); });
    return 1;
}

int cMathEngine::multiply(const cMatrixDC& A, const cMatrixDC& B, cMatrixDC& C) {
    if (&C == &A || &C == &B) {
        cMatrixDC product;
        multiply(A, B, product);
        C.CopyItems(product);
        return 1;
    }
    const double* a = A.GetItem(0);
    const double* b = B.GetItem(0);
    mathAssert(A.numberOfColumns() == B.numberOfRows(), "A.numberOfColumns() == B.numberOfRows()");
    C.resize(A.numberOfRows(), B.numberOfColumns());
    mathKernels::multiply(a, b, C.GetItem(0), A.numberOfRows(), A.numberOfColumns(), B.numberOfColumns());
    return 1;
}

int cMathEngine::multiply(cMatrixDC& A, cMatrixDC& B, cMatrixDC& C) {
    const cMatrixDC& left = A;
    const cMatrixDC& right = B;
    return multiply(left, right, C);
}

int cMathEngine::multiply(const cMatrixDC& A, const cMatrixDC& B, cMatrixDC& C, bool transA, bool transB) {
    cMatrixDC left(A);
    cMatrixDC right(B);
    if (transA)
        left.Transpose();
    if (transB)
        right.Transpose();
    const cMatrixDC& constLeft = left;
    const cMatrixDC& constRight = right;
    return multiply(constLeft, constRight, C);
}

int cMathEngine::power(const cMatrixDC& A, const cMatrixDC& E, cMatrixDC& out) {
    mathAssert(E.numberOfElements() >= A.numberOfElements(), "E.numberOfElements() >= A.numberOfElements()");
    return intoElements(A, out, [&](long i) { return std::pow(A.data()[i], E.data()[i]); });
}

int cMathEngine::power(const cMatrixDC& A, double p, cMatrixDC& out) {
    return intoElements(A, out, [&](long i) { return std::pow(A.data()[i], p); });
}

int cMathEngine::exponential(const cMatrixDC& A, cMatrixDC& out) {
    return intoElements(A, out, [&](long i) { return std::exp(A.data()[i]); });
}

int cMathEngine::squareRoot(const cMatrixDC& A, cMatrixDC& out) {
    return intoElements(A, out, [&](long i) { return std::sqrt(A.data()[i]); });
}

int cMathEngine::inverse(cMatrixDC& A) {
    double d = 0;
    if (A._ludcmp(d) != 0)
        return 1;
    A.CopyItems(A.inverseOfFactors());
    return 0;
}

bool cMathEngine::solveAxEqB_LU(cMatrixDC& A, cMatrixDC& B, cMatrixDC& X) {
    cMatrixDC inverted(A);
    if (inverse(inverted) != 0)
        return false;
    multiply(inverted, B, X);
    return true;
}

double cMathEngine::norm(cMatrixDC& A) {
    return std::sqrt(squares(A.data(), A.numberOfElements()));
}

void cMathEngine::norm(cMatrixDC& A, cMatrixDC& out) {
    mathAssert(out.numberOfElements() >= A.numberOfRows(), "out.numberOfElements() >= A.numberOfRows()");
    const long columns = A.numberOfColumns();
    const std::vector<double> values = A.getVector(); // `out` may be A itself
    for (long r = 0; r < A.numberOfRows(); ++r)
        out.data()[r] = std::sqrt(squares(values.data() + r * columns, columns));
}

cMathEngine* cMathEngine::copy() const {
    return new cMathEngine(*this);
}

double cMathEngine::pythag(double a, double b) {
    return mathKernels::hypotenuse(a, b);
}
