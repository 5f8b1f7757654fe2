#pragma once

#include "dataColection.h"
#include "dataColectionInt.h"
#include "mathEngine.h"

#include <memory>
#include <vector>

// How chooseValue compares an element with the threshold.
enum eCompareType {
    eCompareLess = 0,
    eCompareLessOrEqual = 1,
    eCompareGreater = 2,
    eCompareGreaterOrEqual = 3,
    eCompareNotEqual = 4,
};

// A dense matrix of doubles: a collection whose items are the rows. Products, decompositions and element-wise
// functions go through the matrix's own engine.
//
// In the operations below A is the matrix itself. Those that return a matrix leave A alone unless they say
// otherwise; the others change it. Shapes that do not fit, like indices out of range, end the process
// (mathAssert.h); numerical failures are results. A vector argument is any matrix with enough elements, taken
// in storage order. An instance belongs to one thread at a time.
class cMatrixDC : public cDataCollection {
public:
    cMatrixDC();
    // 1 x n and rows x cols; contents undefined.
    explicit cMatrixDC(long n);
    cMatrixDC(long rows, long cols);
    // Filled row by row. Without data there are no rows, and room for `rows` of them.
    cMatrixDC(long rows, long cols, const double* data);
    // With a copy of the source's engine.
    cMatrixDC(const cMatrixDC& other);
    // The items as rows.
    cMatrixDC(const cDataCollection& items);
    // A row vector.
    cMatrixDC(const std::vector<double>& values);
    ~cMatrixDC() override = default;

    int resize(long rows, long cols) override;

    cMatrixDC& operator=(const cMatrixDC& other);
    // Picks a new engine.
    cMatrixDC& operator=(const cDataCollection& items);

    // --- Engines

    // Gives the matrix a copy of the default engine, or a base engine when there is no default.
    void pickMathEngine();
    // Gives the matrix a copy of this engine.
    void setMathEngine(const cMathEngine* engine);
    // The engine of all matrices made from now on: a copy of the argument; null for the base engine. Set and
    // read without a lock.
    static void setDefaultMathEngine(const cMathEngine* engine);
    // A new copy that belongs to the caller; null when there is no default.
    static cMathEngine* getDefaultMathEngine();

    // --- Shape and contents

    long numberOfRows() const { return mNumItems; }
    long numberOfColumns() const { return mItemSize; }
    bool sameSize(const cMatrixDC& other) const {
        return mNumItems == other.mNumItems && mItemSize == other.mItemSize;
    }
    // Position of an element in storage order.
    long index(long r, long c) const {
        mathAssert(r >= 0, "r >= 0");
        mathAssert(r < mNumItems, "r < mNumItems");
        mathAssert(c >= 0, "c >= 0");
        mathAssert(c < mItemSize, "c < mItemSize");
        return r * mItemSize + c;
    }

    void makeIdentity(long n);
    void zeros(long r, long c);
    void ones(long r, long c);
    // Random elements from 0 to 0.5, or rows x cols of them from 0 to 1.
    void rand();
    void rand(long r, long c);
    static void setRandomNumberSeed(unsigned long seed);
    // n x 1, evenly spaced; a single value is `from`.
    void createRangeOfValues(double from, double to, long n);

    // All elements in storage order.
    std::vector<double> getVector() const;
    void setMemory(double* out) const;

    // --- Transposition and parts

    void Transpose();
    cMatrixDC trans() const;
    // A = B^T.
    void copyT(const cMatrixDC& B);
    // A copy of one row, with the description.
    cMatrixDC getSubMatrix(long row) const;
    // Rows r0 to r1 and columns c0 to c1, all included.
    cMatrixDC getSubMatrix(long r0, long r1, long c0, long c1) const;
    cMatrixDC getMatrixColumn(long c) const;
    void getMatrixColumn(long c, cMatrixDC& out) const;
    // A above B, A beside B.
    cMatrixDC combineRows(const cMatrixDC& mat2) const;
    cMatrixDC combineColumns(const cMatrixDC& mat2) const;
    // A tiled m times down and n times across.
    cMatrixDC expandMatrix(long m, long n) const;
    // Whether the first `rows` rows of B are in A with their first element at (r, c).
    bool compareMatrixPart(const cMatrixDC& B, long r, long c, long rows) const;

