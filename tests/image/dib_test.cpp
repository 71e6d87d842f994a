#include <quib/dib.hpp>

#include <gtest/gtest.h>
#include <unistd.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <climits>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<unsigned char>;

// A fresh directory per test, removed afterwards.
class DibFiles : public testing::Test {
 protected:
  void SetUp() override {
    dir =
        fs::temp_directory_path() / ("quib-dib-" + std::to_string(std::random_device{}()) + "-" +
                                     testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::create_directories(dir);
  }
  void TearDown() override { fs::remove_all(dir); }

  std::string file(std::string const& name) const { return (dir / name).string(); }

  std::string writeFile(std::string const& name, Bytes const& bytes) const {
    const std::string path = file(name);
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<char const*>(bytes.data()), std::streamsize(bytes.size()));
    return path;
  }

  fs::path dir;
};

Bytes readFile(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void put16(Bytes& b, std::size_t at, std::uint32_t v) {
  b[at] = static_cast<unsigned char>(v);
  b[at + 1] = static_cast<unsigned char>(v >> 8);
}
void put32(Bytes& b, std::size_t at, std::uint32_t v) {
  for (int i = 0; i < 4; ++i)
    b[at + i] = static_cast<unsigned char>(v >> (8 * i));
}
std::uint32_t get32(Bytes const& b, std::size_t at) {
  return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (std::uint32_t(b[at + 3]) << 24);
}

// A bitmap file written byte by byte: headers, `paletteEntries` table entries, then the rows,
// row r (in file order) filled with the byte pattern r * 16 + column.
struct BmpLayout {
  int width = 4;
  int height = 3;  // negative: top-down
  int bitCount = 8;
  int paletteEntries = 0;
  std::uint32_t compression = 0;
};

int rowBytesOf(int width, int bitCount) {
  return (width * bitCount + 31) / 32 * 4;
}

Bytes makeBmp(BmpLayout const& s) {
  const int rowBytes = rowBytesOf(s.width, s.bitCount);
  const int rows = s.height < 0 ? -s.height : s.height;
  const std::uint32_t offBits = 54 + 4 * s.paletteEntries;
  Bytes b(offBits + std::size_t(rowBytes) * rows, 0);
  b[0] = 'B';
  b[1] = 'M';
  put32(b, 2, static_cast<std::uint32_t>(b.size()));
  put32(b, 10, offBits);
  put32(b, 14, 40);
  put32(b, 18, static_cast<std::uint32_t>(s.width));
  put32(b, 22, static_cast<std::uint32_t>(s.height));
  put16(b, 26, 1);
  put16(b, 28, static_cast<std::uint32_t>(s.bitCount));
  put32(b, 30, s.compression);
  put32(b, 38, 3780);  // 96 dpi
  put32(b, 42, 2835);  // 72 dpi
  for (int i = 0; i < s.paletteEntries; ++i)
    put32(b, 54 + 4 * i, 0x010101u * i);
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < rowBytes; ++c) {
      b[offBits + std::size_t(r) * rowBytes + c] = static_cast<unsigned char>(r * 16 + c);
    }
  }
  return b;
}

TEST_F(DibFiles, OpensAndDescribesEachDepth) {
  struct Row {
    int bitCount, bits, colorCount;
  };
  for (Row r :
       {Row{1, 1, 1}, Row{4, 4, 1}, Row{8, 8, 1}, Row{16, 16, 1}, Row{24, 8, 3}, Row{32, 8, 4}}) {
    SCOPED_TRACE(r.bitCount);
    BmpLayout layout;
    layout.width = 3;
    layout.bitCount = r.bitCount;
    layout.paletteEntries = r.bitCount <= 8 ? 1 << r.bitCount : 0;
    const std::string path = writeFile("d.bmp", makeBmp(layout));
    quib::Dib dib(path);
    ASSERT_FALSE(dib.fail());
    EXPECT_EQ(dib.path(), path);
    EXPECT_EQ(dib.getBits(), r.bits);
    EXPECT_EQ(dib.getColorCount(), r.colorCount);
    EXPECT_EQ(dib.getLineBytes(), rowBytesOf(3, r.bitCount));
    EXPECT_EQ(dib.getAlign(), 4);
    EXPECT_EQ(dib.getWidth(), 3);
    EXPECT_EQ(dib.getHeight(), 3);
    EXPECT_EQ(dib.getXDpi(), 96);
    EXPECT_EQ(dib.getYDpi(), 72);
    EXPECT_EQ(dib.getPlaneCount(), 1);
    EXPECT_EQ(dib.getImageSize(), 3u * dib.getLineBytes());
    EXPECT_EQ(dib.getPalette().size(), std::uint64_t(layout.paletteEntries));
    EXPECT_EQ(dib.tell(), 54 + 4 * layout.paletteEntries);
    EXPECT_EQ(dib.getMode(), quib::Dib::mode_t::opened);
  }
}

