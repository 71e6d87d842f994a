#include <quib/curve.hpp>
#include <quib/slope.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

namespace {

using P2 = Eigen::Matrix<double, 2, 1>;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Samples of y = Σ coef[i]·x^(n-i) at x = -2, -1.75, ... 2.
std::vector<P2> sample(const std::vector<double>& coef) {
  std::vector<P2> pts;
  for (int i = -8; i <= 8; ++i) {
    const double x = i * 0.25;
    double y = 0.0;
    for (double c : coef)
      y = y * x + c;
    pts.emplace_back(x, y);
  }
  return pts;
}

quib::LeastSquaresDimension exact(const std::vector<double>& coef) {
  return quib::LeastSquaresDimension(1.0, static_cast<int>(coef.size()) - 1, sample(coef));
}

TEST(LeastSquaresCurve, FitsPolynomialsOfDegreeOneToSix) {
  const quib::LeastSquaresCurve q(sample({1.5, -2.0, 0.25}));
  ASSERT_TRUE(q.is());
  EXPECT_NEAR(q.a(), 1.5, 1e-12);
  EXPECT_NEAR(q.b(), -2.0, 1e-12);
  EXPECT_NEAR(q.c(), 0.25, 1e-12);
  const quib::LeastSquaresCurve3 c3(sample({-0.5, 1.0, 3.0, -4.0}));
  ASSERT_TRUE(c3.is());
  EXPECT_NEAR(c3.a(), -0.5, 1e-11);
  EXPECT_NEAR(c3.d(), -4.0, 1e-11);
  EXPECT_NEAR(c3.get_y(3.0), -13.5 + 9.0 + 9.0 - 4.0, 1e-10);

  const std::vector<double> all{0.75, -1.0, 2.0, 0.5, -3.0, 1.25, 4.0};
  for (std::size_t degree = 1; degree <= 6; ++degree) {
    SCOPED_TRACE(degree);
    const std::vector<double> coef(all.end() - static_cast<long>(degree) - 1, all.end());
    const quib::LeastSquaresDimension poly(2.0, static_cast<int>(degree), sample(coef));
    ASSERT_EQ(poly.size(), static_cast<int>(degree) + 1);
    EXPECT_EQ(poly.get_numeric(), static_cast<int>(degree));
    for (std::size_t i = 0; i < coef.size(); ++i)
      EXPECT_NEAR(poly[static_cast<int>(i)], coef[i], 1e-9);
  }
}

TEST(LeastSquaresCurve, FailuresLeaveNoFit) {
  EXPECT_FALSE(quib::LeastSquaresCurve({{1, 1}, {2, 2}}).is());
  EXPECT_FALSE(quib::LeastSquaresCurve3({{1, 1}, {1, 2}, {1, 3}, {1, 4}, {kNaN, 0}}).is());
  quib::LeastSquaresDimension poly;
  EXPECT_FALSE(poly.calculate(2, {}));
  EXPECT_FALSE(poly.calculate(-1, sample({1.0})));
  EXPECT_FALSE(poly.calculate(3, {{0, 0}, {1, 1}, {2, 2}}));
  EXPECT_FALSE(poly.calculate(1, {{kNaN, 0}, {1, 1}, {1, 2}}));
  EXPECT_TRUE(poly.empty());
  EXPECT_EQ(poly.get_y(3.0), 0.0);
  EXPECT_EQ(poly.get_slope(3.0), 0.0);
  std::vector<double> d{7.0};
  EXPECT_FALSE(poly.get_d(d, {{1, 1}}));
  EXPECT_EQ(d, std::vector<double>{7.0});
}

TEST(LeastSquaresDimension, ScaleStaysWithItsObject) {
  std::vector<P2> pts{{0, 2}, {1, 2}, {2, 2}};
  quib::LeastSquaresDimension twice(2.0, 0, pts);  // stored coefficient 4, read as 2
  ASSERT_TRUE(twice.is());
  EXPECT_DOUBLE_EQ(twice[0], 2.0);
  EXPECT_DOUBLE_EQ(twice.get_y(5.0), 2.0);
  std::vector<double> d;
  ASSERT_TRUE(twice.get_d(d, {{0, 3}}));
  EXPECT_DOUBLE_EQ(d[0], 1.0);

  quib::LeastSquaresDimension plain(1.0);
  plain.swap(twice);
  EXPECT_EQ(plain.get_scale(), 1.0);
  EXPECT_DOUBLE_EQ(plain[0], 4.0);
  EXPECT_TRUE(twice.empty());
  EXPECT_EQ(twice.get_scale(), 2.0);
}

TEST(LeastSquaresDimension, RobustRefitIgnoresOutliers) {
  std::vector<P2> pts = sample({0.5, -1.0, 2.0});
  for (std::size_t i = 0; i < pts.size(); i += 5)
    pts[i][1] += 20.0;
  const auto robust = quib::LeastSquaresDimension::create(1.0, 2, pts, 0.5);
  const auto plain = quib::LeastSquaresDimension::create(1.0, 2, pts);
  EXPECT_LT(std::fabs(robust[2] - 2.0), 0.1 * std::fabs(plain[2] - 2.0));
  const auto curve = quib::LeastSquaresCurve::create(pts, 0.5);
  EXPECT_NEAR(curve.c(), robust[2], 1e-9);
}

TEST(LeastSquaresDimension, LengthAreaAndInverseLength) {
  const auto diagonal = exact({1.0, 0.0});  // y = x
  const double root2 = std::sqrt(2.0);
  // Samples 1..9 below x1 = 10: the partial last step is not counted.
  EXPECT_NEAR(diagonal.get_length(0.0, 10.0, 1.0), 9.0 * root2, 1e-9);
  EXPECT_NEAR(diagonal.get_length(0.0, 9.5, 1.0), 9.0 * root2, 1e-9);
  EXPECT_EQ(diagonal.get_length(0.0, 1.0, 1.0), 0.0);
  EXPECT_EQ(diagonal.get_length(0.0, 10.0, -1.0), 0.0);

  EXPECT_EQ(diagonal.get_x(0.3, 0.0, 1.0), 0.3);
  EXPECT_NEAR(diagonal.get_x(0.0, 2.5 * root2, 1.0), 3.0, 1e-12);
  EXPECT_NEAR(diagonal.get_x(0.0, -2.4 * root2, 0.5), -2.5, 1e-12);
  EXPECT_TRUE(std::isnan(diagonal.get_x(0.0, kNaN, 1.0)));
  EXPECT_TRUE(std::isnan(diagonal.get_x(0.0, 1.0, 0.0)));
  // Found by fuzzing: chords of tiny steps must not square to 0 and stall the walk.
  EXPECT_NEAR(diagonal.get_x(0.0, 2.5e-200 * root2, 1e-200), 3e-200, 1e-210);

  const auto parabola = exact({1.0, 0.0, 0.0});
  EXPECT_NEAR(parabola.get_area(0.0, 3.0), 9.0, 1e-9);
  EXPECT_NEAR(diagonal.get_area(-1.0, 2.0), 1.5, 1e-12);
  EXPECT_NEAR(diagonal.get_area2(-1.0, 2.0, 0.25), 2.5, 1e-12);
  EXPECT_NEAR(diagonal.get_area2(-1.0, 2.0, 0.3), 2.5, 1e-12);
}

TEST(LeastSquaresDimension, RootsAtSamplesAndBetweenThem) {
  std::vector<double> roots{99.0};
  // (x - 1)(x - 2.5): both roots fall on samples.
  ASSERT_EQ(exact({1.0, -3.5, 2.5}).get_solution(roots, 0.0, 4.0, 0.5), 2);
  EXPECT_NEAR(roots[0], 1.0, 1e-12);
  EXPECT_NEAR(roots[1], 2.5, 1e-12);
  // A root at x0 counts; x1 does not.
  EXPECT_EQ(exact({1.0, -1.0}).get_solution(roots, 1.0, 3.0, 0.5), 1);
  EXPECT_EQ(exact({1.0, -3.0}).get_solution(roots, 1.0, 3.0, 0.5), 0);
  // x² - 2 changes sign between 1.25 and 1.5: one secant-like step from 1.25.
  ASSERT_EQ(exact({1.0, 0.0, -2.0}).get_solution(roots, 0.0, 3.0, 0.25), 1);
  const double slope_mean = 0.5 * (2.5 + 3.0);
  EXPECT_NEAR(roots[0], 1.25 - (1.5625 - 2.0) / slope_mean, 1e-12);
  EXPECT_NEAR(roots[0], std::sqrt(2.0), 0.02);
  EXPECT_EQ(exact({1.0, 0.0, -2.0}).get_solution(roots, 0.0, 3.0, 0.0), 0);
  EXPECT_TRUE(roots.empty());
}

TEST(LeastSquaresDimension, ExtremesAndLocalTurns) {
  std::vector<int> kinds;
  std::vector<P2> points;
  // x³ - 3x: maximum at -1, minimum at 1; the event is the first sample past the turn.
  const auto wave = exact({1.0, 0.0, -3.0, 0.0});
  ASSERT_EQ(wave.get_extreme(kinds, points, -3.0, 3.0, 0.125), 2);
  EXPECT_EQ(kinds, (std::vector<int>{1, -1}));
  EXPECT_NEAR(points[0][0], -0.875, 1e-12);
  EXPECT_NEAR(points[0][1], wave.get_y(-0.875), 1e-12);
  EXPECT_NEAR(points[1][0], 1.125, 1e-12);
  EXPECT_EQ(wave.get_local(kinds, points, -3.0, 3.0, 0.125), 2);
  EXPECT_EQ(wave.get_extreme(kinds, points, 3.0, -3.0, 0.125), 0);
  EXPECT_TRUE(kinds.empty());

  // x³ + x rises throughout, weakening towards 0 and strengthening after: a local turn only.
  const auto bend = exact({1.0, 0.0, 1.0, 0.0});
  EXPECT_EQ(bend.get_extreme(kinds, points, -2.0, 2.0, 0.1), 0);
  ASSERT_EQ(bend.get_local(kinds, points, -2.0, 2.0, 0.1), 1);
  EXPECT_EQ(kinds[0], 0);
  EXPECT_NEAR(points[0][0], 0.1, 1e-9);

  // The by-value overloads leave the caller's vector alone and agree with the others.
  std::vector<double> strongest{5.0};
  EXPECT_EQ(wave.get_extreme(kinds, points, strongest, -3.0, 3.0, 0.125), 2);
  EXPECT_EQ(bend.get_local(kinds, points, strongest, -2.0, 2.0, 0.1), 1);
  EXPECT_EQ(strongest, std::vector<double>{5.0});
}

TEST(Slope, LocalTurnsAndSignChanges) {
  int turn = 7;
  quib::Slope rising(1);
  EXPECT_FALSE(rising.is_local(turn, 3.0));
  EXPECT_FALSE(rising.is_local(turn, 2.0));
  EXPECT_FALSE(rising.is_local(turn, 1.0));
  EXPECT_EQ(rising.get_peak(), 3.0);
  EXPECT_EQ(rising.get_rebound(), 1.0);
  EXPECT_EQ(turn, 7);
  EXPECT_TRUE(rising.is_local(turn, 1.0));  // equal to the rebound: strengthening again
  EXPECT_EQ(turn, 0);
  EXPECT_EQ(rising.get_peak(), 0.0);

  turn = 7;
  EXPECT_FALSE(rising.is_local(turn, 3.0));
  EXPECT_TRUE(rising.is_local(turn, -1.0));
  EXPECT_EQ(turn, 1);
  EXPECT_EQ(rising.get_peak(), 0.0);
  EXPECT_EQ(rising.get_rebound(), 0.0);
  turn = 7;
  EXPECT_TRUE(rising.is_local(turn, 0.0));  // right after a reset
  EXPECT_EQ(turn, 0);
  turn = 7;
  EXPECT_TRUE(rising.is_local(turn, kNaN));
  EXPECT_EQ(turn, 0);

  quib::Slope falling(-1);
  turn = 7;
  EXPECT_FALSE(falling.is_local(turn, -3.0));
  EXPECT_FALSE(falling.is_local(turn, -1.0));
  EXPECT_TRUE(falling.is_local(turn, -2.0));
  EXPECT_EQ(turn, 0);
  EXPECT_TRUE(falling.is_local(turn, 0.5));
  EXPECT_EQ(turn, -1);

  turn = 7;
  EXPECT_FALSE(falling.is_extreme(turn, -1.0));
  EXPECT_EQ(turn, 7);
  EXPECT_FALSE(falling.is_extreme(turn, 0.0));
  EXPECT_EQ(turn, 0);
  EXPECT_FALSE(falling.is_extreme(turn, kNaN));
  EXPECT_TRUE(rising.is_extreme(turn, -0.5));
  EXPECT_EQ(turn, 1);

  quib::Slope none;
  EXPECT_FALSE(none.is());
  turn = 7;
  EXPECT_FALSE(none.is_local(turn, -1.0));
  EXPECT_FALSE(none.is_extreme(turn, -1.0));
  EXPECT_EQ(turn, 7);
  rising.is_local(turn, 4.0);
  rising.dir(0);
  EXPECT_EQ(rising.get_peak(), 0.0);
}

}  // namespace
