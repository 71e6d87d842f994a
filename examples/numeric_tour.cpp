// A tour of the numeric subsystem: one small worked example per class family.
#include <quib/curve.hpp>
#include <quib/discrim.hpp>
#include <quib/fit.hpp>
#include <quib/random.hpp>
#include <quib/ransac.hpp>
#include <quib/robust.hpp>
#include <quib/slope.hpp>

#include <cmath>
#include <cstdio>
#include <vector>

int main() {
  using P2 = Eigen::Vector2d;
  using P3 = Eigen::Vector3d;
  quib::MersenneTwister random(5489);

  // [fits] A circle measured with noise, and two stray points near it.
  std::vector<P2> rim;
  for (int i = 0; i < 36; ++i) {
    const double t = i * 6.283185307179586 / 36, noise = 0.01 * static_cast<double>(random);
    rim.emplace_back(250.0 + (40.0 + noise) * std::cos(t), 120.0 + (40.0 + noise) * std::sin(t));
  }
  rim.emplace_back(297.0, 120.0);
  rim.emplace_back(250.0, 166.0);
  const quib::LeastSquaresCircle plain(rim);
  const auto robust = quib::LeastSquaresCircle::create(rim, 0.5);  // one Tukey reweighting
  std::printf("circle: plain r=%.3f, robust centre (%.3f, %.3f) r=%.3f\n", plain.r(), robust.x(),
              robust.y(), robust.r());
  // [fits]

  // [uncertainty] How well is the rim determined? A geometric fit with its statistics.
  quib::GeometricCircle rim_fit;
  quib::FitInfo info;
  if (rim_fit.calculate(rim, info) && info.is()) {
    // Parameters x, y, r; standard errors from sigma² (JᵀJ)⁻¹.
    std::printf("geometric: r=%.3f ± %.3f, rms %.4f over %zu points\n", rim_fit.r(),
                info.get_standard_error(2), info.get_rms(), info.get_count());
  }
  // [uncertainty]

  // [robust] Weights from residuals, with the threshold set from median and MAD.
  const std::vector<double> residuals{0.1, -0.2, 0.05, 3.0, -0.15};
  const double m = quib::RobustM::get_med(residuals);
  const double c = quib::RobustM::get_madn(quib::RobustM::get_mad(residuals, m)) * 0.5 + m;
  const quib::RobustM weights(residuals, c);
  std::printf("weights:");
  for (double w : *weights)
    std::printf(" %.2f", w);
  std::printf("\n");
  // [robust]

  // [curves] A polynomial of degree 3 and its analysis along [-3, 3).
  std::vector<P2> samples;
  for (int i = -30; i <= 30; ++i) {
    const double x = i * 0.1;
    samples.emplace_back(x, x * x * x - 3.0 * x);
  }
  const quib::LeastSquaresDimension cubic(1.0, 3, samples);
  std::vector<double> roots;
  cubic.get_solution(roots, -3.0, 3.0, 0.01);
  std::vector<int> kinds;
  std::vector<P2> turns;
  cubic.get_extreme(kinds, turns, -3.0, 3.0, 0.01);
  std::printf("cubic: %zu roots, %zu extremes, area |f| on [0, 2] = %.4f\n", roots.size(),
              turns.size(), cubic.get_area2(0.0, 2.0, 0.01));
  // [curves]

  // [slope] Turning points of a stream of slopes.
  quib::Slope slope(1);  // the curve should rise
  int turn = 0;
  for (double s : {3.0, 2.0, 1.0, 2.0})
    if (slope.is_local(turn, s)) std::printf("slope: local turn, kind %d\n", turn);
  // [slope]

  // [ransac] A floor plane in a cloud with points above and below it.
  std::vector<P3> cloud;
  for (int i = 0; i < 2000; ++i) {
    const double x = random, y = random;
    const double lift =
        i % 10 < 3 ? (i % 2 ? 0.3 : -0.3) * (1.0 + static_cast<double>(random)) : 0.0;
    cloud.emplace_back(x, y, 0.1 * x + lift);
  }
  quib::RANSAC_Plane<P3, double> ransac;
  if (ransac.compute(cloud, 0.01, 0.99, 1000)) {
    const P3 n = ransac.result()[3];
    std::printf("ransac: %zu inliers, normal (%.3f, %.3f, %.3f)\n", ransac.indices().size(), n[0],
                n[1], n[2]);
  }
  // [ransac]

  // [discrim] Which of two classes does a query belong to?
  const quib::Discrim2 small({{0, 0}, {1, 0}, {0, 1}, {1, 1}, {0.5, 0.5}});
  const quib::Discrim2 large({{4, 4}, {6, 4}, {4, 6}, {6, 6}, {5, 5}});
  const P2 query(1.5, 1.0);
  const bool first =
      small.get_bayes_discriminant(query, 0.5, 0.0) > large.get_bayes_discriminant(query, 0.5, 0.0);
  std::printf("discrim: the query belongs to the %s class\n", first ? "small" : "large");
  // [discrim]
  return 0;
}
