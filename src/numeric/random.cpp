#include <quib/random.hpp>

#include <algorithm>
#include <utility>

namespace quib {

namespace {

constexpr int kM = 397;
constexpr unsigned int kUpper = 0x80000000u;
constexpr unsigned int kLower = 0x7fffffffu;
constexpr unsigned int kMatrix = 0x9908b0dfu;

std::vector<unsigned int> seeded(unsigned int seed) {
  std::vector<unsigned int> s(MersenneTwister::N);
  s[0] = seed;
  for (unsigned int i = 1; i < static_cast<unsigned int>(MersenneTwister::N); ++i)
    s[i] = 1812433253u * (s[i - 1] ^ (s[i - 1] >> 30)) + i;
  return s;
}

// u·|hi - lo|·2^-32 + min(lo, hi) with lo = -1, hi = 1.
constexpr double kTwoPowMinus32 = 2.3283064365386963e-10;

}  // namespace

MersenneTwister::MersenneTwister(unsigned int seed) : state_(seeded(seed)), index_(0) {
  generator();
}

void MersenneTwister::create(unsigned int seed) {
  MersenneTwister fresh(seed);
  swap(fresh);
}

void MersenneTwister::swap(MersenneTwister& other) noexcept {
  state_.swap(other.state_);
  std::swap(index_, other.index_);
}

void MersenneTwister::generator() {
  for (int i = 0; i < N; ++i) {
    unsigned int const y = (state_[i] & kUpper) | (state_[(i + 1) % N] & kLower);
    state_[i] = state_[(i + kM) % N] ^ (y >> 1) ^ ((y & 1u) ? kMatrix : 0u);
  }
  index_ = 0;
}

MersenneTwister::operator unsigned int() {
  unsigned int y = state_[index_];
  y ^= y >> 11;
  y ^= (y << 7) & 0x9d2c5680u;
  y ^= (y << 15) & 0xefc60000u;
  y ^= y >> 18;
  if (++index_ == N) generator();
  return y;
}

MersenneTwister::operator int() {
  return static_cast<int>(static_cast<unsigned int>(*this));
}

MersenneTwister::operator std::uint64_t() {
  const std::uint64_t low = static_cast<unsigned int>(*this);
  const std::uint64_t high = static_cast<unsigned int>(*this);
  return (high << 32) | low;
}

MersenneTwister::operator std::int64_t() {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(*this));
}

MersenneTwister::operator double() {
  unsigned int const u = *this;
  return static_cast<double>(u) * 2.0 * kTwoPowMinus32 + -1.0;
}

MersenneTwister::operator float() {
  unsigned int const u = *this;
  float const span = static_cast<float>(u) * 2.0f;  // formed in single precision
  return static_cast<float>(static_cast<double>(span) * kTwoPowMinus32 + -1.0);
}

}  // namespace quib
