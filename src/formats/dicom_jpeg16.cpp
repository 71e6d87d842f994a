// JPEG frames of the lossless processes (up to 16 bits), through the 16-bit IJG build that gdcm
// packages.
#include "formats/dicom_pixels.hpp"

#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace quib::detail::ijg16 {
extern "C" {
#include <gdcmjpeg/16/jpeglib.h>
}
#include "formats/dicom_jpeg_body.hpp"
}  // namespace quib::detail::ijg16

namespace quib::detail {

decode_result decode_jpeg_ijg16(byte_span in, frame_layout const& layout, unsigned char* out) {
  return ijg16::run(in, layout, out);
}

}  // namespace quib::detail
