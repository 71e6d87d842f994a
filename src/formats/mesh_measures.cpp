#include <quib/mesh_measures.hpp>

#include "system/memory.hpp"

#include <Eigen/Geometry>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

namespace quib {

namespace {

using Vector = MeshMeasures::Vector;

// `v` resized to `n` copies of `value`, with huge pages asked for before the memory is first
// touched (a pass over tens of millions of triangles otherwise spends much of its time in page
// faults).
template <class T>
void fill_fresh(std::vector<T>& v, std::size_t n, T value) {
  v.clear();
  v.reserve(n);
  detail::advise_huge_pages(v.data(), n * sizeof(T));
  v.resize(n, value);
}

// An array of `n` values that are all written before they are read: not filled first, and
// with huge pages asked for before the memory is touched.
template <class T>
std::unique_ptr<T[]> unfilled(std::size_t n) {
  std::unique_ptr<T[]> a(new T[n]);
  detail::advise_huge_pages(a.get(), n * sizeof(T));
  return a;
}

// The edges of a mesh, counted by direction. Every run of an edge from one point to another is
// filed under the lower of the two indices (a counting sort: the lower index is a perfect hash
// into its bucket), as the higher index times two plus 1 when the run goes upwards. Merged
// meshes number their points in order of first appearance, so the buckets that neighbouring
// triangles touch lie close together in memory, where a hash table's slots would be scattered.
// A bucket holds the edges of one point, a handful in a usual mesh, all of a fan's hub.
class edge_buckets {
 public:
  explicit edge_buckets(std::size_t points) { fill_fresh<std::size_t>(start_, points + 1, 0); }

  // First pass: notes one run between two different points.
  void count(std::uint32_t from, std::uint32_t to) { ++start_[std::min(from, to) + 1]; }

  // Between the passes.
  void allocate() {
    for (std::size_t i = 1; i < start_.size(); ++i)
      start_[i] += start_[i - 1];
    runs_ = unfilled<std::uint32_t>(start_.back());
    fill_.reserve(start_.size() - 1);
    detail::advise_huge_pages(fill_.data(), fill_.capacity() * sizeof(std::size_t));
    fill_.assign(start_.begin(), start_.end() - 1);
  }

  // Second pass: files the same runs.
  void file(std::uint32_t from, std::uint32_t to) {
    bool const up = from < to;
    const std::uint32_t low = up ? from : to, high = up ? to : from;
    runs_[fill_[low]++] = high * 2 + (up ? 1 : 0);
  }

  // Calls visit(upward runs, downward runs) once for each distinct edge. The runs of one edge
  // are brought together through two arrays over the higher index: the bucket that last saw
  // it, and its group there. No sorting, one look at each run.
  template <class Visit>
  void for_each(Visit visit) {
    const std::size_t points = start_.size() - 1;
    std::vector<std::uint32_t> seen_in, group_of;
    fill_fresh(seen_in, points, std::numeric_limits<std::uint32_t>::max());
    fill_fresh<std::uint32_t>(group_of, points, 0);
    std::size_t longest = 0;
    for (std::size_t p = 0; p < points; ++p)
      longest = std::max(longest, start_[p + 1] - start_[p]);
    std::vector<std::uint32_t> up(longest), down(longest);
    for (std::size_t p = 0; p < points; ++p) {
      std::uint32_t groups = 0;
      for (std::size_t r = start_[p]; r < start_[p + 1]; ++r) {
        const std::uint32_t high = runs_[r] >> 1;
        if (seen_in[high] != p) {
          seen_in[high] = static_cast<std::uint32_t>(p);
          group_of[high] = groups;
          up[groups] = down[groups] = 0;
          ++groups;
        }
        ++(runs_[r] & 1 ? up : down)[group_of[high]];
      }
      for (std::uint32_t g = 0; g < groups; ++g)
        visit(up[g], down[g]);
    }
  }

 private:
  std::vector<std::size_t> start_;  // bucket p is runs_[start_[p], start_[p + 1])
  std::vector<std::size_t> fill_;
  std::unique_ptr<std::uint32_t[]> runs_;
};

// Union-find over point indices, with path halving; -1 marks a point no triangle uses.
class point_groups {
 public:
  explicit point_groups(std::size_t points) { fill_fresh<std::int32_t>(parent_, points, -1); }

  void join(std::int32_t a, std::int32_t b) {
    a = find(a), b = find(b);
    if (a != b) parent_[static_cast<std::size_t>(std::max(a, b))] = std::min(a, b);
  }
  // The number of groups of used points.
  std::int64_t count() const {
    std::int64_t n = 0;
    for (std::size_t i = 0; i < parent_.size(); ++i)
      n += parent_[i] == static_cast<std::int32_t>(i);
    return n;
  }

