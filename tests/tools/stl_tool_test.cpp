// quib stl on meshes written here byte by byte.
#include "tool_runner.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using quib::test::failsWith;
using quib::test::runTool;

class StlTool : public quib::test::ToolFiles {};

// A binary STL of the unit cube moved by `shift` along x: 12 triangles over 8 corners.
std::string binaryCube(float shift, std::string const& name) {
  static const int faces[12][3] = {{0, 1, 3}, {0, 3, 2}, {4, 6, 7}, {4, 7, 5},
                                   {0, 4, 5}, {0, 5, 1}, {2, 3, 7}, {2, 7, 6},
                                   {0, 2, 6}, {0, 6, 4}, {1, 5, 7}, {1, 7, 3}};
  std::string b(80, '\0');
  b.replace(0, name.size(), name);
  const auto put32 = [&](std::uint32_t v) {
    for (int i = 0; i < 4; ++i)
      b += static_cast<char>(v >> (8 * i));
  };
  const auto putFloat = [&](float f) {
    std::uint32_t v;
    std::memcpy(&v, &f, 4);
    put32(v);
  };
  put32(12);
  for (auto const& f : faces) {
    for (int i = 0; i < 3; ++i)
      putFloat(0);  // normal, ignored by readers
    for (int corner : f) {
      putFloat(float(corner & 1) + shift);
      putFloat(float((corner >> 1) & 1));
      putFloat(float((corner >> 2) & 1) * 2.5f);
    }
    b += std::string(2, '\0');
  }
  return b;
}

