#include <quib/curve.hpp>
#include <quib/slope.hpp>

#include "numeric/fit_core.hpp"

#include <cmath>
#include <cstdint>
#include <utility>

namespace quib {

using detail::kNaN;
using Point2 = Eigen::Matrix<double, 2, 1>;

namespace {

// Fits a polynomial of fixed degree into `out` (highest power first); NaN when there is none.
template <std::size_t Size>
void fit_fixed(double (&out)[Size], Point2 const* points, std::size_t count, double const* weights,
               FitInfo* info) {
  std::vector<double> coef;
  if (detail::fit_polynomial(coef, static_cast<int>(Size) - 1, 1.0, points, count, weights, info)) {
    for (std::size_t i = 0; i < Size; ++i)
      out[i] = coef[i];
  } else {
    for (double& v : out)
      v = kNaN;
  }
}

template <class Curve>
bool residuals(Curve const& curve, std::vector<double>& d, Point2 const* points,
               std::size_t count) {
  if (!curve.is()) return false;
  d.resize(count);
  for (std::size_t i = 0; i < count; ++i)
    d[i] = points[i][1] - curve.get_y(points[i][0]);
  return true;
}

}  // namespace

// ---- quadratic --------------------------------------------------------------------------

LeastSquaresCurve::LeastSquaresCurve() : a_(kNaN), b_(kNaN), c_(kNaN) {}
LeastSquaresCurve::LeastSquaresCurve(points_type const& points) : LeastSquaresCurve() {
  static_cast<void>(calculate(points));
}
void LeastSquaresCurve::swap(LeastSquaresCurve& other) noexcept {
  std::swap(a_, other.a_);
  std::swap(b_, other.b_);
  std::swap(c_, other.c_);
}
void LeastSquaresCurve::clear() {
  a_ = b_ = c_ = kNaN;
}
bool LeastSquaresCurve::is() const {
  return std::isfinite(a_) && std::isfinite(b_) && std::isfinite(c_);
}
bool LeastSquaresCurve::fit(point_type const* points, std::size_t count, double const* weights,
                            FitInfo* info) {
  double x[3];
  fit_fixed(x, points, count, weights, info);
  a_ = x[0], b_ = x[1], c_ = x[2];
  return is();
}
bool LeastSquaresCurve::get_d(std::vector<double>& d, point_type const* points,
                              std::size_t count) const {
  return residuals(*this, d, points, count);
}
LeastSquaresCurve LeastSquaresCurve::create(points_type const& points) {
  return LeastSquaresCurve(points);
}
LeastSquaresCurve LeastSquaresCurve::create(point_type const* points, std::size_t count, double k) {
  return detail::robust_fit<LeastSquaresCurve>(points, count, k, nullptr);
}
LeastSquaresCurve LeastSquaresCurve::create(point_type const* points, std::size_t count, double k,
                                            FitInfo& info) {
  return detail::robust_fit<LeastSquaresCurve>(points, count, k, &info);
}

// ---- cubic ------------------------------------------------------------------------------

LeastSquaresCurve3::LeastSquaresCurve3() : a_(kNaN), b_(kNaN), c_(kNaN), d_(kNaN) {}
LeastSquaresCurve3::LeastSquaresCurve3(points_type const& points) : LeastSquaresCurve3() {
  static_cast<void>(calculate(points));
}
void LeastSquaresCurve3::swap(LeastSquaresCurve3& other) noexcept {
  std::swap(a_, other.a_);
  std::swap(b_, other.b_);
  std::swap(c_, other.c_);
  std::swap(d_, other.d_);
}
void LeastSquaresCurve3::clear() {
  a_ = b_ = c_ = d_ = kNaN;
}
bool LeastSquaresCurve3::is() const {
  return std::isfinite(a_) && std::isfinite(b_) && std::isfinite(c_) && std::isfinite(d_);
}
bool LeastSquaresCurve3::fit(point_type const* points, std::size_t count, double const* weights,
                             FitInfo* info) {
  double x[4];
  fit_fixed(x, points, count, weights, info);
  a_ = x[0], b_ = x[1], c_ = x[2], d_ = x[3];
  return is();
}
bool LeastSquaresCurve3::get_d(std::vector<double>& d, point_type const* points,
                               std::size_t count) const {
  return residuals(*this, d, points, count);
}
LeastSquaresCurve3 LeastSquaresCurve3::create(points_type const& points) {
  return LeastSquaresCurve3(points);
}
LeastSquaresCurve3 LeastSquaresCurve3::create(point_type const* points, std::size_t count,
                                              double k) {
  return detail::robust_fit<LeastSquaresCurve3>(points, count, k, nullptr);
}
LeastSquaresCurve3 LeastSquaresCurve3::create(point_type const* points, std::size_t count, double k,
                                              FitInfo& info) {
  return detail::robust_fit<LeastSquaresCurve3>(points, count, k, &info);
}

// ---- any degree -------------------------------------------------------------------------

LeastSquaresDimension::LeastSquaresDimension() : scale_(1.0) {}
LeastSquaresDimension::LeastSquaresDimension(double s) : scale_(s) {}
LeastSquaresDimension::LeastSquaresDimension(double s, int degree, points_type const& points)
    : scale_(s) {
  static_cast<void>(calculate(degree, points));
}

void LeastSquaresDimension::swap(LeastSquaresDimension& other) noexcept {
  coef_.swap(other.coef_);
}

LeastSquaresDimension LeastSquaresDimension::create(double s, int degree,
                                                    points_type const& points) {
  return LeastSquaresDimension(s, degree, points);
}
LeastSquaresDimension LeastSquaresDimension::create(double s, int degree, point_type const* points,
                                                    std::size_t count, double k) {
  LeastSquaresDimension fit(s);
  static_cast<void>(fit.calculate(degree, points, count));
  detail::reweight_once(fit, points, count, k, nullptr, [&](double const* w) {
    static_cast<void>(fit.calculate(degree, points, count, w));
  });
  return fit;
}
LeastSquaresDimension LeastSquaresDimension::create(double s, int degree, point_type const* points,
                                                    std::size_t count, double k, FitInfo& info) {
  LeastSquaresDimension fit(s);
  static_cast<void>(fit.calculate(degree, points, count));
  detail::reweight_once(fit, points, count, k, &info, [&](double const* w) {
    static_cast<void>(fit.calculate(degree, points, count, w, info));
  });
  return fit;
}

bool LeastSquaresDimension::fit(int degree, point_type const* points, std::size_t count,
                                double const* weights, FitInfo* info) {
  return detail::fit_polynomial(coef_, degree, scale_, points, count, weights, info);
}

bool LeastSquaresDimension::get_d(std::vector<double>& d, point_type const* points,
                                  std::size_t count) const {
  return residuals(*this, d, points, count);
}

double LeastSquaresDimension::get_y(double x) const {
  detail::Sum sum;
  double xp = 1.0;
  for (std::size_t i = coef_.size(); i-- > 0;) {  // lowest power first
    sum.add(coef_[i] * xp / scale_);
    xp *= x;
  }
  return sum.value();
}

double LeastSquaresDimension::get_slope(double x) const {
  if (coef_.size() < 2) return 0.0;
  const std::size_t n = coef_.size() - 1;
  detail::Sum sum;
  double xp = 1.0;  // x^(n-i-1)
  for (std::size_t i = n; i-- > 0;) {
    sum.add(static_cast<double>(n - i) * coef_[i] * xp / scale_);
    xp *= x;
  }
  return sum.value();
}

double LeastSquaresDimension::get_area(double x0, double x1) const {
  auto const primitive = [this](double x) {
    const std::size_t n = coef_.size() - 1;
    detail::Sum sum;
    double xp = x;  // x^(n-i+1)
    for (std::size_t i = n + 1; i-- > 0;) {
      sum.add(coef_[i] * xp / static_cast<double>(n - i + 1) / scale_);
      xp *= x;
    }
    return sum.value();
  };
  if (coef_.empty()) return 0.0;
  return primitive(x1) - primitive(x0);
}

namespace {

// The walks need a forward step that actually moves.
bool walkable(double x0, double x1, double step) {
  return std::isfinite(x0) && std::isfinite(x1) && std::isfinite(step) && step > 0.0 &&
         x0 + step != x0;
}

}  // namespace

double LeastSquaresDimension::get_length(double x0, double x1, double step) const {
  if (!walkable(x0, x1, step) || !(x1 > x0 + step)) return 0.0;
  detail::Sum length;
  double xp = x0, yp = get_y(x0);
  for (std::uint64_t k = 1;; ++k) {
    double const x = x0 + static_cast<double>(k) * step;
    if (!(x < x1)) break;
    double const y = get_y(x);
    length.add(std::hypot(x - xp, y - yp));
    xp = x, yp = y;
  }
  return length.value();
}

double LeastSquaresDimension::get_x(double x0, double length, double step) const {
  if (length == 0.0) return x0;
  if (!std::isfinite(length) || !walkable(x0, x0, step)) return kNaN;
  double const target = std::fabs(length);
  double const dir = length > 0.0 ? step : -step;
  detail::Sum walked;
  double xp = x0, yp = get_y(x0);
  for (std::uint64_t k = 1;; ++k) {
    double const x = x0 + static_cast<double>(k) * dir;
    double const y = get_y(x);
    if (x == xp || !std::isfinite(x) || !std::isfinite(y)) return kNaN;  // cannot get further
    walked.add(std::hypot(x - xp, y - yp));                              // no underflow to 0
    if (walked.value() >= target) return x;
    xp = x, yp = y;
  }
}

int LeastSquaresDimension::get_solution(std::vector<double>& roots, double x0, double x1,
                                        double step) const {
  constexpr double kTiny = 2.220446049250313e-16;
  auto const sign = [](double v) { return v > kTiny ? 1 : (v < -kTiny ? -1 : 0); };
  std::vector<double> found;
  if (walkable(x0, x1, step)) {
    double vp = get_y(x0);
    int s = sign(vp);
    if (s == 0 && x0 < x1) found.push_back(x0);
    double xp = x0;
    for (std::uint64_t k = 1;; ++k) {
      double const x = x0 + static_cast<double>(k) * step;
      if (!(x < x1)) break;
      double const v = get_y(x);
      int const t = sign(v);
      if (t == 0) {
        found.push_back(x);
      } else if (s != 0 && t != s) {
        // One secant-like step from the previous sample with the mean of the end slopes.
        found.push_back(xp - vp / (0.5 * (get_slope(xp) + get_slope(x))));
      }
      vp = v, s = t, xp = x;
    }
  }
  roots.swap(found);
  return static_cast<int>(roots.size());
}

double LeastSquaresDimension::get_area2(double x0, double x1, double step) const {
  std::vector<double> roots;
  get_solution(roots, x0, x1, step);
  detail::Sum area;
  double from = x0;
  for (double r : roots) {
    area.add(std::fabs(get_area(from, r)));
    from = r;
  }
  area.add(std::fabs(get_area(from, x1)));
  return area.value();
}

int LeastSquaresDimension::walk(bool local, std::vector<int>& kinds, points_type& points,
                                std::vector<double>& strongest, double x0, double x1,
                                double step) const {
  kinds.clear();
  points.clear();
  int const degree = get_numeric();
  if (degree > 1) {
    kinds.reserve(static_cast<std::size_t>(degree - 1));
    points.reserve(static_cast<std::size_t>(degree - 1));
  }
  if (!walkable(x0, x1, step)) return 0;
  Slope slope;  // direction 0 until the curve first rises or falls
  double m = 0.0;
  for (std::uint64_t k = 0;; ++k) {
    double const x = x0 + static_cast<double>(k) * step;
    if (!(x < x1)) break;
    double const s = get_slope(x);
    int const d = slope.dir();
    if (d == 0) {
      if (s > 0.0) slope.dir(1);
      if (s < 0.0) slope.dir(-1);
      continue;
    }
    if (d > 0 ? s > m : s < m) m = s;
    int kind = 0;
    bool const event = local ? slope.is_local(kind, s) : slope.is_extreme(kind, s);
    if (!event) continue;
    points.push_back(Point2(x, get_y(x)));
    kinds.push_back(kind);
    strongest.push_back(m);
    m = 0.0;
    slope.dir(kind != 0 ? -d : d);
  }
  return static_cast<int>(kinds.size());
}

int LeastSquaresDimension::get_local(std::vector<int>& kinds, points_type& points, double x0,
                                     double x1, double step) const {
  std::vector<double> strongest;
  return walk(true, kinds, points, strongest, x0, x1, step);
}
int LeastSquaresDimension::get_local(std::vector<int>& kinds, points_type& points,
                                     std::vector<double> strongest, double x0, double x1,
                                     double step) const {
  return walk(true, kinds, points, strongest, x0, x1, step);
}
int LeastSquaresDimension::get_extreme(std::vector<int>& kinds, points_type& points, double x0,
                                       double x1, double step) const {
  std::vector<double> strongest;
  return walk(false, kinds, points, strongest, x0, x1, step);
}
int LeastSquaresDimension::get_extreme(std::vector<int>& kinds, points_type& points,
                                       std::vector<double> strongest, double x0, double x1,
                                       double step) const {
  return walk(false, kinds, points, strongest, x0, x1, step);
}

}  // namespace quib
