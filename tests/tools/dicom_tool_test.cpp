// quib dicom dump on files put together here.
#include "tool_runner.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

using quib::test::failsWith;
using quib::test::runTool;

class DicomTool : public quib::test::ToolFiles {};

// Explicit VR little-endian elements; SQ, OB and OW take the long header.
void element(std::string& f, std::uint16_t group, std::uint16_t number, char const* vr,
             std::string const& value, std::uint32_t length = 0xFFFFFFFEu) {
  const auto put16 = [&](std::uint32_t v) {
    f += static_cast<char>(v & 0xFF);
    f += static_cast<char>((v >> 8) & 0xFF);
  };
  if (length == 0xFFFFFFFEu) length = std::uint32_t(value.size());
  put16(group);
  put16(number);
  if (group == 0xFFFE) {
    put16(length & 0xFFFF), put16(length >> 16);
  } else if (std::string(vr) == "SQ" || std::string(vr) == "OB" || std::string(vr) == "OW") {
    f += vr, put16(0), put16(length & 0xFFFF), put16(length >> 16);
  } else {
    f += vr, put16(length);
  }
  f += value;
}

std::string dicomFile() {
  std::string f(128, 'p');  // a preamble that is not zero: the standard reading takes it
  f += "DICM";
  element(f, 0x0002, 0x0010, "UI", std::string("1.2.840.10008.1.2.1") + '\0');
  element(f, 0x0008, 0x0005, "CS", "ISO_IR 100");
  element(f, 0x0008, 0x0008, "CS", "ORIGINAL\\\\AXIAL ");  // an empty value in the middle
  element(f, 0x0008, 0x0060, "CS", "MR");
  // An undefined-length sequence of one item.
  std::string item;
  element(item, 0x0008, 0x0100, "SH", "T-1 ");
  element(item, 0x0008, 0x0104, "LO", "K\xf6rper");
  element(f, 0x0008, 0x1140, "SQ", "", 0xFFFFFFFFu);
  element(f, 0xFFFE, 0xE000, "", item, 0xFFFFFFFFu);
  element(f, 0xFFFE, 0xE00D, "", "");
  element(f, 0xFFFE, 0xE0DD, "", "");
  element(f, 0x0010, 0x0010, "PN", "M\xfcller^J\xfcrgen");
  element(f, 0x0010, 0x0020, "LO", "ID-42 ");
  element(f, 0x0028, 0x0010, "US", std::string("\x00\x02", 2));
  element(f, 0x0028, 0x1050, "DS", "40\\400");
  element(f, 0x7FE0, 0x0010, "OW", std::string("\x01\x02\x03\x04", 4));
  return f;
}

TEST_F(DicomTool, ListsElementsAsDcmdumpDoes) {
  const std::string path = writeFile("x.dcm", dicomFile());
  const auto r = runTool({"dicom", "dump", path});
  ASSERT_EQ(r.code, 0) << r.err;
  const auto at = [&](char const* s) { return r.out.find(s); };
  EXPECT_LT(at("(0002,0010) UI [1.2.840.10008.1.2.1]"), at("(0008,0060) CS [MR]"));
  EXPECT_LT(at("(0008,1140) SQ (Sequence with undefined length #=1)"),
            at("  (fffe,e000) na (Item with 2 elements)"));
  EXPECT_LT(at("  (fffe,e000)"), at("    (0008,0104) LO [K\xc3\xb6rper]"));  // indented, UTF-8
  EXPECT_LT(at("(0008,0104)"), at("(0010,0010) PN [M\xc3\xbcller^J\xc3\xbcrgen]"));
  EXPECT_NE(at("(0010,0020) LO [ID-42]"), std::string::npos);  // padding trimmed
  EXPECT_NE(at("(0028,0010) US 512 "), std::string::npos) << r.out;
  EXPECT_NE(at("(0028,1050) DS [40\\400]"), std::string::npos);
  EXPECT_NE(at("#    6, 2 WindowCenter"), std::string::npos);
  EXPECT_NE(at("(7fe0,0010) OW 0201\\0403"), std::string::npos);
  EXPECT_NE(at("#  u/l, 1 ReferencedImageSequence"), std::string::npos);

  // The classic reading walks into the sequence: its item's elements stand at the top level.
  const std::string zero = writeFile("z.dcm", std::string(128, '\0') + dicomFile().substr(128));
  const auto classic = runTool({"dicom", "dump", "--classic", zero});
  ASSERT_EQ(classic.code, 0) << classic.err;
  EXPECT_NE(classic.out.find("\n(0008,0104) LO"), std::string::npos) << classic.out;

  // Several files, standard input among them, each under its name.
  const auto both = runTool({"dicom", "dump", "--tag", "Modality", path, "-"}, dicomFile());
  ASSERT_EQ(both.code, 0) << both.err;
  EXPECT_EQ(both.out.find("# " + path + "\n(0008,0060) CS [MR]"), 0u) << both.out;
  EXPECT_NE(both.out.find("\n\n# -\n(0008,0060) CS [MR]"), std::string::npos);
}

