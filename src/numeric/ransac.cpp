#include <quib/random.hpp>
#include <quib/ransac.hpp>

#include <Eigen/Geometry>

#include <cmath>
#include <cstdint>
#include <ctime>
#include <limits>
#include <utility>

namespace quib {

namespace {

constexpr double kTwoPowMinus32 = 2.3283064365386963e-10;

// A quotient converted to a 32-bit int the way the processor does it: a value that is not
// finite or lies outside the int range becomes the integer-indefinite value INT_MIN.
int truncate_to_int(double v) {
  if (!(v > -2147483649.0 && v < 2147483648.0)) return std::numeric_limits<int>::min();
  return static_cast<int>(v);
}

}  // namespace

template <class V, class S>
RANSAC<V, S>::RANSAC() : max_attempts(100) {}
template <class V, class S>
RANSAC<V, S>::RANSAC(RANSAC const& other) = default;
template <class V, class S>
RANSAC<V, S>& RANSAC<V, S>::operator=(RANSAC const& other) = default;
template <class V, class S>
RANSAC<V, S>::~RANSAC() = default;

template <class V, class S>
bool RANSAC<V, S>::compute(std::vector<V> const& points, S threshold, int n, double p,
                           std::uint64_t max_iterations) {
  return compute_seeded(points, threshold, n, p, max_iterations,
                        static_cast<std::uint32_t>(std::time(nullptr)));
}

template <class V, class S>
bool RANSAC<V, S>::compute_seeded(std::vector<V> const& points, S threshold, int n, double p,
                                  std::uint64_t max_iterations, std::uint32_t seed) {
  if (n < 1) return false;
  best_indices.clear();
  best_model.clear();
  if (points.empty()) return false;  // there is no index to draw
  if (points.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) return false;

  MersenneTwister random(seed);
  double const count = static_cast<double>(points.size());
  double const span = (count - 1.0) + 0.999999;
  double const log_failure = std::log(1.0 - p);

  S best_score;
  init_best(best_score);
  std::size_t best_count = 0;
  long long required = 1;
  std::vector<int> sample(static_cast<std::size_t>(n));
  std::vector<int> inliers;
  std::vector<std::vector<V>> models;
  S score;

  for (std::uint64_t k = 0;;) {
    for (int attempt = 0; attempt < max_attempts; ++attempt) {
      for (int& index : sample) {
        unsigned int const u = random;
        index = static_cast<int>(static_cast<double>(u) * kTwoPowMinus32 * span);
      }
      if (!invalid(points, sample) && find(models, points, sample)) break;
    }
    int const chosen = measure(inliers, score, points, models, threshold);
    bool const taken = chosen >= 0 && static_cast<std::size_t>(chosen) < models.size() &&
                       inliers.size() >= best_count && is_best(best_score, score);
    if (taken) {
      best_count = inliers.size();
      best_score = score;
      best_indices.swap(inliers);
      best_model = models[static_cast<std::size_t>(chosen)];
    }
    if (taken || k == 0) {
      const std::size_t m = taken ? best_count : inliers.size();
      double const w = static_cast<double>(m > 0 ? m : 1) / count;
      double wn = 1.0;
      for (int i = 0; i < n; ++i)
        wn *= w;
      double q = 1.0 - wn;
      // clamp so that log() never sees 0 or 1
      if (q < 2.220446049250313e-16) q = 2.220446049250313e-16;
      if (q > 0.9999999999999998) q = 0.9999999999999998;
      required = truncate_to_int(log_failure / std::log(q));
    }
    ++k;
    if (static_cast<long long>(k) > required || k > max_iterations) break;
  }
  return !best_model.empty();
}

template <class V, class S>
RANSAC_Plane<V, S>::RANSAC_Plane() = default;
template <class V, class S>
RANSAC_Plane<V, S>::RANSAC_Plane(RANSAC_Plane const& other) = default;
template <class V, class S>
RANSAC_Plane<V, S>& RANSAC_Plane<V, S>::operator=(RANSAC_Plane const& other) = default;
template <class V, class S>
RANSAC_Plane<V, S>::~RANSAC_Plane() = default;

template <class V, class S>
bool RANSAC_Plane<V, S>::compute(std::vector<V> const& points, S threshold, double p,
                                 std::uint64_t max_iterations) {
  return RANSAC<V, S>::compute(points, threshold, 3, p, max_iterations);
}
template <class V, class S>
bool RANSAC_Plane<V, S>::compute_seeded(std::vector<V> const& points, S threshold, double p,
                                        std::uint64_t max_iterations, std::uint32_t seed) {
  return RANSAC<V, S>::compute_seeded(points, threshold, 3, p, max_iterations, seed);
}

template <class V, class S>
bool RANSAC_Plane<V, S>::invalid(std::vector<V> const&, std::vector<int> const&) {
  return false;
}

template <class V, class S>
bool RANSAC_Plane<V, S>::find(std::vector<std::vector<V>>& models, std::vector<V> const& points,
                              std::vector<int> const& sample) {
  if (sample.size() != 3) return false;
  for (int i : sample)
    if (i < 0 || static_cast<std::size_t>(i) >= points.size()) return false;
  V const& p0 = points[static_cast<std::size_t>(sample[0])];
  V const& p1 = points[static_cast<std::size_t>(sample[1])];
  V const& p2 = points[static_cast<std::size_t>(sample[2])];
  V normal = (p1 - p0).cross(p2 - p0);
  normal /= normal.norm();
  if (!std::isfinite(normal[0]) || !std::isfinite(normal[1]) || !std::isfinite(normal[2]))
    return false;  // coincident or collinear points
  models.assign(1, std::vector<V>{p0, p1, p2, normal});
  return true;
}

template <class V, class S>
int RANSAC_Plane<V, S>::measure(std::vector<int>& inliers, S& score, std::vector<V> const& points,
                                std::vector<std::vector<V>> const& models, double threshold) {
  if (models.empty() || models[0].size() < 4) {
    score = std::numeric_limits<S>::max();
    return -1;
  }
  const V p0 = models[0][0];
  const V normal = models[0][3];
  const S limit = static_cast<S>(threshold);
  // Every index is written and the count advances only for inliers: no branch to mispredict
  // on the inlier test. The sum keeps its order, so scores (and the chosen model) stay as they
  // were.
  inliers.resize(points.size());
  int* out = inliers.data();
  std::size_t kept = 0;
  S sum = 0;
  int const size = static_cast<int>(points.size());
  V const* p = points.data();
  for (int i = 0; i < size; ++i) {
    const S t = (p[i] - p0).dot(normal);
    out[kept] = i;
    kept += std::fabs(t) < limit ? 1 : 0;
    sum += t;
  }
  inliers.resize(kept);
  score = kept == 0 ? std::numeric_limits<S>::max() : std::fabs(sum);
  return 0;
}

template <class V, class S>
void RANSAC_Plane<V, S>::init_best(S& score) {
  score = std::numeric_limits<S>::max();
}

template <class V, class S>
bool RANSAC_Plane<V, S>::is_best(S const& best, S const& candidate) {
  return best > candidate;
}

// The declarations in the header carry the export attribute.
template class RANSAC<Eigen::Matrix<double, 3, 1>, double>;
template class RANSAC<Eigen::Matrix<float, 3, 1>, float>;
template class RANSAC_Plane<Eigen::Matrix<double, 3, 1>, double>;
template class RANSAC_Plane<Eigen::Matrix<float, 3, 1>, float>;

}  // namespace quib
