// Helpers shared by the benchmarks.
#pragma once

#include <cstdlib>

namespace quib::bench {

/// True when the benchmark runs as a CTest smoke test: problem sizes shrink to almost nothing.
inline bool smoke() {
  const char* v = std::getenv("QUIB_BENCH_SMOKE");
  return v != nullptr && *v != '\0' && *v != '0';
}

/// `full` for a real measurement, `small` under the smoke test.
template <class T>
T size(T full, T small) {
  return smoke() ? small : full;
}

}  // namespace quib::bench
