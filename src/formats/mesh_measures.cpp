#include <quib/mesh_measures.hpp>

#include "system/memory.hpp"

#include <Eigen/Geometry>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

namespace quib {

namespace {

using Vector = MeshMeasures::Vector;

// The edges of a mesh, counted by direction: an open-addressing table (linear probing, a
// strong mix of the key) keyed on the sorted index pair, which grows at three quarters full.
class EdgeTable {
 public:
  explicit EdgeTable(std::size_t expected) {
    std::size_t capacity = 16;
    while (capacity * 3 < expected * 4)
      capacity <<= 1;
    slots_.reserve(capacity);
    detail::advise_huge_pages(slots_.data(), capacity * sizeof(Slot));
    slots_.resize(capacity);
  }

  void prefetch(std::uint32_t from, std::uint32_t to) const {
#if defined(__GNUC__)
    __builtin_prefetch(&slots_[hash(key(from, to)) & (slots_.size() - 1)]);
#else
    (void)from, (void)to;
#endif
  }

  // Counts the edge run from `from` to `to` (two different points).
  void add(std::uint32_t from, std::uint32_t to) {
    const std::uint64_t k = key(from, to);
    const std::size_t mask = slots_.size() - 1;
    std::size_t i = hash(k) & mask;
    for (; slots_[i].key != 0 && slots_[i].key != k; i = (i + 1) & mask) {
    }
    Slot& s = slots_[i];
    if (s.key == 0) {
      s.key = k;
      if (++used_ * 4 > slots_.size() * 3) {
        grow();
        return add(from, to);  // once more, into the larger table (s moved)
      }
    }
    // Saturating: a count past 2 only has to stay past 2.
    std::uint32_t& n = from < to ? s.forward : s.backward;
    if (n < 3) ++n;
  }

  template <class Visit>
  void for_each(Visit visit) const {
    for (Slot const& s : slots_)
      if (s.key != 0) visit(s.forward, s.backward);
  }

 private:
  struct Slot {
    std::uint64_t key = 0;                    // 0: empty; else (lower index << 32 | higher index)
    std::uint32_t forward = 0, backward = 0;  // runs from the lower index up, and down
  };

  static std::uint64_t key(std::uint32_t a, std::uint32_t b) {
    return a < b ? std::uint64_t(a) << 32 | b : std::uint64_t(b) << 32 | a;
  }
  static std::size_t hash(std::uint64_t h) {
    h ^= h >> 33;
    h *= 0xFF51AFD7ED558CCDull;
    h ^= h >> 33;
    h *= 0xC4CEB9FE1A85EC53ull;
    h ^= h >> 33;
    return static_cast<std::size_t>(h);
  }

  void grow() {
    std::vector<Slot> old(slots_.size() * 2);
    old.swap(slots_);
    const std::size_t mask = slots_.size() - 1;
    for (Slot const& s : old) {
      if (s.key == 0) continue;
      std::size_t i = hash(s.key) & mask;
      while (slots_[i].key != 0)
        i = (i + 1) & mask;
      slots_[i] = s;
    }
  }

  std::vector<Slot> slots_;
  std::size_t used_ = 0;
};

// Union-find over point indices, with path halving; -1 marks a point no triangle uses.
class PointGroups {
 public:
  explicit PointGroups(std::size_t points) : parent_(points, -1) {}

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
  // Indices fit in 32 bits; a polygon naming anything else is invalid.
  const auto valid = [&](Stl::Polygon const& p) {
    return p.size() >= 3 && p[0] >= 0 && p[1] >= 0 && p[2] >= 0 &&
           static_cast<std::size_t>(p[0]) < point_count &&
           static_cast<std::size_t>(p[1]) < point_count &&
           static_cast<std::size_t>(p[2]) < point_count;
  };
  EdgeTable edges_seen(polygons_in.size() * 3 / 2);
  PointGroups groups(point_count);

  // Sums about a reference corner r, in double: 6 x volume, 24 x the first moment, 120 x the
  // second moments (the tetrahedra from r over every triangle, signed by its orientation).
  bool have_reference = false;
  Vector r = Vector::Zero();
  double area2 = 0, volume6 = 0;
  Vector moment1 = Vector::Zero();
  double xx = 0, yy = 0, zz = 0, xy = 0, xz = 0, yz = 0;
  Vector low = Vector::Constant(std::numeric_limits<double>::infinity());
  Vector high = -low;