TEST_F(DibFiles, BottomUpRowsComeInFileOrder) {
  BmpLayout layout;
  layout.height = 5;
  const Bytes bytes = makeBmp(layout);
  quib::Dib dib(writeFile("up.bmp", bytes));
  ASSERT_TRUE(dib);
  Bytes band(2 * 4);
  EXPECT_EQ(dib.read(band.data(), 8), 8);
  EXPECT_EQ(band[0], 0x00);  // first stored row
  EXPECT_EQ(band[4], 0x10);
  EXPECT_EQ(dib.read(band.data(), 8), 8);
  EXPECT_EQ(band[0], 0x20);
  EXPECT_EQ(dib.read(band.data(), 8), 4);  // clamped to the last row
  EXPECT_EQ(band[0], 0x40);
  EXPECT_EQ(dib.tell(0), 5);
  EXPECT_EQ(dib.read(band.data(), 8), 0);
}

TEST_F(DibFiles, TopDownBlocksComeFromTheEndBackwards) {
  BmpLayout layout;
  layout.height = -10;
  quib::Dib dib(writeFile("down.bmp", makeBmp(layout)));
  ASSERT_TRUE(dib);
  EXPECT_EQ(dib.getHeight(), 10);
  EXPECT_TRUE(dib.isTopDown());
  Bytes band(3 * 4);
  ASSERT_EQ(dib.read(band.data(), 12), 12);
  // The block holds stored rows 7, 8, 9, in file order.
  EXPECT_EQ(band[0], 7 * 16);
  EXPECT_EQ(band[4], 8 * 16);
  EXPECT_EQ(band[8], 9 * 16);
  ASSERT_EQ(dib.read(band.data(), 12), 12);
  EXPECT_EQ(band[0], 4 * 16);
}

TEST_F(DibFiles, CursorsClampAndWrapTheirIndex) {
  quib::Dib dib(writeFile("c.bmp", makeBmp(BmpLayout{})));
  ASSERT_TRUE(dib);
  dib.seek(0, 3 + 5);
  EXPECT_EQ(dib.tell(0), 3);
  Bytes row(4);
  EXPECT_EQ(dib.read(row.data(), 4), 0);
  dib.seek(0, -2);
  EXPECT_EQ(dib.tell(0), 0);
  EXPECT_EQ(dib.read(row.data(), 3), 0);  // less than one row
  dib.seek(5, 2);
  EXPECT_EQ(dib.tell(1), 2);
  dib.seek(-1, 1);
  EXPECT_EQ(dib.tell(3), 1);
  EXPECT_EQ(dib.tell(7), 1);
}

TEST_F(DibFiles, ReadsWhatOpenCvWrites) {
  cv::RNG rng(7);
  for (int channels : {1, 3}) {
    for (int width : {1, 6, 33}) {
      SCOPED_TRACE(testing::Message() << channels << " channels, width " << width);
      cv::Mat picture(9, width, CV_8UC(channels));
      rng.fill(picture, cv::RNG::UNIFORM, 0, 256);
      const std::string path = file("cv.bmp");
      ASSERT_TRUE(cv::imwrite(path, picture));
      quib::Dib dib(path);
      ASSERT_TRUE(dib);
      ASSERT_EQ(dib.getColorCount(), channels);
      Bytes rows(std::size_t(dib.getLineBytes()) * 9);
      ASSERT_EQ(dib.read(rows.data(), int(rows.size())), int(rows.size()));
      for (int y = 0; y < 9; ++y) {  // bottom-up file: stored row 0 is the last picture row
        const unsigned char* stored = rows.data() + std::size_t(8 - y) * dib.getLineBytes();
        ASSERT_EQ(0, std::memcmp(stored, picture.ptr(y), std::size_t(width) * channels)) << y;
      }
    }
  }
}

