#include <quib/ocv.hpp>

#include <gtest/gtest.h>

#include <vector>

namespace {

cv::Vec3b bgr_at(IplImage const* ipl, int x, int y) {
  return *reinterpret_cast<cv::Vec3b const*>(ipl->imageData + y * ipl->widthStep + 3 * x);
}

struct Case {
  int bits;
  quib::color_type color;
  std::vector<unsigned char> pixel0;  // bytes of pixel 0 (or of the first byte for packed)
  cv::Vec3b expected;
};

TEST(OcvImage, ConvertsEveryBitmapFormatToBgr) {
  using ct = quib::color_type;
  const std::vector<Case> cases = {
      {1, ct::grey, {0x80}, {255, 255, 255}},
      {2, ct::grey, {0x40}, {85, 85, 85}},
      {4, ct::grey, {0x30}, {51, 51, 51}},
      {8, ct::grey, {77}, {77, 77, 77}},
      {16, ct::grey, {0xff, 0xff}, {255, 255, 255}},
      {16, ct::undetermined, {0x00, 0x80}, {128, 128, 128}},
      {24, ct::bgr, {1, 2, 3}, {1, 2, 3}},
      {24, ct::rgb, {1, 2, 3}, {3, 2, 1}},
      {32, ct::bgra, {1, 2, 3, 4}, {1, 2, 3}},
      {32, ct::rgba, {1, 2, 3, 4}, {3, 2, 1}},
      {32, ct::argb, {4, 1, 2, 3}, {3, 2, 1}},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.bits);
    SCOPED_TRACE(static_cast<int>(c.color));
    quib::Image image(9, 3, c.bits, 4, c.color);
    unsigned char* last = image.getBuffer() + 2 * image.getLineBytes();
    std::copy(c.pixel0.begin(), c.pixel0.end(), last);  // pixel (0, 2)
    const quib::ocv::unique_ipl bgr = quib::ocv::make_unique_ipl(quib::ocv::createIpl_bgr2(image));
    ASSERT_TRUE(bgr);
    EXPECT_EQ(bgr->width, 9);
    EXPECT_EQ(bgr->height, 3);
    EXPECT_EQ(bgr->nChannels, 3);
    EXPECT_EQ(bgr->depth, IPL_DEPTH_8U);
    EXPECT_EQ(bgr_at(bgr.get(), 0, 2), c.expected);
    EXPECT_EQ(bgr_at(bgr.get(), 8, 2), cv::Vec3b(0, 0, 0));
    EXPECT_EQ(bgr_at(bgr.get(), 0, 0), cv::Vec3b(0, 0, 0));

    // Writing the same BGR back reproduces the image's own bytes; a fresh image's alpha
    // stays 0, and 16 bits come back as the 8-bit level stretched (0x80 -> 0x8080).
    quib::Image back(9, 3, c.bits, 4, c.color);
    ASSERT_TRUE(quib::ocv::copyImage_bgr2(back, bgr.get()));
    const int alpha = c.bits != 32 ? -1 : c.color == ct::argb ? 0 : 3;
    for (int i = 0; i < static_cast<int>(c.pixel0.size()); ++i) {
      const unsigned char want = i == alpha ? 0 : c.bits == 16 ? last[1] : last[i];
      EXPECT_EQ(back.getBuffer()[2 * back.getLineBytes() + i], want) << i;
    }
  }
}

TEST(OcvImage, RefusesWhatItCannotConvert) {
  using ct = quib::color_type;
  EXPECT_EQ(quib::ocv::createIpl_bgr2(quib::Image()), nullptr);
  for (auto [bits, color] : {std::pair{12, ct::grey}, std::pair{24, ct::yuv},
                             std::pair{32, ct::cmyk}, std::pair{16, ct::bgr}}) {
    SCOPED_TRACE(bits);
    quib::Image image(4, 4, bits, 4, color);
    EXPECT_EQ(quib::ocv::createIpl_bgr2(image), nullptr);
  }
  // A stride too short for the width.
  std::vector<unsigned char> pixels(64);
  quib::Image lying(16, 4, 8, pixels.data(), 24, 1, ct::bgr);
  EXPECT_EQ(quib::ocv::createIpl_bgr2(lying), nullptr);

  quib::Image image(4, 4, 24, 4, ct::bgr);
  quib::ocv::unique_ipl small = quib::ocv::make_unique_ipl(quib::ocv::createIpl_bgr2(image));
  quib::Image other(5, 4, 24, 4, ct::bgr);
  EXPECT_FALSE(quib::ocv::copyImage_bgr2(other, small.get()));
  EXPECT_FALSE(quib::ocv::copyImage_bgr2(image, nullptr));
  EXPECT_FALSE(quib::ocv::copyImage_bgr2(lying, small.get()));
}

TEST(OcvImage, WritesGreyLevelsBackQuantised) {
  quib::Image packed(10, 1, 4, 1, quib::color_type::grey);
  packed.getBuffer()[4] = 0xab;  // pixels 8 and 9 must survive
  quib::ocv::unique_ipl bgr = quib::ocv::make_unique_ipl(quib::ocv::createIpl_bgr2(packed));
  unsigned char* row = reinterpret_cast<unsigned char*>(bgr->imageData);
  for (int x = 0; x < 8; ++x)
    row[3 * x] = row[3 * x + 1] = row[3 * x + 2] = x * 34;  // 0 .. 238
  ASSERT_TRUE(quib::ocv::copyImage_bgr2(packed, bgr.get()));
  EXPECT_EQ(packed.getBuffer()[0], 0x02);  // 0 and 34 -> levels 0, 2
  EXPECT_EQ(packed.getBuffer()[3], 0xce);  // 204 and 238 -> levels 12, 14
  EXPECT_EQ(packed.getBuffer()[4], 0xab);
}

}  // namespace
