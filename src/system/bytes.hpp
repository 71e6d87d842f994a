// Internal: the one way the library reads and writes fixed-size numbers in a byte order.
// Every field of a binary format goes through these; no pointer punning, no unions.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace quib::detail {

// The value of `v` with its bytes in the opposite order (integers and IEEE floats alike).
template <class T>
inline T byte_swapped(T v) {
  static_assert(std::is_trivially_copyable_v<T> &&
                (sizeof(T) == 1 || sizeof(T) == 2 || sizeof(T) == 4 || sizeof(T) == 8));
  if constexpr (sizeof(T) == 1) {
    return v;
  } else if constexpr (sizeof(T) == 2) {
    std::uint16_t u;
    std::memcpy(&u, &v, 2);
    u = __builtin_bswap16(u);
    std::memcpy(&v, &u, 2);
    return v;
  } else if constexpr (sizeof(T) == 4) {
    std::uint32_t u;
    std::memcpy(&u, &v, 4);
    u = __builtin_bswap32(u);
    std::memcpy(&v, &u, 4);
    return v;
  } else {
    std::uint64_t u;
    std::memcpy(&u, &v, 8);
    u = __builtin_bswap64(u);
    std::memcpy(&v, &u, 8);
    return v;
  }
}

constexpr bool kHostLittle = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;

// A T stored at p in little-endian order.
template <class T>
inline T load_le(void const* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return kHostLittle ? v : byte_swapped(v);
}

// A T stored at p in big-endian order.
template <class T>
inline T load_be(void const* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return kHostLittle ? byte_swapped(v) : v;
}

// A T stored at p, little-endian when `little`, else big-endian.
template <class T>
inline T load(void const* p, bool little) {
  return little ? load_le<T>(p) : load_be<T>(p);
}

// Writes v at p in little-endian order.
template <class T>
inline void store_le(void* p, T v) {
  if (!kHostLittle) v = byte_swapped(v);
  std::memcpy(p, &v, sizeof v);
}

// Writes v at p in big-endian order.
template <class T>
inline void store_be(void* p, T v) {
  if (kHostLittle) v = byte_swapped(v);
  std::memcpy(p, &v, sizeof v);
}

}  // namespace quib::detail
