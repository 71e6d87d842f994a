#include <quib/stl.hpp>

#include "formats/stl_point_table.hpp"
#include "formats/stl_source.hpp"
#include "formats/stl_text.hpp"
#include "formats/stl_write.hpp"
#include "system/bytes.hpp"
#include "system/native_path.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quib {

namespace {

using Point = Stl::Point;
using Polygon = Stl::Polygon;
using detail::load_le;

constexpr std::size_t kHeaderBytes = 80;
constexpr std::size_t kRecordBytes = 50;
constexpr std::size_t kFirstRecord = kHeaderBytes + 4;
// Bytes of one facet in compact text (six digits, no indentation), for the reservation: a
// guess on the low side reserves untouched address space, one on the high side copies the
// whole mesh when the lists outgrow it.
constexpr std::size_t kAsciiFacetBytes = 128;

enum class encoding_t { unknown, binary, ascii };

// The size test first: a file of exactly 84 + 50 x the count at byte 80 is binary, whatever
// its header says. Otherwise the text test, over the source from its start.
template <class Source>
encoding_t detect(Source& source) {
  const std::string_view head = source.head(kFirstRecord);
  if (head.size() == kFirstRecord) {
    const std::uint64_t count = load_le<std::uint32_t>(head.data() + kHeaderBytes);
    if (source.size() == count * kRecordBytes + kFirstRecord) return encoding_t::binary;
  }
  if (!source.restart(0)) return encoding_t::unknown;
  detail::stl_text_detector text;
  for (std::string_view lines = source.next(0); !lines.empty() && !text.decided();
       lines = source.next(0))
    text.feed(lines);
  return text.decided() ? encoding_t::ascii : encoding_t::unknown;
}

// Reads name, points and polygons from `source`; returns the number of polygons, or -1 (the
// outputs are then unspecified).
template <class Source>
int read_mesh(Source& source, bool merge, std::string& name, std::vector<Point>& points,
              std::vector<Polygon>& polygons, Stl::Info& info) {
  const encoding_t encoding = detect(source);
  if (encoding == encoding_t::unknown) return -1;

  if (encoding == encoding_t::binary) {
    const std::string_view header = source.head(kHeaderBytes);
    std::size_t n = 0;
    while (n < header.size() && static_cast<signed char>(header[n]) > 32)
      ++n;
    name.assign(header.data(), n);
    // The size test has tied the count to the file's length; records are read to the end.
    detail::mesh_builder mesh(merge, (source.size() - kFirstRecord) / kRecordBytes);
    if (!source.restart(kFirstRecord)) return -1;
    // Merging looks up records a few ahead, so that their table slots arrive from memory
    // while the records before them are handled.
    constexpr std::size_t kAhead = 8;
    for (std::string_view span = source.next(kRecordBytes); !span.empty();
         span = source.next(kRecordBytes)) {
      auto const* p = reinterpret_cast<unsigned char const*>(span.data());
      const std::size_t count = span.size() / kRecordBytes;  // a partial last record is dropped
      for (std::size_t k = 0; k < count; ++k) {
        unsigned char const* r = p + k * kRecordBytes + 12;  // past the normal
        if (k + kAhead < count) mesh.prefetch(r + kAhead * kRecordBytes);
        const Point a(load_le<float>(r), load_le<float>(r + 4), load_le<float>(r + 8));
        const Point b(load_le<float>(r + 12), load_le<float>(r + 16), load_le<float>(r + 20));
        const Point c(load_le<float>(r + 24), load_le<float>(r + 28), load_le<float>(r + 32));
        if (!mesh.add(a, b, c)) return -1;
      }
    }
    points.swap(mesh.points);
    polygons.swap(mesh.polygons);
    info.binary = true;
    return static_cast<int>(polygons.size());
  }

  detail::stl_text_reader text(merge, static_cast<std::size_t>(source.size() / kAsciiFacetBytes));
  if (!source.restart(0)) return -1;
  for (std::string_view lines = source.next(0); !lines.empty(); lines = source.next(0))
    if (!text.feed(lines)) return -1;
  name.swap(text.name);
  info.odd_facets = text.odd_facets();
  points.swap(text.mesh.points);
  polygons.swap(text.mesh.polygons);
  return static_cast<int>(polygons.size());
}

// Reads the mesh `source` holds into `mesh` and what the file showed into `info` (see
// Stl::load).
template <class Source>
int load_from(Source& source, bool merge, Stl& mesh, Stl::Info& info) {
  std::string name;
  std::vector<Point> points;
  std::vector<Polygon> polygons;
  info = Stl::Info();
  int const result = read_mesh(source, merge, name, points, polygons, info);
  if (result < 0) {
    info = Stl::Info();
    mesh.clear();
    return -1;
  }
  mesh.set_name(name);
  mesh.swap(points, polygons);
  return result;
}

}  // namespace

