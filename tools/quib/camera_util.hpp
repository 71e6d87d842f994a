// Camera helpers shared by calibrate and demo: the mean of per-view reprojection errors and
// a quib::Image view of an OpenCV matrix.
#pragma once

#include <quib/image.hpp>
#include <quib/projection.hpp>

#include <opencv2/core.hpp>

#include <string>
#include <vector>

namespace quib::tool {

/// The root mean square over all corners of all views, from the per-view figures.
double meanError(std::vector<double> const& perView);

/// A quib::Image over the pixels of an 8-bit BGR or grey matrix (no copy; the matrix must
/// outlive the image).
quib::Image imageOver(cv::Mat& bgrOrGrey);

/// Reads a camera file ('-' is standard input); throws Failure naming the file, with the
/// reason ("no such file", "not a camera file", ...), when it cannot be read.
quib::Projection loadCamera(std::string const& file);

}  // namespace quib::tool
