#include "MatrixDC.h"

#include "vectorKernels.h"

#include <algorithm>
#include <cmath>
#include <compare>
#include <cstdlib>
#include <functional>
#include <numeric>

constinit std::unique_ptr<cMathEngine> cMatrixDC::mDefaultMathEngine;

namespace {

constexpr int kSingular = 70;

constexpr auto kHasElements = "(mNumItems > 0) && (mItemSize > 0)";

// Numbers in their order, NaNs at the ends: an order that sorting can rely on whatever a matrix holds.
bool isBefore(double a, double b, bool descending) {
    const auto order = std::weak_order(a, b);
    return descending ? order > 0 : order < 0;
}

bool compares(eCompareType how, double value, double threshold) {
    switch (how) {
    case eCompareLess:
        return value < threshold;
    case eCompareLessOrEqual:
        return value <= threshold;
    case eCompareGreater:
        return value > threshold;
    case eCompareGreaterOrEqual:
        return value >= threshold;
    case eCompareNotEqual:
        return value != threshold;
    }
    return false;
}

void assertElements(const cMatrixDC& v, long count, const CallSite& site = CallSite::here()) {
    mathAssert(v.numberOfElements() >= count, "v.numberOfElements() >= count", site);
}

double smaller(double a, double b) {
    return b < a ? b : a;
}
double larger(double a, double b) {
    return b > a ? b : a;
}

double randomTo(double divisor) {
    return static_cast<double>(random()) / divisor;
}

} // namespace

// --- Construction

cMatrixDC::cMatrixDC() {
    pickMathEngine();
}

cMatrixDC::cMatrixDC(long n) : cDataCollection(n) {
    pickMathEngine();
}

cMatrixDC::cMatrixDC(long rows, long cols) : cDataCollection(rows, cols) {
    pickMathEngine();
}

cMatrixDC::cMatrixDC(long rows, long cols, const double* data) : cDataCollection(rows, cols, data) {
    pickMathEngine();
}

cMatrixDC::cMatrixDC(const cMatrixDC& other)
    : cDataCollection(other),
      mPivotOrder(other.mPivotOrder),
      mRowScale(other.mRowScale),
      mMathEngine(other.mMathEngine->copy()) {}

cMatrixDC::cMatrixDC(const cDataCollection& items) : cDataCollection(items) {
    pickMathEngine();
}

cMatrixDC::cMatrixDC(const std::vector<double>& values) : cDataCollection(static_cast<long>(values.size())) {
    std::copy(values.begin(), values.end(), data());
    pickMathEngine();
}

int cMatrixDC::resize(long rows, long cols) {
    mPivotOrder.clear();
    mRowScale.clear();
    return cDataCollection::resize(rows, cols);
}

cMatrixDC& cMatrixDC::operator=(const cMatrixDC& other) {
    if (this != &other) {
        cDataCollection::operator=(other);
        mPivotOrder = other.mPivotOrder;
        mRowScale = other.mRowScale;
        setMathEngine(other.mMathEngine.get());
    }
    return *this;
}

cMatrixDC& cMatrixDC::operator=(const cDataCollection& items) {
    cDataCollection::operator=(items);
    mPivotOrder.clear();
    mRowScale.clear();
    pickMathEngine();
    return *this;
}

// --- Engines

void cMatrixDC::pickMathEngine() {
    mMathEngine.reset(mDefaultMathEngine != nullptr ? mDefaultMathEngine->copy() : new cMathEngine);
}

void cMatrixDC::setMathEngine(const cMathEngine* engine) {
    mathAssert(engine != nullptr, "engine != nullptr");
    mMathEngine.reset(engine->copy());
}

void cMatrixDC::setDefaultMathEngine(const cMathEngine* engine) {
    mDefaultMathEngine.reset(engine != nullptr ? engine->copy() : nullptr);
}

cMathEngine* cMatrixDC::getDefaultMathEngine() {
    return mDefaultMathEngine != nullptr ? mDefaultMathEngine->copy() : nullptr;
}

// --- Shape and contents