std::string slurp(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST_F(StlTool, DescribesAMesh) {
  const std::string cube = writeFile("cube.stl", binaryCube(-1, "cube made here"));
  const auto text = runTool({"stl", "info", cube});
  ASSERT_EQ(text.code, 0) << text.err;
  EXPECT_NE(text.out.find("name          cube\n"), std::string::npos) << text.out;  // up to a blank
  EXPECT_NE(text.out.find("binary"), std::string::npos);
  EXPECT_NE(text.out.find("triangles     12\n"), std::string::npos);
  EXPECT_NE(text.out.find("vertices      8 distinct"), std::string::npos);
  EXPECT_NE(text.out.find("(-1, 0, 0) to (0, 1, 2.5)"), std::string::npos);

  const auto json = runTool({"stl", "info", "--json", cube});
  const auto info = nlohmann::json::parse(json.out);
  EXPECT_EQ(info[0]["bounding_box"]["size"], nlohmann::json({1, 1, 2.5})) << json.out;
  // The cube's triangles are all wound inwards: a consistent solid of negative volume.
  auto const& m = info[0]["measures"];
  EXPECT_EQ(m["volume"], -2.5) << json.out;
  EXPECT_EQ(m["area"], 2 * (1 + 2.5 + 2.5));
  const std::vector<double> centre = {-0.5, 0.5, 1.25};
  for (int i = 0; i < 3; ++i)
    EXPECT_NEAR(m["centroid"][i].get<double>(), centre[std::size_t(i)], 1e-12);
  EXPECT_TRUE(m["solid"].get<bool>());
  EXPECT_EQ(m["boundary_edges"], 0);
  EXPECT_EQ(m["parts"], 1);
  EXPECT_EQ(info[0]["odd_facets"], 0);
  EXPECT_NE(text.out.find("solid         yes"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("volume        -2.5\n"), std::string::npos) << text.out;
}

TEST_F(StlTool, ReportsOpenMeshesOddFacetsAndNeverWritesNanNormals) {
  // Two facets, one of them with four vertex lines, and a degenerate triangle.
  const std::string text =
      "solid odd\nfacet normal 0 0 1\nouter loop\nvertex 0 0 0\nvertex 1 0 0\nvertex 0 1 0\n"
      "vertex 0 0 1\nendloop\nendfacet\nfacet normal 0 0 1\nouter loop\nvertex 2 2 2\n"
      "vertex 2 2 2\nendloop\nendfacet\nendsolid odd\n";
  const std::string odd = writeFile("odd.stl", text);
  const auto json = runTool({"stl", "info", "--json", odd});
  ASSERT_EQ(json.code, 0) << json.err;
  const auto info = nlohmann::json::parse(json.out);
  EXPECT_EQ(info[0]["odd_facets"], 2);
  EXPECT_FALSE(info[0]["measures"]["solid"].get<bool>());
  EXPECT_EQ(info[0]["measures"]["degenerate_triangles"], 1);
  const auto described = runTool({"stl", "info", odd});
  EXPECT_NE(described.out.find("odd facets    2"), std::string::npos) << described.out;
  EXPECT_NE(described.out.find("(not a solid)"), std::string::npos) << described.out;

  const auto converted = runTool({"stl", "convert", "--out", file("odd_binary.stl"), odd});
  ASSERT_EQ(converted.code, 0) << converted.err;
  const std::string bytes = slurp(file("odd_binary.stl"));
  ASSERT_EQ(bytes.size(), 84u + 2 * 50);
  EXPECT_EQ(bytes.substr(84 + 50, 12), std::string(12, '\0'));  // degenerate: 0 0 0, not NaN
}

TEST_F(StlTool, ConvertsBetweenEncodingsAndMerges) {
  const std::string cube = writeFile("cube.stl", binaryCube(0, "c"));
  const auto toAscii =
      runTool({"stl", "convert", "--precision", "3", cube, "--out", file("a.stl")});
  ASSERT_EQ(toAscii.code, 0) << toAscii.err;
  const std::string ascii = slurp(file("a.stl"));
  EXPECT_EQ(ascii.rfind("solid c\n", 0), 0u);
  EXPECT_NE(ascii.find("vertex 1.000 1.000 2.500\n"), std::string::npos);

  const auto back = runTool({"stl", "convert", file("a.stl"), "--out", file("b.stl")});
  ASSERT_EQ(back.code, 0) << back.err;
  EXPECT_EQ(std::filesystem::file_size(file("b.stl")), 84u + 12 * 50);
  EXPECT_EQ(runTool({"stl", "convert", "--binary", cube, "--out", file("c.stl")}).code, 0);
  EXPECT_EQ(std::filesystem::file_size(file("c.stl")), 84u + 12 * 50);

  // Two cubes side by side share the four corners of the face where they touch.
  const std::string moved = writeFile("moved.stl", binaryCube(1, "m"));
  const auto merged = runTool({"stl", "merge", "--json", "--out", file("m.stl"), cube, moved});
  ASSERT_EQ(merged.code, 0) << merged.err;
  EXPECT_NE(merged.out.find("\"triangles\": 24"), std::string::npos) << merged.out;
  EXPECT_NE(merged.out.find("\"vertices\": 12"), std::string::npos);
  EXPECT_EQ(std::filesystem::file_size(file("m.stl")), 84u + 24 * 50);
}

TEST_F(StlTool, FailsOnBadFilesAndArguments) {
  const std::string cube = writeFile("cube.stl", binaryCube(0, "c"));
  EXPECT_TRUE(failsWith(runTool({"stl", "info", writeFile("junk.stl", "solid but nothing else")}),
                        1, "junk.stl: not an STL file"));
  std::string cut = binaryCube(0, "c");
  cut.resize(cut.size() - 7);
  EXPECT_TRUE(failsWith(runTool({"stl", "info", writeFile("cut.stl", cut)}), 1, "cut.stl"));
  EXPECT_TRUE(
      failsWith(runTool({"stl", "convert", cube, "--out", dir.string()}), 1, "is a directory"));
  EXPECT_TRUE(failsWith(runTool({"stl", "convert", cube, "--out", file("no/such/dir/x.stl")}), 1,
                        "cannot be written"));

  const std::string x = file("x.stl");
  EXPECT_TRUE(failsWith(runTool({"stl", "convert", cube}), 2, "--out is required"));
  EXPECT_TRUE(failsWith(runTool({"stl", "convert", cube, x, "--out", x}), 2, "IN: At Most 1"));
  EXPECT_TRUE(failsWith(runTool({"stl", "merge", "--out", x}), 2, "IN is required"));
  EXPECT_TRUE(failsWith(runTool({"stl", "convert", "--ascii", "--binary", cube, "--out", x}), 2,
                        "exclude"));
  EXPECT_TRUE(failsWith(runTool({"stl", "convert", "--precision", "0", cube, "--out", x}), 2,
                        "--precision"));
  EXPECT_TRUE(failsWith(runTool({"stl", "info", "--ascii", cube}), 2, "unknown option '--ascii'"));
  EXPECT_TRUE(failsWith(runTool({"stl", "slice", cube}), 2, "unknown action 'slice'"));
}

}  // namespace
