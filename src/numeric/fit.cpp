#include <quib/fit.hpp>

#include "numeric/fit_core.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace quib {

using detail::kNaN;
using Point2 = Eigen::Matrix<double, 2, 1>;
using Point3 = Eigen::Matrix<double, 3, 1>;

namespace {

bool all_finite(std::initializer_list<double> values) {
  for (double v : values)
    if (!std::isfinite(v)) return false;
  return true;
}

using detail::moment_t;
using detail::system_layout;

// Sums the model's moments and solves its system; NaN when it is singular.
template <int D>
Eigen::VectorXd solve(moment_t model, system_layout const& layout,
                      Eigen::Matrix<double, D, 1> const* points, std::size_t count,
                      double const* weights, FitInfo* info) {
  const detail::moments s = detail::sum_moments(model, points, count, weights, info != nullptr);
  Eigen::VectorXd x;
  static_cast<void>(detail::solve_system(s, layout, x, info));
  return x;
}

// x² + y² + a·x + b·y + c = 0 in the unknowns (a, b, c): rows (x, y, 1), target -(x² + y²);
// z = a·x + b·y + c: rows (x, y, 1), target z. Both read the same matrix terms.
system_layout const& circle_layout() {
  static const system_layout l{3, {0, 1, 2, 1, 3, 4, 2, 4, 5}, {6, 7, 8}, -1.0, 9, 5};
  return l;
}
system_layout const& plane_layout() {
  static const system_layout l{3, {0, 1, 2, 1, 3, 4, 2, 4, 5}, {6, 7, 8}, 1.0, 9, 5};
  return l;
}
// x² + y² + z² + a·x + b·y + c·z + d = 0: rows (x, y, z, 1), target -(x² + y² + z²).
system_layout const& sphere_layout() {
  static const system_layout l{
      4, {0, 1, 2, 3, 1, 4, 5, 6, 2, 5, 7, 8, 3, 6, 8, 9}, {10, 11, 12, 13}, -1.0, 14, 9};
  return l;
}
// y = a·x + b: rows (x, 1), target y.
system_layout const& line_layout() {
  static const system_layout l{2, {3, 1, 1, 0}, {4, 2}, 1.0, 5, 0};
  return l;
}

}  // namespace

// ---- statistics ---------------------------------------------------------------------------

FitInfo::FitInfo() : rms_(kNaN), sigma_(kNaN), count_(0) {}
FitInfo::FitInfo(Eigen::MatrixXd covariance, double rms, double sigma, std::size_t count)
    : covariance_(std::move(covariance)), rms_(rms), sigma_(sigma), count_(count) {}

void FitInfo::swap(FitInfo& other) noexcept {
  covariance_.swap(other.covariance_);
  std::swap(rms_, other.rms_);
  std::swap(sigma_, other.sigma_);
  std::swap(count_, other.count_);
}
void FitInfo::clear() {
  covariance_.resize(0, 0);
  rms_ = sigma_ = kNaN;
  count_ = 0;
}
bool FitInfo::is() const {
  return covariance_.size() > 0 && covariance_.allFinite();
}
Eigen::VectorXd FitInfo::get_standard_errors() const {
  return covariance_.diagonal().cwiseSqrt();
}
double FitInfo::get_standard_error(int i) const {
  if (i < 0 || i >= covariance_.rows()) return kNaN;
  return std::sqrt(covariance_(i, i));
}

// ---- line -------------------------------------------------------------------------------

LeastSquaresLine::LeastSquaresLine() : a_(kNaN), b_(kNaN) {}
LeastSquaresLine::LeastSquaresLine(points_type const& points) : LeastSquaresLine() {
  static_cast<void>(calculate(points));
}

void LeastSquaresLine::swap(LeastSquaresLine& other) noexcept {
  std::swap(a_, other.a_);
  std::swap(b_, other.b_);
}
void LeastSquaresLine::clear() {
  a_ = b_ = kNaN;
}
bool LeastSquaresLine::is() const {
  return all_finite({a_, b_});
}

// Closed form over the moments 1, x, y, x², x·y (and y² for the statistics).
bool LeastSquaresLine::fit(point_type const* points, std::size_t count, double const* weights,
                           FitInfo* info) {
  if (info) info->clear();
  const detail::moments s =
      detail::sum_moments(moment_t::line, points, count, weights, info != nullptr);
  double const n = s[0], sx = s[1], sy = s[2], sxx = s[3], sxy = s[4];
  double const det = n * sxx - sx * sx;
  // All x equal: the determinant is zero up to the rounding of n·Sxx, which must not pass
  // for a steep line.
  if (!(std::fabs(det) > 2.0 * std::numeric_limits<double>::epsilon() * std::fabs(n * sxx))) {
    a_ = b_ = kNaN;
    return false;
  }
  a_ = (n * sxy - sx * sy) / det;
  b_ = (sy * sxx - sx * sxy) / det;
  if (info) {
    Eigen::MatrixXd inverse(2, 2);
    inverse << n / det, -sx / det, -sx / det, sxx / det;
    detail::fit_statistics(s, line_layout(), Eigen::Vector2d(a_, b_), inverse, *info);
  }
  return is();
}

