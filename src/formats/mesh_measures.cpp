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

// The edges of a mesh, counted by direction. Every run of an edge from one point to another is
// filed under the lower of the two indices (a counting sort: the lower index is a perfect hash
// into its bucket), as the higher index times two plus 1 when the run goes upwards. Merged
// meshes number their points in order of first appearance, so the buckets that neighbouring
// triangles touch lie close together in memory, where a hash table's slots would be scattered.
// A bucket holds the edges of one point, a handful in a usual mesh, all of a fan's hub.
class EdgeBuckets {
 public:
  explicit EdgeBuckets(std::size_t points) { fill_fresh<std::size_t>(start_, points + 1, 0); }

  // First pass: notes one run between two different points.
  void count(std::uint32_t from, std::uint32_t to) { ++start_[std::min(from, to) + 1]; }

  // Between the passes.
  void allocate() {
    for (std::size_t i = 1; i < start_.size(); ++i)
      start_[i] += start_[i - 1];
    fill_fresh<std::uint32_t>(runs_, start_.back(), 0);
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
  std::vector<std::uint32_t> runs_;
};

// Union-find over point indices, with path halving; -1 marks a point no triangle uses.
class PointGroups {
 public:
  explicit PointGroups(std::size_t points) { fill_fresh<std::int32_t>(parent_, points, -1); }

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
  auto const valid = [&](Stl::Polygon const& p) {
    return p.size() >= 3 && p[0] >= 0 && p[1] >= 0 && p[2] >= 0 &&
           static_cast<std::size_t>(p[0]) < point_count &&
           static_cast<std::size_t>(p[1]) < point_count &&
           static_cast<std::size_t>(p[2]) < point_count;
  };
  EdgeBuckets edge_runs(point_count);
  PointGroups groups(point_count);
  std::vector<std::uint32_t> corners;  // of the measured triangles, for the second pass
  corners.reserve(3 * polygons_in.size());
  detail::advise_huge_pages(corners.data(), corners.capacity() * sizeof(std::uint32_t));

  // Sums about a reference corner r, in double: 6 x volume, 24 x the first moment, 120 x the
  // second moments (the tetrahedra from r over every triangle, signed by its orientation).
  bool have_reference = false;
  Vector r = Vector::Zero();
  double area2 = 0, volume6 = 0;
  Vector moment1 = Vector::Zero();
  double xx = 0, yy = 0, zz = 0, xy = 0, xz = 0, yz = 0;
  Vector low = Vector::Constant(std::numeric_limits<double>::infinity());
  Vector high = -low;

  const std::size_t count = polygons_in.size();
  for (std::size_t t = 0; t < count; ++t) {
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
      if (from != to) edge_runs.count(std::uint32_t(from), std::uint32_t(to));
    }
    corners.insert(corners.end(), {std::uint32_t(i[0]), std::uint32_t(i[1]), std::uint32_t(i[2])});
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
    double const twice_area = n.norm();
    if (twice_area == 0) ++degenerate_triangles;
    area2 += twice_area;
    double const det = p0.dot(p1.cross(p2));
    volume6 += det;
    const Vector s = p0 + p1 + p2;
    moment1 += det * s;
    auto const second = [&](int u, int v) {
      return det * (p0[u] * p0[v] + p1[u] * p1[v] + p2[u] * p2[v] + s[u] * s[v]);
    };
    xx += second(0, 0), yy += second(1, 1), zz += second(2, 2);
    xy += second(0, 1), xz += second(0, 2), yz += second(1, 2);
  }

  edge_runs.allocate();
  for (std::size_t c = 0; c < corners.size(); c += 3)
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
