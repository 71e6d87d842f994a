// Measures of a triangle mesh: area, volume, centroid, inertia, bounding box and its topology.
#pragma once

#include <quib/export.hpp>
#include <quib/stl.hpp>

#include <Eigen/Core>

#include <cstdint>
#include <vector>

namespace quib {

/// What one pass over a shared-vertex triangle mesh (such as `Stl` loads with merging) says
/// about it: surface area, bounding box, signed volume, centroid and inertia tensor of the
/// enclosed solid, and the topology that decides whether that solid exists. Edges are the
/// unordered pairs of distinct point indices that polygons share; equal coordinates under
/// different indices are different points (merge or compress first).
///
/// Every polygon is measured by its first three indices. A polygon with fewer than three
/// entries or an index outside the points is left out and counted in `invalid_polygons`; a
/// triangle with a non-finite corner takes part in the topology only (its edges and parts), not
/// in the sums or the box. Volume, centroid and inertia are computed for every mesh from the
/// oriented triangles (the divergence theorem over the surface: normals as the writer computes
/// them, (b - a) x (c - b), pointing out of the solid give a positive volume), but they describe
/// a solid only when `solid` is true: the mesh is closed (every edge shared by exactly two
/// triangles) and consistently oriented (each such edge run once each way), with no triangle
/// left out or non-finite. For an open box the volume is a number but not the box's volume.
/// The sums are in double precision about the first measured corner, so a solid far from the
/// origin loses no digits to its position.
///
/// A record by value: no references into the mesh are kept. A mesh without a measurable
/// triangle gives an empty record (`is()` false, every number NaN; the counts still say why).
/// Only allocation throws; the pass needs 24 bytes per triangle and 28 per point. Records
/// are independent: measure different meshes on different threads at will.
///
///     const quib::MeshMeasures m(quib::Stl(L"part.stl", true));
///     if (m.solid) std::printf("volume %g, area %g\n", m.volume, m.area);
///     else std::printf("%lld open edges\n", static_cast<long long>(m.boundary_edges));
class QUIB_API MeshMeasures {
 public:
  using Vector = Eigen::Matrix<double, 3, 1>;
  using Matrix = Eigen::Matrix<double, 3, 3>;

  /// The empty record.
  MeshMeasures();
  /// Measures `mesh` (its points and polygons).
  explicit MeshMeasures(Stl const& mesh);
  /// Measures the indexed face set `points`, `polygons`.
  MeshMeasures(std::vector<Stl::Point> const& points, std::vector<Stl::Polygon> const& polygons);
  static MeshMeasures create(Stl const& mesh) { return MeshMeasures(mesh); }

  void swap(MeshMeasures& other) noexcept;
  /// Back to the empty record.
  void clear();
  /// True when at least one triangle was measured.
  bool is() const { return triangles > 0; }
  bool empty() const { return !is(); }

  // Counts.
  std::int64_t polygons = 0;              ///< all polygons of the mesh
  std::int64_t triangles = 0;             ///< polygons measured (all but the invalid ones)
  std::int64_t other_polygons = 0;        ///< polygons with other than three entries
  std::int64_t invalid_polygons = 0;      ///< left out: fewer than three entries or a bad index
  std::int64_t non_finite_triangles = 0;  ///< with a NaN or infinite coordinate
  std::int64_t degenerate_triangles = 0;  ///< of zero area (a repeated or collinear corner)
  std::int64_t edges = 0;                 ///< distinct edges
  std::int64_t boundary_edges = 0;        ///< edges of one triangle only
  std::int64_t non_manifold_edges = 0;    ///< edges of three triangles or more
  std::int64_t inconsistent_edges = 0;    ///< edges of two triangles that run it the same way
  std::int64_t parts = 0;                 ///< groups of triangles connected through shared points

  // Verdicts.
  bool closed = false;    ///< triangles measured, and every edge has exactly two of them
  bool oriented = false;  ///< no two triangles run a shared edge the same way
  bool solid = false;     ///< closed, oriented, nothing left out or non-finite

  // Measures (NaN in the empty record).
  double area;      ///< surface area of the finite triangles
  double volume;    ///< signed enclosed volume (negative when the normals point inwards)
  Vector centroid;  ///< centre of the enclosed volume; NaN when the volume is 0
  /// Inertia tensor of the enclosed volume at unit density about the centroid:
  /// [[Ixx, -Ixy, -Ixz], [-Ixy, Iyy, -Iyz], [-Ixz, -Iyz, Izz]], Ixx = integral of y^2 + z^2.
  Matrix inertia;
  Vector box_min;  ///< smallest coordinates of the finite corners
  Vector box_max;  ///< largest coordinates of the finite corners
};

}  // namespace quib
