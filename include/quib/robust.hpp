// Robust M-estimation: Tukey biweights of residuals and the robust scale statistics.
#pragma once

#include <quib/export.hpp>

#include <vector>

namespace quib {

/// Turns residuals into weights in [0, 1] with Tukey's biweight: a residual d within the
/// threshold c gets (1 - (d/c)^2)^2, anything beyond it (or not finite) gets 0. A threshold
/// that is 0 or not finite switches the weighting off (every weight 1). The static helpers
/// give the median residual size and the median absolute deviation with which callers set c.
/// The object owns its weight vector (one weight per residual of the last estimate).
/// estimate() returns false on empty residuals and then keeps the previous weights.
/// One object belongs to one thread at a time; the static helpers are pure.
///
///     double m = quib::RobustM::get_med(residuals);
///     double c = quib::RobustM::get_madn(quib::RobustM::get_mad(residuals, m)) * 4.685 + m;
///     quib::RobustM weights(residuals, c);   // *weights is the std::vector<double>
class QUIB_API RobustM {
 public:
  RobustM() = default;
  RobustM(const std::vector<double>& d, double c);
  RobustM(const std::vector<float>& d, float c);

  void swap(RobustM& other) noexcept;
  /// Empties the weights (their capacity is kept).
  void clear() { weights_.clear(); }
  bool is() const { return !weights_.empty(); }
  bool empty() const { return weights_.empty(); }

  std::vector<double>& array() { return weights_; }
  const std::vector<double>& array() const { return weights_; }
  std::vector<double>& operator*() { return weights_; }
  const std::vector<double>& operator*() const { return weights_; }
  std::vector<double>* operator->() { return &weights_; }
  const std::vector<double>* operator->() const { return &weights_; }

  /// Replaces the weights by the biweights of `d` with threshold `c`, in residual order.
  /// A residual of exactly +-c gets weight 0; with c < 0 every weight is 0.
  /// Returns false, and keeps the previous weights, when `d` is empty.
  [[nodiscard]] bool estimate(const std::vector<double>& d, double c);
  /// The same in single precision; the weights are stored as double.
  [[nodiscard]] bool estimate(const std::vector<float>& d, float c);

  /// The median of |d_i| over the finite d_i; 0 when there are none.
  static double get_med(const std::vector<double>& d);
  static float get_med(const std::vector<float>& d);
  /// The median of |d_i - m| over the finite d_i; 0 when there are none.
  static double get_mad(const std::vector<double>& d, double m);
  static float get_mad(const std::vector<float>& d, float m);
  /// mad / 0.6745, a consistent estimate of the standard deviation of normal data.
  static double get_madn(double mad) { return mad / 0.6745; }
  static float get_madn(float mad) { return mad / 0.6745f; }

 private:
  std::vector<double> weights_;
};

inline void swap(RobustM& a, RobustM& b) noexcept {
  a.swap(b);
}

}  // namespace quib
