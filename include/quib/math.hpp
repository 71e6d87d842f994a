// Numeric support shared by the fits, curves and statistics: the compensated accumulator, the
// library's exponential, and centroid and scatter of point sets.
#pragma once

#include <quib/export.hpp>

#include <Eigen/Core>

#include <vector>

namespace quib {
namespace math {

/// A running sum with a compensation term (Kahan summation): the low-order bits that a plain
/// `s += t` would drop are carried into the next addition, so long sums of large, similar
/// terms (moments of far-away coordinates) keep their precision.
/// A plain value; nothing is allocated. It needs IEEE arithmetic: code that is compiled with
/// -ffast-math (or -fassociative-math) lets the compiler cancel the compensation away.
/// One accumulator belongs to one thread at a time.
///
///     quib::math::KahanSum<double> sum;
///     for (double t : terms) sum.add(t);
///     double total = sum.value();
template <class T>
class KahanSum {
 public:
  KahanSum() : sum_(0), correction_(0) {}

  void add(T term) {
    const T y = term + correction_;
    const T next = sum_ + y;
    correction_ = y - (next - sum_);
    sum_ = next;
  }
  KahanSum& operator+=(T term) {
    add(term);
    return *this;
  }
  T value() const { return sum_; }
  void clear() { sum_ = correction_ = T(0); }

 private:
  T sum_;
  T correction_;
};

/// The library's exponential function, e^x.
QUIB_API double exponent(double x);

}  // namespace math

namespace eigen {

/// The mean of the points that have finite coordinates; NaN in every component when there
/// are none.
QUIB_API Eigen::Matrix<double, 2, 1> get_centroid(
    const std::vector<Eigen::Matrix<double, 2, 1>>& points);
QUIB_API Eigen::Matrix<double, 3, 1> get_centroid(
    const std::vector<Eigen::Matrix<double, 3, 1>>& points);

/// The scatter matrix about `centroid`: the compensated sum of (p - c)(p - c)^T over the points
/// with finite coordinates, not divided by their count. Zero when there are none.
QUIB_API Eigen::Matrix<double, 2, 2> get_covariance_matrix(
    const Eigen::Matrix<double, 2, 1>& centroid,
    const std::vector<Eigen::Matrix<double, 2, 1>>& points);
QUIB_API Eigen::Matrix<double, 3, 3> get_covariance_matrix(
    const Eigen::Matrix<double, 3, 1>& centroid,
    const std::vector<Eigen::Matrix<double, 3, 1>>& points);

}  // namespace eigen
}  // namespace quib
