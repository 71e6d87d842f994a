// Fits against the same moments summed without compensation and against cv::fitLine;
// RANSAC_Plane per iteration against one bare pass over the points (and against PCL in
// numeric_pcl_bench.cpp when PCL is found); a degree-6 polynomial fit.
#include <quib/curve.hpp>
#include <quib/fit.hpp>
#include <quib/ransac.hpp>

#include <benchmark/benchmark.h>
#include <Eigen/Geometry>
#include <opencv2/imgproc.hpp>

#include "numeric_data.hpp"

#include <cmath>
#include <random>
#include <type_traits>
#include <vector>

namespace {

using P2 = Eigen::Matrix<double, 2, 1>;
using P3 = Eigen::Matrix<double, 3, 1>;

std::size_t fit_size() {
  return bench::smoke() ? 1000 : 10000000;
}

const std::vector<P2>& points2() {
  static const std::vector<P2> pts = [] {
    std::mt19937 gen(1);
    std::normal_distribution<double> noise(0.0, 0.5);
    std::vector<P2> p(fit_size());
    for (std::size_t i = 0; i < p.size(); ++i) {
      const double t = 6.283185307179586 * static_cast<double>(i) / static_cast<double>(p.size());
      p[i] = P2(1000.0 + 300.0 * std::cos(t) + noise(gen), 500.0 + 300.0 * std::sin(t));
    }
    return p;
  }();
  return pts;
}

const std::vector<P3>& points3() {
  static const std::vector<P3> pts = [] {
    std::mt19937 gen(2);
    std::normal_distribution<double> u(0.0, 1.0);
    std::vector<P3> p(fit_size());
    for (P3& q : p)
      q = P3(u(gen), u(gen), u(gen)).normalized() * 40.0 + P3(100, 200, 300);
    return p;
  }();
  return pts;
}

const std::vector<double>& weights() {
  static const std::vector<double> w(fit_size(), 0.75);
  return w;
}

void per_point(benchmark::State& state, std::size_t n) {
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * n));
  state.counters["per_point"] = benchmark::Counter(
      static_cast<double>(n) * 1e-9,
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

template <class Fit>
void BM_Fit(benchmark::State& state) {
  const typename Fit::points_type* source;
  if constexpr (std::is_same_v<typename Fit::points_type, std::vector<P2>>) {
    source = &points2();
  } else {
    source = &points3();
  }
  const auto& pts = *source;
  Fit fit;
  for (auto _ : state) {
    if (state.range(0)) {
      benchmark::DoNotOptimize(fit.calculate(pts, weights()));
    } else {
      benchmark::DoNotOptimize(fit.calculate(pts));
    }
    benchmark::DoNotOptimize(fit);
  }
  per_point(state, pts.size());
}

// The same fit with its statistics (covariance, standard errors, RMS, count).
template <class Fit>
void BM_FitInfo(benchmark::State& state) {
  const typename Fit::points_type* source;
  if constexpr (std::is_same_v<typename Fit::points_type, std::vector<P2>>) {
    source = &points2();
  } else {
    source = &points3();
  }
  const auto& pts = *source;
  Fit fit;
  quib::FitInfo info;
  for (auto _ : state) {
    if (state.range(0)) {
      benchmark::DoNotOptimize(fit.calculate(pts, weights(), info));
    } else {
      benchmark::DoNotOptimize(fit.calculate(pts, info));
    }
    benchmark::DoNotOptimize(info);
  }
  per_point(state, pts.size());
}

// The fit with its statistics through the pointer form, as a binding over a NumPy array calls
// it: beside BM_FitInfo, the cost of the vector form's forwarding (none expected).
template <class Fit>
void BM_FitInfoPointer(benchmark::State& state) {
  const typename Fit::points_type* source;
  if constexpr (std::is_same_v<typename Fit::points_type, std::vector<P2>>) {
    source = &points2();
  } else {
    source = &points3();
  }
  const auto& pts = *source;
  Fit fit;
  quib::FitInfo info;
  for (auto _ : state) {
    benchmark::DoNotOptimize(fit.calculate(pts.data(), pts.size(), info));
    benchmark::DoNotOptimize(info);
  }
  per_point(state, pts.size());
}

// The limit: the same moments with plain sums (the terms are those of the fits).
template <std::size_t K, class Points, class Terms>
void plain_moments(benchmark::State& state, const Points& pts, Terms terms) {
  const bool weighted = state.range(0) != 0;
  const std::vector<double>& w = weights();
  for (auto _ : state) {
    double s[K] = {};
    double t[K];
    for (std::size_t i = 0; i < pts.size(); ++i) {
      const auto& p = pts[i];
      if (!p.allFinite()) continue;
      terms(p, t);
      if (weighted)
        for (std::size_t k = 0; k < K; ++k)
          t[k] *= w[i];
      for (std::size_t k = 0; k < K; ++k)
        s[k] += t[k];
    }
    benchmark::DoNotOptimize(s);
  }
  per_point(state, pts.size());
}

void BM_PlainSums_Line(benchmark::State& state) {
  plain_moments<5>(state, points2(), [](const P2& p, double* t) {
    t[0] = 1.0, t[1] = p[0], t[2] = p[1], t[3] = p[0] * p[0], t[4] = p[0] * p[1];
  });
}
void BM_PlainSums_Circle(benchmark::State& state) {
  plain_moments<9>(state, points2(), [](const P2& p, double* t) {
    const double x = p[0], y = p[1], q = x * x + y * y;
    t[0] = x * x, t[1] = x * y, t[2] = x, t[3] = y * y, t[4] = y, t[5] = 1.0;
    t[6] = x * q, t[7] = y * q, t[8] = q;
  });
}
void BM_PlainSums_Plane(benchmark::State& state) {
  plain_moments<9>(state, points3(), [](const P3& p, double* t) {
    const double x = p[0], y = p[1], z = p[2];
    t[0] = x * x, t[1] = x * y, t[2] = x, t[3] = y * y, t[4] = y, t[5] = 1.0;
    t[6] = x * z, t[7] = y * z, t[8] = z;
  });
}
void BM_PlainSums_Sphere(benchmark::State& state) {
  plain_moments<14>(state, points3(), [](const P3& p, double* t) {
    const double x = p[0], y = p[1], z = p[2], q = x * x + y * y + z * z;
    t[0] = x * x, t[1] = x * y, t[2] = x * z, t[3] = x, t[4] = y * y, t[5] = y * z, t[6] = y;
    t[7] = z * z, t[8] = z, t[9] = 1.0, t[10] = x * q, t[11] = y * q, t[12] = z * q, t[13] = q;
  });
}

void BM_CvFitLine(benchmark::State& state) {
  std::vector<cv::Point2f> pts;
  for (const P2& p : points2())
    pts.emplace_back(static_cast<float>(p[0]), static_cast<float>(p[1]));
  cv::Vec4f line;
  for (auto _ : state) {
    cv::fitLine(pts, line, cv::DIST_L2, 0, 0.01, 0.01);
    benchmark::DoNotOptimize(line);
  }
  per_point(state, pts.size());
}

// Each fit beside its statistics and the plain sums of its own moments, in one run.
#define QUIB_FIT_BENCH(Fit, Plain)                                                    \
  BENCHMARK_TEMPLATE(BM_Fit, Fit)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);     \
  BENCHMARK_TEMPLATE(BM_FitInfo, Fit)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond); \
  BENCHMARK(Plain)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)