void cMatrixDC::makeIdentity(long n) {
    zeros(n, n);
    for (long i = 0; i < n; ++i)
        itemAt(i)[i] = 1;
}

void cMatrixDC::zeros(long r, long c) {
    resize(r, c);
    std::fill_n(data(), numberOfElements(), 0.0);
}

void cMatrixDC::ones(long r, long c) {
    resize(r, c);
    std::fill_n(data(), numberOfElements(), 1.0);
}

void cMatrixDC::rand() {
    eachElement([](double) { return randomTo(4294967295.0); });
}

void cMatrixDC::rand(long r, long c) {
    resize(r, c);
    eachElement([](double) { return randomTo(2147483647.0); });
}

void cMatrixDC::setRandomNumberSeed(unsigned long seed) {
    srandom(static_cast<unsigned>(seed));
}

void cMatrixDC::createRangeOfValues(double from, double to, long n) {
    resize(n, 1);
    for (long i = 0; i < n; ++i)
        data()[i] = i == 0 ? from : from + (to - from) * static_cast<double>(i) / static_cast<double>(n - 1);
}

std::vector<double> cMatrixDC::getVector() const {
    return std::vector<double>(data(), data() + numberOfElements());
}

void cMatrixDC::setMemory(double* out) const {
    std::copy_n(data(), numberOfElements(), out);
}

// --- Transposition and parts

void cMatrixDC::Transpose() {
    if (mNumItems > 1 && mItemSize > 1) {
        CopyItems(trans());
        return;
    }
    // A row and a column lie in memory alike.
    const std::vector<double> values = getVector();
    resize(mItemSize, mNumItems);
    std::copy(values.begin(), values.end(), data());
}

cMatrixDC cMatrixDC::trans() const {
    cMatrixDC result;
    result.copyT(*this);
    return result;
}

void cMatrixDC::copyT(const cMatrixDC& B) {
    if (this == &B) {
        Transpose();
        return;
    }
    resize(B.mItemSize, B.mNumItems);
    // In squares small enough for the rows of both to stay in the cache.
    constexpr long kSquare = 16;
    for (long r0 = 0; r0 < mNumItems; r0 += kSquare) {
        const long rowEnd = std::min(r0 + kSquare, mNumItems);
        for (long c0 = 0; c0 < mItemSize; c0 += kSquare) {
            const long columnEnd = std::min(c0 + kSquare, mItemSize);
            for (long r = r0; r < rowEnd; ++r) {
                for (long c = c0; c < columnEnd; ++c)
                    itemAt(r)[c] = B.itemAt(c)[r];
            }
        }
    }
}

cMatrixDC cMatrixDC::getSubMatrix(long row) const {
    cMatrixDC result(1, mItemSize);
    std::copy_n(GetItem(row), mItemSize, result.data());
    result.setDescription(description());
    return result;
}

cMatrixDC cMatrixDC::getSubMatrix(long r0, long r1, long c0, long c1) const {
    mathAssert(r0 <= r1 && c0 <= c1, "(r0 <= r1) && (c0 <= c1)");
    index(r1, c1);
    const double* first = data() + index(r0, c0);
    cMatrixDC result(r1 - r0 + 1, c1 - c0 + 1);
    for (long r = 0; r < result.mNumItems; ++r)
        std::copy_n(first + r * mItemSize, result.mItemSize, result.itemAt(r));
    return result;
}

cMatrixDC cMatrixDC::getMatrixColumn(long c) const {
    mathAssert(c >= 0, "c >= 0");
    mathAssert(c < mItemSize, "c < mItemSize");
    cMatrixDC column(mNumItems, 1);
    for (long r = 0; r < mNumItems; ++r)
        column.data()[r] = itemAt(r)[c];
    return column;
}

void cMatrixDC::getMatrixColumn(long c, cMatrixDC& out) const {
    out.CopyItems(getMatrixColumn(c));
}

cMatrixDC cMatrixDC::combineRows(const cMatrixDC& mat2) const {
    mathAssert(numberOfColumns() == mat2.numberOfColumns(), "numberOfColumns() == mat2.numberOfColumns()");
    return combineCollections(mat2);
}

