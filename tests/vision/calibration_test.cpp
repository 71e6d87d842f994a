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

// A 24-bit BGR image holding a grey view.
quib::Image to_image(cv::Mat const& grey) {
  quib::Image image(grey.cols, grey.rows, 24, 4, quib::color_type::bgr);
  cv::Mat view = image.makeMat();
  cv::cvtColor(grey, view, cv::COLOR_GRAY2BGR);
  return image;
}

struct Views {
  quib::Calibration calib;
  quib::Calibration::Info info;
  std::vector<quib::test::BoardPose> poses = quib::test::board_poses(560);
  int accepted = 0;
  Views(cv::Vec4d lens, quib::Calibration::Info geometry) : info(geometry) {
    const quib::test::BoardRenderer renderer(kSize, kCamera, lens);
    for (auto const& pose : poses) {
      accepted +=
          calib.calibration(info, to_image(renderer.render(pose, info.columns, info.rows,
                                                           info.square_width, info.square_height)));
    }
  }
};

// Intrinsics within 0.5%; the lens judged by what it does: over the part of the image the
// boards covered, the recovered and the true distortion move points alike within a pixel
// (the true lens moves them up to 4 pixels there; k1 and k2 trade
// off against each other, so they are not compared one by one).
void expect_camera(quib::Projection const& p, cv::Vec4d const& lens) {
  EXPECT_NEAR(p.get_focal_x(), kCamera(0, 0), 0.005 * kCamera(0, 0));
  EXPECT_NEAR(p.get_focal_y(), kCamera(1, 1), 0.005 * kCamera(1, 1));
  EXPECT_NEAR(p.get_center_x(), kCamera(0, 2), 0.005 * kCamera(0, 2));
  EXPECT_NEAR(p.get_center_y(), kCamera(1, 2), 0.005 * kCamera(1, 2));
  std::vector<cv::Point2d> grid;
  for (int y = 100; y <= 380; y += 40) {
    for (int x = 140; x <= 500; x += 40)
      grid.emplace_back(x, y);
  }
  std::vector<cv::Point2d> recovered;
  std::vector<cv::Point2d> truth;
  const quib::Projection lensOnly(
      {640, 480}, quib::Projection::Setup{
                      {kCamera(0, 0), 0, kCamera(0, 2), 0, kCamera(1, 1), kCamera(1, 2), 0, 0, 1},
                      {p.get_distortion_k1(), p.get_distortion_k2(), p.get_distortion_p1(),
                       p.get_distortion_p2()},
                      {0, 0, 0},
                      {0, 0, 0}});
  lensOnly.undistort(grid, recovered);
  cv::undistortPoints(grid, truth, kCamera, lens);
  for (std::size_t i = 0; i < grid.size(); ++i) {
    EXPECT_NEAR(recovered[i].x * kCamera(0, 0), truth[i].x * kCamera(0, 0), 1.0) << grid[i];
    EXPECT_NEAR(recovered[i].y * kCamera(1, 1), truth[i].y * kCamera(1, 1), 1.0) << grid[i];
  }
}

TEST(Calibration, RecoversPinholeCameraFromRenderedViews) {
  Views views{cv::Vec4d(), quib::Calibration::Info()};
  EXPECT_EQ(views.accepted, static_cast<int>(views.poses.size()));
  EXPECT_EQ(views.info.corners.size(), 70u * views.poses.size());
  EXPECT_EQ(views.info.counts, std::vector<int>(views.poses.size(), 70));
  EXPECT_EQ(views.calib.get_size().cx, 640);
  EXPECT_EQ(views.calib.get_size().cy, 480);

  quib::Projection camera;
  ASSERT_TRUE(views.calib.get_camera_matrix(views.info, camera));
  EXPECT_TRUE(camera.empty());  // the size is the caller's to set
  expect_camera(camera, cv::Vec4d());
  EXPECT_EQ(camera.get_matrix_array()[1], 0.0);
  EXPECT_EQ(camera.get_matrix_array()[8], 1.0);
}

TEST(Calibration, RecoversLensDistortion) {
  Views views{kLens, quib::Calibration::Info()};
  ASSERT_EQ(views.accepted, static_cast<int>(views.poses.size()));
  quib::Projection camera;
  ASSERT_TRUE(views.calib.get_camera_matrix(views.info, camera));
  expect_camera(camera, kLens);
}