bool LeastSquaresLine::get_d(std::vector<double>& d, point_type const* points,
                             std::size_t count) const {
  if (!is()) return false;
  d.resize(count);
  for (std::size_t i = 0; i < count; ++i)
    d[i] = points[i][1] - (a_ * points[i][0] + b_);
  return true;
}

LeastSquaresLine LeastSquaresLine::create(points_type const& points) {
  return LeastSquaresLine(points);
}
LeastSquaresLine LeastSquaresLine::create(point_type const* points, std::size_t count, double k) {
  return detail::robust_fit<LeastSquaresLine>(points, count, k, nullptr);
}
LeastSquaresLine LeastSquaresLine::create(point_type const* points, std::size_t count, double k,
                                          FitInfo& info) {
  return detail::robust_fit<LeastSquaresLine>(points, count, k, &info);
}

LeastSquaresLine LeastSquaresLine::iterate(points_type const& points, double tolerance, int count,
                                           pass_type pass, double k) {
  LeastSquaresLine out;
  if (count <= 0) return out;
  std::vector<Point2> work(points);
  double slope_total = 0.0;
  for (int i = 0; i < count; ++i) {
    const LeastSquaresLine line = pass(work, k);
    if (!line.is()) return LeastSquaresLine();
    slope_total += line.a_;
    out.b_ = line.b_;
    if (std::fabs(line.a_) <= tolerance) break;
    // Turn the points by the line's angle about its intercept (0, b), so that the next pass
    // sees them close to the horizontal line y = b.
    double lo = std::numeric_limits<double>::infinity();
    double hi = -lo;
    for (Point2 const& p : work)
      if (std::isfinite(p[0])) {
        lo = std::min(lo, p[0]);
        hi = std::max(hi, p[0]);
      }
    double const dx = hi - lo;
    double const angle = std::atan2(line.a_ * dx, dx);
    double const c = std::cos(angle), s = std::sin(angle);
    for (Point2& p : work) {
      double const x = p[0], y = p[1] - line.b_;
      p[0] = c * x + s * y;
      p[1] = -s * x + c * y + line.b_;
    }
  }
  out.a_ = slope_total;
  return out;
}

LeastSquaresLine LeastSquaresLine::create_iterative(points_type const& points, double tolerance,
                                                    int count) {
  return iterate(
      points, tolerance, count, [](points_type const& p, double) { return LeastSquaresLine(p); },
      0.0);
}
LeastSquaresLine LeastSquaresLine::create_iterative(points_type const& points, double tolerance,
                                                    int count, double k) {
  return iterate(
      points, tolerance, count,
      [](points_type const& p, double kk) { return LeastSquaresLine::create(p, kk); }, k);
}

// ---- circle -----------------------------------------------------------------------------

LeastSquaresCircle::LeastSquaresCircle() : a_(kNaN), b_(kNaN), c_(kNaN) {}
LeastSquaresCircle::LeastSquaresCircle(points_type const& points) : LeastSquaresCircle() {
  static_cast<void>(calculate(points));
}

void LeastSquaresCircle::swap(LeastSquaresCircle& other) noexcept {
  std::swap(a_, other.a_);
  std::swap(b_, other.b_);
  std::swap(c_, other.c_);
}
void LeastSquaresCircle::clear() {
  a_ = b_ = c_ = kNaN;
}
bool LeastSquaresCircle::is() const {
  return all_finite({a_, b_, c_});
}
double LeastSquaresCircle::r() const {
  return std::sqrt(x() * x() + y() * y() - c_);
}

bool LeastSquaresCircle::fit(point_type const* points, std::size_t count, double const* weights,
                             FitInfo* info) {
  const Eigen::VectorXd x = solve(moment_t::circle, circle_layout(), points, count, weights, info);
  a_ = x[0], b_ = x[1], c_ = x[2];
  return is();
}

bool LeastSquaresCircle::get_d(std::vector<double>& d, point_type const* points,
                               std::size_t count) const {
  if (!is()) return false;
  double const cx = x(), cy = y(), rr = r();
  double const k = cx * cx + cy * cy - rr * rr;
  d.resize(count);
  for (std::size_t i = 0; i < count; ++i) {
    double const px = points[i][0], py = points[i][1];
    d[i] = px * px + py * py - 2.0 * px * cx - 2.0 * py * cy + k;
  }
  return true;
}

LeastSquaresCircle LeastSquaresCircle::create(points_type const& points) {
  return LeastSquaresCircle(points);
}
LeastSquaresCircle LeastSquaresCircle::create(point_type const* points, std::size_t count,
                                              double k) {
  return detail::robust_fit<LeastSquaresCircle>(points, count, k, nullptr);
}
LeastSquaresCircle LeastSquaresCircle::create(point_type const* points, std::size_t count, double k,
                                              FitInfo& info) {
  return detail::robust_fit<LeastSquaresCircle>(points, count, k, &info);
}

