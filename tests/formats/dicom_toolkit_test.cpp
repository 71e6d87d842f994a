// Files written by dcmtk's and gdcm's tools in every transfer syntax, read with the standard
// reading and compared element by element with dcmdump's listing of their top level.
#include "dicom_test_util.hpp"

#include <quib/dicom.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <regex>
#include <string>
#include <vector>

namespace {

using namespace quib_test;

struct Listed {
  std::string vr, shown, length;
};

// The top-level elements of dcmdump's listing (meta group included), by table key.
std::map<std::uint32_t, Listed> top_level(const std::string& dump) {
  std::map<std::uint32_t, Listed> table;
  const std::regex line(R"(^\(([0-9a-f]{4}),([0-9a-f]{4})\) (\w\w|\?\?) (.*?) *# *(u/l|\d+), )");
  std::istringstream in(dump);
  for (std::string text; std::getline(in, text);) {
    std::smatch m;
    if (!std::regex_search(text, m, line)) continue;
    const unsigned group = std::stoul(m[1], nullptr, 16), number = std::stoul(m[2], nullptr, 16);
    if (group == 0xFFFE) continue;  // the delimiters that close a top-level sequence
    const std::string vr = m[3] == "??" ? "UN" : std::string(m[3]);  // implicit and unknown
    table[tag_key(std::uint16_t(group), std::uint16_t(number))] = {vr, m[4], m[5]};
  }
  return table;
}

bool have(const char* tools) {
  return std::system(("{ " + std::string(tools) + "; } >/dev/null 2>&1").c_str()) == 0;
}

// A secondary capture image of 64 x 64 bytes with a nested sequence and private elements.
const char* const kDump =
    "(0008,0005) CS [ISO_IR 100]\n"
    "(0008,0016) UI [1.2.840.10008.5.1.4.1.1.7]\n(0008,0018) UI [1.2.3.4.5.6]\n"
    "(0008,0060) CS [OT]\n"
    "(0008,1140) SQ (Sequence with undefined length)\n"
    "  (fffe,e000) na (Item with undefined length)\n"
    "    (0008,1150) UI [1.2.840.10008.5.1.4.1.1.2]\n    (0008,1155) UI [1.2.3.4.5.7]\n"
    "    (0040,a043) SQ (Sequence with undefined length)\n"
    "      (fffe,e000) na (Item with undefined length)\n"
    "        (0008,0100) SH [T-1]\n        (0008,0104) LO [K\xf6rper]\n"
    "      (fffe,e00d) na (ItemDelimitationItem)\n"
    "    (fffe,e0dd) na (SequenceDelimitationItem)\n"
    "  (fffe,e00d) na (ItemDelimitationItem)\n"
    "(fffe,e0dd) na (SequenceDelimitationItem)\n"
    "(0009,0010) LO [QUIB TEST]\n(0009,1001) LO [private value]\n"
    "(0010,0010) PN [M\xfcller^J\xfcrgen]\n(0010,0020) LO [ID 42]\n(0018,0050) DS [1.25]\n"
    "(0020,0013) IS [7]\n(0028,0002) US 1\n(0028,0004) CS [MONOCHROME2]\n"
    "(0028,0010) US 64\n(0028,0011) US 64\n(0028,0100) US 8\n(0028,0101) US 8\n"
    "(0028,0102) US 7\n(0028,0103) US 0\n(0028,1050) DS [40\\400]\n"
    "(0040,a160) UT [some longer text value]\n(7fe0,0010) OB =px.raw\n";

TEST(ToolkitFiles, StandardReadingMatchesDcmdumpInEveryTransferSyntax) {
  if (!have("command -v dump2dcm && command -v dcmconv && command -v dcmdump")) {
    GTEST_SKIP() << "dcmtk tools not on PATH";
  }
  TempDir dir;
  std::string pixels;
  for (int y = 0; y < 64; ++y)
    for (int x = 0; x < 64; ++x)
      pixels += char((3 * x + 5 * y) & 0xFF);
  dir.write("px.raw", pixels);
  dir.write("in.dump", kDump);
  const std::string at = "cd " + dir.path.string() + " && ";
  ASSERT_EQ(std::system((at + "dump2dcm -q in.dump base.dcm").c_str()), 0);

  std::vector<std::pair<std::string, std::string>> made;  // file, command that made it
  for (const std::string syntax : {"+ti", "+te", "+tb", "+td"}) {
    for (const std::string lengths : {"+e", "-e"}) {
      made.push_back(
          {"conv" + syntax + lengths + ".dcm",
           "dcmconv -q " + syntax + " " + lengths + " base.dcm conv" + syntax + lengths + ".dcm"});
    }
  }
  made.push_back({"jpeg.dcm", "dcmcjpeg -q base.dcm jpeg.dcm"});
  made.push_back({"baseline.dcm", "dcmcjpeg -q +eb base.dcm baseline.dcm"});
  made.push_back({"rle.dcm", "dcmcrle -q base.dcm rle.dcm"});
  made.push_back({"jls.dcm", "dcmcjpls -q base.dcm jls.dcm"});
  made.push_back({"img.dcm", "dcmj2pnm -q +oj base.dcm x.jpg && img2dcm -q x.jpg img.dcm"});
  if (have("command -v gdcmconv")) {
    for (const std::string option : {"--j2k", "--jpegls", "--rle", "--deflated", "--jpeg"})
      made.push_back(
          {"gdcm" + option + ".dcm", "gdcmconv " + option + " base.dcm gdcm" + option + ".dcm"});
  }
  // A dual-purpose file: the same data set behind a preamble that is not all zero.
  made.push_back({"tiff.dcm", "{ printf 'II*\\0'; tail -c +5 base.dcm; } > tiff.dcm"});

  for (const auto& [name, command] : made) {
    SCOPED_TRACE(name);
    ASSERT_EQ(std::system((at + command).c_str()), 0) << command;
    const std::string path = (dir.path / name).string();
    const auto expected = top_level(run("dcmdump -q +L -Un " + path));
    ASSERT_GT(expected.size(), 20u);
    Dicom d;
    ASSERT_EQ(d.load(std::wstring(path.begin(), path.end()), Dicom::READ_STANDARD),
              int(expected.size()));
    EXPECT_TRUE(d.is_complete());
    for (const auto& [key, e] : expected) {
      SCOPED_TRACE(testing::Message() << std::hex << (key & 0xFFFF) << "," << (key >> 16));
      const std::vector<unsigned char>* v = d.find(key);
      ASSERT_NE(v, nullptr);
      const std::uint16_t type = d.get_type(key);
      const std::string vr = type == 0 ? "UN" : std::string{char(type & 0xFF), char(type >> 8)};
      EXPECT_EQ(vr, e.vr);
      if (e.length == "u/l") {
        EXPECT_TRUE(std::find_if(d.get_entries().begin(), d.get_entries().end(), [&](auto& x) {
                      return x.key == key;
                    })->undefined);
      } else {
        EXPECT_EQ(std::to_string(v->size()), e.length);
      }
      std::vector<std::string> text;
      std::vector<double> numbers;
      if (e.shown.front() == '[' && d.get_strings(key, text) >= 0) {
        // dcmdump shows the bytes as written; ours are decoded from Latin-1.
        std::string joined;
        for (const std::string& t : text)
          joined += (&t == &text[0] ? "" : "\\") + t;
        EXPECT_EQ(quib::dicom::decode_text("ISO_IR 100", e.shown.substr(1, e.shown.size() - 2)),
                  joined);
      } else if (vr == "US" && d.get_numbers(key, numbers) == 1) {
        EXPECT_EQ(std::to_string(int(numbers[0])), e.shown);
      }
    }
    // Encapsulated pixel data lists its fragments, the offset table first.
    std::vector<std::pair<std::size_t, std::size_t>> fragments;
    if (expected.at(tag_key(0x7FE0, 0x0010)).length == "u/l") {
      EXPECT_GE(d.get_fragments(Dicom::Tag("PixelData"), fragments), 2);
    }
    // The nested sequence reads as its items (img2dcm writes a new data set without it).
    if (name == "img.dcm") continue;
    std::vector<Dicom> items, inner;
    ASSERT_EQ(d.read_items(Dicom::Tag("ReferencedImageSequence"), items), 1);
    ASSERT_EQ(items[0].read_items(Dicom::Tag("ConceptNameCodeSequence"), inner), 1);
    std::string meaning;
    EXPECT_EQ(inner[0].get_text(Dicom::Tag("CodeMeaning"), meaning), 1);
    EXPECT_EQ(meaning, "K\u00f6rper");
  }
}

}  // namespace
