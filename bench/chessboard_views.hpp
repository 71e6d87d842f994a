// Chessboard views rendered through a known camera, shared by the calibration benchmark and
// the calibration tests.
#pragma once

#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <vector>

namespace quib::test {

/// The board pose: rotation vector and translation of the board's middle in camera space.
struct BoardPose {
  cv::Vec3d rvec;
  cv::Vec3d tvec;
};

/// Renders a board of columns x rows inner corners (square sizes in board units, board
/// centred on its middle corner) as an 8-bit grey image: the squares are filled on a
/// supersampled canvas through a pinhole camera, averaged down, then bent by the lens
/// distortion with a remap (each distorted pixel looks up its undistorted position).
class BoardRenderer {
 public:
  BoardRenderer(cv::Size size, cv::Matx33d camera, cv::Vec4d distortion, int supersample = 4)
      : size_(size), camera_(camera), distortion_(distortion), supersample_(supersample) {
    if (distortion_ == cv::Vec4d()) return;
    std::vector<cv::Point2f> pixels;
    pixels.reserve(static_cast<std::size_t>(size.area()));
    for (int y = 0; y < size.height; ++y) {
      for (int x = 0; x < size.width; ++x)
        pixels.emplace_back(float(x), float(y));
    }
    std::vector<cv::Point2f> ideal;
    cv::undistortPoints(
        pixels, ideal, camera_, distortion_, cv::noArray(), camera_,
        cv::TermCriteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 50, 1e-9));
    map_ = cv::Mat(size, CV_32FC2, ideal.data()).clone();
  }

  cv::Mat render(BoardPose const& pose, int columns, int rows, double square_width,
                 double square_height) const {
    const int s = supersample_;
    cv::Mat canvas(size_.height * s, size_.width * s, CV_8UC1, cv::Scalar(110));
    const double ox = -(columns - 1) * square_width / 2;
    const double oy = -(rows - 1) * square_height / 2;
    // White paper one square beyond the outer squares, then the dark squares on it.
    fill(canvas, pose, ox - 2 * square_width, oy - 2 * square_height, (columns + 3) * square_width,
         (rows + 3) * square_height, 245);
    for (int j = 0; j <= rows; ++j) {
      for (int i = 0; i <= columns; ++i) {
        if ((i + j) % 2 != 0) continue;
        fill(canvas, pose, ox + (i - 1) * square_width, oy + (j - 1) * square_height, square_width,
             square_height, 20);
      }
    }
    cv::Mat ideal;
    cv::resize(canvas, ideal, size_, 0, 0, cv::INTER_AREA);
    if (map_.empty()) return ideal;
    cv::Mat bent;
    cv::remap(ideal, bent, map_, cv::noArray(), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
    return bent;
  }

  /// Where the pinhole camera with distortion sees the board point (x, y, 0).
  cv::Point2d project(BoardPose const& pose, double x, double y) const {
    std::vector<cv::Point3d> object{{x, y, 0.0}};
    std::vector<cv::Point2d> image;
    cv::projectPoints(object, pose.rvec, pose.tvec, camera_, distortion_, image);
    return image[0];
  }

 private:
  void fill(cv::Mat& canvas, BoardPose const& pose, double x, double y, double w, double h,
            int level) const {
    const std::vector<cv::Point3d> corners{
        {x, y, 0}, {x + w, y, 0}, {x + w, y + h, 0}, {x, y + h, 0}};
    std::vector<cv::Point2d> image;
    cv::projectPoints(corners, pose.rvec, pose.tvec, camera_, cv::noArray(), image);
    const int shift = 4;
    std::vector<cv::Point> poly;
    for (auto const& p : image) {
      // Output pixel u covers canvas pixels s*u ... s*u + s - 1, centred on s*u + (s - 1) / 2.
      const double cx = p.x * supersample_ + (supersample_ - 1) / 2.0;
      const double cy = p.y * supersample_ + (supersample_ - 1) / 2.0;
      poly.emplace_back(cvRound(cx * (1 << shift)), cvRound(cy * (1 << shift)));
    }
    cv::fillConvexPoly(canvas, poly, cv::Scalar(level), cv::LINE_AA, shift);
  }

  cv::Size size_;
  cv::Matx33d camera_;
  cv::Vec4d distortion_;
  int supersample_;
  cv::Mat map_;
};

/// Poses that see the whole board from different angles at about `distance` units.
inline std::vector<BoardPose> board_poses(double distance) {
  return {
      {{0.30, 0.00, 0.02}, {-20, 10, distance}},        {{-0.30, 0.05, -0.03}, {20, -10, distance}},
      {{0.05, 0.35, 0.05}, {10, 15, distance * 1.05}},  {{0.00, -0.35, -0.05}, {-15, 5, distance}},
      {{0.25, 0.25, 0.10}, {-30, -20, distance * 1.1}}, {{-0.25, -0.25, -0.10}, {25, 20, distance}},
      {{0.20, -0.30, 0.15}, {0, 0, distance * 0.95}},   {{-0.20, 0.30, -0.15}, {5, -5, distance}},
  };
}

}  // namespace quib::test
