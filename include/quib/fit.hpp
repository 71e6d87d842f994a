// Least-squares fits of lines, circles, planes and spheres to point sets.
//
// Points in caller memory: every fit (and get_d, and the robust create) takes either a vector
// of points or a pointer to `count` points held elsewhere, such as a NumPy (N, 2) or (N, 3)
// float64 array or a mapped file. The points are read in place, never copied, and the result
// is the same as from a vector of the same points (the vector forms call the pointer forms).
// The points must be packed, D doubles each with no gap between points, and aligned as the
// point type asks: alignof(Eigen::Matrix<double, 2, 1>) is 16 bytes, because Eigen moves
// 2-vectors with aligned SSE instructions; 3-D points need 8. NumPy's allocator gives 16; a
// view that starts at an odd row of an (N, 2) array does not, and must be copied first.
#pragma once

#include <quib/export.hpp>

#include <Eigen/Core>

#include <algorithm>
#include <cstddef>
#include <type_traits>
#include <vector>

namespace quib {

namespace detail {
/// The points that the vector forms pass on with weights: points past the weights' end weigh 0.
template <class Point>
std::size_t weighed(std::vector<Point> const& points, std::vector<double> const& weights) {
  return std::min(points.size(), weights.size());
}
}  // namespace detail

/// How well a least-squares fit determined its parameters: the parameter covariance
/// σ²·(JᵀJ)⁻¹ (J the Jacobian of the residuals, weighted where the fit was weighted), with
/// σ² = Σ w·r² / (n - p) from the residuals and the degrees of freedom (n points used,
/// p parameters); the standard errors (square roots of its diagonal); the RMS residual
/// sqrt(Σ w·r² / Σ w); and the number of points used (finite, weight not 0: after a robust
/// step or with RANSAC inlier weights, the points that still counted).
/// Parameters are in the order the fit documents (LeastSquaresCircle: a, b, c;
/// GeometricCircle: x, y, r; ...). Residuals are those of the fit's get_d(): algebraic for
/// LeastSquaresCircle and LeastSquaresSphere, distances for the geometric fits.
/// Weights count as relative: scaling them all changes neither the covariance nor the RMS.
/// No result: an empty covariance, NaN RMS and sigma, count 0 (after a failed fit). With as
/// many points as parameters the fit is exact: RMS 0, but σ and the covariance are NaN and
/// is() is false. The record owns its matrix; a plain value, one thread at a time.
///
///     quib::FitInfo info;
///     quib::LeastSquaresLine line;
///     if (line.calculate(points, info) && info.is())
///       std::printf("a = %g ± %g\n", line.a(), info.get_standard_error(0));
class QUIB_API FitInfo {
 public:
  FitInfo();
  FitInfo(Eigen::MatrixXd covariance, double rms, double sigma, std::size_t count);

  void swap(FitInfo& other) noexcept;
  void clear();
  /// True when the covariance is there and finite.
  bool is() const;
  bool empty() const { return !is(); }

  /// p x p, in the fit's parameter order; empty with no result.
  const Eigen::MatrixXd& get_covariance() const { return covariance_; }
  /// The square roots of the covariance's diagonal.
  Eigen::VectorXd get_standard_errors() const;
  /// The standard error of parameter i; NaN when there is none.
  double get_standard_error(int i) const;
  /// sqrt(Σ w·r² / Σ w), in the unit of the residuals.
  double get_rms() const { return rms_; }
  /// The residual standard deviation σ = sqrt(Σ w·r² / (n - p)).
  double get_sigma() const { return sigma_; }
  /// The number of points the fit used.
  std::size_t get_count() const { return count_; }

 private:
  Eigen::MatrixXd covariance_;
  double rms_;
  double sigma_;
  std::size_t count_;
};

inline void swap(FitInfo& a, FitInfo& b) noexcept {
  a.swap(b);
}

/// Fits the line y = a·x + b to 2-D points, minimising vertical residuals (a vertical line
/// cannot be fitted). Points with a non-finite coordinate are skipped; a weight vector shorter
/// than the points gives the remaining points weight 0; sums are compensated.
/// The object holds only a and b; points are passed on every call and never kept.
/// Fewer than two distinct x (an empty set, all x equal) give NaN coefficients and false;
/// get_d() on such a line returns false and leaves its output alone.
/// A plain value: one object per thread at a time.
///
///     quib::LeastSquaresLine line(points);           // or LeastSquaresLine::create(points, 2.0)
///     if (line.is()) double y = line.get_y(10.0);
class QUIB_API LeastSquaresLine {
 public:
  using point_type = Eigen::Matrix<double, 2, 1>;
  using points_type = std::vector<point_type>;

