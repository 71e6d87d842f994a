// Least-squares polynomial curves y = f(x) and their analysis: slope, arc length, area,
// roots and turning points.
#pragma once

#include <quib/export.hpp>
#include <quib/fit.hpp>

#include <Eigen/Core>

#include <type_traits>
#include <vector>

namespace quib {

/// Fits the parabola y = a·x² + b·x + c to 2-D points. Points with a non-finite coordinate
/// are skipped; missing weights count as 0; sums are compensated.
/// The object holds only a, b, c; points are never kept.
/// Fewer than three distinct x, or a system the solver finds singular, give NaN and false.
/// A plain value: one object per thread at a time.
///
///     quib::LeastSquaresCurve curve(points);
///     if (curve.is()) double y = curve.get_y(2.5);
class QUIB_API LeastSquaresCurve {
 public:
  using point_type = Eigen::Matrix<double, 2, 1>;
  using points_type = std::vector<point_type>;

  LeastSquaresCurve();
  explicit LeastSquaresCurve(const points_type& points);

  void swap(LeastSquaresCurve& other) noexcept;
  void clear();
  bool is() const;
  bool empty() const { return !is(); }

  [[nodiscard]] bool calculate(const points_type& points) {
    return calculate(points.data(), points.size());
  }
  [[nodiscard]] bool calculate(const points_type& points, const std::vector<double>& weights) {
    return calculate(points.data(), detail::weighed(points, weights), weights.data());
  }
  /// As above, and fills `info` (parameters in the order a, b, ...; cleared on failure).
  [[nodiscard]] bool calculate(const points_type& points, FitInfo& info) {
    return calculate(points.data(), points.size(), info);
  }
  [[nodiscard]] bool calculate(const points_type& points, const std::vector<double>& weights,
                               FitInfo& info) {
    return calculate(points.data(), detail::weighed(points, weights), weights.data(), info);
  }
  /// The same fits over `count` points in caller memory, read in place (see fit.hpp's note);
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
  /// Residuals y - f(x), one per input point.
  [[nodiscard]] bool get_d(std::vector<double>& d, const points_type& points) const {
    return get_d(d, points.data(), points.size());
  }
  [[nodiscard]] bool get_d(std::vector<double>& d, const point_type* points,
                           std::size_t count) const;

  static LeastSquaresCurve create(const points_type& points);
  /// One-step robust refit with Tukey biweights (see LeastSquaresLine::create).
  static LeastSquaresCurve create(const points_type& points, double k) {
    return create(points.data(), points.size(), k);
  }
  static LeastSquaresCurve create(const point_type* points, std::size_t count, double k);
  /// The robust fit with the statistics of its weighted step.
  static LeastSquaresCurve create(const points_type& points, double k, FitInfo& info) {
    return create(points.data(), points.size(), k, info);
  }
  static LeastSquaresCurve create(const point_type* points, std::size_t count, double k,
                                  FitInfo& info);

  double a() const { return a_; }
  double b() const { return b_; }
  double c() const { return c_; }
  double get_y(double x) const { return (a_ * x + b_) * x + c_; }

 private:
  bool fit(const point_type* points, std::size_t count, const double* weights, FitInfo* info);

  double a_;
  double b_;
  double c_;
};

/// Fits the cubic y = a·x³ + b·x² + c·x + d to 2-D points. Points with a non-finite
/// coordinate are skipped; missing weights count as 0; sums are compensated.
/// The object holds only a, b, c, d; points are never kept.
/// Fewer than four distinct x, or a singular system, give NaN and false.
/// A plain value: one object per thread at a time.
///
///     quib::LeastSquaresCurve3 cubic = quib::LeastSquaresCurve3::create(points, 2.0);
class QUIB_API LeastSquaresCurve3 {
 public:
  using point_type = Eigen::Matrix<double, 2, 1>;
  using points_type = std::vector<point_type>;

  LeastSquaresCurve3();
  explicit LeastSquaresCurve3(const points_type& points);

  void swap(LeastSquaresCurve3& other) noexcept;
  void clear();
  bool is() const;
  bool empty() const { return !is(); }

  [[nodiscard]] bool calculate(const points_type& points) {
    return calculate(points.data(), points.size());
  }
  [[nodiscard]] bool calculate(const points_type& points, const std::vector<double>& weights) {
    return calculate(points.data(), detail::weighed(points, weights), weights.data());
  }
  /// As above, and fills `info` (parameters in the order a, b, ...; cleared on failure).
  [[nodiscard]] bool calculate(const points_type& points, FitInfo& info) {
    return calculate(points.data(), points.size(), info);
  }
  [[nodiscard]] bool calculate(const points_type& points, const std::vector<double>& weights,
                               FitInfo& info) {
    return calculate(points.data(), detail::weighed(points, weights), weights.data(), info);
  }
  /// The same fits over `count` points in caller memory, read in place (see fit.hpp's note);
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
  [[nodiscard]] bool get_d(std::vector<double>& d, const points_type& points) const {
    return get_d(d, points.data(), points.size());
  }
  [[nodiscard]] bool get_d(std::vector<double>& d, const point_type* points,
                           std::size_t count) const;

