// Least-squares fits of lines, circles, planes and spheres to point sets.
#pragma once

#include <quib/export.hpp>

#include <Eigen/Core>

#include <type_traits>
#include <vector>

namespace quib {

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
  using points_type = std::vector<Eigen::Matrix<double, 2, 1>>;

  LeastSquaresLine();
  explicit LeastSquaresLine(const points_type& points);

  void swap(LeastSquaresLine& other) noexcept;
  /// Sets every coefficient to NaN.
  void clear();
  /// True when every coefficient is finite.
  bool is() const;
  bool empty() const { return !is(); }

  bool calculate(const points_type& points);
  bool calculate(const points_type& points, const std::vector<double>& weights);
  /// Residuals y - (a·x + b), one per input point in input order.
  bool get_d(std::vector<double>& d, const points_type& points) const;

  static LeastSquaresLine create(const points_type& points);
  /// Fits, weights the residuals with a Tukey biweight whose threshold is
  /// MAD/0.6745·k + median |residual|, and fits once more with those weights.
  static LeastSquaresLine create(const points_type& points, double k);
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
  using points_type = std::vector<Eigen::Matrix<double, 2, 1>>;

  LeastSquaresCircle();
  explicit LeastSquaresCircle(const points_type& points);

  void swap(LeastSquaresCircle& other) noexcept;
  void clear();
  bool is() const;
  bool empty() const { return !is(); }

  bool calculate(const points_type& points);
  bool calculate(const points_type& points, const std::vector<double>& weights);
  /// Algebraic residuals (x - cx)² + (y - cy)² - r², one per input point.
  bool get_d(std::vector<double>& d, const points_type& points) const;

  static LeastSquaresCircle create(const points_type& points);
  static LeastSquaresCircle create(const points_type& points, double k);

  double a() const { return a_; }
  double b() const { return b_; }
  double c() const { return c_; }
  /// The centre.
  double x() const { return -0.5 * a_; }
  double y() const { return -0.5 * b_; }
  /// The radius; NaN when the radicand is negative.
  double r() const;

 private:
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
  using points_type = std::vector<Eigen::Matrix<double, 3, 1>>;

  LeastSquaresPlane();
  explicit LeastSquaresPlane(const points_type& points);

  void swap(LeastSquaresPlane& other) noexcept;
  void clear();
  bool is() const;
  bool empty() const { return !is(); }

  bool calculate(const points_type& points);
  bool calculate(const points_type& points, const std::vector<double>& weights);
  /// Residuals z - (a·x + b·y + c), one per input point.
  bool get_d(std::vector<double>& d, const points_type& points) const;

  static LeastSquaresPlane create(const points_type& points);
  static LeastSquaresPlane create(const points_type& points, double k);

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
  using points_type = std::vector<Eigen::Matrix<double, 3, 1>>;

  LeastSquaresSphere();
  explicit LeastSquaresSphere(const points_type& points);

  void swap(LeastSquaresSphere& other) noexcept;
  void clear();
  bool is() const;
  bool empty() const { return !is(); }

  bool calculate(const points_type& points);
  bool calculate(const points_type& points, const std::vector<double>& weights);
  /// Algebraic residuals |p - centre|² - r², one per input point.
  bool get_d(std::vector<double>& d, const points_type& points) const;

  static LeastSquaresSphere create(const points_type& points);
  static LeastSquaresSphere create(const points_type& points, double k);

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
  double a_;
  double b_;
  double c_;
  double d_;
};

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
