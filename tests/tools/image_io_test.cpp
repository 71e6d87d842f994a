// Pictures in and out of the vision subcommands: bitmaps through the library's streamer,
// everything else through OpenCV, with rows in picture order either way.
#include "image_io.hpp"
#include "cli.hpp"
#include "tool_runner.hpp"

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include <string>

namespace {

using quib::tool::read_as;

class ImageIo : public quib::test::ToolFiles {};

cv::Mat pattern(int width, int height, int type) {
  cv::Mat m(height, width, type);
  cv::randu(m, 0, 256);
  return m;
}

TEST_F(ImageIo, BitmapsRoundTripInPictureOrder) {
  for (int width : {1, 3, 5, 8}) {
    for (int type : {CV_8UC1, CV_8UC3}) {
      SCOPED_TRACE(std::to_string(width) + (type == CV_8UC1 ? " grey" : " colour"));
      const cv::Mat picture = pattern(width, 7, type);
      const std::string path = file("p.bmp");
      quib::tool::writeImage(path, picture);
      // OpenCV, an independent reader, agrees with what was written...
      const cv::Mat seen = cv::imread(path, cv::IMREAD_UNCHANGED);
      ASSERT_EQ(seen.type(), type);
      EXPECT_EQ(cv::norm(seen, picture, cv::NORM_INF), 0);
      // ...and so does our own reading.
      const read_as mode = type == CV_8UC1 ? read_as::grey : read_as::colour;
      EXPECT_EQ(cv::norm(quib::tool::readImage(path, mode), picture, cv::NORM_INF), 0);
    }
  }
}

TEST_F(ImageIo, ReadsTopDownAndPaletteBitmapsFromOtherWriters) {
  // OpenCV writes an 8-bit grey bitmap with a grey ramp as its table.
  const cv::Mat grey = pattern(6, 4, CV_8UC1);
  ASSERT_TRUE(cv::imwrite(file("g.bmp"), grey));
  EXPECT_EQ(cv::norm(quib::tool::readImage(file("g.bmp"), read_as::grey), grey, cv::NORM_INF), 0);

  // A top-down 8-bit file whose table maps index 0 to red and 1 to blue.
  std::string b(54 + 8 + 2 * 4, '\0');
  const auto put = [&](std::size_t at, std::uint32_t v) {
    for (int i = 0; i < 4; ++i)
      b[at + i] = static_cast<char>(v >> (8 * i));
  };
  b[0] = 'B';
  b[1] = 'M';
  put(2, static_cast<std::uint32_t>(b.size()));
  put(10, 62);
  put(14, 40);
  put(18, 1);
  put(22, static_cast<std::uint32_t>(-2));
  b[26] = 1;
  b[28] = 8;
  put(54, 0x00FF0000u);  // red
  put(58, 0x000000FFu);  // blue
  b[62] = 0;             // first stored row: the top of the picture
  b[66] = 1;
  const cv::Mat read = quib::tool::readImage(writeFile("t.bmp", b), read_as::colour);
  ASSERT_EQ(read.size(), cv::Size(1, 2));
  EXPECT_EQ(read.at<cv::Vec3b>(0, 0), cv::Vec3b(0, 0, 255));
  EXPECT_EQ(read.at<cv::Vec3b>(1, 0), cv::Vec3b(255, 0, 0));
}

TEST_F(ImageIo, NamesTheFileWhenItFails) {
  const std::string junk = writeFile("junk.png", "not a picture");
  try {
    quib::tool::readImage(junk, read_as::colour);
    FAIL() << "no failure";
  } catch (quib::tool::Failure const& f) {
    EXPECT_EQ(f.file(), junk);
  }
  EXPECT_THROW(quib::tool::writeImage(file("x.unknownformat"), pattern(2, 2, CV_8UC1)),
               quib::tool::Failure);
  EXPECT_THROW(quib::tool::writeImage(file("missing/dir/x.bmp"), pattern(2, 2, CV_8UC1)),
               quib::tool::Failure);
}

}  // namespace
