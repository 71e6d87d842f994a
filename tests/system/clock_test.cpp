#include <quib/clock.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <thread>

namespace {

// Drives the pacing step with chosen times instead of the real clock.
class SteppedFps : public quib::Fps {
 public:
  SteppedFps(int fps, std::int64_t due) : Fps(fps) { last_ = due; }
  std::int64_t step(std::int64_t now) { return getWaitTime(now); }
  using Fps::index_;
  using Fps::last_;
  using Fps::period_;
  using Fps::samples_;
};

}  // namespace

TEST(Period, CountsEachWrapOfTheTick) {
  quib::implant_fps::Period ticks;
  EXPECT_EQ(ticks.extend(4294967290u), 4294967290);
  EXPECT_EQ(ticks.extend(5u), 4294967301);
  EXPECT_EQ(ticks.extend(5u), 4294967301);  // an equal tick is no wrap
  EXPECT_EQ(ticks.extend(4294967295u), 8589934591);
  EXPECT_EQ(ticks.extend(0u), 8589934592);
  quib::implant_fps::Period other;  // sources count their wraps independently
  EXPECT_EQ(other.extend(5u), 5);
}

TEST(Clock, ConvertsCountsWithoutOverflow) {
  using quib::detail::counts_to_ms;
  std::int64_t const big = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(counts_to_ms(2999999, 0, 1000000000), 2);   // truncated
  EXPECT_EQ(counts_to_ms(0, 1500000, 1000000000), -1);  // toward zero
  EXPECT_EQ(counts_to_ms(big, 0, 1000000000), 9223372036854);
  counts_to_ms(big, std::numeric_limits<std::int64_t>::min(), 1000000000);  // wraps, defined
}

TEST(Clock, MeasuresFromTheGivenReadingNotItsStart) {
  quib::Clock clock(0);
  std::int64_t const ms =
      clock.get_delta_ms(clock.get_delta_now() - 1000 * quib::Clock::frequency());
  EXPECT_GE(ms, 1000000);
  EXPECT_LT(ms, 1000000 + 600000);
}

TEST(Clock, MeasuresAtLeastTheTimeSlept) {
  quib::Clock clock(0);
  std::int64_t const tick = quib::Clock::get_ms();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_GE(clock.get_delta_ms(), 20);
  EXPECT_GE(quib::Clock::get_ms() - tick, 19);  // two 1 ms ticks may straddle the sleep
}

TEST(Fps, WaitsTheRestOfTheFrame) {
  SteppedFps fps(60, 1000);
  EXPECT_EQ(fps.period_, 16);
  EXPECT_EQ(fps.step(1004), 12);  // 4 ms of work
  EXPECT_EQ(fps.samples_[0], 62u);
  EXPECT_EQ(fps.last_, 1016);
  EXPECT_EQ(fps.step(1016 + 40), 1);  // 40 ms late: wait the minimum, record 1000 / 41
  EXPECT_EQ(fps.samples_[1], 24u);
  EXPECT_EQ(fps.last_, 1057);
  EXPECT_EQ(fps.step(1057), 16);      // lateness is not carried into the next frame
  EXPECT_EQ(fps.step(1073 - 5), 21);  // an early frame waits longer but still records 62
  EXPECT_EQ(fps.samples_[3], 62u);
  EXPECT_EQ(SteppedFps(30, 0).period_, 33);
}

TEST(Fps, FillsTheRingInOrder) {
  SteppedFps fps(3, 0);
  // On-time frames record 1000 / 333 = 3; frames 1 and 4 run late and record less, which
  // tells the ring positions apart.
  int const slot[] = {0, 1, 2, 0, 1};
  std::int64_t const lateness[] = {0, 500, 0, 0, 1000};
  unsigned const rate[] = {3, 1, 3, 3, 0};
  for (int k = 0; k < 5; ++k) {
    SCOPED_TRACE(k);
    EXPECT_EQ(fps.index_, slot[k]);
    fps.step(fps.last_ + lateness[k]);
    EXPECT_EQ(fps.samples_[static_cast<std::size_t>(slot[k])], rate[k]);
  }
  EXPECT_EQ(fps.getFps(), (3 + 0 + 3) / 3);
}

TEST(Fps, ReportsPartialRateUntilTheRingIsFull) {
  SteppedFps fps(60, 0);
  EXPECT_EQ(fps.getFps(), 0);
  for (int k = 1; k <= 90; ++k) {
    fps.step(fps.last_);  // every frame exactly on time: 62 each
    if (k == 30) {
      EXPECT_EQ(fps.getFps(), 30 * 62 / 60);
    }
  }
  EXPECT_EQ(fps.getFps(), 62);
}

TEST(Fps, OddRatesStayDefined) {
  SteppedFps none(0, 0);  // taken as 1 frame per second
  EXPECT_EQ(none.period_, 1000);
  EXPECT_EQ(none.samples_.size(), 1u);
  SteppedFps fast(2000, 0);  // a 0 ms frame time, asked twice at the same instant
  EXPECT_EQ(fast.step(0), 1);
  EXPECT_EQ(fast.step(0), 1);
  EXPECT_EQ(fast.samples_[1], 1000u);
}
