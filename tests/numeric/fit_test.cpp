#include <quib/fit.hpp>
#include <quib/robust.hpp>

#include <gtest/gtest.h>

#include <Eigen/LU>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace {

using P2 = Eigen::Matrix<double, 2, 1>;
using P3 = Eigen::Matrix<double, 3, 1>;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kTwoPi = 6.283185307179586;

std::vector<P2> circle_points(double cx, double cy, double r, int n) {
  std::vector<P2> pts;
  for (int i = 0; i < n; ++i) {
    const double t = kTwoPi * i / n;
    pts.emplace_back(cx + r * std::cos(t), cy + r * std::sin(t));
  }
  return pts;
}

std::vector<P3> sphere_points(const P3& c, double r) {
  std::vector<P3> pts;
  for (int i = 0; i < 12; ++i)
    for (int j = 1; j < 6; ++j) {
      const double t = kTwoPi * i / 12, u = kTwoPi / 12 * j;
      pts.push_back(c + r * P3(std::cos(t) * std::sin(u), std::sin(t) * std::sin(u), std::cos(u)));
    }
  return pts;
}

TEST(LeastSquaresFit, RecoversExactModels) {
  std::vector<P2> line{{-1.0, -3.5}, {0.0, -1.0}, {2.0, 4.0}, {3.0, 6.5}};
  const auto l = quib::LeastSquaresLine::create(line);
  ASSERT_TRUE(l.is());
  EXPECT_NEAR(l.a(), 2.5, 1e-12);
  EXPECT_NEAR(l.b(), -1.0, 1e-12);
  EXPECT_NEAR(l.get_y(4.0), 9.0, 1e-12);

  const quib::LeastSquaresCircle c(circle_points(350.0, -120.0, 75.0, 40));
  ASSERT_TRUE(c.is());
  EXPECT_NEAR(c.x(), 350.0, 1e-9);
  EXPECT_NEAR(c.y(), -120.0, 1e-9);
  EXPECT_NEAR(c.r(), 75.0, 1e-9);

  std::vector<P3> plane;
  for (int i = -3; i <= 3; ++i)
    for (int j = -2; j <= 4; ++j)
      plane.emplace_back(i, j, 0.5 * i - 2.0 * j + 7.0);
  const quib::LeastSquaresPlane p(plane);
  ASSERT_TRUE(p.is());
  EXPECT_NEAR(p.a(), 0.5, 1e-12);
  EXPECT_NEAR(p.b(), -2.0, 1e-12);
  EXPECT_NEAR(p.c(), 7.0, 1e-12);
  // The unit normal and the normalised offset describe the same plane.
  const double n = std::sqrt(0.25 + 4.0 + 1.0);
  EXPECT_NEAR(p.x(), -0.5 / n, 1e-12);
  EXPECT_NEAR(p.y(), 2.0 / n, 1e-12);
  EXPECT_NEAR(p.z(), 1.0 / n, 1e-12);
  EXPECT_NEAR(p.d(), 7.0 / n, 1e-12);
  for (const P3& q : plane)
    EXPECT_NEAR(p.x() * q[0] + p.y() * q[1] + p.z() * q[2], p.d(), 1e-9);

  const quib::LeastSquaresSphere s(sphere_points(P3(10.0, -4.0, 2.5), 3.0));
  ASSERT_TRUE(s.is());
  EXPECT_NEAR(s.x(), 10.0, 1e-9);
  EXPECT_NEAR(s.y(), -4.0, 1e-9);
  EXPECT_NEAR(s.z(), 2.5, 1e-9);
  EXPECT_NEAR(s.r(), 3.0, 1e-9);
  // d() of a sphere is the raw coefficient: |c|² - r².
  EXPECT_NEAR(s.d(), 100.0 + 16.0 + 6.25 - 9.0, 1e-7);
}

TEST(LeastSquaresCircle, CompensatedSumsKeepFarCirclesAccurate) {
  const double cx = 1e4, cy = 5e3, r = 100.0;
  const std::vector<P2> pts = circle_points(cx, cy, r, 20000);
  const quib::LeastSquaresCircle fit(pts);
  ASSERT_TRUE(fit.is());
  const double error = std::hypot(fit.x() - cx, fit.y() - cy);

  // The same normal equations with plain sums.
  double s[9] = {};
  for (const P2& p : pts) {
    const double x = p[0], y = p[1], q = x * x + y * y;
    const double t[9] = {x * x, x * y, x, y * y, y, 1.0, x * q, y * q, q};
    for (int k = 0; k < 9; ++k)
      s[k] += t[k];
  }
  Eigen::Matrix3d m;
  m << s[0], s[1], s[2], s[1], s[3], s[4], s[2], s[4], s[5];
  const Eigen::Vector3d plain = m.fullPivLu().solve(Eigen::Vector3d(-s[6], -s[7], -s[8]));
  const double plain_error = std::hypot(-0.5 * plain[0] - cx, -0.5 * plain[1] - cy);

  EXPECT_LT(error, 1e-7);
  EXPECT_GT(plain_error, 10.0 * error);
}

