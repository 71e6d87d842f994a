// Internal: the STL writer, binary or ASCII.
#pragma once

#include <quib/stl.hpp>

#include <filesystem>
#include <string>
#include <vector>

namespace quib::detail {

// Writes name, points and polygons (the first three entries of each) to `path`: ASCII with
// `precision` digits after the point when it is greater than 0, else binary. Each facet's
// normal is (b - a) x (c - b) scaled to unit length in single precision; a degenerate triangle
// gets non-finite components, or 0 0 0 when `finite_normals` is set. True when the whole file
// was written.
bool write_stl(std::filesystem::path const& path, std::string const& name,
               std::vector<Stl::Point> const& points, std::vector<Stl::Polygon> const& polygons,
               int precision, bool finite_normals);

}  // namespace quib::detail
