// RLE Lossless frames: a 64-byte header of little-endian 32-bit words (segment count, then
// fifteen segment offsets), then one PackBits segment per byte plane. Planes come sample by
// sample, most significant byte first; each decodes to rows * columns bytes.
#include "formats/dicom_pixels.hpp"

#include "system/bytes.hpp"

#include <cstring>
#include <vector>

namespace quib::detail {

namespace {

// Decodes one PackBits segment into every `stride`-th byte of `out` (`count` bytes in all).
// Returns how many bytes it wrote; a segment may end early only when it is damaged.
std::size_t unpack_segment(unsigned char const* in, std::size_t size, unsigned char* out,
                           std::size_t count, std::size_t stride) {
  std::size_t i = 0, written = 0;
  while (i < size && written < count) {
    int const n = static_cast<signed char>(in[i++]);
    if (n >= 0) {  // n + 1 literal bytes
      std::size_t run = std::size_t(n) + 1;
      if (run > size - i) run = size - i;
      if (run > count - written) run = count - written;
      if (stride == 1) {
        std::memcpy(out + written, in + i, run);
      } else {
        unsigned char* o = out + written * stride;
        for (std::size_t k = 0; k < run; ++k)
          o[k * stride] = in[i + k];
      }
      i += std::size_t(n) + 1;
      written += run;
    } else if (n != -128) {  // one byte repeated 1 - n times
      if (i >= size) break;
      unsigned char const v = in[i++];
      std::size_t run = std::size_t(1 - n);
      if (run > count - written) run = count - written;
      if (stride == 1) {
        std::memset(out + written, v, run);
      } else {
        unsigned char* o = out + written * stride;
        for (std::size_t k = 0; k < run; ++k)
          o[k * stride] = v;
      }
      written += run;
    }
  }
  return written;
}

}  // namespace

namespace {

// One segment of packed bits (1 bit allocated, one sample) into one byte 0 or 1 per pixel.
decode_result unpack_bits(unsigned char const* in, std::size_t size, frame_layout const& layout,
                          unsigned char* out) {
  decode_result result;
  const std::size_t rows = std::size_t(layout.rows), columns = std::size_t(layout.columns);
  const std::size_t padded = rows * ((columns + 7) / 8), run_on = (rows * columns + 7) / 8;
  std::vector<unsigned char> bits(padded);
  const std::size_t written = unpack_segment(in, size, bits.data(), padded, 1);
  if (written != padded && written != run_on) {
    result.error = "RLE bit segment decodes to " + std::to_string(written) + " bytes, not " +
                   std::to_string(padded) + " (rows on whole bytes) or " + std::to_string(run_on);
    return result;
  }
  const std::size_t row_bits = written == padded ? (columns + 7) / 8 * 8 : columns;
  for (std::size_t y = 0; y < rows; ++y)
    for (std::size_t x = 0; x < columns; ++x) {
      const std::size_t bit = y * row_bits + x;
      out[y * columns + x] = (bits[bit >> 3] >> (bit & 7)) & 1;
    }
  result.ok = true;
  return result;
}

}  // namespace

decode_result decode_rle(byte_span in, frame_layout const& layout, unsigned char* out) {
  decode_result result;
  if (in.size < 64) {
    result.error = "RLE frame shorter than its 64-byte header";
    return result;
  }
  const std::uint32_t segments = load_le<std::uint32_t>(in.data);
  if (layout.packed_bits && layout.samples != 1) {
    result.error = "RLE data of 1 bit with " + std::to_string(layout.samples) + " samples";
    return result;
  }
  const std::uint32_t expected = std::uint32_t(layout.samples * layout.bytes);
  if (segments != expected) {
    result.error = "RLE frame has " + std::to_string(segments) +
                   " segments where the attributes give " + std::to_string(expected);
    return result;
  }
  const std::size_t pixels = std::size_t(layout.rows) * std::size_t(layout.columns);
  const std::size_t stride = std::size_t(layout.samples) * std::size_t(layout.bytes);
  for (std::uint32_t s = 0; s < segments; ++s) {
    const std::uint32_t start = load_le<std::uint32_t>(in.data + 4 + 4 * s);
    const std::uint32_t end =
        s + 1 < segments ? load_le<std::uint32_t>(in.data + 8 + 4 * s) : std::uint32_t(in.size);
    if (start < 64 || start > end || end > in.size) {
      result.error = "RLE segment " + std::to_string(s) + " lies outside the frame";
      return result;
    }
    if (layout.packed_bits) return unpack_bits(in.data + start, end - start, layout, out);
    // Segment s holds byte (bytes - 1 - s % bytes) of sample s / bytes: host order is little.
    const std::size_t sample = s / std::size_t(layout.bytes);
    const std::size_t byte = std::size_t(layout.bytes) - 1 - s % std::size_t(layout.bytes);
    const std::size_t place = kHostLittle ? byte : std::size_t(layout.bytes) - 1 - byte;
    unsigned char* target = out + sample * std::size_t(layout.bytes) + place;
    if (unpack_segment(in.data + start, end - start, target, pixels, stride) != pixels) {
      result.error = "RLE segment " + std::to_string(s) + " decodes to fewer bytes than the frame";
      return result;
    }
  }
  result.ok = true;
  return result;
}

}  // namespace quib::detail
