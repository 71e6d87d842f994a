// Feeds arbitrary bytes to the STL reader, with and without merging, and checks that every
// mesh it accepts is a valid indexed face set that compress and decompress keep valid.
#include <quib/stl.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

void check(quib::Stl const& mesh, int polygons) {
  if (polygons != mesh.size_polygon()) std::abort();
  for (auto const& p : mesh.polygons()) {
    if (p.size() != 3) std::abort();
    for (int i : p)
      if (i < 0 || i >= mesh.size()) std::abort();
  }
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
    if (merge) {
      const int merged = mesh.size();
      mesh.decompress();
      check(mesh, n);
      if (mesh.is() && mesh.compress() != merged) std::abort();
      check(mesh, n);
    }
  }
  return 0;
}