    // --- Arithmetic, element by element

    cMatrixDC add(const cMatrixDC& inmatrix1) const;
    cMatrixDC sub(const cMatrixDC& inmatrix1) const;
    void addMatrix(const cMatrixDC& inmatrix1);
    void subtract(const cMatrixDC& inmatrix1);
    void add(double value);
    void subtract(double value);
    cMatrixDC addValue(double value) const;
    // To, or from, every row.
    void addVector(const cMatrixDC& v);
    void subtractVector(const cMatrixDC& v);
    void negate();
    // Absolute difference.
    void absdiff(const cMatrixDC& inmatrix1);
    void absdiff(double value);
    void multiply(const cMatrixDC& inmatrix1);
    // By the elements of B from position row * (columns of A) on, in storage order.
    void multiply(const cMatrixDC& B, long row);
    cMatrixDC multiplyElement(const cMatrixDC& inmatrix1) const;
    void multiply(double value);
    cMatrixDC mult(double value) const;
    // Column c by v(c); row r by v(r).
    void multiplyByVector(const cMatrixDC& v);
    void multiplyByVectorTranspose(const cMatrixDC& v);
    void divide(const cMatrixDC& inmatrix1);
    void divide(double value);
    cMatrixDC div(const cMatrixDC& inmatrix1) const;
    // To the power of the element of E, of p, of v(column).
    void power(const cMatrixDC& inmatrix1);
    void power(double p);
    cMatrixDC pow(double p) const;
    void powerVector(const cMatrixDC& v);
    void squareRoot();
    void exponential();
    // The smaller, or larger, of each element and a value or the other matrix's element.
    void Min(double value);
    void Max(double value);
    void Min(const cMatrixDC& inmatrix1);
    void Max(const cMatrixDC& inmatrix1);
    // v1, with row i replaced by row i of v2 where A(i) compares true with t. A is a column.
    cMatrixDC chooseValue(eCompareType how, double t, const cMatrixDC& value1, const cMatrixDC& value2) const;

    // --- Products

    cMatrixDC mult(const cMatrixDC& B) const;
    cMatrixDC mult(const cMatrixDC& B, bool transA, bool transB) const;
    // A = X Y. multiplySmall does without the engine.
    void multiply(const cMatrixDC& X, const cMatrixDC& Y);
    void multiply(cMatrixDC& X, cMatrixDC& Y);
    void multiplySmall(const cMatrixDC& X, const cMatrixDC& Y);
    // A = X v, a column; v holds one value per column of X, `stride` apart.
    void multiplyRow(const cMatrixDC& X, const double* v, long stride);
    double dotProduct(const cMatrixDC& other) const;

    // --- Linear algebra

    // Inverses by LU decomposition. inverse() returns 0, or 1 when there is none; inv() is empty then. The
    // inv() of a matrix that is not const leaves its LU factors in A.
    int inverse();
    cMatrixDC inv();
    cMatrixDC inv() const;
    // Both return true; a matrix that is singular or not square has the determinant 0. The destructive one
    // leaves the LU factors in A.
    bool determinant(double& d) const;
    bool determinantDestructive(double& d);
    // X = A^-1 B; false, with X untouched, when A has no inverse.
    bool solveAxEqB_LU(cMatrixDC& B, cMatrixDC& X);
    // A = U W V^T: see cMathEngine. A must have elements.
    int singularValueDecomp(cMatrixDC& U, cMatrixDC& W, cMatrixDC& V, bool economy);
    // The Moore-Penrose inverse, n x m for an m x n matrix. Every singular value above 0 counts, however
    // small. Empty when the decomposition does not converge.
    cMatrixDC pinv();

