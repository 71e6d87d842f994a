// Reads a fuzzer's bytes as small integers and doubles; past the end, zeros.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace fuzz {

class Reader {
 public:
  Reader(const std::uint8_t* data, std::size_t size) : p(data), left(size) {}
  std::size_t remaining() const { return left; }
  std::uint8_t byte() {
    if (left == 0) return 0;
    --left;
    return *p++;
  }
  /// The next eight bytes as a double (any bits: NaN, infinities, subnormals), or `fallback`
  /// when fewer are left.
  double raw(double fallback) {
    double v = 0.0;
    if (left < sizeof v) return fallback;
    std::memcpy(&v, p, sizeof v);
    p += sizeof v;
    left -= sizeof v;
    return v;
  }

 private:
  const std::uint8_t* p;
  std::size_t left;
};

}  // namespace fuzz
