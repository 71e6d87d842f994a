// Traces the regions of a small mask and prints each one's start, boundary length and area.
#include <quib/contour.hpp>

#include <opencv2/imgproc.hpp>

#include <cstdio>
#include <vector>

int main() {
  cv::Mat mask = cv::Mat::zeros(120, 160, CV_8UC1);
  cv::circle(mask, cv::Point(40, 40), 20, cv::Scalar(255), cv::FILLED);
  cv::rectangle(mask, cv::Rect(90, 30, 40, 60), cv::Scalar(255), cv::FILLED);
  cv::rectangle(mask, cv::Rect(100, 45, 20, 20), cv::Scalar(0), cv::FILLED);  // a hole

  quib::ocv::ContourTracer tracer(mask);
  std::vector<cv::Point> contour;
  cv::Point position(0, 0);
  while (tracer.search(contour, position, 0)) {
    // fill() on a fresh image gives the region with its holes closed.
    cv::Mat region = cv::Mat::zeros(mask.size(), CV_8UC1);
    if (!tracer.fill(region, contour, 255, 0)) continue;
    std::printf("region at (%d, %d): %zu boundary pixels, %d pixels enclosed\n", contour.front().x,
                contour.front().y, contour.size(), cv::countNonZero(region));
  }
  return 0;
}
