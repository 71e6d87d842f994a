#include <quib/ocv.hpp>

#include <gtest/gtest.h>

#include <vector>

namespace {

cv::Vec3b bgr_at(IplImage const* ipl, int x, int y) {
  return *reinterpret_cast<cv::Vec3b const*>(ipl->imageData + y * ipl->widthStep + 3 * x);
}

TEST(OcvImage, ConvertsEveryBitmapFormatToBgrAndBack) {
  using ct = quib::color_type;
  struct Case {
    int bits;
    ct color;
    std::vector<unsigned char> first;  // the first bytes of row 2
    cv::Vec3b expected;                // BGR of pixel (0, 2)
  };
  const std::vector<Case> cases = {
      {1, ct::grey, {0x80}, {255, 255, 255}},  {4, ct::grey, {0x30}, {51, 51, 51}},
      {8, ct::grey, {77}, {77, 77, 77}},       {16, ct::grey, {0x80, 0x80}, {128, 128, 128}},
      {24, ct::bgr, {1, 2, 3}, {1, 2, 3}},     {24, ct::rgb, {1, 2, 3}, {3, 2, 1}},
      {32, ct::bgra, {1, 2, 3, 0}, {1, 2, 3}}, {32, ct::argb, {0, 1, 2, 3}, {3, 2, 1}},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.bits);
    quib::Image image(9, 3, c.bits, 4, c.color);
    std::copy(c.first.begin(), c.first.end(), image.getBuffer() + 2 * image.getLineBytes());
    const auto bgr = quib::ocv::make_unique_ipl(quib::ocv::createIpl_bgr2(image));
    ASSERT_TRUE(bgr);
    EXPECT_EQ(cv::Size(bgr->width, bgr->height), cv::Size(9, 3));
    EXPECT_EQ(bgr_at(bgr.get(), 0, 2), c.expected);
    EXPECT_EQ(bgr_at(bgr.get(), 8, 2), cv::Vec3b(0, 0, 0));

    // Written back, the image's own bytes return.
    quib::Image back(9, 3, c.bits, 4, c.color);
    ASSERT_TRUE(quib::ocv::copyImage_bgr2(back, bgr.get()));
    EXPECT_EQ(std::memcmp(back.getBuffer(), image.getBuffer(), image.getBufferSize()), 0);
  }
}

TEST(OcvImage, RefusesWhatItCannotConvert) {
  using ct = quib::color_type;
  EXPECT_EQ(quib::ocv::createIpl_bgr2(quib::Image()), nullptr);
  for (auto [bits, color] : {std::pair{12, ct::grey}, std::pair{24, ct::yuv},
                             std::pair{32, ct::cmyk}, std::pair{16, ct::bgr}}) {
    EXPECT_EQ(quib::ocv::createIpl_bgr2(quib::Image(4, 4, bits, 4, color)), nullptr) << bits;
  }
  std::vector<unsigned char> pixels(64);
  quib::Image shortRows(16, 4, 8, pixels.data(), 24, 1, ct::bgr);  // stride 8 for 48 bytes
  EXPECT_EQ(quib::ocv::createIpl_bgr2(shortRows), nullptr);

  quib::Image image(4, 4, 24, 4, ct::bgr);
  const auto small = quib::ocv::make_unique_ipl(quib::ocv::createIpl_bgr2(image));
  quib::Image wider(5, 4, 24, 4, ct::bgr);
  EXPECT_FALSE(quib::ocv::copyImage_bgr2(wider, small.get()));
  EXPECT_FALSE(quib::ocv::copyImage_bgr2(image, nullptr));
  EXPECT_FALSE(quib::ocv::copyImage_bgr2(shortRows, small.get()));
}

TEST(OcvImage, QuantisesPackedGreyAndKeepsNeighbours) {
  quib::Image packed(10, 1, 4, 1, quib::color_type::grey);
  packed.getBuffer()[4] = 0xab;  // pixels 8 and 9 are not written below
  const auto bgr = quib::ocv::make_unique_ipl(quib::ocv::createIpl_bgr2(packed));
  auto* row = reinterpret_cast<unsigned char*>(bgr->imageData);
  for (int x = 0; x < 8; ++x)
    row[3 * x] = row[3 * x + 1] = row[3 * x + 2] = x * 34;
  ASSERT_TRUE(quib::ocv::copyImage_bgr2(packed, bgr.get()));
  EXPECT_EQ(packed.getBuffer()[0], 0x02);  // 0 and 34 -> levels 0 and 2
  EXPECT_EQ(packed.getBuffer()[3], 0xce);  // 204 and 238 -> levels 12 and 14
  EXPECT_EQ(packed.getBuffer()[4], 0xab);
}

}  // namespace
