#include <quib/stl.hpp>

#include "stl_text_reference.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Point = quib::Stl::Point;
using Corners = std::array<Point, 3>;

// A fresh directory under the system's temporary directory, removed with everything in it.
class StlFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    std::random_device rd;
    dir_ = fs::temp_directory_path() / ("quib_stl_test_" + std::to_string(rd()));
    fs::create_directories(dir_);
  }
  void TearDown() override {
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }
  std::wstring path(char const* name) const { return (dir_ / name).wstring(); }
  std::wstring write(char const* name, std::string const& bytes) const {
    std::ofstream(dir_ / name, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));
    return path(name);
  }
  std::string read(std::wstring const& file) const {
    std::ifstream in(fs::path(file), std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
  }

 private:
  fs::path dir_;
};

void put_u32(std::string& out, std::uint32_t v) {
  for (int i = 0; i < 4; ++i)
    out.push_back(static_cast<char>(v >> (8 * i)));
}
void put_f32(std::string& out, float f) {
  std::uint32_t bits;
  std::memcpy(&bits, &f, 4);
  put_u32(out, bits);
}

// A binary file assembled byte by byte: header padded to 80 bytes, the stated count, then one
// 50-byte record per triangle (normal 0 0 0, attribute 0x1234).
std::string binary_file(std::string header, std::uint32_t count,
                        std::vector<Corners> const& triangles) {
  header.resize(80, '\0');
  std::string out = header;
  put_u32(out, count);
  for (auto const& t : triangles) {
    for (int i = 0; i < 3; ++i)
      put_f32(out, 0.0f);
    for (auto const& p : t)
      for (int i = 0; i < 3; ++i)
        put_f32(out, p[i]);
    out += "\x34\x12";
  }
  return out;
}

std::string ascii_facet(Corners const& t) {
  std::ostringstream s;
  s.precision(9);
  s << "  facet normal 0 0 1\n    outer loop\n";
  for (auto const& p : t)
    s << "      vertex " << p.x() << ' ' << p.y() << ' ' << p.z() << '\n';
  s << "    endloop\n  endfacet\n";
  return s.str();
}

const Corners kT1{Point(0.1f, 0.2f, 0.3f), Point(1.5f, -2.25f, 3e-7f), Point(-1e20f, 4, 5)};
const Corners kT2{Point(1.5f, -2.25f, 3e-7f), Point(0.1f, 0.2f, 0.3f), Point(7, 8, 9)};

void expect_points(quib::Stl const& mesh, std::vector<Point> const& expected) {
  ASSERT_EQ(mesh.size(), static_cast<int>(expected.size()));
  for (int i = 0; i < mesh.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(mesh.point(i), expected[static_cast<std::size_t>(i)]);
  }
}

