#include <quib/discrim.hpp>
#include <quib/math.hpp>

#include <gtest/gtest.h>

#include <Eigen/LU>

#include <cmath>
#include <limits>
#include <vector>

namespace {

constexpr double kTwoPi = 6.283185307179586;

TEST(Discrim1, StatisticsAndScores) {
  quib::Discrim1 cls({1.0, 2.0, 3.0, 6.0});
  ASSERT_TRUE(cls.is());
  EXPECT_DOUBLE_EQ(cls.get_centroid(), 3.0);
  EXPECT_DOUBLE_EQ(cls.get_covariance(), 14.0 / 4.0);  // divided by the count
  // The variance multiplies in the exponent.
  const double v = 3.5, g = std::exp(-0.5 * 4.0 * v) / std::sqrt(kTwoPi * std::sqrt(v));
  EXPECT_DOUBLE_EQ(cls.get_gaussian_distribution(5.0), g);
  EXPECT_DOUBLE_EQ(cls.get_likelihood(5.0), g);
  EXPECT_DOUBLE_EQ(cls.get_bayes_discriminant(5.0, 0.25, 1.0), g * 0.25 + 1.0);
  EXPECT_EQ(cls.get_likelihood(), 0.0);

  cls.clear();
  EXPECT_TRUE(std::isnan(cls.get_centroid()));
  EXPECT_EQ(cls.get_covariance(), 3.5);
  EXPECT_FALSE(cls.estimate());
  EXPECT_EQ(cls.get_centroid(), 0.0);
  EXPECT_EQ(cls.get_covariance(), 0.0);
  EXPECT_FALSE(quib::Discrim1().is());
  EXPECT_TRUE(std::isnan(quib::Discrim1().get_centroid()));

  cls.array() = {4.0, 4.0};
  EXPECT_TRUE(cls.estimate());
  EXPECT_EQ(cls.get_covariance(), 0.0);
  EXPECT_FALSE(cls.estimate({1.0, std::numeric_limits<double>::quiet_NaN()}));
}

TEST(Discrim2, ScatterDistancesAndDensities) {
  using P = Eigen::Vector2d;
  const std::vector<P> s{{0, 0}, {2, 0}, {0, 4}, {2, 4}, {1, 2}};
  quib::Discrim2 cls(s);
  ASSERT_TRUE(cls.is());
  EXPECT_TRUE(cls.get_centroid().isApprox(P(1, 2)));
  Eigen::Matrix2d scatter;  // not divided by the count
  scatter << 4, 0, 0, 16;
  EXPECT_TRUE(cls.get_covariance().isApprox(scatter));

  const P x(3, 0);
  const double d2 = 4.0 / 4.0 + 4.0 / 16.0;
  EXPECT_DOUBLE_EQ(cls.get_mahalanobis_distance(x), d2);
  const double norm = std::pow(kTwoPi, std::sqrt(5.0));
  EXPECT_DOUBLE_EQ(cls.get_gaussian_distribution(x), std::exp(-0.5 * d2) / (norm * 8.0));
  EXPECT_DOUBLE_EQ(cls.get_gaussian_distribution(x, 4),
                   std::exp(-0.5 * d2) / (std::pow(kTwoPi, 2.0) * 8.0));
  EXPECT_DOUBLE_EQ(cls.get_gaussian_distribution2(x), std::exp(-0.5 * d2) / (norm / 8.0));
  EXPECT_DOUBLE_EQ(cls.get_bayes_discriminant(x, 0.5, 2.0), std::log(0.5) + 2.0 - 0.5 * d2);
  EXPECT_DOUBLE_EQ(cls.get_bayes_discriminant2(x, 0.5, 2.0),
                   std::log(0.5) + 2.0 - 0.5 * std::log(64.0) - 0.5 * d2);
  // Σ s_i·x - 0.5·|s_0|² with s_0 = 0; nearest sample (2, 0) at squared distance 1.
  EXPECT_DOUBLE_EQ(cls.get_linear_discriminant(x), 0 + 6 + 0 + 6 + 3);
  EXPECT_DOUBLE_EQ(cls.get_nearest_neighbor_discriminant(x), 1.0);

  quib::Discrim2 none;
  EXPECT_FALSE(none.is());
  EXPECT_FALSE(none.estimate());
  EXPECT_EQ(none.get_linear_discriminant(x), 0.0);
  EXPECT_EQ(none.get_nearest_neighbor_discriminant(x), std::numeric_limits<double>::max());

  // All samples equal: a finite, singular scatter.
  quib::Discrim2 point({{1, 1}, {1, 1}});
  EXPECT_TRUE(point.estimate());
  EXPECT_FALSE(std::isfinite(point.get_mahalanobis_distance(x)));
  EXPECT_FALSE(std::isfinite(point.get_gaussian_distribution(x)));
}

TEST(Discrim3, MatchesTheGeneralInverse) {
  using P = Eigen::Vector3d;
  const std::vector<P> s{{0, 0, 0}, {1, 2, 0}, {0, 1, 3}, {2, 0, 1}, {1, 1, 1}};
  quib::Discrim3 cls(s);
  ASSERT_TRUE(cls.is());
  const P mu = quib::eigen::get_centroid(s);
  EXPECT_TRUE(cls.get_centroid().isApprox(P(0.8, 0.8, 1.0)));
  Eigen::Matrix3d c = Eigen::Matrix3d::Zero();
  for (const P& p : s)
    c += (p - mu) * (p - mu).transpose();
  EXPECT_TRUE(cls.get_covariance().isApprox(c));
  const P x(1, -1, 2);
  const double d2 = (x - mu).dot(c.inverse() * (x - mu));
  EXPECT_NEAR(cls.get_mahalanobis_distance(x), d2, 1e-12);
  EXPECT_NEAR(cls.get_gaussian_distribution2(x, 9),
              std::exp(-0.5 * d2) / (std::pow(kTwoPi, 3.0) * std::sqrt(c.inverse().determinant())),
              1e-15);

  // Non-finite samples are left out of centroid and scatter.
  std::vector<P> dirty = s;
  dirty.emplace_back(std::numeric_limits<double>::quiet_NaN(), 0, 0);
  EXPECT_TRUE(quib::eigen::get_covariance_matrix(mu, dirty).isApprox(c));
  EXPECT_TRUE(quib::eigen::get_centroid(dirty).isApprox(mu));
}

}  // namespace