cMatrixDC cMatrixDC::combineColumns(const cMatrixDC& mat2) const {
    mathAssert(numberOfRows() == mat2.numberOfRows(), "numberOfRows() == mat2.numberOfRows()");
    return itemMerge(mat2);
}

cMatrixDC cMatrixDC::expandMatrix(long m, long n) const {
    mathAssert(m >= 0 && n >= 0, "(m >= 0) && (n >= 0)");
    cMatrixDC tiled(m * mNumItems, n * mItemSize);
    for (long r = 0; r < tiled.mNumItems; ++r) {
        double* out = tiled.itemAt(r);
        for (long across = 0; across < n; ++across)
            out = std::copy_n(itemAt(r % mNumItems), mItemSize, out);
    }
    return tiled;
}

bool cMatrixDC::compareMatrixPart(const cMatrixDC& B, long r, long c, long rows) const {
    mathAssert(rows >= 0 && rows <= B.mNumItems, "(rows >= 0) && (rows <= B.numberOfRows())");
    if (r < 0 || c < 0 || r > mNumItems - rows || c > mItemSize - B.mItemSize)
        return false;
    for (long i = 0; i < rows; ++i) {
        if (!std::equal(B.itemAt(i), B.itemAt(i + 1), itemAt(r + i) + c))
            return false;
    }
    return true;
}

// --- Arithmetic, element by element

template <class Operation>
void cMatrixDC::eachElement(Operation operation) {
    std::transform(data(), data() + numberOfElements(), data(), operation);
}

template <class Operation>
void cMatrixDC::eachElement(const cMatrixDC& inmatrix1, Operation operation, const CallSite& site) {
    mathAssert(sameSize(inmatrix1), "sameSize(inmatrix1)", site);
    std::transform(data(), data() + numberOfElements(), inmatrix1.data(), data(), operation);
}

cMatrixDC cMatrixDC::add(const cMatrixDC& inmatrix1) const {
    cMatrixDC result(*this);
    result.addMatrix(inmatrix1);
    return result;
}

cMatrixDC cMatrixDC::sub(const cMatrixDC& inmatrix1) const {
    cMatrixDC result(*this);
    result.subtract(inmatrix1);
    return result;
}

void cMatrixDC::addMatrix(const cMatrixDC& inmatrix1) {
    eachElement(inmatrix1, std::plus<>());
}

void cMatrixDC::subtract(const cMatrixDC& inmatrix1) {
    eachElement(inmatrix1, std::minus<>());
}

void cMatrixDC::add(double value) {
    eachElement([=](double x) { return x + value; });
}

void cMatrixDC::subtract(double value) {
    eachElement([=](double x) { return x - value; });
}

cMatrixDC cMatrixDC::addValue(double value) const {
    cMatrixDC result(*this);
    result.add(value);
    return result;
}

template <class Operation>
void cMatrixDC::eachOfRows(const cMatrixDC& v, Operation operation, const CallSite& site) {
    assertElements(v, mItemSize, site);
    const std::vector<double> values(v.data(), v.data() + mItemSize); // v may be this matrix
    for (long r = 0; r < mNumItems; ++r)
        std::transform(itemAt(r), itemAt(r + 1), values.begin(), itemAt(r), operation);
}

void cMatrixDC::addVector(const cMatrixDC& v) {
    eachOfRows(v, std::plus<>());
}

void cMatrixDC::subtractVector(const cMatrixDC& v) {
    eachOfRows(v, std::minus<>());
}

void cMatrixDC::negate() {
    eachElement(std::negate<>());
}

void cMatrixDC::absdiff(const cMatrixDC& inmatrix1) {
    eachElement(inmatrix1, [](double x, double y) { return std::fabs(x - y); });
}

void cMatrixDC::absdiff(double value) {
    eachElement([=](double x) { return std::fabs(x - value); });
}

void cMatrixDC::multiply(const cMatrixDC& inmatrix1) {
    eachElement(inmatrix1, std::multiplies<>());
}

