// Statistics of the fits (covariance, standard errors, RMS, count), the geometric circle and
// sphere, and the exactness of the lane-wise compensated sums.
#include <quib/curve.hpp>
#include <quib/fit.hpp>
#include <quib/math.hpp>

#include <gtest/gtest.h>

#include <Eigen/LU>

#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <vector>

namespace {

using P2 = Eigen::Matrix<double, 2, 1>;
using P3 = Eigen::Matrix<double, 3, 1>;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kPi = 3.141592653589793;

// Two-sided 97.5 % quantile of Student's t for the degrees of freedom used below.
double t975(int dof) {
  // 1.96 + 2.4/dof + 3.0/dof² is within 0.002 of the table from 20 degrees of freedom on.
  return 1.959964 + 2.37228 / dof + 2.8225 / (static_cast<double>(dof) * dof);
}

// Runs `trials` fits; each returns its estimates, FitInfo and the true values. Counts, per
// parameter, how often the nominal 95 % interval estimate ± t·se holds the truth.
struct Coverage {
  std::vector<int> hits;
  int trials = 0;
  void add(const Eigen::VectorXd& estimate, const Eigen::VectorXd& truth,
           const quib::FitInfo& info) {
    ASSERT_TRUE(info.is());
    const int dof = static_cast<int>(info.get_count()) - static_cast<int>(estimate.size());
    if (hits.empty()) hits.assign(static_cast<std::size_t>(estimate.size()), 0);
    for (Eigen::Index i = 0; i < estimate.size(); ++i)
      if (std::fabs(estimate[i] - truth[i]) <=
          t975(dof) * info.get_standard_error(static_cast<int>(i)))
        ++hits[static_cast<std::size_t>(i)];
    ++trials;
  }
  void expect_nominal(const char* what) const {
    for (std::size_t i = 0; i < hits.size(); ++i) {
      const double share = static_cast<double>(hits[i]) / trials;
      EXPECT_GE(share, 0.93) << what << " parameter " << i;
      EXPECT_LE(share, 0.97) << what << " parameter " << i;
    }
  }
};

constexpr int kTrials = 2000;

TEST(FitInfo, NominalIntervalsCoverTheTruth) {
  std::mt19937 gen(11);
  std::normal_distribution<double> noise(0.0, 0.2);
  std::uniform_real_distribution<double> u(-3.0, 3.0);
  Coverage line, plane, poly, circle, sphere;
  for (int t = 0; t < kTrials; ++t) {
    std::vector<P2> l, q, c;
    std::vector<P3> p, s;
    for (int i = 0; i < 25; ++i) {
      const double x = u(gen), y = u(gen);
      l.emplace_back(x, 1.5 * x - 0.5 + noise(gen));
      q.emplace_back(x, 0.3 * x * x - x + 2.0 + noise(gen));
      p.emplace_back(x, y, -0.25 * x + 0.75 * y + 4.0 + noise(gen));
      // Orthogonal noise: radial for the circle and the sphere.
      const double a = 2.0 * kPi * i / 25.0;
      const double rc = 5.0 + noise(gen);
      c.emplace_back(1.0 + rc * std::cos(a), -2.0 + rc * std::sin(a));
      const P3 dir = P3(u(gen), u(gen), u(gen)).normalized();
      s.push_back(P3(0.5, 1.0, -1.5) + (4.0 + noise(gen)) * dir);
    }
    quib::FitInfo info;
    quib::LeastSquaresLine fl;
    ASSERT_TRUE(fl.calculate(l, info));
    line.add(Eigen::Vector2d(fl.a(), fl.b()), Eigen::Vector2d(1.5, -0.5), info);
    quib::LeastSquaresCurve fq;
    ASSERT_TRUE(fq.calculate(q, info));
    poly.add(Eigen::Vector3d(fq.a(), fq.b(), fq.c()), Eigen::Vector3d(0.3, -1.0, 2.0), info);
    quib::LeastSquaresPlane fp;
    ASSERT_TRUE(fp.calculate(p, info));
    plane.add(Eigen::Vector3d(fp.a(), fp.b(), fp.c()), Eigen::Vector3d(-0.25, 0.75, 4.0), info);
    quib::GeometricCircle fc;
    ASSERT_TRUE(fc.calculate(c, info));
    circle.add(Eigen::Vector3d(fc.x(), fc.y(), fc.r()), Eigen::Vector3d(1.0, -2.0, 5.0), info);
    quib::GeometricSphere fs;
    ASSERT_TRUE(fs.calculate(s, info));
    sphere.add(Eigen::Vector4d(fs.x(), fs.y(), fs.z(), fs.r()),
               Eigen::Vector4d(0.5, 1.0, -1.5, 4.0), info);
    if (HasFatalFailure()) return;
  }
  line.expect_nominal("line");
  poly.expect_nominal("parabola");
  plane.expect_nominal("plane");
  circle.expect_nominal("geometric circle");
  sphere.expect_nominal("geometric sphere");
}

// Covariance and RMS from the moments equal σ²(JᵀWJ)⁻¹ and sqrt(Σw·r²/Σw) computed from the
// design matrix and the residuals of get_d().
TEST(FitInfo, MatchesTheDesignMatrix) {
  std::mt19937 gen(5);
  std::normal_distribution<double> noise(0.0, 0.5);
  std::uniform_real_distribution<double> u(-10.0, 10.0), uw(0.2, 2.0);
  std::vector<P2> c;
  std::vector<P3> s;
  std::vector<double> w;
  for (int i = 0; i < 40; ++i) {
    const double a = 0.15 * i;
    c.emplace_back(300.0 + 20.0 * std::cos(a) + noise(gen), -80.0 + 20.0 * std::sin(a));
    s.emplace_back(u(gen), u(gen), u(gen));
    s.back() = P3(5, 6, 7) + 12.0 * s.back().normalized() + P3::Constant(noise(gen));
    w.push_back(i == 7 ? 0.0 : uw(gen));
  }
  c.emplace_back(kNaN, 1.0);  // skipped, and so is the point of weight 0
  w.push_back(1.0);

  const auto check = [&](const Eigen::MatrixXd& design, const std::vector<double>& residuals,
                         const std::vector<double>& weights, const quib::FitInfo& info) {
    const Eigen::Index p = design.cols();
    Eigen::MatrixXd jtj = Eigen::MatrixXd::Zero(p, p);
    double rss = 0.0, sw = 0.0;
    std::size_t n = 0;
    for (Eigen::Index i = 0; i < design.rows(); ++i) {
      const double wi = weights[static_cast<std::size_t>(i)];
      if (wi == 0.0 || !design.row(i).allFinite()) continue;
      jtj += wi * design.row(i).transpose() * design.row(i);
      rss += wi * residuals[static_cast<std::size_t>(i)] * residuals[static_cast<std::size_t>(i)];
      sw += wi;
      ++n;
    }
    const Eigen::MatrixXd cov = rss / static_cast<double>(n - p) * jtj.inverse();
    ASSERT_TRUE(info.is());
    EXPECT_EQ(info.get_count(), n);
    // The RMS from the moments loses about eps·Σt²/RSS to cancellation: 4e11/4e3 here.
    EXPECT_NEAR(info.get_rms(), std::sqrt(rss / sw), 1e-7 * std::sqrt(rss / sw));
    for (Eigen::Index i = 0; i < p; ++i) {
      EXPECT_NEAR(info.get_standard_errors()[i], std::sqrt(cov(i, i)), 1e-6 * std::sqrt(cov(i, i)));
      for (Eigen::Index j = 0; j < p; ++j)
        EXPECT_NEAR(info.get_covariance()(i, j), cov(i, j),
                    1e-6 * std::sqrt(cov(i, i) * cov(j, j)));
    }
  };

  // Algebraic circle: rows (x, y, 1), residuals x² + y² + a·x + b·y + c.
  quib::FitInfo info;
  quib::LeastSquaresCircle circle;
  ASSERT_TRUE(circle.calculate(c, w, info));
  std::vector<double> d;
  ASSERT_TRUE(circle.get_d(d, c));
  Eigen::MatrixXd jc(static_cast<Eigen::Index>(c.size()), 3);
  for (std::size_t i = 0; i < c.size(); ++i)
    jc.row(static_cast<Eigen::Index>(i)) << c[i][0], c[i][1], 1.0;
  check(jc, d, w, info);

  // Sphere, unweighted.
  quib::LeastSquaresSphere sphere;
  ASSERT_TRUE(sphere.calculate(s, info));
  ASSERT_TRUE(sphere.get_d(d, s));
  Eigen::MatrixXd js(static_cast<Eigen::Index>(s.size()), 4);
  for (std::size_t i = 0; i < s.size(); ++i)
    js.row(static_cast<Eigen::Index>(i)) << s[i][0], s[i][1], s[i][2], 1.0;
  check(js, d, std::vector<double>(s.size(), 1.0), info);

  // Geometric circle: rows (-(p - c)/|p - c|, -1).
  quib::GeometricCircle g;
  ASSERT_TRUE(g.calculate(c, w, info));
  ASSERT_TRUE(g.get_d(d, c));
  Eigen::MatrixXd jg(static_cast<Eigen::Index>(c.size()), 3);
  for (std::size_t i = 0; i < c.size(); ++i) {
    const P2 v = (c[i] - P2(g.x(), g.y())).normalized();
    jg.row(static_cast<Eigen::Index>(i)) << -v[0], -v[1], -1.0;
  }
  check(jg, d, w, info);

  // Polynomial with a y scale: the statistics are those of the coefficients as read.
  std::vector<P2> q;
  for (int i = 0; i < 30; ++i)
    q.emplace_back(i * 0.1, 2.0 - 0.5 * i * 0.1 + 0.04 * i * i * 0.01 + noise(gen));
  quib::LeastSquaresDimension poly(8.0);
  ASSERT_TRUE(poly.calculate(2, q, info));
  ASSERT_TRUE(poly.get_d(d, q));
  Eigen::MatrixXd jp(30, 3);
  for (int i = 0; i < 30; ++i)
    jp.row(i) << q[static_cast<std::size_t>(i)][0] * q[static_cast<std::size_t>(i)][0],
        q[static_cast<std::size_t>(i)][0], 1.0;
  check(jp, d, std::vector<double>(30, 1.0), info);
}

TEST(FitInfo, RobustStepCountsThePointsThatStillCount) {
  std::vector<P2> pts;
  for (int i = 0; i < 50; ++i)
    pts.emplace_back(i, 2.0 * i + 1.0 + (i % 10 == 3 ? 500.0 : 0.01 * ((i * 7) % 5 - 2)));
  quib::FitInfo info;
  const auto plain = quib::LeastSquaresLine::create(pts);
  const auto robust = quib::LeastSquaresLine::create(pts, 0.5, info);
  EXPECT_EQ(robust.a(), quib::LeastSquaresLine::create(pts, 0.5).a());  // same fit
  ASSERT_TRUE(info.is());
  EXPECT_EQ(info.get_count(), 45u);  // the five outliers weigh 0
  EXPECT_LT(info.get_rms(), 0.05);
  EXPECT_NE(plain.a(), robust.a());

  // Statistics never change the fit itself.
  quib::LeastSquaresCircle a, b;
  const std::vector<P2> ring{{1, 0}, {0, 1.1}, {-1, 0}, {0, -0.9}, {0.7, 0.7}};
  ASSERT_TRUE(a.calculate(ring));
  ASSERT_TRUE(b.calculate(ring, info));
  EXPECT_EQ(a.a(), b.a());
  EXPECT_EQ(a.c(), b.c());
}

// The algebraic fit of a short arc pulls the radius inwards; the geometric fit does not.
// (A radius is about 1 / curvature, so even an unbiased curvature gives the radius a bias of
// about sd²/r: the noise is kept small enough for that to stay far below 0.1 sd.)
TEST(GeometricCircle, UnbiasedOnAThirtyDegreeArc) {
  std::mt19937 gen(3);
  std::normal_distribution<double> noise(0.0, 0.02);
  const double r = 10.0;
  double sum_g = 0.0, sum_g2 = 0.0, sum_a = 0.0, sum_a2 = 0.0;
  const int trials = 4000;
  for (int t = 0; t < trials; ++t) {
    std::vector<P2> arc;
    for (int i = 0; i < 40; ++i) {
      const double a = (kPi / 6.0) * i / 39.0;
      const double rr = r + noise(gen);
      arc.emplace_back(3.0 + rr * std::cos(a), 4.0 + rr * std::sin(a));
    }
    const quib::GeometricCircle g(arc);
    const quib::LeastSquaresCircle a(arc);
    ASSERT_TRUE(g.is());
    ASSERT_TRUE(a.is());
    sum_g += g.r(), sum_g2 += g.r() * g.r();
    sum_a += a.r(), sum_a2 += a.r() * a.r();
  }
  const double mean_g = sum_g / trials, sd_g = std::sqrt(sum_g2 / trials - mean_g * mean_g);
  const double mean_a = sum_a / trials, sd_a = std::sqrt(sum_a2 / trials - mean_a * mean_a);
  EXPECT_LT(std::fabs(mean_g - r), 0.1 * sd_g) << mean_g << " sd " << sd_g;
  EXPECT_GT(std::fabs(mean_a - r), 0.1 * sd_a) << mean_a << " sd " << sd_a;
}

TEST(GeometricFit, RecoversExactShapesAndDistances) {
  std::vector<P2> ring;
  for (int i = 0; i < 7; ++i)
    ring.emplace_back(1e4 + 3.0 * std::cos(i * 0.4), -2e4 + 3.0 * std::sin(i * 0.4));
  quib::FitInfo info;
  quib::GeometricCircle c;
  ASSERT_TRUE(c.calculate(ring, info));
  EXPECT_NEAR(c.x(), 1e4, 1e-8);
  EXPECT_NEAR(c.y(), -2e4, 1e-8);
  EXPECT_NEAR(c.r(), 3.0, 1e-9);
  EXPECT_NEAR(info.get_rms(), 0.0, 1e-9);
  std::vector<double> d;
  ASSERT_TRUE(c.get_d(d, {{1e4, -2e4 + 5.0}, {1e4, -2e4}}));
  EXPECT_NEAR(d[0], 2.0, 1e-9);
  EXPECT_NEAR(d[1], -3.0, 1e-9);

  std::vector<P3> ball;
  for (int i = 0; i < 6; ++i)
    for (int j = 1; j < 5; ++j)
      ball.push_back(P3(1, 2, 3) + 2.0 * P3(std::cos(i) * std::sin(j * 0.6),
                                            std::sin(i) * std::sin(j * 0.6), std::cos(j * 0.6)));
  const quib::GeometricSphere s(ball);
  ASSERT_TRUE(s.is());
  EXPECT_NEAR(s.z(), 3.0, 1e-9);
  EXPECT_NEAR(s.r(), 2.0, 1e-9);
}

TEST(GeometricFit, DegenerateSetsGiveNoResult) {
  quib::FitInfo info;
  const std::vector<std::vector<P2>> circles{
      {},
      {{0, 0}, {1, 1}},                            // fewer points than parameters
      {{2, 2}, {2, 2}, {2, 2}, {2, 2}},            // all equal
      {{0, 0}, {1, 1}, {2, 2}, {3, 3}, {-4, -4}},  // collinear
      {{kNaN, 0}, {1, kInf}, {0, 1}, {1, 0}}};     // too few finite
  for (const auto& set : circles) {
    SCOPED_TRACE(set.size());
    quib::GeometricCircle c;
    info = quib::FitInfo(Eigen::MatrixXd::Identity(3, 3), 1.0, 1.0, 3);
    EXPECT_FALSE(c.calculate(set, info));
    EXPECT_TRUE(std::isnan(c.x()) && std::isnan(c.r()));
    EXPECT_FALSE(info.is());
    EXPECT_EQ(info.get_count(), 0u);
    std::vector<double> d{42.0};
    EXPECT_FALSE(c.get_d(d, set));
    EXPECT_EQ(d, std::vector<double>{42.0});
    EXPECT_FALSE(quib::LeastSquaresCircle().calculate(set, info));
  }
  // Coordinates whose squares overflow still make a circle, and finite distances.
  const std::vector<P2> huge{{1e300, 1e300}, {-1e300, 1e300}, {0, -1e300}, {1e300, -1e300}};
  const quib::GeometricCircle big(huge);
  std::vector<double> d;
  EXPECT_TRUE(big.is());
  ASSERT_TRUE(big.get_d(d, huge));
  for (double v : d)
    EXPECT_TRUE(std::isfinite(v));
  // Coplanar points, tilted: no sphere.
  std::vector<P3> flat;
  for (int i = 0; i < 12; ++i)
    flat.emplace_back(std::cos(i), std::sin(i), 0.5 * std::cos(i) + 2.0);
  EXPECT_FALSE(quib::GeometricSphere(flat).is());
  // Exactly as many points as parameters: a fit, but no σ.
  quib::GeometricCircle three;
  ASSERT_TRUE(three.calculate({{1, 0}, {0, 1}, {-1, 0}}, info));
  EXPECT_NEAR(three.r(), 1.0, 1e-12);
  EXPECT_FALSE(info.is());
  EXPECT_EQ(info.get_count(), 3u);
  EXPECT_NEAR(info.get_rms(), 0.0, 1e-12);
  // The line with too few points has no statistics either.
  quib::LeastSquaresLine line;
  EXPECT_FALSE(line.calculate({{1, 1}}, info));
  EXPECT_FALSE(info.is());
  EXPECT_TRUE(std::isnan(info.get_standard_error(0)));
}

// The lane-wise sums are at least as exact as one scalar compensated sum per moment.
TEST(LeastSquaresFit, LaneSumsAreAsExactAsOneCompensatedSum) {
  std::mt19937 gen(9);
  std::normal_distribution<double> noise(0.0, 0.3);
  std::vector<P2> pts;
  const double cx = 3e4, cy = -1e4, r = 50.0;
  for (int i = 0; i < 100003; ++i) {
    const double a = 6.283185307179586 * i / 100003.0;
    pts.emplace_back(cx + r * std::cos(a) + noise(gen), cy + r * std::sin(a) + noise(gen));
  }
  const auto solve = [&](const std::function<long double(int)>& sum) {
    Eigen::Matrix3d m;
    m << static_cast<double>(sum(0)), static_cast<double>(sum(1)), static_cast<double>(sum(2)),
        static_cast<double>(sum(1)), static_cast<double>(sum(3)), static_cast<double>(sum(4)),
        static_cast<double>(sum(2)), static_cast<double>(sum(4)), static_cast<double>(sum(5));
    const Eigen::Vector3d rhs(-static_cast<double>(sum(6)), -static_cast<double>(sum(7)),
                              -static_cast<double>(sum(8)));
    return Eigen::Vector3d(m.fullPivLu().solve(rhs));
  };
  const auto terms = [](const P2& p, int k) -> long double {
    const long double x = p[0], y = p[1], q = x * x + y * y;
    const long double t[9] = {x * x, x * y, x, y * y, y, 1.0L, x * q, y * q, q};
    return t[k];
  };
  // Reference: compensated sums of the terms in extended precision.
  const Eigen::Vector3d truth = solve([&](int k) {
    quib::math::KahanSum<long double> s;
    for (const P2& p : pts)
      s.add(terms(p, k));
    return s.value();
  });
  // One scalar compensated sum per moment over the terms rounded to double.
  const Eigen::Vector3d scalar = solve([&](int k) {
    quib::math::KahanSum<double> s;
    for (const P2& p : pts)
      s.add(static_cast<double>(terms(p, k)));
    return static_cast<long double>(s.value());
  });
  // The double terms themselves round: compare centres, which the fit reports.
  const quib::LeastSquaresCircle fit(pts);
  const auto centre_error = [&](double a, double b) {
    return std::hypot(-0.5 * a + 0.5 * truth[0], -0.5 * b + 0.5 * truth[1]);
  };
  EXPECT_LE(centre_error(fit.a(), fit.b()), 2.0 * centre_error(scalar[0], scalar[1]) + 1e-9);
}

}  // namespace
