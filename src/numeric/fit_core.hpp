// The one shape shared by every least-squares fit and curve: skip points with a non-finite
// coordinate, weight, accumulate moments with compensation, solve the normal equations.
// Each model states only its terms and how they form its system.
#pragma once

#include <quib/math.hpp>
#include <quib/robust.hpp>

#include <Eigen/Core>

#include <array>
#include <cmath>
#include <cstddef>
#include <limits>
#include <vector>

namespace quib {
namespace detail {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

using Sum = math::KahanSum<double>;
template <std::size_t K>
using FixedSums = std::array<Sum, K>;

template <class Point>
bool finite_point(const Point& p) {
  for (Eigen::Index i = 0; i < p.size(); ++i)
    if (!std::isfinite(p[i])) return false;
  return true;
}

/// Adds the terms of every usable point into `sums`, each into its own compensated sum.
/// `terms(p, t)` writes the raw terms of point p into t (as many as `sums` holds); a weighted
/// fit multiplies them by the point's weight. Points with a non-finite coordinate are skipped,
/// and so are points whose weight is 0 or missing (beyond the end of `weights`), which would
/// add nothing but could turn an overflowing term into NaN.
template <class Sums, class Buffer, class Point, class Terms>
void sum_moments(Sums& sums, Buffer& t, const std::vector<Point>& points,
                 const std::vector<double>* weights, Terms terms) {
  const std::size_t count = points.size();
  const std::size_t k = sums.size();
  for (std::size_t i = 0; i < count; ++i) {
    const Point& p = points[i];
    if (!finite_point(p)) continue;
    terms(p, t.data());
    if (weights) {
      const double w = i < weights->size() ? (*weights)[i] : 0.0;
      if (w == 0.0) continue;
      for (std::size_t j = 0; j < k; ++j)
        t[j] *= w;
    }
    for (std::size_t j = 0; j < k; ++j)
      sums[j].add(t[j]);
  }
}

template <std::size_t K, class Point, class Terms>
std::array<double, K> sum_moments(const std::vector<Point>& points,
                                  const std::vector<double>* weights, Terms terms) {
  FixedSums<K> sums;
  std::array<double, K> t{};
  sum_moments(sums, t, points, weights, terms);
  std::array<double, K> out;
  for (std::size_t j = 0; j < K; ++j)
    out[j] = sums[j].value();
  return out;
}

/// Solves the normal equations m·x = r with full-pivoting LU. A matrix that the decomposition
/// finds singular has no solution: x is filled with NaN and the call returns false.
bool solve_normal(const Eigen::MatrixXd& m, const Eigen::VectorXd& r, Eigen::VectorXd& x);

/// Fits y·scale = Σ c[i]·x^(n-i) (highest power first) to 2-D points. Returns false, with
/// `coef` left empty, for a negative degree, fewer points than coefficients or a singular
/// system.
bool fit_polynomial(std::vector<double>& coef, int degree, double scale,
                    const std::vector<Eigen::Matrix<double, 2, 1>>& points,
                    const std::vector<double>* weights);

/// The one robust reweighting step: residuals of `fit`, a Tukey biweight with threshold
/// MAD/0.6745·k + median |residual|, and `refit(weights)`. A fit without residuals (no fit)
/// is left as it is.
template <class Fit, class Points, class Refit>
void reweight_once(Fit& fit, const Points& points, double k, Refit refit) {
  std::vector<double> d;
  if (!fit.get_d(d, points)) return;
  const double m = RobustM::get_med(d);
  const double s = RobustM::get_mad(d, m);
  RobustM weights;
  weights.estimate(d, (s / 0.6745) * k + m);
  refit(*weights);
}

}  // namespace detail
}  // namespace quib
