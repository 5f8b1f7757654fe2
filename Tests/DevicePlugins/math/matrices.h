#pragma once

#include "MatrixDC.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <limits>
#include <random>
#include <vector>

// Matrices that the tests share.

constexpr double kEpsilon = std::numeric_limits<double>::epsilon();

inline cMatrixDC matrix(std::initializer_list<std::initializer_list<double>> rows) {
    std::vector<double> values;
    for (const auto& row : rows)
        values.insert(values.end(), row);
    return cMatrixDC(static_cast<long>(rows.size()), static_cast<long>(rows.begin()->size()), values.data());
}

inline cMatrixDC randomMatrix(long rows, long columns, unsigned seed) {
    std::mt19937_64 generator(seed);
    std::uniform_real_distribution<double> value(-1, 1);
    cMatrixDC result(rows, columns);
    for (long i = 0; i < result.numberOfElements(); ++i)
        result.data()[i] = value(generator);
    return result;
}

inline double largestDifference(const cMatrixDC& a, const cMatrixDC& b) {
    if (!a.sameSize(b))
        return std::numeric_limits<double>::infinity();
    double largest = 0;
    for (long i = 0; i < a.numberOfElements(); ++i) {
        const double difference = std::fabs(a.data()[i] - b.data()[i]);
        if (!(difference <= largest))
            largest = difference;
    }
    return largest;
}

inline double largestElement(const cMatrixDC& a) {
    double largest = 0;
    for (double value : a.getVector())
        largest = std::max(largest, std::fabs(value));
    return largest;
}
