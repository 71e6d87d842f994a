// The quib executable: dispatch, usage errors and `quib bmp info`.
#include "tool_runner.hpp"

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include <cstdint>
#include <string>

namespace {

using quib::test::failsWith;
using quib::test::runTool;

class BmpTool : public quib::test::ToolFiles {};

// A 14 + 40 byte header for an uncompressed bitmap with no colour table, followed by `rows`
// rows of pixel data.
std::string bitmap(std::int32_t width, std::int32_t height, int bitCount, int compression,
                   int rows) {
  std::string b(54, '\0');
  const auto put = [&](std::size_t at, std::uint32_t v, int n) {
    for (int i = 0; i < n; ++i)
      b[at + i] = static_cast<char>(v >> (8 * i));
  };
  const std::int64_t lineBytes = ((std::int64_t(width) * bitCount + 31) / 32) * 4;
  b[0] = 'B';
  b[1] = 'M';
  put(2, static_cast<std::uint32_t>(54 + lineBytes * rows), 4);
  put(10, 54, 4);
  put(14, 40, 4);
  put(18, static_cast<std::uint32_t>(width), 4);
  put(22, static_cast<std::uint32_t>(height), 4);
  put(26, 1, 2);
  put(28, bitCount, 2);
  put(30, compression, 4);
  put(38, 3937, 4);  // 100 dpi
  put(42, 3937, 4);
  b.append(static_cast<std::size_t>(lineBytes * rows), '\x55');
  return b;
}

TEST(Tool, ListsCommandsAndExitsByUsage) {
  const auto help = runTool({"--help"});
  EXPECT_EQ(help.code, 0);
  EXPECT_NE(help.out.find("bmp"), std::string::npos);
  EXPECT_EQ(help.err, "");

  const auto bare = runTool({});
  EXPECT_EQ(bare.code, 2);
  EXPECT_EQ(bare.out, "");

  EXPECT_TRUE(failsWith(runTool({"frobnicate"}), 2, "unknown command 'frobnicate'"));
  EXPECT_TRUE(failsWith(runTool({"--json"}), 2, "unknown option '--json'"));

  const auto version = runTool({"--version"});
  EXPECT_EQ(version.code, 0);
  EXPECT_EQ(version.out.rfind("quib ", 0), 0u);
}

TEST(Tool, GivesEachCommandItsHelp) {
  for (auto const& args :
       {std::vector<std::string>{"bmp", "--help"}, std::vector<std::string>{"help", "bmp"},
        std::vector<std::string>{"bmp", "info", "--nonsense", "-h"}}) {
    const auto r = runTool(args);
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.out.rfind("usage: quib bmp", 0), 0u) << r.out;
    EXPECT_EQ(r.err, "");
  }
}

TEST_F(BmpTool, DescribesFilesFromAnotherWriter) {
  // OpenCV writes bottom-up files: 24-bit for colour, 8-bit with a 256-entry table for grey.
  const std::string colour = file("colour.bmp");
  const std::string grey = file("grey.bmp");
  ASSERT_TRUE(cv::imwrite(colour, cv::Mat(3, 5, CV_8UC3, cv::Scalar(1, 2, 3))));
  ASSERT_TRUE(cv::imwrite(grey, cv::Mat(4, 7, CV_8UC1, cv::Scalar(9))));

  const auto c = runTool({"bmp", "info", "--json", colour});
  ASSERT_EQ(c.code, 0) << c.err;
  EXPECT_EQ(c.err, "");
  for (char const* field :
       {"\"width\": 5,", "\"height\": 3,", "\"bits_per_pixel\": 24,", "\"bits_per_sample\": 8,",
        "\"samples_per_pixel\": 3,", "\"line_bytes\": 16,", "\"top_down\": false,",
        "\"data_offset\": 54,", "\"image_bytes\": 48,", "\"palette_entries\": 0\n"})
    EXPECT_NE(c.out.find(field), std::string::npos) << field << " in " << c.out;

  // Several files, one object each; a file that fails does not stop the others.
  const auto g = runTool({"bmp", "info", grey, file("gone.bmp"), colour, "--json"});
  EXPECT_TRUE(failsWith(g, 1, file("gone.bmp") + ": no such file"));
  for (char const* field : {"\"samples_per_pixel\": 1,", "\"line_bytes\": 8,",
                            "\"data_offset\": 1078,", "\"palette_entries\": 256\n"})
    EXPECT_NE(g.out.find(field), std::string::npos) << field << " in " << g.out;
  EXPECT_NE(g.out.find("\"width\": 5,"), std::string::npos) << g.out;

  const auto text = runTool({"bmp", "info", grey});
  ASSERT_EQ(text.code, 0);
  EXPECT_EQ(text.out.rfind(grey + "\n", 0), 0u);
  EXPECT_NE(text.out.find("7 x 4 pixels"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("bottom-up"), std::string::npos);
}

TEST_F(BmpTool, ReportsTopDownRowsAndResolution) {
  const std::string path = writeFile("top.bmp", bitmap(3, -10, 24, 0, 10));
  const auto r = runTool({"bmp", "info", path});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("3 x 10 pixels"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("top-down"), std::string::npos);
  EXPECT_NE(r.out.find("99 x 99 dpi"), std::string::npos);  // 3937 px/m truncates to 99
  EXPECT_NE(r.out.find("12 bytes"), std::string::npos);
}

TEST_F(BmpTool, FailsCleanlyOnBadFiles) {
  struct Case {
    char const* name;
    std::string bytes;
    char const* reason;
  };
  const Case cases[] = {
      {"empty.bmp", "", "not a bitmap file"},
      {"text.bmp", "hello, world", "not a bitmap file"},
      {"short.bmp", "BM\x10\x00", "headers"},
      {"packed.bmp", bitmap(4, 4, 8, 1, 4), "headers"},
      {"lying.bmp", bitmap(4, 100000, 24, 0, 2), "headers"},
      {"huge.bmp", bitmap(0x7fffffff, 0x7fffffff, 32, 0, 0), "headers"},
      {"odd\nname\".bmp", "junk", "not a bitmap file"},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = writeFile(c.name, c.bytes);
    const auto r = runTool({"bmp", "info", path});
    EXPECT_TRUE(failsWith(r, 1, c.reason));
    EXPECT_EQ(r.out, "");
  }
  EXPECT_TRUE(failsWith(runTool({"bmp", "info", file("absent.bmp")}), 1,
                        file("absent.bmp") + ": no such file or directory"));
  EXPECT_TRUE(failsWith(runTool({"bmp", "info", dir.string()}), 1, "is a directory"));
}

TEST(Tool, RefusesBadBmpArguments) {
  EXPECT_TRUE(failsWith(runTool({"bmp"}), 2, "quib bmp: missing action"));
  EXPECT_TRUE(failsWith(runTool({"bmp", "show", "a.bmp"}), 2, "unknown action 'show'"));
  EXPECT_TRUE(failsWith(runTool({"bmp", "info"}), 2, "FILES is required"));
  EXPECT_TRUE(
      failsWith(runTool({"bmp", "info", "--depth=3", "a.bmp"}), 2, "unknown option '--depth=3'"));
}

}  // namespace
