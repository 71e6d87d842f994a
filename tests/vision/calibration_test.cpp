#include <quib/calibration.hpp>

#include "chessboard_views.hpp"

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>

#include <algorithm>
#include <cmath>
#include <vector>

namespace {

const cv::Size kSize(640, 480);
const cv::Matx33d kCamera(620, 0, 322, 0, 615, 238, 0, 0, 1);
const cv::Vec4d kLens(-0.12, 0.05, 0.001, -0.0008);

// Renders every pose and hands the views to a calibration, alternately as 24-bit BGR and as
// 8-bit grey images.
struct Views {
  quib::Calibration calib;
  quib::Calibration::Info info;
  std::vector<quib::test::BoardPose> poses = quib::test::board_poses(560);
  int accepted = 0;
  Views(cv::Vec4d lens, quib::Calibration::Info geometry) : info(geometry) {
    const quib::test::BoardRenderer renderer(kSize, kCamera, lens);
    for (std::size_t i = 0; i < poses.size(); ++i) {
      const cv::Mat grey =
          renderer.render(poses[i], info.columns, info.rows, info.square_width, info.square_height);
      const bool colour = i % 2 == 0;
      quib::Image image(grey.cols, grey.rows, colour ? 24 : 8, 4,
                        colour ? quib::color_type::bgr : quib::color_type::grey);
      cv::Mat view = image.makeMat();
      if (colour)
        cv::cvtColor(grey, view, cv::COLOR_GRAY2BGR);
      else
        grey.copyTo(view);
      accepted += calib.calibration(info, image);
    }
  }
};

TEST(Calibration, RecoversCameraFromRenderedViews) {
  for (cv::Vec4d lens : {cv::Vec4d(), kLens}) {
    SCOPED_TRACE(lens);
    Views views{lens, quib::Calibration::Info()};
    ASSERT_EQ(views.accepted, static_cast<int>(views.poses.size()));
    EXPECT_EQ(views.info.corners.size(), 70u * views.poses.size());
    EXPECT_EQ(views.info.counts, std::vector<int>(views.poses.size(), 70));
    EXPECT_EQ(views.calib.get_size().cx, 640);

    quib::Projection p;
    ASSERT_TRUE(views.calib.get_camera_matrix(views.info, p));
    EXPECT_TRUE(p.empty());  // the size stays the caller's
    for (int i : {0, 2, 4, 5}) {
      EXPECT_NEAR(p.get_matrix_array()[i], kCamera.val[i], 0.005 * kCamera.val[i]) << i;
    }
    // The lens is judged by what it does: with the true intrinsics, the recovered and the true
    // coefficients move points alike within a pixel over the part of the image the boards
    // covered (the lens itself moves them up to 4 pixels there; k1 and k2 trade off).
    std::vector<cv::Point2d> grid;
    for (int y = 100; y <= 380; y += 70) {
      for (int x = 140; x <= 500; x += 60)
        grid.emplace_back(x, y);
    }
    std::vector<cv::Point2d> recovered;
    std::vector<cv::Point2d> truth;
    cv::undistortPoints(grid, recovered, kCamera, p.get_distortion_cv());
    cv::undistortPoints(grid, truth, kCamera, lens);
    for (std::size_t i = 0; i < grid.size(); ++i) {
      EXPECT_LT(cv::norm(recovered[i] - truth[i]) * kCamera(0, 0), 1.0) << grid[i];
    }
  }
}

TEST(Calibration, RefusesWhatItCannotUse) {
  const quib::test::BoardRenderer renderer(kSize, kCamera, cv::Vec4d());
  quib::Image board(640, 480, 8, 4, quib::color_type::grey);
  renderer.render(quib::test::board_poses(560)[0], 10, 7, 24, 24).copyTo(board.makeMat());
  quib::Calibration calib;
  quib::Calibration::Info info;
  ASSERT_TRUE(calib.calibration(info, board));
  const auto corners = info.corners;

  // Blank, unconvertible and empty images add nothing and keep the size.
  quib::Image blank(320, 200, 24, 4, quib::color_type::bgr);
  EXPECT_FALSE(calib.calibration(info, blank));
  EXPECT_FALSE(calib.calibration(info, quib::Image(320, 200, 12, 4, quib::color_type::grey)));
  EXPECT_FALSE(calib.calibration(info, quib::Image()));
  EXPECT_EQ(info.corners, corners);
  EXPECT_EQ(info.counts.size(), 1u);
  EXPECT_EQ(info.found.size(), 1u);
  EXPECT_EQ(calib.get_size().cx, 640);

  // Solvers refuse a record without views, or one that no longer matches its geometry, and
  // leave their outputs alone.
  double m[9] = {7, 7, 7, 7, 7, 7, 7, 7, 7};
  double d[4] = {7, 7, 7, 7};
  double r[3] = {7, 7, 7};
  double t[3] = {7, 7, 7};
  info.columns = 11;
  EXPECT_FALSE(calib.get_camera_matrix(info, m, d, r, t));
  EXPECT_FALSE(calib.get_chess_extrinsic_parameters(info, m, d, r, t));
  info.clear();
  EXPECT_FALSE(info.is());
  EXPECT_EQ(info.columns, 11);
  EXPECT_FALSE(calib.get_camera_matrix(info, m, d, r, t));
  EXPECT_FALSE(calib.get_chess_extrinsic_parameters(info, m, d, r, t));
  EXPECT_TRUE(std::all_of(std::begin(m), std::end(m), [](double v) { return v == 7; }));
  EXPECT_TRUE(std::all_of(std::begin(r), std::end(r), [](double v) { return v == 7; }));
}

TEST(Calibration, ObjectPointsAreCentredOnTheMiddleCorner) {
  const auto points = quib::Calibration::Info().get_object_points();
  ASSERT_EQ(points.size(), 70u);
  EXPECT_EQ(points[0], cv::Point3f(-108, -72, 0));
  EXPECT_EQ(points[1], cv::Point3f(-84, -72, 0));    // along a row first
  EXPECT_EQ(points[10], cv::Point3f(-108, -48, 0));  // then the next row
  EXPECT_EQ(points[69], cv::Point3f(108, 72, 0));
  EXPECT_EQ(quib::Calibration::Info(10, 20, 5, 3).get_object_points()[7], cv::Point3f(0, 0, 0));
}

// The square patch spans n x n corners but is taken as n x n squares: its translation is the
// true position of the patch's centre scaled by n / (n - 1), its rotation the board's. The
// long patch, stretched unevenly, gives a visibly tilted rotation.
void expect_patch_pose(quib::Calibration::Info const& geometry, int centre_column, int centre_row) {
  Views views{cv::Vec4d(), geometry};
  ASSERT_EQ(views.accepted, static_cast<int>(views.poses.size()));
  quib::Projection camera({640, 480}, 1, 1);
  for (int i = 0; i < 9; ++i)
    camera.get_matrix_array()[i] = kCamera.val[i];
  ASSERT_TRUE(views.calib.get_chess_extrinsic_parameters(views.info, camera));

  auto const& pose = views.poses.back();
  const bool upright = geometry.rows >= geometry.columns;
  double longTilt = 0;
  for (int k = 0; k < 3; ++k) {
    const bool fromLong = upright ? k != 1 : k == 1;
    const double error = std::abs(camera.get_rotation_array()[k] - pose.rvec[k]);
    EXPECT_LT(error, fromLong ? 0.08 : 0.01) << k;
    if (fromLong) longTilt = std::max(longTilt, error);
  }
  EXPECT_GT(longTilt, 0.005);

  const int n = std::min(geometry.columns, geometry.rows);
  const cv::Vec3d centre((centre_column - (geometry.columns - 1) / 2.0) * geometry.square_width,
                         (centre_row - (geometry.rows - 1) / 2.0) * geometry.square_height, 0);
  cv::Matx33d R;
  cv::Rodrigues(pose.rvec, R);
  const cv::Vec3d expected = (R * centre + pose.tvec) * (double(n) / (n - 1));
  for (int k = 0; k < 3; ++k) {
    EXPECT_NEAR(camera.get_translation_array()[k], expected[k], 0.01 * expected[2]) << k;
  }

  // The stored outline is the square patch's: first and third corner.
  const auto& quad = views.calib.get_quad();
  ASSERT_EQ(quad.size(), 4u);
  const std::size_t base = views.info.corners.size() - 70;
  const int x0 = centre_column - (n - 1) / 2;
  const int y0 = centre_row - (n - 1) / 2;
  EXPECT_EQ(quad[0], views.info.corners[base + y0 * geometry.columns + x0]);
  EXPECT_EQ(quad[2], views.info.corners[base + (y0 + n - 1) * geometry.columns + x0 + n - 1]);
}

TEST(Calibration, MeasuresBoardPoseFromPatches) {
  {
    SCOPED_TRACE("10 x 7: square patch on columns 1..7, centred on corner (4, 3)");
    expect_patch_pose(quib::Calibration::Info(), 4, 3);
  }
  {
    SCOPED_TRACE("7 x 10: square patch on rows 1..7, centred on corner (3, 4)");
    expect_patch_pose(quib::Calibration::Info(24, 24, 7, 10), 3, 4);
  }
}

TEST(Calibration, DrawsIntoTheImagesOwnFormat) {
  Views views{cv::Vec4d(), quib::Calibration::Info()};
  quib::Projection camera({640, 480}, 1, 1);
  ASSERT_TRUE(views.calib.get_camera_matrix(views.info, camera));
  ASSERT_TRUE(views.calib.get_chess_extrinsic_parameters(views.info, camera));

  // 24-bit: the outline's first corner takes the colour (blue is the lowest byte).
  const cv::Point2f q = views.calib.get_quad()[0];
  quib::Image colour(640, 480, 24, 4, quib::color_type::bgr);
  ASSERT_TRUE(views.calib.draw_calibration(views.info, camera, colour, 0x00ff0000u));
  unsigned char const* px = colour.getAddress({static_cast<int>(q.x), static_cast<int>(q.y)});
  EXPECT_GT(px[2], 100);
  EXPECT_LT(px[0], 60);

  // Correction on a half-size grey image: the cross-hair runs through the rescaled centre.
  quib::Image grey(320, 240, 8, 4, quib::color_type::grey);
  ASSERT_TRUE(views.calib.draw_correction(quib::Calibration::Info(), camera, grey, 0xffffffu));
  const int cx = static_cast<int>(camera.get_center_x() * 0.5f);
  const int cy = static_cast<int>(camera.get_center_y() * 0.5f);
  EXPECT_EQ(grey.getBits(), 8);
  EXPECT_GT(*grey.getAddress({5, cy}), 100);
  EXPECT_GT(*grey.getAddress({cx, 5}), 100);
  EXPECT_EQ(*grey.getAddress({5, 5}), 0);

  quib::Image unconvertible(32, 32, 12, 4, quib::color_type::grey);
  EXPECT_FALSE(views.calib.draw_calibration(views.info, camera, unconvertible, 0));
}

}  // namespace
