// The image pixel module of a DICOM file: attributes, frame location and frame decoding.
#include <quib/dicom_image.hpp>

#include "formats/dicom_pixels.hpp"
#include "system/bytes.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

namespace quib {

namespace detail {

codec_t codec_of(const std::string& uid) {
  if (uid.empty() || uid == "1.2.840.10008.1.2" || uid == "1.2.840.10008.1.2.1")
    return codec_t::native;
  if (uid == "1.2.840.10008.1.2.1.99") return codec_t::deflated;
  if (uid == "1.2.840.10008.1.2.2") return codec_t::big_endian;
  if (uid == "1.2.840.10008.1.2.5") return codec_t::rle;
  const std::string jpeg = "1.2.840.10008.1.2.4.";
  if (uid.compare(0, jpeg.size(), jpeg) != 0) return codec_t::unknown;
  int n = 0;
  const char* end = uid.data() + uid.size();
  auto [p, ec] = std::from_chars(uid.data() + jpeg.size(), end, n);
  if (ec != std::errc() || p != end) return codec_t::unknown;
  if (n >= 50 && n <= 70) return codec_t::jpeg;
  if (n == 80 || n == 81) return codec_t::jpegls;
  if ((n >= 90 && n <= 93) || (n >= 201 && n <= 203)) return codec_t::j2k;
  return codec_t::unknown;
}

bool split_items(byte_span value, std::vector<byte_span>& items, std::string& error) {
  items.clear();
  std::size_t at = 0;
  while (at < value.size) {
    if (value.size - at < 8) {
      error = "encapsulated pixel data ends inside an item header";
      return false;
    }
    const std::uint16_t group = load_le<std::uint16_t>(value.data + at);
    const std::uint16_t number = load_le<std::uint16_t>(value.data + at + 2);
    const std::uint32_t length = load_le<std::uint32_t>(value.data + at + 4);
    if (group == 0xFFFE && number == 0xE0DD) break;  // a delimiter the reading kept
    if (group != 0xFFFE || number != 0xE000) {
      error = "encapsulated pixel data holds something other than an item";
      return false;
    }
    if (length > value.size - at - 8) {
      error = "a pixel data fragment claims more bytes than the file holds";
      return false;
    }
    items.push_back({value.data + at + 8, length});
    at += 8 + std::size_t(length);
  }
  if (items.empty()) {
    error = "encapsulated pixel data without a Basic Offset Table item";
    return false;
  }
  return true;
}

namespace {

// True when a fragment ends a codec stream: FFD9 (JPEG EOI, JPEG 2000 EOC) before padding.
bool ends_stream(byte_span fragment) {
  std::size_t n = fragment.size;
  while (n > 0 && fragment.data[n - 1] == 0)
    --n;
  return n >= 2 && fragment.data[n - 2] == 0xFF && fragment.data[n - 1] == 0xD9;
}

}  // namespace

bool locate_frames(const std::vector<byte_span>& items, std::size_t frames,
                   const std::vector<std::uint64_t>& offsets,
                   const std::vector<std::uint64_t>& lengths, codec_t codec,
                   std::vector<std::vector<byte_span>>& located, std::string& error) {
  located.clear();
  const std::size_t count = items.size() - 1;  // fragments after the Basic Offset Table
  if (count < frames) {
    error = "pixel data has " + std::to_string(count) + " fragments for " + std::to_string(frames) +
            " frames";
    return false;
  }
  // Offsets count from the first fragment's item header.
  std::vector<std::uint64_t> starts(count);
  for (std::size_t i = 0; i < count; ++i)
    starts[i] = std::uint64_t(items[i + 1].data - items[1].data);
  auto fragment_at = [&](std::uint64_t offset, std::size_t& index) {
    auto it = std::lower_bound(starts.begin(), starts.end(), offset);
    if (it == starts.end() || *it != offset) return false;
    index = std::size_t(it - starts.begin());
    return true;
  };

  std::vector<std::uint64_t> table = offsets;
  const byte_span bot = items[0];
  if (table.empty() && bot.size > 0) {
    if (bot.size % 4 != 0 || bot.size / 4 != frames) {
      error = "Basic Offset Table lists " + std::to_string(bot.size / 4) +
              " frames, the file has " + std::to_string(frames);
      return false;
    }
    for (std::size_t k = 0; k < frames; ++k)
      table.push_back(load_le<std::uint32_t>(bot.data + 4 * k));
  }
  if (!table.empty()) {
    if (table.size() != frames || (!lengths.empty() && lengths.size() != frames)) {
      error = "Extended Offset Table does not list every frame";
      return false;
    }
    std::vector<std::size_t> first(frames + 1, count);
    for (std::size_t k = 0; k < frames; ++k) {
      if (!fragment_at(table[k], first[k]) || (k > 0 && first[k] <= first[k - 1])) {
        error = "offset table entry " + std::to_string(k) + " points to no fragment";
        return false;
      }
    }
    for (std::size_t k = 0; k < frames; ++k) {
      std::vector<byte_span> frame(items.begin() + 1 + std::ptrdiff_t(first[k]),
                                   items.begin() + 1 + std::ptrdiff_t(first[k + 1]));
      if (!lengths.empty()) {
        if (frame.size() != 1 || lengths[k] > frame[0].size) {
          error =
              "Extended Offset Table length " + std::to_string(k) + " disagrees with its fragment";
          return false;
        }
        frame[0].size = std::size_t(lengths[k]);
      }
      located.push_back(std::move(frame));
    }
    return true;
  }
  if (frames == 1) {
    located.emplace_back(items.begin() + 1, items.end());
    return true;
  }
  if (count == frames) {
    for (std::size_t k = 0; k < frames; ++k)
      located.push_back({items[k + 1]});
    return true;
  }
  if (codec == codec_t::rle) {
    error = "RLE pixel data has " + std::to_string(count) + " fragments for " +
            std::to_string(frames) + " frames and no offset table";
    return false;
  }
  std::vector<byte_span> frame;
  for (std::size_t i = 1; i < items.size() && located.size() < frames; ++i) {
    frame.push_back(items[i]);
    if (ends_stream(items[i])) located.push_back(std::move(frame)), frame.clear();
  }
  if (located.size() != frames) {
    error = "only " + std::to_string(located.size()) + " of " + std::to_string(frames) +
            " frames end with a codec end marker";
    return false;
  }
  return true;
}

}  // namespace detail

namespace {

using detail::byte_span;
using detail::codec_t;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Attribute values, read from the raw bytes of the table.
const std::vector<unsigned char>* find(const Dicom& file, std::uint16_t group,
                                       std::uint16_t number) {
  auto it = file->find(dicom::tag_key(group, number));
  return it == file->end() ? nullptr : &it->second;
}

std::string text(const Dicom& file, std::uint16_t group, std::uint16_t number) {
  const auto* v = find(file, group, number);
  if (!v) return {};
  std::string s(v->begin(), v->end());
  const auto pad = [](char c) { return c == ' ' || c == '\0'; };
  while (!s.empty() && pad(s.back()))
    s.pop_back();
  std::size_t start = 0;
  while (start < s.size() && pad(s[start]))
    ++start;
  return s.substr(start);
}

// A US value, or -1 when absent or short.
int us(const Dicom& file, std::uint16_t group, std::uint16_t number, bool little) {
  const auto* v = find(file, group, number);
  if (!v || v->size() < 2) return -1;
  return detail::load<std::uint16_t>(v->data(), little);
}

// The numbers of a DS or IS value split at backslashes; NaN for an entry that is no number.
std::vector<double> numbers(const Dicom& file, std::uint16_t group, std::uint16_t number) {
  std::vector<double> out;
  const std::string s = text(file, group, number);
  if (s.empty()) return out;
  std::size_t start = 0;
  for (;;) {
    std::size_t end = s.find('\\', start);
    if (end == std::string::npos) end = s.size();
    std::size_t a = start, b = end;
    while (a < b && s[a] == ' ')
      ++a;
    while (b > a && s[b - 1] == ' ')
      --b;
    if (a < b && s[a] == '+') ++a;
    double value = kNaN;
    auto [p, ec] = std::from_chars(s.data() + a, s.data() + b, value);
    if (ec != std::errc() || p != s.data() + b) value = kNaN;
    out.push_back(value);
    if (end == s.size()) break;
    start = end + 1;
  }
  return out;
}

template <std::size_t N>
std::array<double, N> fixed(const Dicom& file, std::uint16_t group, std::uint16_t number) {
  std::array<double, N> out;
  out.fill(kNaN);
  const auto v = numbers(file, group, number);
  if (v.size() == N) std::copy(v.begin(), v.end(), out.begin());
  return out;
}

// Copies `count` samples from `in` to `out` (which may be the same memory), clearing the bits
// above `bits` of each, or copying the sign bit into them: one pass, as fast as a copy.
template <class T>
void fit_samples(const unsigned char* in, unsigned char* out, std::size_t count, int bits,
                 bool is_signed) {
  using U = std::make_unsigned_t<T>;
  const int shift = int(8 * sizeof(T)) - bits;
  for (std::size_t i = 0; i < count; ++i) {
    U v;
    std::memcpy(&v, in + i * sizeof(T), sizeof(T));
    if (is_signed) {
      v = U(T(U(v << shift)) >> shift);
    } else {
      v = U(U(v << shift) >> shift);
    }
    std::memcpy(out + i * sizeof(T), &v, sizeof(T));
  }
}

void fit_samples(const unsigned char* in, unsigned char* out, std::size_t count, int bytes,
                 int bits, bool is_signed) {
  if (bits >= 8 * bytes) {
    if (in != out) std::memcpy(out, in, count * std::size_t(bytes));
  } else if (bytes == 1) {
    fit_samples<std::int8_t>(in, out, count, bits, is_signed);
  } else if (bytes == 2) {
    fit_samples<std::int16_t>(in, out, count, bits, is_signed);
  } else {
    fit_samples<std::int32_t>(in, out, count, bits, is_signed);
  }
}

}  // namespace

DicomPixels::DicomPixels(const Dicom& file, std::uint64_t frame_limit) {
  load(file, frame_limit);
}

DicomPixels DicomPixels::create(const Dicom& file, std::uint64_t frame_limit) {
  return DicomPixels(file, frame_limit);
}

void DicomPixels::clear() {
  std::string kept;
  kept.swap(error);
  *this = DicomPixels();
  error.swap(kept);
}

void DicomPixels::swap(DicomPixels& other) noexcept {
  std::swap(value, other.value);
  std::swap(rows, other.rows);
  std::swap(columns, other.columns);
  std::swap(samples, other.samples);
  std::swap(bits_allocated, other.bits_allocated);
  std::swap(bits_stored, other.bits_stored);
  std::swap(high_bit, other.high_bit);
  std::swap(pixel_representation, other.pixel_representation);
  std::swap(planar_configuration, other.planar_configuration);
  std::swap(frames, other.frames);
  std::swap(little, other.little);
  photometric.swap(other.photometric);
  frame_photometric.swap(other.frame_photometric);
  transfer_syntax.swap(other.transfer_syntax);
  std::swap(pixel_spacing, other.pixel_spacing);
  std::swap(position, other.position);
  std::swap(orientation, other.orientation);
  frame_positions.swap(other.frame_positions);
  std::swap(slice_thickness, other.slice_thickness);
  std::swap(rescale_slope, other.rescale_slope);
  std::swap(rescale_intercept, other.rescale_intercept);
  windows.swap(other.windows);
  voi_function.swap(other.voi_function);
  std::swap(palette_descriptor, other.palette_descriptor);
  palette.swap(other.palette);
  fragments.swap(other.fragments);
  frame_first.swap(other.frame_first);
  error.swap(other.error);
}

bool DicomPixels::fail(const std::string& reason) const {
  error = reason;
  return false;
}

std::uint64_t DicomPixels::get_frame_bytes() const {
  return std::uint64_t(rows) * std::uint64_t(columns) * std::uint64_t(samples) *
         std::uint64_t(get_sample_bytes());
}

bool DicomPixels::load(const Dicom& file, std::uint64_t frame_limit) {
  return load(file, frame_limit, true);
}

bool DicomPixels::load(const Dicom& file, std::uint64_t frame_limit, bool with_pixels) {
  clear();
  DicomPixels next;
  auto refuse = [&](const std::string& reason) {
    error = reason;
    return false;
  };
  next.transfer_syntax = text(file, 0x0002, 0x0010);
  const codec_t codec = detail::codec_of(next.transfer_syntax);
  if (codec == codec_t::unknown)
    return refuse("transfer syntax " + next.transfer_syntax + " is not one this library decodes");
  next.little = codec != codec_t::big_endian;
  const auto* pixel_data = find(file, 0x7FE0, 0x0010);
  if (with_pixels && (!pixel_data || pixel_data->empty()))
    return refuse("the file has no pixel data");

  next.rows = us(file, 0x0028, 0x0010, next.little);
  next.columns = us(file, 0x0028, 0x0011, next.little);
  next.samples = us(file, 0x0028, 0x0002, next.little);
  next.bits_allocated = us(file, 0x0028, 0x0100, next.little);
  next.bits_stored = us(file, 0x0028, 0x0101, next.little);
  next.high_bit = us(file, 0x0028, 0x0102, next.little);
  next.pixel_representation = us(file, 0x0028, 0x0103, next.little);
  next.planar_configuration = us(file, 0x0028, 0x0006, next.little);
  if (next.samples < 0) next.samples = 1;
  if (next.bits_stored < 0) next.bits_stored = next.bits_allocated;
  if (next.high_bit < 0) next.high_bit = next.bits_stored - 1;
  if (next.pixel_representation < 0) next.pixel_representation = 0;
  if (next.planar_configuration < 0 || next.samples == 1) next.planar_configuration = 0;
  if (next.rows <= 0 || next.columns <= 0) return refuse("Rows or Columns missing or zero");
  if (next.samples != 1 && next.samples != 3)
    return refuse("Samples per Pixel of " + std::to_string(next.samples));
  if (next.bits_allocated != 1 && next.bits_allocated != 8 && next.bits_allocated != 16 &&
      next.bits_allocated != 32)
    return refuse("Bits Allocated of " + std::to_string(next.bits_allocated));
  if (next.bits_stored < 1 || next.bits_stored > next.bits_allocated ||
      next.high_bit >= next.bits_allocated || next.high_bit < next.bits_stored - 1)
    return refuse("Bits Stored " + std::to_string(next.bits_stored) + " or High Bit " +
                  std::to_string(next.high_bit) + " do not fit Bits Allocated");
  if (next.pixel_representation > 1 || next.planar_configuration > 1)
    return refuse("Pixel Representation or Planar Configuration out of range");

  next.photometric = text(file, 0x0028, 0x0004);
  if (next.photometric.empty()) next.photometric = next.samples == 1 ? "MONOCHROME2" : "RGB";
  const bool ybr422 = next.photometric == "YBR_FULL_422" && next.samples == 3;

  // Number of Frames is an IS: digits with an optional sign, nothing else.
  const std::string frame_text = text(file, 0x0028, 0x0008);
  long long count = 1;
  if (!frame_text.empty()) {
    const char* first = frame_text.data() + (frame_text[0] == '+' ? 1 : 0);
    const char* last = frame_text.data() + frame_text.size();
    auto [p, ec] = std::from_chars(first, last, count);
    if (ec != std::errc() || p != last) count = 0;
  }
  if (count < 1 || count > std::numeric_limits<std::int32_t>::max())
    return refuse("Number of Frames is " + frame_text);
  next.frames = int(count);

  const std::uint64_t frame_bytes = next.get_frame_bytes();
  if (frame_bytes > frame_limit)
    return refuse("a frame of " + std::to_string(frame_bytes) + " bytes exceeds the limit of " +
                  std::to_string(frame_limit));

  next.frame_photometric = next.photometric;
  const bool native =
      codec == codec_t::native || codec == codec_t::deflated || codec == codec_t::big_endian;
  const std::string& uid = next.transfer_syntax;
  const bool lossless_jpeg = uid == "1.2.840.10008.1.2.4.57" || uid == "1.2.840.10008.1.2.4.70";
  if (native && ybr422) next.frame_photometric = "YBR_FULL";
  if (next.samples == 3 &&
      ((codec == codec_t::jpeg && !lossless_jpeg && next.photometric != "RGB") ||
       (codec == codec_t::j2k && (next.photometric == "YBR_RCT" || next.photometric == "YBR_ICT"))))
    next.frame_photometric = "RGB";
  if (!with_pixels) {
    // Attributes only (the first look at a series' files).
  } else if (native) {
    const std::uint64_t size = pixel_data->size();
    // What one frame occupies in the file, in bits.
    std::uint64_t stored = frame_bytes * 8;
    if (next.bits_allocated == 1) stored = std::uint64_t(next.rows) * next.columns * next.samples;
    if (ybr422) {
      if (next.bits_allocated != 8 || next.columns % 2 != 0)
        return refuse("uncompressed YBR_FULL_422 needs 8 bits and an even width");
      stored = std::uint64_t(next.rows) * next.columns * 2 * 8;
    }
    if (std::uint64_t(next.frames) > size * 8 / stored)
      return refuse("pixel data holds " + std::to_string(size) + " bytes, too few for " +
                    std::to_string(next.frames) + " frames");
  } else {
    if (next.bits_allocated == 1) return refuse("compressed pixel data with 1 bit allocated");
    std::vector<byte_span> items;
    std::string reason;
    if (!detail::split_items({pixel_data->data(), pixel_data->size()}, items, reason))
      return refuse(reason);
    std::vector<std::uint64_t> offsets, lengths;
    const auto* eot = find(file, 0x7FE0, 0x0001);
    const auto* eot_lengths = find(file, 0x7FE0, 0x0002);
    if (eot && !eot->empty()) {
      if (eot->size() % 8 != 0 || (eot_lengths && eot_lengths->size() != eot->size()))
        return refuse("Extended Offset Table has a broken length");
      for (std::size_t i = 0; i < eot->size(); i += 8) {
        offsets.push_back(detail::load_le<std::uint64_t>(eot->data() + i));
        if (eot_lengths) lengths.push_back(detail::load_le<std::uint64_t>(eot_lengths->data() + i));
      }
    }
    std::vector<std::vector<byte_span>> located;
    if (!detail::locate_frames(items, std::size_t(next.frames), offsets, lengths, codec, located,
                               reason))
      return refuse(reason);
    for (const auto& frame : located) {
      next.frame_first.push_back(std::uint32_t(next.fragments.size()));
      for (const byte_span& f : frame)
        next.fragments.push_back({std::uint64_t(f.data - pixel_data->data()), f.size});
    }
    next.frame_first.push_back(std::uint32_t(next.fragments.size()));
  }

  next.pixel_spacing = fixed<2>(file, 0x0028, 0x0030);
  next.position = fixed<3>(file, 0x0020, 0x0032);
  next.orientation = fixed<6>(file, 0x0020, 0x0037);
  const auto thickness = numbers(file, 0x0018, 0x0050);
  next.slice_thickness = thickness.size() == 1 ? thickness[0] : kNaN;

  const auto slope = numbers(file, 0x0028, 0x1053), intercept = numbers(file, 0x0028, 0x1052);
  if (slope.size() == 1 && std::isfinite(slope[0]) && slope[0] != 0) next.rescale_slope = slope[0];
  if (intercept.size() == 1 && std::isfinite(intercept[0])) next.rescale_intercept = intercept[0];
  const auto centers = numbers(file, 0x0028, 0x1050), widths = numbers(file, 0x0028, 0x1051);
  for (std::size_t i = 0; i < centers.size() && i < widths.size(); ++i)
    if (std::isfinite(centers[i]) && std::isfinite(widths[i]) && widths[i] >= 1)
      next.windows.push_back({centers[i], widths[i]});
  next.voi_function = text(file, 0x0028, 0x1056);
  if (next.voi_function != "LINEAR_EXACT" && next.voi_function != "SIGMOID")
    next.voi_function = "LINEAR";
  for (int c = 0; c < 3; ++c) {
    const auto* descriptor = find(file, 0x0028, std::uint16_t(0x1101 + c));
    const auto* data = find(file, 0x0028, std::uint16_t(0x1201 + c));
    if (!descriptor || descriptor->size() != 6) continue;
    for (int i = 0; i < 3; ++i)
      next.palette_descriptor[c][i] =
          detail::load<std::uint16_t>(descriptor->data() + 2 * i, next.little);
    if (data)
      for (std::size_t i = 0; i + 1 < data->size(); i += 2)
        next.palette[c].push_back(detail::load<std::uint16_t>(data->data() + i, next.little));
  }
  next.value = with_pixels ? pixel_data : nullptr;
  swap(next);
  return true;
}

bool DicomPixels::decode(int frame, Image& out) const {
  if (empty()) return fail("no pixel data loaded");
  const int bits = 8 * get_sample_bytes() * samples;
  color_type color = color_type::grey;
  if (samples == 3)
    color = frame_photometric.compare(0, 3, "YBR") == 0 ? color_type::ycc : color_type::rgb;
  Image next(columns, rows, bits, 1, color);
  if (!decode(frame, next.getBuffer(), next.getBufferSize())) return false;
  out.swap(next);
  return true;
}

bool DicomPixels::decode(int frame, void* target, std::uint64_t size) const {
  if (empty()) return fail("no pixel data loaded");
  if (frame < 0 || frame >= frames)
    return fail("frame " + std::to_string(frame) + " of " + std::to_string(frames) + " frames");
  const std::uint64_t frame_bytes = get_frame_bytes();
  if (size < frame_bytes) return fail("the buffer is smaller than a frame");
  auto* out = static_cast<unsigned char*>(target);
  const int bytes = get_sample_bytes();
  const std::size_t pixels = std::size_t(rows) * std::size_t(columns);
  const std::size_t count = pixels * std::size_t(samples);
  const unsigned char* data = value->data();

  if (fragments.empty()) {
    if (bits_allocated == 1) {
      const std::uint64_t first = std::uint64_t(frame) * count;
      for (std::size_t i = 0; i < count; ++i) {
        const std::uint64_t bit = first + i;
        out[i] = (data[bit >> 3] >> (bit & 7)) & 1;
      }
      return true;
    }
    if (photometric == "YBR_FULL_422" && samples == 3) {
      // Y1 Y2 Cb Cr for each pair of pixels: both take the pair's Cb and Cr.
      const unsigned char* in = data + std::size_t(frame) * pixels * 2;
      for (std::size_t p = 0; p < pixels; p += 2, in += 4) {
        unsigned char* o = out + 3 * p;
        o[0] = in[0], o[1] = in[2], o[2] = in[3];
        o[3] = in[1], o[4] = in[2], o[5] = in[3];
      }
      return true;
    }
    const unsigned char* in = data + std::size_t(frame) * std::size_t(frame_bytes);
    const bool swap = little != detail::kHostLittle && bytes > 1;
    if (planar_configuration == 0 && !swap) {  // the common case: one pass
      fit_samples(in, out, count, bytes, bits_stored, pixel_representation == 1);
      return true;
    }
    if (planar_configuration == 1) {
      for (std::size_t c = 0; c < std::size_t(samples); ++c)
        for (std::size_t p = 0; p < pixels; ++p)
          std::memcpy(out + (p * samples + c) * bytes, in + (c * pixels + p) * bytes, bytes);
    } else {
      std::memcpy(out, in, std::size_t(frame_bytes));
    }
    if (swap) {
      for (std::size_t i = 0; i < count; ++i) {
        unsigned char* o = out + i * bytes;
        std::reverse(o, o + bytes);
      }
    }
  } else {
    const std::uint32_t first = frame_first[std::size_t(frame)];
    const std::uint32_t last = frame_first[std::size_t(frame) + 1];
    std::vector<unsigned char> joined;
    byte_span stream{data + fragments[first][0], std::size_t(fragments[first][1])};
    if (last - first > 1) {
      for (std::uint32_t i = first; i < last; ++i)
        joined.insert(joined.end(), data + fragments[i][0],
                      data + fragments[i][0] + fragments[i][1]);
      stream = {joined.data(), joined.size()};
    }
    detail::frame_layout layout;
    layout.rows = rows;
    layout.columns = columns;
    layout.samples = samples;
    layout.bytes = bytes;
    layout.bits_stored = bits_stored;
    layout.ycbcr_to_rgb = frame_photometric == "RGB" && photometric != "RGB";
    detail::decode_result result;
    switch (detail::codec_of(transfer_syntax)) {
      case codec_t::rle:
        result = detail::decode_rle(stream, layout, out);
        break;
      case codec_t::jpeg:
        result = detail::decode_jpeg(stream, layout, out);
        break;
      case codec_t::jpegls:
        result = detail::decode_jpegls(stream, layout, out);
        break;
      case codec_t::j2k:
        result = detail::decode_j2k(stream, layout, out);
        break;
      default:
        result.error = "no decoder for " + transfer_syntax;
    }
    if (!result.ok) return fail("frame " + std::to_string(frame) + ": " + result.error);
  }

  fit_samples(out, out, count, bytes, bits_stored, pixel_representation == 1);
  return true;
}

}  // namespace quib
