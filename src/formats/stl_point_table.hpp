// Internal: the STL reader's point table (the hash set that merges equal points) and the
// builder that collects triangles into a mesh's containers.
#pragma once

#include <quib/stl.hpp>

#include "system/bytes.hpp"
#include "system/memory.hpp"

#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

// For the innermost loops: the number parser and the merge table's prefetches.
#if defined(__GNUC__)
#define QUIB_STL_INLINE [[gnu::always_inline]] inline
#else
#define QUIB_STL_INLINE inline
#endif

namespace quib::detail {

constexpr std::size_t kStlMaxPoints = INT_MAX;  // indices are int

inline std::uint32_t bits_of(float v) {
  std::uint32_t bits;
  std::memcpy(&bits, &v, sizeof bits);
  return bits;
}

// A hash set of points that hands out indices in order of first appearance. Points are equal
// when their coordinates compare equal as floats, except that +0.0 and -0.0 differ: that is
// exactly bitwise equality for points without NaN. A point with a NaN coordinate equals
// nothing, not even itself, so it never enters the table. Open addressing with linear probing
// over a well-mixed hash keeps grid-like coordinates (many equal low bits) as fast as random
// ones.
class point_table {
 public:
  // Room for `expected` points before the table grows.
  explicit point_table(std::size_t expected) {
    std::size_t capacity = 16;
    while (capacity < 2 * expected)
      capacity <<= 1;
    slots_.reserve(capacity);
    advise_huge_pages(slots_.data(), capacity * sizeof(slot));
    slots_.assign(capacity, slot{0, 0, 0, -1});
  }

  // Starts fetching the slot where the search for the point with these coordinate bits
  // begins, so that a later index() finds it in the cache. Inlined by force: out of line, the
  // compiler takes a function that only prefetches for one without effect and drops the call.
  QUIB_STL_INLINE void prefetch(std::uint32_t x, std::uint32_t y, std::uint32_t z) const {
#if defined(__GNUC__)
    __builtin_prefetch(&slots_[hash(x, y, z) & (slots_.size() - 1)]);
#else
    (void)x, (void)y, (void)z;
#endif
  }
  QUIB_STL_INLINE void prefetch(Stl::Point const& p) const {
    prefetch(bits_of(p.x()), bits_of(p.y()), bits_of(p.z()));
  }

  // Index of `p` in `points`, appending it when it is new.
  QUIB_STL_INLINE int index(Stl::Point const& p, std::vector<Stl::Point>& points) {
    if (std::isnan(p.x()) || std::isnan(p.y()) || std::isnan(p.z())) return append(p, points);
    const std::uint32_t x = bits_of(p.x()), y = bits_of(p.y()), z = bits_of(p.z());
    const std::size_t mask = slots_.size() - 1;
    std::size_t i = hash(x, y, z) & mask;
    for (;; i = (i + 1) & mask) {
      slot& s = slots_[i];
      if (s.index < 0) break;
      if (s.x == x && s.y == y && s.z == z) return s.index;
    }
    int const n = append(p, points);
    slots_[i] = slot{x, y, z, n};
    if (++used_ * 2 > slots_.size()) grow();
    return n;
  }

 private:
  struct slot {
    std::uint32_t x, y, z;
    std::int32_t index;  // -1: empty
  };

  static std::uint64_t mix(std::uint64_t h) {
    h ^= h >> 33;
    h *= 0xFF51AFD7ED558CCDull;
    h ^= h >> 33;
    h *= 0xC4CEB9FE1A85EC53ull;
    h ^= h >> 33;
    return h;
  }
  static std::size_t hash(std::uint32_t x, std::uint32_t y, std::uint32_t z) {
    return static_cast<std::size_t>(
        mix((std::uint64_t(y) << 32 | x) ^ mix(z + 0x9E3779B97F4A7C15ull)));
  }

  static int append(Stl::Point const& p, std::vector<Stl::Point>& points) {
    points.push_back(p);
    return static_cast<int>(points.size() - 1);
  }

  void grow() {
    std::vector<slot> old(slots_.size() * 2, slot{0, 0, 0, -1});
    old.swap(slots_);
    const std::size_t mask = slots_.size() - 1;
    for (slot const& s : old) {
      if (s.index < 0) continue;
      std::size_t i = hash(s.x, s.y, s.z) & mask;
      while (slots_[i].index >= 0)
        i = (i + 1) & mask;
      slots_[i] = s;
    }
  }

  std::vector<slot> slots_;
  std::size_t used_ = 0;
};

// Collects triangles into fresh containers, merging corners on request.
class mesh_builder {
 public:
  mesh_builder(bool merge, std::size_t expected_triangles)
      : table_(merge ? expected_triangles / 2 : 0), merge_(merge) {
    points.reserve(expected_triangles * 3);
    polygons.reserve(expected_triangles);
    advise_huge_pages(points.data(), points.capacity() * sizeof(Stl::Point));
    advise_huge_pages(polygons.data(), polygons.capacity() * sizeof(Stl::Polygon));
  }

  // With merging, starts fetching the table slots of the triangle whose three corners are the
  // nine little-endian floats at `corners`.
  QUIB_STL_INLINE void prefetch(unsigned char const* corners) const {
    if (!merge_) return;
    for (int k = 0; k < 3; ++k)
      table_.prefetch(load_le<std::uint32_t>(corners + 12 * k),
                      load_le<std::uint32_t>(corners + 12 * k + 4),
                      load_le<std::uint32_t>(corners + 12 * k + 8));
  }

  // Appends one triangle; false when the mesh would need more points than an int indexes.
  QUIB_STL_INLINE bool add(Stl::Point const& a, Stl::Point const& b, Stl::Point const& c) {
    if (points.size() > kStlMaxPoints - 3 || polygons.size() >= kStlMaxPoints) return false;
    if (merge_) {
      int const ia = table_.index(a, points);
      int const ib = table_.index(b, points);
      int const ic = table_.index(c, points);
      polygons.push_back(Stl::Polygon{ia, ib, ic});
    } else {
      int const n = static_cast<int>(points.size());
      points.push_back(a);
      points.push_back(b);
      points.push_back(c);
      polygons.push_back(Stl::Polygon{n, n + 1, n + 2});
    }
    return true;
  }

  std::vector<Stl::Point> points;
  std::vector<Stl::Polygon> polygons;

 private:
  point_table table_;
  bool merge_;
};

}  // namespace quib::detail