TEST_F(DibFiles, OpenCvReadsWhatDibWrites) {
  cv::RNG rng(11);
  struct Row {
    int bits, colorCount, cvType;
  };
  for (Row r : {Row{8, 1, CV_8UC1}, Row{8, 3, CV_8UC3}, Row{1, 1, CV_8UC1}, Row{4, 1, CV_8UC1}}) {
    for (int height : {7, -7}) {
      SCOPED_TRACE(testing::Message() << r.bits << "x" << r.colorCount << " height " << height);
      const int width = 13;
      const int levels = 1 << r.bits;
      quib::Palette palette(r.colorCount == 1 ? levels : 0);
      for (int i = 0; i < int(palette.size()); ++i)
        palette[i] = 0x010101u * (i * 255 / (levels - 1));
      const std::string path = file("q.bmp");
      fs::remove(path);
      quib::Dib out(path, width, height, 96, 96, r.bits, 4, r.colorCount, palette);
      ASSERT_TRUE(out);
      // Random samples, packed most significant bits first for sub-byte depths.
      cv::Mat expect(7, width, r.cvType);
      std::vector<Bytes> stored(7, Bytes(std::size_t(out.getLineBytes()), 0));
      for (int row = 0; row < 7; ++row) {
        for (int x = 0; x < width * r.colorCount; ++x) {
          const int v = rng.uniform(0, levels > 256 ? 256 : levels);
          if (r.bits == 8) {
            stored[row][x] = static_cast<unsigned char>(v);
          } else {
            const int perByte = 8 / r.bits;
            const int shift = 8 - r.bits * (x % perByte + 1);
            stored[row][x / perByte] |= static_cast<unsigned char>(v << shift);
          }
          const int grey = r.bits == 8 ? v : v * 255 / (levels - 1);
          // Picture row of stored row `row`: bottom-up files store the last row first.
          const int picture = height > 0 ? 6 - row : row;
          expect.ptr(picture)[x] = static_cast<unsigned char>(grey);
        }
      }
      // Cursor row k lands at stored row k (bottom-up) or 6 - k (top-down, one row per call).
      for (int k = 0; k < 7; ++k) {
        const int row = height > 0 ? k : 6 - k;
        ASSERT_EQ(out.write(stored[row].data(), out.getLineBytes()), out.getLineBytes());
      }
      out.close();
      const cv::Mat back = cv::imread(path, cv::IMREAD_UNCHANGED);
      ASSERT_FALSE(back.empty());
      cv::Mat grey = back;
      if (back.channels() != expect.channels()) cv::cvtColor(back, grey, cv::COLOR_BGR2GRAY);
      EXPECT_EQ(cv::norm(grey, expect, cv::NORM_INF), 0.0) << grey << "\n" << expect;
    }
  }
}

