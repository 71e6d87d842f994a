// JPEG frames of 12-bit lossy processes, through the 12-bit IJG build that gdcm packages.
#include "formats/dicom_pixels.hpp"

#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace quib::detail::ijg12 {
extern "C" {
#include <gdcmjpeg/12/jpeglib.h>
}
#include "formats/dicom_jpeg_body.hpp"
}  // namespace quib::detail::ijg12

namespace quib::detail {

decode_result decode_jpeg_ijg12(byte_span in, frame_layout const& layout, unsigned char* out) {
  return ijg12::run(in, layout, out);
}

}  // namespace quib::detail