// ---- Stl ----

Stl::Stl() = default;
Stl::Stl(std::wstring const& path, bool merge) {
  (void)load(path, merge);  // a failed load leaves the mesh empty, which is the report
}
Stl::Stl(Stl const&) = default;
Stl& Stl::operator=(Stl const&) = default;
Stl::Stl(Stl&&) noexcept = default;
Stl& Stl::operator=(Stl&&) noexcept = default;
Stl::~Stl() = default;

int Stl::load(std::wstring const& path, bool merge) {
  detail::file_source file;
  auto const native = detail::native_path(path);
  if (!native || !file.open(*native)) {
    clear();
    info_ = Info();
    return -1;
  }
  return load_from(file, merge, *this, info_);
}

int Stl::load_buffer(void const* data, std::size_t size, bool merge) {
  detail::memory_source bytes(std::string_view(static_cast<char const*>(data), data ? size : 0));
  return load_from(bytes, merge, *this, info_);
}

int Stl::save(std::wstring const& path, int precision) const {
  if (auto const native = detail::native_path(path))
    (void)detail::write_stl(*native, name_, points_, polygons_, precision, false);
  return size_polygon();
}

bool Stl::write(std::wstring const& path, int precision) const {
  auto const native = detail::native_path(path);
  return native && detail::write_stl(*native, name_, points_, polygons_, precision, true);
}

void Stl::assign(std::vector<Point> const& points, std::vector<Polygon> const& polygons) {
  std::vector<Point> new_points(points);
  std::vector<Polygon> new_polygons(polygons);
  swap(new_points, new_polygons);
}

void Stl::assign(std::vector<Eigen::Matrix<double, 3, 1>> const& points,
                 std::vector<Polygon> const& polygons) {
  std::vector<Point> new_points;
  new_points.reserve(points.size());
  for (auto const& p : points)
    new_points.push_back(p.cast<float>());
  std::vector<Polygon> new_polygons(polygons);
  swap(new_points, new_polygons);
}

void Stl::swap(Stl& other) noexcept {
  points_.swap(other.points_);
  polygons_.swap(other.polygons_);
}

void Stl::swap(std::vector<Point>& points, std::vector<Polygon>& polygons) noexcept {
  points_.swap(points);
  polygons_.swap(polygons);
}

void Stl::clear() {
  points_.clear();
  polygons_.clear();
}

int Stl::compress() {
  if (points_.empty()) return 0;
  // The new indices go to a flat list first and into the polygons once nothing can throw any
  // more: the polygons keep their own storage, and a failed allocation leaves the mesh as it was.
  const std::size_t count = polygons_.size();
  std::vector<int> corners(3 * count);
  std::vector<Point> points;
  points.reserve(std::min(points_.size(), 3 * count));
  detail::point_table table(count / 2);
  // Looks up the corners of polygons a few ahead, so that their table slots arrive from memory
  // while the polygons before them are handled.
  constexpr std::size_t kAhead = 8;
  auto const corner_count = [](Polygon const& p) { return std::min<std::size_t>(p.size(), 3); };
  for (std::size_t i = 0; i < count; ++i) {
    if (i + kAhead < count) {
      Polygon const& ahead = polygons_[i + kAhead];
      for (std::size_t k = 0; k < corner_count(ahead); ++k)
        table.prefetch(points_[static_cast<std::size_t>(ahead[k])]);
    }
    Polygon const& p = polygons_[i];
    for (std::size_t k = 0; k < corner_count(p); ++k)
      corners[3 * i + k] = table.index(points_[static_cast<std::size_t>(p[k])], points);
  }
  for (std::size_t i = 0; i < count; ++i) {
    Polygon& p = polygons_[i];
    p.resize(corner_count(p));  // never grows: no allocation
    std::copy_n(corners.begin() + static_cast<std::ptrdiff_t>(3 * i), p.size(), p.begin());
  }
  points_.swap(points);
  return size();
}

int Stl::decompress() {
  if (points_.empty()) return 0;
  std::vector<Point> points;
  points.reserve(polygons_.size() * 3);
  std::vector<Polygon> polygons;
  polygons.reserve(polygons_.size());
  for (Polygon const& p : polygons_) {
    int const n = static_cast<int>(points.size());
    for (std::size_t k = 0; k < 3; ++k)
      points.push_back(points_[static_cast<std::size_t>(p[k])]);
    polygons.push_back(Polygon{n, n + 1, n + 2});
  }
  swap(points, polygons);
  return size();
}

}  // namespace quib