TEST_F(DibFiles, NewFileHeadersAtTheByteLevel) {
  quib::Palette grey(256);
  for (int i = 0; i < 256; ++i)
    grey[i] = 0x00010203u * 0 + 0x010101u * i;
  const std::string path = file("new.bmp");
  quib::Dib dib(path, 10, -4, 96, 300, 8, 4, 1, grey);
  ASSERT_TRUE(dib);
  EXPECT_EQ(dib.tell(), 1078);
  EXPECT_EQ(dib.getMode(), quib::Dib::mode_t::created);
  dib.close();
  EXPECT_TRUE(dib.fail());
  const Bytes b = readFile(path);
  ASSERT_EQ(b.size(), 1078u);
  EXPECT_EQ(b[0], 'B');
  EXPECT_EQ(b[1], 'M');
  EXPECT_EQ(get32(b, 2), 4u * 12 + 1078);  // rows not written yet, but counted
  EXPECT_EQ(get32(b, 6), 0u);
  EXPECT_EQ(get32(b, 10), 1078u);
  EXPECT_EQ(get32(b, 14), 40u);
  EXPECT_EQ(get32(b, 18), 10u);
  EXPECT_EQ(static_cast<std::int32_t>(get32(b, 22)), -4);  // the sign is kept
  EXPECT_EQ(b[26] | (b[27] << 8), 1);
  EXPECT_EQ(b[28] | (b[29] << 8), 8);
  EXPECT_EQ(get32(b, 30), 0u);
  EXPECT_EQ(get32(b, 38), 3780u);   // (96 * 10000 + 253) / 254
  EXPECT_EQ(get32(b, 42), 11812u);  // 300 dpi, rounded up
  EXPECT_EQ(get32(b, 46), 256u);
  EXPECT_EQ(get32(b, 50), 256u);
  EXPECT_EQ(get32(b, 54 + 4 * 200), 0x010101u * 200);

  // A 24-bit file without a palette: 2^24 colours used, rows right after the headers.
  quib::Dib colour(file("c24.bmp"), 3, 2, 72, 72, 8, 4, 3, quib::Palette());
  ASSERT_TRUE(colour);
  EXPECT_EQ(colour.getLineBytes(), 12);
  colour.close();
  const Bytes c = readFile(file("c24.bmp"));
  EXPECT_EQ(get32(c, 10), 54u);
  EXPECT_EQ(c[28], 24);
  EXPECT_EQ(get32(c, 46), 1u << 24);
}

TEST_F(DibFiles, ReopeningAnExistingBitmapKeepsItsOffset) {
  const std::string path = writeFile("old.bmp", makeBmp(BmpLayout{4, 3, 8, 256, 0}));
  quib::Dib dib(path, 4, 3, 96, 96, 8, 4, 1, quib::Palette());
  ASSERT_TRUE(dib);
  EXPECT_EQ(dib.getDataOffset(), 1078);
  Bytes row = {9, 9, 9, 9};
  dib.seek(0, 1);
  ASSERT_EQ(dib.write(row.data(), 4), 4);
  dib.close();
  const Bytes b = readFile(path);
  EXPECT_EQ(b[1078 + 4], 9);
  EXPECT_EQ(b[1078 + 8], 2 * 16);  // neighbours untouched
}

TEST_F(DibFiles, OnePlaneTransfersWalkWithTheSampleStride) {
  // Width 4, three samples: rows of 12 bytes without padding, one-sample rows of 4 bytes.
  BmpLayout layout;
  layout.width = 4;
  layout.bitCount = 24;
  layout.height = 2;
  quib::Dib dib(writeFile("p.bmp", makeBmp(layout)));
  ASSERT_TRUE(dib);
  Bytes plane(8);
  EXPECT_EQ(dib.read(1, plane.data(), int(plane.size())), 8);
  EXPECT_EQ(dib.tell(1), 2);
  const Bytes green = {1, 4, 7, 10, 16 + 1, 16 + 4, 16 + 7, 16 + 10};
  EXPECT_EQ(plane, green);

  // Write plane 2 back as a constant: the other samples stay as they were.
  dib.seek(2, 0);
  Bytes red(8, 0xEE);
  EXPECT_EQ(dib.write(2, red.data(), int(red.size())), 8);
  dib.seek(0, 0);
  Bytes rows(24);
  ASSERT_EQ(dib.read(rows.data(), 24), 24);
  for (int i = 0; i < 24; ++i) {
    const int row = i / 12;
    const int col = i % 12;
    EXPECT_EQ(rows[i], col % 3 == 2 ? 0xEE : row * 16 + col) << i;
  }
}

