#include "camera_util.hpp"

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

}  // namespace quib::tool
