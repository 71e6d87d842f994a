#include <quib/mesh_measures.hpp>

#include <gtest/gtest.h>
#include <Eigen/Geometry>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>
#include <vector>

namespace {

using Point = quib::Stl::Point;
using Polygons = std::vector<std::vector<int>>;
using Vector = quib::MeshMeasures::Vector;
using Matrix = quib::MeshMeasures::Matrix;

struct Mesh {
  std::vector<Point> points;
  Polygons polygons;

  // Appends `other`, its indices shifted past this mesh's points.
  void add(Mesh const& other) {
    const int base = static_cast<int>(points.size());
    points.insert(points.end(), other.points.begin(), other.points.end());
    for (auto p : other.polygons) {
      for (int& i : p)
        i += base;
      polygons.push_back(p);
    }
  }
  // Turns each triangle so that its normal (b - a) x (c - a) points away from `inside`.
  void orient_outwards(Vector const& inside) {
    for (auto& p : polygons) {
      const Vector a = points[p[0]].cast<double>(), b = points[p[1]].cast<double>(),
                   c = points[p[2]].cast<double>();
      if ((b - a).cross(c - a).dot((a + b + c) / 3 - inside) < 0) std::swap(p[1], p[2]);
    }
  }
  quib::MeshMeasures measure() const { return quib::MeshMeasures(points, polygons); }
};

// An axis-aligned box from `low` with edge lengths `size`, 8 points and 12 outward triangles.
Mesh box(Vector const& low, Vector const& size) {
  Mesh m;
  for (int k = 0; k < 8; ++k)
    m.points.push_back(
        (low + Vector(k & 1, (k >> 1) & 1, (k >> 2) & 1).cwiseProduct(size)).cast<float>());
  for (int axis = 0; axis < 3; ++axis) {
    const int u = 1 << ((axis + 1) % 3), v = 1 << ((axis + 2) % 3);
    for (int side : {0, 1 << axis}) {
      const int q[4] = {side, side + u, side + u + v, side + v};
      m.polygons.push_back({q[0], q[1], q[2]});
      m.polygons.push_back({q[0], q[2], q[3]});
    }
  }
  m.orient_outwards(low + size / 2);
  return m;
}

// A latitude-longitude sphere of radius 1 about `centre`, with single points at the poles.
Mesh sphere(Vector const& centre, int rings, int segments) {
  const double pi = std::acos(-1.0);
  Mesh m;
  m.points.push_back((centre + Vector(0, 0, 1)).cast<float>());
  for (int i = 1; i < rings; ++i)
    for (int j = 0; j < segments; ++j) {
      const double t = pi * i / rings, f = 2 * pi * j / segments;
      m.points.push_back(
          (centre + Vector(std::sin(t) * std::cos(f), std::sin(t) * std::sin(f), std::cos(t)))
              .cast<float>());
    }
  m.points.push_back((centre + Vector(0, 0, -1)).cast<float>());
  const int south = static_cast<int>(m.points.size()) - 1;
  const auto at = [&](int ring, int j) { return 1 + (ring - 1) * segments + (j % segments); };
  for (int j = 0; j < segments; ++j) {
    m.polygons.push_back({0, at(1, j), at(1, j + 1)});
    m.polygons.push_back({south, at(rings - 1, j), at(rings - 1, j + 1)});
    for (int i = 1; i + 1 < rings; ++i) {
      m.polygons.push_back({at(i, j), at(i + 1, j), at(i + 1, j + 1)});
      m.polygons.push_back({at(i, j), at(i + 1, j + 1), at(i, j + 1)});
    }
  }
  m.orient_outwards(centre);
  return m;
}

void expect_relative(double actual, double expected, double tolerance = 1e-12) {
  EXPECT_NEAR(actual, expected, tolerance * std::abs(expected)) << "expected " << expected;
}

void expect_matrix(Matrix const& actual, Matrix const& expected, double scale) {
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      EXPECT_NEAR(actual(i, j), expected(i, j), 1e-12 * scale) << "element " << i << ", " << j;
}

TEST(MeshMeasures, BoxFarFromTheOriginIsExact) {
  // A 2 x 3 x 5 box: inertia about its centre is m/12 (b^2 + c^2) on the diagonal, 0 elsewhere.
  const Vector low(1000.5, -300, 7);
  const auto m = box(low, Vector(2, 3, 5)).measure();
  ASSERT_TRUE(m.is());
  EXPECT_TRUE(m.closed);
  EXPECT_TRUE(m.oriented);
  EXPECT_TRUE(m.solid);
  EXPECT_EQ(m.triangles, 12);
  EXPECT_EQ(m.edges, 18);
  EXPECT_EQ(m.boundary_edges + m.non_manifold_edges + m.inconsistent_edges, 0);
  EXPECT_EQ(m.parts, 1);
  EXPECT_EQ(m.degenerate_triangles, 0);
  expect_relative(m.area, 2 * (6 + 10 + 15));
  expect_relative(m.volume, 30);
  for (int i = 0; i < 3; ++i)
    expect_relative(m.centroid[i], low[i] + Vector(1, 1.5, 2.5)[i]);
  const double mass = 30;
  Matrix expected = Matrix::Zero();
  expected.diagonal() << mass / 12 * (9 + 25), mass / 12 * (4 + 25), mass / 12 * (4 + 9);
  expect_matrix(m.inertia, expected, expected.norm());
  EXPECT_EQ(m.box_min, low);
  EXPECT_EQ(m.box_max, low + Vector(2, 3, 5));
}

TEST(MeshMeasures, TetrahedronMatchesItsIntegrals) {
  Mesh t;
  t.points = {Point(0, 0, 0), Point(1, 0, 0), Point(0, 1, 0), Point(0, 0, 1)};
  t.polygons = {{0, 1, 2}, {0, 1, 3}, {0, 2, 3}, {1, 2, 3}};
  t.orient_outwards(Vector(0.25, 0.25, 0.25));
  const auto m = t.measure();
  EXPECT_TRUE(m.solid);
  expect_relative(m.volume, 1.0 / 6);
  expect_relative(m.area, 1.5 + std::sqrt(3.0) / 2);
  for (int i = 0; i < 3; ++i)
    expect_relative(m.centroid[i], 0.25);
  // About the centroid: integral of x^2 is 1/160, of xy -1/480.
  Matrix expected = Matrix::Constant(1.0 / 480);
  expected.diagonal().setConstant(1.0 / 80);
  expect_matrix(m.inertia, expected, 1.0 / 80);
}

TEST(MeshMeasures, FineSphereWithinItsDiscretisation) {
  const double pi = std::acos(-1.0);
  const Vector centre(-2, 3, 1.25);
  const auto m = sphere(centre, 300, 600).measure();
  EXPECT_TRUE(m.solid);
  EXPECT_EQ(m.parts, 1);
  expect_relative(m.volume, 4 * pi / 3, 2e-4);
  expect_relative(m.area, 4 * pi, 2e-4);
  for (int i = 0; i < 3; ++i)
    EXPECT_NEAR(m.centroid[i], centre[i], 1e-6);  // float corners: symmetric to about 1e-7
  const double moment = 2.0 / 5 * m.volume;       // 2/5 m r^2
  for (int i = 0; i < 3; ++i)
    expect_relative(m.inertia(i, i), moment, 4e-4);
  EXPECT_NEAR(m.inertia(0, 1), 0, 1e-6);
  EXPECT_NEAR(m.inertia(1, 2), 0, 1e-6);
}

TEST(MeshMeasures, WrongWindingOpenBoxesAndSeveralPartsAreReported) {
  const Mesh cube = box(Vector(0, 0, 0), Vector(1, 1, 1));
  {
    SCOPED_TRACE("one triangle flipped");
    Mesh flipped = cube;
    auto& far = flipped.polygons.back();  // off the corner at the origin: it adds volume
    ASSERT_EQ(std::count(far.begin(), far.end(), 0), 0);
    std::swap(far[1], far[2]);
    const auto m = flipped.measure();
    EXPECT_TRUE(m.closed);
    EXPECT_FALSE(m.oriented);
    EXPECT_FALSE(m.solid);
    EXPECT_EQ(m.inconsistent_edges, 3);
    EXPECT_NE(m.volume, 1.0);
  }
  {
    SCOPED_TRACE("all flipped: a solid turned inside out");
    Mesh inside_out = cube;
    for (auto& p : inside_out.polygons)
      std::swap(p[1], p[2]);
    const auto m = inside_out.measure();
    EXPECT_TRUE(m.solid);
    EXPECT_EQ(m.volume, -1.0);
    EXPECT_EQ(m.centroid, Vector(0.5, 0.5, 0.5));
  }
  {
    SCOPED_TRACE("open box: one face missing");
    Mesh open = cube;
    open.polygons.resize(10);
    const auto m = open.measure();
    EXPECT_FALSE(m.closed);
    EXPECT_TRUE(m.oriented);
    EXPECT_FALSE(m.solid);
    EXPECT_EQ(m.boundary_edges, 4);
    expect_relative(m.area, 5);
  }
  {
    SCOPED_TRACE("two boxes apart");
    Mesh two = cube;
    two.add(box(Vector(10, 0, 0), Vector(2, 2, 2)));
    const auto m = two.measure();
    EXPECT_TRUE(m.solid);
    EXPECT_EQ(m.parts, 2);
    expect_relative(m.volume, 9);
    expect_relative(m.centroid.x(), (0.5 * 1 + 11 * 8) / 9);
  }
  {
    SCOPED_TRACE("non-manifold fan: three triangles on one edge");
    Mesh fan;
    fan.points = {Point(0, 0, 0), Point(1, 0, 0), Point(0, 1, 0), Point(0, -1, 0), Point(0, 0, 1)};
    fan.polygons = {{0, 1, 2}, {1, 0, 3}, {0, 1, 4}};
    const auto m = fan.measure();
    EXPECT_EQ(m.non_manifold_edges, 1);
    EXPECT_EQ(m.boundary_edges, 6);
    EXPECT_FALSE(m.closed);
    EXPECT_EQ(m.parts, 1);
  }
}

TEST(MeshMeasures, BadPolygonsAndPointsGiveClearCounts) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  Mesh m = box(Vector(0, 0, 0), Vector(1, 1, 1));
  m.points.push_back(Point(nan, 0, 0));  // 8
  m.points.push_back(Point(5, 5, 5));    // 9
  m.polygons.push_back({0, 8, 9});       // non-finite: topology only
  m.polygons.push_back({9, 9, 9});       // degenerate: one point
  m.polygons.push_back({0, 1, 9, 2});    // four entries: the first three are measured
  m.polygons.push_back({0, 1});          // too short: left out
  m.polygons.push_back({0, 1, 10});      // bad index: left out
  m.polygons.push_back({-1, 0, 1});      // bad index: left out
  const auto r = m.measure();
  EXPECT_EQ(r.polygons, 18);
  EXPECT_EQ(r.triangles, 15);
  EXPECT_EQ(r.invalid_polygons, 3);
  EXPECT_EQ(r.other_polygons, 2);
  EXPECT_EQ(r.non_finite_triangles, 1);
  EXPECT_EQ(r.degenerate_triangles, 1);
  EXPECT_FALSE(r.solid);
  EXPECT_TRUE(std::isfinite(r.area));
  EXPECT_EQ(r.box_max, Vector(5, 5, 5));
  EXPECT_EQ(r.parts, 1);

