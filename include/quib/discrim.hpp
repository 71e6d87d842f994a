// Discriminant statistics of one class of samples: centroid, spread, densities and scores.
#pragma once

#include <quib/export.hpp>

#include <Eigen/Core>

#include <vector>

namespace quib {

/// One class of scalar samples, modelled by its mean and variance, and scores of a query
/// against it. The density is exp(-0.5·(x - mean)²·variance) / sqrt(2π·sqrt(variance)): the
/// variance multiplies in the exponent, an unusual normalisation that is kept on purpose so
/// that scores stay comparable with earlier results.
/// The object owns a copy of its samples (the caller may also fill array() and estimate()).
/// estimate() returns false with no samples or a non-finite mean or variance.
/// A plain value: one object per thread at a time.
///
///     quib::Discrim1 cls({1.0, 2.0, 3.0});
///     double score = cls.get_bayes_discriminant(2.5, 0.5, 0.0);
class QUIB_API Discrim1 {
 public:
  /// No samples, mean NaN, variance 0.
  Discrim1();
  /// Copies the samples and computes mean and variance (both 0 with no samples).
  explicit Discrim1(const std::vector<double>& samples);

  void swap(Discrim1& other) noexcept;
  /// Empties the samples and sets the mean to NaN; the variance stays.
  void clear();
  bool is() const;
  bool empty() const { return !is(); }

  std::vector<double>& array() { return samples_; }
  const std::vector<double>& array() const { return samples_; }
  std::vector<double>& operator*() { return samples_; }
  const std::vector<double>& operator*() const { return samples_; }
  std::vector<double>* operator->() { return &samples_; }
  const std::vector<double>* operator->() const { return &samples_; }

  [[nodiscard]] bool estimate(const std::vector<double>& samples);
  /// Recomputes mean and variance (divided by the count) from the held samples.
  [[nodiscard]] bool estimate();

  double get_centroid() const { return centroid_; }
  double get_covariance() const { return covariance_; }

  double get_gaussian_distribution(double x) const;
  double get_likelihood(double x) const { return get_gaussian_distribution(x); }
  /// The product of the densities of all samples, starting from 0.0: so 0.0 for any finite
  /// densities, NaN when one of them is not finite.
  double get_likelihood() const;
  /// density(x)·p + c.
  double get_bayes_discriminant(double x, double p, double c) const;

 private:
  std::vector<double> samples_;
  double centroid_;
  double covariance_;
};

/// One class of 2-D samples, modelled by its centroid and scatter matrix (the sum of
/// (s - μ)(s - μ)^T, not divided by the count), and scores of a query against it:
/// squared Mahalanobis distance D² = (x - μ)^T·C^-1·(x - μ), densities
/// exp(-0.5·D²) / (pow(2π, sqrt(k))·sqrt(det C)) (get_gaussian_distribution2 uses det C^-1),
/// Bayes, linear and nearest-neighbour discriminants. These normalisations are unusual and
/// kept on purpose. A singular scatter matrix (all samples equal) makes D² and the densities
/// non-finite. The object owns a copy of its samples.
/// estimate() returns false with no samples or a non-finite centroid or scatter entry.
/// A plain value: one object per thread at a time.
///
///     quib::Discrim2 cls(samples);
///     double d2 = cls.get_mahalanobis_distance(query);
class QUIB_API Discrim2 {
 public:
  using point_type = Eigen::Matrix<double, 2, 1>;
  using matrix_type = Eigen::Matrix<double, 2, 2>;

  /// No samples, centroid NaN, scatter zero.
  Discrim2();
  explicit Discrim2(const std::vector<point_type>& samples);

  void swap(Discrim2& other) noexcept;
  /// Empties the samples and sets the centroid to NaN; the scatter stays.
  void clear();
  bool is() const;
  bool empty() const { return !is(); }

