#include <quib/robust.hpp>

#include <algorithm>
#include <cmath>
#include <utility>

namespace quib {

namespace {

template <class T>
bool biweights(std::vector<double>& weights, std::vector<T> const& d, T c) {
  if (d.empty()) return false;
  weights.clear();
  weights.reserve(d.size());
  if (std::isfinite(c) && c != T(0)) {
    for (T v : d) {
      if (!std::isfinite(v) || std::fabs(v) > c) {
        weights.push_back(0.0);
      } else {
        const T u = v / c;
        const T w = (T(1) - u * u) * (T(1) - u * u);
        weights.push_back(static_cast<double>(w));
      }
    }
  } else {
    // No usable threshold: plain least squares.
    weights.assign(d.size(), 1.0);
  }
  return true;
}

// The median of |d_i - m| over the finite d_i, 0 when there are none.
template <class T>
T median_abs(std::vector<T> const& d, T m) {
  std::vector<T> a;
  a.reserve(d.size());
  for (T v : d)
    if (std::isfinite(v)) a.push_back(std::fabs(v - m));
  if (a.empty()) return T(0);
  const std::size_t n = a.size();
  // Only the middle element(s) matter.
  std::nth_element(a.begin(), a.begin() + static_cast<std::ptrdiff_t>((n - 1) / 2), a.end());
  const T lower = a[(n - 1) / 2];
  if (n % 2 == 1) return lower;
  const T upper = *std::min_element(a.begin() + static_cast<std::ptrdiff_t>(n / 2), a.end());
  return T(0.5) * (lower + upper);
}

}  // namespace

RobustM::RobustM(std::vector<double> const& d, double c) {
  static_cast<void>(estimate(d, c));
}
RobustM::RobustM(std::vector<float> const& d, float c) {
  static_cast<void>(estimate(d, c));
}

void RobustM::swap(RobustM& other) noexcept {
  weights_.swap(other.weights_);
}

bool RobustM::estimate(std::vector<double> const& d, double c) {
  return biweights(weights_, d, c);
}
bool RobustM::estimate(std::vector<float> const& d, float c) {
  return biweights(weights_, d, c);
}

double RobustM::get_med(std::vector<double> const& d) {
  return median_abs(d, 0.0);
}
float RobustM::get_med(std::vector<float> const& d) {
  return median_abs(d, 0.0f);
}
double RobustM::get_mad(std::vector<double> const& d, double m) {
  return median_abs(d, m);
}
float RobustM::get_mad(std::vector<float> const& d, float m) {
  return median_abs(d, m);
}

}  // namespace quib
