// Triangle meshes read from and written to STL files, binary or ASCII.
#pragma once

#include <quib/export.hpp>

#include <Eigen/Core>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace quib {

/// A triangle mesh held as an indexed face set (points, and polygons of three indices into
/// them) with the solid's name, read from and written to STL files in either encoding.
///
/// `load` finds the encoding itself: a file whose length is exactly 84 + 50 x the count stored
/// at byte 80 is binary, even when its header begins with "solid"; any other file must show
/// "solid", a name, "facet" and "normal" in that order to be read as ASCII. With `merge`, points
/// that compare equal as floats share one index (given in order of first appearance), except
/// that +0.0 and -0.0 stay apart and a point with a NaN coordinate is never shared. Coordinates
/// are kept exactly as the file holds them.
///
/// The object owns its name, points and polygons by value; accessors return references into
/// them that the next load, assign, swap, clear, compress or decompress invalidates.
///
/// Failures are returned: `load` gives -1 for a file that cannot be read or whose encoding is
/// not recognised, and then holds no points and no polygons (the name is kept). A failed load
/// never leaves a partial mesh: new contents are built aside and swapped in when complete.
/// Only allocation failures throw. `save` reports no I/O errors. Every index in the polygons
/// must be valid and every polygon must have at least three entries when a mesh is saved,
/// compressed or decompressed; that is the caller's to guarantee.
///
/// One Stl object belongs to one thread at a time; different objects may be used in parallel.
///
///     quib::Stl mesh(L"part.stl", true);          // merged: shared vertices
///     if (mesh.empty()) return;                    // missing or not an STL file
///     std::printf("%d points, %d triangles\n", mesh.size(), mesh.size_polygon());
///     mesh.save(L"part_ascii.stl", 6);             // ASCII, 6 digits after the point
class QUIB_API Stl {
 public:
  using Point = Eigen::Matrix<float, 3, 1>;
  using Polygon = std::vector<int>;

  /// What the last successful load found out about its file (a failed load resets it).
  struct Info {
    bool binary = false;  ///< the binary encoding; else ASCII
    /// ASCII facets with other than three vertex lines. A facet runs from a line with a field
    /// "facet" to the next such line; triangles are formed from vertex lines three by three
    /// whatever the facets say, so after such a facet the grouping of every later one shifts.
    std::int64_t odd_facets = 0;
  };

  /// Empty name, no points, no polygons.
  Stl();
  /// Loads `path` (see load); a failed load leaves an empty mesh and throws nothing.
  Stl(std::wstring const& path, bool merge);
  Stl(Stl const&);
  Stl& operator=(Stl const&);
  Stl(Stl&&) noexcept;
  Stl& operator=(Stl&&) noexcept;
  ~Stl();

  /// Reads an STL file and replaces name, points and polygons. Returns the number of polygons
  /// (0 for a binary file without facets), or -1 when the file cannot be read or is neither
  /// binary nor ASCII STL; on -1 points and polygons are cleared and the name is kept.
  /// A folder, a missing file and a path with an unpaired surrogate (which names no file) all
  /// give -1.
  [[nodiscard]] int load(std::wstring const& path, bool merge);
  /// The same as load, over the bytes of a whole file held in memory.
  [[nodiscard]] int load_buffer(void const* data, std::size_t size, bool merge);
  /// Writes the mesh: ASCII with `precision` digits after the decimal point when `precision` is
  /// greater than 0, binary otherwise. Each facet's normal is (b - a) x (c - b) scaled to unit
  /// length in single precision; a degenerate triangle's normal is written as the non-finite
  /// numbers that gives. Returns the number of polygons, whether or not the file could be
  /// written (a path with an unpaired surrogate writes nothing).
  int save(std::wstring const& path, int precision) const;
  /// Writes the mesh as save does, except that a degenerate triangle (whose normal would not be
  /// finite) gets the normal 0 0 0. Returns true when the whole file was written, false when
  /// the path names no writable file or a write failed (the file may then be partly written).
  [[nodiscard]] bool write(std::wstring const& path, int precision) const;

  /// Copies points and polygons.
  void assign(std::vector<Point> const& points, std::vector<Polygon> const& polygons);
  /// Rounds every coordinate to single precision, then copies the polygons.
  void assign(std::vector<Eigen::Matrix<double, 3, 1>> const& points,
              std::vector<Polygon> const& polygons);
  /// Exchanges points and polygons with `other`; both names stay where they are.
  void swap(Stl& other) noexcept;
  /// Exchanges the two containers with the mesh's own.
  void swap(std::vector<Point>& points, std::vector<Polygon>& polygons) noexcept;
  /// Empties points and polygons; the name stays.
  void clear();
  /// Merges equal points (as load with merge does) over the first three corners of every
  /// polygon; unused points disappear. Returns the new number of points, 0 when there are none.
  int compress();
  /// Gives every corner a point of its own: polygon k becomes [3k, 3k+1, 3k+2]. Returns the
  /// new number of points (3 x polygons), or 0 and changes nothing when there are no points.
  int decompress();

  bool is() const { return !points_.empty(); }
  bool empty() const { return points_.empty(); }
  int size() const { return static_cast<int>(points_.size()); }
  int size_polygon() const { return static_cast<int>(polygons_.size()); }
  std::vector<Point> const& points() const { return points_; }
  /// Point i, unchecked.
  Point const& point(int i) const { return points_[static_cast<std::size_t>(i)]; }
  std::vector<Polygon> const& polygons() const { return polygons_; }
  /// Polygon i, unchecked.
  Polygon const& polygon(int i) const { return polygons_[static_cast<std::size_t>(i)]; }
  /// What the last load found; kept by assign, swap, clear, compress and decompress.
  Info const& info() const { return info_; }
  std::string get_name() const { return name_; }
  void set_name(std::string const& name) { name_ = name; }

 private:
  std::string name_;
  std::vector<Point> points_;
  std::vector<Polygon> polygons_;
  Info info_;
};

}  // namespace quib
