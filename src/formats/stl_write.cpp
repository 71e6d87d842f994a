#include "formats/stl_write.hpp"

#include "system/bytes.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>

namespace quib::detail {

namespace {

constexpr std::size_t kHeaderBytes = 80;
constexpr std::size_t kRecordBytes = 50;

}  // namespace

bool write_stl(std::filesystem::path const& path, std::string const& name,
               std::vector<Stl::Point> const& points, std::vector<Stl::Polygon> const& polygons,
               int precision, bool finite_normals) {
  using Point = Stl::Point;
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) return false;
  std::string buffer;
  constexpr std::size_t kFlush = 1 << 20;
  auto const flush = [&] {
    out.write(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    buffer.clear();
  };
  auto const corner = [&](Stl::Polygon const& p, std::size_t k) -> Point const& {
    return points[static_cast<std::size_t>(p[k])];
  };
  auto const normal = [&](Stl::Polygon const& p) {
    Point const& a = corner(p, 0);
    Point const& b = corner(p, 1);
    Point const& c = corner(p, 2);
    const Point e1 = b - a, e2 = c - b;
    const Point n(e1.y() * e2.z() - e1.z() * e2.y(), e1.z() * e2.x() - e1.x() * e2.z(),
                  e1.x() * e2.y() - e1.y() * e2.x());
    const float scale = 1.0f / std::sqrt(n.x() * n.x() + n.y() * n.y() + n.z() * n.z());
    const Point unit(n.x() * scale, n.y() * scale, n.z() * scale);
    if (finite_normals && !unit.allFinite()) return Point(0, 0, 0);
    return unit;
  };

  if (precision <= 0) {
    char header[kHeaderBytes + 4] = {};
    std::memcpy(header, name.data(), std::min(name.size(), kHeaderBytes));
    store_le(header + kHeaderBytes, static_cast<std::uint32_t>(polygons.size()));
    buffer.append(header, sizeof header);
    char record[kRecordBytes] = {};
    for (Stl::Polygon const& p : polygons) {
      const Point n = normal(p);
      char* r = record;
      for (int i = 0; i < 3; ++i, r += 4)
        store_le(r, n[i]);
      for (std::size_t k = 0; k < 3; ++k)
        for (int i = 0; i < 3; ++i, r += 4)
          store_le(r, corner(p, k)[i]);
      buffer.append(record, sizeof record);
      if (buffer.size() >= kFlush) flush();
    }
    flush();
    return static_cast<bool>(out.flush());
  }

  // Fixed notation in the classic locale. A float has at most 149 significant digits after
  // the point, so digits past 160 are zeros and are appended rather than formatted.
  int const digits = std::min(precision, 160);
  char number[256];
  auto const put = [&](float value) {
    const auto r = std::to_chars(number, number + sizeof number, static_cast<double>(value),
                                 std::chars_format::fixed, digits);
    buffer.append(number, r.ptr);
    if (precision > digits && std::isfinite(value)) {
      buffer.append(static_cast<std::size_t>(precision - digits), '0');
    }
  };
  auto const put3 = [&](char const* prefix, Point const& v) {
    buffer += prefix;
    put(v.x());
    buffer += ' ';
    put(v.y());
    buffer += ' ';
    put(v.z());
    buffer += '\n';
  };
  buffer += "solid ";
  buffer += name;
  buffer += '\n';
  for (Stl::Polygon const& p : polygons) {
    put3("facet normal ", normal(p));
    buffer += "outer loop\n";
    for (std::size_t k = 0; k < 3; ++k)
      put3("vertex ", corner(p, k));
    buffer += "endloop\nendfacet\n";
    if (buffer.size() >= kFlush) flush();
  }
  buffer += "endsolid ";
  buffer += name;
  buffer += '\n';
  flush();
  return static_cast<bool>(out.flush());
}

}  // namespace quib::detail
