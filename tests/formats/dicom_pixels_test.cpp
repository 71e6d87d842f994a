#include <quib/dicom_image.hpp>

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

using quib::Dicom;
using quib::DicomPixels;
namespace fs = std::filesystem;
using Bytes = std::vector<unsigned char>;

const std::string kImplicit = "1.2.840.10008.1.2", kExplicit = "1.2.840.10008.1.2.1",
                  kBig = "1.2.840.10008.1.2.2", kRle = "1.2.840.10008.1.2.5";

// An uncompressed DICOM file: the attributes of the pixel module and the stored pixel bytes.
struct Native {
  int rows = 48, columns = 64, samples = 1, bits_allocated = 16, bits_stored = 16;
  int pixel_representation = 0, planar = 0, frames = 1;
  std::string photometric = "MONOCHROME2", syntax = kExplicit;
  Bytes pixels;  // as stored in the file; the items of encapsulated data when `encapsulated`
  bool encapsulated = false;
  std::map<std::uint32_t, std::string> extra;  // (group << 16 | number) -> "VR" + value

  // Stored samples of frame f (values in the low bits_allocated bits), before any padding.
  void put(std::size_t index, std::uint32_t v) {
    const int bytes = bits_allocated / 8;
    const bool little = syntax != kBig;
    for (int b = 0; b < bytes; ++b)
      pixels[index * bytes + (little ? b : bytes - 1 - b)] = (v >> (8 * b)) & 0xFF;
  }

  std::string bytes() const {
    const bool little = syntax != kBig;
    std::map<std::uint32_t, std::string> e = extra;
    auto us = [&](unsigned v) {
      return std::string("US") + (little ? std::string{char(v & 0xFF), char(v >> 8)}
                                         : std::string{char(v >> 8), char(v & 0xFF)});
    };
    auto text = [](const std::string& vr, std::string s) {
      if (s.size() % 2) s += vr == "UI" ? '\0' : ' ';
      return vr + s;
    };
    std::string sop = "1.2.840.10008.5.1.4.1.1.7";  // secondary capture, multi-frame when needed
    if (frames > 1) sop += samples == 3 ? ".4" : bits_allocated == 8 ? ".2" : ".3";
    if (!e.count(0x00080016)) e[0x00080016] = text("UI", sop);
    e[0x00080018] = text("UI", "1.2.826.0.1.3680043.9.9999.1." + std::to_string(rows));
    e[0x00280002] = us(samples);
    e[0x00280004] = text("CS", photometric);
    if (samples > 1) e[0x00280006] = us(planar);
    if (frames != 1 || !e.count(0x00280008)) e[0x00280008] = text("IS", std::to_string(frames));
    e[0x00280010] = us(rows);
    e[0x00280011] = us(columns);
    e[0x00280100] = us(bits_allocated);
    e[0x00280101] = us(bits_stored);
    e[0x00280102] = us(bits_stored - 1);
    e[0x00280103] = us(pixel_representation);
    e[0x7FE00010] = (bits_allocated > 8 && !encapsulated ? "OW" : "OB") +
                    std::string(pixels.begin(), pixels.end());
    std::string out = std::string(128, '\0') + "DICM", meta;
    auto element = [](std::string& to, std::uint32_t tag, const std::string& vr_value, bool le,
                      bool implicit) {
      auto u16 = [&](unsigned v) {
        to += le ? std::string{char(v & 0xFF), char(v >> 8)}
                 : std::string{char(v >> 8), char(v & 0xFF)};
      };
      auto u32 = [&](std::uint32_t v) {
        u16(le ? v & 0xFFFF : v >> 16);
        u16(le ? v >> 16 : v & 0xFFFF);
      };
      const std::string vr = vr_value.substr(0, 2), value = vr_value.substr(2);
      u16(tag >> 16), u16(tag & 0xFFFF);
      if (tag == 0x7FE00010 && vr == "OB" && le && !implicit && value.size() >= 4 &&
          value.compare(0, 4, "\xFE\xFF\x00\xE0") == 0) {  // encapsulated: undefined length
        to += vr, u16(0), u32(0xFFFFFFFFu), to += value;
        u16(0xFFFE), u16(0xE0DD), u32(0);
        return;
      }
      if (implicit) {
        u32(std::uint32_t(value.size()));
      } else if (vr == "OB" || vr == "OW" || vr == "SQ" || vr == "UT" || vr == "OV") {
        to += vr, u16(0), u32(std::uint32_t(value.size()));
      } else {
        to += vr, u16(unsigned(value.size()));
      }
      to += value;
    };
    element(meta, 0x00020001, std::string("OB\0\1", 4), true, false);
    element(meta, 0x00020002, e[0x00080016], true, false);
    element(meta, 0x00020003, e[0x00080018], true, false);
    element(meta, 0x00020010, text("UI", syntax), true, false);
    element(meta, 0x00020012, text("UI", "1.2.826.0.1.3680043.9.9999"), true, false);
    std::string length;
    element(length, 0x00020000,
            "UL" + std::string{char(meta.size() & 0xFF), char(meta.size() >> 8), 0, 0}, true,
            false);
    out += length + meta;
    for (const auto& [tag, value] : e)
      element(out, tag, value, little, syntax == kImplicit);
    return out;
  }
};

// The items of encapsulated pixel data: the Basic Offset Table, then the fragments.
Bytes items(const std::vector<std::uint32_t>& table, const std::vector<Bytes>& fragments) {
  Bytes out;
  auto u32 = [&](std::uint32_t v) {
    for (int b = 0; b < 4; ++b)
      out.push_back((v >> (8 * b)) & 0xFF);
  };
  auto item = [&](std::uint32_t length) {
    out.insert(out.end(), {0xFE, 0xFF, 0x00, 0xE0}), u32(length);
  };
  item(std::uint32_t(4 * table.size()));
  for (std::uint32_t v : table)
    u32(v);
  for (const Bytes& f : fragments)
    item(std::uint32_t(f.size())), out.insert(out.end(), f.begin(), f.end());
  return out;
}

// An RLE frame of 8-bit samples: one segment per sample, written as literal runs.
Bytes rle_frame(const Bytes& interleaved, int samples) {
  Bytes out(64, 0);
  out[0] = std::uint8_t(samples);
  const std::size_t pixels = interleaved.size() / samples;
  for (int s = 0; s < samples; ++s) {
    const std::uint32_t at = std::uint32_t(out.size());
    for (int b = 0; b < 4; ++b)
      out[4 + 4 * s + b] = (at >> (8 * b)) & 0xFF;
    for (std::size_t p = 0; p < pixels; p += 128) {
      const std::size_t n = std::min<std::size_t>(128, pixels - p);
      out.push_back(std::uint8_t(n - 1));
      for (std::size_t i = 0; i < n; ++i)
        out.push_back(interleaved[(p + i) * samples + s]);
    }
  }
  if (out.size() % 2) out.push_back(0);
  return out;
}

