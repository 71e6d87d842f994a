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

Discrim1::Discrim1() : centroid_(kNaN), covariance_(0.0) {}
Discrim1::Discrim1(std::vector<double> const& s) : samples_(s), centroid_(0.0), covariance_(0.0) {
  static_cast<void>(estimate());
}

void Discrim1::swap(Discrim1& other) noexcept {
  samples_.swap(other.samples_);
  std::swap(centroid_, other.centroid_);
  std::swap(covariance_, other.covariance_);
}
void Discrim1::clear() {
  samples_.clear();
  centroid_ = kNaN;
}
bool Discrim1::is() const {
  return !samples_.empty() && std::isfinite(centroid_) && std::isfinite(covariance_);
}

bool Discrim1::estimate(std::vector<double> const& s) {
  samples_ = s;
  return estimate();
}

bool Discrim1::estimate() {
  if (samples_.empty()) {
    centroid_ = covariance_ = 0.0;
    return false;
  }
  double const n = static_cast<double>(samples_.size());
  double total = 0.0;  // the mean is a plain sum
  for (double s : samples_)
    total += s;
  centroid_ = total / n;
  math::KahanSum<double> spread;
  for (double s : samples_)
    spread.add((centroid_ - s) * (centroid_ - s));
  covariance_ = spread.value() / n;
  return is();
}

double Discrim1::get_gaussian_distribution(double x) const {
  double const d = x - centroid_;
  return math::exponent(-0.5 * d * d * covariance_) / std::sqrt(kTwoPi * std::sqrt(covariance_));
}

double Discrim1::get_likelihood() const {
  double product = 0.0;
  for (double s : samples_)
    product *= get_gaussian_distribution(s);
  return product;
}

double Discrim1::get_bayes_discriminant(double x, double p, double c) const {
  return get_gaussian_distribution(x) * p + c;
}

// ---- 2-D and 3-D ------------------------------------------------------------------------

#define QUIB_DISCRIM_MEMBERS(Class, N)                                                          \
  Class::Class() : centroid_(point_type::Constant(kNaN)), covariance_(matrix_type::Zero()) {}   \
  Class::Class(std::vector<point_type> const& s) : samples_(s) {                                \
    Stats<N>::estimate(samples_, centroid_, covariance_);                                       \
  }                                                                                             \
  void Class::swap(Class& other) noexcept {                                                     \
    samples_.swap(other.samples_);                                                              \
    std::swap(centroid_, other.centroid_);                                                      \
    std::swap(covariance_, other.covariance_);                                                  \
  }                                                                                             \
  void Class::clear() {                                                                         \
    samples_.clear();                                                                           \
    centroid_.setConstant(kNaN);                                                                \
  }                                                                                             \
  bool Class::is() const {                                                                      \
    return Stats<N>::is(samples_, centroid_);                                                   \
  }                                                                                             \
  bool Class::estimate(std::vector<point_type> const& s) {                                      \
    samples_ = s;                                                                               \
    return estimate();                                                                          \
  }                                                                                             \
  bool Class::estimate() {                                                                      \
    return Stats<N>::estimate(samples_, centroid_, covariance_);                                \
  }                                                                                             \
  double Class::get_mahalanobis_distance(point_type const& x) const {                           \
    return Stats<N>::mahalanobis(x, centroid_, covariance_);                                    \
  }                                                                                             \
  double Class::get_gaussian_distribution(point_type const& x) const {                          \
    return get_gaussian_distribution(x, static_cast<int>(samples_.size()));                     \
  }                                                                                             \
  double Class::get_gaussian_distribution(point_type const& x, int k) const {                   \
    return Stats<N>::gauss(get_mahalanobis_distance(x), k, covariance_.determinant());          \
  }                                                                                             \
  double Class::get_gaussian_distribution2(point_type const& x) const {                         \
    return get_gaussian_distribution2(x, static_cast<int>(samples_.size()));                    \
  }                                                                                             \
  double Class::get_gaussian_distribution2(point_type const& x, int k) const {                  \
    return Stats<N>::gauss(get_mahalanobis_distance(x), k, inverse(covariance_).determinant()); \
  }                                                                                             \
  double Class::get_bayes_discriminant(point_type const& x, double p, double c) const {         \
    return std::log(p) + c - 0.5 * get_mahalanobis_distance(x);                                 \
  }                                                                                             \
  double Class::get_bayes_discriminant2(point_type const& x, double p, double c) const {        \
    return std::log(p) + c - 0.5 * std::log(covariance_.determinant()) -                        \
           0.5 * get_mahalanobis_distance(x);                                                   \
  }                                                                                             \
  double Class::get_linear_discriminant(point_type const& x) const {                            \
    return Stats<N>::linear(samples_, x);                                                       \
  }                                                                                             \
  double Class::get_nearest_neighbor_discriminant(point_type const& x) const {                  \
    return Stats<N>::nearest(samples_, x);                                                      \
  }

QUIB_DISCRIM_MEMBERS(Discrim2, 2)
QUIB_DISCRIM_MEMBERS(Discrim3, 3)

#undef QUIB_DISCRIM_MEMBERS

}  // namespace quib
