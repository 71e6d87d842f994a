#include <quib/slope.hpp>

namespace quib {

bool Slope::is_extreme(int& turn, double slope) {
  peak = rebound = 0.0;
  if (direction == 0) return false;
  if (direction > 0 && slope < 0.0) {
    turn = 1;
    return true;
  }
  if (direction < 0 && slope > 0.0) {
    turn = -1;
    return true;
  }
  if (slope == 0.0) turn = 0;
  return false;
}

bool Slope::is_local(int& turn, double slope) {
  if (direction == 0) return false;
  // Mirrored for a falling curve: "stronger" means smaller there.
  bool const rising = direction > 0;
  bool const against = rising ? slope < 0.0 : slope > 0.0;
  if (against) {
    peak = rebound = 0.0;
    turn = rising ? 1 : -1;
    return true;
  }
  if (slope == 0.0) turn = 0;
  if (rising ? slope > peak : slope < peak) {
    peak = rebound = slope;  // strengthening
    return false;
  }
  if (rising ? rebound > slope : rebound < slope) {
    rebound = slope;  // weakening further
    return false;
  }
  // Weakened and strengthening again (a NaN slope fails every test above and lands here).
  peak = rebound = 0.0;
  turn = 0;
  return true;
}

}  // namespace quib