void cMatrixDC::multiply(const cMatrixDC& B, long row) {
    mathAssert(row >= 0, "row >= 0");
    const long first = row * mItemSize;
    assertElements(B, first + numberOfElements());
    std::transform(data(), data() + numberOfElements(), B.data() + first, data(), std::multiplies<>());
}

cMatrixDC cMatrixDC::multiplyElement(const cMatrixDC& inmatrix1) const {
    cMatrixDC result(*this);
    result.multiply(inmatrix1);
    return result;
}

void cMatrixDC::multiply(double value) {
    eachElement([=](double x) { return x * value; });
}

cMatrixDC cMatrixDC::mult(double value) const {
    cMatrixDC result(*this);
    result.multiply(value);
    return result;
}

void cMatrixDC::multiplyByVector(const cMatrixDC& v) {
    eachOfRows(v, std::multiplies<>());
}

void cMatrixDC::multiplyByVectorTranspose(const cMatrixDC& v) {
    assertElements(v, mNumItems);
    const std::vector<double> factors(v.data(), v.data() + mNumItems); // v may be this matrix
    for (long r = 0; r < mNumItems; ++r) {
        const double factor = factors[static_cast<std::size_t>(r)];
        std::transform(itemAt(r), itemAt(r + 1), itemAt(r), [=](double x) { return x * factor; });
    }
}

void cMatrixDC::divide(const cMatrixDC& inmatrix1) {
    eachElement(inmatrix1, std::divides<>());
}

void cMatrixDC::divide(double value) {
    eachElement([=](double x) { return x / value; });
}

cMatrixDC cMatrixDC::div(const cMatrixDC& inmatrix1) const {
    cMatrixDC result(*this);
    result.divide(inmatrix1);
    return result;
}

void cMatrixDC::power(const cMatrixDC& inmatrix1) {
    mathAssert(sameSize(inmatrix1), "sameSize(inmatrix1)");
    mMathEngine->power(*this, inmatrix1, *this);
}

void cMatrixDC::power(double p) {
    mMathEngine->power(*this, p, *this);
}

cMatrixDC cMatrixDC::pow(double p) const {
    cMatrixDC result(*this);
    result.power(p);
    return result;
}

void cMatrixDC::powerVector(const cMatrixDC& v) {
    eachOfRows(v, [](double x, double exponent) { return std::pow(x, exponent); });
}

void cMatrixDC::squareRoot() {
    mMathEngine->squareRoot(*this, *this);
}

void cMatrixDC::exponential() {
    mMathEngine->exponential(*this, *this);
}

void cMatrixDC::Min(double value) {
    eachElement([=](double x) { return smaller(x, value); });
}

void cMatrixDC::Max(double value) {
    eachElement([=](double x) { return larger(x, value); });
}

void cMatrixDC::Min(const cMatrixDC& inmatrix1) {
    eachElement(inmatrix1, smaller);
}

void cMatrixDC::Max(const cMatrixDC& inmatrix1) {
    eachElement(inmatrix1, larger);
}

cMatrixDC cMatrixDC::chooseValue(eCompareType how, double t, const cMatrixDC& value1,
                                 const cMatrixDC& value2) const {
    mathAssert(GetItemSize() == 1, "GetItemSize() == 1");
    mathAssert(value1.sameSize(value2), "value1.sameSize(value2)");
    mathAssert(mNumItems == value1.mNumItems, "GetNumItems() == value1.GetNumItems()");
    cMatrixDC result(value1);
    for (long i = 0; i < mNumItems; ++i) {
        if (compares(how, data()[i], t))
            result.SetItemToItem(i, i, value2);
    }
    return result;
}

// --- Products

cMatrixDC cMatrixDC::mult(const cMatrixDC& B) const {
    cMatrixDC product;
    mMathEngine->multiply(*this, B, product);
    return product;
}

cMatrixDC cMatrixDC::mult(const cMatrixDC& B, bool transA, bool transB) const {
    cMatrixDC product;
    mMathEngine->multiply(*this, B, product, transA, transB);
    return product;
}

void cMatrixDC::multiply(const cMatrixDC& X, const cMatrixDC& Y) {
    mMathEngine->multiply(X, Y, *this);
}

