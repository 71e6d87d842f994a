// Feeds arbitrary bytes to the STL reader, with and without merging. Every mesh it accepts must
// be a valid indexed face set that compress and decompress keep valid, and every text file must
// read exactly as a plain line-by-line reading over the public field splitter and wcstod. The
// bytes of every eighth input length are also written to a file and loaded from there, which
// must give the same mesh.
#include <quib/stl.hpp>

#include "stl_text_reference.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

void check(quib::Stl const& mesh, int polygons) {
  if (polygons != mesh.size_polygon()) std::abort();
  for (auto const& p : mesh.polygons()) {
    if (p.size() != 3) std::abort();
    for (int i : p)
      if (i < 0 || i >= mesh.size()) std::abort();
  }
}

// Text files read exactly as the slow line-by-line reading does.
void compare_with_plain_reading(quib::Stl const& mesh, std::string const& text) {
  const auto expected = quib::reference::read_text_slowly(text);
  if (expected.name != mesh.get_name() || expected.points.size() != std::size_t(mesh.size()) ||
      expected.odd_facets != mesh.info().odd_facets)
    std::abort();
  for (int i = 0; i < mesh.size(); ++i)
    if (std::memcmp(expected.points[std::size_t(i)].data(), mesh.point(i).data(), 12) != 0)
      std::abort();
}

// The same bytes read from a file give the same mesh as read from memory.
void compare_with_file(quib::Stl const& mesh, int polygons, std::uint8_t const* data,
                       std::size_t size, bool merge) {
  // One file per fuzzing process, removed when it exits.
  static const struct Scratch {
    std::string path =
        (std::filesystem::temp_directory_path() / ("fuzz_stl_" + std::to_string(::getpid())))
            .string();
    ~Scratch() { std::remove(path.c_str()); }
  } scratch;
  std::string const& path = scratch.path;
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<char const*>(data), static_cast<std::streamsize>(size));
  quib::Stl from_file;
  if (from_file.load(std::wstring(path.begin(), path.end()), merge) != polygons) std::abort();
  if (polygons < 0) return;
  if (from_file.get_name() != mesh.get_name() || from_file.polygons() != mesh.polygons() ||
      from_file.size() != mesh.size())
    std::abort();
  for (int i = 0; i < mesh.size(); ++i)
    if (std::memcmp(from_file.point(i).data(), mesh.point(i).data(), 12) != 0) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  for (bool merge : {false, true}) {
    quib::Stl mesh;
    const int n = mesh.load_buffer(data, size, merge);
    if (size % 8 == 0) compare_with_file(mesh, n, data, size, merge);  // files are slow
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
