#include "eigenPeer.h"

#include <Eigen/Dense>

namespace eigenPeer {
namespace {

using Matrix = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
using Matrix3 = Eigen::Matrix<double, 3, 3, Eigen::RowMajor>;
using ConstMap = Eigen::Map<const Matrix>;
using Map = Eigen::Map<Matrix>;

} // namespace

void multiply(const double* a, const double* b, double* c, long n) {
    Map(c, n, n).noalias() = ConstMap(a, n, n) * ConstMap(b, n, n);
}

void inverse(const double* a, double* out, long n) {
    Map(out, n, n) = ConstMap(a, n, n).partialPivLu().inverse();
}

void jacobiSvd(const double* a, double* values, long n) {
    const Eigen::JacobiSVD<Matrix> svd(ConstMap(a, n, n), Eigen::ComputeThinU | Eigen::ComputeThinV);
    Eigen::Map<Eigen::VectorXd>(values, n) = svd.singularValues();
}

void jacobiSvdFixed3(const double* a, double* values) {
    const Matrix3 matrix = Eigen::Map<const Matrix3>(a);
    const Eigen::JacobiSVD<Matrix3> svd(matrix, Eigen::ComputeFullU | Eigen::ComputeFullV);
    Eigen::Map<Eigen::Vector3d>(values, 3) = svd.singularValues();
}

} // namespace eigenPeer
