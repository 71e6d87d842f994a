// quib dicom dump on files put together here.
#include "tool_runner.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

using quib::test::failsWith;
using quib::test::runTool;

class DicomTool : public quib::test::ToolFiles {};

// Explicit VR little-endian elements with short lengths.
void element(std::string& f, std::uint16_t group, std::uint16_t number, char const* vr,
             std::string const& value) {
  const auto put16 = [&](std::uint32_t v) {
    f += static_cast<char>(v & 0xFF);
    f += static_cast<char>(v >> 8);
  };
  put16(group);
  put16(number);
  f += vr;
  put16(static_cast<std::uint32_t>(value.size()));
  f += value;
}

std::string dicomFile() {
  std::string f(128, '\0');
  f += "DICM";
  element(f, 0x0002, 0x0010, "UI", std::string("1.2.840.10008.1.2.1") + '\0');
  // Written out of order: the dump sorts by tag.
  element(f, 0x0028, 0x0010, "US", std::string("\x00\x02", 2));
  element(f, 0x0010, 0x0020, "LO", "ID-42 ");
  element(f, 0x0010, 0x0010, "PN", "Doe^John");
  element(f, 0x0008, 0x0060, "CS", "MR");
  return f;
}

TEST_F(DicomTool, ListsElementsInTagOrderWithDictionaryNames) {
  const std::string path = writeFile("x.dcm", dicomFile());
  const auto r = runTool({"dicom", "dump", path});
  ASSERT_EQ(r.code, 0) << r.err;
  const auto at = [&](char const* s) { return r.out.find(s); };
  EXPECT_LT(at("(0002,0010) UI Transfer Syntax UID"), at("(0008,0060) CS Modality"));
  EXPECT_LT(at("(0008,0060)"), at("(0010,0010) PN Patient's Name"));
  EXPECT_LT(at("(0010,0010)"), at("(0010,0020) LO Patient ID"));
  EXPECT_LT(at("(0010,0020)"), at("(0028,0010) US Rows"));
  EXPECT_NE(at("[1.2.840.10008.1.2.1]\n"), std::string::npos) << r.out;  // padding trimmed
  EXPECT_NE(at("[Doe^John]\n"), std::string::npos);
  EXPECT_NE(at("[ID-42]\n"), std::string::npos);
  EXPECT_NE(at("(2 bytes)\n"), std::string::npos);

  const auto one = runTool({"dicom", "dump", "--json", "--tag", "0010,0010", path});
  ASSERT_EQ(one.code, 0) << one.err;
  EXPECT_NE(one.out.find("\"tag\": \"0010,0010\",\n      \"vr\": \"PN\",\n      \"name\": "
                         "\"Patient's Name\",\n      \"length\": 8,\n      \"value\": "
                         "\"Doe^John\""),
            std::string::npos)
      << one.out;
  EXPECT_EQ(one.out.find("Modality"), std::string::npos);
}

TEST_F(DicomTool, FailsOnFilesThatAreNotDicomAndOnMissingTags) {
  const std::string path = writeFile("x.dcm", dicomFile());
  const auto missing = runTool({"dicom", "dump", "--tag", "7fe0,0010", "--tag=0010,0010", path});
  EXPECT_TRUE(failsWith(missing, 1, "x.dcm: no element 7fe0,0010"));
  EXPECT_NE(missing.out.find("Patient's Name"), std::string::npos);

  std::string preamble = dicomFile();
  preamble[5] = 'x';
  EXPECT_TRUE(failsWith(runTool({"dicom", "dump", writeFile("p.dcm", preamble)}), 1,
                        "p.dcm: not a DICOM file"));
  EXPECT_TRUE(
      failsWith(runTool({"dicom", "dump", writeFile("short.dcm", "DICM")}), 1, "not a DICOM file"));
  EXPECT_TRUE(failsWith(runTool({"dicom", "dump", file("absent.dcm")}), 1, "no such file"));

  EXPECT_TRUE(failsWith(runTool({"dicom", "dump", "--tag", "10,10", path}), 2, "'10,10'"));
  EXPECT_TRUE(failsWith(runTool({"dicom", "dump", "--tag", "00g0,0010", path}), 2, "not a tag"));
  EXPECT_TRUE(failsWith(runTool({"dicom", "show", path}), 2, "unknown action 'show'"));
  EXPECT_TRUE(failsWith(runTool({"dicom", "dump"}), 2, "exactly one FILE"));
}

}  // namespace
