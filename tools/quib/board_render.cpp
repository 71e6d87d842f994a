#include "board_render.hpp"

#include <opencv2/calib3d.hpp>

#include <cmath>
#include <vector>

namespace quib::tool {

namespace {
constexpr int kSub = 3;  // subsamples per pixel along each axis
}

BoardRenderer::BoardRenderer(Lens const& l, Board const& b) : lens(l), board(b) {
  // Rays through the pixel corners; the distortion varies slowly enough that the rays of the
  // subsamples inside a pixel are interpolated between them.
  const int w = lens.size.width, h = lens.size.height;
  std::vector<cv::Point2d> corners;
  corners.reserve(std::size_t(w + 1) * std::size_t(h + 1));
  for (int y = 0; y <= h; ++y)
    for (int x = 0; x <= w; ++x)
      corners.emplace_back(x - 0.5, y - 0.5);
  std::vector<cv::Point2d> normalised;
  cv::undistortPoints(corners, normalised, cv::Mat(lens.matrix), cv::Mat(lens.distortion),
                      cv::noArray(), cv::noArray(),
                      cv::TermCriteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 20, 1e-9));
  rays = cv::Mat(normalised, true).reshape(2, h + 1);
}

double BoardRenderer::shade(double x, double y) const {
  const double s = board.square;
  const double left = -(board.columns + 1) * 0.5 * s;  // outer edge of the squares
  const double top = -(board.rows + 1) * 0.5 * s;
  const double width = (board.columns + 1) * s;
  const double height = (board.rows + 1) * s;
  if (board.discRadius > 0) {
    const double dx = x - board.discX, dy = y - board.discY;
    if (dx * dx + dy * dy <= board.discRadius * board.discRadius) return 0;
  }
  const double strip = board.discRadius > 0 ? 2 * board.discRadius + 2 * s : 0;
  if (x < left - s || x > left + width + s || y < top - s || y > top + height + s + strip)
    return 110;                                                                   // off the board
  if (x < left || x >= left + width || y < top || y >= top + height) return 250;  // margin
  const int i = static_cast<int>(std::floor((x - left) / s));
  const int j = static_cast<int>(std::floor((y - top) / s));
  return (i + j) % 2 == 0 ? 20 : 240;
}

cv::Mat BoardRenderer::render(cv::Vec3d const& rvec, cv::Vec3d const& tvec) const {
  cv::Matx33d r;
  cv::Rodrigues(rvec, r);
  // Board plane z = 0: a normalised image point m maps to board (X, Y) through [r1 r2 t]^-1.
  const cv::Matx33d h(r(0, 0), r(0, 1), tvec[0], r(1, 0), r(1, 1), tvec[1], r(2, 0), r(2, 1),
                      tvec[2]);
  const cv::Matx33d inv = h.inv();
  cv::Mat out(lens.size, CV_8UC1);
  for (int y = 0; y < lens.size.height; ++y) {
    cv::Point2d const* top = rays.ptr<cv::Point2d>(y);
    cv::Point2d const* bottom = rays.ptr<cv::Point2d>(y + 1);
    for (int x = 0; x < lens.size.width; ++x) {
      double sum = 0;
      for (int sy = 0; sy < kSub; ++sy) {
        const double fy = (sy + 0.5) / kSub;
        for (int sx = 0; sx < kSub; ++sx) {
          const double fx = (sx + 0.5) / kSub;
          const cv::Point2d n = (1 - fy) * ((1 - fx) * top[x] + fx * top[x + 1]) +
                                fy * ((1 - fx) * bottom[x] + fx * bottom[x + 1]);
          const cv::Vec3d b = inv * cv::Vec3d(n.x, n.y, 1.0);
          // Behind the camera or parallel to the board: background.
          sum += b[2] > 1e-12 ? shade(b[0] / b[2], b[1] / b[2]) : 110;
        }
      }
      out.at<unsigned char>(y, x) = static_cast<unsigned char>(std::lround(sum / (kSub * kSub)));
    }
  }
  return out;
}

}  // namespace quib::tool
