// Internal: the STL text test and the text reader, fed with whole lines span by span.
#pragma once

#include "formats/stl_point_table.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace quib::detail {

// The text test: "solid", a name, "facet" and "normal" in that order over the fields of all
// lines, the state carrying over from line to line and from span to span.
class stl_text_detector {
 public:
  bool decided() const { return state_ == 4; }
  void feed(std::string_view lines);

 private:
  int state_ = 0;
  std::string scratch_;
};

// Forms triangles from the vertex lines of a text, three at a time, carrying the pending
// corners and the name from span to span. Fields are split at blanks and tabs, with double
// quotes grouping; the three fields after "vertex" are read as strtod reads them (0 when
// nothing can be read), the field after "solid" is the name (ill-formed UTF-8 replaced).
class stl_text_reader {
 public:
  stl_text_reader(bool merge, std::size_t expected_triangles) : mesh(merge, expected_triangles) {}

  // Reads the whole lines of `lines`; false when the mesh outgrows int indices.
  bool feed(std::string_view lines);
  // Facets so far with other than three vertex lines: a facet runs from a line with a field
  // "facet" to the next such line or the end of the text.
  std::int64_t odd_facets() const;

  mesh_builder mesh;
  std::string name;  // empty unless a name line occurs

 private:
  Stl::Point corners_[3];
  int pending_ = 0;
  std::string scratch_;
  bool in_facet_ = false;
  std::int64_t facet_vertices_ = 0, odd_facets_ = 0;
};

// The number at the start of `field` as strtod reads it in the C locale, or 0 when it holds
// none. Decimal forms are correctly rounded.
double parse_stl_number(std::string_view field);

}  // namespace quib::detail
