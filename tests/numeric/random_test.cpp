#include <quib/random.hpp>
#include <quib/ransac.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <ctime>
#include <limits>
#include <random>
#include <vector>

namespace {

TEST(MersenneTwister, MatchesTheStandardEngine) {
  for (unsigned int seed : {5489u, 0u, 123456789u}) {
    SCOPED_TRACE(seed);
    quib::MersenneTwister mt(seed);
    std::mt19937 ref(seed);
    for (int i = 0; i < 10000; ++i)
      ASSERT_EQ(static_cast<unsigned int>(mt), ref()) << i;
  }
  quib::MersenneTwister mt(5489);
  EXPECT_EQ(static_cast<unsigned int>(mt), 3499211612u);

  // Re-seeding, copies, swap and release.
  quib::MersenneTwister a(1), b(2);
  a.create(2);
  EXPECT_EQ(static_cast<unsigned int>(a), static_cast<unsigned int>(b));
  quib::MersenneTwister copy(b);
  a.release();
  for (int i = 0; i < 700; ++i) {  // across a twist
    const unsigned int next = b;
    ASSERT_EQ(static_cast<unsigned int>(a), next);
    ASSERT_EQ(static_cast<unsigned int>(copy), next);
  }
  quib::MersenneTwister c(7);
  std::mt19937 ref7(7);
  c.swap(a);
  EXPECT_EQ(static_cast<unsigned int>(a), ref7());
}

TEST(MersenneTwister, WideAndRealConversions) {
  std::mt19937 ref(5489);
  quib::MersenneTwister mt(5489);
  const std::uint64_t low = ref(), high = ref();
  EXPECT_EQ(static_cast<std::uint64_t>(mt), (high << 32) | low);
  EXPECT_EQ(low, 3499211612u);
  const std::uint64_t low2 = ref(), high2 = ref();
  EXPECT_EQ(static_cast<std::int64_t>(mt), static_cast<std::int64_t>((high2 << 32) | low2));
  EXPECT_EQ(static_cast<int>(mt), static_cast<int>(ref()));

  for (int i = 0; i < 2000; ++i) {
    const unsigned int w = ref();
    const double d = mt;
    EXPECT_EQ(d, w * 2.0 * 2.3283064365386963e-10 - 1.0);
    ASSERT_TRUE(d >= -1.0 && d < 1.0);
    const unsigned int v = ref();
    const float f = mt;
    EXPECT_EQ(
        f, static_cast<float>(
               static_cast<double>(static_cast<float>(v) * 2.0f) * 2.3283064365386963e-10 - 1.0));
  }
}

// Exposes the plane model's steps and counts the measured iterations.
template <class V, class S>
struct PlaneProbe : quib::RANSAC_Plane<V, S> {
  using quib::RANSAC_Plane<V, S>::find;
  using quib::RANSAC_Plane<V, S>::measure;
  int measured = 0;
  int measure(std::vector<int>& inliers, S& score, const std::vector<V>& points,
              const std::vector<std::vector<V>>& models, double threshold) override {
    ++measured;
    return quib::RANSAC_Plane<V, S>::measure(inliers, score, points, models, threshold);
  }
};

template <class V>
std::vector<V> noisy_plane(int inliers, int outliers) {
  std::mt19937 gen(11);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  const auto plane = [](double x, double y) { return 0.2 * x - 0.1 * y + 0.5; };
  std::vector<V> pts;
  for (int i = 0; i < inliers; ++i) {
    const double x = u(gen), y = u(gen);
    pts.emplace_back(x, y, plane(x, y));
  }
  // Outliers in pairs mirrored about the plane: the plane's score, the size of the sum of the
  // signed distances of all points, is then close to 0.
  for (int i = 0; i + 1 < outliers; i += 2) {
    const double x = u(gen), y = u(gen), offset = 0.05 + std::fabs(u(gen));
    pts.emplace_back(x, y, plane(x, y) + offset);
    pts.emplace_back(x, y, plane(x, y) - offset);
  }
  return pts;
}

template <class V, class S>
void finds_plane_among_outliers() {
  const std::vector<V> pts = noisy_plane<V>(600, 400);  // 40 % outliers
  quib::RANSAC_Plane<V, S> ransac;
  ASSERT_TRUE(ransac.compute(pts, S(0.01), 0.99, 2000));
  ASSERT_EQ(ransac.result().size(), 4u);
  const V n = ransac.result()[3];
  const V expect = V(S(-0.2), S(0.1), S(1)).normalized();
  EXPECT_GT(std::fabs(n.dot(expect)), S(0.999));
  const std::vector<int>& in = ransac.indices();
  EXPECT_TRUE(std::is_sorted(in.begin(), in.end()));
  EXPECT_GE(in.size(), 600u);
  EXPECT_LT(in.size(), 620u);
}

TEST(RANSAC_Plane, FindsPlaneAmongOutliersInBothPrecisions) {
  finds_plane_among_outliers<Eigen::Vector3d, double>();
  finds_plane_among_outliers<Eigen::Vector3f, float>();
}

TEST(RANSAC_Plane, ModelStepsAndStrictThreshold) {
  using V = Eigen::Vector3d;
  PlaneProbe<V, double> probe;
  const std::vector<V> pts{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {2, 2, 0}, {0, 0, 0.5}, {0, 0, -2}};
  std::vector<std::vector<V>> models;
  EXPECT_FALSE(probe.find(models, {{0, 0, 0}, {1, 1, 1}, {3, 3, 3}}, {0, 1, 2}));  // collinear
  EXPECT_FALSE(probe.find(models, pts, {0, 0, 1}));                                // repeated index
  EXPECT_FALSE(probe.find(models, pts, {0, 1}));
  EXPECT_TRUE(models.empty());
  ASSERT_TRUE(probe.find(models, pts, {0, 1, 2}));
  ASSERT_EQ(models.size(), 1u);
  EXPECT_EQ(std::fabs(models[0][3].z()), 1.0);

  std::vector<int> inliers{99};
  double score = 0;
  EXPECT_EQ(probe.measure(inliers, score, pts, models, 0.5), 0);
  EXPECT_EQ(inliers, (std::vector<int>{0, 1, 2, 3}));  // 0.5 away is not inside 0.5
  EXPECT_DOUBLE_EQ(score, 1.5);                        // |0.5 - 2|: all points count
  EXPECT_EQ(probe.measure(inliers, score, {{0, 0, 3}}, models, 0.5), 0);
  EXPECT_TRUE(inliers.empty());
  EXPECT_EQ(score, std::numeric_limits<double>::max());
  EXPECT_EQ(probe.measure(inliers, score, pts, {}, 0.5), -1);
  EXPECT_EQ(score, std::numeric_limits<double>::max());
}

TEST(RANSAC_Plane, SmallSetsAndIterationBounds) {
  using V = Eigen::Vector3f;
  PlaneProbe<V, float> probe;
  EXPECT_FALSE(probe.compute({}, 0.1f, 0.99, 100));
  EXPECT_FALSE(probe.compute({{0, 0, 0}, {1, 0, 0}}, 0.1f, 0.99, 100));
  EXPECT_TRUE(probe.result().empty());
  EXPECT_TRUE(probe.indices().empty());

  // Every point on the plane: the required count drops to 0 after the first iteration.
  std::vector<V> flat;
  for (int i = 0; i < 50; ++i)
    flat.emplace_back(i % 7, i / 7, 1.0f);
  probe.measured = 0;
  ASSERT_TRUE(probe.compute(flat, 0.1f, 0.99, 100));
  EXPECT_EQ(probe.measured, 1);
  EXPECT_EQ(probe.indices().size(), 50u);

  // n < 1 changes nothing.
  EXPECT_FALSE(probe.compute(flat, 0.1f, 0, 0.99, 100));
  EXPECT_EQ(probe.indices().size(), 50u);

  // p = 0 and p = 1 stop after one iteration; max_iterations bounds the rest.
  const std::vector<V> mixed = noisy_plane<V>(60, 40);
  for (double p : {0.0, 1.0}) {
    probe.measured = 0;
    EXPECT_TRUE(probe.compute(mixed, 0.01f, p, 100));
    EXPECT_EQ(probe.measured, 1) << p;
  }
  probe.measured = 0;
  EXPECT_TRUE(probe.compute(mixed, 0.01f, 0.999999, 4));
  EXPECT_LE(probe.measured, 5);
}

TEST(RANSAC_Plane, CallsInTheSameSecondAgree) {
  const std::vector<Eigen::Vector3d> pts = noisy_plane<Eigen::Vector3d>(300, 200);
  for (int attempt = 0; attempt < 3; ++attempt) {
    quib::RANSAC_Plane<Eigen::Vector3d, double> a, b;
    const std::time_t before = std::time(nullptr);
    EXPECT_TRUE(a.compute(pts, 0.05, 0.5, 20));
    EXPECT_TRUE(b.compute(pts, 0.05, 0.5, 20));
    if (std::time(nullptr) != before) continue;  // crossed a second: try again
    EXPECT_EQ(a.indices(), b.indices());
    EXPECT_EQ(a.result(), b.result());
    return;
  }
}

}  // namespace