TEST(Calibration, RefusesImageWithoutBoard) {
  Views views{cv::Vec4d(), quib::Calibration::Info()};
  const auto before = views.info.corners;
  quib::Image blank(320, 200, 24, 4, quib::color_type::bgr);
  EXPECT_FALSE(views.calib.calibration(views.info, blank));
  EXPECT_EQ(views.info.corners, before);
  EXPECT_EQ(views.info.counts.size(), views.poses.size());
  EXPECT_EQ(views.info.found.size(), views.poses.size());
  EXPECT_EQ(views.calib.get_size().cx, 640);

  quib::Image unconvertible(320, 200, 12, 4, quib::color_type::grey);
  EXPECT_FALSE(views.calib.calibration(views.info, unconvertible));
  EXPECT_FALSE(views.calib.calibration(views.info, quib::Image()));
  EXPECT_EQ(views.info.counts.size(), views.poses.size());

  quib::Calibration fresh;
  quib::Calibration::Info none;
  EXPECT_FALSE(fresh.calibration(none, blank));
  EXPECT_FALSE(fresh.is());
  EXPECT_FALSE(none.is());
}

TEST(Calibration, AcceptsGreyAndPackedImages) {
  const quib::test::BoardRenderer renderer(kSize, kCamera, cv::Vec4d());
  const cv::Mat grey = renderer.render(quib::test::board_poses(560)[0], 10, 7, 24, 24);
  quib::Image eight(grey.cols, grey.rows, 8, 4, quib::color_type::grey);
  grey.copyTo(eight.makeMat());
  quib::Calibration calib;
  quib::Calibration::Info info;
  EXPECT_TRUE(calib.calibration(info, eight));
  EXPECT_EQ(info.corners.size(), 70u);
  EXPECT_EQ(info.found, std::vector<int>{1});
}

TEST(Calibration, RefusesEmptyOrInconsistentRecords) {
  quib::Calibration calib;
  quib::Calibration::Info info;
  double m[9] = {7, 7, 7, 7, 7, 7, 7, 7, 7};
  double d[4] = {7, 7, 7, 7};
  double r[3] = {7, 7, 7};
  double t[3] = {7, 7, 7};
  EXPECT_FALSE(calib.get_camera_matrix(info, m, d, r, t));
  EXPECT_FALSE(calib.get_chess_extrinsic_parameters(info, m, d, r, t));
  // A record whose geometry no longer matches its corners.
  info.corners.resize(70);
  info.counts = {70};
  info.found = {1};
  info.columns = 11;
  EXPECT_FALSE(calib.get_camera_matrix(info, m, d, r, t));
  EXPECT_FALSE(calib.get_chess_extrinsic_parameters(info, m, d, r, t));
  for (double v : m)
    EXPECT_EQ(v, 7.0);
  for (double v : r)
    EXPECT_EQ(v, 7.0);

  info.clear();
  EXPECT_FALSE(info.is());
  EXPECT_EQ(info.columns, 11);
}

TEST(Calibration, ObjectPointsAreCentredOnTheMiddleCorner) {
  const auto points = quib::Calibration::Info().get_object_points();
  ASSERT_EQ(points.size(), 70u);
  EXPECT_EQ(points.front(), cv::Point3f(-108, -72, 0));
  EXPECT_EQ(points[1], cv::Point3f(-84, -72, 0));    // along a row first
  EXPECT_EQ(points[10], cv::Point3f(-108, -48, 0));  // then the next row
  EXPECT_EQ(points.back(), cv::Point3f(108, 72, 0));
  cv::Point3f sum;
  for (auto const& p : points)
    sum += p;
  EXPECT_EQ(sum, cv::Point3f(0, 0, 0));
  // An odd board has a real middle corner at the origin.
  EXPECT_EQ(quib::Calibration::Info(10, 20, 5, 3).get_object_points()[7], cv::Point3f(0, 0, 0));
}

