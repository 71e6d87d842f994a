#include <quib/image.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <vector>

namespace {

using quib::color_type;
using quib::Image;
using quib::ImageCoordinator;

// Bytes of a row from the meaning of each depth rather than from the block table.
int expectedRowBytes(int width, int bits, int align) {
  int bytes = width;
  switch (bits) {
    case 1:
    case 2:
    case 4:
      bytes = (width * bits + 7) / 8;
      break;
    case 3:
      bytes = (width + 7) / 8 * 3;
      break;  // 8 pixels in 3 bytes
    case 12:
    case 15:
    case 16:
      bytes = 2 * width;
      break;
    case 24:
      bytes = 3 * width;
      break;
    case 32:
      bytes = 4 * width;
      break;
    default:
      break;  // one byte per pixel
  }
  return (bytes + align - 1) / align * align;
}

TEST(Image, RowLengthAcrossDepthsAndAlignments) {
  for (int bits : {1, 2, 3, 4, 8, 12, 15, 16, 24, 32, 48}) {
    for (int align : {1, 2, 4, 8}) {
      for (int width = 0; width <= 41; ++width) {
        SCOPED_TRACE(testing::Message() << bits << " bits, align " << align << ", width " << width);
        const Image image(width, 2, bits, align, color_type::undetermined);
        ASSERT_EQ(image.getLineBytes(), expectedRowBytes(width, bits, align));
        EXPECT_EQ(image.getBufferSize(), 2u * image.getLineBytes());
        EXPECT_GE(image.getLinePixel(), width);
      }
    }
  }
}

TEST(Image, OwnedBufferStartsZeroAndReportsItsShape) {
  const Image image(5, 3, 24, 4, color_type::undetermined);
  EXPECT_EQ(image.getLineBytes(), 16);
  EXPECT_EQ(image.getBufferSize(), 48u);
  EXPECT_EQ(image.getChannel(), 3);
  EXPECT_EQ(image.getLinePixel(), 6);  // the stride holds one more whole pixel
  EXPECT_FALSE(image.isBorrowed());
  const unsigned char* p = image.getBuffer();
  EXPECT_TRUE(std::all_of(p, p + 48, [](unsigned char b) { return b == 0; }));
  const auto rect = image.getRect();
  EXPECT_EQ(rect.right, 5);
  EXPECT_EQ(rect.bottom, 3);
  EXPECT_EQ(image.getExtent().cx, 5);
}

TEST(Image, SubByteAddressing) {
  Image mono(33, 2, 1, 4, color_type::grey);
  EXPECT_EQ(mono.getLineBytes(), 8);
  EXPECT_EQ(mono.getLinePixel(), 64);
  EXPECT_EQ(mono.getAddress({9, 1}), mono.getBuffer() + 8 + 1);
  EXPECT_EQ(mono.getAddress({7, 1}), mono.getBuffer() + 8);

  Image three(8, 1, 3, 1, color_type::undetermined);
  EXPECT_EQ(three.getLineBytes(), 3);
  EXPECT_EQ(three.getAddress({7, 0}), three.getBuffer());      // same 3-byte block
  EXPECT_EQ(three.getAddress({8, 0}), three.getBuffer() + 3);  // the next block

  Image nibble(5, 2, 4, 1, color_type::grey);
  EXPECT_EQ(nibble.getAddress({3, 1}), nibble.getBuffer() + 3 + 1);
}

TEST(Image, AddressingThroughAForeignLayout) {
  Image image(10, 4, 8, 1, color_type::grey);
  // Read the same bytes as if they were 24-bit rows aligned to 4: stride 32.
  const ImageCoordinator bgr(24, 4, color_type::bgr);
  EXPECT_EQ(image.getAddress({2, 3}, bgr), image.getBuffer() + 3 * 32 + 6);
  EXPECT_EQ(image.getAddress({2, 3}, 24, 4), image.getBuffer() + 3 * 32 + 6);
  EXPECT_EQ(image.getAddress({9, 1}, 1, 2), image.getBuffer() + 2 + 1);
}

TEST(Image, CopiesShareUntilDeepCopied) {
  Image a(4, 4, 8, 1, color_type::grey);
  Image b = a;
  *b.getAddress({1, 1}) = 7;
  EXPECT_EQ(*a.getAddress({1, 1}), 7);

  Image c;
  c.with(a);
  EXPECT_EQ(c.getBuffer(), a.getBuffer());

  b.copy(a);
  EXPECT_NE(b.getBuffer(), a.getBuffer());
  EXPECT_EQ(*b.getAddress({1, 1}), 7);
  *b.getAddress({1, 1}) = 9;
  EXPECT_EQ(*a.getAddress({1, 1}), 7);
  EXPECT_FALSE(b.isBorrowed());

  unsigned char external[16] = {};
  Image borrowed(4, 4, external, 8, 1, color_type::grey);
  Image deep;
  deep.copy(borrowed);  // a deep copy of borrowed pixels is owned
  EXPECT_FALSE(deep.isBorrowed());
  EXPECT_TRUE(borrowed.isBorrowed());

  Image nothing(3, 3, 8, 1, color_type::grey);
  nothing.copy(Image());  // no source pixels: the same as with()
  EXPECT_TRUE(nothing.empty());
  EXPECT_EQ(nothing.getWidth(), 0);
}

TEST(Image, ClearSwapAndDefaultState) {
  const Image none;
  EXPECT_TRUE(none.empty());
  EXPECT_EQ(none.getWidth(), 0);
  EXPECT_EQ(none.getBits(), 8);
  EXPECT_EQ(none.getAlign(), 1);

  const Image zero(0, 0, 8, 1, color_type::grey);
  EXPECT_FALSE(zero.empty());  // a 0x0 image with a buffer is not empty

  Image a(3, 2, 24, 4, color_type::bgr);
  Image b(7, 1, 8, 1, color_type::grey);
  unsigned char* pa = a.getBuffer();
  a.swap(b);
  EXPECT_EQ(b.getBuffer(), pa);
  EXPECT_EQ(b.getWidth(), 3);
  EXPECT_EQ(a.getBits(), 8);
  b.clear();
  EXPECT_TRUE(b.empty());
  EXPECT_EQ(b.getCoordinator(), none.getCoordinator());

  Image moved(std::move(a));
  EXPECT_EQ(moved.getWidth(), 7);
  EXPECT_TRUE(a.empty());  // NOLINT: a moved-from image is empty
}

TEST(Image, ContainsUsesUnsignedComparison) {
  const Image image(4, 3, 8, 1, color_type::grey);
  EXPECT_FALSE(image.contains({-1, 0}));
  EXPECT_FALSE(image.contains({0, -1}));
  EXPECT_TRUE(image.contains({3, 2}));
  EXPECT_FALSE(image.contains({4, 2}));
  EXPECT_FALSE(image.contains({3, 3}));
}

TEST(Image, BorrowedMemorySurvivesSetExtent) {
  std::vector<unsigned char> external(64);
  std::iota(external.begin(), external.end(), 0);
  Image image(8, 8, external.data(), 8, 1, color_type::grey);
  image.setExtent({4, 4}, 24, 4);
  EXPECT_EQ(image.getBuffer(), external.data());
  EXPECT_TRUE(image.isBorrowed());
  EXPECT_EQ(image.getLineBytes(), 12);
  EXPECT_EQ(image.getBits(), 24);
  EXPECT_EQ(image.getAddress({1, 2})[0], 2 * 12 + 3);  // the same bytes, read with the new layout
  image.setExtent({2, 2});
  EXPECT_EQ(image.getLineBytes(), 8);  // 2 pixels of 3 bytes, aligned to 4
  EXPECT_EQ(external[5], 5);           // nothing was written
}

TEST(Image, SetExtentOfOwnedPixelsCopiesOneFlatRun) {
  Image image(4, 2, 8, 1, color_type::grey);
  for (int i = 0; i < 8; ++i)
    image.getBuffer()[i] = static_cast<unsigned char>(i + 1);
  unsigned char* before = image.getBuffer();
  image.setExtent({2, 4});
  EXPECT_NE(image.getBuffer(), before);
  for (int i = 0; i < 8; ++i)
    EXPECT_EQ(image.getBuffer()[i], i + 1);

  // A wider stride shears the content: bytes keep their flat positions.
  image.setExtent({3, 4}, 8, 4);
  EXPECT_EQ(image.getLineBytes(), 4);
  EXPECT_EQ(image.getBufferSize(), 16u);
  for (int i = 0; i < 8; ++i)
    EXPECT_EQ(image.getBuffer()[i], i + 1);
  for (int i = 8; i < 16; ++i)
    EXPECT_EQ(image.getBuffer()[i], 0);

  image.setExtent({1, 1});  // shrinking keeps the first bytes
  EXPECT_EQ(image.getBufferSize(), 4u);
  EXPECT_EQ(image.getBuffer()[0], 1);

  Image empty;
  empty.setExtent({2, 2}, 16, 1);
  EXPECT_FALSE(empty.empty());
  EXPECT_EQ(empty.getBufferSize(), 8u);
}

TEST(Image, MatViewDepthMapping) {
  struct Row {
    int bitsPerChannel, depth;
  };
  const Row rows[] = {{1, CV_8U},   {8, CV_8U},   {9, CV_16U},  {12, CV_16U}, {16, CV_16U},
                      {17, CV_32F}, {32, CV_32F}, {33, CV_64F}, {64, CV_64F}, {65, 7}};
  std::vector<unsigned char> data(4096);
  for (const Row& r : rows) {
    SCOPED_TRACE(r.bitsPerChannel);
    const cv::Mat m = Image::makeMat(4, 2, 512, data.data(), data.size(), 2, r.bitsPerChannel, 1);
    EXPECT_EQ(m.depth(), r.depth);
    EXPECT_EQ(m.channels(), 2);
    EXPECT_EQ(m.step[0], 512u);
    EXPECT_EQ(m.data, data.data());
  }
  const Image twelve(4, 2, 12, 1, color_type::undetermined);
  EXPECT_EQ(twelve.makeMat(1).depth(), CV_16U);  // 12 bits in one channel
}

TEST(Image, MatViewSharesThePixels) {
  Image image(5, 3, 24, 4, color_type::bgr);
  cv::Mat view = image.makeMat();
  ASSERT_EQ(view.type(), CV_8UC3);
  view.at<cv::Vec3b>(2, 4) = cv::Vec3b(1, 2, 3);
  EXPECT_EQ(image.getAddress({4, 2})[2], 3);
  const cv::Mat grey = image.makeMat(1, 8);
  EXPECT_EQ(grey.cols, 5);
  EXPECT_EQ(grey.step[0], 16u);
}

TEST(Image, IplViewDepthMapping) {
  unsigned char data[64] = {};
  for (int bpc : {1, 8, 16, 32}) {
    EXPECT_EQ(Image::makeIpl(4, 2, 16, data, 32, 1, bpc, 4).depth, bpc);
  }
  for (int bpc : {0, 2, 12, 24, 64})
    EXPECT_EQ(Image::makeIpl(4, 2, 16, data, 32, 1, bpc, 4).depth, 8);

  const Image image(5, 3, 24, 4, color_type::bgr);
  const IplImage ipl = image.makeIpl();
  EXPECT_EQ(ipl.nSize, static_cast<int>(sizeof(IplImage)));
  EXPECT_EQ(ipl.nChannels, 3);
  EXPECT_EQ(ipl.depth, 8);
  EXPECT_EQ(ipl.widthStep, 16);
  EXPECT_EQ(ipl.imageSize, 48);
  EXPECT_EQ(ipl.align, 4);
  EXPECT_EQ(ipl.origin, 0);
  EXPECT_EQ(ipl.roi, nullptr);
  EXPECT_EQ(reinterpret_cast<const unsigned char*>(ipl.imageData), image.getBuffer());
  EXPECT_EQ(ipl.imageDataOrigin, ipl.imageData);
  const Image twelve(4, 2, 12, 1, color_type::undetermined);
  EXPECT_EQ(twelve.makeIpl(1).depth, 8);  // 12 bits per channel is not an IPL depth
}

}  // namespace
