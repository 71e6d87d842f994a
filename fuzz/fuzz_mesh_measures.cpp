// Feeds arbitrary meshes to MeshMeasures: points with any float bits (NaN and infinities
// included), polygons of 0 to 5 entries with any index, in range or not. The topology counts
// must equal those of a plain reading with a std::map over the edges and a search over the
// triangles' shared points; the measures must be finite for a finite solid.
#include <quib/mesh_measures.hpp>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

namespace {

class Bytes {
 public:
  Bytes(std::uint8_t const* data, std::size_t size) : data_(data), size_(size) {}
  bool empty() const { return at_ >= size_; }
  template <class T>
  T take() {
    T v{};
    const std::size_t n = std::min(sizeof v, size_ - std::min(at_, size_));
    std::memcpy(&v, data_ + at_, n);
    at_ += sizeof v;
    return v;
  }

 private:
  std::uint8_t const* data_;
  std::size_t size_, at_ = 0;
};

void check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Bytes in(data, size);
  const int point_count = in.take<std::uint8_t>() % 64;
  std::vector<quib::Stl::Point> points;
  for (int i = 0; i < point_count; ++i) {
    // Mostly small integer coordinates, so that points repeat and edges are shared; any float
    // bits when the selector says so.
    const std::uint8_t selector = in.take<std::uint8_t>();
    quib::Stl::Point p;
    for (int k = 0; k < 3; ++k)
      p[k] = selector & 0x80 ? in.take<float>() : static_cast<float>(in.take<std::int8_t>() % 4);
    points.push_back(p);
  }
  std::vector<quib::Stl::Polygon> polygons;
  while (!in.empty()) {
    const int n = in.take<std::uint8_t>() % 6;
    quib::Stl::Polygon polygon;
    for (int k = 0; k < n; ++k)
      polygon.push_back(in.take<std::int8_t>() % (point_count + 2));  // a few out of range
    polygons.push_back(polygon);
  }

  const quib::MeshMeasures m(points, polygons);

  // The plain reading.
  std::map<std::pair<int, int>, std::pair<int, int>> edges;  // runs up, runs down
  std::vector<int> part(points.size(), -1);
  std::int64_t triangles = 0, invalid = 0, other = 0;
  std::vector<std::vector<int>> measured;
  for (auto const& p : polygons) {
    other += p.size() != 3;
    bool ok = p.size() >= 3;
    for (std::size_t k = 0; ok && k < 3; ++k)
      ok = p[k] >= 0 && p[k] < point_count;
    if (!ok) {
      ++invalid;
      continue;
    }
    ++triangles;
    measured.push_back({p[0], p[1], p[2]});
    for (int k = 0; k < 3; ++k) {
      const int a = p[std::size_t(k)], b = p[std::size_t((k + 1) % 3)];
      if (a == b) continue;
      auto& e = edges[{std::min(a, b), std::max(a, b)}];
      (a < b ? e.first : e.second) += 1;
    }
  }
  // Parts: relabel until nothing changes (small inputs only).
  for (auto const& t : measured)
    for (int i : t)
      part[std::size_t(i)] = i;
  for (bool changed = true; changed;) {
    changed = false;
    for (auto const& t : measured) {
      const int low =
          std::min({part[std::size_t(t[0])], part[std::size_t(t[1])], part[std::size_t(t[2])]});
      for (int i : t)
        if (part[std::size_t(i)] != low) part[std::size_t(i)] = low, changed = true;
    }
  }
  std::int64_t parts = 0;
  for (std::size_t i = 0; i < part.size(); ++i)
    parts += part[i] == static_cast<int>(i);
  std::int64_t boundary = 0, non_manifold = 0, inconsistent = 0;
  for (auto const& [key, runs] : edges) {
    const int total = runs.first + runs.second;
    boundary += total == 1;
    non_manifold += total > 2;
    inconsistent += total == 2 && runs.first != 1;
  }

  check(m.polygons == static_cast<std::int64_t>(polygons.size()));
  check(m.triangles == triangles && m.invalid_polygons == invalid && m.other_polygons == other);
  check(m.edges == static_cast<std::int64_t>(edges.size()));
  check(m.boundary_edges == boundary && m.non_manifold_edges == non_manifold);
  check(m.inconsistent_edges == inconsistent);
  check(m.parts == parts);
  check(m.is() == (triangles > 0));
  check(!m.solid || (m.closed && m.oriented));
  check(!(m.area < 0));
  if (m.solid) check(std::isfinite(m.volume) && std::isfinite(m.area));  // floats fit doubles
  if (m.empty()) check(std::isnan(m.volume) && std::isnan(m.area));
  return 0;
}