// One explicit VR little-endian element, for the inside of sequence items.
std::string element(unsigned group, unsigned number, const std::string& vr, std::string value) {
  if (value.size() % 2) value += ' ';
  std::string out{char(group & 0xFF), char(group >> 8), char(number & 0xFF), char(number >> 8)};
  const std::uint32_t n = std::uint32_t(value.size());
  if (vr == "SQ" || vr == "OW") {
    out += vr + std::string(2, '\0') +
           std::string{char(n), char(n >> 8), char(n >> 16), char(n >> 24)};
  } else {
    out += vr + std::string{char(n & 0xFF), char(n >> 8)};
  }
  return out + value;
}

std::string item(const std::string& body) {
  const std::uint32_t n = std::uint32_t(body.size());
  return std::string("\xFE\xFF\x00\xE0", 4) +
         std::string{char(n), char(n >> 8), char(n >> 16), char(n >> 24)} + body;
}

// Little-endian 16-bit words.
std::string words(const std::vector<int>& values) {
  std::string out;
  for (int v : values)
    out += std::string{char(v & 0xFF), char((v >> 8) & 0xFF)};
  return out;
}

// A fresh directory under the system's temporary directory, removed with the object.
struct TempDir {
  fs::path path = fs::temp_directory_path() / ("quib_pixels_" + std::to_string(::getpid()));
  TempDir() { fs::create_directories(path); }
  ~TempDir() {
    std::error_code ec;
    if (!std::getenv("QUIB_KEEP")) fs::remove_all(path, ec);
  }
  std::string write(const std::string& name, const std::string& bytes) const {
    std::ofstream(path / name, std::ios::binary) << bytes;
    return (path / name).string();
  }
  std::string operator/(const std::string& name) const { return (path / name).string(); }
};

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

bool load(Dicom& file, const std::string& path) {
  return file.load(std::wstring(path.begin(), path.end()), Dicom::READ_STANDARD) > 0;
}

std::string run(const std::string& command) {
  std::string out;
  if (FILE* p = popen((command + " 2>&1").c_str(), "r")) {
    char buf[4096];
    for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;)
      out.append(buf, n);
    if (pclose(p) != 0) out = "failed: " + command + "\n" + out;
  }
  return out;
}

bool have(const std::string& tools) {
  std::string check;
  std::istringstream in(tools);
  for (std::string t; in >> t;)
    check += (check.empty() ? "" : " && ") + ("command -v " + t);
  return std::system(("{ " + check + "; } >/dev/null 2>&1").c_str()) == 0;
}

// A smooth picture with noise, deterministic: what scanners make, not what compresses to nothing.
std::uint32_t sample(int f, int y, int x, int c, int bits) {
  std::uint32_t h = std::uint32_t(f * 7919 + y * 104729 + x * 1299709 + c * 15485863);
  h ^= h >> 13, h *= 0x5bd1e995u, h ^= h >> 15;
  const double smooth = 0.5 + 0.4 * std::sin(0.11 * x + 0.07 * y + 0.9 * c + 0.3 * f);
  const double top = std::ldexp(1.0, bits) - 1;
  return std::uint32_t(smooth * top * 0.9) + (bits > 2 ? h % 7 : 0);
}

Native picture(int bits_allocated, int bits_stored, int samples, int frames, bool is_signed = false,
               const std::string& syntax = kExplicit) {
  Native n;
  n.syntax = syntax;
  n.bits_allocated = bits_allocated, n.bits_stored = bits_stored, n.samples = samples;
  n.frames = frames, n.pixel_representation = is_signed;
  if (samples == 3) n.photometric = "RGB";
  const std::size_t count = std::size_t(n.rows) * n.columns * samples;
  n.pixels.assign(count * frames * (bits_allocated / 8), 0);
  for (int f = 0; f < frames; ++f)
    for (int y = 0; y < n.rows; ++y)
      for (int x = 0; x < n.columns; ++x)
        for (int c = 0; c < samples; ++c)
          n.put(f * count + (std::size_t(y) * n.columns + x) * samples + c,
                sample(f, y, x, c, bits_stored) - (is_signed ? 1u << (bits_stored - 1) : 0u));
  return n;
}

// Every frame of a file, decoded.
std::vector<Bytes> frames_of(const std::string& path, std::string* photometric = nullptr) {
  Dicom file;
  EXPECT_TRUE(load(file, path)) << path;
  DicomPixels pixels(file);
  EXPECT_TRUE(pixels.is()) << path << ": " << pixels.get_error();
  if (photometric) *photometric = pixels.get_frame_photometric();
  std::vector<Bytes> out;
  for (int k = 0; k < pixels.get_frames(); ++k) {
    Bytes frame(pixels.get_frame_bytes());
    EXPECT_TRUE(pixels.decode(k, frame.data(), frame.size())) << path << ": " << pixels.get_error();
    out.push_back(frame);
  }
  return out;
}

int largest_difference(const Bytes& a, const Bytes& b, int bytes) {
  int worst = 0;
  for (std::size_t i = 0; i + bytes <= a.size() && i + bytes <= b.size(); i += bytes) {
    int va = a[i], vb = b[i];
    if (bytes == 2) va |= a[i + 1] << 8, vb |= b[i + 1] << 8;
    worst = std::max(worst, std::abs(va - vb));
  }
  return a.size() == b.size() ? worst : 1 << 30;
}

