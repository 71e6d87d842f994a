// The C++ side of bench/python/bench_fit.py: the same plane fits the Python module makes,
// called directly: 10 points (the cost of one call) and 10,000,000 points.
#include <quib/fit.hpp>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <random>
#include <vector>

namespace {

using P3 = Eigen::Matrix<double, 3, 1>;

std::vector<P3> cloud(std::size_t n) {
  std::mt19937 gen(3);
  std::uniform_real_distribution<double> u(-10.0, 10.0);
  std::normal_distribution<double> noise(0.0, 0.01);
  std::vector<P3> p(n);
  for (P3& q : p) {
    const double x = u(gen), y = u(gen);
    q = P3(x, y, 0.2 * x - 0.1 * y + 5.0 + noise(gen));
  }
  return p;
}

void BM_FitPlane(benchmark::State& state) {
  const std::size_t n = std::getenv("QUIB_BENCH_SMOKE") && state.range(0) > 1000
                            ? 1000
                            : static_cast<std::size_t>(state.range(0));
  const std::vector<P3> points = cloud(n);
  for (auto _ : state) {
    quib::LeastSquaresPlane plane(points);
    benchmark::DoNotOptimize(plane);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * n));
}

}  // namespace

BENCHMARK(BM_FitPlane)->Arg(10)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_FitPlane)->Arg(10000000)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