TEST(LeastSquaresFit, SkipsNonFinitePointsAndGivesMissingWeightsZero) {
  std::vector<P2> pts = circle_points(2.0, 3.0, 4.0, 8);
  const quib::LeastSquaresCircle clean(pts);
  pts.insert(pts.begin() + 2, P2(kNaN, 1.0));
  pts.emplace_back(5.0, kInf);
  const quib::LeastSquaresCircle dirty(pts);
  EXPECT_DOUBLE_EQ(dirty.a(), clean.a());
  EXPECT_DOUBLE_EQ(dirty.b(), clean.b());
  EXPECT_DOUBLE_EQ(dirty.c(), clean.c());

  // Weights for the first three points only: the rest do not count.
  std::vector<P2> line{{0.0, 1.0}, {1.0, 3.0}, {2.0, 5.0}, {3.0, 100.0}, {4.0, -50.0}};
  quib::LeastSquaresLine l;
  ASSERT_TRUE(l.calculate(line, {1.0, 2.0, 0.5}));
  EXPECT_NEAR(l.a(), 2.0, 1e-12);
  EXPECT_NEAR(l.b(), 1.0, 1e-12);
  EXPECT_FALSE(l.calculate(line, {}));
  EXPECT_TRUE(std::isnan(l.a()));
}

TEST(LeastSquaresFit, DegenerateSetsGiveNaNAndFalse) {
  const std::vector<P2> none;
  const std::vector<P2> all_nan{{kNaN, 1.0}, {2.0, kNaN}, {kNaN, kNaN}};
  const std::vector<P2> same_x{{1.5, 1.0}, {1.5, 2.0}, {1.5, 7.0}};
  const std::vector<P2> near_x{{0.1, 1.0}, {0.1, 2.0}, {0.1, 3.0}};
  for (const auto* set : {&none, &all_nan, &same_x, &near_x}) {
    quib::LeastSquaresLine l;
    EXPECT_FALSE(l.calculate(*set));
    EXPECT_TRUE(l.empty());
    EXPECT_TRUE(std::isnan(l.a()) && std::isnan(l.b()));
  }
  EXPECT_FALSE(quib::LeastSquaresCircle(none).is());
  EXPECT_FALSE(quib::LeastSquaresCircle({{0, 0}, {1, 1}}).is());
  EXPECT_FALSE(quib::LeastSquaresPlane(std::vector<P3>{}).is());
  EXPECT_FALSE(quib::LeastSquaresPlane({{0, 0, 0}, {1, 1, 1}, {2, 2, 2}, {3, 3, 3}}).is());
  EXPECT_FALSE(quib::LeastSquaresSphere({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}).is());

  // A failed fit leaves the residual vector alone.
  std::vector<double> d{42.0};
  EXPECT_FALSE(quib::LeastSquaresPlane().get_d(d, {{1, 2, 3}}));
  EXPECT_FALSE(quib::LeastSquaresSphere().get_d(d, {{1, 2, 3}}));
  EXPECT_EQ(d, std::vector<double>{42.0});

  quib::LeastSquaresCircle c(circle_points(0, 0, 1, 6));
  ASSERT_TRUE(c.is());
  c.clear();
  EXPECT_TRUE(std::isnan(c.a()) && std::isnan(c.b()) && std::isnan(c.c()));
}

TEST(LeastSquaresFit, ResidualsFollowEachModel) {
  std::vector<double> d;
  const quib::LeastSquaresLine l({{0, 1}, {1, 3}});
  ASSERT_TRUE(l.get_d(d, {{2.0, 4.0}, {kNaN, 0.0}}));
  ASSERT_EQ(d.size(), 2u);
  EXPECT_NEAR(d[0], -1.0, 1e-12);
  EXPECT_TRUE(std::isnan(d[1]));

  const quib::LeastSquaresPlane p({{0, 0, 1}, {1, 0, 2}, {0, 1, 4}});
  ASSERT_TRUE(p.get_d(d, {{1.0, 1.0, 10.0}}));
  EXPECT_NEAR(d[0], 10.0 - (1.0 + 3.0 + 1.0), 1e-12);

  // Circles and spheres report the algebraic residual |p - c|² - r², not the distance.
  const quib::LeastSquaresCircle c(circle_points(1.0, 2.0, 2.0, 12));
  ASSERT_TRUE(c.get_d(d, {{4.0, 2.0}, {1.0, 2.0}}));
  EXPECT_NEAR(d[0], 9.0 - 4.0, 1e-9);
  EXPECT_NEAR(d[1], -4.0, 1e-9);
  const quib::LeastSquaresSphere s(sphere_points(P3(0, 0, 1), 1.0));
  ASSERT_TRUE(s.get_d(d, {{0.0, 0.0, 4.0}}));
  EXPECT_NEAR(d[0], 9.0 - 1.0, 1e-9);
}

