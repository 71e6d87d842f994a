#include <quib/image.hpp>
#include <quib/region.hpp>

#include <gtest/gtest.h>

#include <climits>

namespace {

using quib::color_type;
using quib::ImageCoordinator;
using Extent = quib::region::extent<int>;

TEST(Extent, EmptyMarkerIsIntMinNotZero) {
  Extent e(3, 4);
  e.set_empty();
  EXPECT_TRUE(e.empty());
  EXPECT_EQ(e.cx, INT_MIN);
  e.set(0, 0);
  EXPECT_FALSE(e.empty());
  e.cy = INT_MIN;  // one component is enough
  EXPECT_TRUE(e.empty());
}

TEST(Extent, ArithmeticAndConversions) {
  Extent e(-3, 4);
  e.normalize();
  EXPECT_EQ(e.cx, 3);
  EXPECT_EQ(e.cy, 4);
  e += quib::region::POINT<int>{2, -1};
  e -= quib::region::SIZE<int>{1, 1};
  EXPECT_EQ(e.cx, 4);
  EXPECT_EQ(e.cy, 2);
  const Extent n = -e;
  EXPECT_EQ(n.cx, -4);
  EXPECT_EQ(n.cy, -2);
  e.expand(10, 20);
  tagSIZE s = e;
  EXPECT_EQ(s.cx, 14);
  EXPECT_EQ(s.cy, 22);
  s.cx = 7;
  e = s;
  EXPECT_EQ(e.cx, 7);
  e = quib::region::SIZE<int>{9, 8};
  EXPECT_EQ(e.cy, 8);
  e.clear();
  EXPECT_EQ(e.cx + e.cy, 0);
  EXPECT_EQ(Extent::rows(), 2);
  EXPECT_EQ(Extent::cols(), 1);
}

TEST(ImageCoordinator, BlockFormatFollowsTheBitDepth) {
  struct Row {
    int bits, pixels, bytes;
  };
  const Row table[] = {{1, 8, 1},  {2, 4, 1},  {3, 8, 3},  {4, 2, 1},  {8, 1, 1},
                       {12, 1, 2}, {15, 1, 2}, {16, 1, 2}, {24, 1, 3}, {32, 1, 4},
                       {48, 1, 1}, {64, 1, 1}, {0, 1, 1},  {5, 1, 1}};
  for (const Row& r : table) {
    SCOPED_TRACE(r.bits);
    const ImageCoordinator c(r.bits, 4, color_type::undetermined);
    EXPECT_EQ(c.getBits(), r.bits);
    EXPECT_EQ(c.getDenominator(), r.pixels);
    EXPECT_EQ(c.getNumerator(), r.bytes);
  }
}

TEST(ImageCoordinator, SetBitsReplacesACustomBlockFormat) {
  ImageCoordinator c(24, 4, 5, 7, color_type::bgr);  // stored as passed
  EXPECT_EQ(c.getDenominator(), 5);
  EXPECT_EQ(c.getNumerator(), 7);
  c.setNumerator(6);
  c.setAlign(8);
  EXPECT_EQ(c.getNumerator(), 6);
  EXPECT_EQ(c.getBits(), 24);  // setters change nothing else
  c.setBits(24);
  EXPECT_EQ(c.getNumerator(), 3);
  EXPECT_EQ(c.getDenominator(), 1);
  EXPECT_EQ(c.getAlign(), 8);
}

TEST(ImageCoordinator, ChannelCountByColourGroup) {
  auto channels = [](int color, int bits) {
    return ImageCoordinator(bits, 1, static_cast<color_type>(color)).getChannel();
  };
  for (int bits : {12, 15, 16, 24})
    EXPECT_EQ(channels(0, bits), 3) << bits;
  EXPECT_EQ(channels(0, 32), 4);
  for (int bits : {1, 4, 8, 48})
    EXPECT_EQ(channels(0, bits), 1) << bits;
  for (int color = 1; color <= 30; ++color) {
    const int expected = color == 1 || color > 25 ? 1 : (color >= 8 && color <= 11 ? 4 : 3);
    EXPECT_EQ(channels(color, 24), expected) << color;
  }
  EXPECT_EQ(channels(-1, 24), 1);  // outside every group
}

}  // namespace