  static LeastSquaresCurve3 create(const points_type& points);
  static LeastSquaresCurve3 create(const points_type& points, double k) {
    return create(points.data(), points.size(), k);
  }
  static LeastSquaresCurve3 create(const point_type* points, std::size_t count, double k);
  /// The robust fit with the statistics of its weighted step.
  static LeastSquaresCurve3 create(const points_type& points, double k, FitInfo& info) {
    return create(points.data(), points.size(), k, info);
  }
  static LeastSquaresCurve3 create(const point_type* points, std::size_t count, double k,
                                   FitInfo& info);

  double a() const { return a_; }
  double b() const { return b_; }
  double c() const { return c_; }
  double d() const { return d_; }
  double get_y(double x) const { return ((a_ * x + b_) * x + c_) * x + d_; }

 private:
  bool fit(const point_type* points, std::size_t count, const double* weights, FitInfo* info);

  double a_;
  double b_;
  double c_;
  double d_;
};

/// A polynomial y = Σ coef[i]·x^(n-i) / scale of any degree n, fitted to 2-D points, with
/// curve analysis: slope, arc length, areas, roots and turning points found by walking the
/// curve in fixed steps. The scale multiplies y during the fit and divides every coefficient
/// on reading, so the stored coefficients are those of the curve scaled by it.
/// The object owns its coefficient vector (highest power first); points are never kept.
/// No fit is an empty coefficient vector: a negative degree, fewer points than coefficients
/// or a system the solver finds singular. A fitted curve is not checked for finiteness.
/// The walking members need 0 < step and finite bounds; otherwise they find nothing (counts
/// and lengths 0, get_x NaN, get_area2 integrates without splitting at roots). Their run time
/// grows with (x1 - x0) / step.
/// A plain value: one object per thread at a time.
///
///     quib::LeastSquaresDimension poly(1.0, 4, points);   // quartic
///     std::vector<double> roots;
///     int n = poly.get_solution(roots, 0.0, 10.0, 0.01);
class QUIB_API LeastSquaresDimension {
 public:
  using point_type = Eigen::Matrix<double, 2, 1>;
  using points_type = std::vector<point_type>;

  LeastSquaresDimension();
  explicit LeastSquaresDimension(double scale);
  LeastSquaresDimension(double scale, int degree, const points_type& points);

  /// Exchanges the coefficient vectors only; each object keeps its own scale.
  void swap(LeastSquaresDimension& other) noexcept;
  /// Empties the coefficients (the scale stays).
  void clear() { coef_.clear(); }
  bool is() const { return !coef_.empty(); }
  bool empty() const { return coef_.empty(); }

  static LeastSquaresDimension create(double scale, int degree, const points_type& points);
  /// One-step robust refit with Tukey biweights (see LeastSquaresLine::create).
  static LeastSquaresDimension create(double scale, int degree, const points_type& points,
                                      double k) {
    return create(scale, degree, points.data(), points.size(), k);
  }
  static LeastSquaresDimension create(double scale, int degree, const point_type* points,
                                      std::size_t count, double k);
  static LeastSquaresDimension create(double scale, int degree, const points_type& points, double k,
                                      FitInfo& info) {
    return create(scale, degree, points.data(), points.size(), k, info);
  }
  static LeastSquaresDimension create(double scale, int degree, const point_type* points,
                                      std::size_t count, double k, FitInfo& info);