 private:
  std::int32_t find(std::int32_t a) {
    std::int32_t& p = parent_[static_cast<std::size_t>(a)];
    if (p < 0) return p = a;  // first use
    while (parent_[static_cast<std::size_t>(a)] != a) {
      std::int32_t& up = parent_[static_cast<std::size_t>(a)];
      up = parent_[static_cast<std::size_t>(up)];
      a = up;
    }
    return a;
  }

  std::vector<std::int32_t> parent_;
};

// The sums over the triangles' geometry, about a reference point (the first corner of the
// first finite triangle), in double: twice the area, 6 x the volume, 24 x the first moment and
// 120 x the second moments xx, yy, zz, xy, xz, yz (the tetrahedra from the reference over every
// triangle, signed by its orientation), and the box of the finite corners.
struct triangle_sums {
  bool measured = false;  // a finite triangle was found
  Vector reference = Vector::Zero();
  double area2 = 0, volume6 = 0;
  Vector moment1 = Vector::Zero();
  double second[6] = {0, 0, 0, 0, 0, 0};
  Vector low = Vector::Constant(std::numeric_limits<double>::infinity());
  Vector high = Vector::Constant(-std::numeric_limits<double>::infinity());
  std::int64_t non_finite = 0;
  std::int64_t degenerate = 0;
};

// The geometry is written once over a point type V with the operations below, and built for
// two: three doubles (scalar code, any processor) and a vector of four doubles (x, y, z, 0)
// that AVX2 holds in one register. Both do the same operations in the same order.
struct triple {
  double v[3];
  double operator[](int i) const { return v[i]; }
};
inline triple operator+(triple const& a, triple const& b) {
  return {{a[0] + b[0], a[1] + b[1], a[2] + b[2]}};
}
inline triple operator-(triple const& a, triple const& b) {
  return {{a[0] - b[0], a[1] - b[1], a[2] - b[2]}};
}
inline triple operator-(triple const& a) {
  return {{-a[0], -a[1], -a[2]}};
}
inline triple operator*(double s, triple const& a) {
  return {{s * a[0], s * a[1], s * a[2]}};
}
inline triple& operator+=(triple& a, triple const& b) {
  return a = a + b;
}
inline triple widen(Stl::Point const& p, triple const*) {
  return {{double(p[0]), double(p[1]), double(p[2])}};
}
inline triple mul(triple const& a, triple const& b) {
  return {{a[0] * b[0], a[1] * b[1], a[2] * b[2]}};
}
inline triple lower(triple const& a, triple const& b) {
  return {{a[0] < b[0] ? a[0] : b[0], a[1] < b[1] ? a[1] : b[1], a[2] < b[2] ? a[2] : b[2]}};
}
inline triple upper(triple const& a, triple const& b) {
  return {{a[0] > b[0] ? a[0] : b[0], a[1] > b[1] ? a[1] : b[1], a[2] > b[2] ? a[2] : b[2]}};
}
// (y, z, x).
inline triple turn(triple const& a) {
  return {{a[1], a[2], a[0]}};
}

typedef double v4d __attribute__((vector_size(32)));
typedef long long v4i __attribute__((vector_size(32)));
// These vectors pass only between inline functions of this file, built into one pass each,
// never across an interface whose ABI could change with the instruction set.
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wpsabi"
#elif defined(__GNUC__)
#pragma GCC diagnostic ignored "-Wpsabi"
#endif

inline v4d widen(Stl::Point const& p, v4d const*) {
  return v4d{double(p[0]), double(p[1]), double(p[2]), 0.0};
}
inline v4d mul(v4d a, v4d b) {
  return a * b;
}
inline v4d lower(v4d a, v4d b) {
  return reinterpret_cast<v4d>((reinterpret_cast<v4i>(a) & (a < b)) |
                               (reinterpret_cast<v4i>(b) & ~(a < b)));
}
inline v4d upper(v4d a, v4d b) {
  return reinterpret_cast<v4d>((reinterpret_cast<v4i>(a) & (a > b)) |
                               (reinterpret_cast<v4i>(b) & ~(a > b)));
}
// (y, z, x, 0).
inline v4d turn(v4d v) {
#if defined(__clang__)
  return __builtin_shufflevector(v, v, 1, 2, 0, 3);
#else
  return __builtin_shuffle(v, v4i{1, 2, 0, 3});
#endif
}

template <class V>
V cross(V const& a, V const& b) {
  const V c = mul(a, turn(b)) - mul(turn(a), b);  // (x·y' - y·x', y·z' - z·y', z·x' - x·z')
  return turn(c);
}
template <class V>
double dot(V const& a, V const& b) {
  const V p = mul(a, b);
  return (p[0] + p[1]) + p[2];
}
template <class V>
bool finite(V const& v) {
  return std::isfinite(v[0]) && std::isfinite(v[1]) && std::isfinite(v[2]);
}

// The geometric sums, one triangle at a time.
template <class V>
class geometry {
 public:
  void add(Stl::Point const& point_a, Stl::Point const& point_b, Stl::Point const& point_c) {
    const V pa = widen(point_a, nullptr_), pb = widen(point_b, nullptr_),
            pc = widen(point_c, nullptr_);
    if (!(finite(pa) && finite(pb) && finite(pc))) {
      ++non_finite_;
      return;
    }
    if (!measured_) {
      r_ = pa;
      measured_ = true;
    }
    const V a = pa - r_, b = pb - r_, c = pc - r_;
    low_ = lower(lower(lower(low_, a), b), c);
    high_ = upper(upper(upper(high_, a), b), c);
    const V n = cross<V>(b - a, c - a);
    double const twice_area = std::sqrt(dot(n, n));
    degenerate_ += twice_area == 0;
    area2_ += twice_area;
    double const det = dot(a, cross(b, c));
    volume6_ += det;
    const V s = a + b + c;
    moment1_ += det * s;
    diagonal_ += det * (mul(a, a) + mul(b, b) + mul(c, c) + mul(s, s));
    across_ += det * (mul(a, turn(a)) + mul(b, turn(b)) + mul(c, turn(c)) + mul(s, turn(s)));
  }