TEST(DicomPixels, NativeFramesInEveryLayoutDecodeToTheStoredSamples) {
  TempDir dir;
  struct Case {
    const char* name;
    Native file;
  } cases[] = {
      {"mono8", picture(8, 8, 1, 2)},
      {"mono16", picture(16, 16, 1, 3)},
      {"signed12", picture(16, 12, 1, 2, true)},
      {"mono32", picture(32, 32, 1, 1)},
      {"rgb8", picture(8, 8, 3, 2)},
      {"rgb16", picture(16, 16, 3, 1)},
  };
  for (auto& c : cases) {
    for (const std::string& syntax : {kExplicit, kImplicit, kBig}) {
      SCOPED_TRACE(std::string(c.name) + " " + syntax);
      Native n = picture(c.file.bits_allocated, c.file.bits_stored, c.file.samples, c.file.frames,
                         c.file.pixel_representation, syntax);
      const Native little = c.file;  // the samples in little-endian order
      const auto frames = frames_of(dir.write("n.dcm", n.bytes()));
      ASSERT_EQ(frames.size(), std::size_t(n.frames));
      const std::size_t frame_bytes = little.pixels.size() / n.frames;
      for (int k = 0; k < n.frames; ++k) {
        Bytes expected(little.pixels.begin() + k * frame_bytes,
                       little.pixels.begin() + (k + 1) * frame_bytes);
        if (n.bits_stored == 12) {  // negative values come back sign-filled above bit 11
          for (std::size_t i = 1; i < expected.size(); i += 2)
            expected[i] = (expected[i] & 0x08) ? (expected[i] | 0xF0) : (expected[i] & 0x0F);
        }
        EXPECT_EQ(frames[k], expected) << "frame " << k;
      }
    }
  }

  // Planar configuration 1 comes back interleaved; one bit per sample comes back one byte each;
  // uncompressed YBR_FULL_422 comes back as three samples per pixel.
  Native planar = picture(8, 8, 3, 2);
  const Bytes interleaved = planar.pixels;
  planar.planar = 1;
  const std::size_t pixels = std::size_t(planar.rows) * planar.columns;
  for (int f = 0; f < 2; ++f)
    for (std::size_t p = 0; p < pixels; ++p)
      for (int c = 0; c < 3; ++c)
        planar.pixels[f * 3 * pixels + c * pixels + p] = interleaved[f * 3 * pixels + p * 3 + c];
  const auto decoded = frames_of(dir.write("planar.dcm", planar.bytes()));
  ASSERT_EQ(decoded.size(), 2u);
  EXPECT_EQ(decoded[1], Bytes(interleaved.begin() + 3 * pixels, interleaved.end()));

  Native bits = picture(8, 8, 1, 3);
  bits.bits_allocated = bits.bits_stored = 1;
  bits.pixels.assign((pixels * 3 + 7) / 8, 0);
  for (std::size_t i = 0; i < pixels * 3; ++i)
    if (sample(0, int(i / 7), int(i % 5), 0, 8) & 1) bits.pixels[i / 8] |= 1 << (i % 8);
  const auto bit_frames = frames_of(dir.write("bits.dcm", bits.bytes()));
  ASSERT_EQ(bit_frames.size(), 3u);
  for (std::size_t i = 0; i < pixels; ++i)
    ASSERT_EQ(bit_frames[2][i], (bits.pixels[(2 * pixels + i) / 8] >> ((2 * pixels + i) % 8)) & 1);

  // RLE of 1-bit data: one segment of bits, each row starting on a whole byte, or running on
  // as uncompressed bits do.
  Native rle_bits = picture(8, 8, 1, 1);
  rle_bits.rows = 5, rle_bits.columns = 13;
  rle_bits.bits_allocated = rle_bits.bits_stored = 1;
  rle_bits.syntax = kRle, rle_bits.encapsulated = true;
  Bytes expected_bits, padded(5 * 2, 0), run_on((5 * 13 + 7) / 8, 0);
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 13; ++x) {
      const int bit = (x * 3 + y * 5) % 7 < 3, at = y * 13 + x;
      expected_bits.push_back(std::uint8_t(bit));
      padded[y * 2 + x / 8] |= std::uint8_t(bit << (x % 8));
      run_on[at / 8] |= std::uint8_t(bit << (at % 8));
    }
  for (const Bytes& packed : {padded, run_on, Bytes(padded.begin(), padded.end() - 2)}) {
    rle_bits.pixels = items({}, {rle_frame(packed, 1)});
    Dicom file;
    ASSERT_TRUE(load(file, dir.write("rle_bits.dcm", rle_bits.bytes())));
    DicomPixels module(file);
    Bytes frame(module.get_frame_bytes());
    ASSERT_TRUE(module.is()) << module.get_error();
    if (packed.size() == 8) {  // neither form
      EXPECT_FALSE(module.decode(0, frame.data(), frame.size()));
      EXPECT_EQ(module.get_error(),
                "frame 0: RLE bit segment decodes to 8 bytes, not 10 (rows on whole bytes) or 9");
      continue;
    }
    ASSERT_TRUE(module.decode(0, frame.data(), frame.size())) << module.get_error();
    EXPECT_EQ(frame, expected_bits);
  }

  Native ybr = picture(8, 8, 1, 1);
  ybr.samples = 3, ybr.photometric = "YBR_FULL_422";
  ybr.pixels = {10, 20, 100, 200, 30, 40, 110, 210};
  ybr.pixels.resize(std::size_t(ybr.rows) * ybr.columns * 2, 7);
  std::string photometric;
  const auto ybr_frames = frames_of(dir.write("ybr.dcm", ybr.bytes()), &photometric);
  EXPECT_EQ(photometric, "YBR_FULL");
  ASSERT_EQ(ybr_frames.size(), 1u);
  EXPECT_EQ(Bytes(ybr_frames[0].begin(), ybr_frames[0].begin() + 12),
            Bytes({10, 100, 200, 20, 100, 200, 30, 110, 210, 40, 110, 210}));
}