// The square patch spans n x n corners but is taken as n x n squares: its pose is the true
// pose of the patch's centre scaled by n / (n - 1); the rotation is the board's.
void expect_patch_pose(quib::Calibration::Info const& geometry, int patch_column, int patch_row) {
  Views views{cv::Vec4d(), geometry};
  ASSERT_EQ(views.accepted, static_cast<int>(views.poses.size()));
  double matrix[9];
  for (int i = 0; i < 9; ++i)
    matrix[i] = kCamera.val[i];
  const double lens[4] = {0, 0, 0, 0};
  double rotation[3];
  double translation[3];
  ASSERT_TRUE(
      views.calib.get_chess_extrinsic_parameters(views.info, matrix, lens, rotation, translation));
  // The square patch's components are the board's rotation; the long patch, stretched
  // unevenly by the w x h squares rule, gives a visibly tilted one.
  auto const& pose = views.poses.back();
  const bool upright = geometry.rows >= geometry.columns;
  double longTilt = 0;
  for (int k = 0; k < 3; ++k) {
    const bool fromLong = upright ? k != 1 : k == 1;
    const double error = std::abs(rotation[k] - pose.rvec[k]);
    EXPECT_LT(error, fromLong ? 0.08 : 0.01) << k;
    if (fromLong) longTilt = std::max(longTilt, error);
  }
  EXPECT_GT(longTilt, 0.005);

  const int n = std::min(geometry.columns, geometry.rows);
  const cv::Vec3d centre((patch_column - (geometry.columns - 1) / 2.0) * geometry.square_width,
                         (patch_row - (geometry.rows - 1) / 2.0) * geometry.square_height, 0);
  cv::Matx33d R;
  cv::Rodrigues(pose.rvec, R);
  const cv::Vec3d expected = (R * centre + pose.tvec) * (double(n) / (n - 1));
  for (int k = 0; k < 3; ++k)
    EXPECT_NEAR(translation[k], expected[k], 0.01 * expected[2]) << k;

  // The stored outline is the square patch, and drawing follows it.
  const auto& quad = views.calib.get_quad();
  ASSERT_EQ(quad.size(), 4u);
  const std::size_t base = views.info.corners.size() - 70;
  const int x0 = patch_column - (n - 1) / 2;
  const int y0 = patch_row - (n - 1) / 2;
  EXPECT_EQ(quad[0], views.info.corners[base + y0 * geometry.columns + x0]);
  EXPECT_EQ(quad[2], views.info.corners[base + (y0 + n - 1) * geometry.columns + x0 + n - 1]);
}

TEST(Calibration, MeasuresBoardPoseFromPatchesWide) {
  // 10 x 7: the square patch covers columns 1..7, rows 0..6; its centre is corner (4, 3).
  expect_patch_pose(quib::Calibration::Info(), 4, 3);
}

TEST(Calibration, MeasuresBoardPoseFromPatchesTall) {
  // 7 x 10: the square patch covers rows 1..7; its centre is corner (3, 4).
  expect_patch_pose(quib::Calibration::Info(24, 24, 7, 10), 3, 4);
}

TEST(Calibration, DrawsIntoTheImagesOwnFormat) {
  Views views{cv::Vec4d(), quib::Calibration::Info()};
  quib::Projection camera;
  ASSERT_TRUE(views.calib.get_camera_matrix(views.info, camera));
  ASSERT_TRUE(views.calib.get_chess_extrinsic_parameters(views.info, camera));
  const auto quad = views.calib.get_quad();

  // 24-bit: the outline's first corner takes the colour (blue = lowest byte).
  quib::Image colour(640, 480, 24, 4, quib::color_type::bgr);
  ASSERT_TRUE(views.calib.draw_calibration(views.info, camera, colour, 0x00ff0000u));
  const int qx = static_cast<int>(quad[0].x);
  const int qy = static_cast<int>(quad[0].y);
  unsigned char const* px = colour.getAddress({qx, qy});
  EXPECT_GT(px[2], 100);  // red
  EXPECT_LT(px[0], 60);

  // Correction on a half-size grey image: the cross-hair runs through the scaled centre.
  const quib::Projection withSize({640, 480}, camera.get_matrix_array(),
                                  camera.get_distortion_array(), camera.get_rotation_array(),
                                  camera.get_translation_array());
  quib::Image grey(320, 240, 8, 4, quib::color_type::grey);
  quib::Calibration::Info empty;
  ASSERT_TRUE(views.calib.draw_correction(empty, withSize, grey, 0x00ffffffu));
  const int cy = static_cast<int>(withSize.get_center_y() * 0.5f);
  const int cx = static_cast<int>(withSize.get_center_x() * 0.5f);
  EXPECT_EQ(grey.getBits(), 8);
  EXPECT_GT(*grey.getAddress({5, cy}), 100);
  EXPECT_GT(*grey.getAddress({cx, 5}), 100);
  EXPECT_EQ(*grey.getAddress({5, 5}), 0);

  quib::Image unconvertible(32, 32, 12, 4, quib::color_type::grey);
  EXPECT_FALSE(views.calib.draw_calibration(views.info, camera, unconvertible, 0));
}

}  // namespace