  // Nothing measurable: the empty record, whose counts say why.
  const auto none = Mesh{{Point(nan, nan, nan)}, {{0, 0}, {0, 0, 1}}}.measure();
  EXPECT_TRUE(none.empty());
  EXPECT_EQ(none.invalid_polygons, 2);
  EXPECT_TRUE(std::isnan(none.volume));
  const auto nan_only = Mesh{{Point(nan, 0, 0), Point(0, nan, 0), Point(0, 0, 1)}, {{0, 1, 2}}};
  const auto n = nan_only.measure();
  EXPECT_TRUE(n.is());
  EXPECT_TRUE(std::isnan(n.area));
  EXPECT_TRUE(std::isnan(n.box_min.x()));
  EXPECT_EQ(n.boundary_edges, 3);

  // Zero volume: no centroid, no inertia.
  const auto flat = Mesh{{Point(0, 0, 0), Point(1, 0, 0), Point(0, 1, 0)}, {{0, 1, 2}, {0, 2, 1}}};
  const auto f = flat.measure();
  EXPECT_TRUE(f.solid);  // closed and oriented: two faces back to back
  EXPECT_EQ(f.volume, 0);
  EXPECT_TRUE(std::isnan(f.centroid.x()));
  EXPECT_TRUE(std::isnan(f.inertia(0, 0)));
}