// Files compressed by dcmtk and gdcm decode to what those tools' own decompression gives:
// bit for bit for lossless codecs, within a step or two for lossy JPEG (a different IDCT).
TEST(DicomPixels, CompressedFramesMatchTheToolsOwnDecompression) {
  if (!have("dcmcjpeg dcmdjpeg dcmcrle dcmdrle dcmcjpls dcmdjpls gdcmconv"))
    GTEST_SKIP() << "dcmtk or gdcm tools not on PATH";
  TempDir dir;
  struct Source {
    const char* name;
    Native file;
  } sources[] = {
      {"mono8", picture(8, 8, 1, 3)},
      {"mono12", picture(16, 12, 1, 3)},
      {"signed16", picture(16, 16, 1, 2, true)},
      {"rgb8", picture(8, 8, 3, 2)},
  };
  struct Codec {
    std::string encode, decode;  // {in} and {out} stand for the files
    bool lossless, mono8_only, not_signed;
  } codecs[] = {
      {"dcmcrle {in} {out}", "dcmdrle {in} {out}", true, false, false},
      {"dcmcjpeg +e1 {in} {out}", "dcmdjpeg {in} {out}", true, false, true},
      {"dcmcjpeg +el {in} {out}", "dcmdjpeg {in} {out}", true, false, true},
      {"dcmcjpeg +e1 +fs 1 -ot {in} {out}", "dcmdjpeg {in} {out}", true, false, true},
      {"dcmcjpeg +e1 +fs 1 {in} {out}", "dcmdjpeg {in} {out}", true, false, true},
      {"dcmcjpeg +eb {in} {out}", "dcmdjpeg {in} {out}", false, true, true},
      {"dcmcjpeg +ee {in} {out}", "dcmdjpeg {in} {out}", false, false, true},
      {"dcmcjpls {in} {out}", "dcmdjpls {in} {out}", true, false, false},
      {"dcmcjpls +in {in} {out}", "dcmdjpls {in} {out}", true, false, false},
      {"dcmcjpls +en {in} {out}", "dcmdjpls {in} {out}", false, false, true},
      {"gdcmconv --rle {in} {out}", "gdcmconv --raw {in} {out}", true, false, false},
      {"gdcmconv --j2k {in} {out}", "gdcmconv --raw {in} {out}", true, false, false},
      {"gdcmconv --jpegls {in} {out}", "gdcmconv --raw {in} {out}", true, false, false},
      {"gdcmconv --jpeg {in} {out}", "gdcmconv --raw {in} {out}", true, false, false},
  };
  auto fill = [](std::string command, const std::string& in, const std::string& out) {
    command.replace(command.find("{in}"), 4, in);
    command.replace(command.find("{out}"), 5, out);
    return command;
  };
  for (auto& s : sources) {
    const std::string source = dir.write(std::string(s.name) + ".dcm", s.file.bytes());
    for (std::size_t i = 0; i < std::size(codecs); ++i) {
      const Codec& c = codecs[i];
      if (c.mono8_only && s.file.bits_allocated != 8) continue;
      if (c.not_signed && s.file.pixel_representation) continue;  // dcmcjpeg refuses signed data
      SCOPED_TRACE(std::string(s.name) + ": " + c.encode);
      const std::string packed = dir / (std::string(s.name) + std::to_string(i) + ".dcm");
      const std::string unpacked = packed + ".raw.dcm";
      const std::string made = run(fill(c.encode, source, packed));
      ASSERT_EQ(made.rfind("failed", 0), std::string::npos) << made;
      ASSERT_EQ(run(fill(c.decode, packed, unpacked)).rfind("failed", 0), std::string::npos);
      std::string photometric;
      const auto ours = frames_of(packed, &photometric);
      const auto theirs = frames_of(unpacked);
      ASSERT_EQ(ours.size(), theirs.size());
      ASSERT_EQ(int(ours.size()), s.file.frames);
      for (std::size_t k = 0; k < ours.size(); ++k) {
        if (c.lossless) {
          EXPECT_EQ(ours[k], theirs[k]) << "frame " << k;
        } else {
          EXPECT_LE(largest_difference(ours[k], theirs[k], s.file.bits_allocated / 8), 2)
              << "frame " << k;
        }
      }
      if (s.file.samples == 3) {
        EXPECT_EQ(photometric, "RGB");
      }
    }
  }
}

// Hostile and damaged files: each is refused with a reason, never read past its end, and no
// buffer is sized from a claim the data cannot back.
TEST(DicomPixels, RefusesFilesThatLie) {
  TempDir dir;
  auto refused = [&](const Native& n, const std::string& why) {
    Dicom file;
    EXPECT_TRUE(load(file, dir.write("bad.dcm", n.bytes())));
    DicomPixels pixels;
    EXPECT_FALSE(pixels.load(file)) << why;
    EXPECT_TRUE(pixels.empty());
    EXPECT_NE(pixels.get_error().find(why), std::string::npos) << pixels.get_error();
  };
  Native n = picture(16, 16, 1, 2);
  n.frames = 3;
  refused(n, "too few for 3 frames");
  n = picture(8, 8, 1, 1);
  n.rows = n.columns = 65535, n.samples = 3, n.bits_allocated = n.bits_stored = 16;
  refused(n, "exceeds the limit");
  for (int bits : {0, 7, 64}) {
    n = picture(8, 8, 1, 1);
    n.bits_allocated = bits;
    refused(n, "Bits Allocated of " + std::to_string(bits));
  }
  for (const std::string frames : {"-1", "1e9", "two", "0"}) {
    n = picture(8, 8, 1, 1);
    n.extra[0x00280008] = "IS" + frames + (frames.size() % 2 ? " " : "");
    refused(n, "Number of Frames is " + frames);
  }
  n = picture(8, 8, 1, 1);
  n.rows = 0;
  refused(n, "Rows or Columns");

  // Encapsulated: fragments that lie, offset tables that point anywhere, too few fragments.
  const Native plain = picture(8, 8, 1, 2);
  const std::size_t frame_bytes = plain.pixels.size() / 2;
  const Bytes f0(plain.pixels.begin(), plain.pixels.begin() + frame_bytes);
  const Bytes f1(plain.pixels.begin() + frame_bytes, plain.pixels.end());
  Native rle = plain;
  rle.syntax = kRle, rle.encapsulated = true;
  const Bytes r0 = rle_frame(f0, 1), r1 = rle_frame(f1, 1);
  rle.pixels = items({0, std::uint32_t(8 + r0.size())}, {r0, r1});
  EXPECT_EQ(frames_of(dir.write("rle.dcm", rle.bytes())), (std::vector<Bytes>{f0, f1}));
  // The Extended Offset Table wins over an empty Basic Offset Table; its lengths cut padding.
  auto u64s = [](std::vector<std::uint64_t> v) {
    std::string out = "OV";
    for (std::uint64_t x : v)
      for (int b = 0; b < 8; ++b)
        out += char((x >> (8 * b)) & 0xFF);
    return out;
  };
  Native extended = rle;
  Bytes padded = r0;
  padded.insert(padded.end(), {0, 0});
  extended.pixels = items({}, {padded, r1});
  extended.extra[0x7FE00001] = u64s({0, 8 + padded.size()});
  extended.extra[0x7FE00002] = u64s({r0.size(), r1.size()});
  EXPECT_EQ(frames_of(dir.write("eot.dcm", extended.bytes())), (std::vector<Bytes>{f0, f1}));
  extended.extra[0x7FE00001] = u64s({0, 8 + padded.size() + 8});
  refused(extended, "points to no fragment");
  // From the fuzzer: offsets beyond any value's size (here 2^64 - 1) are refused as such.
  extended.extra[0x7FE00001] = u64s({0, ~std::uint64_t{0}});
  refused(extended, "Extended Offset Table entry 1 lies outside the data");

  Native bad = rle;
  bad.pixels = items({0, 12345}, {r0, r1});
  refused(bad, "points to no fragment");
  bad.pixels = items({0}, {r0, r1});
  refused(bad, "Basic Offset Table lists 1 frames");
  bad.pixels = items({}, {r0});
  refused(bad, "1 fragments for 2 frames");
  bad.pixels = items({}, {r0, r1, r1});
  refused(bad, "no offset table");
  bad.pixels = items({}, {r0, r1});
  bad.pixels[bad.pixels.size() - r1.size() - 4] = 0x7F;  // the last fragment claims far more
  refused(bad, "claims more bytes");
  bad.pixels = items({}, {r0, r1});
  bad.pixels[0] = 0x00;  // no item at all
  refused(bad, "other than an item");

  // Streams that disagree with the attributes or end early load, but their frames fail.
  auto undecodable = [&](const Native& file, const std::string& why) {
    Dicom d;
    ASSERT_TRUE(load(d, dir.write("frame.dcm", file.bytes())));
    DicomPixels pixels(d);
    ASSERT_TRUE(pixels.is()) << pixels.get_error();
    Bytes out(pixels.get_frame_bytes());
    EXPECT_FALSE(pixels.decode(0, out.data(), out.size())) << why;
    EXPECT_NE(pixels.get_error().find(why), std::string::npos) << pixels.get_error();
    quib::Image image;
    EXPECT_FALSE(pixels.decode(0, image));
    EXPECT_TRUE(image.empty());
  };
  bad = rle;
  Bytes cut(r0.begin(), r0.begin() + r0.size() / 2);
  bad.pixels = items({}, {cut, r1});
  undecodable(bad, "fewer bytes than the frame");
  Bytes segments = r0;
  segments[0] = 3;
  bad.pixels = items({}, {segments, r1});
  undecodable(bad, "3 segments");
  Bytes outside = r0;
  outside[5] = 0x7F;
  bad.pixels = items({}, {outside, r1});
  undecodable(bad, "outside the frame");
  for (const std::string syntax :
       {"1.2.840.10008.1.2.4.50", "1.2.840.10008.1.2.4.80", "1.2.840.10008.1.2.4.90"}) {
    SCOPED_TRACE(syntax);
    bad.syntax = syntax;
    bad.pixels = items({}, {Bytes{0xFF, 0xD8, 0xFF, 0xD9}, r1});
    undecodable(bad, "");
  }
  {
    DicomPixels none;
    Bytes out(16);
    EXPECT_FALSE(none.decode(0, out.data(), out.size()));
    Dicom d;
    ASSERT_TRUE(load(d, dir.write("ok.dcm", plain.bytes())));
    DicomPixels pixels(d);
    EXPECT_FALSE(pixels.decode(2, out.data(), out.size()));
    EXPECT_FALSE(pixels.decode(0, out.data(), out.size()));  // smaller than a frame
    EXPECT_EQ(pixels.get_error(), "the buffer is smaller than a frame");
  }
}