  void finish(triangle_sums& out) const {
    out.measured = measured_;
    out.reference = Vector(r_[0], r_[1], r_[2]);
    out.area2 = area2_;
    out.volume6 = volume6_;
    out.moment1 = Vector(moment1_[0], moment1_[1], moment1_[2]);
    double const second[6] = {diagonal_[0], diagonal_[1], diagonal_[2],
                              across_[0],   across_[2],   across_[1]};
    std::copy(second, second + 6, out.second);
    out.low = Vector(low_[0], low_[1], low_[2]);
    out.high = Vector(high_[0], high_[1], high_[2]);
    out.non_finite = non_finite_;
    out.degenerate = degenerate_;
  }

 private:
  static constexpr double kInf = std::numeric_limits<double>::infinity();
  static constexpr V const* nullptr_ = nullptr;
  bool measured_ = false;
  V r_ = widen(Stl::Point::Zero(), nullptr_);
  double area2_ = 0, volume6_ = 0;
  V moment1_ = r_, diagonal_ = r_, across_ = r_;  // (xx, yy, zz), (xy, yz, zx)
  V low_ = widen(Stl::Point::Constant(std::numeric_limits<float>::infinity()), nullptr_);
  V high_ = -low_;
  std::int64_t non_finite_ = 0, degenerate_ = 0;
};

// What the first pass finds besides the edges and parts.
struct first_pass_result {
  std::size_t corners = 0;  // three per measured triangle
  std::int64_t other_polygons = 0;
  std::int64_t invalid_polygons = 0;
  triangle_sums sums;
};

// The one pass over the polygons: the corners of the measured triangles into `corners`, their
// edge runs counted, their points joined, their geometry summed (with points of type V).
template <class V>
void first_pass(std::vector<Stl::Point> const& points, std::vector<Stl::Polygon> const& polygons,
                edge_buckets& edge_runs, point_groups& groups, std::uint32_t* corners,
                first_pass_result& out) {
  const std::size_t point_count = points.size();
  // Indices fit in 32 bits; a polygon naming anything else is invalid.
  auto const valid = [&](Stl::Polygon const& p) {
    return p.size() >= 3 && p[0] >= 0 && p[1] >= 0 && p[2] >= 0 &&
           static_cast<std::size_t>(p[0]) < point_count &&
           static_cast<std::size_t>(p[1]) < point_count &&
           static_cast<std::size_t>(p[2]) < point_count;
  };
  std::uint32_t* corner = corners;
  std::int64_t others = 0, invalid = 0;
  geometry<V> geometry;
  Stl::Point const* at = points.data();
  for (Stl::Polygon const& p : polygons) {
    others += p.size() != 3;
    if (!valid(p)) {
      ++invalid;
      continue;
    }
    const std::uint32_t i[3] = {std::uint32_t(p[0]), std::uint32_t(p[1]), std::uint32_t(p[2])};
    for (int k = 0; k < 3; ++k) {
      const std::uint32_t from = i[k], to = i[(k + 1) % 3];
      if (from != to) edge_runs.count(from, to);
      corner[k] = i[k];
    }
    corner += 3;
    groups.join(std::int32_t(i[0]), std::int32_t(i[1]));
    groups.join(std::int32_t(i[0]), std::int32_t(i[2]));
    geometry.add(at[i[0]], at[i[1]], at[i[2]]);
  }
  out.corners = static_cast<std::size_t>(corner - corners);
  out.other_polygons = others;
  out.invalid_polygons = invalid;
  geometry.finish(out.sums);
}

// The pass for processors with AVX2, which hold a point in one register; everything it calls
// is built into it with AVX2 (flatten).
#if defined(__x86_64__) && defined(__GNUC__)
__attribute__((target("avx2"), flatten)) void first_pass_avx2(
    std::vector<Stl::Point> const& points, std::vector<Stl::Polygon> const& polygons,
    edge_buckets& edge_runs, point_groups& groups, std::uint32_t* corners, first_pass_result& out) {
  first_pass<v4d>(points, polygons, edge_runs, groups, corners, out);
}
#endif

void run_first_pass(std::vector<Stl::Point> const& points,
                    std::vector<Stl::Polygon> const& polygons, edge_buckets& edge_runs,
                    point_groups& groups, std::uint32_t* corners, first_pass_result& out) {
#if defined(__x86_64__) && defined(__GNUC__)
  static bool const avx2 = __builtin_cpu_supports("avx2");
  if (avx2) return first_pass_avx2(points, polygons, edge_runs, groups, corners, out);
#endif
  first_pass<triple>(points, polygons, edge_runs, groups, corners, out);
}

}  // namespace

MeshMeasures::MeshMeasures() {
  clear();
}

MeshMeasures::MeshMeasures(Stl const& mesh) : MeshMeasures(mesh.points(), mesh.polygons()) {}

MeshMeasures::MeshMeasures(std::vector<Stl::Point> const& points,
                           std::vector<Stl::Polygon> const& polygons_in) {
  clear();
  polygons = static_cast<std::int64_t>(polygons_in.size());
  const std::size_t point_count = points.size();
  edge_buckets edge_runs(point_count);
  point_groups groups(point_count);
  // The corners of the measured triangles, for the pass over the edges.
  const std::unique_ptr<std::uint32_t[]> corners = unfilled<std::uint32_t>(3 * polygons_in.size());
  first_pass_result first;
  run_first_pass(points, polygons_in, edge_runs, groups, corners.get(), first);
  other_polygons = first.other_polygons;
  invalid_polygons = first.invalid_polygons;
  triangles = static_cast<std::int64_t>(first.corners / 3);

  edge_runs.allocate();
  for (std::size_t c = 0; c < first.corners; c += 3)
    for (std::size_t k = 0; k < 3; ++k) {
      const std::uint32_t from = corners[c + k], to = corners[c + (k + 1) % 3];
      if (from != to) edge_runs.file(from, to);
    }
  edge_runs.for_each([&](std::uint32_t forward, std::uint32_t backward) {
    ++edges;
    const std::uint32_t runs = forward + backward;
    if (runs == 1) ++boundary_edges;
    if (runs > 2) ++non_manifold_edges;
    if (runs == 2 && forward != 1) ++inconsistent_edges;
  });
  parts = groups.count();
  closed = triangles > 0 && boundary_edges == 0 && non_manifold_edges == 0 && edges > 0;
  oriented = triangles > 0 && inconsistent_edges == 0;

  triangle_sums const& sums = first.sums;
  non_finite_triangles = sums.non_finite;
  degenerate_triangles = sums.degenerate;
  solid = closed && oriented && invalid_polygons == 0 && non_finite_triangles == 0;
  if (!sums.measured) return;  // nothing finite measured: the numbers stay NaN

  Vector const& r = sums.reference;
  area = sums.area2 / 2;
  volume = sums.volume6 / 6;
  box_min = sums.low + r;
  box_max = sums.high + r;
  if (sums.volume6 == 0) return;                       // no centre and no inertia of nothing
  const Vector d = sums.moment1 / (4 * sums.volume6);  // centroid - r
  centroid = r + d;
  // Second moments about r, then about the centroid (parallel axes).
  double const* m = sums.second;
  Matrix j;
  j << m[0], m[3], m[4], m[3], m[1], m[5], m[4], m[5], m[2];
  j = j / 120 - volume * d * d.transpose();
  inertia = j.trace() * Matrix::Identity() - j;
}

void MeshMeasures::swap(MeshMeasures& other) noexcept {
  std::swap(*this, other);
}

void MeshMeasures::clear() {
  double const nan = std::numeric_limits<double>::quiet_NaN();
  polygons = triangles = other_polygons = invalid_polygons = non_finite_triangles = 0;
  degenerate_triangles = edges = boundary_edges = non_manifold_edges = inconsistent_edges = 0;
  parts = 0;
  closed = oriented = solid = false;
  area = volume = nan;
  centroid = box_min = box_max = Vector::Constant(nan);
  inertia = Matrix::Constant(nan);
}

}  // namespace quib
