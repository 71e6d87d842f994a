// quib calibrate, quib undistort and quib demo on chessboard views rendered here.
#include "board_render.hpp"
#include "image_io.hpp"
#include "tool_runner.hpp"

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include <quib/projection.hpp>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <string>

namespace {

using quib::test::failsWith;
using quib::test::runTool;

class CameraTool : public quib::test::ToolFiles {
 protected:
  // Five views of a 7x5 board, 30 units apart, through a 480x360 camera with barrel distortion.
  std::vector<std::string> renderViews() {
    quib::tool::Lens lens;
    lens.size = cv::Size(480, 360);
    lens.matrix = cv::Matx33d(420, 0, 243, 0, 418, 176, 0, 0, 1);
    lens.distortion = cv::Vec4d(-0.2, 0.05, 0, 0);
    quib::tool::Board board;
    board.columns = 7;
    board.rows = 5;
    board.square = 30;
    const quib::tool::BoardRenderer renderer(lens, board);
    std::vector<std::string> files;
    for (int i = 0; i < 5; ++i) {
      const cv::Vec3d rvec(0.35 * std::sin(i * 1.9), 0.4 * std::cos(i * 2.1), 0.1 * i);
      const cv::Vec3d tvec(10.0 * i - 20, 8.0 - 4 * i, 480 + 10 * i);
      files.push_back(file("view" + std::to_string(i) + (i == 4 ? ".bmp" : ".png")));
      quib::tool::writeImage(files.back(), renderer.render(rvec, tvec));
    }
    return files;
  }
};

TEST_F(CameraTool, CalibratesSavesAndUndistorts) {
  std::vector<std::string> args = {"calibrate",
                                   "--board",
                                   "7x5",
                                   "--square",
                                   "30",
                                   "--out",
                                   file("cam.yml"),
                                   "--draw",
                                   file("drawn"),
                                   "--json",
                                   "--residuals",
                                   file("residuals.png"),
                                   "--coverage",
                                   file("coverage.png")};
  const auto views = renderViews();
  args.insert(args.end(), views.begin(), views.end());
  const std::string blank = file("blank.png");
  ASSERT_TRUE(cv::imwrite(blank, cv::Mat(360, 480, CV_8UC1, cv::Scalar(200))));
  args.push_back(blank);

  const auto r = runTool(args);
  ASSERT_EQ(r.code, 0) << r.err;
  const auto value = [&](char const* key) {
    const auto at = r.out.find(std::string("\"") + key + "\": ");
    return at == std::string::npos
               ? NAN
               : std::strtod(r.out.c_str() + at + 4 + std::strlen(key), nullptr);
  };
  EXPECT_NEAR(value("fx"), 420, 6);
  EXPECT_NEAR(value("cy"), 176, 6);
  EXPECT_NEAR(value("k1"), -0.2, 0.05);
  EXPECT_LT(value("mean_error"), 0.3);
  EXPECT_LT(value("rms_error"), 0.3);
  // The standard deviations follow the camera; every accepted view carries its pose.
  const auto deviations = r.out.find("\"deviations\"");
  ASSERT_NE(deviations, std::string::npos) << r.out;
  const double fxDeviation =
      std::strtod(r.out.c_str() + r.out.find("\"fx\": ", deviations) + 6, nullptr);
  EXPECT_GT(fxDeviation, 0.0);
  EXPECT_LT(fxDeviation, 6.0);
  EXPECT_NE(r.out.find("\"translation\": ["), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\"status\": \"board not found\""), std::string::npos) << r.out;
  EXPECT_TRUE(std::filesystem::exists(file("drawn/view4.png")));
  // Both pictures are drawn over the first view and differ from it.
  const cv::Mat first = cv::imread(views[0]);
  for (char const* name : {"residuals.png", "coverage.png"}) {
    const cv::Mat picture = cv::imread(file(name));
    ASSERT_EQ(picture.size(), cv::Size(480, 360)) << name;
    EXPECT_GT(cv::norm(picture, first, cv::NORM_L1), 0.0) << name;
  }

  // The rendering lens without distortion: about 0.2 * r^2 apart towards the corners.
  const double matrix[9] = {420, 0, 243, 0, 418, 176, 0, 0, 1};
  const double distortion[4] = {0, 0, 0, 0};
  const double pose[3] = {0, 0, 0};
  ASSERT_TRUE(
      quib::Projection({480, 360}, matrix, distortion, pose, pose).save_setup(file("other.yml")));
  // A camera compared with itself differs by nothing; the calibrated, distorted one differs.
  const auto same = runTool({"calibrate", "--compare", file("cam.yml"), file("cam.yml"), "--json"});
  ASSERT_EQ(same.code, 0) << same.err;
  const auto number = [](std::string const& out, std::string const& key) {
    const auto at = out.find("\"" + key + "\": ");
    return at == std::string::npos ? NAN : std::strtod(out.c_str() + at + key.size() + 4, nullptr);
  };
  EXPECT_LT(number(same.out, "max"), 1e-9) << same.out;
  EXPECT_LT(number(same.out, "rms"), 1e-9) << same.out;
  const auto differ = runTool({"calibrate", "--compare", file("cam.yml"), file("other.yml")});
  ASSERT_EQ(differ.code, 0) << differ.err;
  const auto max = differ.out.find("max ");
  ASSERT_NE(max, std::string::npos) << differ.out;
  EXPECT_GT(std::strtod(differ.out.c_str() + max + 4, nullptr), 1.0) << differ.out;

