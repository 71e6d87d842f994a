#include "camera_util.hpp"

#include "cli.hpp"

#include <cmath>

namespace quib::tool {

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

quib::Projection loadCamera(std::string const& file) {
  const InputFile input(file);
  quib::Projection camera;
  if (!camera.load_setup(input.path()) || camera.empty()) {
    const std::string reason = unreadableReason(input.path());
    throw Failure(file, reason.empty() ? "not a camera file" : reason);
  }
  return camera;
}

}  // namespace quib::tool
