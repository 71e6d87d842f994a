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

// Solves a system whose matrix and right-hand side are read from compensated moments.
template <class Fill>
Eigen::VectorXd solve(Eigen::Index size, Fill fill) {
  Eigen::MatrixXd m(size, size);
  Eigen::VectorXd r(size);
  fill(m, r);
  Eigen::VectorXd x;
  detail::solve_normal(m, r, x);
  return x;
}

template <class Fit, class Points>
Fit robust(const Points& points, double k) {
  Fit fit(points);
  detail::reweight_once(fit, points, k,
                        [&](const std::vector<double>& w) { fit.calculate(points, w); });
  return fit;
}

}  // namespace

// ---- line -------------------------------------------------------------------------------

LeastSquaresLine::LeastSquaresLine() : a_(kNaN), b_(kNaN) {}
LeastSquaresLine::LeastSquaresLine(const points_type& points) : LeastSquaresLine() {
  calculate(points);
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

namespace {

void fit_line(double& a, double& b, const std::vector<Point2>& points,
              const std::vector<double>* weights) {
  const auto s = detail::sum_moments<5>(points, weights, [](const Point2& p, double* t) {
    t[0] = 1.0;
    t[1] = p[0];
    t[2] = p[1];
    t[3] = p[0] * p[0];
    t[4] = p[0] * p[1];
  });
  const double n = s[0], sx = s[1], sy = s[2], sxx = s[3], sxy = s[4];
  const double det = n * sxx - sx * sx;
  // All x equal: the determinant is zero up to the rounding of n·Sxx, which must not pass
  // for a steep line.
  if (!(std::fabs(det) > 2.0 * std::numeric_limits<double>::epsilon() * std::fabs(n * sxx))) {
    a = b = kNaN;
    return;
  }
  a = (n * sxy - sx * sy) / det;
  b = (sy * sxx - sx * sxy) / det;
}

}  // namespace

bool LeastSquaresLine::calculate(const points_type& points) {
  fit_line(a_, b_, points, nullptr);
  return is();
}
bool LeastSquaresLine::calculate(const points_type& points, const std::vector<double>& weights) {
  fit_line(a_, b_, points, &weights);
  return is();
}

bool LeastSquaresLine::get_d(std::vector<double>& d, const points_type& points) const {
  if (!is()) return false;
  d.resize(points.size());
  for (std::size_t i = 0; i < points.size(); ++i)
    d[i] = points[i][1] - (a_ * points[i][0] + b_);
  return true;
}

LeastSquaresLine LeastSquaresLine::create(const points_type& points) {
  return LeastSquaresLine(points);
}
LeastSquaresLine LeastSquaresLine::create(const points_type& points, double k) {
  return robust<LeastSquaresLine>(points, k);
}

LeastSquaresLine LeastSquaresLine::iterate(const points_type& points, double tolerance, int count,
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
    for (const Point2& p : work)
      if (std::isfinite(p[0])) {
        lo = std::min(lo, p[0]);
        hi = std::max(hi, p[0]);
      }
    const double dx = hi - lo;
    const double angle = std::atan2(line.a_ * dx, dx);
    const double c = std::cos(angle), s = std::sin(angle);
    for (Point2& p : work) {
      const double x = p[0], y = p[1] - line.b_;
      p[0] = c * x + s * y;
      p[1] = -s * x + c * y + line.b_;
    }
  }
  out.a_ = slope_total;
  return out;
}

LeastSquaresLine LeastSquaresLine::create_iterative(const points_type& points, double tolerance,
                                                    int count) {
  return iterate(
      points, tolerance, count, [](const points_type& p, double) { return LeastSquaresLine(p); },
      0.0);
}
LeastSquaresLine LeastSquaresLine::create_iterative(const points_type& points, double tolerance,
                                                    int count, double k) {
  return iterate(
      points, tolerance, count,
      [](const points_type& p, double kk) { return LeastSquaresLine::create(p, kk); }, k);
}