  [[nodiscard]] bool calculate(int degree, const points_type& points) {
    return calculate(degree, points.data(), points.size());
  }
  [[nodiscard]] bool calculate(int degree, const points_type& points,
                               const std::vector<double>& weights) {
    return calculate(degree, points.data(), detail::weighed(points, weights), weights.data());
  }
  /// As above, and fills `info`: parameters in coefficient order (highest power first), as
  /// read with operator[] (the scale divided out), residuals y - get_y(x).
  [[nodiscard]] bool calculate(int degree, const points_type& points, FitInfo& info) {
    return calculate(degree, points.data(), points.size(), info);
  }
  [[nodiscard]] bool calculate(int degree, const points_type& points,
                               const std::vector<double>& weights, FitInfo& info) {
    return calculate(degree, points.data(), detail::weighed(points, weights), weights.data(), info);
  }
  /// The same fits over `count` points in caller memory, read in place (see fit.hpp's note);
  /// `weights`, when not null, holds `count` weights.
  [[nodiscard]] bool calculate(int degree, const point_type* points, std::size_t count) {
    return fit(degree, points, count, nullptr, nullptr);
  }
  [[nodiscard]] bool calculate(int degree, const point_type* points, std::size_t count,
                               const double* weights) {
    return fit(degree, points, count, weights, nullptr);
  }
  [[nodiscard]] bool calculate(int degree, const point_type* points, std::size_t count,
                               FitInfo& info) {
    return fit(degree, points, count, nullptr, &info);
  }
  [[nodiscard]] bool calculate(int degree, const point_type* points, std::size_t count,
                               const double* weights, FitInfo& info) {
    return fit(degree, points, count, weights, &info);
  }
  /// Residuals y - get_y(x), one per input point; false (d untouched) with no coefficients.
  [[nodiscard]] bool get_d(std::vector<double>& d, const points_type& points) const {
    return get_d(d, points.data(), points.size());
  }
  [[nodiscard]] bool get_d(std::vector<double>& d, const point_type* points,
                           std::size_t count) const;

  /// Number of coefficients (degree + 1).
  int size() const { return static_cast<int>(coef_.size()); }
  /// The degree (size() - 1).
  int get_numeric() const { return size() - 1; }
  /// coef[i] / scale; i = 0 is the highest power. No bounds check.
  double operator[](int i) const { return coef_[static_cast<std::size_t>(i)] / scale_; }
  double get_scale() const { return scale_; }

  /// The value at x; 0.0 with no coefficients.
  double get_y(double x) const;
  /// The first derivative at x; 0.0 below degree 1.
  double get_slope(double x) const;
  /// Sum of chord lengths over the samples x0 + step, x0 + 2·step, ... below x1; the partial
  /// last step is left out. 0 unless x1 > x0 + step.
  double get_length(double x0, double x1, double step) const;
  /// The first sample x0 ± k·step at which the arc length from x0 reaches |length| (forward
  /// for length > 0, backward for length < 0); x0 for length 0. NaN when it cannot be reached.
  double get_x(double x0, double length, double step) const;
  /// The definite integral from x0 to x1.
  double get_area(double x0, double x1) const;
  /// The area between the curve and the x axis from x0 to x1, counted positive on both sides.
  double get_area2(double x0, double x1, double step) const;
  /// Replaces `roots` by the roots found in [x0, x1) by sampling every step: a sample whose
  /// |y| is at most 2^-52 is a root; a sign change between samples gives one secant-like step
  /// from the earlier sample (which may lie slightly outside the interval). Returns the count.
  int get_solution(std::vector<double>& roots, double x0, double x1, double step) const;

  /// Turning points along [x0, x1) sampled every step: a sign change of the slope (kind 1 for
  /// a maximum, -1 for a minimum) or a slope that weakened and strengthens again (kind 0).
  /// Replaces `kinds` and `points` (the sample where the event was seen, not interpolated);
  /// returns the count.
  int get_local(std::vector<int>& kinds, points_type& points, double x0, double x1,
                double step) const;
  /// As above with the strongest slope of each stretch appended to `strongest`, which is taken
  /// by value: the caller's vector is never changed.
  int get_local(std::vector<int>& kinds, points_type& points, std::vector<double> strongest,
                double x0, double x1, double step) const;
  /// Sign changes of the slope only (kind 1 maximum, -1 minimum); as get_local otherwise.
  int get_extreme(std::vector<int>& kinds, points_type& points, double x0, double x1,
                  double step) const;
  int get_extreme(std::vector<int>& kinds, points_type& points, std::vector<double> strongest,
                  double x0, double x1, double step) const;

 private:
  bool fit(int degree, const point_type* points, std::size_t count, const double* weights,
           FitInfo* info);
  int walk(bool local, std::vector<int>& kinds, points_type& points, std::vector<double>& strongest,
           double x0, double x1, double step) const;

  std::vector<double> coef_;
  double scale_;
};

static_assert(std::is_trivially_copyable_v<LeastSquaresCurve>);
static_assert(std::is_trivially_copyable_v<LeastSquaresCurve3>);

inline void swap(LeastSquaresCurve& a, LeastSquaresCurve& b) noexcept {
  a.swap(b);
}
inline void swap(LeastSquaresCurve3& a, LeastSquaresCurve3& b) noexcept {
  a.swap(b);
}
inline void swap(LeastSquaresDimension& a, LeastSquaresDimension& b) noexcept {
  a.swap(b);
}

}  // namespace quib