TEST_F(DibFiles, OnePlaneReadWithPaddingWalksAcrossRowEnds) {
  // Width 3, three samples: rows of 12 bytes (9 + 3 padding), one-sample rows of 4 bytes.
  BmpLayout layout;
  layout.width = 3;
  layout.bitCount = 24;
  layout.height = 3;
  const Bytes file = makeBmp(layout);
  quib::Dib dib(writeFile("pad.bmp", file));
  ASSERT_TRUE(dib);
  Bytes plane(2 * 4 + 3, 0x55);  // room for two one-sample rows and a little more
  EXPECT_EQ(dib.read(0, plane.data(), int(plane.size())), 8);
  for (std::size_t k = 0; k < plane.size(); ++k) {
    // The walk never restarts at a row: byte k comes from offset 3k of the rows read,
    // and stops at the caller's size.
    const std::size_t from = 3 * k;
    const unsigned char expect = from < 24 ? file[54 + from] : 0;
    EXPECT_EQ(plane[k], expect) << k;
  }
}

TEST_F(DibFiles, RefusesHostileHeaders) {
  struct Case {
    const char* name;
    std::size_t at;  // a field to overwrite, or 0 to cut the file
    std::uint32_t value;
    std::size_t keep;
  };
  const Case cases[] = {
      {"truncated header", 0, 0, 30},
      {"truncated info", 0, 0, 14},
      {"empty", 0, 0, 0},
      {"other magic", 0, 0x4D42 ^ 0x0101, 0},
      {"compression", 30, 1, 0},
      {"zero width", 18, 0, 0},
      {"negative width", 18, 0xFFFFFFFFu, 0},
      {"huge width", 18, 0x7FFFFFFFu, 0},
      {"zero height", 22, 0, 0},
      {"minimum height", 22, 0x80000000u, 0},
      {"huge height", 22, 100000, 0},
      {"offset past end", 10, 1u << 30, 0},
      {"offset inside header", 10, 20, 0},
      {"zero planes", 26, 0, 0},
      {"rows overflow 32 bits", 18, 0x40000000u, 0},
      {"truncated rows", 0, 0, 54 + 4 * 4 + 2},
  };
  BmpLayout layout;
  layout.width = 16;
  layout.height = 5;
  layout.bitCount = 32;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes b = makeBmp(layout);
    if (c.keep != 0 || c.at == 0) b.resize(c.keep == 0 && c.at == 0 ? b.size() : c.keep);
    if (std::string(c.name) == "empty") b.clear();
    if (c.at == 0 && std::string(c.name) == "other magic") put16(b, 0, c.value);
    if (c.at == 26)
      put16(b, 26, c.value);
    else if (c.at != 0)
      put32(b, c.at, c.value);
    const std::string path = writeFile("bad.bmp", b);
    quib::Dib dib(path);
    EXPECT_TRUE(dib.fail());
    EXPECT_FALSE(dib);
    EXPECT_TRUE(dib.path().empty());
    Bytes out(1 << 16);
    EXPECT_EQ(dib.read(out.data(), int(out.size())), 0);
    EXPECT_EQ(dib.read(0, out.data(), int(out.size())), 0);
    EXPECT_EQ(dib.write(out.data(), int(out.size())), 0);
    quib::Dib other;
    EXPECT_FALSE(other.create(path));
  }
}

// Found by the fuzzer: rows x height x planes overflowed 64 bits in the size check.
TEST_F(DibFiles, RefusesGeometryWhoseProductOverflows) {
  Bytes b = makeBmp(BmpLayout{});
  put32(b, 18, 0x1FFFFFFFu);  // width
  put32(b, 22, 0x7FFFFFFFu);  // height
  put16(b, 26, 0xFFFF);       // planes
  quib::Dib dib(writeFile("overflow.bmp", b));
  EXPECT_TRUE(dib.fail());
}

