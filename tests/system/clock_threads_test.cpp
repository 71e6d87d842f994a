// Run under ThreadSanitizer (label tsan): the process-wide tick sources used from many threads.
#include <quib/clock.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

namespace {

constexpr int kThreads = 8;
constexpr int kReadings = 20000;

// Runs `body` on kThreads threads released together; counts the threads that saw time run back.
template <class Body>
int count_backwards(Body body) {
  std::atomic<bool> go{false};
  std::atomic<int> backwards{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      while (!go.load())
        std::this_thread::yield();
      if (!body()) ++backwards;
    });
  }
  go = true;
  for (auto& thread : threads)
    thread.join();
  return backwards.load();
}

}  // namespace

TEST(ClockThreads, MillisecondTickIsMonotonicOnEveryThread) {
  EXPECT_EQ(count_backwards([] {
              std::int64_t previous = quib::Clock::get_ms();
              for (int i = 0; i < kReadings; ++i) {
                std::int64_t const now = quib::Clock::get_ms();
                if (now < previous) return false;
                previous = now;
              }
              return true;
            }),
            0);
}

TEST(ClockThreads, FrameSourceIsSharedAndMonotonic) {
  // Each thread creates its own pacer, racing to create the shared source first.
  EXPECT_EQ(count_backwards([] {
              quib::Fps fps(60);
              quib::Clock clock(0);
              std::int64_t previous = fps.getNow();
              for (int i = 0; i < kReadings; ++i) {
                std::int64_t const now = fps.getNow();
                if (now < previous || clock.get_delta_ms() < 0) return false;
                previous = now;
              }
              return true;
            }),
            0);
}
