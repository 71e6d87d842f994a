// Camera helpers shared by calibrate and demo: the board's object points and reprojection
// errors.
#pragma once

#include <quib/calibration.hpp>
#include <quib/image.hpp>
#include <quib/projection.hpp>

#include <opencv2/core.hpp>

#include <vector>

namespace quib::tool {

/// The board's inner corners in its own plane (z = 0), row after row, centred on its middle,
/// as the calibration lays them out.
std::vector<cv::Point3f> boardPoints(quib::Calibration::Info const& info);

/// Root-mean-square reprojection error of each accepted view, in pixels: the view's pose is
/// solved for the camera, its board points projected back with cv::projectPoints and compared
/// with the detected corners.
std::vector<double> reprojectionErrors(quib::Calibration::Info const& info,
                                       quib::Projection const& camera);

/// The root mean square over all corners of all views, from the per-view figures.
double meanError(std::vector<double> const& perView);

/// A quib::Image over the pixels of an 8-bit BGR or grey matrix (no copy; the matrix must
/// outlive the image).
quib::Image imageOver(cv::Mat& bgrOrGrey);

}  // namespace quib::tool