TEST(MeshMeasures, ManyDisconnectedTrianglesAreManyParts) {
  Mesh soup;
  for (int k = 0; k < 100000; ++k) {
    const float x = static_cast<float>(k);
    soup.points.insert(soup.points.end(), {Point(x, 0, 0), Point(x + 1, 0, 0), Point(x, 1, 0)});
    soup.polygons.push_back({3 * k, 3 * k + 1, 3 * k + 2});
  }
  const auto m = soup.measure();
  EXPECT_EQ(m.parts, 100000);
  EXPECT_EQ(m.edges, 300000);
  EXPECT_EQ(m.boundary_edges, 300000);
  EXPECT_FALSE(m.closed);
  expect_relative(m.area, 50000);
}

TEST(MeshMeasures, MeasuresAnStlMeshAndKeepsTheRecordConventions) {
  const Mesh cube = box(Vector(1, 2, 3), Vector(1, 1, 1));
  quib::Stl stl;
  stl.assign(cube.points, cube.polygons);
  stl.decompress();  // 36 points: no edge is shared any more
  EXPECT_EQ(quib::MeshMeasures(stl).boundary_edges, 36);
  stl.compress();
  auto m = quib::MeshMeasures::create(stl);
  EXPECT_TRUE(m.solid);
  quib::MeshMeasures other;
  EXPECT_TRUE(other.empty());
  m.swap(other);
  EXPECT_TRUE(m.empty());
  EXPECT_EQ(other.volume, 1);
  other.clear();
  EXPECT_TRUE(other.empty());
  EXPECT_TRUE(std::isnan(other.area));
}

}  // namespace
