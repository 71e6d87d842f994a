#include <quib/discrim.hpp>
#include <quib/math.hpp>

#include <Eigen/LU>

#include <cmath>
#include <limits>
#include <utility>

namespace quib {

namespace {

constexpr double kTwoPi = 6.283185307179586;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

Eigen::Matrix2d inverse(Eigen::Matrix2d const& c) {
  double const det = c(0, 0) * c(1, 1) - c(0, 1) * c(1, 0);
  Eigen::Matrix2d inv;
  inv << c(1, 1), -c(0, 1), -c(1, 0), c(0, 0);
  return (1.0 / det) * inv;
}
Eigen::Matrix3d inverse(Eigen::Matrix3d const& c) {
  return c.inverse();
}

// The members shared by the 2-D and 3-D classes, written once over the point dimension.
template <int N>
struct Stats {
  using Point = Eigen::Matrix<double, N, 1>;
  using Matrix = Eigen::Matrix<double, N, N>;

  static bool estimate(std::vector<Point> const& samples, Point& centroid, Matrix& covariance) {
    centroid = eigen::get_centroid(samples);
    covariance = eigen::get_covariance_matrix(centroid, samples);
    return !samples.empty() && centroid.allFinite() && covariance.allFinite();
  }
  static bool is(std::vector<Point> const& samples, Point const& centroid) {
    return !samples.empty() && centroid.allFinite();
  }
  static double mahalanobis(Point const& x, Point const& centroid, Matrix const& covariance) {
    const Point d = x - centroid;
    return d.dot(inverse(covariance) * d);
  }
  static double gauss(double d2, int k, double det) {
    return math::exponent(-0.5 * d2) /
           (std::pow(kTwoPi, std::sqrt(static_cast<double>(k))) * std::sqrt(det));
  }
  static double linear(std::vector<Point> const& samples, Point const& x) {
    if (samples.empty()) return 0.0;
    double const half = 0.5 * samples.front().squaredNorm();
    math::KahanSum<double> sum;
    for (Point const& s : samples)
      sum.add(s.dot(x) - half);
    return sum.value();
  }
  static double nearest(std::vector<Point> const& samples, Point const& x) {
    double best = std::numeric_limits<double>::max();
    double const xx = x.squaredNorm();
    for (Point const& s : samples) {
      double const d = xx - 2.0 * s.dot(x) + s.squaredNorm();
      if (d < best) best = d;
    }
    return best;
  }
};

}  // namespace

// ---- scalars ----------------------------------------------------------------------------

Discrim1::Discrim1() : centroid(kNaN), covariance(0.0) {}
Discrim1::Discrim1(std::vector<double> const& s) : samples(s), centroid(0.0), covariance(0.0) {
  static_cast<void>(estimate());
}

void Discrim1::swap(Discrim1& other) noexcept {
  samples.swap(other.samples);
  std::swap(centroid, other.centroid);
  std::swap(covariance, other.covariance);
}
void Discrim1::clear() {
  samples.clear();
  centroid = kNaN;
}
bool Discrim1::is() const {
  return !samples.empty() && std::isfinite(centroid) && std::isfinite(covariance);
}

bool Discrim1::estimate(std::vector<double> const& s) {
  samples = s;
  return estimate();
}

bool Discrim1::estimate() {
  if (samples.empty()) {
    centroid = covariance = 0.0;
    return false;
  }
  double const n = static_cast<double>(samples.size());
  double total = 0.0;  // the mean is a plain sum
  for (double s : samples)
    total += s;
  centroid = total / n;
  math::KahanSum<double> spread;
  for (double s : samples)
    spread.add((centroid - s) * (centroid - s));
  covariance = spread.value() / n;
  return is();
}

double Discrim1::get_gaussian_distribution(double x) const {
  double const d = x - centroid;
  return math::exponent(-0.5 * d * d * covariance) / std::sqrt(kTwoPi * std::sqrt(covariance));
}

double Discrim1::get_likelihood() const {
  double product = 0.0;
  for (double s : samples)
    product *= get_gaussian_distribution(s);
  return product;
}

double Discrim1::get_bayes_discriminant(double x, double p, double c) const {
  return get_gaussian_distribution(x) * p + c;
}

// ---- 2-D and 3-D ------------------------------------------------------------------------

#define QUIB_DISCRIM_MEMBERS(Class, N)                                                         \
  Class::Class() : centroid(point_type::Constant(kNaN)), covariance(matrix_type::Zero()) {}    \
  Class::Class(std::vector<point_type> const& s) : samples(s) {                                \
    Stats<N>::estimate(samples, centroid, covariance);                                         \
  }                                                                                            \
  void Class::swap(Class& other) noexcept {                                                    \
    samples.swap(other.samples);                                                               \
    std::swap(centroid, other.centroid);                                                       \
    std::swap(covariance, other.covariance);                                                   \
  }                                                                                            \
  void Class::clear() {                                                                        \
    samples.clear();                                                                           \
    centroid.setConstant(kNaN);                                                                \
  }                                                                                            \
  bool Class::is() const {                                                                     \
    return Stats<N>::is(samples, centroid);                                                    \
  }                                                                                            \
  bool Class::estimate(std::vector<point_type> const& s) {                                     \
    samples = s;                                                                               \
    return estimate();                                                                         \
  }                                                                                            \
  bool Class::estimate() {                                                                     \
    return Stats<N>::estimate(samples, centroid, covariance);                                  \
  }                                                                                            \
  double Class::get_mahalanobis_distance(point_type const& x) const {                          \
    return Stats<N>::mahalanobis(x, centroid, covariance);                                     \
  }                                                                                            \
  double Class::get_gaussian_distribution(point_type const& x) const {                         \
    return get_gaussian_distribution(x, static_cast<int>(samples.size()));                     \
  }                                                                                            \
  double Class::get_gaussian_distribution(point_type const& x, int k) const {                  \
    return Stats<N>::gauss(get_mahalanobis_distance(x), k, covariance.determinant());          \
  }                                                                                            \
  double Class::get_gaussian_distribution2(point_type const& x) const {                        \
    return get_gaussian_distribution2(x, static_cast<int>(samples.size()));                    \
  }                                                                                            \
  double Class::get_gaussian_distribution2(point_type const& x, int k) const {                 \
    return Stats<N>::gauss(get_mahalanobis_distance(x), k, inverse(covariance).determinant()); \
  }                                                                                            \
  double Class::get_bayes_discriminant(point_type const& x, double p, double c) const {        \
    return std::log(p) + c - 0.5 * get_mahalanobis_distance(x);                                \
  }                                                                                            \
  double Class::get_bayes_discriminant2(point_type const& x, double p, double c) const {       \
    return std::log(p) + c - 0.5 * std::log(covariance.determinant()) -                        \
           0.5 * get_mahalanobis_distance(x);                                                  \
  }                                                                                            \
  double Class::get_linear_discriminant(point_type const& x) const {                           \
    return Stats<N>::linear(samples, x);                                                       \
  }                                                                                            \
  double Class::get_nearest_neighbor_discriminant(point_type const& x) const {                 \
    return Stats<N>::nearest(samples, x);                                                      \
  }

QUIB_DISCRIM_MEMBERS(Discrim2, 2)
QUIB_DISCRIM_MEMBERS(Discrim3, 3)

#undef QUIB_DISCRIM_MEMBERS

}  // namespace quib
