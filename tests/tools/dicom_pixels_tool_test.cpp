// quib dicom pixels and quib dicom volume on files put together here.
#include "tool_runner.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace {

using quib::test::failsWith;
using quib::test::runTool;

class DicomPixelsTool : public quib::test::ToolFiles {};

// An explicit VR little-endian file of `frames` 4 x 3 frames of 16-bit samples (value = index +
// 100 * frame), lying at z = `z`.
std::string dicomFile(int frames, int z, bool with_pixels = true) {
  std::string f = std::string(128, '\0') + "DICM";
  auto element = [&](unsigned group, unsigned number, std::string const& vr, std::string value) {
    if (value.size() % 2) value += vr == "UI" ? '\0' : ' ';
    auto u16 = [&](unsigned v) { f += std::string{char(v & 0xFF), char(v >> 8)}; };
    u16(group), u16(number), f += vr;
    if (vr == "OW") {
      u16(0), u16(unsigned(value.size())), u16(0);
    } else {
      u16(unsigned(value.size()));
    }
    f += value;
  };
  auto us = [](unsigned v) { return std::string{char(v & 0xFF), char(v >> 8)}; };
  element(0x0002, 0x0010, "UI", "1.2.840.10008.1.2.1");
  element(0x0020, 0x000E, "UI", "1.2.3");
  element(0x0020, 0x0032, "DS", "0\\0\\" + std::to_string(z));
  element(0x0020, 0x0037, "DS", "1\\0\\0\\0\\1\\0");
  element(0x0028, 0x0002, "US", us(1));
  element(0x0028, 0x0004, "CS", "MONOCHROME2");
  element(0x0028, 0x0008, "IS", std::to_string(frames));
  element(0x0028, 0x0010, "US", us(3));
  element(0x0028, 0x0011, "US", us(4));
  element(0x0028, 0x0030, "DS", "0.5\\0.25");
  element(0x0028, 0x0100, "US", us(16));
  element(0x0028, 0x0101, "US", us(16));
  element(0x0028, 0x0103, "US", us(0));
  std::string pixels;
  for (int k = 0; k < frames; ++k)
    for (int i = 0; i < 12; ++i)
      pixels += us(unsigned(i + 100 * k + z));
  if (with_pixels) element(0x7FE0, 0x0010, "OW", pixels);
  return f;
}

std::string slurp(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST_F(DicomPixelsTool, PrintsThePixelModuleAndWritesRawFrames) {
  const std::string file = writeFile("two.dcm", dicomFile(2, 0));
  const auto j = runTool({"dicom", "pixels", file, "--json"});
  ASSERT_EQ(j.code, 0) << j.err;
  for (char const* key :
       {"\"rows\": 3", "\"columns\": 4", "\"samples\": 1", "\"bits_allocated\": 16",
        "\"bits_stored\": 16", "\"pixel_representation\": 0", "\"photometric\": \"MONOCHROME2\"",
        "\"frames\": 2"})
    EXPECT_NE(j.out.find(key), std::string::npos) << key << " in " << j.out;

  const auto r = runTool({"dicom", "pixels", file, "--frame", "1", "--out", file + ".raw"});
  ASSERT_EQ(r.code, 0) << r.err;
  const std::string raw = slurp(file + ".raw");
  ASSERT_EQ(raw.size(), 24u);
  EXPECT_EQ(static_cast<unsigned char>(raw[2]), 101);  // sample 1 of frame 1, little-endian
  EXPECT_EQ(raw[3], 0);

  EXPECT_EQ(runTool({"dicom", "pixels", file, "--out", file + ".png"}).code, 0);
  EXPECT_TRUE(failsWith(runTool({"dicom", "pixels", file, "--frame", "2", "--out", file + ".raw"}),
                        1, "frame 2 of 2 frames"));
  const std::string empty = writeFile("empty.dcm", dicomFile(1, 0, false));
  EXPECT_TRUE(
      failsWith(runTool({"dicom", "pixels", empty, "--out", file + ".raw"}), 1, "no pixel data"));
}

TEST_F(DicomPixelsTool, ReadsASeriesIntoAVolume) {
  std::filesystem::create_directories(dir / "series");
  for (int z : {4, 0, 2})
    writeFile("series/s" + std::to_string(z), dicomFile(1, z));
  const auto v = runTool({"dicom", "volume", file("series"), "--out", file("vol.raw"), "--json",
                          "--png", file("slices")});
  ASSERT_EQ(v.code, 0) << v.err;
  EXPECT_NE(v.out.find("\"sample_type\": \"uint16\""), std::string::npos) << v.out;
  EXPECT_NE(v.out.find("\"size\""), std::string::npos);
  const std::string raw = slurp(file("vol.raw"));
  ASSERT_EQ(raw.size(), 3u * 24u);
  EXPECT_EQ(raw[24], 2);  // the second slice lies at z = 2
  writeFile("series/s9", dicomFile(1, 9));
  EXPECT_TRUE(failsWith(runTool({"dicom", "volume", file("series"), "--out", file("vol.raw")}), 1,
                        "uneven slice spacing"));
}

}  // namespace
