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