// ---- plane ------------------------------------------------------------------------------

LeastSquaresPlane::LeastSquaresPlane() : a_(kNaN), b_(kNaN), c_(kNaN) {}
LeastSquaresPlane::LeastSquaresPlane(points_type const& points) : LeastSquaresPlane() {
  static_cast<void>(calculate(points));
}

void LeastSquaresPlane::swap(LeastSquaresPlane& other) noexcept {
  std::swap(a_, other.a_);
  std::swap(b_, other.b_);
  std::swap(c_, other.c_);
}
void LeastSquaresPlane::clear() {
  a_ = b_ = c_ = kNaN;
}
bool LeastSquaresPlane::is() const {
  return all_finite({a_, b_, c_});
}

namespace {
double plane_norm(double a, double b) {
  return std::sqrt(a * a + b * b + 1.0);
}
}  // namespace

double LeastSquaresPlane::x() const {
  return -a_ / plane_norm(a_, b_);
}
double LeastSquaresPlane::y() const {
  return -b_ / plane_norm(a_, b_);
}
double LeastSquaresPlane::z() const {
  return 1.0 / plane_norm(a_, b_);
}
double LeastSquaresPlane::d() const {
  return c_ / plane_norm(a_, b_);
}

bool LeastSquaresPlane::fit(point_type const* points, std::size_t count, double const* weights,
                            FitInfo* info) {
  const Eigen::VectorXd x = solve(moment_t::plane, plane_layout(), points, count, weights, info);
  a_ = x[0], b_ = x[1], c_ = x[2];
  return is();
}

bool LeastSquaresPlane::get_d(std::vector<double>& d, point_type const* points,
                              std::size_t count) const {
  if (!is()) return false;
  d.resize(count);
  for (std::size_t i = 0; i < count; ++i) {
    Point3 const& p = points[i];
    d[i] = p[2] - (a_ * p[0] + b_ * p[1] + c_);
  }
  return true;
}

LeastSquaresPlane LeastSquaresPlane::create(points_type const& points) {
  return LeastSquaresPlane(points);
}
LeastSquaresPlane LeastSquaresPlane::create(point_type const* points, std::size_t count, double k) {
  return detail::robust_fit<LeastSquaresPlane>(points, count, k, nullptr);
}
LeastSquaresPlane LeastSquaresPlane::create(point_type const* points, std::size_t count, double k,
                                            FitInfo& info) {
  return detail::robust_fit<LeastSquaresPlane>(points, count, k, &info);
}

// ---- sphere -----------------------------------------------------------------------------

LeastSquaresSphere::LeastSquaresSphere() : a_(kNaN), b_(kNaN), c_(kNaN), d_(kNaN) {}
LeastSquaresSphere::LeastSquaresSphere(points_type const& points) : LeastSquaresSphere() {
  static_cast<void>(calculate(points));
}

void LeastSquaresSphere::swap(LeastSquaresSphere& other) noexcept {
  std::swap(a_, other.a_);
  std::swap(b_, other.b_);
  std::swap(c_, other.c_);
  std::swap(d_, other.d_);
}
void LeastSquaresSphere::clear() {
  a_ = b_ = c_ = d_ = kNaN;
}
bool LeastSquaresSphere::is() const {
  return all_finite({a_, b_, c_, d_});
}
double LeastSquaresSphere::r() const {
  return std::sqrt(x() * x() + y() * y() + z() * z() - d_);
}

bool LeastSquaresSphere::fit(point_type const* points, std::size_t count, double const* weights,
                             FitInfo* info) {
  const Eigen::VectorXd x = solve(moment_t::sphere, sphere_layout(), points, count, weights, info);
  a_ = x[0], b_ = x[1], c_ = x[2], d_ = x[3];
  return is();
}

bool LeastSquaresSphere::get_d(std::vector<double>& d, point_type const* points,
                               std::size_t count) const {
  if (!is()) return false;
  double const cx = x(), cy = y(), cz = z(), rr = r();
  double const k = cx * cx + cy * cy + cz * cz - rr * rr;
  d.resize(count);
  for (std::size_t i = 0; i < count; ++i) {
    double const px = points[i][0], py = points[i][1], pz = points[i][2];
    d[i] = px * px + py * py + pz * pz - 2.0 * px * cx - 2.0 * py * cy - 2.0 * pz * cz + k;
  }
  return true;
}

LeastSquaresSphere LeastSquaresSphere::create(points_type const& points) {
  return LeastSquaresSphere(points);
}
LeastSquaresSphere LeastSquaresSphere::create(point_type const* points, std::size_t count,
                                              double k) {
  return detail::robust_fit<LeastSquaresSphere>(points, count, k, nullptr);
}
LeastSquaresSphere LeastSquaresSphere::create(point_type const* points, std::size_t count, double k,
                                              FitInfo& info) {
  return detail::robust_fit<LeastSquaresSphere>(points, count, k, &info);
}

}  // namespace quib