void cMatrixDC::multiply(cMatrixDC& X, cMatrixDC& Y) {
    mMathEngine->multiply(X, Y, *this);
}

void cMatrixDC::multiplySmall(const cMatrixDC& X, const cMatrixDC& Y) {
    mathAssert(X.numberOfColumns() == Y.numberOfRows(), "X.numberOfColumns() == Y.numberOfRows()");
    if (this == &X || this == &Y) {
        cMatrixDC product;
        product.multiplySmall(X, Y);
        CopyItems(product);
        return;
    }
    zeros(X.mNumItems, Y.mItemSize);
    for (long r = 0; r < mNumItems; ++r) {
        for (long t = 0; t < Y.mNumItems; ++t) {
            const double factor = X.itemAt(r)[t];
            for (long c = 0; c < mItemSize; ++c)
                itemAt(r)[c] += factor * Y.itemAt(t)[c];
        }
    }
}

void cMatrixDC::multiplyRow(const cMatrixDC& X, const double* v, long stride) {
    std::vector<double> products;
    products.reserve(static_cast<std::size_t>(X.mNumItems));
    for (long r = 0; r < X.mNumItems; ++r) {
        double sum = 0;
        for (long t = 0; t < X.mItemSize; ++t)
            sum += X.itemAt(r)[t] * v[t * stride];
        products.push_back(sum);
    }
    resize(static_cast<long>(products.size()), 1);
    std::copy(products.begin(), products.end(), data());
}

double cMatrixDC::dotProduct(const cMatrixDC& other) const {
    assertElements(other, numberOfElements());
    return std::inner_product(data(), data() + numberOfElements(), other.data(), 0.0);
}

// --- Linear algebra

int cMatrixDC::_ludcmp(double& d) {
    d = 1;
    const long n = mNumItems;
    if (n != mItemSize)
        return kSingular;
    mPivotOrder.assign(static_cast<std::size_t>(n), 0);
    mRowScale.assign(static_cast<std::size_t>(n), 0);
    double* scale = mRowScale.data();
    for (long r = 0; r < n; ++r) {
        double largest = 0;
        for (long c = 0; c < n; ++c)
            largest = std::max(largest, std::fabs(itemAt(r)[c]));
        if (largest == 0)
            return kSingular;
        scale[r] = 1 / largest;
    }
    for (long k = 0; k < n; ++k) {
        // The elements from (k, k) on have received everything that the columns before subtract from them:
        // column by column in ascending order, as in the sums of Crout's method, but along the rows.
        long pivot = k;
        double best = -1;
        for (long r = k; r < n; ++r) {
            const double size = scale[r] * std::fabs(itemAt(r)[k]);
            if (size > best) {
                best = size;
                pivot = r;
            }
        }
        if (pivot != k) {
            std::swap_ranges(itemAt(k), itemAt(k + 1), itemAt(pivot));
            std::swap(scale[k], scale[pivot]);
            d = -d;
        }
        mPivotOrder[static_cast<std::size_t>(k)] = pivot;
        const double* row = itemAt(k);
        if (row[k] == 0)
            return kSingular;
        for (long r = k + 1; r < n; ++r) {
            double* below = itemAt(r);
            below[k] /= row[k];
            mathKernels::addScaled(below + k + 1, -below[k], row + k + 1, n - k - 1);
        }
    }
    return 0;
}

void cMatrixDC::_lubksb(double* b) const {
    const long n = mNumItems;
    mathAssert(n == mItemSize && static_cast<long>(mPivotOrder.size()) == n,
               "mPivotOrder.size() == mNumItems");
    for (long r = 0; r < n; ++r)
        std::swap(b[r], b[mPivotOrder[static_cast<std::size_t>(r)]]);
    for (long r = 1; r < n; ++r) {
        for (long c = 0; c < r; ++c)
            b[r] -= itemAt(r)[c] * b[c];
    }
    for (long r = n - 1; r >= 0; --r) {
        for (long c = r + 1; c < n; ++c)
            b[r] -= itemAt(r)[c] * b[c];
        b[r] /= itemAt(r)[r];
    }
}