TEST_F(StlFiles, ReadsBinaryFileWithAndWithoutMerging) {
  const auto file = write("two.stl", binary_file("part_A rest of header", 2, {kT1, kT2}));
  quib::Stl mesh;
  ASSERT_EQ(mesh.load(file, false), 2);
  EXPECT_EQ(mesh.get_name(), "part_A");
  expect_points(mesh, {kT1[0], kT1[1], kT1[2], kT2[0], kT2[1], kT2[2]});
  EXPECT_EQ(mesh.polygon(1), (std::vector<int>{3, 4, 5}));

  quib::Stl merged(file, true);
  EXPECT_EQ(merged.size_polygon(), 2);
  expect_points(merged, {kT1[0], kT1[1], kT1[2], kT2[2]});
  EXPECT_EQ(merged.polygon(0), (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(merged.polygon(1), (std::vector<int>{1, 0, 3}));
}

TEST_F(StlFiles, DetectsEncodingByLengthBeforeText) {
  // A header that begins with "solid" and even spells out a facet is binary when the length
  // matches; the name stops at the first blank.
  const auto solid = write("solid.stl", binary_file("solid cube facet normal", 1, {kT1}));
  quib::Stl mesh;
  EXPECT_EQ(mesh.load(solid, false), 1);
  EXPECT_EQ(mesh.get_name(), "solid");

  // No facets at all: 84 bytes, 0 polygons, which is success and not -1.
  const auto empty = write("empty.stl", binary_file("nothing", 0, {}));
  mesh.set_name("old");
  EXPECT_EQ(mesh.load(empty, true), 0);
  EXPECT_EQ(mesh.get_name(), "nothing");
  EXPECT_TRUE(mesh.empty());

  // A count that does not match the length: not binary, and binary bytes are no STL text.
  for (std::uint32_t count : {1u, 3u, 0xFFFFFFF0u}) {
    SCOPED_TRACE(count);
    const auto lying = write("lying.stl", binary_file("part", count, {kT1, kT2}));
    quib::Stl m(lying, false);
    EXPECT_EQ(m.load(lying, false), -1);
    EXPECT_TRUE(m.empty());
  }

  // A lying count behind a header that reads as STL text falls back to the text reader.
  std::string text = "solid x\nfacet normal 0 0 1\nvertex 1 0 0\nvertex 2 0 0\nvertex 3 0 0\n";
  text.resize(80, ' ');
  put_u32(text, 7);
  EXPECT_EQ(mesh.load(write("text.stl", text), false), 1);
  EXPECT_EQ(mesh.get_name(), "x");
}

TEST_F(StlFiles, BinaryNameEndsAtFirstBlankControlOrHighByte) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {" leading blank", ""},
      {std::string("\0abc", 4), ""},
      {"ab\tcd", "ab"},
      {"ab\x01z", "ab"},
      {"Geh\xC3\xA4use", "Geh"},
      {"~!#$%&()*+,-./09:;<=>?@AZ[]^_`az{|}", "~!#$%&()*+,-./09:;<=>?@AZ[]^_`az{|}"},
      {std::string(80, 'n'), std::string(80, 'n')},
  };
  for (auto const& [header, name] : cases) {
    SCOPED_TRACE(header);
    quib::Stl mesh;
    ASSERT_EQ(mesh.load(write("n.stl", binary_file(header, 1, {kT1})), false), 1);
    EXPECT_EQ(mesh.get_name(), name);
  }
}

TEST_F(StlFiles, NamelessAsciiNeedsTwoFacetsToBeRecognised) {
  // "solid" alone makes the first "facet" the name, so only a second facet decides.
  const std::string one = "solid\n" + ascii_facet(kT1) + "endsolid\n";
  quib::Stl mesh;
  mesh.set_name("kept");
  EXPECT_EQ(mesh.load(write("one.stl", one), false), -1);
  EXPECT_EQ(mesh.get_name(), "kept");

  const std::string two = "solid\n" + ascii_facet(kT1) + ascii_facet(kT2) + "endsolid\n";
  EXPECT_EQ(mesh.load(write("two.stl", two), true), 2);
  EXPECT_EQ(mesh.get_name(), "");
  expect_points(mesh, {kT1[0], kT1[1], kT1[2], kT2[2]});

  // Text that never shows "solid", a name, "facet" and "normal" in order is refused.
  for (std::string bad : {"", "facet normal 0 0 1\n", "solid\n", "solid x\nfacet\n",
                          "Solid x\nfacet normal\n", "solid x facetnormal\n"}) {
    SCOPED_TRACE(bad);
    EXPECT_EQ(mesh.load(write("bad.stl", bad), false), -1);
  }
}

