// Reads an STL file with shared vertices, reports it, and writes it again in both encodings.
//   stl_mesh in.stl [out-prefix]
#include <quib/convert.hpp>
#include <quib/stl.hpp>

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: stl_mesh in.stl [out-prefix]\n");
    return 2;
  }
  const std::wstring in = quib::convert::to_wstring(argv[1]);
  const std::wstring out = quib::convert::to_wstring(argc > 2 ? argv[2] : "mesh_copy");

  quib::Stl mesh;
  const int triangles = mesh.load(in, /*merge=*/true);
  if (triangles < 0) {
    std::fprintf(stderr, "%s: not an STL file\n", argv[1]);
    return 1;
  }
  std::printf("solid \"%s\": %d triangles over %d shared points\n", mesh.get_name().c_str(),
              triangles, mesh.size());

  // Bounding box of the shared points.
  if (mesh.is()) {
    Eigen::Vector3f low = mesh.point(0), high = mesh.point(0);
    for (auto const& p : mesh.points()) {
      low = low.cwiseMin(p);
      high = high.cwiseMax(p);
    }
    std::printf("box (%g %g %g) - (%g %g %g)\n", low.x(), low.y(), low.z(), high.x(), high.y(),
                high.z());
  }

  mesh.save(out + L"_binary.stl", 0);  // binary
  mesh.save(out + L"_ascii.stl", 6);   // ASCII, 6 digits after the point
  return 0;
}
