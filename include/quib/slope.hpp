// Turning points of a sampled curve, detected from its stream of slopes.
#pragma once

#include <quib/export.hpp>

#include <type_traits>

namespace quib {

/// Watches slope values fed one at a time and reports where the curve turns, for a curve that
/// is expected to rise (dir > 0) or fall (dir < 0). is_extreme() reports a sign change of the
/// slope; is_local() also reports a slope that had been weakening and strengthens again.
/// `turn` receives 1 for a maximum, -1 for a minimum and 0 for a local turn; it is written
/// only when a rule says so and otherwise keeps the caller's value.
/// A plain value holding three numbers; nothing fails. One object per thread at a time.
///
///     quib::Slope slope(1);                 // the curve should rise
///     int turn = 0;
///     for (double s : {3.0, 2.0, 1.0, 2.0})
///       if (slope.is_local(turn, s)) break;  // fires at the last value with turn == 0
class QUIB_API Slope {
 public:
  Slope() : direction_(0), peak_(0.0), rebound_(0.0) {}
  explicit Slope(int dir) : direction_(dir), peak_(0.0), rebound_(0.0) {}

  /// Sets the direction and forgets the slopes seen so far.
  void dir(int dir) {
    direction_ = dir;
    peak_ = rebound_ = 0.0;
  }
  int dir() const { return direction_; }
  /// True when a direction is set.
  bool is() const { return direction_ != 0; }
  /// The strongest slope since the last reset, in the expected direction.
  double get_peak() const { return peak_; }
  /// The weakest slope since the peak was last set.
  double get_rebound() const { return rebound_; }

  /// True when the slope's sign is against the direction. Forgets the slopes seen so far;
  /// a slope of exactly 0 sets turn to 0 and returns false.
  bool is_extreme(int& turn, double slope);
  /// True on a sign change against the direction or when a weakening slope strengthens
  /// again (slope back at or beyond the weakest value since the peak); then forgets the
  /// slopes seen so far. A NaN slope counts as a local turn.
  bool is_local(int& turn, double slope);

 private:
  int direction_;
  double peak_;
  double rebound_;
};

static_assert(std::is_trivially_copyable_v<Slope>);

}  // namespace quib