QUIB_FIT_BENCH(quib::LeastSquaresLine, BM_PlainSums_Line);
BENCHMARK(BM_CvFitLine)->Unit(benchmark::kMillisecond);
QUIB_FIT_BENCH(quib::LeastSquaresCircle, BM_PlainSums_Circle);
BENCHMARK_TEMPLATE(BM_FitInfoPointer, quib::LeastSquaresCircle)->Unit(benchmark::kMillisecond);
QUIB_FIT_BENCH(quib::LeastSquaresPlane, BM_PlainSums_Plane);
QUIB_FIT_BENCH(quib::LeastSquaresSphere, BM_PlainSums_Sphere);

// Samples of a degree-6 polynomial on [-1, 1).
const std::vector<P2>& sextic_points() {
  static const std::vector<P2> pts = [] {
    const std::size_t n = bench::smoke() ? 1000 : 1000000;
    std::vector<P2> p(n);
    for (std::size_t i = 0; i < n; ++i) {
      const double x = -1.0 + 2.0 * static_cast<double>(i) / static_cast<double>(n);
      p[i] = P2(x, ((((x - 0.5) * x + 0.25) * x - 1.0) * x + 2.0) * x * x + 0.1);
    }
    return p;
  }();
  return pts;
}

void BM_Dimension6(benchmark::State& state) {
  const std::vector<P2>& pts = sextic_points();
  const std::size_t n = pts.size();
  quib::LeastSquaresDimension poly;
  for (auto _ : state) {
    benchmark::DoNotOptimize(poly.calculate(6, pts));
    benchmark::DoNotOptimize(poly);
  }
  per_point(state, n);
}
BENCHMARK(BM_Dimension6)->Unit(benchmark::kMillisecond);

