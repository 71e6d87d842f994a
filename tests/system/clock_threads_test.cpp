// Run under ThreadSanitizer (label tsan): the process-wide tick sources used from many threads.
#include <quib/clock.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

TEST(ClockThreads, TickSourcesAreSafeAndMonotonicOnEveryThread) {
  std::atomic<bool> go{false};
  std::atomic<int> backwards{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      while (!go.load())
        std::this_thread::yield();
      quib::Fps fps(60);  // the threads race to create the shared frame time source
      std::int64_t ms = quib::Clock::get_ms(), now = fps.getNow();
      for (int i = 0; i < 20000; ++i) {
        std::int64_t const next_ms = quib::Clock::get_ms(), next_now = fps.getNow();
        if (next_ms < ms || next_now < now) ++backwards;
        ms = next_ms;
        now = next_now;
      }
    });
  }
  go = true;
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(backwards.load(), 0);
}