// Display values against dcmtk's dcmj2pnm on the same files: rescale, windows, MONOCHROME1,
// YBR_FULL and PALETTE COLOR.
Bytes pnm_samples(const std::string& path) {
  std::istringstream in(slurp(path));
  std::string magic;
  int width = 0, height = 0, top = 0;
  in >> magic >> width >> height >> top;
  in.get();
  const std::size_t n = std::size_t(width) * height * (magic == "P6" ? 3 : 1);
  Bytes out(n);
  in.read(reinterpret_cast<char*>(out.data()), std::streamsize(n));
  return out;
}

TEST(DicomPixels, DisplayValuesMatchDcmj2pnm) {
  const bool dcmtk = have("dcmj2pnm");
  TempDir dir;
  // dcmtk converts YBR with integer arithmetic: its RGB may differ from ours by 2.
  auto display = [&](const Native& n, int window, const std::string& options, const char* name,
                     int tolerance = 1) {
    SCOPED_TRACE(name);
    const std::string path = dir.write(std::string(name) + ".dcm", n.bytes());
    Dicom file;
    ASSERT_TRUE(load(file, path));
    DicomPixels pixels(file);
    ASSERT_TRUE(pixels.is()) << pixels.get_error();
    quib::Image ours;
    ASSERT_TRUE(pixels.decode_display(0, ours, window)) << pixels.get_error();
    if (!dcmtk) return;
    ASSERT_EQ(run("dcmj2pnm " + options + " +op " + path + " " + path + ".pnm").rfind("failed", 0),
              std::string::npos);
    const Bytes theirs = pnm_samples(path + ".pnm");
    const Bytes mine(ours.getBuffer(), ours.getBuffer() + ours.getBufferSize());
    EXPECT_LE(largest_difference(mine, theirs, 1), tolerance);
  };

  // CT: signed stored values, Hounsfield units through slope and intercept, two windows.
  Native ct = picture(16, 12, 1, 1, true);
  ct.extra[0x00281050] = "DS40\\300";
  ct.extra[0x00281051] = "DS400\\1500";
  ct.extra[0x00281052] = "DS-1024 ";
  ct.extra[0x00281053] = "DS2 ";
  display(ct, 0, "+Wi 1", "ct_soft");
  display(ct, 1, "+Wi 2", "ct_bone");
  {
    Dicom file;
    ASSERT_TRUE(load(file, dir.write("ct.dcm", ct.bytes())));
    DicomPixels pixels(file);
    EXPECT_EQ(pixels.get_windows().size(), 2u);
    quib::Image values, values16, raw;
    ASSERT_TRUE(pixels.decode_values(0, values));
    ASSERT_TRUE(pixels.decode_values16(0, values16));
    ASSERT_TRUE(pixels.decode(0, raw));
    for (int i : {0, 77, 1000}) {
      std::int16_t stored, hu16;
      float hu;
      std::memcpy(&stored, raw.getBuffer() + 2 * i, 2);
      std::memcpy(&hu16, values16.getBuffer() + 2 * i, 2);
      std::memcpy(&hu, values.getBuffer() + 4 * i, 4);
      EXPECT_EQ(hu, float(2 * stored - 1024));
      EXPECT_EQ(hu16, 2 * stored - 1024);
    }
  }
  Native inverted = ct;
  inverted.photometric = "MONOCHROME1";
  display(inverted, 0, "+Wi 1", "mono1");

  Native ybr = picture(8, 8, 3, 1);
  ybr.photometric = "YBR_FULL";
  display(ybr, 0, "", "ybr_full", 2);

  // A palette in plain tables, then the same palette in segments: discrete, linear, and
  // indirect segments that repeat earlier ones.
  Native palette = picture(8, 8, 1, 1);
  palette.photometric = "PALETTE COLOR";
  std::vector<int> red, green, blue;
  for (int i = 0; i < 256; ++i)
    red.push_back(i * 257), green.push_back((255 - i) * 257), blue.push_back(i % 64 * 4 * 257);
  const std::string descriptor = std::string("US") + std::string("\0\1\0\0\x10\0", 6);
  palette.extra[0x00281101] = palette.extra[0x00281102] = palette.extra[0x00281103] = descriptor;
  palette.extra[0x00281201] = "OW" + words(red);
  palette.extra[0x00281202] = "OW" + words(green);
  palette.extra[0x00281203] = "OW" + words(blue);
  display(palette, 0, "", "palette");
  auto shown = [&](const Native& n, const char* name, std::string* error = nullptr) {
    Dicom file;
    EXPECT_TRUE(load(file, dir.write(name, n.bytes())));
    DicomPixels pixels(file);
    quib::Image image;
    const bool ok = pixels.decode_display(0, image);
    EXPECT_EQ(ok, error == nullptr) << name << ": " << pixels.get_error();
    if (error) *error = pixels.get_error();
    return Bytes(image.getBuffer(), image.getBuffer() + image.getBufferSize());
  };
  const Bytes plain = shown(palette, "plain.dcm");
  Native segmented = palette;
  for (std::uint32_t tag : {0x00281201u, 0x00281202u, 0x00281203u})
    segmented.extra.erase(tag);
  segmented.extra[0x00281221] = "OW" + words({0, 1, 0, 1, 255, 65535});
  segmented.extra[0x00281222] = "OW" + words({0, 1, 65535, 1, 255, 0});
  segmented.extra[0x00281223] =
      "OW" + words({0, 1, 0, 1, 63, 64764, 2, 2, 0, 0, 2, 2, 0, 0, 2, 2, 0, 0});
  EXPECT_EQ(shown(segmented, "segmented.dcm"), plain);

  // Tables that lie are refused with a reason, whichever form they take.
  std::string error;
  Native lying = palette;
  lying.extra[0x00281203] = "OW" + words(blue).substr(0, 100);
  shown(lying, "short.dcm", &error);
  EXPECT_EQ(error, "the blue palette holds 50 entries, its descriptor 256");
  const std::vector<std::pair<std::vector<int>, std::string>> broken = {
      {{1, 5, 100}, "a linear segment has no entry to start from"},
      {{0, 300}, "a discrete segment runs past the data"},
      {{0, 1, 7, 2, 1, 6, 0}, "an indirect segment points outside the segments before it"},
      {{0, 1, 7, 2, 40000, 0, 0}, "an indirect segment copies more segments than there are"},
      {{0, 1, 7, 9, 3}, "segment type 9"},
      {{0, 200, 0}, "a discrete segment runs past the data"},
  };
  for (const auto& [segments, why] : broken) {
    segmented.extra[0x00281223] = "OW" + words(segments);
    shown(segmented, "broken.dcm", &error);
    EXPECT_EQ(error, "the blue palette: " + why);
  }
  // Indirect segments that copy empty segments over and over make no entries but take time.
  std::vector<int> empties = {0, 1, 7};
  for (int k = 0; k < 4000; ++k)
    empties.insert(empties.end(), {0, 0});
  for (int k = 0; k < 4000; ++k)
    empties.insert(empties.end(), {2, 4000, 6, 0});
  segmented.extra[0x00281223] = "OW" + words(empties);
  shown(segmented, "loops.dcm", &error);
  EXPECT_EQ(error, "the blue palette: the segments copy one another too often");
}