  LeastSquaresLine();
  explicit LeastSquaresLine(const points_type& points);

  void swap(LeastSquaresLine& other) noexcept;
  /// Sets every coefficient to NaN.
  void clear();
  /// True when every coefficient is finite.
  bool is() const;
  bool empty() const { return !is(); }

  [[nodiscard]] bool calculate(const points_type& points) {
    return calculate(points.data(), points.size());
  }
  [[nodiscard]] bool calculate(const points_type& points, const std::vector<double>& weights) {
    return calculate(points.data(), detail::weighed(points, weights), weights.data());
  }
  /// As above, and fills `info` with the fit's statistics (cleared when the fit fails).
  [[nodiscard]] bool calculate(const points_type& points, FitInfo& info) {
    return calculate(points.data(), points.size(), info);
  }
  [[nodiscard]] bool calculate(const points_type& points, const std::vector<double>& weights,
                               FitInfo& info) {
    return calculate(points.data(), detail::weighed(points, weights), weights.data(), info);
  }
  /// The same fits over `count` points in caller memory, read in place (see the file's note);
  /// `weights`, when not null, holds `count` weights.
  [[nodiscard]] bool calculate(const point_type* points, std::size_t count) {
    return fit(points, count, nullptr, nullptr);
  }
  [[nodiscard]] bool calculate(const point_type* points, std::size_t count, const double* weights) {
    return fit(points, count, weights, nullptr);
  }
  [[nodiscard]] bool calculate(const point_type* points, std::size_t count, FitInfo& info) {
    return fit(points, count, nullptr, &info);
  }
  [[nodiscard]] bool calculate(const point_type* points, std::size_t count, const double* weights,
                               FitInfo& info) {
    return fit(points, count, weights, &info);
  }
  /// Residuals y - (a·x + b), one per input point in input order.
  [[nodiscard]] bool get_d(std::vector<double>& d, const points_type& points) const {
    return get_d(d, points.data(), points.size());
  }
  [[nodiscard]] bool get_d(std::vector<double>& d, const point_type* points,
                           std::size_t count) const;

  static LeastSquaresLine create(const points_type& points);
  /// Fits, weights the residuals with a Tukey biweight whose threshold is
  /// MAD/0.6745·k + median |residual|, and fits once more with those weights.
  static LeastSquaresLine create(const points_type& points, double k) {
    return create(points.data(), points.size(), k);
  }
  static LeastSquaresLine create(const point_type* points, std::size_t count, double k);
  /// The robust fit with the statistics of its weighted step (points with weight 0 are not
  /// counted).
  static LeastSquaresLine create(const points_type& points, double k, FitInfo& info) {
    return create(points.data(), points.size(), k, info);
  }
  static LeastSquaresLine create(const point_type* points, std::size_t count, double k,
                                 FitInfo& info);
  /// Fits repeatedly, turning a copy of the points towards the horizontal after each pass
  /// (about the fitted line's intercept), until a pass's slope is within `tolerance` or
  /// `count` passes are done. The result's a is the sum of the slopes of all passes and b the
  /// intercept of the last pass. count <= 0, or a pass that fails, gives NaN.
  static LeastSquaresLine create_iterative(const points_type& points, double tolerance, int count);
  /// As above with the robust create(points, k) in each pass.
  static LeastSquaresLine create_iterative(const points_type& points, double tolerance, int count,
                                           double k);

  double a() const { return a_; }
  double b() const { return b_; }
  double get_y(double x) const { return a_ * x + b_; }

 private:
  using pass_type = LeastSquaresLine (*)(const points_type& points, double k);
  static LeastSquaresLine iterate(const points_type& points, double tolerance, int count,
                                  pass_type pass, double k);
  bool fit(const point_type* points, std::size_t count, const double* weights, FitInfo* info);

