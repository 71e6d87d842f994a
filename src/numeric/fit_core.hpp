// The one shape shared by every least-squares fit and curve: skip points with a non-finite
// coordinate, weight, accumulate moments with compensation, solve the normal equations, and
// on request say how well the parameters are determined. Each model states only its terms and
// how they form its system.
#pragma once

#include <quib/fit.hpp>
#include <quib/math.hpp>
#include <quib/robust.hpp>

#include "numeric/moments.hpp"

#include <Eigen/Core>

#include <cmath>
#include <cstddef>
#include <limits>
#include <vector>

namespace quib {
namespace detail {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

using Sum = math::KahanSum<double>;

template <class Point>
bool finite_point(Point const& p) {
  for (Eigen::Index i = 0; i < p.size(); ++i)
    if (!std::isfinite(p[i])) return false;
  return true;
}

/// The compensated moments of `model` over `count` points (see moment_t for the terms), each
/// weighted by weights[i] unless `weights` is null. With `residual`, the square of the target
/// is summed last, for the statistics of the fit.
template <int D>
moments sum_moments(moment_t model, Eigen::Matrix<double, D, 1> const* points, std::size_t count,
                    double const* weights, bool residual, int degree = 0, double scale = 1.0) {
  static_assert(sizeof(Eigen::Matrix<double, D, 1>) == D * sizeof(double), "packed points");
  moment_request request;
  request.model = model;
  request.residual = residual;
  request.coords = count == 0 ? nullptr : points->data();
  request.count = count;
  if (weights) {
    request.weighted = true;
    request.weights = weights;
    request.weight_count = count;
  }
  request.degree = degree;
  request.scale = scale;
  moments m;
  sum_moments(m, request);
  return m;
}

/// Where a linear least-squares system reads its numbers from the moments: the normal matrix
/// M(i, j) = moment[matrix[i·size + j]], the right-hand side r(i) = sign·moment[rhs[i]], the
/// sum of squared targets moment[target] and the sum of weights moment[weight].
struct system_layout {
  int size = 0;
  std::vector<int> matrix;
  std::vector<int> rhs;
  double sign = 1.0;
  int target = -1;
  int weight = 0;
};

/// Solves the system laid out over `s` with full-pivoting LU into x (NaN and false when the
/// decomposition finds it singular). With `info`, also fills the fit's statistics: the
/// residual sum of squares T - 2·xᵀr + xᵀ·M·x (from the moments carried to extended precision),
/// σ² = RSS / (count - size), covariance σ²·M⁻¹, RMS sqrt(RSS / Σw), the count of points used.
/// `unit` divides the residuals (the polynomial's y scale). A failed solve clears `info`.
bool solve_system(moments const& s, system_layout const& layout, Eigen::VectorXd& x, FitInfo* info,
                  double unit = 1.0);

/// Fills `info` from a solved system: x its solution, `inverse` M⁻¹ (see solve_system).
void fit_statistics(moments const& s, system_layout const& layout, Eigen::VectorXd const& x,
                    Eigen::MatrixXd const& inverse, FitInfo& info, double unit = 1.0);

/// The layouts of the polynomial of degree n (highest power first).
system_layout polynomial_layout(int degree);

/// Fits y·scale = Σ c[i]·x^(n-i) (highest power first) to 2-D points. Returns false, with
/// `coef` left empty (and `info` cleared), for a negative degree, fewer points than
/// coefficients or a singular system.
bool fit_polynomial(std::vector<double>& coef, int degree, double scale,
                    Eigen::Matrix<double, 2, 1> const* points, std::size_t count,
                    double const* weights, FitInfo* info);

/// The one robust reweighting step: residuals of `fit` over the points, a Tukey biweight with
/// threshold MAD/0.6745·k + median |residual|, and refit(weights) with one weight per point.
/// `info` (when given) ends with the statistics of that weighted step, or none when the first
/// fit or the refit failed.
template <class Fit, class Point, class Refit>
void reweight_once(Fit& fit, Point const* points, std::size_t count, double k, FitInfo* info,
                   Refit refit) {
  if (info) info->clear();
  std::vector<double> d;
  if (!fit.get_d(d, points, count)) return;
  double const m = RobustM::get_med(d);
  double const s = RobustM::get_mad(d, m);
  RobustM weights;
  static_cast<void>(weights.estimate(d, (s / 0.6745) * k + m));
  refit((*weights).data());
  if (info && fit.empty()) info->clear();
}

/// The robust fit of the classes whose calculate takes (points, count[, weights][, info]):
/// a plain fit, then reweight_once.
template <class Fit, class Point>
Fit robust_fit(Point const* points, std::size_t count, double k, FitInfo* info) {
  Fit fit;
  static_cast<void>(fit.calculate(points, count));
  reweight_once(fit, points, count, k, info, [&](double const* w) {
    static_cast<void>(info ? fit.calculate(points, count, w, *info)
                           : fit.calculate(points, count, w));
  });
  return fit;
}

}  // namespace detail
}  // namespace quib
