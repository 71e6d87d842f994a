// Dib::read_image against OpenCV's reader, on files written by OpenCV and on palette files of
// every depth written byte by byte here, in both row orders.
#include <quib/dib.hpp>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<unsigned char>;

class ReadImage : public testing::Test {
 protected:
  void SetUp() override {
    dir = fs::temp_directory_path() /
          ("quib-read-image-" + std::to_string(std::random_device{}()) + "-" +
           testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::create_directories(dir);
  }
  void TearDown() override { fs::remove_all(dir); }
  std::string file(std::string const& name) const { return (dir / name).string(); }

  fs::path dir;
};

Bytes readFile(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(std::string const& path, Bytes const& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<char const*>(bytes.data()), std::streamsize(bytes.size()));
}

std::uint32_t get32(Bytes const& b, std::size_t at) {
  return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (std::uint32_t(b[at + 3]) << 24);
}
void put32(Bytes& b, std::size_t at, std::uint32_t v) {
  for (int i = 0; i < 4; ++i)
    b[at + i] = static_cast<unsigned char>(v >> (8 * i));
}

int rowBytesOf(int width, int bitCount) {
  return (width * bitCount + 31) / 32 * 4;
}

// A bottom-up palette bitmap of `bits` bits per pixel holding the indices of `indices`
// (CV_8UC1), packed with the leftmost pixel in the high bits; for more than 8 bits, zero rows.
Bytes paletteBmp(cv::Mat const& indices, int bits, std::vector<std::uint32_t> const& table) {
  const int rowBytes = rowBytesOf(indices.cols, bits);
  const std::uint32_t offBits = 54 + 4 * std::uint32_t(table.size());
  Bytes b(offBits + std::size_t(rowBytes) * indices.rows, 0);
  b[0] = 'B';
  b[1] = 'M';
  put32(b, 2, std::uint32_t(b.size()));
  put32(b, 10, offBits);
  put32(b, 14, 40);
  put32(b, 18, std::uint32_t(indices.cols));
  put32(b, 22, std::uint32_t(indices.rows));
  b[26] = 1;
  b[28] = static_cast<unsigned char>(bits);
  put32(b, 46, std::uint32_t(table.size()));
  for (std::size_t i = 0; i < table.size(); ++i)
    put32(b, 54 + 4 * i, table[i]);
  for (int y = 0; y < indices.rows && bits <= 8; ++y) {  // deeper rows are left zero
    unsigned char* row = &b[offBits + std::size_t(indices.rows - 1 - y) * rowBytes];
    for (int x = 0; x < indices.cols; ++x) {
      const int bit = x * bits;
      row[bit / 8] |=
          static_cast<unsigned char>(indices.at<unsigned char>(y, x) << (8 - bits - bit % 8));
    }
  }
  return b;
}

// The same picture stored top-down: the rows reversed and the height negated.
Bytes topDown(Bytes b) {
  const std::uint32_t offBits = get32(b, 10);
  const int width = int(get32(b, 18));
  const int height = int(get32(b, 22));
  const int rowBytes = rowBytesOf(width, b[28] | (b[29] << 8));
  for (int y = 0; y < height / 2; ++y) {
    std::swap_ranges(b.begin() + offBits + std::size_t(y) * rowBytes,
                     b.begin() + offBits + std::size_t(y + 1) * rowBytes,
                     b.begin() + offBits + std::size_t(height - 1 - y) * rowBytes);
  }
  put32(b, 22, std::uint32_t(-height));
  return b;
}

void expectSame(quib::Image const& image, cv::Mat const& expected) {
  ASSERT_FALSE(image.empty());
  ASSERT_EQ(image.getWidth(), expected.cols);
  ASSERT_EQ(image.getHeight(), expected.rows);
  const cv::Mat view = image.makeMat();
  ASSERT_EQ(view.type(), expected.type());
  EXPECT_EQ(cv::norm(view, expected, cv::NORM_INF), 0.0);
}

TEST_F(ReadImage, AgreesWithOpenCvOnEveryDepthAndRowOrder) {
  cv::RNG rng(17);
  const int width = 37;  // odd: every depth pads its rows
  const int height = 23;
  struct Case {
    std::string name;
    Bytes bytes;
    cv::Mat written;  // the picture given to cv::imwrite, when OpenCV wrote the file
  };
  std::vector<Case> cases;
  for (int channels : {1, 3, 4}) {  // 8-bit grey with a grey table, 24 and 32 bits
    cv::Mat picture(height, width, CV_8UC(channels));
    rng.fill(picture, cv::RNG::UNIFORM, 0, 256);
    const std::string path = file("cv.bmp");
    ASSERT_TRUE(cv::imwrite(path, picture));
    cases.push_back({"cv " + std::to_string(channels), readFile(path), picture});
  }
  for (int bits : {1, 4, 8}) {
    cv::Mat indices(height, width, CV_8UC1);
    rng.fill(indices, cv::RNG::UNIFORM, 0, 1 << bits);
    std::vector<std::uint32_t> colours(std::size_t(1) << bits);
    for (auto& c : colours)
      c = rng.next() & 0xFFFFFFu;
    cases.push_back(
        {"colour table " + std::to_string(bits), paletteBmp(indices, bits, colours), {}});
    std::vector<std::uint32_t> greys(std::size_t(1) << bits);
    for (auto& c : greys)
      c = 0x010101u * (rng.next() & 0xFF);
    cases.push_back({"grey table " + std::to_string(bits), paletteBmp(indices, bits, greys), {}});
  }
  for (Case const& c : cases) {
    for (bool down : {false, true}) {
      SCOPED_TRACE(c.name + (down ? ", top-down" : ", bottom-up"));
      const std::string path = file(down ? "down.bmp" : "up.bmp");
      writeFile(path, down ? topDown(c.bytes) : c.bytes);
      if (!c.written.empty()) expectSame(quib::Dib::read_image(path), c.written);
      if (c.written.channels() == 4) continue;  // OpenCV drops the fourth byte; we keep it
      // OpenCV gives grey levels for a grey table and BGR otherwise, as grey_or_bgr does.
      expectSame(quib::Dib::read_image(path), cv::imread(path, cv::IMREAD_UNCHANGED));
      expectSame(quib::Dib::read_image(path, quib::palette_t::bgr),
                 cv::imread(path, cv::IMREAD_COLOR));
    }
  }
}

TEST_F(ReadImage, KeepsIndicesWhenAskedAndRampsWithoutATable) {
  cv::Mat indices = (cv::Mat_<unsigned char>(2, 3) << 0, 1, 2, 3, 1, 0);
  const std::string path = file("p.bmp");
  writeFile(path, topDown(paletteBmp(indices, 2, {0x0000FF, 0x00FF00})));  // entries 2, 3 missing
  expectSame(quib::Dib::read_image(path, quib::palette_t::index), indices);
  const cv::Mat colours =
      (cv::Mat_<cv::Vec3b>(2, 3) << cv::Vec3b(255, 0, 0), cv::Vec3b(0, 255, 0), cv::Vec3b(0, 0, 0),
       cv::Vec3b(0, 0, 0), cv::Vec3b(0, 255, 0), cv::Vec3b(255, 0, 0));
  expectSame(quib::Dib::read_image(path), colours);

  writeFile(path, paletteBmp(indices, 2, {}));  // no table: the grey ramp 0, 85, 170, 255
  expectSame(quib::Dib::read_image(path), indices * 85);
}

TEST_F(ReadImage, WidensFiveBitChannels) {
  // Two 16-bit pixels: pure red at full scale, and (blue 1, green 2, red 3).
  Bytes b = paletteBmp(cv::Mat(1, 2, CV_8UC1, cv::Scalar(0)), 16, {});
  const std::uint16_t red = 31 << 10, mixed = (3 << 10) | (2 << 5) | 1;
  b[54] = red & 0xFF, b[55] = red >> 8, b[56] = mixed & 0xFF, b[57] = mixed >> 8;
  writeFile(file("16.bmp"), b);
  expectSame(quib::Dib::read_image(file("16.bmp")),
             (cv::Mat_<cv::Vec3b>(1, 2) << cv::Vec3b(0, 0, 255), cv::Vec3b(8, 16, 24)));
}

TEST_F(ReadImage, FailsWithAnEmptyImage) {
  Bytes b = paletteBmp(cv::Mat(4, 4, CV_8UC1, cv::Scalar(1)), 8, {});
  b[28] = 12;  // a depth no reader knows
  writeFile(file("12.bmp"), b);
  b.resize(b.size() - 1);  // the last row cut short
  b[28] = 8;
  writeFile(file("short.bmp"), b);
  for (std::string const& path :
       {file("12.bmp"), file("short.bmp"), file("missing.bmp"), dir.string()}) {
    SCOPED_TRACE(path);
    EXPECT_TRUE(quib::Dib::read_image(path).empty());
  }
  EXPECT_TRUE(quib::Dib::read_image(dir.wstring() + L"/" + wchar_t(0xDC00) + L".bmp").empty());
}

}  // namespace
