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
RANSAC<V, S>::RANSAC() : max_attempts_(100) {}
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
  // The model of the derived class, through its virtual operations.
  struct virtual_model {
    RANSAC& self;
    std::vector<V> const& points;
    std::vector<std::vector<V>> models;
    bool sample(std::vector<int> const& indices) {
      return !self.invalid(points, indices) && self.find(models, points, indices);
    }
    int measure(std::vector<int>& inliers, S& score, double limit) {
      return self.measure(inliers, score, points, models, limit);
    }
  };
  virtual_model model{*this, points, {}};
  return search(points.size(), threshold, n, p, max_iterations, seed, model);
}

// The driver: `model` says whether a sample gives candidates (sample) and measures them
// (measure); its `models` are the candidates.
template <class V, class S>
template <class Model>
bool RANSAC<V, S>::search(std::size_t size, S threshold, int n, double p,
                          std::uint64_t max_iterations, std::uint32_t seed, Model& model) {
  if (n < 1) return false;
  best_indices_.clear();
  best_model_.clear();
  if (size == 0) return false;  // there is no index to draw
  if (size > static_cast<std::size_t>(std::numeric_limits<int>::max())) return false;

  MersenneTwister random(seed);
  double const count = static_cast<double>(size);
  double const span = (count - 1.0) + 0.999999;
  double const log_failure = std::log(1.0 - p);

  S best_score;
  init_best(best_score);
  std::size_t best_count = 0;
  long long required = 1;
  std::vector<int> sample(static_cast<std::size_t>(n));
  std::vector<int> inliers;
  S score;

  for (std::uint64_t k = 0;;) {
    for (int attempt = 0; attempt < max_attempts_; ++attempt) {
      for (int& index : sample) {
        unsigned int const u = random;
        index = static_cast<int>(static_cast<double>(u) * kTwoPowMinus32 * span);
      }
      if (model.sample(sample)) break;
    }
    int const chosen = model.measure(inliers, score, threshold);
    bool const taken = chosen >= 0 && static_cast<std::size_t>(chosen) < model.models.size() &&
                       inliers.size() >= best_count && is_best(best_score, score);
    if (taken) {
      best_count = inliers.size();
      best_score = score;
      best_indices_.swap(inliers);
      best_model_ = model.models[static_cast<std::size_t>(chosen)];
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
  return !best_model_.empty();
}

namespace {

// The plane through three sampled points: (p0, p1, p2, unit normal); false for coincident or
// collinear points and indices outside the points.
template <class V>
bool plane_through(std::vector<std::vector<V>>& models, V const* points, std::size_t count,
                   std::vector<int> const& sample) {
  if (sample.size() != 3) return false;
  for (int i : sample)
    if (i < 0 || static_cast<std::size_t>(i) >= count) return false;
  V const& p0 = points[static_cast<std::size_t>(sample[0])];
  V const& p1 = points[static_cast<std::size_t>(sample[1])];
  V const& p2 = points[static_cast<std::size_t>(sample[2])];
  V normal = (p1 - p0).cross(p2 - p0);
  normal /= normal.norm();
  if (!std::isfinite(normal[0]) || !std::isfinite(normal[1]) || !std::isfinite(normal[2]))
    return false;
  models.assign(1, std::vector<V>{p0, p1, p2, normal});
  return true;
}

// The inliers of the first candidate and its balance score |Σ signed distances|.
template <class V, class S>
int plane_measure(std::vector<int>& inliers, S& score, V const* points, std::size_t count,
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
  inliers.resize(count);
  int* out = inliers.data();
  std::size_t kept = 0;
  S sum = 0;
  int const size = static_cast<int>(count);
  for (int i = 0; i < size; ++i) {
    const S t = (points[i] - p0).dot(normal);
    out[kept] = i;
    kept += std::fabs(t) < limit ? 1 : 0;
    sum += t;
  }
  inliers.resize(kept);
  score = kept == 0 ? std::numeric_limits<S>::max() : std::fabs(sum);
  return 0;
}

}  // namespace

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
bool RANSAC_Plane<V, S>::compute(V const* points, std::size_t count, S threshold, double p,
                                 std::uint64_t max_iterations) {
  return compute_seeded(points, count, threshold, p, max_iterations,
                        static_cast<std::uint32_t>(std::time(nullptr)));
}
template <class V, class S>
bool RANSAC_Plane<V, S>::compute_seeded(V const* points, std::size_t count, S threshold, double p,
                                        std::uint64_t max_iterations, std::uint32_t seed) {
  // This class's plane, without the virtual operations (invalid() is always false).
  struct plane {
    V const* points;
    std::size_t count;
    std::vector<std::vector<V>> models;
    bool sample(std::vector<int> const& indices) {
      return plane_through(models, points, count, indices);
    }
    int measure(std::vector<int>& inliers, S& score, double limit) {
      return plane_measure(inliers, score, points, count, models, limit);
    }
  };
  plane model{points, count, {}};
  return this->search(count, threshold, 3, p, max_iterations, seed, model);
}

template <class V, class S>
bool RANSAC_Plane<V, S>::invalid(std::vector<V> const&, std::vector<int> const&) {
  return false;
}

template <class V, class S>
bool RANSAC_Plane<V, S>::find(std::vector<std::vector<V>>& models, std::vector<V> const& points,
                              std::vector<int> const& sample) {
  return plane_through(models, points.data(), points.size(), sample);
}

template <class V, class S>
int RANSAC_Plane<V, S>::measure(std::vector<int>& inliers, S& score, std::vector<V> const& points,
                                std::vector<std::vector<V>> const& models, double threshold) {
  return plane_measure(inliers, score, points.data(), points.size(), models, threshold);
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