// Modality and VOI LUTs: the modality LUT replaces slope and intercept, a VOI LUT comes before
// the windows, values outside a table take its end entries; tables that lie are refused.
TEST(DicomPixels, LookupTablesMakeTheValuesAndMatchDcmj2pnm) {
  TempDir dir;
  Native ct = picture(16, 12, 1, 1, true);  // stored -2048 .. 2047
  ct.extra[0x00281050] = "DS40";
  ct.extra[0x00281051] = "DS400 ";
  ct.extra[0x00281053] = "DS2 ";  // replaced by the modality LUT
  std::vector<int> modality, voi;
  for (int k = 0; k < 2700; ++k)  // covers -1500 .. 1199 of the stored values
    modality.push_back(k * 3 / 2);
  for (int k = 0; k < 2000; ++k)
    voi.push_back(int(std::lround(65535 * std::sqrt(k / 1999.0))));
  auto lut = [&](int entries, int first, int bits, const std::string& data) {
    return item(element(0x0028, 0x3002, "US", words({entries, first & 0xFFFF, bits})) +
                element(0x0028, 0x3006, "OW", data));
  };
  ct.extra[0x00283000] = "SQ" + lut(2700, -1500, 16, words(modality));
  ct.extra[0x00283010] = "SQ" + lut(2000, 1000, 16, words(voi));
  const std::string path = dir.write("lut.dcm", ct.bytes());
  Dicom file;
  ASSERT_TRUE(load(file, path));
  DicomPixels pixels(file);
  ASSERT_EQ(pixels.get_voi_luts().size(), 1u);
  EXPECT_EQ(pixels.get_modality_lut().first, -1500);
  quib::Image raw, values, shown, windowed;
  ASSERT_TRUE(pixels.decode(0, raw));
  ASSERT_TRUE(pixels.decode_values(0, values)) << pixels.get_error();
  ASSERT_TRUE(pixels.decode_display(0, shown)) << pixels.get_error();
  ASSERT_TRUE(pixels.decode_display(0, windowed, 1)) << pixels.get_error();
  int below = 0, above = 0;
  for (int i = 0; i < 48 * 64; ++i) {
    std::int16_t stored;
    float value;
    std::memcpy(&stored, raw.getBuffer() + 2 * i, 2);
    std::memcpy(&value, values.getBuffer() + 4 * i, 4);
    const int k = std::clamp(stored + 1500, 0, 2699);
    below += stored<-1500, above += stored> 1199;
    ASSERT_EQ(value, float(k * 3 / 2)) << stored;
    const int v = std::clamp(k * 3 / 2 - 1000, 0, 1999);
    ASSERT_NEAR(shown.getBuffer()[i], voi[std::size_t(v)] * 255.0 / 65535, 0.51) << value;
  }
  EXPECT_GT(below, 0);
  EXPECT_GT(above, 0);
  EXPECT_NE(Bytes(shown.getBuffer(), shown.getBuffer() + shown.getBufferSize()),
            Bytes(windowed.getBuffer(), windowed.getBuffer() + windowed.getBufferSize()));
  if (have("dcmj2pnm")) {
    ASSERT_EQ(run("dcmj2pnm +Wl 1 +op " + path + " " + path + ".pnm").rfind("failed", 0),
              std::string::npos);
    EXPECT_LE(largest_difference(Bytes(shown.getBuffer(), shown.getBuffer() + 48 * 64),
                                 pnm_samples(path + ".pnm"), 1),
              1);
  }

  // Descriptors that lie: data shorter than claimed (0 entries claims 65536), 12 bits.
  const std::vector<std::pair<std::string, std::string>> lies = {
      {lut(2700, 0, 16, words(modality).substr(0, 4000)),
       "holds 2000 entries, its descriptor 2700"},
      {lut(0, 0, 16, words(modality)), "holds 2700 entries, its descriptor 65536"},
      {lut(2700, 0, 12, words(modality)), "has 12 bits per entry"},
  };
  for (const auto& [sequence, why] : lies) {
    Native bad = ct;
    bad.extra[0x00283000] = "SQ" + sequence;
    ASSERT_TRUE(load(file, dir.write("bad.dcm", bad.bytes())));
    DicomPixels lying(file);
    ASSERT_TRUE(lying.is());
    EXPECT_FALSE(lying.decode_values(0, values));
    EXPECT_EQ(lying.get_error(), "the modality LUT " + why);
    EXPECT_FALSE(lying.decode_display(0, shown));
    bad.extra.erase(0x00283000);
    bad.extra[0x00283010] = "SQ" + sequence;
    ASSERT_TRUE(load(file, dir.write("bad.dcm", bad.bytes())));
    DicomPixels voi_lying(file);
    EXPECT_FALSE(voi_lying.decode_display(0, shown));
    EXPECT_EQ(voi_lying.get_error(), "a VOI LUT " + why);
    EXPECT_TRUE(voi_lying.decode_display(0, shown, 1)) << "the window still works";
  }
}