    // Replaces a square A by its factors L (unit diagonal, not stored) and U with the rows in pivot order; d
    // is 1 or -1, for an even or odd number of exchanges. Crout's method with implicit partial pivoting.
    // Returns 0, or 70 when A is singular or not square.
    int _ludcmp(double& d);
    // Solves A x = b in place for one right-hand side, after _ludcmp has returned 0.
    void _lubksb(double* b) const;

    // --- Reductions

    // Sums of the rows (rows x 1) and columns (1 x cols).
    cMatrixDC sumRows() const;
    void sumRows(cMatrixDC& out) const;
    cMatrixDC sumColumns() const;
    void sumColumns(cMatrixDC& out) const;
    double sum() const;
    // These three need elements.
    double mean() const;
    double Max() const;
    double Min() const;
    // Extremes of each row (rows x 1) and column (1 x cols), and the position of the first one in `where`.
    cMatrixDC maxRows() const;
    cMatrixDC maxRows(cDataCollectionInt& where) const;
    cMatrixDC maxColumns() const;
    cMatrixDC maxColumns(cDataCollectionInt& where) const;
    cMatrixDC minRows() const;
    cMatrixDC minColumns() const;
    // Mean and median of each column (1 x cols); the median of an even number is the mean of the middle two.
    cMatrixDC meanOfItems() const;
    cMatrixDC median() const;
    double NormSquare() const;
    double normOfAll();
    // Of each row (rows x 1).
    cMatrixDC norm();
    // Squared distance of each row to v, rows x 1.
    void getSqrVectDistance(const cMatrixDC& v, cMatrixDC& out) const;

    // --- Sorting

    // The rows sorted by their elements, the first column being the first key, or the last one when
    // reverseKeys is true; rows that are equal keep their order. order(i) is the row that came to row i.
    cMatrixDC sort(bool reverseKeys, cDataCollectionInt& order, bool descending) const;
    // The rows in the given order.
    cMatrixDC sortByIndex(const cDataCollectionInt& order) const;
    // The elements of each row sorted; order(r, j) is the column that came to column j of row r.
    cMatrixDC sortRow(bool descending, cDataCollectionInt& order) const;
    // The elements of each row in the order that `order` gives in the same row, or in its only row.
    cMatrixDC sortRowByIndex(const cDataCollectionInt& order) const;

    // --- Polynomials

    // A column of coefficients c(0) to c(order), ascending, with which c(0) + c(1) x + ... comes closest to
    // the elements of A at the places x (least squares); with throughOrigin, among those with c(0) = 0.
    cMatrixDC getPolyFitParams(const cMatrixDC& x, int order, bool throughOrigin) const;
    // The polynomial's values at the elements of A.
    cMatrixDC applyPolyFitParams(const cMatrixDC& params) const;

private:
    friend class cMathEngine;

    // `site` is the operation's, which a failed assertion names.
    template <class Operation>
    void eachElement(Operation operation);
    template <class Operation>
    void eachElement(const cMatrixDC& other, Operation operation, const CallSite& site = CallSite::here());
    template <class Operation>
    void eachOfRows(const cMatrixDC& v, Operation operation, const CallSite& site = CallSite::here());
    template <class Better>
    cMatrixDC extremeOfRows(Better better, cDataCollectionInt* where,
                            const CallSite& site = CallSite::here()) const;
    template <class Better>
    cMatrixDC extremeOfColumns(Better better, cDataCollectionInt* where,
                               const CallSite& site = CallSite::here()) const;
    // The inverse, from the LU factors that A holds.
    cMatrixDC inverseOfFactors() const;

    static std::unique_ptr<cMathEngine> mDefaultMathEngine;

    // Of the last LU decomposition: where each row was exchanged to, and one over each row's largest element.
    std::vector<long> mPivotOrder;
    std::vector<double> mRowScale;
    std::unique_ptr<cMathEngine> mMathEngine;
};