  // The camera file is used at once, on a bitmap and on a PNG.
  const auto u = runTool(
      {"undistort", "--camera", file("cam.yml"), "--out", file("flat"), views[4], views[0]});
  ASSERT_EQ(u.code, 0) << u.err;
  EXPECT_EQ(u.out, views[4] + " -> " + file("flat/view4.bmp") + "\n" + views[0] + " -> " +
                       file("flat/view0.png") + "\n");
  EXPECT_EQ(cv::imread(file("flat/view4.bmp")).size(), cv::Size(480, 360));
}

TEST_F(CameraTool, RefusesTooFewViewsAndBadCameraFiles) {
  const std::string blank = file("blank.png");
  ASSERT_TRUE(cv::imwrite(blank, cv::Mat(60, 80, CV_8UC1, cv::Scalar(200))));
  const auto none = runTool({"calibrate", "--board", "9x6", "--square", "24", "--out",
                             file("c.yml"), blank, file("missing.png")});
  EXPECT_EQ(none.code, 1);
  EXPECT_NE(none.err.find(file("missing.png") + ": no such file"), std::string::npos);
  EXPECT_NE(none.err.find("found in 0 of 2 pictures"), std::string::npos) << none.err;
  EXPECT_FALSE(std::filesystem::exists(file("c.yml")));

  const std::string notCamera = writeFile("c.yml", "%YAML:1.0\nformat: \"camera\"\n");
  EXPECT_TRUE(failsWith(runTool({"undistort", "--camera", notCamera, "--out", file("o"), blank}), 1,
                        "c.yml: not a camera file"));
  EXPECT_TRUE(
      failsWith(runTool({"undistort", "--camera", file("nope.yml"), "--out", file("o"), blank}), 1,
                "nope.yml: no such file"));

  EXPECT_TRUE(failsWith(runTool({"calibrate", "--square", "24", blank}), 2, "--board"));
  EXPECT_TRUE(failsWith(runTool({"calibrate", "--board", "9", "--square", "24", blank}), 2,
                        "--board: wants"));
  EXPECT_TRUE(failsWith(runTool({"calibrate", "--board", "9x6", "--square", "2.5", blank}), 2,
                        "--square: wants"));
  EXPECT_TRUE(failsWith(runTool({"calibrate", "--board", "9x6", "--square", "24"}), 2,
                        "IMAGES is required"));
  EXPECT_TRUE(failsWith(runTool({"undistort", "--camera", "c.yml", blank}), 2, "--out"));

  const auto missing = runTool({"calibrate", "--compare", file("nope.yml"), notCamera});
  EXPECT_TRUE(failsWith(missing, 1, "nope.yml: no such file"));
  EXPECT_EQ(std::count(missing.err.begin(), missing.err.end(), '\n'), 1) << missing.err;
  EXPECT_TRUE(failsWith(runTool({"calibrate", "--compare", notCamera, notCamera}), 1,
                        "c.yml: not a camera file"));
  EXPECT_TRUE(failsWith(runTool({"calibrate", "--compare", notCamera}), 2, "--compare"));
  EXPECT_TRUE(
      failsWith(runTool({"calibrate", "--compare", notCamera, notCamera, blank}), 2, "--compare"));
}

}  // namespace

namespace {

TEST_F(CameraTool, DemoRecoversTheCameraAndMeasuresTheScene) {
  const auto r = runTool({"demo", "--json", "--out", file("demo")});
  ASSERT_EQ(r.code, 0) << r.err;
  const auto after = [&](std::string const& key, std::size_t from = 0) {
    const auto at = r.out.find("\"" + key + "\": ", from);
    return at == std::string::npos ? NAN
                                   : std::strtod(r.out.c_str() + at + key.size() + 4, nullptr);
  };
  EXPECT_EQ(after("accepted"), 12);
  const auto fx = r.out.find("\"fx\"");
  EXPECT_NEAR(after("recovered", fx), after("true", fx), 2);
  EXPECT_LT(after("mean_error"), 0.3);
  EXPECT_NEAR(after("radius"), after("true_radius"), 0.3);
  EXPECT_LT(after("normal_error_degrees"), 1);
  EXPECT_TRUE(std::filesystem::exists(file("demo/camera.yml")));
  EXPECT_TRUE(std::filesystem::exists(file("demo/view1-undistorted.png")));
  EXPECT_TRUE(failsWith(runTool({"demo", "extra"}), 2, "unexpected argument 'extra'"));
}

}  // namespace
