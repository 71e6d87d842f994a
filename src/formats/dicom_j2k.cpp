// JPEG 2000 frames (code streams or JP2 files, high-throughput ones included) through OpenJPEG.
#include "formats/dicom_pixels.hpp"

#include <openjpeg.h>

#include <cstring>
#include <memory>

namespace quib::detail {

namespace {

struct reader {
  byte_span in;
  std::size_t at = 0;
  std::string error;
};

OPJ_SIZE_T read_bytes(void* buffer, OPJ_SIZE_T count, void* user) {
  auto* r = static_cast<reader*>(user);
  const std::size_t left = r->in.size - r->at;
  if (left == 0) return OPJ_SIZE_T(-1);
  const std::size_t n = count < left ? count : left;
  std::memcpy(buffer, r->in.data + r->at, n);
  r->at += n;
  return n;
}

OPJ_OFF_T skip_bytes(OPJ_OFF_T count, void* user) {
  auto* r = static_cast<reader*>(user);
  if (count < 0) {
    if (std::size_t(-count) > r->at) return -1;
    r->at -= std::size_t(-count);
    return count;
  }
  const std::size_t n =
      std::size_t(count) < r->in.size - r->at ? std::size_t(count) : r->in.size - r->at;
  r->at += n;
  return OPJ_OFF_T(n);
}

OPJ_BOOL seek_bytes(OPJ_OFF_T to, void* user) {
  auto* r = static_cast<reader*>(user);
  if (to < 0 || std::size_t(to) > r->in.size) return OPJ_FALSE;
  r->at = std::size_t(to);
  return OPJ_TRUE;
}

void on_error(char const* message, void* user) {
  auto* r = static_cast<reader*>(user);
  if (r->error.empty()) r->error = message;
  while (!r->error.empty() && (r->error.back() == '\n' || r->error.back() == ' '))
    r->error.pop_back();
}
void on_quiet(char const*, void*) {}

struct codec_deleter {
  void operator()(opj_codec_t* c) const { opj_destroy_codec(c); }
};
struct stream_deleter {
  void operator()(opj_stream_t* s) const { opj_stream_destroy(s); }
};
struct image_deleter {
  void operator()(opj_image_t* i) const { opj_image_destroy(i); }
};

}  // namespace

decode_result decode_j2k(byte_span in, frame_layout const& layout, unsigned char* out) {
  decode_result result;
  static unsigned char const kJp2[] = {0, 0, 0, 12, 'j', 'P', ' ', ' '};
  bool const jp2 = in.size >= 8 && std::memcmp(in.data, kJp2, 8) == 0;
  if (!jp2 && (in.size < 4 || in.data[0] != 0xFF || in.data[1] != 0x4F)) {
    result.error = "JPEG 2000 frame starts with neither a code stream nor a JP2 signature";
    return result;
  }
  reader r{in, 0, {}};
  std::unique_ptr<opj_codec_t, codec_deleter> codec(
      opj_create_decompress(jp2 ? OPJ_CODEC_JP2 : OPJ_CODEC_J2K));
  std::unique_ptr<opj_stream_t, stream_deleter> stream(opj_stream_create(1 << 16, OPJ_TRUE));
  if (!codec || !stream) throw std::bad_alloc();
  opj_set_error_handler(codec.get(), on_error, &r);
  opj_set_warning_handler(codec.get(), on_quiet, nullptr);
  opj_set_info_handler(codec.get(), on_quiet, nullptr);
  opj_stream_set_user_data(stream.get(), &r, nullptr);
  opj_stream_set_user_data_length(stream.get(), in.size);
  opj_stream_set_read_function(stream.get(), read_bytes);
  opj_stream_set_skip_function(stream.get(), skip_bytes);
  opj_stream_set_seek_function(stream.get(), seek_bytes);
  opj_dparameters_t parameters;
  opj_set_default_decoder_parameters(&parameters);
  auto fail = [&](char const* what) {
    result.error = std::string("JPEG 2000: ") + (r.error.empty() ? what : r.error.c_str());
    return result;
  };
  if (!opj_setup_decoder(codec.get(), &parameters)) return fail("decoder set-up failed");
  opj_codec_set_threads(codec.get(), 0);  // the library starts no threads
  opj_image_t* raw = nullptr;
  if (!opj_read_header(stream.get(), codec.get(), &raw)) return fail("header unreadable");
  std::unique_ptr<opj_image_t, image_deleter> image(raw);

  // The stream's own header must agree with the attributes before anything is decoded.
  bool agrees = image->x1 > image->x0 && image->y1 > image->y0 &&
                image->x1 - image->x0 == OPJ_UINT32(layout.columns) &&
                image->y1 - image->y0 == OPJ_UINT32(layout.rows) &&
                image->numcomps == OPJ_UINT32(layout.samples);
  for (OPJ_UINT32 c = 0; agrees && c < image->numcomps; ++c) {
    opj_image_comp_t const& comp = image->comps[c];
    agrees = comp.dx == 1 && comp.dy == 1 && comp.prec >= 1 &&
             comp.prec <= OPJ_UINT32(8 * layout.bytes) && comp.prec <= 31;
  }
  if (!agrees) {
    result.error = "JPEG 2000 stream size, components or precision disagree with the attributes";
    return result;
  }
  if (!opj_decode(codec.get(), stream.get(), image.get()) ||
      !opj_end_decompress(codec.get(), stream.get()))
    return fail("stream damaged");
  const std::size_t pixels = std::size_t(layout.rows) * std::size_t(layout.columns);
  const std::size_t samples = std::size_t(layout.samples);
  for (std::size_t c = 0; c < samples; ++c) {
    opj_image_comp_t const& comp = image->comps[c];
    if (!comp.data || comp.w != OPJ_UINT32(layout.columns) || comp.h != OPJ_UINT32(layout.rows))
      return fail("decoded component missing");
    const OPJ_INT32* from = comp.data;
    if (layout.bytes == 1) {
      for (std::size_t p = 0; p < pixels; ++p)
        out[p * samples + c] = static_cast<unsigned char>(from[p]);
    } else if (layout.bytes == 2) {
      if (samples == 1) {
        auto* to = out;
        for (std::size_t p = 0; p < pixels; ++p) {
          auto const v = static_cast<std::uint16_t>(from[p]);
          std::memcpy(to + 2 * p, &v, 2);
        }
      } else {
        for (std::size_t p = 0; p < pixels; ++p) {
          auto const v = static_cast<std::uint16_t>(from[p]);
          std::memcpy(out + 2 * (p * samples + c), &v, 2);
        }
      }
    } else {
      for (std::size_t p = 0; p < pixels; ++p) {
        auto const v = static_cast<std::uint32_t>(from[p]);
        std::memcpy(out + 4 * (p * samples + c), &v, 4);
      }
    }
  }
  result.ok = true;
  return result;
}

}  // namespace quib::detail
