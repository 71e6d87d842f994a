// Camera helpers shared by calibrate and demo: the mean of per-view reprojection errors and
// a quib::Image view of an OpenCV matrix.
#pragma once

#include <quib/image.hpp>

#include <opencv2/core.hpp>

#include <vector>

namespace quib::tool {

/// The root mean square over all corners of all views, from the per-view figures.
double meanError(std::vector<double> const& perView);

/// A quib::Image over the pixels of an 8-bit BGR or grey matrix (no copy; the matrix must
/// outlive the image).
quib::Image imageOver(cv::Mat& bgrOrGrey);

}  // namespace quib::tool
