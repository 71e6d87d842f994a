// Internal: the reader of the camera file, without OpenCV's file storage.
#pragma once

#include <quib/projection.hpp>

#include <string_view>

namespace quib::detail {

// Reads the text of a camera file as cv::FileStorage writes it: the YAML mapping (with its
// "!!opencv-matrix" nodes), the XML "opencv_storage" document or the JSON object. The syntax is
// told by the text itself. True, with every field of `info` set, when the "format" is exactly
// "camera.projection", the sizes are integers (absent ones are 0) and the four matrices are
// double matrices of at least 9, 4, 3 and 3 elements whose element count matches their rows and
// columns. Anything else, including text outside the shapes the writer makes, is false, and
// `info` may then be partly written. Never throws (except allocation), never recurses deeper
// than the document's two levels.
bool read_camera_file(std::string_view text, Projection::Info& info);

}  // namespace quib::detail
