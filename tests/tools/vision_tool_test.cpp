// quib contours and quib register on pictures drawn here.
#include "tool_runner.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <string>

namespace {

using quib::test::failsWith;
using quib::test::runTool;

class VisionTool : public quib::test::ToolFiles {};

TEST_F(VisionTool, TracesEachRegionOfAMask) {
  cv::Mat mask(40, 60, CV_8UC1, cv::Scalar(0));
  cv::rectangle(mask, cv::Rect(5, 4, 10, 6), cv::Scalar(255), cv::FILLED);
  cv::rectangle(mask, cv::Rect(30, 20, 20, 12), cv::Scalar(9), cv::FILLED);
  cv::rectangle(mask, cv::Rect(35, 24, 4, 4), cv::Scalar(0), cv::FILLED);  // a hole: not a region
  ASSERT_TRUE(cv::imwrite(file("mask.png"), mask));

  const auto r = runTool({"contours", file("mask.png"), "--overlay", file("overlay.bmp")});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find(": 2 regions\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(" points, area 45, box 5,4 10x6\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("box 30,20 20x12\n"), std::string::npos);
  const cv::Mat overlay = cv::imread(file("overlay.bmp"));
  ASSERT_EQ(overlay.size(), mask.size());
  EXPECT_NE(overlay.at<cv::Vec3b>(4, 5), cv::Vec3b(255, 255, 255));  // outline drawn in colour

  // With 9 as the background, the zero pixels around it form a region too; --json lists the
  // boundary points themselves.
  const auto other = runTool({"contours", "--json", "--background", "9", file("mask.png")});
  ASSERT_EQ(other.code, 0) << other.err;
  const auto regions = nlohmann::json::parse(other.out)["regions"];
  ASSERT_FALSE(regions.empty()) << other.out;
  EXPECT_EQ(regions[0]["box"][0], 0);
  EXPECT_EQ(regions[0]["box"][1], 0);
  EXPECT_EQ(regions[0]["contour"].size(), regions[0]["points"]);
}

TEST_F(VisionTool, ContoursRefuseBadInput) {
  EXPECT_TRUE(
      failsWith(runTool({"contours", writeFile("m.png", "garbage")}), 1, "m.png: not a picture"));
  EXPECT_TRUE(failsWith(runTool({"contours", "--background", "256", "m.png"}), 2, "--background"));
  EXPECT_TRUE(failsWith(runTool({"contours"}), 2, "MASK is required"));
}

TEST_F(VisionTool, RegistersAShiftedPicture) {
  cv::Mat texture(240, 320, CV_8UC1);
  cv::RNG rng(3);
  rng.fill(texture, cv::RNG::UNIFORM, 0, 256);
  cv::GaussianBlur(texture, texture, cv::Size(0, 0), 2.0);
  cv::normalize(texture, texture, 0, 255, cv::NORM_MINMAX);
  const cv::Mat first = texture(cv::Rect(0, 0, 280, 200)).clone();
  const cv::Mat second = texture(cv::Rect(12, 7, 280, 200)).clone();  // moved by (-12, -7)
  ASSERT_TRUE(cv::imwrite(file("a.png"), first));
  ASSERT_TRUE(cv::imwrite(file("b.png"), second));

  const auto r = runTool({"register", "--json", "--ratio", "1.5", file("a.png"), file("b.png"),
                          "--overlay", file("o.png")});
  ASSERT_EQ(r.code, 0) << r.err;
  // Rows [1, 0, -12], [0, 1, -7], [0, 0, 1]: read the translation column.
  const auto h = nlohmann::json::parse(r.out)["homography"];
  EXPECT_NEAR(h[0][2].get<double>(), -12, 0.5) << r.out;
  EXPECT_NEAR(h[1][2].get<double>(), -7, 0.5);
  EXPECT_TRUE(cv::imread(file("o.png")).size() == second.size());

  // A picture without texture has no key points, and no homography follows.
  ASSERT_TRUE(cv::imwrite(file("flat.png"), cv::Mat(100, 100, CV_8UC1, cv::Scalar(128))));
  const auto flat = runTool({"register", file("flat.png"), file("b.png")});
  EXPECT_TRUE(failsWith(flat, 1, "only 0 matches"));
  EXPECT_NE(flat.out.find("key points      0 in"), std::string::npos) << flat.out;

  EXPECT_TRUE(failsWith(runTool({"register", "--matcher", "Magic", "a", "b"}), 2, "'Magic'"));
  EXPECT_TRUE(failsWith(runTool({"register", "--method", "best", "a", "b"}), 2, "best"));
  EXPECT_TRUE(failsWith(runTool({"register", "a"}), 2, "IMAGES"));
}

}  // namespace
