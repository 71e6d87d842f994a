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
      const cv::Mat grey = renderer.render(poses[i], info.columns, info.rows,
                                           info.get_square_width(), info.get_square_height());
      const bool colour = i % 2 == 0;
      quib::Image image(grey.cols, grey.rows, colour ? 24 : 8, 4,
                        colour ? quib::color_type::bgr : quib::color_type::grey);
      cv::Mat view = image.makeMat();
      if (colour)
        cv::cvtColor(grey, view, cv::COLOR_GRAY2BGR);
      else
        grey.copyTo(view);
      accepted += calib.calibration(info, image) ? 1 : 0;
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
  quib::Calibration::Data data;
  data.error = 7;

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
  EXPECT_FALSE(calib.get_camera_data(info, data));
  EXPECT_TRUE(calib.get_reprojection_errors(info, quib::Projection()).empty());
  EXPECT_FALSE(calib.get_chess_extrinsic_parameters(info, m, d, r, t));
  info.columns = 10;
  info.square_width = 0;  // a board without spacing
  EXPECT_FALSE(calib.get_camera_matrix(info, m, d, r, t));
  EXPECT_FALSE(calib.get_camera_data(info, data));
  info.columns = 11;
  info.clear();
  EXPECT_FALSE(info.is());
  EXPECT_EQ(info.columns, 11);
  EXPECT_FALSE(calib.get_camera_matrix(info, m, d, r, t));
  EXPECT_FALSE(calib.get_chess_extrinsic_parameters(info, m, d, r, t));
  EXPECT_FALSE(calib.get_camera_data(info, data));
  EXPECT_TRUE(std::all_of(std::begin(m), std::end(m), [](double v) { return v == 7; }));
  EXPECT_TRUE(std::all_of(std::begin(r), std::end(r), [](double v) { return v == 7; }));
  EXPECT_EQ(data.error, 7);
}

TEST(Calibration, ObjectPointsAreCentredOnTheMiddleCorner) {
  const auto points = quib::Calibration::Info().get_object_points();
  ASSERT_EQ(points.size(), 70u);
  EXPECT_EQ(points[0], cv::Point3f(-108, -72, 0));
  EXPECT_EQ(points[1], cv::Point3f(-84, -72, 0));    // along a row first
  EXPECT_EQ(points[10], cv::Point3f(-108, -48, 0));  // then the next row
  EXPECT_EQ(points[69], cv::Point3f(108, 72, 0));
  EXPECT_EQ(quib::Calibration::Info(10, 20, 5, 3).get_object_points()[7], cv::Point3f(0, 0, 0));

  // Squares of a real size; the integer fields carry the nearest whole numbers.
  const quib::Calibration::Info real(24.5, 12.25, 10, 7);
  EXPECT_EQ(real.square_width, 25);
  EXPECT_EQ(real.square_height, 12);
  EXPECT_EQ(real.get_object_points()[0], cv::Point3f(-110.25f, -36.75f, 0));
  EXPECT_EQ(real.get_object_points()[11], cv::Point3f(-85.75f, -24.5f, 0));
  for (double bad : {0.0, -24.5, std::nan(""), HUGE_VAL}) {
    const quib::Calibration::Info info(bad, 24.5, 10, 7);
    EXPECT_EQ(info.get_square_width(), 0.0) << bad;
  }
}

// Adds Gaussian noise of `sigma` pixels to every corner.
quib::Calibration::Info noisy(quib::Calibration::Info info, double sigma, int seed) {
  cv::RNG rng(seed);
  for (auto& c : info.corners) {
    c.x += static_cast<float>(rng.gaussian(sigma));
    c.y += static_cast<float>(rng.gaussian(sigma));
  }
  return info;
}