TEST_F(StlFiles, AsciiReaderAgreesWithPlainSplittingOnOddText) {
  // The words lines are made of, '|'-separated: keywords, quoted and broken keywords, numbers
  // in every form wcstod knows (and some it half knows), odd bytes.
  std::vector<std::string> words;
  std::istringstream vocabulary(
      "vertex|vertex|vertex|solid|facet|normal|endsolid|\"vertex\"|ver\"tex|"
      "\"a b\"c|\"|1|-2.5|3e2|0x1p3|+4|inf|-nan|1e400|1e-400|1.5abc|-0|.5|1e|"
      "7.|-.25e+1|00012.50|12345678901234567890123|0.1234567890123456789|"
      "9007199254740993|1e22|1e23|2.5e-22|-INF|-0X10|1,5|3.4028235677973366e38|"
      "1.401298464324817e-45|0.30000001192092896|\xC3\xA4|\xFF|\r|x\ry|"
      "nan(4503599627370495)|NaN(a_1)|+.5|+-1|-0x|infinityx|123456789.123456789|"
      "1e-22|0000000000000000001.5|4503599627370497.5|-9007199254740992e-22|0.000001");
  for (std::string w; std::getline(vocabulary, w, '|');)
    words.push_back(w);
  const std::vector<std::string> blanks = {" ", "\t", "  ", " \t "};
  const std::vector<std::string> ends = {"\n", "\r\n", "\r\r\n", "\n\n"};
  std::mt19937 random(7);
  const auto pick = [&](std::vector<std::string> const& from) {
    return from[std::uniform_int_distribution<std::size_t>(0, from.size() - 1)(random)];
  };
  std::size_t triangles = 0;
  for (int file = 0; file < 300; ++file) {
    std::string text = "solid start\nfacet normal\nfacet normal\n";
    for (int line = 0; line < 40; ++line) {
      if (random() % 2) text += pick(blanks);
      const int n = int(random() % 6);
      for (int w = 0; w < n; ++w)
        text += pick(words) + pick(blanks);
      text += pick(words);
      if (line < 39 || random() % 2) text += pick(ends);
    }
    SCOPED_TRACE(text);
    const auto expected = quib::reference::read_text_slowly(text);
    triangles += expected.points.size() / 3;
    quib::Stl mesh;
    ASSERT_EQ(mesh.load(write("odd.stl", text), false), int(expected.points.size() / 3));
    EXPECT_EQ(mesh.get_name(), expected.name);
    EXPECT_EQ(mesh.info().odd_facets, expected.odd_facets);
    for (std::size_t i = 0; i < expected.points.size(); ++i) {
      for (int c = 0; c < 3; ++c) {
        std::uint32_t a, b;
        std::memcpy(&a, &expected.points[i][c], 4);
        std::memcpy(&b, &mesh.point(int(i))[c], 4);
        ASSERT_EQ(a, b) << "point " << i << " coordinate " << c;
      }
    }
  }
  EXPECT_GT(triangles, 100u);  // the vocabulary does produce vertex lines
}

TEST_F(StlFiles, InfoTellsTheEncodingAndCountsFacetsWithOtherThanThreeVertices) {
  const std::string quad =
      "facet normal 0 0 1\nouter loop\nvertex 0 0 0\nvertex 1 0 0\nvertex 1 1 0\n"
      "vertex 0 1 0\nendloop\nendfacet\n";
  const std::string text = "solid q\n" + ascii_facet(kT1) + quad + ascii_facet(kT2) +
                           "facet normal 0 0 1\nendfacet\nendsolid q\n";
  quib::Stl mesh;
  ASSERT_EQ(mesh.load(write("quad.stl", text), true), 3);  // 3 + 4 + 3 vertex lines
  EXPECT_FALSE(mesh.info().binary);
  EXPECT_EQ(mesh.info().odd_facets, 2);  // the quad and the empty last facet
  ASSERT_EQ(mesh.load(write("b.stl", binary_file("b", 1, {kT1})), false), 1);
  EXPECT_TRUE(mesh.info().binary);
  EXPECT_EQ(mesh.info().odd_facets, 0);
  EXPECT_EQ(mesh.load(path("missing.stl"), false), -1);
  EXPECT_FALSE(mesh.info().binary);
}

