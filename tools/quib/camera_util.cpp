#include "camera_util.hpp"

#include <opencv2/calib3d.hpp>

#include <cmath>

namespace quib::tool {

std::vector<cv::Point3f> boardPoints(quib::Calibration::Info const& info) {
  std::vector<cv::Point3f> pts;
  const float ox = float(info.columns - 1) * float(info.square_width) * -0.5f;
  const float oy = float(info.rows - 1) * float(info.square_height) * -0.5f;
  for (int j = 0; j < info.rows; ++j)
    for (int i = 0; i < info.columns; ++i)
      pts.emplace_back(float(info.square_width * i) + ox, float(info.square_height * j) + oy, 0.f);
  return pts;
}

std::vector<double> reprojectionErrors(quib::Calibration::Info const& info,
                                       quib::Projection const& camera) {
  const std::vector<cv::Point3f> object = boardPoints(info);
  const std::size_t perView = object.size();
  const cv::Mat k = camera.get_matrix_cv();
  const cv::Mat d = camera.get_distortion_cv();
  std::vector<double> errors;
  for (std::size_t v = 0; (v + 1) * perView <= info.corners.size(); ++v) {
    const std::vector<cv::Point2f> seen(info.corners.begin() + long(v * perView),
                                        info.corners.begin() + long((v + 1) * perView));
    cv::Mat rvec, tvec;
    cv::solvePnP(object, seen, k, d, rvec, tvec, false, cv::SOLVEPNP_ITERATIVE);
    std::vector<cv::Point2f> back;
    cv::projectPoints(object, rvec, tvec, k, d, back);
    double sum = 0;
    for (std::size_t i = 0; i < perView; ++i) {
      const cv::Point2f e = back[i] - seen[i];
      sum += double(e.x) * e.x + double(e.y) * e.y;
    }
    errors.push_back(std::sqrt(sum / double(perView)));
  }
  return errors;
}

double meanError(std::vector<double> const& perView) {
  if (perView.empty()) return NAN;
  double sum = 0;
  for (double e : perView)
    sum += e * e;
  return std::sqrt(sum / double(perView.size()));
}

quib::Image imageOver(cv::Mat& m) {
  const bool grey = m.channels() == 1;
  return quib::Image(m.cols, m.rows, static_cast<int>(m.step[0]), m.data, grey ? 8 : 24, 1,
                     grey ? quib::color_type::grey : quib::color_type::bgr);
}

}  // namespace quib::tool
