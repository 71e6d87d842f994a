// Plain geometry value types: sizes, positions, rectangles and 3-vectors.
#pragma once

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <type_traits>

#if !defined(_WIN32)
/// The platform size record: two 32-bit signed components. Windows declares it in its own
/// headers; elsewhere this layout-compatible stand-in is used.
struct tagSIZE {
  std::int32_t cx;
  std::int32_t cy;
};
#else
#include <windows.h>
#endif

namespace quib::region {

/// An offset with the layout of the platform point record. Added to extents with `+=`.
template <class T>
struct POINT {
  T x;
  T y;
};

/// A size with the layout of the platform size record.
template <class T>
struct SIZE {
  T cx{};
  T cy{};
};

/// A pixel position: `x` is the column, `y` the row.
template <class T>
struct point {
  T x;
  T y;
};

/// A rectangle; the library makes only (0, 0, width, height), which reads the same as
/// an exclusive far corner or as a size.
template <class T>
struct rect {
  T left;
  T top;
  T right;
  T bottom;
};

/// A three-component value, used for statistics that come in threes.
template <class T>
struct vector3 {
  T x;
  T y;
  T z;
};

/// The size of a 2-D area: `cx` columns by `cy` rows. INT_MIN in either component marks an
/// empty extent (`set_empty`); a zero size is not empty. Behaves as a 2x1 column vector.
/// A plain value: no failure, no allocation, safe to copy between threads.
///
///     quib::region::extent<int> e(640, 480);
///     e.expand(2, 2);                     // 642 x 482
template <class T>
struct extent {
  T cx{};
  T cy{};

  extent() = default;
  constexpr extent(T width, T height) : cx(width), cy(height) {}
  constexpr extent(tagSIZE const& s) : cx(s.cx), cy(s.cy) {}  // NOLINT: implicit on purpose
  constexpr extent(SIZE<T> const& s) : cx(s.cx), cy(s.cy) {}  // NOLINT: implicit on purpose
  extent(extent const& other) = default;

  extent& operator=(extent const& other) = default;
  extent& operator=(SIZE<T> const& s) {
    cx = s.cx;
    cy = s.cy;
    return *this;
  }
  extent& operator=(tagSIZE const& s) {
    cx = s.cx;
    cy = s.cy;
    return *this;
  }
  operator tagSIZE() const {
    return tagSIZE{static_cast<std::int32_t>(cx), static_cast<std::int32_t>(cy)};
  }

  void set(T width, T height) {
    cx = width;
    cy = height;
  }
  void expand(T dx, T dy) {
    cx += dx;
    cy += dy;
  }
  void clear() { cx = cy = T(0); }
  void set_empty() { cx = cy = static_cast<T>(INT_MIN); }
  bool empty() const { return cx == static_cast<T>(INT_MIN) || cy == static_cast<T>(INT_MIN); }
  void normalize() {
    cx = cx < T(0) ? -cx : cx;
    cy = cy < T(0) ? -cy : cy;
  }
  extent operator-() const { return extent(-cx, -cy); }
  extent& operator+=(POINT<T> const& p) {
    cx += p.x;
    cy += p.y;
    return *this;
  }
  extent& operator+=(SIZE<T> const& s) {
    cx += s.cx;
    cy += s.cy;
    return *this;
  }
  extent& operator-=(POINT<T> const& p) {
    cx -= p.x;
    cy -= p.y;
    return *this;
  }
  extent& operator-=(SIZE<T> const& s) {
    cx -= s.cx;
    cy -= s.cy;
    return *this;
  }
  static constexpr int rows() { return 2; }
  static constexpr int cols() { return 1; }
};

static_assert(std::is_trivially_copyable_v<extent<int>>);
static_assert(sizeof(extent<int>) == sizeof(tagSIZE));
static_assert(std::is_trivially_copyable_v<point<int>>);
static_assert(std::is_trivially_copyable_v<rect<int>>);
static_assert(std::is_trivially_copyable_v<vector3<float>>);

}  // namespace quib::region