  double a_;
  double b_;
};

/// Fits the circle x² + y² + a·x + b·y + c = 0 to 2-D points by minimising the algebraic
/// residual (not the geometric distance). Points with a non-finite coordinate are skipped;
/// missing weights count as 0; sums are compensated, which keeps circles of large radius far
/// from the origin accurate.
/// The object holds only a, b, c; points are never kept.
/// Fewer than three points, or a system that the solver finds singular, give NaN and false.
/// Collinear points may instead give an enormous radius, depending on rounding.
/// A plain value: one object per thread at a time.
///
///     quib::LeastSquaresCircle circle(points);
///     if (circle.is()) std::printf("%g %g r=%g\n", circle.x(), circle.y(), circle.r());
class QUIB_API LeastSquaresCircle {
 public:
  using point_type = Eigen::Matrix<double, 2, 1>;
  using points_type = std::vector<point_type>;

  LeastSquaresCircle();
  explicit LeastSquaresCircle(const points_type& points);

  void swap(LeastSquaresCircle& other) noexcept;
  void clear();
  bool is() const;
  bool empty() const { return !is(); }

  [[nodiscard]] bool calculate(const points_type& points) {
    return calculate(points.data(), points.size());
  }
  [[nodiscard]] bool calculate(const points_type& points, const std::vector<double>& weights) {
    return calculate(points.data(), detail::weighed(points, weights), weights.data());
  }
  /// As above, and fills `info` with the fit's statistics (cleared when the fit fails).
  [[nodiscard]] bool calculate(const points_type& points, FitInfo& info) {
    return calculate(points.data(), points.size(), info);
  }
  [[nodiscard]] bool calculate(const points_type& points, const std::vector<double>& weights,
                               FitInfo& info) {
    return calculate(points.data(), detail::weighed(points, weights), weights.data(), info);
  }
  /// The same fits over `count` points in caller memory, read in place (see the file's note);
  /// `weights`, when not null, holds `count` weights.
  [[nodiscard]] bool calculate(const point_type* points, std::size_t count) {
    return fit(points, count, nullptr, nullptr);
  }
  [[nodiscard]] bool calculate(const point_type* points, std::size_t count, const double* weights) {
    return fit(points, count, weights, nullptr);
  }
  [[nodiscard]] bool calculate(const point_type* points, std::size_t count, FitInfo& info) {
    return fit(points, count, nullptr, &info);
  }
  [[nodiscard]] bool calculate(const point_type* points, std::size_t count, const double* weights,
                               FitInfo& info) {
    return fit(points, count, weights, &info);
  }
  /// Algebraic residuals (x - cx)² + (y - cy)² - r², one per input point.
  [[nodiscard]] bool get_d(std::vector<double>& d, const points_type& points) const {
    return get_d(d, points.data(), points.size());
  }
  [[nodiscard]] bool get_d(std::vector<double>& d, const point_type* points,
                           std::size_t count) const;

  static LeastSquaresCircle create(const points_type& points);
  static LeastSquaresCircle create(const points_type& points, double k) {
    return create(points.data(), points.size(), k);
  }
  static LeastSquaresCircle create(const point_type* points, std::size_t count, double k);
  /// The robust fit with the statistics of its weighted step (points with weight 0 are not
  /// counted).
  static LeastSquaresCircle create(const points_type& points, double k, FitInfo& info) {
    return create(points.data(), points.size(), k, info);
  }
  static LeastSquaresCircle create(const point_type* points, std::size_t count, double k,
                                   FitInfo& info);

  double a() const { return a_; }
  double b() const { return b_; }
  double c() const { return c_; }
  /// The centre.
  double x() const { return -0.5 * a_; }
  double y() const { return -0.5 * b_; }
  /// The radius; NaN when the radicand is negative.
  double r() const;

 private:
  bool fit(const point_type* points, std::size_t count, const double* weights, FitInfo* info);

