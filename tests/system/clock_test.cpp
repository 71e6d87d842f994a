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
  SteppedFps(int fps, std::int64_t due) : Fps(fps) { last = due; }
  std::int64_t step(std::int64_t now) { return getWaitTime(now); }
  using Fps::index;
  using Fps::last;
  using Fps::period;
  using Fps::samples;
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

TEST(Period, SharedSourceNeverRunsBackwards) {
  std::int64_t const a = quib::implant_fps::Period::shared().now();
  std::int64_t const b = quib::Clock::get_ms();
  EXPECT_LE(a, quib::implant_fps::Period::shared().now());
  EXPECT_LE(b, quib::Clock::get_ms());
}

TEST(Clock, ConvertsCountsToWholeMilliseconds) {
  using quib::detail::counts_to_ms;
  EXPECT_EQ(counts_to_ms(1500, 500, 1000), 1000);
  EXPECT_EQ(counts_to_ms(2999999, 0, 1000000000), 2);   // truncated
  EXPECT_EQ(counts_to_ms(0, 1500000, 1000000000), -1);  // toward zero
  EXPECT_EQ(counts_to_ms(0, 1, 1000000000), 0);
  // No overflow even where (now - from) * 1000 would not fit in 64 bits.
  std::int64_t const big = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(counts_to_ms(big, 0, 1000000000), 9223372036854);
  EXPECT_EQ(counts_to_ms(big, big, 1000000000), 0);
  counts_to_ms(big, std::numeric_limits<std::int64_t>::min(), 1000000000);  // defined: wraps
}

TEST(Clock, StartsWhereTold) {
  EXPECT_EQ(quib::Clock().get_start(), 0);
  EXPECT_GT(quib::Clock::frequency(), 0);

  quib::Clock probe;
  std::int64_t const before = probe.get_delta_now();
  quib::Clock clock(5);
  std::int64_t const after = probe.get_delta_now();
  EXPECT_GE(clock.get_start(), before + 5);
  EXPECT_LE(clock.get_start(), after + 5);

  clock = -7;
  EXPECT_LE(clock.get_start(), probe.get_delta_now() - 7);
  EXPECT_GE(clock.get_start(), after - 7);
}

TEST(Clock, DeltaFromIgnoresOwnStart) {
  quib::Clock clock(0);
  std::int64_t const thousand_seconds_ago = clock.get_delta_now() - 1000 * quib::Clock::frequency();
  std::int64_t const ms = clock.get_delta_ms(thousand_seconds_ago);
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
  EXPECT_EQ(fps.period, 16);
  EXPECT_EQ(fps.getFps(), 0);

  EXPECT_EQ(fps.step(1004), 12);  // 4 ms of work
  EXPECT_EQ(fps.samples[0], 1000u / 16u);
  EXPECT_EQ(fps.last, 1016);

  EXPECT_EQ(fps.step(1016 + 40), 1);  // 40 ms late: wait the minimum, record 1000 / 41
  EXPECT_EQ(fps.samples[1], 24u);
  EXPECT_EQ(fps.last, 1057);
  EXPECT_EQ(fps.step(1057), 16);  // lateness is not carried into the next frame

  EXPECT_EQ(fps.step(1073 - 5), 21);  // an early frame waits longer but still records 62
  EXPECT_EQ(fps.samples[3], 62u);

  EXPECT_EQ(SteppedFps(30, 0).period, 33);
}

TEST(Fps, FillsTheRingInOrder) {
  SteppedFps fps(3, 0);
  // On-time frames record 1000 / 333 = 3; frames 1 and 4 run late and record less, which
  // tells the ring positions apart.
  int const expected_slot[] = {0, 1, 2, 0, 1};
  std::int64_t const lateness[] = {0, 500, 0, 0, 1000};
  for (int k = 0; k < 5; ++k) {
    SCOPED_TRACE(k);
    EXPECT_EQ(fps.index, expected_slot[k]);
    fps.step(fps.last + lateness[k]);
    unsigned const rate = 1000u / static_cast<unsigned>(lateness[k] ? lateness[k] + 1 : 333);
    EXPECT_EQ(fps.samples[static_cast<std::size_t>(expected_slot[k])], rate);
  }
  EXPECT_EQ(fps.getFps(), (3 + 0 + 3) / 3);
}

TEST(Fps, ReportsPartialRateUntilTheRingIsFull) {
  SteppedFps fps(60, 0);
  for (int k = 1; k <= 90; ++k) {
    fps.step(fps.last);  // every frame exactly on time: 62 each
    if (k == 30) {
      EXPECT_EQ(fps.getFps(), 30 * 62 / 60);
    }
  }
  EXPECT_EQ(fps.getFps(), 62);

  SteppedFps copy(fps);  // copies keep their own ring
  copy.step(copy.last + 1000);
  EXPECT_EQ(fps.getFps(), 62);
  EXPECT_LT(copy.getFps(), 62);
}

TEST(Fps, OddRatesStayDefined) {
  SteppedFps none(0, 0);  // taken as 1 frame per second
  EXPECT_EQ(none.period, 1000);
  EXPECT_EQ(none.samples.size(), 1u);
  EXPECT_EQ(SteppedFps(-5, 0).samples.size(), 1u);

  SteppedFps fast(2000, 0);  // a 0 ms frame time, asked twice at the same instant
  EXPECT_EQ(fast.period, 0);
  EXPECT_EQ(fast.step(0), 1);
  EXPECT_EQ(fast.step(0), 1);
  EXPECT_EQ(fast.samples[1], 1000u);
}