// Found by the fuzzer: quotes inside a name join bytes that are not UTF-8 on their own.
TEST_F(StlFiles, TextIsDecodedBeforeQuotesAreRemoved) {
  quib::Stl mesh;
  const std::string text = "solid \xDF\"\"\xB0 x\nfacet normal\nfacet normal\n";
  ASSERT_EQ(mesh.load(write("quoted.stl", text), false), 0);
  EXPECT_EQ(mesh.get_name(), "\xEF\xBF\xBD\xEF\xBF\xBD");  // two U+FFFD, not U+07F0
}

TEST_F(StlFiles, MergesFloatEqualPointsButKeepsSignedZerosAndNanApart) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const Point zero(0, 0, 0), negative(-0.0f, 0, 0), one(1, 1, 1), bad(nan, 0, 0);
  quib::Stl mesh;
  ASSERT_EQ(
      mesh.load(write("z.stl",
                      binary_file("z", 3,
                                  {{one, zero, negative}, {negative, one, bad}, {bad, zero, one}})),
                true),
      3);
  ASSERT_EQ(mesh.size(), 5);
  EXPECT_FALSE(std::signbit(mesh.point(1).x()));
  EXPECT_TRUE(std::signbit(mesh.point(2).x()));
  EXPECT_EQ(mesh.polygon(0), (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(mesh.polygon(1), (std::vector<int>{2, 0, 3}));
  EXPECT_EQ(mesh.polygon(2), (std::vector<int>{4, 1, 0}));

  // compress gives the same result as a merged load of the unshared mesh.
  quib::Stl flat(path("z.stl"), false);
  EXPECT_EQ(flat.compress(), 5);
  EXPECT_EQ(flat.polygons(), mesh.polygons());
}

// A wavy plate of cols x rows cells on an integer grid, two unshared triangles per cell.
quib::Stl plate(int cols, int rows) {
  std::vector<Eigen::Vector3d> grid;
  for (int j = 0; j <= rows; ++j)
    for (int i = 0; i <= cols; ++i)
      grid.emplace_back(i, j, (i * j) % 7);
  std::vector<std::vector<int>> triangles;
  for (int j = 0; j < rows; ++j)
    for (int i = 0; i < cols; ++i) {
      const int k = j * (cols + 1) + i;
      triangles.push_back({k, k + 1, k + cols + 1});
      triangles.push_back({k + 1, k + cols + 2, k + cols + 1});
    }
  quib::Stl mesh;
  mesh.assign(grid, triangles);
  mesh.decompress();
  mesh.set_name("plate");
  return mesh;
}

// Round trips in both encodings, unmerged and merged; 1,000,000 triangles (fewer under the
// sanitizers, which slow text formatting and parsing down many times).
TEST_F(StlFiles, PlatesRoundTripInBothEncodingsAndMergeToTheirGrid) {
#if defined(__SANITIZE_ADDRESS__)
  const int large = 100;
#else
  const int large = 1000;
#endif
  for (int cols : {2, large}) {
    const quib::Stl mesh = plate(cols, cols / 2);
    const int count = mesh.size_polygon();
    for (int precision : {0, 1}) {
      SCOPED_TRACE(testing::Message() << cols << " columns, precision " << precision);
      const auto file = path("plate.stl");
      ASSERT_EQ(mesh.save(file, precision), count);
      quib::Stl flat(file, false), merged(file, true);
      EXPECT_EQ(flat.get_name(), "plate");
      EXPECT_TRUE(flat.points() == mesh.points());
      EXPECT_TRUE(flat.polygons() == mesh.polygons());
      EXPECT_EQ(merged.size(), (cols + 1) * (cols / 2 + 1));
      ASSERT_EQ(merged.size_polygon(), count);
      const int shared = merged.size();
      EXPECT_EQ(merged.decompress(), 3 * count);
      EXPECT_TRUE(merged.points() == mesh.points());
      EXPECT_EQ(merged.compress(), shared);
    }
  }
}

TEST_F(StlFiles, FilesReadInBlocksGiveWhatTheirBytesInMemoryGive) {
  // Files are read a block at a time: records straddle blocks, and a line longer than a block
  // (a name of 3 MB here) must still be read whole.
  std::string text = "solid " + std::string(3u << 20, 'n') + "\r\n";
  std::vector<Corners> triangles;
  for (int i = 0; i < 30000; ++i) {
    const float f = static_cast<float>(i);
    triangles.push_back({Point(f, 0.5f, -f), Point(f + 1, 0.25f, f), Point(0, f, 1e-3f * f)});
    text += ascii_facet(triangles.back());
  }
  text += "endsolid";  // no line end after the last line
  const std::string binary = binary_file("block", 30000, triangles);
  for (std::string const* bytes : {&std::as_const(text), &binary}) {
    for (bool merge : {false, true}) {
      quib::Stl from_file, from_memory;
      ASSERT_EQ(from_file.load(write("blocks.stl", *bytes), merge), 30000);
      ASSERT_EQ(from_memory.load_buffer(bytes->data(), bytes->size(), merge), 30000);
      EXPECT_EQ(from_file.get_name(), from_memory.get_name());
      EXPECT_TRUE(from_file.points() == from_memory.points());
      EXPECT_TRUE(from_file.polygons() == from_memory.polygons());
    }
  }
}

TEST_F(StlFiles, WritesAsciiLinesInFixedNotation) {
  quib::Stl mesh;
  mesh.assign(std::vector<Point>{Point(1, 2.5f, -0.125f), Point(2, 2.5f, -0.125f),
                                 Point(1, 3.5f, -0.125f), Point(0.3f, 0, 1e20f)},
              {{0, 1, 2}, {3, 3, 3}});
  mesh.set_name("plate 1");
  ASSERT_EQ(mesh.save(path("p.stl"), 3), 2);
  EXPECT_EQ(read(path("p.stl")),
            "solid plate 1\n"
            "facet normal 0.000 -0.000 1.000\nouter loop\n"
            "vertex 1.000 2.500 -0.125\nvertex 2.000 2.500 -0.125\nvertex 1.000 3.500 -0.125\n"
            "endloop\nendfacet\n"
            "facet normal -nan -nan -nan\nouter loop\n"
            "vertex 0.300 0.000 100000002004087734272.000\n"
            "vertex 0.300 0.000 100000002004087734272.000\n"
            "vertex 0.300 0.000 100000002004087734272.000\n"
            "endloop\nendfacet\n"
            "endsolid plate 1\n");

  // Digits past what a float can carry are zeros.
  mesh.assign(std::vector<Point>{Point(0.1f, 0, 0)}, {{0, 0, 0}});
  mesh.save(path("long.stl"), 200);
  const std::string text = read(path("long.stl"));
  const std::string expected = "vertex 0.100000001490116119384765625" + std::string(173, '0');
  EXPECT_NE(text.find(expected + " 0." + std::string(200, '0') + " "), std::string::npos);
}

TEST_F(StlFiles, WritesBinaryRecordsByteByByte) {
  quib::Stl mesh;
  mesh.assign(std::vector<Point>{Point(0, 0, 0), Point(2, 0, 0), Point(0, 3, 0)}, {{0, 1, 2}});
  mesh.set_name(std::string(100, 'x'));
  ASSERT_EQ(mesh.save(path("b.stl"), 0), 1);
  std::string expected = std::string(80, 'x');
  put_u32(expected, 1);
  for (float f : {0.f, -0.f, 1.f, 0.f, 0.f, 0.f, 2.f, 0.f, 0.f, 0.f, 3.f, 0.f})
    put_f32(expected, f);
  expected += std::string(2, '\0');
  EXPECT_EQ(read(path("b.stl")), expected);

  mesh.set_name("ab");
  mesh.save(path("b.stl"), -5);
  EXPECT_EQ(read(path("b.stl")).substr(0, 81), std::string("ab") + std::string(78, '\0') + '\1');
}

TEST_F(StlFiles, FailedLoadClearsGeometryAndKeepsName) {
  quib::Stl mesh = plate(1, 1);
  EXPECT_EQ(mesh.load(path("missing.stl"), false), -1);
  EXPECT_TRUE(mesh.empty());
  EXPECT_EQ(mesh.size_polygon(), 0);
  EXPECT_EQ(mesh.get_name(), "plate");
  fs::create_directory(path("folder"));
  mesh = plate(1, 1);
  EXPECT_EQ(mesh.load(path("folder"), true), -1);
  EXPECT_FALSE(mesh.is());
  quib::Stl missing(path("missing.stl"), true);
  EXPECT_TRUE(missing.empty());
  EXPECT_EQ(missing.get_name(), "");
}

TEST_F(StlFiles, NameWithUnpairedSurrogateNamesNoFile) {
  // Were the lone surrogate replaced by U+FFFD, the file of that name would be read.
  const quib::Stl mesh = plate(1, 1);
  ASSERT_TRUE(mesh.write(path("") + L"\uFFFD.stl", 0));
  const std::wstring lone = path("") + L"\xD800.stl";
  quib::Stl loaded = plate(2, 2);
  EXPECT_EQ(loaded.load(lone, false), -1);
  EXPECT_TRUE(loaded.empty());
  EXPECT_EQ(quib::Stl(lone, true).size(), 0);
  EXPECT_FALSE(mesh.write(lone, 0));
  EXPECT_EQ(mesh.save(lone, 6), 2);  // save reports nothing, and writes nothing either
  EXPECT_EQ(std::distance(fs::directory_iterator(fs::path(path(""))), fs::directory_iterator()), 1);
}

TEST_F(StlFiles, WriteReportsFailureAndGivesDegenerateFacetsZeroNormals) {
  quib::Stl mesh;
  mesh.assign(std::vector<Point>{Point(0, 0, 0), Point(2, 0, 0), Point(0, 3, 0)},
              {{0, 1, 2}, {0, 1, 1}});
  fs::create_directory(path("folder"));
  EXPECT_FALSE(mesh.write(path("folder"), 0));
  EXPECT_FALSE(mesh.write(path("no/such/folder.stl"), 6));
  ASSERT_TRUE(mesh.write(path("w.stl"), 2));
  EXPECT_NE(read(path("w.stl")).find("endfacet\nfacet normal 0.00 0.00 0.00\n"), std::string::npos);
  ASSERT_TRUE(mesh.write(path("w.stl"), 0));
  const std::string bytes = read(path("w.stl"));
  ASSERT_EQ(bytes.size(), 84u + 2 * 50);
  EXPECT_EQ(bytes.substr(134, 12), std::string(12, '\0'));
  EXPECT_EQ(bytes.substr(92, 4), std::string("\0\0\x80\x3f", 4));  // the first normal's z: 1
}

TEST(Stl, SwapExchangesGeometryButNotNames) {
  quib::Stl a = plate(3, 2), b;
  b.set_name("other");
  a.swap(b);
  EXPECT_EQ(a.get_name(), "plate");
  EXPECT_EQ(b.get_name(), "other");
  EXPECT_TRUE(a.empty());
  EXPECT_EQ(b.size(), 36);

  std::vector<Point> points{Point(1, 2, 3)};
  std::vector<std::vector<int>> polygons;
  b.swap(points, polygons);
  EXPECT_EQ(points.size(), 36u);
  EXPECT_EQ(b.size(), 1);
  EXPECT_EQ(b.size_polygon(), 0);
  EXPECT_EQ(b.compress(), 0);  // no polygon uses the point
  EXPECT_EQ(b.decompress(), 0);

  quib::Stl c;
  c.assign(std::vector<Eigen::Vector3d>{Eigen::Vector3d(0.1, 1e-50, -0.0)}, {});
  EXPECT_EQ(c.point(0), Point(0.1f, 0.0f, -0.0f));
  EXPECT_TRUE(std::signbit(c.point(0).z()));
}

}  // namespace