  double a_;
  double b_;
  double c_;
};

/// Fits the plane z = a·x + b·y + c to 3-D points, minimising vertical residuals in z.
/// Points with a non-finite coordinate are skipped; missing weights count as 0; sums are
/// compensated. The object holds only a, b, c; points are never kept.
/// A singular system (fewer than three points, collinear points, a vertical plane) gives NaN
/// and false. A plain value: one object per thread at a time.
///
///     quib::LeastSquaresPlane plane(points);
///     // unit normal (x(), y(), z()) and offset d(): x()·X + y()·Y + z()·Z = d()
class QUIB_API LeastSquaresPlane {
 public:
  using point_type = Eigen::Matrix<double, 3, 1>;
  using points_type = std::vector<point_type>;

  LeastSquaresPlane();
  explicit LeastSquaresPlane(const points_type& points);

  void swap(LeastSquaresPlane& other) noexcept;
  void clear();
  bool is() const;
  bool empty() const { return !is(); }

  [[nodiscard]] bool calculate(const points_type& points) {
    return calculate(points.data(), points.size());
  }
  [[nodiscard]] bool calculate(const points_type& points, const std::vector<double>& weights) {
    return calculate(points.data(), detail::weighed(points, weights), weights.data());
  }
  /// As above, and fills `info` with the fit's statistics (cleared when the fit fails).
  [[nodiscard]] bool calculate(const points_type& points, FitInfo& info) {
    return calculate(points.data(), points.size(), info);
  }
  [[nodiscard]] bool calculate(const points_type& points, const std::vector<double>& weights,
                               FitInfo& info) {
    return calculate(points.data(), detail::weighed(points, weights), weights.data(), info);
  }
  /// The same fits over `count` points in caller memory, read in place (see the file's note);
  /// `weights`, when not null, holds `count` weights.
  [[nodiscard]] bool calculate(const point_type* points, std::size_t count) {
    return fit(points, count, nullptr, nullptr);
  }
  [[nodiscard]] bool calculate(const point_type* points, std::size_t count, const double* weights) {
    return fit(points, count, weights, nullptr);
  }
  [[nodiscard]] bool calculate(const point_type* points, std::size_t count, FitInfo& info) {
    return fit(points, count, nullptr, &info);
  }
  [[nodiscard]] bool calculate(const point_type* points, std::size_t count, const double* weights,
                               FitInfo& info) {
    return fit(points, count, weights, &info);
  }
  /// Residuals z - (a·x + b·y + c), one per input point.
  [[nodiscard]] bool get_d(std::vector<double>& d, const points_type& points) const {
    return get_d(d, points.data(), points.size());
  }
  [[nodiscard]] bool get_d(std::vector<double>& d, const point_type* points,
                           std::size_t count) const;

  static LeastSquaresPlane create(const points_type& points);
  static LeastSquaresPlane create(const points_type& points, double k) {
    return create(points.data(), points.size(), k);
  }
  static LeastSquaresPlane create(const point_type* points, std::size_t count, double k);
  /// The robust fit with the statistics of its weighted step (points with weight 0 are not
  /// counted).
  static LeastSquaresPlane create(const points_type& points, double k, FitInfo& info) {
    return create(points.data(), points.size(), k, info);
  }
  static LeastSquaresPlane create(const point_type* points, std::size_t count, double k,
                                  FitInfo& info);

  double a() const { return a_; }
  double b() const { return b_; }
  double c() const { return c_; }
  /// The unit normal (-a, -b, 1) / sqrt(a² + b² + 1).
  double x() const;
  double y() const;
  double z() const;
  /// The normalised offset c / sqrt(a² + b² + 1), not a raw coefficient.
  double d() const;

 private:
  bool fit(const point_type* points, std::size_t count, const double* weights, FitInfo* info);

  double a_;
  double b_;
  double c_;
};

/// Fits the sphere x² + y² + z² + a·x + b·y + c·z + d = 0 to 3-D points by minimising the
/// algebraic residual. Points with a non-finite coordinate are skipped; missing weights count
/// as 0; sums are compensated. The object holds only a, b, c, d; points are never kept.
/// Fewer than four points or a singular system give NaN and false.
/// A plain value: one object per thread at a time.
///
///     quib::LeastSquaresSphere sphere(points);
///     if (sphere.is()) double radius = sphere.r();
class QUIB_API LeastSquaresSphere {
 public:
  using point_type = Eigen::Matrix<double, 3, 1>;
  using points_type = std::vector<point_type>;