// Solves for all columns of the identity at a time, which is _lubksb on rows of right-hand sides.
cMatrixDC cMatrixDC::inverseOfFactors() const {
    const long n = mNumItems;
    cMatrixDC result;
    result.makeIdentity(n);
    for (long r = 0; r < n; ++r) {
        const long exchanged = mPivotOrder[static_cast<std::size_t>(r)];
        if (exchanged != r)
            std::swap_ranges(result.itemAt(r), result.itemAt(r + 1), result.itemAt(exchanged));
    }
    std::vector<double> factors(static_cast<std::size_t>(n));
    for (long r = 1; r < n; ++r) {
        std::transform(itemAt(r), itemAt(r) + r, factors.begin(), std::negate<>());
        mathKernels::addCombination(result.itemAt(r), n, factors.data(), result.data(), n, r);
    }
    for (long r = n - 1; r >= 0; --r) {
        const long rest = n - r - 1;
        std::transform(itemAt(r) + r + 1, itemAt(r + 1), factors.begin(), std::negate<>());
        mathKernels::addCombination(result.itemAt(r), n, factors.data(), result.itemAt(r + 1), n, rest);
        const double diagonal = itemAt(r)[r];
        std::for_each(result.itemAt(r), result.itemAt(r + 1), [=](double& x) { x /= diagonal; });
    }
    return result;
}

int cMatrixDC::inverse() {
    return mMathEngine->inverse(*this);
}

cMatrixDC cMatrixDC::inv() {
    double d = 0;
    if (_ludcmp(d) != 0)
        return cMatrixDC();
    return inverseOfFactors();
}

cMatrixDC cMatrixDC::inv() const {
    cMatrixDC copy(*this);
    return copy.inv();
}

bool cMatrixDC::determinant(double& d) const {
    cMatrixDC copy(*this);
    return copy.determinantDestructive(d);
}

bool cMatrixDC::determinantDestructive(double& d) {
    if (_ludcmp(d) != 0) {
        d = 0;
        return true;
    }
    for (long i = 0; i < mNumItems; ++i)
        d *= itemAt(i)[i];
    return true;
}

bool cMatrixDC::solveAxEqB_LU(cMatrixDC& B, cMatrixDC& X) {
    return mMathEngine->solveAxEqB_LU(*this, B, X);
}

int cMatrixDC::singularValueDecomp(cMatrixDC& U, cMatrixDC& W, cMatrixDC& V, bool economy) {
    mathAssert((mNumItems > 0) && (mItemSize > 0), kHasElements);
    return mMathEngine->singularValueDecomp(*this, U, W, V, economy);
}

cMatrixDC cMatrixDC::pinv() {
    cMatrixDC U;
    cMatrixDC W;
    cMatrixDC V;
    singularValueDecomp(U, W, V, true);
    if (W.numberOfElements() == 0)
        return cMatrixDC();
    for (long i = 0; i < W.mNumItems; ++i) {
        double& value = W(i, i);
        if (value > 0)
            value = 1 / value;
    }
    return V.mult(W).mult(U.trans());
}

// --- Reductions

cMatrixDC cMatrixDC::sumRows() const {
    cMatrixDC sums(mNumItems, 1);
    for (long r = 0; r < mNumItems; ++r)
        sums.data()[r] = std::accumulate(itemAt(r), itemAt(r + 1), 0.0);
    return sums;
}

void cMatrixDC::sumRows(cMatrixDC& out) const {
    out.CopyItems(sumRows());
}

cMatrixDC cMatrixDC::sumColumns() const {
    cMatrixDC sums;
    sums.zeros(1, mItemSize);
    for (long r = 0; r < mNumItems; ++r)
        std::transform(itemAt(r), itemAt(r + 1), sums.data(), sums.data(), std::plus<>());
    return sums;
}

void cMatrixDC::sumColumns(cMatrixDC& out) const {
    out.CopyItems(sumColumns());
}

double cMatrixDC::sum() const {
    return std::accumulate(data(), data() + numberOfElements(), 0.0);
}

