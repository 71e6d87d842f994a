// The stopwatch, the process-wide millisecond ticks and the frame pacer.
#include <quib/clock.hpp>

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>

#if defined(_WIN32)
#define NOMINMAX
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <timeapi.h>  // after windows.h
#endif

namespace quib {
namespace {

using counter = std::chrono::steady_clock;

// Counts per second of the counter. Starts at 1 so that a failed query leaves a usable divisor.
std::int64_t query_frequency() {
  std::int64_t frequency = 1;
  constexpr auto num = static_cast<std::int64_t>(counter::period::num);
  constexpr auto den = static_cast<std::int64_t>(counter::period::den);
  static_assert(num >= 1 && den >= num, "the counter must tick at least once a second");
  if (den / num > 0) frequency = den / num;
  return frequency;
}

std::int64_t read_counter() {
  return counter::now().time_since_epoch().count();
}

// The system's 32-bit millisecond tick; it wraps about every 49.7 days of uptime.
std::uint32_t read_tick() {
  auto const ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(counter::now().time_since_epoch());
  return static_cast<std::uint32_t>(static_cast<std::uint64_t>(ms.count()));
}

// The process-wide timer state, set up when the library is loaded and released when it is
// unloaded. On Windows the system tick and sleeps are switched to 1 ms resolution for the
// lifetime of the library.
struct timer_state {
  std::int64_t frequency;
  implant_fps::Period ms_tick;  // the source of Clock::get_ms, independent of Fps's

  timer_state() {
#if defined(_WIN32)
    timeBeginPeriod(1);
#endif
    frequency = query_frequency();
  }
  ~timer_state() {
#if defined(_WIN32)
    timeEndPeriod(1);
#endif
  }
  timer_state(timer_state const&) = delete;
  timer_state& operator=(timer_state const&) = delete;
};

// A function-local static: initialised once, thread-safely, on first use (at the latest when
// a clock is first read), and torn down with the library.
timer_state& the_timer() {
  static timer_state state;
  return state;
}

// Loads the timer state together with the library, as the multimedia timer resolution is
// meant to hold from load to unload.
[[maybe_unused]] timer_state& loaded_with_library = the_timer();

}  // namespace

namespace detail {

std::int64_t counts_to_ms(std::int64_t now, std::int64_t from, std::int64_t frequency) {
  // The difference wraps instead of overflowing; splitting it into whole seconds and a
  // remainder keeps the multiplication by 1000 in range for any difference.
  auto const delta =
      static_cast<std::int64_t>(static_cast<std::uint64_t>(now) - static_cast<std::uint64_t>(from));
  std::int64_t const seconds = delta / frequency;
  std::int64_t const rest = delta % frequency;
  // |rest| < frequency, so rest * 1000 fits whenever frequency < 2^53.
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(seconds) * 1000u) +
         rest * 1000 / frequency;
}

}  // namespace detail

Clock::Clock(int offset) {
  reset(offset);
}

Clock& Clock::operator=(int offset) {
  reset(offset);
  return *this;
}

void Clock::reset(int offset) {
  start_ = read_counter() + offset;
}

std::int64_t Clock::get_delta_ms() const {
  return get_delta_ms(start_);
}

std::int64_t Clock::get_delta_ms(std::int64_t from) const {
  return detail::counts_to_ms(read_counter(), from, the_timer().frequency);
}

std::int64_t Clock::get_delta_now() const {
  return read_counter();
}

std::int64_t Clock::get_ms() {
  return the_timer().ms_tick.now();
}

std::int64_t Clock::frequency() {
  return the_timer().frequency;
}

namespace implant_fps {

std::int64_t Period::now() {
  return extend(read_tick());
}

std::int64_t Period::extend(std::uint32_t tick) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (tick < last_) high_ += std::uint64_t{1} << 32;  // the 32-bit tick has wrapped
  last_ = tick;
  return static_cast<std::int64_t>(high_ + tick);
}

Period& Period::shared() {
  static std::mutex creation;
  static std::shared_ptr<Period> source;
  std::lock_guard<std::mutex> lock(creation);
  if (!source) source = std::make_shared<Period>();
  return *source;
}

}  // namespace implant_fps

Fps::Fps(int rate) : fps_(std::max(rate, 1)) {
  period_ = static_cast<std::int64_t>(1000.0 / fps_);
  implant_fps::Period::shared();
  samples_.assign(static_cast<std::size_t>(fps_), 0u);
  last_ = getNow();
}

int Fps::getFps() const {
  std::int64_t sum = 0;
  for (unsigned int s : samples_)
    sum += s;
  return static_cast<int>(sum / fps_);
}

std::int64_t Fps::getNow() const {
  return implant_fps::Period::shared().now();
}

void Fps::wait() {
  std::this_thread::sleep_for(std::chrono::milliseconds(getWaitTime()));
}

std::int64_t Fps::getWaitTime() {
  return getWaitTime(getNow());
}

std::int64_t Fps::getWaitTime(std::int64_t now) {
  int const i = index_;
  index_ = i + 1 < fps_ ? i + 1 : 0;
  std::int64_t const elapsed = now - last_;
  std::int64_t const wait = period_ - elapsed;
  std::int64_t const w = wait >= 1 ? wait : 1;
  // elapsed + w >= period >= 0; it is 0 only for rates above 1000 called early: count that
  // frame as 1 ms rather than dividing by zero.
  std::int64_t const frame = std::max<std::int64_t>(elapsed + w, 1);
  samples_[static_cast<std::size_t>(i)] = static_cast<unsigned int>(1000 / frame);
  last_ = now + w;
  return w;
}

}  // namespace quib