// The limit of the degree-6 fit: its 20 moments (x^0..x^12, x^0·y..x^6·y) with plain sums.
void BM_PlainSums_Dimension6(benchmark::State& state) {
  const std::vector<P2>& pts = sextic_points();
  const std::size_t n = pts.size();
  for (auto _ : state) {
    double s[20] = {};
    for (const P2& p : pts) {
      if (!p.allFinite()) continue;
      double xp = 1.0;
      for (int j = 0; j < 13; ++j) {
        s[j] += xp;
        if (j <= 6) s[13 + j] += xp * p[1];
        xp *= p[0];
      }
    }
    benchmark::DoNotOptimize(s);
  }
  per_point(state, n);
}
BENCHMARK(BM_PlainSums_Dimension6)->Unit(benchmark::kMillisecond);

// ---- geometric fits ---------------------------------------------------------------------

// 1,000 noisy points on a 120-degree arc: one geometric fit (algebraic start, then
// Levenberg-Marquardt) beside the algebraic fit of the same points.
const std::vector<P2>& arc_points() {
  static const std::vector<P2> pts = [] {
    std::mt19937 gen(4);
    std::normal_distribution<double> noise(0.0, 0.05);
    std::vector<P2> p(1000);
    for (std::size_t i = 0; i < p.size(); ++i) {
      const double t = 2.0943951023931953 * static_cast<double>(i) / 999.0;
      const double r = 25.0 + noise(gen);
      p[i] = P2(640.0 + r * std::cos(t), 480.0 + r * std::sin(t));
    }
    return p;
  }();
  return pts;
}

void BM_GeometricCircle1000(benchmark::State& state) {
  quib::GeometricCircle fit;
  quib::FitInfo info;
  for (auto _ : state) {
    if (state.range(0)) {
      benchmark::DoNotOptimize(fit.calculate(arc_points(), info));
    } else {
      benchmark::DoNotOptimize(fit.calculate(arc_points()));
    }
    benchmark::DoNotOptimize(fit);
  }
}
void BM_AlgebraicCircle1000(benchmark::State& state) {
  quib::LeastSquaresCircle fit;
  for (auto _ : state) {
    benchmark::DoNotOptimize(fit.calculate(arc_points()));
    benchmark::DoNotOptimize(fit);
  }
}
BENCHMARK(BM_GeometricCircle1000)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_AlgebraicCircle1000)->Unit(benchmark::kMicrosecond);

// ---- RANSAC -----------------------------------------------------------------------------

std::size_t ransac_size() {
  return bench::smoke() ? 2000 : 1000000;
}

template <class V, class S>
struct CountingPlane : quib::RANSAC_Plane<V, S> {
  std::int64_t measured = 0;
  int measure(std::vector<int>& inliers, S& score, const std::vector<V>& points,
              const std::vector<std::vector<V>>& models, double threshold) override {
    ++measured;
    return quib::RANSAC_Plane<V, S>::measure(inliers, score, points, models, threshold);
  }
};

template <class V, class S>
void BM_RansacPlane(benchmark::State& state) {
  const std::vector<V> pts = bench::plane_cloud<V>(ransac_size(), 0.3);
  CountingPlane<V, S> ransac;
  bool found = false;
  for (auto _ : state) {
    found = ransac.compute(pts, S(0.01), 0.99, 10000);
    benchmark::DoNotOptimize(found);
  }
  state.counters["iterations"] =
      static_cast<double>(ransac.measured) / static_cast<double>(state.iterations());
  state.counters["found"] = found;
}

// The limit of one iteration: a single pass computing every point's distance to a plane.
template <class V, class S>
void BM_BarePlanePass(benchmark::State& state) {
  const std::vector<V> pts = bench::plane_cloud<V>(ransac_size(), 0.3);
  const V p0 = pts[0];
  const V n = (pts[1] - p0).cross(pts[2] - p0).normalized();
  std::vector<int> inliers;
  inliers.reserve(pts.size());
  for (auto _ : state) {
    inliers.clear();
    S sum = 0;
    for (std::size_t i = 0; i < pts.size(); ++i) {
      const S t = (pts[i] - p0).dot(n);
      if (std::abs(t) < S(0.01)) inliers.push_back(static_cast<int>(i));
      sum += t;
    }
    benchmark::DoNotOptimize(sum);
    benchmark::DoNotOptimize(inliers.data());
  }
}

BENCHMARK(BM_RansacPlane<Eigen::Vector3f, float>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BarePlanePass<Eigen::Vector3f, float>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RansacPlane<Eigen::Vector3d, double>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BarePlanePass<Eigen::Vector3d, double>)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
