// Reading and writing pictures for the vision subcommands: uncompressed bitmaps go through
// quib::Dib, every other format through OpenCV.
#pragma once

#include <opencv2/core.hpp>

#include <string>

namespace quib::tool {

enum class read_as { colour, grey };

/// Reads a picture as 8-bit BGR (colour) or 8-bit grey ("-" reads standard input); throws
/// Failure naming the file.
cv::Mat readImage(std::string const& path, read_as mode);
/// Writes an 8-bit grey or BGR picture; the format follows the extension (".bmp" through
/// quib::Dib). Throws Failure naming the file.
void writeImage(std::string const& path, cv::Mat const& image);
/// A new path in `dir` for the picture `input`: its file name with the extension replaced by
/// `ext` (or kept when `ext` is empty).
std::string outputPath(std::string const& dir, std::string const& input, std::string const& ext);
/// Creates `dir` (and its parents) when missing; throws Failure when that is not possible.
void makeDirectory(std::string const& dir);

}  // namespace quib::tool