double cMatrixDC::mean() const {
    mathAssert((mNumItems > 0) && (mItemSize > 0), kHasElements);
    return sum() / static_cast<double>(numberOfElements());
}

double cMatrixDC::Max() const {
    mathAssert((mNumItems > 0) && (mItemSize > 0), kHasElements);
    return *std::max_element(data(), data() + numberOfElements());
}

double cMatrixDC::Min() const {
    mathAssert((mNumItems > 0) && (mItemSize > 0), kHasElements);
    return *std::min_element(data(), data() + numberOfElements());
}

template <class Better>
cMatrixDC cMatrixDC::extremeOfRows(Better better, cDataCollectionInt* where, const CallSite& site) const {
    mathAssert(mNumItems == 0 || mItemSize > 0, "(mNumItems == 0) || (mItemSize > 0)", site);
    cMatrixDC extremes(mNumItems, 1);
    if (where != nullptr)
        where->resize(mNumItems, 1);
    for (long r = 0; r < mNumItems; ++r) {
        long found = 0;
        for (long c = 1; c < mItemSize; ++c) {
            if (better(itemAt(r)[c], itemAt(r)[found]))
                found = c;
        }
        extremes.data()[r] = itemAt(r)[found];
        if (where != nullptr)
            where->data()[r] = found;
    }
    return extremes;
}

template <class Better>
cMatrixDC cMatrixDC::extremeOfColumns(Better better, cDataCollectionInt* where, const CallSite& site) const {
    mathAssert(mNumItems > 0 || mItemSize == 0, "(mNumItems > 0) || (mItemSize == 0)", site);
    cMatrixDC extremes(1, mItemSize);
    std::copy_n(data(), mItemSize, extremes.data());
    std::vector<long> positions(static_cast<std::size_t>(mItemSize));
    for (long r = 1; r < mNumItems; ++r) {
        for (long c = 0; c < mItemSize; ++c) {
            if (better(itemAt(r)[c], extremes.data()[c])) {
                extremes.data()[c] = itemAt(r)[c];
                positions[static_cast<std::size_t>(c)] = r;
            }
        }
    }
    if (where != nullptr)
        where->setToData(1, mItemSize, positions.data());
    return extremes;
}

cMatrixDC cMatrixDC::maxRows() const {
    return extremeOfRows(std::greater<>(), nullptr);
}

cMatrixDC cMatrixDC::maxRows(cDataCollectionInt& where) const {
    return extremeOfRows(std::greater<>(), &where);
}

cMatrixDC cMatrixDC::maxColumns() const {
    return extremeOfColumns(std::greater<>(), nullptr);
}

cMatrixDC cMatrixDC::maxColumns(cDataCollectionInt& where) const {
    return extremeOfColumns(std::greater<>(), &where);
}

cMatrixDC cMatrixDC::minRows() const {
    return extremeOfRows(std::less<>(), nullptr);
}

cMatrixDC cMatrixDC::minColumns() const {
    return extremeOfColumns(std::less<>(), nullptr);
}

cMatrixDC cMatrixDC::meanOfItems() const {
    mathAssert((mNumItems > 0) && (mItemSize > 0), kHasElements);
    cMatrixDC means = sumColumns();
    means.divide(static_cast<double>(mNumItems));
    return means;
}

cMatrixDC cMatrixDC::median() const {
    mathAssert((mNumItems > 0) && (mItemSize > 0), kHasElements);
    cMatrixDC medians(1, mItemSize);
    for (long c = 0; c < mItemSize; ++c) {
        std::vector<double> values = getMatrixColumn(c).getVector();
        const auto before = [](double a, double b) { return isBefore(a, b, false); };
        const auto middle = values.begin() + mNumItems / 2;
        std::nth_element(values.begin(), middle, values.end(), before);
        medians.data()[c] = *middle;
        if (mNumItems % 2 == 0)
            medians.data()[c] = (*std::max_element(values.begin(), middle, before) + *middle) / 2;
    }
    return medians;
}

double cMatrixDC::NormSquare() const {
    return dotProduct(*this);
}

