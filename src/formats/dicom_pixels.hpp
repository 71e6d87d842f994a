// Internal: the codecs behind DicomPixels, each over the bytes of one frame.
#pragma once

#include <quib/dicom_image.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace quib::detail {

// A run of bytes the caller owns.
struct byte_span {
  unsigned char const* data = nullptr;
  std::size_t size = 0;
};

// What the DICOM attributes say a frame holds. Every decoder checks its stream's own header
// against this before it writes anything, and writes exactly rows * columns * samples samples,
// interleaved by pixel, each in a host-order container of `bytes` (1, 2 or 4) bytes.
struct frame_layout {
  int rows = 0;
  int columns = 0;
  int samples = 1;
  int bytes = 1;              // container bytes per sample (Bits Allocated / 8)
  int bits_stored = 8;        // precision the stream may carry at most (Bits Allocated for codecs)
  bool ycbcr_to_rgb = false;  // a three-component lossy JPEG stream holds YCbCr: convert to RGB
  bool packed_bits = false;   // 1 bit allocated: the stream holds bits, 8 to a byte (RLE only)
  std::size_t frame_bytes() const {
    return std::size_t(rows) * std::size_t(columns) * std::size_t(samples) * std::size_t(bytes);
  }
};

// What a decoder reports besides the samples.
struct decode_result {
  bool ok = false;
  bool to_rgb = false;  // the codec converted YCbCr to RGB
  std::string error;
};

// RLE Lossless: one fragment holding the 64-byte segment header and the PackBits segments.
// With packed bits, one segment of bits, the first pixel in the lowest bit, each row starting
// on a byte (or rows run on, as uncompressed 1-bit data does: told apart by the length).
decode_result decode_rle(byte_span in, frame_layout const& layout, unsigned char* out);
// The JPEG family: baseline and extended 8-bit through libjpeg-turbo, 12-bit lossy through the
// 12-bit IJG build, lossless (processes 14 and SV1) through the 16-bit IJG build.
decode_result decode_jpeg(byte_span in, frame_layout const& layout, unsigned char* out);
// The IJG builds behind decode_jpeg: `precision` bits per sample (12 lossy, up to 16 lossless).
decode_result decode_jpeg_ijg12(byte_span in, frame_layout const& layout, unsigned char* out);
decode_result decode_jpeg_ijg16(byte_span in, frame_layout const& layout, unsigned char* out);
// JPEG-LS, lossless and near-lossless, through CharLS.
decode_result decode_jpegls(byte_span in, frame_layout const& layout, unsigned char* out);
// JPEG 2000 (code stream or JP2 file, including high-throughput streams) through OpenJPEG.
decode_result decode_j2k(byte_span in, frame_layout const& layout, unsigned char* out);

// Writes slope * v + intercept of `count` decoded samples (`bytes` each, signed or not) to
// `out` as 32-bit floats (any alignment).
void rescale_samples(unsigned char const* in, std::size_t count, int bytes, bool is_signed,
                     double slope, double intercept, unsigned char* out);

// The lookup table of `item` described by (0028,descriptor) with its entries in (0028,data)
// or, when that is absent and `segmented` is not 0, expanded from the segments in
// (0028,segmented). `signed_first` reads the first mapped value as two's complement. No
// entries and no error when the descriptor is absent; `name` starts each error.
DicomPixels::LookupTable read_lookup_table(Dicom const& item, std::uint16_t descriptor,
                                           std::uint16_t data, std::uint16_t segmented,
                                           bool signed_first, std::string const& name);

// The codec a transfer syntax names.
enum class codec_t { native, deflated, big_endian, rle, jpeg, jpegls, j2k, unknown };
codec_t codec_of(std::string const& transfer_syntax);

// The fragments of each frame. `offsets` (the Extended Offset Table, when given, with
// `lengths`) or else the Basic Offset Table locate frames; otherwise one fragment per frame
// when the counts agree, or fragments are gathered until one ends with the codec's end marker
// (FFD9). Every located frame is checked to lie inside the data.
bool locate_frames(std::vector<byte_span> const& items, std::size_t frames,
                   std::vector<std::uint64_t> const& offsets,
                   std::vector<std::uint64_t> const& lengths, codec_t codec,
                   std::vector<std::vector<byte_span>>& located, std::string& error);

}  // namespace quib::detail
