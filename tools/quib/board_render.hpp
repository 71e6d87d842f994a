// Chessboard views rendered through a pinhole camera with lens distortion, for the demo and
// for tests: pictures made at run time instead of data files.
#pragma once

#include <opencv2/core.hpp>

namespace quib::tool {

/// A pinhole camera with k1, k2, p1, p2 distortion.
struct Lens {
  cv::Size size;
  cv::Matx33d matrix;
  cv::Vec4d distortion;
};

/// A printed chessboard: `columns` x `rows` inner corners, `square` units apart, a white
/// margin of one square, and optionally a black disc of radius `discRadius` centred at
/// (`discX`, `discY`) in board coordinates on a white strip below the squares.
struct Board {
  int columns = 9;
  int rows = 6;
  double square = 24;
  double discX = 0;
  double discY = 0;
  double discRadius = 0;
};

/// Renders the board seen by `lens` in the pose (rvec, tvec), 8-bit grey, anti-aliased by 3x3
/// supersampling; everything off the board is mid grey.
class BoardRenderer {
 public:
  BoardRenderer(Lens const& lens, Board const& board);
  cv::Mat render(cv::Vec3d const& rvec, cv::Vec3d const& tvec) const;

 private:
  double shade(double x, double y) const;

  Lens lens;
  Board board;
  cv::Mat rays;  // normalised undistorted coordinates of the pixel corners, CV_64FC2
};

}  // namespace quib::tool