TEST_F(DibFiles, CreateChecksThePathFirst) {
  quib::Dib dib;
  EXPECT_TRUE(dib.fail());
  EXPECT_FALSE(dib.create(file("missing.bmp")));
  EXPECT_FALSE(dib.create(dir.string()));
  EXPECT_FALSE(fs::exists(file("missing.bmp")));  // nothing was created
  EXPECT_TRUE(dib.create(writeFile("ok.bmp", makeBmp(BmpLayout{}))));
  EXPECT_EQ(dib.getWidth(), 4);

  // Creating for writing refuses arguments whose rows cannot be computed.
  quib::Dib bad(file("bad.bmp"), 0x7FFFFFFF, 2, 96, 96, 8, 4, 4, quib::Palette());
  EXPECT_TRUE(bad.fail());
  EXPECT_FALSE(bad.create(file("bad.bmp"), 4, 4, 96, 96, 8, 0, 1, quib::Palette()));
}

TEST_F(DibFiles, WidePathsNameFilesAndRefuseUnpairedSurrogates) {
  // A name beyond ASCII reaches the file system as its UTF-8 bytes.
  const std::wstring wide = dir.wstring() + L"/bild-\u00E4\U0001F600.bmp";
  {
    quib::Dib out(wide, 4, 2, 96, 96, 8, 4, 1, quib::Palette());
    ASSERT_TRUE(out);
    const Bytes rows(8, 1);
    EXPECT_EQ(out.write(rows.data(), 8), 8);
    EXPECT_EQ(out.path(), file("bild-\xC3\xA4\xF0\x9F\x98\x80.bmp"));
  }
  EXPECT_TRUE(fs::exists(file("bild-\xC3\xA4\xF0\x9F\x98\x80.bmp")));
  quib::Dib in;
  EXPECT_TRUE(in.create(wide));
  EXPECT_EQ(in.getWidth(), 4);

  // An unpaired surrogate names no file, even when "\uFFFD" would name one that exists.
  writeFile("\xEF\xBF\xBD.bmp", makeBmp(BmpLayout{}));
  const std::wstring lone = dir.wstring() + L"/" + wchar_t(0xD800) + L".bmp";
  EXPECT_TRUE(quib::Dib(lone).fail());
  EXPECT_FALSE(in.create(lone));
  quib::Dib out(lone, 4, 2, 96, 96, 8, 4, 1, quib::Palette());
  EXPECT_TRUE(out.fail());
  EXPECT_TRUE(out.path().empty());
  EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 2);
}

// A folder is no bitmap: every way in fails through the stream state, and nothing throws (a
// read from a directory stream throws inside the standard library).
TEST_F(DibFiles, FolderFailsCleanly) {
  for (bool wide : {false, true}) {
    SCOPED_TRACE(wide);
    EXPECT_NO_THROW({
      quib::Dib in = wide ? quib::Dib(dir.wstring()) : quib::Dib(dir.string());
      EXPECT_TRUE(in.fail());
      EXPECT_EQ(in.getMode(), quib::Dib::mode_t::none);
      quib::Dib out = wide ? quib::Dib(dir.wstring(), 4, 4, 96, 96, 8, 4, 1, quib::Palette())
                           : quib::Dib(dir.string(), 4, 4, 96, 96, 8, 4, 1, quib::Palette());
      EXPECT_TRUE(out.fail());
      Bytes rows(16);
      EXPECT_EQ(out.write(rows.data(), 16), 0);
      EXPECT_EQ(in.read(rows.data(), 16), 0);
      EXPECT_TRUE(quib::Dib::read_image(dir.string()).empty());
    });
  }
  EXPECT_TRUE(fs::is_directory(dir));
}

