// The STL text reading written the slow, obvious way: line by line through the public field
// splitter and wcstod. The tests and the fuzzer hold the fast reader to it.
#pragma once

#include <quib/convert.hpp>
#include <quib/stl.hpp>

#include <cstdint>
#include <cwchar>
#include <sstream>
#include <string>
#include <vector>

namespace quib::reference {

struct TextMesh {
  std::string name;
  std::vector<Stl::Point> points;  // three per triangle
  std::int64_t odd_facets = 0;     // facets with other than three vertex lines
};

inline TextMesh read_text_slowly(std::string const& text) {
  TextMesh mesh;
  std::vector<Stl::Point> pending;
  bool in_facet = false;
  int facet_vertices = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    int kind = 0;  // 1: name line, 2: vertex line
    std::vector<double> xyz;
    bool facet = false;
    for (auto const& f :
         convert::get_separator_wstring(convert::to_wstring(line), L" \t", L'"', L'"')) {
      if (f.empty()) continue;
      if (kind == 0) {
        kind = f == L"vertex" ? 2 : f == L"solid" ? 1 : 0;
        facet = facet || f == L"facet";
      } else if (kind == 1) {
        mesh.name = convert::to_string(f);
        break;
      } else {
        xyz.push_back(std::wcstod(f.c_str(), nullptr));
        if (xyz.size() == 3) break;
      }
    }
    if (facet) {
      mesh.odd_facets += in_facet && facet_vertices != 3;
      in_facet = true;
      facet_vertices = 0;
    }
    if (xyz.size() < 3) continue;
    ++facet_vertices;
    pending.emplace_back(float(xyz[0]), float(xyz[1]), float(xyz[2]));
    if (pending.size() == 3) {
      mesh.points.insert(mesh.points.end(), pending.begin(), pending.end());
      pending.clear();
    }
  }
  mesh.odd_facets += in_facet && facet_vertices != 3;
  return mesh;
}

}  // namespace quib::reference
