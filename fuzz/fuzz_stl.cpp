// Feeds arbitrary bytes to the STL reader, with and without merging. Every mesh it accepts must
// be a valid indexed face set that compress and decompress keep valid, and every text file must
// read exactly as a plain line-by-line reading over the public field splitter and wcstod.
#include <quib/convert.hpp>
#include <quib/stl.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

namespace {

void check(quib::Stl const& mesh, int polygons) {
  if (polygons != mesh.size_polygon()) std::abort();
  for (auto const& p : mesh.polygons()) {
    if (p.size() != 3) std::abort();
    for (int i : p)
      if (i < 0 || i >= mesh.size()) std::abort();
  }
}

// The text reading, the slow and obvious way.
void compare_with_plain_reading(quib::Stl const& mesh, std::string const& text) {
  std::string name;
  std::vector<float> coordinates, pending;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t stop = text.find('\n', start);
    if (stop == std::string::npos) stop = text.size();
    std::string line = text.substr(start, stop - start);
    start = stop + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    int kind = 0, have = 0;
    for (auto const& f : quib::convert::get_separator_wstring(quib::convert::to_wstring(line),
                                                              L" \t", L'"', L'"')) {
      if (f.empty()) continue;
      if (kind == 0) {
        kind = f == L"vertex" ? 2 : f == L"solid" ? 1 : 0;
      } else if (kind == 1) {
        name = quib::convert::to_string(f);
        break;
      } else {
        pending.push_back(static_cast<float>(std::wcstod(f.c_str(), nullptr)));
        if (++have == 3) break;
      }
    }
    if (kind == 2 && have < 3) pending.resize(pending.size() - static_cast<std::size_t>(have));
    if (pending.size() == 9) {
      coordinates.insert(coordinates.end(), pending.begin(), pending.end());
      pending.clear();
    }
  }
  if (name != mesh.get_name() || coordinates.size() != 3 * std::size_t(mesh.size())) std::abort();
  for (int i = 0; i < mesh.size(); ++i)
    if (std::memcmp(&coordinates[3 * std::size_t(i)], mesh.point(i).data(), 12) != 0) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  for (bool merge : {false, true}) {
    quib::Stl mesh;
    const int n = mesh.load_buffer(data, size, merge);
    if (n < 0) {
      if (!mesh.empty() || mesh.size_polygon() != 0) std::abort();
      continue;
    }
    check(mesh, n);
    if (!merge) {
      const bool binary_length =
          size >= 84 && size == (std::uint64_t(data[80]) | std::uint64_t(data[81]) << 8 |
                                 std::uint64_t(data[82]) << 16 | std::uint64_t(data[83]) << 24) *
                                        50 +
                                    84;
      if (!binary_length) compare_with_plain_reading(mesh, std::string(data, data + size));
      continue;
    }
    const int merged = mesh.size();
    mesh.decompress();
    check(mesh, n);
    if (mesh.is() && mesh.compress() != merged) std::abort();
    check(mesh, n);
  }
  return 0;
}