// ---- circle -----------------------------------------------------------------------------

LeastSquaresCircle::LeastSquaresCircle() : a_(kNaN), b_(kNaN), c_(kNaN) {}
LeastSquaresCircle::LeastSquaresCircle(const points_type& points) : LeastSquaresCircle() {
  calculate(points);
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

namespace {

// x² + y² + a·x + b·y + c = 0 in the unknowns (a, b, c): rows (x, y, 1), target -(x² + y²).
Eigen::VectorXd fit_circle(const std::vector<Point2>& points, const std::vector<double>* weights) {
  const auto s = detail::sum_moments<9>(points, weights, [](const Point2& p, double* t) {
    const double x = p[0], y = p[1], q = x * x + y * y;
    t[0] = x * x;
    t[1] = x * y;
    t[2] = x;
    t[3] = y * y;
    t[4] = y;
    t[5] = 1.0;
    t[6] = x * q;
    t[7] = y * q;
    t[8] = q;
  });
  return solve(3, [&](Eigen::MatrixXd& m, Eigen::VectorXd& r) {
    m << s[0], s[1], s[2], s[1], s[3], s[4], s[2], s[4], s[5];
    r << -s[6], -s[7], -s[8];
  });
}

}  // namespace

bool LeastSquaresCircle::calculate(const points_type& points) {
  const Eigen::VectorXd x = fit_circle(points, nullptr);
  a_ = x[0], b_ = x[1], c_ = x[2];
  return is();
}
bool LeastSquaresCircle::calculate(const points_type& points, const std::vector<double>& weights) {
  const Eigen::VectorXd x = fit_circle(points, &weights);
  a_ = x[0], b_ = x[1], c_ = x[2];
  return is();
}

bool LeastSquaresCircle::get_d(std::vector<double>& d, const points_type& points) const {
  if (!is()) return false;
  const double cx = x(), cy = y(), rr = r();
  const double k = cx * cx + cy * cy - rr * rr;
  d.resize(points.size());
  for (std::size_t i = 0; i < points.size(); ++i) {
    const double px = points[i][0], py = points[i][1];
    d[i] = px * px + py * py - 2.0 * px * cx - 2.0 * py * cy + k;
  }
  return true;
}

LeastSquaresCircle LeastSquaresCircle::create(const points_type& points) {
  return LeastSquaresCircle(points);
}
LeastSquaresCircle LeastSquaresCircle::create(const points_type& points, double k) {
  return robust<LeastSquaresCircle>(points, k);
}

// ---- plane ------------------------------------------------------------------------------

LeastSquaresPlane::LeastSquaresPlane() : a_(kNaN), b_(kNaN), c_(kNaN) {}
LeastSquaresPlane::LeastSquaresPlane(const points_type& points) : LeastSquaresPlane() {
  calculate(points);
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

namespace {

// z = a·x + b·y + c: rows (x, y, 1), target z.
Eigen::VectorXd fit_plane(const std::vector<Point3>& points, const std::vector<double>* weights) {
  const auto s = detail::sum_moments<9>(points, weights, [](const Point3& p, double* t) {
    const double x = p[0], y = p[1], z = p[2];
    t[0] = x * x;
    t[1] = x * y;
    t[2] = x;
    t[3] = y * y;
    t[4] = y;
    t[5] = 1.0;
    t[6] = x * z;
    t[7] = y * z;
    t[8] = z;
  });
  return solve(3, [&](Eigen::MatrixXd& m, Eigen::VectorXd& r) {
    m << s[0], s[1], s[2], s[1], s[3], s[4], s[2], s[4], s[5];
    r << s[6], s[7], s[8];
  });
}

}  // namespace

bool LeastSquaresPlane::calculate(const points_type& points) {
  const Eigen::VectorXd x = fit_plane(points, nullptr);
  a_ = x[0], b_ = x[1], c_ = x[2];
  return is();
}
bool LeastSquaresPlane::calculate(const points_type& points, const std::vector<double>& weights) {
  const Eigen::VectorXd x = fit_plane(points, &weights);
  a_ = x[0], b_ = x[1], c_ = x[2];
  return is();
}

bool LeastSquaresPlane::get_d(std::vector<double>& d, const points_type& points) const {
  if (!is()) return false;
  d.resize(points.size());
  for (std::size_t i = 0; i < points.size(); ++i) {
    const Point3& p = points[i];
    d[i] = p[2] - (a_ * p[0] + b_ * p[1] + c_);
  }
  return true;
}

LeastSquaresPlane LeastSquaresPlane::create(const points_type& points) {
  return LeastSquaresPlane(points);
}
LeastSquaresPlane LeastSquaresPlane::create(const points_type& points, double k) {
  return robust<LeastSquaresPlane>(points, k);
}

// ---- sphere -----------------------------------------------------------------------------

LeastSquaresSphere::LeastSquaresSphere() : a_(kNaN), b_(kNaN), c_(kNaN), d_(kNaN) {}
LeastSquaresSphere::LeastSquaresSphere(const points_type& points) : LeastSquaresSphere() {
  calculate(points);
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

namespace {

// x² + y² + z² + a·x + b·y + c·z + d = 0: rows (x, y, z, 1), target -(x² + y² + z²).
Eigen::VectorXd fit_sphere(const std::vector<Point3>& points, const std::vector<double>* weights) {
  const auto s = detail::sum_moments<14>(points, weights, [](const Point3& p, double* t) {
    const double x = p[0], y = p[1], z = p[2], q = x * x + y * y + z * z;
    t[0] = x * x;
    t[1] = x * y;
    t[2] = x * z;
    t[3] = x;
    t[4] = y * y;
    t[5] = y * z;
    t[6] = y;
    t[7] = z * z;
    t[8] = z;
    t[9] = 1.0;
    t[10] = x * q;
    t[11] = y * q;
    t[12] = z * q;
    t[13] = q;
  });
  return solve(4, [&](Eigen::MatrixXd& m, Eigen::VectorXd& r) {
    m << s[0], s[1], s[2], s[3],  //
        s[1], s[4], s[5], s[6],   //
        s[2], s[5], s[7], s[8],   //
        s[3], s[6], s[8], s[9];
    r << -s[10], -s[11], -s[12], -s[13];
  });
}

}  // namespace

bool LeastSquaresSphere::calculate(const points_type& points) {
  const Eigen::VectorXd x = fit_sphere(points, nullptr);
  a_ = x[0], b_ = x[1], c_ = x[2], d_ = x[3];
  return is();
}
bool LeastSquaresSphere::calculate(const points_type& points, const std::vector<double>& weights) {
  const Eigen::VectorXd x = fit_sphere(points, &weights);
  a_ = x[0], b_ = x[1], c_ = x[2], d_ = x[3];
  return is();
}

bool LeastSquaresSphere::get_d(std::vector<double>& d, const points_type& points) const {
  if (!is()) return false;
  const double cx = x(), cy = y(), cz = z(), rr = r();
  const double k = cx * cx + cy * cy + cz * cz - rr * rr;
  d.resize(points.size());
  for (std::size_t i = 0; i < points.size(); ++i) {
    const double px = points[i][0], py = points[i][1], pz = points[i][2];
    d[i] = px * px + py * py + pz * pz - 2.0 * px * cx - 2.0 * py * cy - 2.0 * pz * cz + k;
  }
  return true;
}

LeastSquaresSphere LeastSquaresSphere::create(const points_type& points) {
  return LeastSquaresSphere(points);
}
LeastSquaresSphere LeastSquaresSphere::create(const points_type& points, double k) {
  return robust<LeastSquaresSphere>(points, k);
}

}  // namespace quib
