#include <quib/slope.hpp>

namespace quib {

bool Slope::is_extreme(int& turn, double slope) {
  peak_ = rebound_ = 0.0;
  if (direction_ == 0) return false;
  if (direction_ > 0 && slope < 0.0) {
    turn = 1;
    return true;
  }
  if (direction_ < 0 && slope > 0.0) {
    turn = -1;
    return true;
  }
  if (slope == 0.0) turn = 0;
  return false;
}

bool Slope::is_local(int& turn, double slope) {
  if (direction_ == 0) return false;
  // Mirrored for a falling curve: "stronger" means smaller there.
  bool const rising = direction_ > 0;
  bool const against = rising ? slope < 0.0 : slope > 0.0;
  if (against) {
    peak_ = rebound_ = 0.0;
    turn = rising ? 1 : -1;
    return true;
  }
  if (slope == 0.0) turn = 0;
  if (rising ? slope > peak_ : slope < peak_) {
    peak_ = rebound_ = slope;  // strengthening
    return false;
  }
  if (rising ? rebound_ > slope : rebound_ < slope) {
    rebound_ = slope;  // weakening further
    return false;
  }
  // Weakened and strengthening again (a NaN slope fails every test above and lands here).
  peak_ = rebound_ = 0.0;
  turn = 0;
  return true;
}

}  // namespace quib