TEST(LeastSquaresFit, RobustRefitResistsOutliers) {
  std::mt19937 gen(7);
  std::normal_distribution<double> noise(0.0, 0.05);
  std::vector<P2> pts;
  for (int i = 0; i < 100; ++i) {
    const double x = i * 0.1;
    const bool outlier = i % 5 == 0;  // 20 %
    pts.emplace_back(x, 0.75 * x + 2.0 + (outlier ? 8.0 + x : noise(gen)));
  }
  const auto plain = quib::LeastSquaresLine::create(pts);
  const auto robust = quib::LeastSquaresLine::create(pts, 0.5);
  ASSERT_TRUE(robust.is());
  EXPECT_GT(std::fabs(plain.b() - 2.0), 0.5);
  EXPECT_LT(std::fabs(robust.a() - 0.75), 0.5 * std::fabs(plain.a() - 0.75));
  EXPECT_LT(std::fabs(robust.b() - 2.0), 0.5 * std::fabs(plain.b() - 2.0));

  // k = 0 puts the threshold at the median residual: a different, still finite fit.
  EXPECT_TRUE(quib::LeastSquaresLine::create(pts, 0.0).is());
  // Exact data: the MAD is 0 and so is every residual, so the weighting is switched off.
  const std::vector<P2> exact{{0, 1}, {1, 2}, {2, 3}};
  EXPECT_NEAR(quib::LeastSquaresLine::create(exact, 3.0).a(), 1.0, 1e-12);
  EXPECT_FALSE(quib::LeastSquaresCircle::create(std::vector<P2>{}, 3.0).is());
}

TEST(LeastSquaresLine, IterativeFitTurnsSteepLinesFlat) {
  std::vector<P2> pts;
  for (int i = 0; i < 20; ++i)
    pts.emplace_back(i * 0.05, 12.0 * i * 0.05 - 3.0);
  const auto line = quib::LeastSquaresLine::create_iterative(pts, 1e-9, 10);
  ASSERT_TRUE(line.is());
  // The first pass finds the slope; the turned points are flat and add (almost) nothing.
  EXPECT_NEAR(line.a(), 12.0, 1e-9);
  EXPECT_NEAR(line.b(), -3.0, 1e-9);
  EXPECT_NEAR(quib::LeastSquaresLine::create_iterative(pts, 1e-9, 10, 2.0).a(), 12.0, 1e-9);

  EXPECT_FALSE(quib::LeastSquaresLine::create_iterative(pts, 1e-9, 0).is());
  EXPECT_FALSE(quib::LeastSquaresLine::create_iterative({{1, 1}, {1, 2}}, 1e-9, 3).is());
}

TEST(RobustM, BiweightsAndSwitchedOffThresholds) {
  quib::RobustM m({0.0, 1.0, -2.0, 4.0, kNaN}, 2.0);
  ASSERT_TRUE(m.is());
  const std::vector<double> expect{1.0, 0.5625, 0.0, 0.0, 0.0};
  EXPECT_EQ(*m, expect);

  EXPECT_FALSE(m.estimate(std::vector<double>{}, 1.0));
  EXPECT_EQ(m.array(), expect);  // kept

  for (double c : {0.0, kNaN, kInf}) {
    ASSERT_TRUE(m.estimate(std::vector<double>{3.0, kNaN}, c));
    EXPECT_EQ(*m, (std::vector<double>{1.0, 1.0}));
  }
  ASSERT_TRUE(m.estimate(std::vector<double>{0.0, 1.0}, -1.0));
  EXPECT_EQ(*m, (std::vector<double>{0.0, 0.0}));

  quib::RobustM f(std::vector<float>{0.5f, 3.0f}, 1.0f);
  EXPECT_EQ(*f, (std::vector<double>{0.5625, 0.0}));
  f.swap(m);
  EXPECT_EQ(m->size(), 2u);
  m.clear();
  EXPECT_TRUE(m.empty());
}

TEST(RobustM, MediansAreOfAbsoluteValues) {
  using D = std::vector<double>;
  EXPECT_EQ(quib::RobustM::get_med(D{-3.0, 1.0, 2.0}), 2.0);
  EXPECT_EQ(quib::RobustM::get_med(D{-4.0, 1.0}), 2.5);
  EXPECT_EQ(quib::RobustM::get_med(D{-4.0, kNaN, 1.0, kInf}), 2.5);
  EXPECT_EQ(quib::RobustM::get_med(std::vector<double>{}), 0.0);
  EXPECT_EQ(quib::RobustM::get_med(D{kNaN}), 0.0);
  EXPECT_EQ(quib::RobustM::get_mad(D{1.0, 2.0, 6.0, kNaN}, 2.0), 1.0);
  EXPECT_EQ(quib::RobustM::get_med(std::vector<float>{-3.0f, 1.0f, 2.0f, 8.0f}), 2.5f);
  EXPECT_EQ(quib::RobustM::get_mad(std::vector<float>{1.0f, 5.0f}, 1.0f), 2.0f);
  EXPECT_DOUBLE_EQ(quib::RobustM::get_madn(0.6745), 1.0);
}

}  // namespace