TEST(Calibration, ReportsDeviationsErrorsAndPosesOfEveryView) {
  // 24.5 mm squares: the poses come back in millimetres.
  Views views{kLens, quib::Calibration::Info(24.5, 24.5, 10, 7)};
  ASSERT_EQ(views.accepted, static_cast<int>(views.poses.size()));
  quib::Calibration::Data data;
  ASSERT_TRUE(views.calib.get_camera_data(views.info, data));

  // The camera is exactly what get_camera_matrix gives.
  quib::Projection camera({640, 480}, 1, 1);
  ASSERT_TRUE(views.calib.get_camera_matrix(views.info, camera));
  EXPECT_TRUE(
      std::equal(std::begin(data.matrix), std::end(data.matrix), camera.get_matrix_array()));
  EXPECT_TRUE(std::equal(std::begin(data.distortion), std::end(data.distortion),
                         camera.get_distortion_array()));
  EXPECT_TRUE(std::equal(std::begin(data.translation), std::end(data.translation),
                         camera.get_translation_array()));

  ASSERT_EQ(data.views.size(), views.poses.size());
  const std::vector<double> errors = views.calib.get_reprojection_errors(views.info, camera);
  ASSERT_EQ(errors.size(), views.poses.size());
  double sum = 0;
  for (std::size_t v = 0; v < data.views.size(); ++v) {
    SCOPED_TRACE(v);
    auto const& view = data.views[v];
    for (int k = 0; k < 3; ++k) {
      EXPECT_NEAR(view.rotation[k], views.poses[v].rvec[k], 0.01);
      EXPECT_NEAR(view.translation[k], views.poses[v].tvec[k], 0.01 * views.poses[v].tvec[2]);
    }
    EXPECT_GT(view.error, 0.0);
    EXPECT_LT(view.error, 0.5);
    EXPECT_NEAR(errors[v], view.error, 0.1 * view.error + 1e-3);  // poses solved apart
    sum += view.error * view.error * 70;
  }
  EXPECT_NEAR(data.error, std::sqrt(sum / (70.0 * data.views.size())), 1e-9);

  // Deviations grow with the noise on the corners, in proportion, and the truth lies within a
  // few of them.
  quib::Calibration::Data low;
  quib::Calibration::Data high;
  ASSERT_TRUE(views.calib.get_camera_data(noisy(views.info, 0.25, 1), low));
  ASSERT_TRUE(views.calib.get_camera_data(noisy(views.info, 1.0, 2), high));
  for (int i = 0; i < 4; ++i) {
    SCOPED_TRACE(i);
    EXPECT_GT(low.matrix_deviation[i], 0.0);
    EXPECT_NEAR(high.matrix_deviation[i] / low.matrix_deviation[i], 4.0, 1.2);
    EXPECT_NEAR(high.distortion_deviation[i] / low.distortion_deviation[i], 4.0, 1.2);
  }
  const int at[4] = {0, 4, 2, 5};  // fx, fy, cx, cy in the matrix
  for (int i = 0; i < 4; ++i) {
    EXPECT_LT(std::abs(high.matrix[at[i]] - kCamera.val[at[i]]), 5 * high.matrix_deviation[i]) << i;
  }
  EXPECT_NEAR(high.error, std::sqrt(2.0), 0.15);  // 1 pixel in x and in y
}

TEST(Calibration, DrawsResidualsAndCoverage) {
  Views views{cv::Vec4d(), quib::Calibration::Info()};
  quib::Calibration::Data data;
  const quib::Calibration::Info info = noisy(views.info, 0.3, 3);
  ASSERT_TRUE(views.calib.get_camera_data(info, data));

  // Coverage on a half-size grey picture: the corners are marked, the far corner of the
  // picture (which no board reached) is not.
  quib::Image coverage(320, 240, 8, 4, quib::color_type::grey);
  ASSERT_TRUE(views.calib.draw_coverage(info, coverage, 0xffffffu));
  const cv::Point2f c = info.corners[35] * 0.5f;
  EXPECT_GT(*coverage.getAddress({cvRound(c.x), cvRound(c.y)}), 100);
  EXPECT_EQ(*coverage.getAddress({1, 1}), 0);

  // Residual arrows start at the detected corners; magnified 100 times, a 0.3 pixel error
  // reaches tens of pixels, so much more is drawn than without magnification.
  quib::Image small(640, 480, 24, 4, quib::color_type::bgr);
  quib::Image large(640, 480, 24, 4, quib::color_type::bgr);
  ASSERT_TRUE(views.calib.draw_residuals(info, data, small, 1.0, 0x00ff00u));
  ASSERT_TRUE(views.calib.draw_residuals(info, data, large, 100.0, 0x00ff00u));
  EXPECT_GT(cv::countNonZero(large.makeMat(3, 8).reshape(1)),
            4 * cv::countNonZero(small.makeMat(3, 8).reshape(1)));
  const cv::Point2f d = info.corners[0];
  EXPECT_GT(large.getAddress({cvRound(d.x), cvRound(d.y)})[1], 30);

  data.views.pop_back();  // no longer one pose per view
  EXPECT_FALSE(views.calib.draw_residuals(info, data, large, 1.0, 0));
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