  LeastSquaresSphere();
  explicit LeastSquaresSphere(const points_type& points);

  void swap(LeastSquaresSphere& other) noexcept;
  void clear();
  bool is() const;
  bool empty() const { return !is(); }

  [[nodiscard]] bool calculate(const points_type& points) {
    return calculate(points.data(), points.size());
  }
  [[nodiscard]] bool calculate(const points_type& points, const std::vector<double>& weights) {
    return calculate(points.data(), detail::weighed(points, weights), weights.data());
  }
  /// As above, and fills `info` with the fit's statistics (cleared when the fit fails).
  [[nodiscard]] bool calculate(const points_type& points, FitInfo& info) {
    return calculate(points.data(), points.size(), info);
  }
  [[nodiscard]] bool calculate(const points_type& points, const std::vector<double>& weights,
                               FitInfo& info) {
    return calculate(points.data(), detail::weighed(points, weights), weights.data(), info);
  }
  /// The same fits over `count` points in caller memory, read in place (see the file's note);
  /// `weights`, when not null, holds `count` weights.
  [[nodiscard]] bool calculate(const point_type* points, std::size_t count) {
    return fit(points, count, nullptr, nullptr);
  }
  [[nodiscard]] bool calculate(const point_type* points, std::size_t count, const double* weights) {
    return fit(points, count, weights, nullptr);
  }
  [[nodiscard]] bool calculate(const point_type* points, std::size_t count, FitInfo& info) {
    return fit(points, count, nullptr, &info);
  }
  [[nodiscard]] bool calculate(const point_type* points, std::size_t count, const double* weights,
                               FitInfo& info) {
    return fit(points, count, weights, &info);
  }
  /// Algebraic residuals |p - centre|² - r², one per input point.
  [[nodiscard]] bool get_d(std::vector<double>& d, const points_type& points) const {
    return get_d(d, points.data(), points.size());
  }
  [[nodiscard]] bool get_d(std::vector<double>& d, const point_type* points,
                           std::size_t count) const;

  static LeastSquaresSphere create(const points_type& points);
  static LeastSquaresSphere create(const points_type& points, double k) {
    return create(points.data(), points.size(), k);
  }
  static LeastSquaresSphere create(const point_type* points, std::size_t count, double k);
  /// The robust fit with the statistics of its weighted step (points with weight 0 are not
  /// counted).
  static LeastSquaresSphere create(const points_type& points, double k, FitInfo& info) {
    return create(points.data(), points.size(), k, info);
  }
  static LeastSquaresSphere create(const point_type* points, std::size_t count, double k,
                                   FitInfo& info);

  double a() const { return a_; }
  double b() const { return b_; }
  double c() const { return c_; }
  /// The raw coefficient d (unlike LeastSquaresPlane::d()).
  double d() const { return d_; }
  /// The centre.
  double x() const { return -0.5 * a_; }
  double y() const { return -0.5 * b_; }
  double z() const { return -0.5 * c_; }
  /// The radius; NaN when the radicand is negative.
  double r() const;

 private:
  bool fit(const point_type* points, std::size_t count, const double* weights, FitInfo* info);

  double a_;
  double b_;
  double c_;
  double d_;
};

/// A circle or sphere fitted by orthogonal distance: the centre and radius that minimise
/// Σ w·(|p - centre| - r)², the geometric residual, refined by Levenberg-Marquardt from the
/// algebraic fit of the same points (moved to their centroid and scaled to unit spread first).
/// The algebraic fit minimises |p - centre|² - r² instead, which pulls the radius of a short
/// arc inwards; this one does not, and its FitInfo is in the unit of the coordinates.
/// Points with a non-finite coordinate are skipped; missing weights count as 0.
/// No result (NaN members, false): fewer usable points than parameters (D + 1), points that
/// cannot determine a circle or sphere (all equal, collinear points for a circle, coplanar
/// points for a sphere), a singular system, or no convergence within 100 iterations.
/// The object holds the centre and radius only; points are never kept. One object per thread
/// at a time.
///
///     quib::GeometricCircle circle;
///     quib::FitInfo info;
///     if (circle.calculate(points, info))   // parameters x, y, r
///       std::printf("r = %g ± %g\n", circle.r(), info.get_standard_error(2));
template <int D>
class QUIB_API GeometricFit {
 public:
  using point_type = Eigen::Matrix<double, D, 1>;
  using points_type = std::vector<point_type>;