  // Fetches the edge slots of polygons a few ahead, so that they arrive from memory while the
  // polygons before them are handled.
  constexpr std::size_t kAhead = 8;
  const std::size_t count = polygons_in.size();
  for (std::size_t t = 0; t < count; ++t) {
    if (t + kAhead < count && valid(polygons_in[t + kAhead])) {
      Stl::Polygon const& q = polygons_in[t + kAhead];
      edges_seen.prefetch(std::uint32_t(q[0]), std::uint32_t(q[1]));
      edges_seen.prefetch(std::uint32_t(q[1]), std::uint32_t(q[2]));
      edges_seen.prefetch(std::uint32_t(q[2]), std::uint32_t(q[0]));
    }
    Stl::Polygon const& p = polygons_in[t];
    if (p.size() != 3) ++other_polygons;
    if (!valid(p)) {
      ++invalid_polygons;
      continue;
    }
    ++triangles;
    const std::int32_t i[3] = {p[0], p[1], p[2]};
    for (int k = 0; k < 3; ++k) {
      const std::int32_t from = i[k], to = i[(k + 1) % 3];
      if (from != to) edges_seen.add(std::uint32_t(from), std::uint32_t(to));
    }
    groups.join(i[0], i[1]);
    groups.join(i[0], i[2]);

    Stl::Point const& a = points[std::size_t(i[0])];
    Stl::Point const& b = points[std::size_t(i[1])];
    Stl::Point const& c = points[std::size_t(i[2])];
    if (!(a.allFinite() && b.allFinite() && c.allFinite())) {
      ++non_finite_triangles;
      continue;
    }
    if (!have_reference) {
      r = a.cast<double>();
      have_reference = true;
    }
    const Vector p0 = a.cast<double>() - r, p1 = b.cast<double>() - r, p2 = c.cast<double>() - r;
    low = low.cwiseMin(p0).cwiseMin(p1).cwiseMin(p2);
    high = high.cwiseMax(p0).cwiseMax(p1).cwiseMax(p2);
    const Vector n = (p1 - p0).cross(p2 - p0);
    const double twice_area = n.norm();
    if (twice_area == 0) ++degenerate_triangles;
    area2 += twice_area;
    const double det = p0.dot(p1.cross(p2));
    volume6 += det;
    const Vector s = p0 + p1 + p2;
    moment1 += det * s;
    const auto second = [&](int u, int v) {
      return det * (p0[u] * p0[v] + p1[u] * p1[v] + p2[u] * p2[v] + s[u] * s[v]);
    };
    xx += second(0, 0), yy += second(1, 1), zz += second(2, 2);
    xy += second(0, 1), xz += second(0, 2), yz += second(1, 2);
  }

  edges_seen.for_each([&](std::uint32_t forward, std::uint32_t backward) {
    ++edges;
    const std::uint32_t runs = forward + backward;
    if (runs == 1) ++boundary_edges;
    if (runs > 2) ++non_manifold_edges;
    if (runs == 2 && forward != 1) ++inconsistent_edges;
  });
  parts = groups.count();
  closed = triangles > 0 && boundary_edges == 0 && non_manifold_edges == 0 && edges > 0;
  oriented = triangles > 0 && inconsistent_edges == 0;
  solid = closed && oriented && invalid_polygons == 0 && non_finite_triangles == 0;
  if (!have_reference) return;  // nothing finite measured: the numbers stay NaN

  area = area2 / 2;
  volume = volume6 / 6;
  box_min = low + r;
  box_max = high + r;
  if (volume6 == 0) return;                  // no centre and no inertia of nothing
  const Vector d = moment1 / (4 * volume6);  // centroid - r
  centroid = r + d;
  // Second moments about r, then about the centroid (parallel axes).
  Matrix j;
  j << xx, xy, xz, xy, yy, yz, xz, yz, zz;
  j = j / 120 - volume * d * d.transpose();
  inertia = j.trace() * Matrix::Identity() - j;
}

void MeshMeasures::swap(MeshMeasures& other) noexcept {
  std::swap(*this, other);
}

void MeshMeasures::clear() {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  polygons = triangles = other_polygons = invalid_polygons = non_finite_triangles = 0;
  degenerate_triangles = edges = boundary_edges = non_manifold_edges = inconsistent_edges = 0;
  parts = 0;
  closed = oriented = solid = false;
  area = volume = nan;
  centroid = box_min = box_max = Vector::Constant(nan);
  inertia = Matrix::Constant(nan);
}

}  // namespace quib