double cMatrixDC::normOfAll() {
    return mMathEngine->norm(*this);
}

cMatrixDC cMatrixDC::norm() {
    cMatrixDC norms(mNumItems, 1);
    mMathEngine->norm(*this, norms);
    return norms;
}

void cMatrixDC::getSqrVectDistance(const cMatrixDC& v, cMatrixDC& out) const {
    assertElements(v, mItemSize);
    cMatrixDC distances(mNumItems, 1);
    for (long r = 0; r < mNumItems; ++r)
        distances.data()[r] = squaredDistance(r, v.data());
    out.CopyItems(distances);
}

// --- Sorting

cMatrixDC cMatrixDC::sort(bool reverseKeys, cDataCollectionInt& order, bool descending) const {
    const auto rowBefore = [&](long a, long b) {
        for (long key = 0; key < mItemSize; ++key) {
            const long c = reverseKeys ? mItemSize - 1 - key : key;
            const double x = itemAt(a)[c];
            const double y = itemAt(b)[c];
            if (isBefore(x, y, descending))
                return true;
            if (isBefore(y, x, descending))
                return false;
        }
        return false;
    };
    order.resize(mNumItems, 1);
    std::iota(order.data(), order.data() + mNumItems, 0L);
    std::stable_sort(order.data(), order.data() + mNumItems, rowBefore);
    return sortByIndex(order);
}

cMatrixDC cMatrixDC::sortByIndex(const cDataCollectionInt& order) const {
    cMatrixDC sorted(order.numberOfElements(), mItemSize);
    for (long r = 0; r < sorted.mNumItems; ++r)
        sorted.SetItemToItem(r, order.data()[r], *this);
    return sorted;
}

cMatrixDC cMatrixDC::sortRow(bool descending, cDataCollectionInt& order) const {
    order.resize(mNumItems, mItemSize);
    for (long r = 0; r < mNumItems; ++r) {
        const double* row = itemAt(r);
        long* columns = order.GetItem(r);
        std::iota(columns, columns + mItemSize, 0L);
        std::stable_sort(columns, columns + mItemSize,
                         [=](long a, long b) { return isBefore(row[a], row[b], descending); });
    }
    return sortRowByIndex(order);
}

cMatrixDC cMatrixDC::sortRowByIndex(const cDataCollectionInt& order) const {
    const bool shared = order.GetNumItems() == 1;
    mathAssert(shared || order.GetNumItems() == mNumItems, "order.GetNumItems() == mNumItems");
    cMatrixDC sorted(mNumItems, order.GetItemSize());
    for (long r = 0; r < mNumItems; ++r) {
        for (long c = 0; c < sorted.mItemSize; ++c)
            sorted(r, c) = GetItem(r, order.GetItem(shared ? 0 : r, c));
    }
    return sorted;
}

// --- Polynomials

cMatrixDC cMatrixDC::getPolyFitParams(const cMatrixDC& x, int order, bool throughOrigin) const {
    const long points = numberOfElements();
    const long lowest = throughOrigin ? 1 : 0;
    mathAssert(x.numberOfElements() == points, "x.numberOfElements() == numberOfElements()");
    mathAssert(order >= lowest, "order >= lowest");
    cMatrixDC powers(points, order + 1 - lowest);
    for (long i = 0; i < points; ++i) {
        double power = throughOrigin ? x.data()[i] : 1;
        for (long c = 0; c < powers.mItemSize; ++c, power *= x.data()[i])
            powers(i, c) = power;
    }
    const cMatrixDC fitted = powers.pinv().mult(cMatrixDC(points, 1, data()));
    cMatrixDC params;
    params.zeros(order + 1, 1);
    std::copy_n(fitted.data(), fitted.numberOfElements(), params.data() + lowest);
    return params;
}

cMatrixDC cMatrixDC::applyPolyFitParams(const cMatrixDC& params) const {
    cMatrixDC values(*this);
    values.eachElement([&](double x) {
        double value = 0;
        for (long c = params.numberOfElements() - 1; c >= 0; --c)
            value = value * x + params.data()[c];
        return value;
    });
    return values;
}
