// Adapters between quib::Image and OpenCV's 8-bit BGR IplImage.
#pragma once

#include <quib/export.hpp>
#include <quib/image.hpp>

#include <opencv2/core/types_c.h>

#include <memory>

namespace quib::ocv {

/// Releases an IplImage made by cvCreateImage (what createIpl_bgr2 returns).
struct QUIB_API ipl_deleter {
  void operator()(IplImage* image) const noexcept;
};

/// The unique owner of an IplImage: released with cvReleaseImage on every path.
using unique_ipl = std::unique_ptr<IplImage, ipl_deleter>;

/// Converts an image of any format a bitmap can hold into a new 8-bit, 3-channel BGR
/// IplImage of the same width and height, for the OpenCV calls that want colour.
///
/// Formats, by bits per pixel: 1, 2 and 4 (grey levels, leftmost pixel in the high bits,
/// stretched to 0..255), 8 (grey), 16 (grey, scaled to 8 bits), 24 (BGR, or RGB when the
/// colour model says rgb), 32 (BGRA, RGBA or ARGB by the colour model; alpha is dropped).
/// The caller owns the result (hold it with make_unique_ipl). Returns null, and allocates
/// nothing, for an empty image, a non-positive size, rows shorter than the width needs, or a
/// format outside that list (other depths, or a 24/32-bit colour model other than BGR/RGB).
/// Reads the image only; thread-safe as far as the image is.
///
///     quib::ocv::unique_ipl bgr = quib::ocv::make_unique_ipl(quib::ocv::createIpl_bgr2(image));
///     if (bgr) cv::Mat view(bgr->height, bgr->width, CV_8UC3, bgr->imageData, bgr->widthStep);
QUIB_API IplImage* createIpl_bgr2(Image const& image);

/// Takes ownership of `image` (null is allowed).
inline unique_ipl make_unique_ipl(IplImage* image) {
  return unique_ipl(image);
}

/// Writes an 8-bit BGR IplImage back into `image` in the image's own format, the inverse of
/// createIpl_bgr2: grey formats receive the BGR-to-grey conversion (quantised to their
/// levels, 16 bits stretched to 0..65535), 32-bit images keep their alpha bytes. Returns
/// false and writes nothing when the IplImage is not 8-bit 3-channel of the image's size or
/// the image's format is one createIpl_bgr2 refuses.
QUIB_API bool copyImage_bgr2(Image& image, IplImage const* bgr);

}  // namespace quib::ocv