// Series as volumes: slices found in a folder in any order come out sorted along the normal,
// with the geometry of the series; what cannot form a volume is refused with its reason.
TEST(DicomVolume, OrdersSlicesAlongTheNormalAndChecksTheSeries) {
  TempDir dir;
  const fs::path folder = dir.path / "series";
  auto ds = [](std::vector<double> v) {
    std::ostringstream out;
    out.precision(12);
    for (std::size_t i = 0; i < v.size(); ++i)
      out << (i ? "\\" : "") << v[i];
    std::string s = out.str();
    if (s.size() % 2) s += ' ';
    return "DS" + s;
  };
  // An oblique series: rows along (1, 1, 0)/sqrt2, columns along z; the normal is (1, -1, 0)/sqrt2.
  const double r = std::sqrt(0.5);
  auto slice = [&](int k, double gap, const std::string& uid) {
    Native n = picture(16, 12, 1, 1, true);
    for (std::size_t i = 0; i < n.pixels.size(); i += 2)
      n.pixels[i] = std::uint8_t(k);  // slice k is told apart by its low bytes
    n.extra[0x0020000E] = "UI" + uid;
    const double along = k * gap;
    n.extra[0x00200032] = ds({10 + along * r, 20 - along * r, 30});
    n.extra[0x00200037] = ds({r, r, 0, 0, 0, 1});
    n.extra[0x00280030] = ds({0.5, 0.25});
    n.extra[0x00281052] = ds({-1024});
    n.extra[0x00281053] = ds({1});
    return n;
  };
  auto write_series = [&](int count, double gap, const std::string& uid,
                          const std::string& prefix) {
    fs::create_directories(folder);
    for (int k = 0; k < count; ++k)  // names in the reverse order of positions
      std::ofstream(folder / (prefix + std::to_string(100 - k)), std::ios::binary)
          << slice(k, gap, uid).bytes();
  };
  write_series(5, 2.5, "1.2.3.4", "a");
  write_series(2, 1.0, "1.2.3.5", "b");  // a smaller series beside it
  std::ofstream(folder / "notes.txt") << "not a DICOM file";

  const std::wstring where = folder.wstring();
  quib::DicomVolume volume;
  ASSERT_TRUE(volume.load(where)) << volume.get_error();
  EXPECT_EQ(volume.get_series(), "1.2.3.4");
  EXPECT_EQ(volume.get_width(), 64);
  EXPECT_EQ(volume.get_height(), 48);
  EXPECT_EQ(volume.get_depth(), 5);
  EXPECT_EQ(volume.get_sample_type(), "int16");
  EXPECT_NEAR(volume.get_spacing()[0], 0.25, 1e-9);
  EXPECT_NEAR(volume.get_spacing()[1], 0.5, 1e-9);
  EXPECT_NEAR(volume.get_spacing()[2], 2.5, 1e-9);
  EXPECT_NEAR(volume.get_origin()[0], 10, 1e-9);
  EXPECT_NEAR(volume.get_origin()[1], 20, 1e-9);
  const auto direction = volume.get_direction();
  EXPECT_NEAR(direction[6], r, 1e-9);
  EXPECT_NEAR(direction[7], -r, 1e-9);
  const std::size_t slice_bytes = 64 * 48 * 2;
  ASSERT_EQ(volume.get_bytes(), 5 * slice_bytes);
  for (int k = 0; k < 5; ++k)
    EXPECT_EQ(volume.get_data()[k * slice_bytes + 64], k) << "slice " << k;

  ASSERT_TRUE(volume.load(where, true, "1.2.3.5")) << volume.get_error();
  EXPECT_EQ(volume.get_sample_type(), "float32");
  EXPECT_EQ(volume.get_depth(), 2);
  float hu;
  std::int16_t stored;
  std::memcpy(&hu, volume.get_data() + 4 * 70, 4);
  std::memcpy(&stored, slice(0, 1, "x").pixels.data() + 2 * 70, 2);
  stored = std::int16_t(stored << 4) >> 4;
  EXPECT_EQ(hu, float(stored - 1024));

  // Refusals, each with its reason; a failed load leaves the volume empty.
  auto refused = [&](const std::string& why) {
    EXPECT_FALSE(volume.load(where)) << why;
    EXPECT_TRUE(volume.empty());
    EXPECT_NE(volume.get_error().find(why), std::string::npos) << volume.get_error();
  };
  std::ofstream(folder / "a99", std::ios::binary)
      << slice(4, 2.5, "1.2.3.4").bytes();  // a copy of one slice
  refused("same position");
  std::ofstream(folder / "a99", std::ios::binary) << slice(9, 2.5, "1.2.3.4").bytes();  // a gap
  refused("uneven slice spacing");
  Native other = slice(5, 2.5, "1.2.3.4");
  other.columns = 32, other.pixels.resize(other.pixels.size() / 2);
  std::ofstream(folder / "a99", std::ios::binary) << other.bytes();
  refused("differ in size");
  other = slice(5, 2.5, "1.2.3.4");
  other.extra[0x00200037] = ds({1, 0, 0, 0, 1, 0});
  std::ofstream(folder / "a99", std::ios::binary) << other.bytes();
  refused("orientation");
  EXPECT_FALSE(volume.load(dir.path.wstring() + L"/nothing-here"));
  EXPECT_FALSE(volume.load(where, false, "9.9"));
  EXPECT_EQ(volume.get_error(), "no image of series 9.9");

  // One multi-frame file is a volume of its frames, spaced by Spacing Between Slices.
  Native frames = picture(16, 16, 1, 4);
  frames.extra[0x00180088] = ds({3});
  const std::string multi = dir.write("multi.dcm", frames.bytes());
  ASSERT_TRUE(volume.load(std::wstring(multi.begin(), multi.end()))) << volume.get_error();
  EXPECT_EQ(volume.get_depth(), 4);
  EXPECT_EQ(volume.get_spacing()[2], 3);
  EXPECT_EQ(Bytes(volume.get_data(), volume.get_data() + volume.get_bytes()), frames.pixels);
}

