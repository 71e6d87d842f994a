// Point sets shared by the numeric benchmarks.
#pragma once

#include <Eigen/Core>

#include <cstdlib>
#include <random>
#include <vector>

namespace bench {

inline bool smoke() {
  return std::getenv("QUIB_BENCH_SMOKE") != nullptr;
}

/// Points on z = 0.2·x - 0.1·y + 0.5 in [-1, 1]², with `outlier_share` of them moved off the
/// plane in pairs mirrored about it.
template <class V>
std::vector<V> plane_cloud(std::size_t count, double outlier_share) {
  std::mt19937 gen(3);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  const auto plane = [](double x, double y) { return 0.2 * x - 0.1 * y + 0.5; };
  const std::size_t outliers = static_cast<std::size_t>(count * outlier_share) / 2 * 2;
  std::vector<V> pts;
  pts.reserve(count);
  for (std::size_t i = 0; i < count - outliers; ++i) {
    const double x = u(gen), y = u(gen);
    pts.emplace_back(x, y, plane(x, y));
  }
  for (std::size_t i = 0; i < outliers; i += 2) {
    const double x = u(gen), y = u(gen), offset = 0.05 + 0.5 * std::abs(u(gen));
    pts.emplace_back(x, y, plane(x, y) + offset);
    pts.emplace_back(x, y, plane(x, y) - offset);
  }
  return pts;
}

}  // namespace bench
