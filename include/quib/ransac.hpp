// Random sample consensus: a driver that searches a point set for the model most points agree
// with, and a plane model for it.
#pragma once

#include <quib/export.hpp>

#include <Eigen/Core>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quib {

/// A random-sample-consensus search over 3-D points of type V with scalar S. The driver owns
/// the threshold, the probability, the iteration bounds and the generator; a derived class
/// says whether a sample is usable, builds candidate models from it and measures them.
/// Each compute() seeds a fresh Mersenne Twister with the current time in seconds, so two
/// calls within the same second draw the same samples and agree; compute_seeded() takes the
/// seed from the caller for a repeatable search.
/// The object owns the best model and its inlier indices; points are never kept.
/// compute() returns false when no model was found (empty point set, no usable sample),
/// leaving result() and indices() empty; with n < 1 it returns false and changes nothing.
/// One object per thread at a time. Instantiated for (Eigen::Vector3d, double) and
/// (Eigen::Vector3f, float).
///
///     quib::RANSAC_Plane<Eigen::Vector3d, double> ransac;
///     if (ransac.compute(points, 0.01, 0.99, 1000)) auto normal = ransac.result()[3];
template <class V, class S>
class RANSAC {
 public:
  using point_type = V;
  using scalar_type = S;
  using model_type = std::vector<V>;

  RANSAC();
  RANSAC(const RANSAC& other);
  RANSAC& operator=(const RANSAC& other);
  virtual ~RANSAC();

  /// Draws samples of n point indices (uniform, with replacement) and keeps the model that
  /// has at least as many inliers (distance < threshold) as the best so far and a better
  /// score. Stops after the number of iterations that p, the wanted probability of drawing one
  /// all-inlier sample, asks for at the best inlier ratio, or after max_iterations. A p of 0
  /// or 1, or a ratio so small that the count overflows, stops after the first iteration.
  [[nodiscard]] bool compute(const std::vector<V>& points, S threshold, int n, double p,
                             std::uint64_t max_iterations);
  /// The same search with the generator seeded by `seed` instead of the time: repeatable.
  [[nodiscard]] bool compute_seeded(const std::vector<V>& points, S threshold, int n, double p,
                                    std::uint64_t max_iterations, std::uint32_t seed);

  /// The best model's defining vectors.
  const std::vector<V>& result() const { return best_model_; }
  /// Ascending indices of the best model's inliers.
  const std::vector<int>& indices() const { return best_indices_; }

 protected:
  /// True rejects the sample before a model is built.
  virtual bool invalid(const std::vector<V>& points, const std::vector<int>& sample) = 0;
  /// Builds candidate models from the sample; false (models untouched) when there is none.
  [[nodiscard]] virtual bool find(std::vector<std::vector<V>>& models, const std::vector<V>& points,
                                  const std::vector<int>& sample) = 0;
  /// Fills the inliers and the score of the chosen candidate; returns its index in models,
  /// -1 when there is none.
  virtual int measure(std::vector<int>& inliers, S& score, const std::vector<V>& points,
                      const std::vector<std::vector<V>>& models, double threshold) = 0;
  /// The score that every real candidate can beat.
  virtual void init_best(S& score) = 0;
  /// True when `candidate` beats `best`.
  virtual bool is_best(const S& best, const S& candidate) = 0;

 private:
  template <class, class>
  friend class RANSAC_Plane;
  // The search over `count` points whose model operations `model` supplies (see ransac.cpp).
  template <class Model>
  bool search(std::size_t count, S threshold, int n, double p, std::uint64_t max_iterations,
              std::uint32_t seed, Model& model);

  std::vector<int> best_indices_;
  std::vector<V> best_model_;
  int max_attempts_;
};

/// A plane through three sampled points. The model is (p0, p1, p2, unit normal); a point is an
/// inlier when its distance to the plane is strictly below the threshold. The score is the
/// absolute value of the sum of the signed distances of all points, a balance measure: smaller
/// is better, and a model without inliers scores the largest finite S. Because a better model
/// needs both as many inliers and a smaller score, the search favours planes through the
/// centroid of the cloud: it is reliable when outliers lie on both sides of the plane.
/// Ownership, failures and threads as for RANSAC.
///
///     quib::RANSAC_Plane<Eigen::Vector3f, float> ransac;
///     ransac.compute(points, 0.01f, 0.99, 10000);
///     const std::vector<int>& on_plane = ransac.indices();
template <class V, class S>
class RANSAC_Plane : public RANSAC<V, S> {
 public:
  RANSAC_Plane();
  RANSAC_Plane(const RANSAC_Plane& other);
  RANSAC_Plane& operator=(const RANSAC_Plane& other);
  ~RANSAC_Plane() override;

  using RANSAC<V, S>::compute;
  /// compute(points, threshold, 3, p, max_iterations).
  [[nodiscard]] bool compute(const std::vector<V>& points, S threshold, double p,
                             std::uint64_t max_iterations);
  using RANSAC<V, S>::compute_seeded;
  /// compute_seeded(points, threshold, 3, p, max_iterations, seed).
  [[nodiscard]] bool compute_seeded(const std::vector<V>& points, S threshold, double p,
                                    std::uint64_t max_iterations, std::uint32_t seed);
  /// The same searches over `count` points in caller memory (for example a NumPy (N, 3) array),
  /// read in place and never copied; same samples, model and inliers as from a vector of the
  /// same points. These use this class's plane operations directly, not the virtual ones: a
  /// class that overrides them is searched through the vector forms.
  [[nodiscard]] bool compute(const V* points, std::size_t count, S threshold, double p,
                             std::uint64_t max_iterations);
  [[nodiscard]] bool compute_seeded(const V* points, std::size_t count, S threshold, double p,
                                    std::uint64_t max_iterations, std::uint32_t seed);

 protected:
  bool invalid(const std::vector<V>& points, const std::vector<int>& sample) override;
  bool find(std::vector<std::vector<V>>& models, const std::vector<V>& points,
            const std::vector<int>& sample) override;
  int measure(std::vector<int>& inliers, S& score, const std::vector<V>& points,
              const std::vector<std::vector<V>>& models, double threshold) override;
  void init_best(S& score) override;
  bool is_best(const S& best, const S& candidate) override;
};

extern template class QUIB_API RANSAC<Eigen::Matrix<double, 3, 1>, double>;
extern template class QUIB_API RANSAC<Eigen::Matrix<float, 3, 1>, float>;
extern template class QUIB_API RANSAC_Plane<Eigen::Matrix<double, 3, 1>, double>;
extern template class QUIB_API RANSAC_Plane<Eigen::Matrix<float, 3, 1>, float>;

}  // namespace quib