// A multi-frame file whose functional groups give each frame its position: the volume orders
// the frames by them, whatever order they are stored in.
TEST(DicomVolume, OrdersFramesByTheirFunctionalGroupPositions) {
  TempDir dir;
  Native n = picture(16, 16, 1, 4);
  const double z[4] = {6, 0, 9, 3};  // stored out of order, 3 mm apart
  std::string frames;
  for (double at : z)
    frames +=
        item(element(0x0020, 0x9113, "SQ",
                     item(element(0x0020, 0x0032, "DS", "1\\2\\" + std::to_string(int(at))))));
  const std::string shared =
      item(element(0x0020, 0x9116, "SQ", item(element(0x0020, 0x0037, "DS", "1\\0\\0\\0\\1\\0"))) +
           element(0x0028, 0x9110, "SQ", item(element(0x0028, 0x0030, "DS", "0.5\\0.5"))));
  n.extra[0x52009229] = "SQ" + shared;
  n.extra[0x52009230] = "SQ" + frames;
  const std::string path = dir.write("enhanced.dcm", n.bytes());
  Dicom file;
  ASSERT_TRUE(load(file, path));
  DicomPixels pixels(file);
  ASSERT_EQ(pixels.get_frame_positions().size(), 4u);
  EXPECT_EQ(pixels.get_frame_positions()[2][2], 9);
  EXPECT_EQ(pixels.get_orientation()[4], 1);
  quib::DicomVolume volume;
  ASSERT_TRUE(volume.load(std::wstring(path.begin(), path.end()))) << volume.get_error();
  EXPECT_EQ(volume.get_depth(), 4);
  EXPECT_EQ(volume.get_spacing()[2], 3);
  EXPECT_EQ(volume.get_spacing()[0], 0.5);
  EXPECT_EQ(volume.get_origin()[2], 0);
  const std::size_t frame_bytes = n.pixels.size() / 4;
  const int stored_at[4] = {1, 3, 0, 2};  // the frame lying at 0, 3, 6 and 9 mm
  for (int k = 0; k < 4; ++k)
    EXPECT_EQ(Bytes(volume.get_data() + k * frame_bytes, volume.get_data() + (k + 1) * frame_bytes),
              Bytes(n.pixels.begin() + stored_at[k] * frame_bytes,
                    n.pixels.begin() + (stored_at[k] + 1) * frame_bytes))
        << "slice " << k;
}

}  // namespace

// Slices decoded on several threads: the same bytes as on one, and the same failure, the first
// in slice order, when frames in the middle of the series are damaged.
TEST(DicomVolume, ThreadsChangeNeitherTheVoxelsNorTheReportedFailure) {
  TempDir dir;
  const fs::path folder = dir.path / "rle-series";
  fs::create_directories(folder);
  const int count = 13;
  std::vector<std::string> names;
  auto write = [&](int k, int damage) {
    Native n = picture(8, 8, 1, 1);
    for (auto& v : n.pixels)
      v = std::uint8_t(v + 7 * k);
    Bytes frame = rle_frame(n.pixels, 1);
    if (damage == 1) frame[0] = 2;  // claims two segments
    if (damage == 2) frame.resize(frame.size() / 2);
    n.pixels = items({}, {frame});
    n.encapsulated = true, n.syntax = kRle;
    n.extra[0x0020000E] = "UI1.2.3.9";
    const std::string z = std::to_string(2 * k);
    n.extra[0x00200032] = "DS0\\0\\" + z + (z.size() % 2 ? " " : "");
    n.extra[0x00200037] = "DS1\\0\\0\\0\\1\\0 ";
    n.extra[0x00281053] = "DS2 ";
    std::ofstream(folder / ("s" + std::to_string(k)), std::ios::binary) << n.bytes();
  };
  for (int k = 0; k < count; ++k)
    write(k, 0);
  auto read = [&](int threads, bool rescaled, std::string* error = nullptr) {
    quib::DicomVolume volume;
    volume.set_threads(threads);
    const bool ok = volume.load(folder.wstring(), rescaled);
    if (error) *error = volume.get_error();
    EXPECT_EQ(ok, error == nullptr) << volume.get_error();
    EXPECT_EQ(volume.get_threads(), threads);
    return Bytes(volume.get_data(), volume.get_data() + volume.get_bytes());
  };
  for (bool rescaled : {false, true}) {
    const Bytes one = read(1, rescaled);
    ASSERT_EQ(one.size(), std::size_t(48 * 64 * count * (rescaled ? 4 : 1)));
    EXPECT_EQ(read(3, rescaled), one);
    EXPECT_EQ(read(32, rescaled), one);
  }
  write(6, 1);
  write(9, 2);
  std::string alone, shared;
  read(1, false, &alone);
  EXPECT_NE(alone.find("2 segments"), std::string::npos) << alone;
  for (int threads : {2, 5, 32}) {
    read(threads, false, &shared);
    EXPECT_EQ(shared, alone);
  }
}
