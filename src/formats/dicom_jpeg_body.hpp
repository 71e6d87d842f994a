// Internal: one JPEG decoding routine, compiled once for each JPEG library build. The including
// file opens a namespace of its own, includes that build's jpeglib.h inside it and then this
// file, which defines `run` in that namespace. Different builds share struct names, so each lives
// in its own namespace and translation unit.
//
// Error handling: the libraries report through error_exit, which must not return; it jumps
// back to `run` (no C++ object lives in the frames it skips). Warnings (a truncated or corrupt
// stream that the library would patch with grey) count as failures too.

struct error_manager {
  jpeg_error_mgr pub;
  std::jmp_buf jump;
  char message[JMSG_LENGTH_MAX];
};

inline void on_error(j_common_ptr info) {
  auto* err = reinterpret_cast<error_manager*>(info->err);
  (*info->err->format_message)(info, err->message);
  std::longjmp(err->jump, 1);
}

inline void on_message(j_common_ptr info, int level) {
  if (level < 0) on_error(info);  // a warning: the stream is damaged
}

inline void on_output(j_common_ptr) {}  // the library never prints

// A source over the caller's bytes; running out of them is a failure, not a patched end.
inline void source_nothing(j_decompress_ptr) {}
inline boolean source_fill(j_decompress_ptr info) {
  auto* err = reinterpret_cast<error_manager*>(info->err);
  std::snprintf(err->message, sizeof err->message, "JPEG stream ends early");
  std::longjmp(err->jump, 1);
}
inline void source_skip(j_decompress_ptr info, long count) {
  if (count <= 0) return;
  if (static_cast<std::size_t>(count) > info->src->bytes_in_buffer) source_fill(info);
  info->src->next_input_byte += count;
  info->src->bytes_in_buffer -= static_cast<std::size_t>(count);
}

// Decodes one JPEG frame into `out` as quib::detail::decode_jpeg describes.
inline decode_result run(byte_span in, frame_layout const& layout, unsigned char* out) {
  decode_result result;
  jpeg_decompress_struct info;
  error_manager err;
  jpeg_source_mgr source;
  err.message[0] = 0;
  info.err = jpeg_std_error(&err.pub);
  err.pub.error_exit = on_error;
  err.pub.emit_message = on_message;
  err.pub.output_message = on_output;
  if (setjmp(err.jump)) {
    jpeg_destroy_decompress(&info);
    result.error = std::string("JPEG: ") + err.message;
    return result;
  }
  jpeg_create_decompress(&info);
  source.next_input_byte = in.data;
  source.bytes_in_buffer = in.size;
  source.init_source = source_nothing;
  source.fill_input_buffer = source_fill;
  source.skip_input_data = source_skip;
  source.resync_to_restart = jpeg_resync_to_restart;
  source.term_source = source_nothing;
  info.src = &source;
  jpeg_read_header(&info, TRUE);

  // The stream's own header must agree with the attributes before anything is sized.
  if (int(info.image_width) != layout.columns || int(info.image_height) != layout.rows ||
      info.num_components != layout.samples || info.data_precision > 8 * layout.bytes) {
    std::snprintf(err.message, sizeof err.message,
                  "stream is %ux%u, %d components, %d bits; attributes say %dx%d, %d, %d",
                  unsigned(info.image_width), unsigned(info.image_height), info.num_components,
                  info.data_precision, layout.columns, layout.rows, layout.samples,
                  8 * layout.bytes);
    std::longjmp(err.jump, 1);
  }
  if (info.num_components == 3 && layout.ycbcr_to_rgb) {
    info.jpeg_color_space = JCS_YCbCr;  // YBR_FULL, YBR_FULL_422 and the like
    info.out_color_space = JCS_RGB;
    result.to_rgb = true;
  } else if (info.num_components == 3) {
    info.jpeg_color_space = JCS_RGB;  // kept as stored: no colour transform
    info.out_color_space = JCS_RGB;
  } else if (info.num_components == 1) {
    info.jpeg_color_space = JCS_GRAYSCALE;
    info.out_color_space = JCS_GRAYSCALE;
  } else {
    info.jpeg_color_space = JCS_UNKNOWN;
    info.out_color_space = JCS_UNKNOWN;
  }
  jpeg_start_decompress(&info);
  if (int(info.output_width) != layout.columns || int(info.output_height) != layout.rows ||
      info.output_components != layout.samples) {
    std::snprintf(err.message, sizeof err.message, "decoder output differs from the header");
    std::longjmp(err.jump, 1);
  }

  const std::size_t row_samples = std::size_t(layout.columns) * std::size_t(layout.samples);
  const std::size_t row_bytes = row_samples * std::size_t(layout.bytes);
  bool const direct = sizeof(JSAMPLE) == std::size_t(layout.bytes) &&
                      reinterpret_cast<std::uintptr_t>(out) % alignof(JSAMPLE) == 0 &&
                      row_bytes % alignof(JSAMPLE) == 0;
  JSAMPARRAY scratch = nullptr;
  if (!direct)
    scratch = (*info.mem->alloc_sarray)(reinterpret_cast<j_common_ptr>(&info), JPOOL_IMAGE,
                                        JDIMENSION(row_samples), 1);
  while (info.output_scanline < info.output_height) {
    unsigned char* target = out + std::size_t(info.output_scanline) * row_bytes;
    if (direct) {
      JSAMPROW row = reinterpret_cast<JSAMPROW>(target);
      jpeg_read_scanlines(&info, &row, 1);
      continue;
    }
    jpeg_read_scanlines(&info, scratch, 1);
    JSAMPLE const* from = scratch[0];
    if (layout.bytes == 1) {
      for (std::size_t i = 0; i < row_samples; ++i)
        target[i] = static_cast<unsigned char>(from[i]);
    } else if (layout.bytes == 2) {
      for (std::size_t i = 0; i < row_samples; ++i) {
        auto const v = static_cast<std::uint16_t>(from[i]);
        std::memcpy(target + 2 * i, &v, 2);
      }
    } else {
      for (std::size_t i = 0; i < row_samples; ++i) {
        auto const v = static_cast<std::uint32_t>(static_cast<std::uint16_t>(from[i]));
        std::memcpy(target + 4 * i, &v, 4);
      }
    }
  }
  jpeg_finish_decompress(&info);
  jpeg_destroy_decompress(&info);
  result.ok = true;
  return result;
}