  std::vector<point_type>& array() { return samples_; }
  const std::vector<point_type>& array() const { return samples_; }
  std::vector<point_type>& operator*() { return samples_; }
  const std::vector<point_type>& operator*() const { return samples_; }
  std::vector<point_type>* operator->() { return &samples_; }
  const std::vector<point_type>* operator->() const { return &samples_; }

  [[nodiscard]] bool estimate(const std::vector<point_type>& samples);
  [[nodiscard]] bool estimate();

  const point_type& get_centroid() const { return centroid_; }
  const matrix_type& get_covariance() const { return covariance_; }

  double get_mahalanobis_distance(const point_type& x) const;
  /// k = the number of samples.
  double get_gaussian_distribution(const point_type& x) const;
  double get_gaussian_distribution(const point_type& x, int k) const;
  double get_gaussian_distribution2(const point_type& x) const;
  double get_gaussian_distribution2(const point_type& x, int k) const;
  /// log(p) + c - 0.5·D².
  double get_bayes_discriminant(const point_type& x, double p, double c) const;
  /// log(p) + c - 0.5·log(det C) - 0.5·D².
  double get_bayes_discriminant2(const point_type& x, double p, double c) const;
  /// Σ (s_i·x - 0.5·|s_0|²); 0.0 with no samples.
  double get_linear_discriminant(const point_type& x) const;
  /// The squared distance to the nearest sample; the largest double with no samples.
  double get_nearest_neighbor_discriminant(const point_type& x) const;

 private:
  std::vector<point_type> samples_;
  point_type centroid_;
  matrix_type covariance_;
};

/// One class of 3-D samples: the counterpart of Discrim2, with a 3×3 scatter matrix and the
/// same formulas. The object owns a copy of its samples; estimate() returns false with no
/// samples or a non-finite centroid or scatter entry. A plain value: one object per thread.
///
///     quib::Discrim3 cls(samples);
///     double density = cls.get_gaussian_distribution(query);
class QUIB_API Discrim3 {
 public:
  using point_type = Eigen::Matrix<double, 3, 1>;
  using matrix_type = Eigen::Matrix<double, 3, 3>;

  Discrim3();
  explicit Discrim3(const std::vector<point_type>& samples);

  void swap(Discrim3& other) noexcept;
  void clear();
  bool is() const;
  bool empty() const { return !is(); }

  std::vector<point_type>& array() { return samples_; }
  const std::vector<point_type>& array() const { return samples_; }
  std::vector<point_type>& operator*() { return samples_; }
  const std::vector<point_type>& operator*() const { return samples_; }
  std::vector<point_type>* operator->() { return &samples_; }
  const std::vector<point_type>* operator->() const { return &samples_; }

  [[nodiscard]] bool estimate(const std::vector<point_type>& samples);
  [[nodiscard]] bool estimate();

  const point_type& get_centroid() const { return centroid_; }
  const matrix_type& get_covariance() const { return covariance_; }

  double get_mahalanobis_distance(const point_type& x) const;
  double get_gaussian_distribution(const point_type& x) const;
  double get_gaussian_distribution(const point_type& x, int k) const;
  double get_gaussian_distribution2(const point_type& x) const;
  double get_gaussian_distribution2(const point_type& x, int k) const;
  double get_bayes_discriminant(const point_type& x, double p, double c) const;
  double get_bayes_discriminant2(const point_type& x, double p, double c) const;
  double get_linear_discriminant(const point_type& x) const;
  double get_nearest_neighbor_discriminant(const point_type& x) const;

 private:
  std::vector<point_type> samples_;
  point_type centroid_;
  matrix_type covariance_;
};

inline void swap(Discrim1& a, Discrim1& b) noexcept {
  a.swap(b);
}
inline void swap(Discrim2& a, Discrim2& b) noexcept {
  a.swap(b);
}
inline void swap(Discrim3& a, Discrim3& b) noexcept {
  a.swap(b);
}

}  // namespace quib
