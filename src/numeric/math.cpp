#include <quib/math.hpp>

#include <cmath>
#include <limits>

namespace quib {
namespace math {

double exponent(double x) {
  return std::exp(x);
}

}  // namespace math

namespace eigen {

namespace {

template <int N>
bool finite(Eigen::Matrix<double, N, 1> const& p) {
  for (int i = 0; i < N; ++i)
    if (!std::isfinite(p[i])) return false;
  return true;
}

template <int N>
Eigen::Matrix<double, N, 1> centroid(std::vector<Eigen::Matrix<double, N, 1>> const& points) {
  math::KahanSum<double> sums[N];
  std::size_t count = 0;
  for (auto const& p : points) {
    if (!finite(p)) continue;
    for (int i = 0; i < N; ++i)
      sums[i].add(p[i]);
    ++count;
  }
  Eigen::Matrix<double, N, 1> c;
  for (int i = 0; i < N; ++i)
    c[i] = count ? sums[i].value() / static_cast<double>(count)
                 : std::numeric_limits<double>::quiet_NaN();
  return c;
}

template <int N>
Eigen::Matrix<double, N, N> scatter(Eigen::Matrix<double, N, 1> const& c,
                                    std::vector<Eigen::Matrix<double, N, 1>> const& points) {
  math::KahanSum<double> sums[N][N];
  for (auto const& p : points) {
    if (!finite(p)) continue;
    const Eigen::Matrix<double, N, 1> d = p - c;
    for (int i = 0; i < N; ++i)
      for (int j = i; j < N; ++j)
        sums[i][j].add(d[i] * d[j]);
  }
  Eigen::Matrix<double, N, N> m;
  for (int i = 0; i < N; ++i)
    for (int j = i; j < N; ++j)
      m(i, j) = m(j, i) = sums[i][j].value();
  return m;
}

}  // namespace

Eigen::Matrix<double, 2, 1> get_centroid(std::vector<Eigen::Matrix<double, 2, 1>> const& points) {
  return centroid(points);
}
Eigen::Matrix<double, 3, 1> get_centroid(std::vector<Eigen::Matrix<double, 3, 1>> const& points) {
  return centroid(points);
}
Eigen::Matrix<double, 2, 2> get_covariance_matrix(
    Eigen::Matrix<double, 2, 1> const& c, std::vector<Eigen::Matrix<double, 2, 1>> const& points) {
  return scatter(c, points);
}
Eigen::Matrix<double, 3, 3> get_covariance_matrix(
    Eigen::Matrix<double, 3, 1> const& c, std::vector<Eigen::Matrix<double, 3, 1>> const& points) {
  return scatter(c, points);
}

}  // namespace eigen
}  // namespace quib