TEST_F(DibFiles, ReadsAFileItMayNotWrite) {
  const std::string path = writeFile("r.bmp", makeBmp(BmpLayout{}));
  const Bytes stored = readFile(path);
  fs::permissions(path, fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
  // File modes do not stop root: as root, the reads run as the unprivileged user 65534.
  bool const root = ::geteuid() == 0;
  if (root) fs::permissions(dir, fs::perms::others_exec, fs::perm_options::add);
  if (root && ::seteuid(65534) != 0) {
    GTEST_SKIP() << "cannot drop root's rights";
  }
  quib::Dib dib(path);
  Bytes row(4, 0xEE);
  int const read = dib.read(row.data(), 4);
  int const written = dib.write(row.data(), 4);
  quib::Image const narrow = quib::Dib::read_image(path, quib::palette_t::index);
  quib::Image const wide = quib::Dib::read_image(fs::path(path).wstring(), quib::palette_t::index);
  if (root) {
    ASSERT_EQ(::seteuid(0), 0);
  }

  EXPECT_EQ(dib.getMode(), quib::Dib::mode_t::opened);
  EXPECT_EQ(read, 4);
  EXPECT_EQ(row[1], 1);
  EXPECT_EQ(written, 0);  // opened for reading: the write fails and changes nothing
  EXPECT_EQ(readFile(path), stored);
  for (quib::Image const* picture : {&narrow, &wide}) {
    ASSERT_FALSE(picture->empty());
    EXPECT_EQ(picture->getBuffer()[0], 2 * 16);  // the top row is the last one stored
  }
}

TEST_F(DibFiles, CopiesShareTheFileAndCloseReleases) {
  const std::string path = writeFile("s.bmp", makeBmp(BmpLayout{}));
  quib::Dib a(path);
  quib::Dib b = a;
  a.close();
  EXPECT_TRUE(a.fail());
  EXPECT_EQ(a.getWidth(), 0);
  Bytes row(4);
  EXPECT_EQ(b.read(row.data(), 4), 4);  // the copy keeps the file open
  quib::Dib c;
  c.swap(b);
  EXPECT_TRUE(b.fail());
  EXPECT_EQ(c.read(row.data(), 4), 4);
  EXPECT_EQ(row[0], 16);
}

TEST_F(DibFiles, ExceptionsNeverIncludeEndOfFile) {
  const std::string path = file("e.bmp");
  quib::Dib dib(path, 4, 4, 96, 96, 8, 4, 1, quib::Palette());
  ASSERT_TRUE(dib);
  dib.exceptions(std::ios_base::eofbit);
  Bytes rows(16);
  EXPECT_NO_THROW(
      static_cast<void>(dib.read(rows.data(), 16)));  // reads past the end of a new file
  EXPECT_TRUE(dib.fail());

  quib::Dib again(path, 4, 4, 96, 96, 8, 4, 1, quib::Palette());
  ASSERT_TRUE(again);
  again.exceptions(std::ios_base::failbit | std::ios_base::eofbit);
  EXPECT_THROW(static_cast<void>(again.read(rows.data(), 16)), std::ios_base::failure);
}

TEST(Palette, SharesOwnsAndBorrows) {
  const quib::Palette none;
  EXPECT_TRUE(none.empty());
  EXPECT_FALSE(none);
  EXPECT_TRUE(!none);

  quib::Palette owned(4);
  EXPECT_FALSE(owned.empty());
  EXPECT_EQ(owned.size(), 4u);
  EXPECT_EQ(owned[3], 0u);
  quib::Palette shared = owned;
  shared[1] = 0xABCDEFu;
  EXPECT_EQ(owned[1], 0xABCDEFu);
  EXPECT_EQ(owned.end() - owned.begin(), 4);

  const quib::Palette borrowedNull(nullptr, 3);
  EXPECT_TRUE(borrowedNull.empty());
  EXPECT_TRUE(static_cast<bool>(borrowedNull));

  unsigned int table[2] = {5, 6};
  quib::Palette borrowed(table, 2);
  borrowed[0] = 7;
  EXPECT_EQ(table[0], 7u);
  borrowed.clear();
  EXPECT_TRUE(borrowed.empty());
  EXPECT_EQ(borrowed.size(), 0u);
  EXPECT_EQ(table[1], 6u);
}

TEST(Palette, AtRefusesIndicesBelowTheSize) {
  const quib::Palette p(4);
  for (int i = 0; i < 4; ++i) {
    try {
      p.at(i);
      ADD_FAILURE() << "no exception for " << i;
    } catch (std::out_of_range const& e) {
      EXPECT_STREQ(e.what(), "Palette: out of range.");
    }
  }
  unsigned int* where = &p.at(7);  // not thrown; the entry is not read here
  EXPECT_EQ(where, p.begin() + 7);
}

}  // namespace