TEST_F(DicomTool, WritesTheDicomJsonModel) {
  const std::string path = writeFile("x.dcm", dicomFile());
  const auto r = runTool({"dicom", "dump", "--json", path});
  ASSERT_EQ(r.code, 0) << r.err;
  const auto j = nlohmann::json::parse(r.out);
  EXPECT_EQ(j["00100010"]["vr"], "PN");
  EXPECT_EQ(j["00100010"]["Value"][0]["Alphabetic"], "M\u00fcller^J\u00fcrgen");
  EXPECT_EQ(j["00281050"]["Value"], nlohmann::json::parse("[40, 400]"));
  EXPECT_EQ(j["00080008"]["Value"], nlohmann::json::parse(R"(["ORIGINAL", null, "AXIAL"])"));
  EXPECT_EQ(j["00280010"]["Value"][0], 512);
  EXPECT_EQ(j["00081140"]["Value"][0]["00080104"]["Value"][0], "K\u00f6rper");
  EXPECT_EQ(j["7FE00010"]["vr"], "OW");
  EXPECT_EQ(j["7FE00010"]["InlineBinary"], "AQIDBA==");

  const auto two = runTool({"dicom", "dump", "--json", "--tag", "0010,0020", path, path});
  ASSERT_EQ(two.code, 0) << two.err;
  const auto list = nlohmann::json::parse(two.out);
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[1].size(), 1u);
  EXPECT_EQ(list[1]["00100020"]["Value"][0], "ID-42");
}

// A 24-bit BMP of 8 x 6 pixels, bottom-up, for img2dcm.
std::string bmpFile() {
  std::string f;
  const auto put = [&](std::uint32_t v, int bytes) {
    for (int i = 0; i < bytes; ++i)
      f += char((v >> (8 * i)) & 0xFF);
  };
  f += "BM", put(54 + 8 * 6 * 3, 4), put(0, 4), put(54, 4);
  put(40, 4), put(8, 4), put(6, 4), put(1, 2), put(24, 2), put(0, 4), put(8 * 6 * 3, 4);
  put(2835, 4), put(2835, 4), put(0, 4), put(0, 4);
  for (int i = 0; i < 8 * 6; ++i)
    f += char(i * 5), f += char(255 - i * 3), f += char(i * 7);
  return f;
}

TEST_F(DicomTool, NotesWhetherThePixelsDecode) {
  if (std::system("{ command -v img2dcm && command -v dcmcrle; } >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "dcmtk tools not on PATH";
  writeFile("x.bmp", bmpFile());
  const std::string rle = file("rle.dcm");
  ASSERT_EQ(std::system(("img2dcm -q -i BMP " + file("x.bmp") + " " + file("img.dcm") +
                         " && dcmcrle -q " + file("img.dcm") + " " + rle)
                            .c_str()),
            0);
  const auto r = runTool({"dicom", "dump", rle});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("\n# pixels: 8 x 6, 1 frame, RGB, decodes\n"), std::string::npos) << r.out;
  const auto j = nlohmann::json::parse(runTool({"dicom", "dump", "--json", rle}).out);
  EXPECT_FALSE(j.contains("pixels"));  // DICOM JSON keys are tags only

  // Rows without Columns and four bytes of pixels: listed, noted, and not an error.
  const std::string bad = writeFile("bad.dcm", dicomFile());
  const auto b = runTool({"dicom", "dump", bad});
  ASSERT_EQ(b.code, 0) << b.err;
  EXPECT_NE(b.out.find("\n# pixels: do not decode: "), std::string::npos) << b.out;

  // A file without Pixel Data, --tag and --classic say nothing of pixels.
  const std::string whole = dicomFile();
  const std::string none = writeFile("none.dcm", whole.substr(0, whole.find("\xE0\x7F\x10")));
  for (const auto& args : std::vector<std::vector<std::string>>{
           {"dicom", "dump", none}, {"dicom", "dump", "--tag", "PatientName", rle}}) {
    const auto n = runTool(args);
    ASSERT_EQ(n.code, 0) << n.err;
    EXPECT_EQ(n.out.find("# pixels"), std::string::npos) << n.out;
  }
}

TEST_F(DicomTool, FailsWithOneLineWhenReadingStopsOrTagsAreMissing) {
  const std::string whole = dicomFile();
  const std::string cut = writeFile("cut.dcm", whole.substr(0, whole.size() - 2));
  const auto r = runTool({"dicom", "dump", cut});
  EXPECT_TRUE(failsWith(r, 1, "cut.dcm: reading stopped early at byte"));
  EXPECT_NE(r.out.find("(0028,1050)"), std::string::npos);  // what was read is listed

  const std::string path = writeFile("x.dcm", whole);
  const auto missing = runTool({"dicom", "dump", "--tag", "7fe0,0011", "--tag=PatientName", path});
  EXPECT_TRUE(failsWith(missing, 1, "x.dcm: no element (7fe0,0011)"));
  EXPECT_NE(missing.out.find("PatientName"), std::string::npos);

  EXPECT_TRUE(
      failsWith(runTool({"dicom", "dump", writeFile("short.dcm", "DICM")}), 1, "not a DICOM file"));
  EXPECT_TRUE(failsWith(runTool({"dicom", "dump", "--classic", path}), 1, "not a DICOM file"));
  EXPECT_TRUE(failsWith(runTool({"dicom", "dump", file("absent.dcm")}), 1, "no such file"));
  EXPECT_TRUE(failsWith(runTool({"dicom", "dump", "--tag", "10,10", path}), 2, "'10,10'"));
  EXPECT_TRUE(
      failsWith(runTool({"dicom", "dump", "--tag", "PatientsName", path}), 2, "neither a keyword"));
  EXPECT_TRUE(failsWith(runTool({"dicom", "show", path}), 2, "show"));
  EXPECT_TRUE(failsWith(runTool({"dicom", "dump"}), 2, "FILE"));
}

}  // namespace
