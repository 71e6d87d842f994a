// The library's pseudo-random number generator.
#pragma once

#include <quib/export.hpp>

#include <cstdint>
#include <vector>

namespace quib {

/// The 32-bit Mersenne Twister MT19937: each conversion draws the next number in the wanted
/// type. Integers are the tempered 32-bit words (64-bit values take two words, the first as the
/// low half); double and float are uniform in [-1, 1) (the float form may round up to 1.0f).
/// The object owns its 624-word state; copies continue the same sequence independently.
/// Nothing fails but allocation. One generator per thread.
///
///     quib::MersenneTwister mt(5489);
///     unsigned int word = mt;     // 3499211612
///     double u = mt;              // in [-1, 1)
class QUIB_API MersenneTwister {
 public:
  static constexpr int N = 624;

  explicit MersenneTwister(unsigned int seed);

  /// Re-seeds; the new state is built aside and then takes the place of the old one.
  void create(unsigned int seed);
  void swap(MersenneTwister& other) noexcept;
  /// Does nothing; the generator stays usable and its sequence unchanged.
  void release() {}
  /// Regenerates all 624 state words and restarts at the first.
  void generator();

  operator unsigned int();
  operator int();
  operator std::uint64_t();
  operator std::int64_t();
  operator double();
  operator float();

 private:
  std::vector<unsigned int> state_;
  int index_;
};

inline void swap(MersenneTwister& a, MersenneTwister& b) noexcept {
  a.swap(b);
}

}  // namespace quib
