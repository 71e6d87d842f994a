// Traces every region of a small mask built from the input, with and without a caller mask,
// and fills a contour read from the input; checks that every traced point is a foreground
// pixel inside the image.
#include <quib/contour.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

void check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 4) return 0;
  const int cols = data[0] % 48 + 1;
  const int rows = data[1] % 48 + 1;
  const unsigned char blank = data[2];
  const bool with_mask = (data[3] & 1) != 0;
  data += 4;
  size -= 4;

  // Pixels: one input byte each, a few set values so that regions are common; the rest blank.
  cv::Mat image(rows, cols, CV_8UC1, cv::Scalar(blank));
  cv::Mat mask = cv::Mat::zeros(rows, cols, CV_8UC1);
  std::size_t used = 0;
  for (int y = 0; y < rows; ++y) {
    for (int x = 0; x < cols && used < size; ++x, ++used) {
      const std::uint8_t b = data[used];
      image.at<unsigned char>(y, x) = (b & 3) == 0 ? blank : static_cast<unsigned char>(b | 1);
      if (with_mask && b >= 0xf0) mask.at<unsigned char>(y, x) = static_cast<unsigned char>(b);
    }
  }

  quib::ocv::ContourTracer tracer =
      with_mask ? quib::ocv::ContourTracer(image, mask) : quib::ocv::ContourTracer(image);
  check(tracer.is());
  std::vector<cv::Point> contour;
  cv::Point position(0, 0);
  int regions = 0;
  while (tracer.search(contour, position, blank)) {
    check(!contour.empty() && ++regions <= rows * cols);
    for (cv::Point const& p : contour) {
      check(!tracer.is_end(p));
      check(image.at<unsigned char>(p.y, p.x) != blank);
    }
  }
  check(tracer.is_end(position));

  // A contour of arbitrary points, some far outside, filled into a fresh target.
  std::vector<cv::Point> points;
  for (std::size_t i = used; i + 1 < size; i += 2) {
    const int x = static_cast<std::int8_t>(data[i]) * ((data[i] & 0x40) ? 1000 : 1);
    const int y = static_cast<std::int8_t>(data[i + 1]);
    points.emplace_back(x, y);
  }
  cv::Mat target = cv::Mat::zeros(rows, cols, CV_8UC1);
  // What fill() reports must agree with what it wrote.
  const bool wrote = tracer.fill(target, points, 7, 0);
  check(wrote == (cv::countNonZero(target) > 0));
  return 0;
}
