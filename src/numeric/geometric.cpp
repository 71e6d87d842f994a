#include <quib/fit.hpp>

#include "numeric/fit_core.hpp"

#include <Eigen/LU>

#include <algorithm>
#include <cmath>
#include <utility>

namespace quib {

using detail::kNaN;

namespace {

constexpr int kMaxIterations = 100;

template <int D>
using Point = Eigen::Matrix<double, D, 1>;
template <int D>
using Params = Eigen::Matrix<double, D + 1, 1>;
template <int D>
using Normal = Eigen::Matrix<double, D + 1, D + 1>;

// |v|, without overflow for coordinates whose squares are not finite.
template <int D>
double length(Point<D> const& v) {
  double const l = v.norm();
  return std::isfinite(l) ? l : v.stableNorm();
}

// The points that count (finite, weight not 0) and their weights.
template <int D>
struct usable_points {
  std::vector<Point<D>> points;
  std::vector<double> weights;
};

template <int D>
usable_points<D> usable(Point<D> const* points, std::size_t count, double const* weights) {
  usable_points<D> u;
  for (std::size_t i = 0; i < count; ++i) {
    double const w = weights ? weights[i] : 1.0;
    if (w == 0.0 || !std::isfinite(w) || !detail::finite_point(points[i])) continue;
    u.points.push_back(points[i]);
    u.weights.push_back(w);
  }
  return u;
}

// Weighted cost Σ w·r², normal matrix JᵀWJ and gradient JᵀW·r at θ = (centre, r), with
// r_i = |p_i - centre| - r and the row of J: (-(p_i - centre)/|p_i - centre|, -1). A point at
// the centre has no direction; its row is (0, -1).
template <int D>
double evaluate(usable_points<D> const& u, Params<D> const& theta, Normal<D>& a, Params<D>& g) {
  Point<D> const c = theta.template head<D>();
  a.setZero();
  g.setZero();
  detail::Sum cost;
  for (std::size_t i = 0; i < u.points.size(); ++i) {
    Point<D> const v = u.points[i] - c;
    double const l = length<D>(v);
    double const res = l - theta[D];
    Params<D> j;
    j.template head<D>() = l > 0.0 ? Point<D>(-v / l) : Point<D>::Zero();
    j[D] = -1.0;
    double const w = u.weights[i];
    a.noalias() += w * j * j.transpose();
    g += (w * res) * j;
    cost.add(w * res * res);
  }
  return cost.value();
}

// Levenberg-Marquardt from `theta`; false when it cannot proceed or does not settle.
template <int D>
bool refine(usable_points<D> const& u, Params<D>& theta) {
  Normal<D> a;
  Params<D> g;
  double cost = evaluate(u, theta, a, g);
  if (!std::isfinite(cost)) return false;
  double lambda = 1e-3;
  for (int it = 0; it < kMaxIterations; ++it) {
    Normal<D> damped = a;
    damped.diagonal() *= 1.0 + lambda;
    const Eigen::FullPivLU<Normal<D>> lu(damped);
    if (!lu.isInvertible()) return false;
    Params<D> const step = lu.solve(-g);
    if (!step.allFinite()) return false;
    Params<D> const next = theta + step;
    Normal<D> a_next;
    Params<D> g_next;
    double const cost_next = evaluate(u, next, a_next, g_next);
    bool const small = step.norm() <= 1e-12 * (1.0 + theta.norm());
    if (std::isfinite(cost_next) && cost_next <= cost) {
      theta = next;
      a = a_next;
      g = g_next;
      bool const flat = cost - cost_next <= 1e-15 * cost;
      cost = cost_next;
      lambda = std::max(lambda * 0.1, 1e-12);
      if (small || flat) return true;
    } else {
      if (small) return true;  // no step left to take: at the minimum to rounding
      lambda *= 10.0;
      if (lambda > 1e16) return false;
    }
  }
  return false;
}

// The algebraic fit as the start: x² + y² (+ z²) + a·x + ... = 0 over the usable points.
template <int D>
bool start(usable_points<D> const& u, Params<D>& theta);

template <>
bool start<2>(usable_points<2> const& u, Params<2>& theta) {
  LeastSquaresCircle c;
  if (!c.calculate(u.points, u.weights)) return false;
  theta << c.x(), c.y(), c.r();
  return theta.allFinite();
}
template <>
bool start<3>(usable_points<3> const& u, Params<3>& theta) {
  LeastSquaresSphere s;
  if (!s.calculate(u.points, u.weights)) return false;
  theta << s.x(), s.y(), s.z(), s.r();
  return theta.allFinite();
}

}  // namespace

template <int D>
GeometricFit<D>::GeometricFit() : centre_(point_type::Constant(kNaN)), r_(kNaN) {}
template <int D>
GeometricFit<D>::GeometricFit(points_type const& points) : GeometricFit() {
  static_cast<void>(calculate(points));
}

template <int D>
void GeometricFit<D>::swap(GeometricFit& other) noexcept {
  std::swap(centre_, other.centre_);
  std::swap(r_, other.r_);
}
template <int D>
void GeometricFit<D>::clear() {
  centre_.setConstant(kNaN);
  r_ = kNaN;
}
template <int D>
bool GeometricFit<D>::is() const {
  return centre_.allFinite() && std::isfinite(r_);
}

template <int D>
bool GeometricFit<D>::fit(point_type const* points, std::size_t count, double const* weights,
                          FitInfo* info) {
  clear();
  if (info) info->clear();
  usable_points<D> u = usable<D>(points, count, weights);
  const std::size_t m = u.points.size();
  if (m < static_cast<std::size_t>(D + 1)) return false;

  // Centre and scale the points: the algebraic start is then well conditioned, and the
  // iteration's tolerances are relative to a spread of 1.
  Point<D> const mean = eigen::get_centroid(u.points);
  double spread = 0.0;
  for (Point<D> const& p : u.points)
    spread = std::max(spread, (p - mean).cwiseAbs().maxCoeff());
  if (!(spread > 0.0) || !std::isfinite(spread)) return false;  // all points equal
  usable_points<D> unit = u;
  for (Point<D>& p : unit.points)
    p = (p - mean) / spread;

  Params<D> theta;
  if (!start(unit, theta) || !refine(unit, theta)) return false;
  if (!(theta[D] > 0.0)) return false;
  centre_ = theta.template head<D>() * spread + mean;
  r_ = theta[D] * spread;
  if (!is()) {
    clear();
    return false;
  }

  if (info) {
    // The statistics in the points' own unit, at the solution.
    Params<D> real;
    real.template head<D>() = centre_;
    real[D] = r_;
    Normal<D> a;
    Params<D> g;
    double const rss = evaluate(u, real, a, g);
    double weight = 0.0;
    for (double w : u.weights)
      weight += w;
    const Eigen::FullPivLU<Normal<D>> lu(a);
    double const dof = static_cast<double>(m) - (D + 1);
    if (lu.isInvertible()) {
      double const sigma = dof > 0.0 ? std::sqrt(rss / dof) : kNaN;
      *info = FitInfo(Eigen::MatrixXd(sigma * sigma * lu.inverse()),
                      weight > 0.0 ? std::sqrt(rss / weight) : kNaN, sigma, m);
    }
  }
  return true;
}

template <int D>
bool GeometricFit<D>::get_d(std::vector<double>& d, point_type const* points,
                            std::size_t count) const {
  if (!is()) return false;
  d.resize(count);
  for (std::size_t i = 0; i < count; ++i)
    d[i] = length<D>(points[i] - centre_) - r_;
  return true;
}

template <int D>
GeometricFit<D> GeometricFit<D>::create(points_type const& points) {
  return GeometricFit(points);
}
template <int D>
GeometricFit<D> GeometricFit<D>::create(point_type const* points, std::size_t count, double k) {
  return detail::robust_fit<GeometricFit>(points, count, k, nullptr);
}
template <int D>
GeometricFit<D> GeometricFit<D>::create(point_type const* points, std::size_t count, double k,
                                        FitInfo& info) {
  return detail::robust_fit<GeometricFit>(points, count, k, &info);
}

// The declarations in the header carry the export attribute.
template class GeometricFit<2>;
template class GeometricFit<3>;

}  // namespace quib
