// JPEG-LS frames, lossless and near-lossless, through CharLS.
#include "formats/dicom_pixels.hpp"

#include <charls/charls.h>

#include <cstring>
#include <memory>

namespace quib::detail {

namespace {

struct decoder_deleter {
  void operator()(charls_jpegls_decoder* d) const { charls_jpegls_decoder_destroy(d); }
};

// Copies `count` samples of `from_bytes` bytes each into containers of `to_bytes` bytes.
void widen(unsigned char const* from, int from_bytes, unsigned char* to, int to_bytes,
           std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    std::uint32_t v = 0;
    if (from_bytes == 1) {
      v = from[i];
    } else {
      std::uint16_t s;
      std::memcpy(&s, from + 2 * i, 2);
      v = s;
    }
    if (to_bytes == 1) {
      to[i] = static_cast<unsigned char>(v);
    } else if (to_bytes == 2) {
      auto const s = static_cast<std::uint16_t>(v);
      std::memcpy(to + 2 * i, &s, 2);
    } else {
      std::memcpy(to + 4 * i, &v, 4);
    }
  }
}

}  // namespace

decode_result decode_jpegls(byte_span in, frame_layout const& layout, unsigned char* out) {
  decode_result result;
  std::unique_ptr<charls_jpegls_decoder, decoder_deleter> decoder(charls_jpegls_decoder_create());
  if (!decoder) throw std::bad_alloc();
  auto fail = [&](charls_jpegls_errc code) {
    result.error = std::string("JPEG-LS: ") + charls_get_error_message(code);
    return result;
  };
  charls_jpegls_errc code =
      charls_jpegls_decoder_set_source_buffer(decoder.get(), in.data, in.size);
  if (code == charls::jpegls_errc::success) code = charls_jpegls_decoder_read_header(decoder.get());
  charls_frame_info info{};
  if (code == charls::jpegls_errc::success)
    code = charls_jpegls_decoder_get_frame_info(decoder.get(), &info);
  charls::interleave_mode mode = charls::interleave_mode::none;
  if (code == charls::jpegls_errc::success)
    code = charls_jpegls_decoder_get_interleave_mode(decoder.get(), &mode);
  if (code != charls::jpegls_errc::success) return fail(code);

  // The stream's own header must agree with the attributes before anything is sized.
  if (info.width != std::uint32_t(layout.columns) || info.height != std::uint32_t(layout.rows) ||
      info.component_count != layout.samples || info.bits_per_sample < 2 ||
      info.bits_per_sample > 16 || info.bits_per_sample > 8 * layout.bytes) {
    result.error = "JPEG-LS stream is " + std::to_string(info.width) + "x" +
                   std::to_string(info.height) + ", " + std::to_string(info.component_count) +
                   " components, " + std::to_string(info.bits_per_sample) +
                   " bits; the attributes say otherwise";
    return result;
  }
  int const stream_bytes = info.bits_per_sample > 8 ? 2 : 1;
  bool const planar = mode == charls::interleave_mode::none && layout.samples > 1;
  const std::size_t size =
      layout.frame_bytes() / std::size_t(layout.bytes) * std::size_t(stream_bytes);
  if (stream_bytes == layout.bytes && !planar) {
    code = charls_jpegls_decoder_decode_to_buffer(decoder.get(), out, size, 0);
    if (code != charls::jpegls_errc::success) return fail(code);
    result.ok = true;
    return result;
  }
  std::vector<unsigned char> scratch(size);
  code = charls_jpegls_decoder_decode_to_buffer(decoder.get(), scratch.data(), size, 0);
  if (code != charls::jpegls_errc::success) return fail(code);
  if (!planar) {
    widen(scratch.data(), stream_bytes, out, layout.bytes, size / std::size_t(stream_bytes));
  } else {  // one plane per component: interleave by pixel
    const std::size_t pixels = std::size_t(layout.rows) * std::size_t(layout.columns);
    const std::size_t samples = std::size_t(layout.samples);
    for (std::size_t c = 0; c < samples; ++c)
      for (std::size_t p = 0; p < pixels; ++p)
        widen(scratch.data() + (c * pixels + p) * std::size_t(stream_bytes), stream_bytes,
              out + (p * samples + c) * std::size_t(layout.bytes), layout.bytes, 1);
  }
  result.ok = true;
  return result;
}

}  // namespace quib::detail
