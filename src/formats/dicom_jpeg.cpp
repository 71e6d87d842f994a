// JPEG frames: the frame header picks the decoder. 8-bit lossy streams go to libjpeg-turbo,
// 12-bit lossy streams and every lossless stream to the IJG builds gdcm packages (Debian's
// libjpeg-turbo 2.1 decodes neither).
#include "formats/dicom_pixels.hpp"

#include "system/bytes.hpp"

#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace quib::detail::turbo {
extern "C" {
#include <jpeglib.h>
}
#include "formats/dicom_jpeg_body.hpp"
}  // namespace quib::detail::turbo

namespace quib::detail {

namespace {

// The start-of-frame segment of a JPEG stream: its marker (C0-CF but C4, C8, CC) and header.
struct jpeg_frame_header {
  int marker = 0;
  int precision = 0;
};

bool read_frame_header(byte_span in, jpeg_frame_header& header) {
  unsigned char const* p = in.data;
  if (in.size < 4 || p[0] != 0xFF || p[1] != 0xD8) return false;
  std::size_t i = 2;
  while (i + 4 <= in.size) {
    if (p[i] != 0xFF) return false;
    int const marker = p[i + 1];
    if (marker == 0xFF) {  // fill byte
      ++i;
      continue;
    }
    if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) {
      i += 2;
      continue;
    }
    if (marker == 0xD9 || marker == 0xDA) return false;  // no frame before the scan
    const std::size_t length = load_be<std::uint16_t>(p + i + 2);
    if (length < 2 || length > in.size - i - 2) return false;
    if (marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC) {
      if (length < 8) return false;
      header.marker = marker;
      header.precision = p[i + 4];
      return true;
    }
    i += 2 + length;
  }
  return false;
}

}  // namespace

decode_result decode_jpeg(byte_span in, frame_layout const& layout, unsigned char* out) {
  jpeg_frame_header header;
  if (!read_frame_header(in, header)) {
    decode_result result;
    result.error = "JPEG stream without a frame header";
    return result;
  }
  bool const lossless = (header.marker & 3) == 3;  // C3, C7, CB, CF
  if (lossless) return decode_jpeg_ijg16(in, layout, out);
  if (header.precision == 8) return turbo::run(in, layout, out);
  if (header.precision == 12) return decode_jpeg_ijg12(in, layout, out);
  decode_result result;
  result.error = "JPEG lossy precision of " + std::to_string(header.precision) + " bits";
  return result;
}

}  // namespace quib::detail
