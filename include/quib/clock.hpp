// Interval timing on the high-resolution counter and frame pacing for display loops.
#pragma once

#include <quib/export.hpp>

#include <cstdint>
#include <mutex>
#include <type_traits>
#include <vector>

namespace quib {

/// A stopwatch on the high-resolution monotonic counter, plus a process-wide millisecond tick
/// that never wraps.
/// A Clock is one 64-bit counter reading (`start`); it owns no other memory.
/// Nothing fails: the counter is always readable here, and differences are computed without
/// overflow (a caller-supplied `from` far from now wraps rather than invoking undefined
/// behaviour).
/// A Clock belongs to one thread at a time; get_ms() may be called from any thread.
///
///     quib::Clock clock(0);                       // started now
///     do_work();
///     std::int64_t ms = clock.get_delta_ms();     // whole milliseconds since construction
class QUIB_API Clock {
 public:
  /// `start` = 0, so get_delta_ms() measures from the counter's origin.
  Clock() = default;
  /// `start` = the current counter reading + `offset` counts.
  explicit Clock(int offset);
  Clock(Clock const&) = default;
  Clock& operator=(Clock const&) = default;
  /// The same as reset(offset).
  Clock& operator=(int offset);
  /// Restarts: `start` = the current counter reading + `offset` counts.
  void reset(int offset = 0);

  /// Whole milliseconds since `start`: (now - start) * 1000 / frequency, truncated.
  std::int64_t get_delta_ms() const;
  /// Whole milliseconds since the counter reading `from`; `start` is not used.
  std::int64_t get_delta_ms(std::int64_t from) const;
  /// The raw current counter reading, in counts (see frequency()).
  std::int64_t get_delta_now() const;

  /// The process-wide millisecond tick widened to 64 bits: a 32-bit tick whose wraps are
  /// counted, so the value only grows. Safe to call from any thread.
  static std::int64_t get_ms();
  /// Counter counts per second (the counter's resolution), fixed for the process.
  static std::int64_t frequency();

  /// The counter reading this clock measures from.
  std::int64_t get_start() const { return start_; }

 private:
  std::int64_t start_ = 0;
};

static_assert(std::is_trivially_copyable_v<Clock>);
static_assert(sizeof(Clock) == sizeof(std::int64_t));

namespace implant_fps {

/// A millisecond time source that widens a 32-bit tick to 64 bits: whenever a tick is smaller
/// than the previous one, the 32-bit tick has wrapped and 2^32 is added to the high part.
/// Every Fps of the process shares one Period (see shared()); separate Period objects count
/// their wraps independently. Holds no memory beyond its fields; cannot fail.
/// All members may be called from any thread; each reading takes the object's mutex for the
/// read-compare-store of one tick.
///
///     quib::implant_fps::Period source;
///     source.extend(4294967290u);   // 4294967290
///     source.extend(5u);            // 4294967301: the tick wrapped
class QUIB_API Period {
 public:
  Period() = default;
  Period(Period const&) = delete;
  Period& operator=(Period const&) = delete;

  /// The current time in milliseconds: the system's 32-bit millisecond tick, widened.
  std::int64_t now();
  /// Widens one given tick as now() widens the system tick, and remembers it.
  std::int64_t extend(std::uint32_t tick);

  /// The process-wide source of all Fps objects, created on first use.
  static Period& shared();

 private:
  std::mutex mutex_;
  std::uint32_t last_ = 0;  // the last tick seen
  std::uint64_t high_ = 0;  // a multiple of 2^32 added to each tick
};

}  // namespace implant_fps

/// Paces a display loop at a fixed frame rate and reports the rate actually reached.
/// The loop calls wait() once per frame after drawing; wait() sleeps until the next frame is
/// due, but always at least 1 ms, and a late frame does not shift later frames. The rate of
/// each of the last `fps` frames is kept in a ring; getFps() is their mean.
/// An Fps owns its sample vector (`fps` entries); copies copy it.
/// Nothing fails. A frame rate below 1 is taken as 1. Rates above 1000 give a frame time of
/// 0 ms, so such loops run as fast as the 1 ms minimum wait allows.
/// An Fps belongs to one thread at a time; all of them read time from one shared,
/// thread-safe source (implant_fps::Period::shared()).
///
///     quib::Fps pacer(60);
///     while (running) {
///       draw();
///       pacer.wait();                 // about 16 ms per frame
///       show_rate(pacer.getFps());    // near 62 once a second of frames has passed
///     }
class QUIB_API Fps {
 public:
  /// Target rate `fps` (frames per second), frame time floor(1000 / fps) ms, all samples 0,
  /// and the first frame due now.
  explicit Fps(int fps);
  Fps(Fps const&) = default;
  Fps& operator=(Fps const&) = default;

  /// The mean of the ring of frame rates (integer division by `fps`); 0 before any frame.
  int getFps() const;
  /// The current time in milliseconds from the shared frame time source.
  std::int64_t getNow() const;
  /// Sleeps for getWaitTime() milliseconds.
  void wait();

 protected:
  /// Advances the pacing state by one frame at the current time and returns the milliseconds
  /// to wait: getWaitTime(getNow()).
  std::int64_t getWaitTime();
  /// The pacing step with the time given: the frame took `now - last` ms since it was due;
  /// the wait w is the rest of the frame time but at least 1 ms; the ring records
  /// 1000 / (elapsed + w) and the next frame is due at now + w.
  std::int64_t getWaitTime(std::int64_t now);

  int fps_;                            // target rate, also the number of samples
  std::vector<unsigned int> samples_;  // frame rate at each of the last `fps` frames (a ring)
  int index_ = 0;                      // the ring position the next frame overwrites
  std::int64_t last_ = 0;              // when the current frame is due, in ms
  std::int64_t period_ = 0;            // the target frame time in whole ms
};

namespace detail {

/// (now - from) * 1000 / frequency in whole milliseconds, truncated toward zero, without
/// intermediate overflow. `frequency` must be positive.
QUIB_API std::int64_t counts_to_ms(std::int64_t now, std::int64_t from, std::int64_t frequency);

}  // namespace detail
}  // namespace quib