  GeometricFit();
  explicit GeometricFit(const points_type& points);

  void swap(GeometricFit& other) noexcept;
  void clear();
  /// True when the centre and radius are finite.
  bool is() const;
  bool empty() const { return !is(); }

  [[nodiscard]] bool calculate(const points_type& points) {
    return calculate(points.data(), points.size());
  }
  [[nodiscard]] bool calculate(const points_type& points, const std::vector<double>& weights) {
    return calculate(points.data(), detail::weighed(points, weights), weights.data());
  }
  /// As above, and fills `info`: parameters centre (x, y[, z]) then r.
  [[nodiscard]] bool calculate(const points_type& points, FitInfo& info) {
    return calculate(points.data(), points.size(), info);
  }
  [[nodiscard]] bool calculate(const points_type& points, const std::vector<double>& weights,
                               FitInfo& info) {
    return calculate(points.data(), detail::weighed(points, weights), weights.data(), info);
  }
  /// The same fits over `count` points in caller memory, read in place (see the file's note);
  /// `weights`, when not null, holds `count` weights.
  [[nodiscard]] bool calculate(const point_type* points, std::size_t count) {
    return fit(points, count, nullptr, nullptr);
  }
  [[nodiscard]] bool calculate(const point_type* points, std::size_t count, const double* weights) {
    return fit(points, count, weights, nullptr);
  }
  [[nodiscard]] bool calculate(const point_type* points, std::size_t count, FitInfo& info) {
    return fit(points, count, nullptr, &info);
  }
  [[nodiscard]] bool calculate(const point_type* points, std::size_t count, const double* weights,
                               FitInfo& info) {
    return fit(points, count, weights, &info);
  }
  /// Signed distances |p - centre| - r, one per input point; false (d untouched) with no fit.
  [[nodiscard]] bool get_d(std::vector<double>& d, const points_type& points) const {
    return get_d(d, points.data(), points.size());
  }
  [[nodiscard]] bool get_d(std::vector<double>& d, const point_type* points,
                           std::size_t count) const;

  static GeometricFit create(const points_type& points);
  /// One Tukey reweighting of the distances, as LeastSquaresLine::create(points, k).
  static GeometricFit create(const points_type& points, double k) {
    return create(points.data(), points.size(), k);
  }
  static GeometricFit create(const point_type* points, std::size_t count, double k);
  static GeometricFit create(const points_type& points, double k, FitInfo& info) {
    return create(points.data(), points.size(), k, info);
  }
  static GeometricFit create(const point_type* points, std::size_t count, double k, FitInfo& info);

  /// The centre.
  const point_type& centre() const { return centre_; }
  double x() const { return centre_[0]; }
  double y() const { return centre_[1]; }
  template <int E = D, class = std::enable_if_t<E == 3>>
  double z() const {
    return centre_[2];
  }
  /// The radius.
  double r() const { return r_; }

 private:
  bool fit(const point_type* points, std::size_t count, const double* weights, FitInfo* info);

  point_type centre_;
  double r_;
};

using GeometricCircle = GeometricFit<2>;
using GeometricSphere = GeometricFit<3>;

extern template class QUIB_API GeometricFit<2>;
extern template class QUIB_API GeometricFit<3>;

static_assert(std::is_trivially_copyable_v<LeastSquaresLine>);
static_assert(std::is_trivially_copyable_v<LeastSquaresCircle>);
static_assert(std::is_trivially_copyable_v<LeastSquaresPlane>);
static_assert(std::is_trivially_copyable_v<LeastSquaresSphere>);

inline void swap(LeastSquaresLine& a, LeastSquaresLine& b) noexcept {
  a.swap(b);
}
inline void swap(LeastSquaresCircle& a, LeastSquaresCircle& b) noexcept {
  a.swap(b);
}
inline void swap(LeastSquaresPlane& a, LeastSquaresPlane& b) noexcept {
  a.swap(b);
}
inline void swap(LeastSquaresSphere& a, LeastSquaresSphere& b) noexcept {
  a.swap(b);
}

}  // namespace quib
