// The image pixel module of a DICOM file: attributes, frame location and frame decoding.
#include <quib/dicom_image.hpp>

#include "formats/dicom_pixels.hpp"
#include "system/bytes.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>
#include <utility>

namespace quib {

namespace detail {

codec_t codec_of(std::string const& uid) {
  if (uid.empty() || uid == "1.2.840.10008.1.2" || uid == "1.2.840.10008.1.2.1")
    return codec_t::native;
  if (uid == "1.2.840.10008.1.2.1.99") return codec_t::deflated;
  if (uid == "1.2.840.10008.1.2.2") return codec_t::big_endian;
  if (uid == "1.2.840.10008.1.2.5") return codec_t::rle;
  const std::string jpeg = "1.2.840.10008.1.2.4.";
  if (uid.compare(0, jpeg.size(), jpeg) != 0) return codec_t::unknown;
  int n = 0;
  char const* end = uid.data() + uid.size();
  auto [p, ec] = std::from_chars(uid.data() + jpeg.size(), end, n);
  if (ec != std::errc() || p != end) return codec_t::unknown;
  if (n >= 50 && n <= 70) return codec_t::jpeg;
  if (n == 80 || n == 81) return codec_t::jpegls;
  if ((n >= 90 && n <= 93) || (n >= 201 && n <= 203)) return codec_t::j2k;
  return codec_t::unknown;
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

bool locate_frames(std::vector<byte_span> const& items, std::size_t frames,
                   std::vector<std::uint64_t> const& offsets,
                   std::vector<std::uint64_t> const& lengths, codec_t codec,
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

// Attribute values, through the table's typed reading (the VR and byte order each was read in).

// The first value of a text element; empty when absent.
std::string text(Dicom const& file, std::uint16_t group, std::uint16_t number) {
  std::vector<std::string> values;
  return file.get_strings(Dicom::Tag(group, number), values) > 0 ? values[0] : std::string();
}

// The first value of a whole-number element (US, SS, IS, ...), or -1 when absent or unreadable.
long long integer(Dicom const& file, std::uint16_t group, std::uint16_t number) {
  std::vector<std::int64_t> values;
  return file.get_integers(Dicom::Tag(group, number), values) > 0 ? values[0] : -1;
}

// Every number of an element (DS, IS, binary); empty when absent or unreadable.
std::vector<double> numbers(Dicom const& file, std::uint16_t group, std::uint16_t number) {
  std::vector<double> values;
  file.get_numbers(Dicom::Tag(group, number), values);
  return values;
}

// The numbers of element (group, number) in the first item of sequence (sequence_group,
// sequence) of a functional groups item.
std::vector<double> grouped(Dicom const& groups, std::uint16_t sequence_group,
                            std::uint16_t sequence, std::uint16_t group, std::uint16_t number) {
  std::vector<Dicom> items;
  if (groups.read_items(Dicom::Tag(sequence_group, sequence), items) < 1) return {};
  return numbers(items[0], group, number);
}

template <std::size_t N>
std::array<double, N> fixed(Dicom const& file, std::uint16_t group, std::uint16_t number) {
  std::array<double, N> out;
  out.fill(kNaN);
  auto const v = numbers(file, group, number);
  if (v.size() == N) std::copy(v.begin(), v.end(), out.begin());
  return out;
}

// Copies `count` samples from `in` to `out` (which may be the same memory), clearing the bits
// above `bits` of each, or copying the sign bit into them: one pass, as fast as a copy.
template <class T>
void fit_samples(unsigned char const* in, unsigned char* out, std::size_t count, int bits,
                 bool is_signed) {
  using U = std::make_unsigned_t<T>;
  int const shift = int(8 * sizeof(T)) - bits;
  // Two plain loops (no branch inside) so that the compiler vectorises each.
  if (is_signed) {
    for (std::size_t i = 0; i < count; ++i) {
      U v;
      std::memcpy(&v, in + i * sizeof(T), sizeof(T));
      const T s = T(T(U(v << shift)) >> shift);
      std::memcpy(out + i * sizeof(T), &s, sizeof(T));
    }
  } else {
    const U mask = U(U(~U(0)) >> shift);
    for (std::size_t i = 0; i < count; ++i) {
      U v;
      std::memcpy(&v, in + i * sizeof(T), sizeof(T));
      v = U(v & mask);
      std::memcpy(out + i * sizeof(T), &v, sizeof(T));
    }
  }
}

void fit_samples(unsigned char const* in, unsigned char* out, std::size_t count, int bytes,
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

DicomPixels::DicomPixels(Dicom const& file, std::uint64_t frame_limit) {
  load(file, frame_limit);
}

DicomPixels DicomPixels::create(Dicom const& file, std::uint64_t frame_limit) {
  return DicomPixels(file, frame_limit);
}

void DicomPixels::clear() {
  std::string kept;
  kept.swap(error_);
  *this = DicomPixels();
  error_.swap(kept);
}

static_assert(std::is_nothrow_move_constructible_v<DicomPixels> &&
              std::is_nothrow_move_assignable_v<DicomPixels>);

void DicomPixels::swap(DicomPixels& other) noexcept {
  std::swap(*this, other);
}

bool DicomPixels::fail(std::string const& reason) const {
  error_ = reason;
  return false;
}

std::uint64_t DicomPixels::get_frame_bytes() const {
  return std::uint64_t(rows_) * std::uint64_t(columns_) * std::uint64_t(samples_) *
         std::uint64_t(get_sample_bytes());
}

bool DicomPixels::load(Dicom const& file, std::uint64_t frame_limit) {
  return load(file, frame_limit, true);
}

bool DicomPixels::load(Dicom const& file, std::uint64_t frame_limit, bool with_pixels) {
  clear();
  DicomPixels next;
  auto refuse = [&](std::string const& reason) {
    error_ = reason;
    return false;
  };
  next.transfer_syntax_ = file.get_info().syntax;
  const codec_t codec = detail::codec_of(next.transfer_syntax_);
  if (codec == codec_t::unknown)
    return refuse("transfer syntax " + next.transfer_syntax_ + " is not one this library decodes");
  next.little_ = codec != codec_t::big_endian;
  auto const* pixel_data = file.find(Dicom::Tag(0x7FE0, 0x0010));
  if (with_pixels && (!pixel_data || pixel_data->empty()))
    return refuse("the file has no pixel data");

  next.rows_ = int(integer(file, 0x0028, 0x0010));
  next.columns_ = int(integer(file, 0x0028, 0x0011));
  next.samples_ = int(integer(file, 0x0028, 0x0002));
  next.bits_allocated_ = int(integer(file, 0x0028, 0x0100));
  next.bits_stored_ = int(integer(file, 0x0028, 0x0101));
  next.high_bit_ = int(integer(file, 0x0028, 0x0102));
  next.pixel_representation_ = int(integer(file, 0x0028, 0x0103));
  next.planar_configuration_ = int(integer(file, 0x0028, 0x0006));
  if (next.samples_ < 0) next.samples_ = 1;
  if (next.bits_stored_ < 0) next.bits_stored_ = next.bits_allocated_;
  if (next.high_bit_ < 0) next.high_bit_ = next.bits_stored_ - 1;
  if (next.pixel_representation_ < 0) next.pixel_representation_ = 0;
  if (next.planar_configuration_ < 0 || next.samples_ == 1) next.planar_configuration_ = 0;
  if (next.rows_ <= 0 || next.columns_ <= 0) return refuse("Rows or Columns missing or zero");
  if (next.samples_ != 1 && next.samples_ != 3)
    return refuse("Samples per Pixel of " + std::to_string(next.samples_));
  if (next.bits_allocated_ != 1 && next.bits_allocated_ != 8 && next.bits_allocated_ != 16 &&
      next.bits_allocated_ != 32)
    return refuse("Bits Allocated of " + std::to_string(next.bits_allocated_));
  if (next.bits_stored_ < 1 || next.bits_stored_ > next.bits_allocated_ ||
      next.high_bit_ >= next.bits_allocated_ || next.high_bit_ < next.bits_stored_ - 1)
    return refuse("Bits Stored " + std::to_string(next.bits_stored_) + " or High Bit " +
                  std::to_string(next.high_bit_) + " do not fit Bits Allocated");
  if (next.pixel_representation_ > 1 || next.planar_configuration_ > 1)
    return refuse("Pixel Representation or Planar Configuration out of range");

  next.photometric_ = text(file, 0x0028, 0x0004);
  if (next.photometric_.empty()) next.photometric_ = next.samples_ == 1 ? "MONOCHROME2" : "RGB";
  bool const ybr422 = next.photometric_ == "YBR_FULL_422" && next.samples_ == 3;

  // Number of Frames is an IS: a whole count, nothing else.
  bool const has_frames = file.find(Dicom::Tag(0x0028, 0x0008)) != nullptr;
  long long const count = has_frames ? integer(file, 0x0028, 0x0008) : 1;
  std::string frame_text;
  file.get_text(Dicom::Tag(0x0028, 0x0008), frame_text);
  if (count < 1 || count > std::numeric_limits<std::int32_t>::max())
    return refuse("Number of Frames is " + frame_text);
  next.frames_ = int(count);

  const std::uint64_t frame_bytes = next.get_frame_bytes();
  if (frame_bytes > frame_limit)
    return refuse("a frame of " + std::to_string(frame_bytes) + " bytes exceeds the limit of " +
                  std::to_string(frame_limit));

  next.frame_photometric_ = next.photometric_;
  bool const native =
      codec == codec_t::native || codec == codec_t::deflated || codec == codec_t::big_endian;
  std::string const& uid = next.transfer_syntax_;
  bool const lossless_jpeg = uid == "1.2.840.10008.1.2.4.57" || uid == "1.2.840.10008.1.2.4.70";
  if (native && ybr422) next.frame_photometric_ = "YBR_FULL";
  if (next.samples_ == 3 &&
      ((codec == codec_t::jpeg && !lossless_jpeg && next.photometric_ != "RGB") ||
       (codec == codec_t::j2k &&
        (next.photometric_ == "YBR_RCT" || next.photometric_ == "YBR_ICT"))))
    next.frame_photometric_ = "RGB";
  if (!with_pixels) {
    // Attributes only (the first look at a series' files).
  } else if (native) {
    const std::uint64_t size = pixel_data->size();
    // What one frame occupies in the file, in bits.
    std::uint64_t stored = frame_bytes * 8;
    if (next.bits_allocated_ == 1)
      stored = std::uint64_t(next.rows_) * next.columns_ * next.samples_;
    if (ybr422) {
      if (next.bits_allocated_ != 8 || next.columns_ % 2 != 0)
        return refuse("uncompressed YBR_FULL_422 needs 8 bits and an even width");
      stored = std::uint64_t(next.rows_) * next.columns_ * 2 * 8;
    }
    if (std::uint64_t(next.frames_) > size * 8 / stored)
      return refuse("pixel data holds " + std::to_string(size) + " bytes, too few for " +
                    std::to_string(next.frames_) + " frames");
  } else {
    if (next.bits_allocated_ == 1 && codec != codec_t::rle)
      return refuse("compressed pixel data with 1 bit allocated other than RLE");
    // The items of the value: the Basic Offset Table, then the fragments. A list that ends
    // before the value does holds a fragment that claims more bytes than there are.
    std::vector<std::pair<std::size_t, std::size_t>> listed;
    if (file.get_fragments(Dicom::Tag(0x7FE0, 0x0010), listed) < 1)
      return refuse("encapsulated pixel data holds something other than an item");
    const std::size_t end = listed.back().first + listed.back().second;
    if (end + 8 <= pixel_data->size() &&
        !(detail::load_le<std::uint16_t>(pixel_data->data() + end) == 0xFFFE &&
          detail::load_le<std::uint16_t>(pixel_data->data() + end + 2) == 0xE0DD))
      return refuse("a pixel data fragment claims more bytes than the file holds");
    if (end < pixel_data->size() && end + 8 > pixel_data->size())
      return refuse("encapsulated pixel data ends inside an item header");
    std::vector<byte_span> items;
    for (auto const& [offset, length] : listed)
      items.push_back({pixel_data->data() + offset, length});
    std::string reason;
    std::vector<std::uint64_t> offsets, lengths;
    auto const table = numbers(file, 0x7FE0, 0x0001), table_lengths = numbers(file, 0x7FE0, 0x0002);
    if (!table_lengths.empty() && table_lengths.size() != table.size())
      return refuse("Extended Offset Table has a broken length");
    // Offsets and lengths past the value cannot be right; refusing them here also keeps the
    // conversion from floating point defined.
    double const limit = double(pixel_data->size());
    for (std::size_t i = 0; i < table.size(); ++i) {
      double const length = table_lengths.empty() ? 0 : table_lengths[i];
      if (!(table[i] >= 0 && table[i] <= limit && length >= 0 && length <= limit))
        return refuse("Extended Offset Table entry " + std::to_string(i) +
                      " lies outside the data");
      offsets.push_back(std::uint64_t(table[i]));
      if (!table_lengths.empty()) lengths.push_back(std::uint64_t(length));
    }
    std::vector<std::vector<byte_span>> located;
    if (!detail::locate_frames(items, std::size_t(next.frames_), offsets, lengths, codec, located,
                               reason))
      return refuse(reason);
    for (auto const& frame : located) {
      next.frame_first_.push_back(std::uint32_t(next.fragments_.size()));
      for (byte_span const& f : frame)
        next.fragments_.push_back({std::uint64_t(f.data - pixel_data->data()), f.size});
    }
    next.frame_first_.push_back(std::uint32_t(next.fragments_.size()));
  }

  next.pixel_spacing_ = fixed<2>(file, 0x0028, 0x0030);
  next.position_ = fixed<3>(file, 0x0020, 0x0032);
  next.orientation_ = fixed<6>(file, 0x0020, 0x0037);
  auto const thickness = numbers(file, 0x0018, 0x0050);
  next.slice_thickness_ = thickness.size() == 1 ? thickness[0] : kNaN;

  // Multi-frame files with functional groups: each frame's position, and the shared (else the
  // first frame's) orientation, pixel spacing and thickness where the top level has none.
  std::vector<Dicom> per_frame, shared;
  file.read_items(Dicom::Tag(0x5200, 0x9229), shared);
  if (file.read_items(Dicom::Tag(0x5200, 0x9230), per_frame) == next.frames_) {
    for (Dicom const& item : per_frame) {
      auto const p = grouped(item, 0x0020, 0x9113, 0x0020, 0x0032);
      if (p.size() != 3) {
        next.frame_positions_.clear();
        break;
      }
      next.frame_positions_.push_back({p[0], p[1], p[2]});
    }
  }
  for (auto const* groups :
       {shared.empty() ? nullptr : &shared[0], per_frame.empty() ? nullptr : &per_frame[0]}) {
    if (!groups) continue;
    auto fill = [&](auto& target, std::uint16_t sequence_group, std::uint16_t sequence,
                    std::uint16_t group, std::uint16_t number) {
      const auto v = grouped(*groups, sequence_group, sequence, group, number);
      if (!std::isfinite(target[0]) && v.size() == target.size())
        std::copy(v.begin(), v.end(), target.begin());
    };
    fill(next.orientation_, 0x0020, 0x9116, 0x0020, 0x0037);    // Plane Orientation
    fill(next.pixel_spacing_, 0x0028, 0x9110, 0x0028, 0x0030);  // Pixel Measures
    std::array<double, 1> thickness_value{next.slice_thickness_};
    fill(thickness_value, 0x0028, 0x9110, 0x0018, 0x0050);
    next.slice_thickness_ = thickness_value[0];
  }
  if (!std::isfinite(next.position_[0]) && !next.frame_positions_.empty())
    next.position_ = next.frame_positions_[0];

  auto const slope = numbers(file, 0x0028, 0x1053), intercept = numbers(file, 0x0028, 0x1052);
  if (slope.size() == 1 && std::isfinite(slope[0]) && slope[0] != 0) next.rescale_slope_ = slope[0];
  if (intercept.size() == 1 && std::isfinite(intercept[0])) next.rescale_intercept_ = intercept[0];
  auto const centers = numbers(file, 0x0028, 0x1050), widths = numbers(file, 0x0028, 0x1051);
  for (std::size_t i = 0; i < centers.size() && i < widths.size(); ++i)
    if (std::isfinite(centers[i]) && std::isfinite(widths[i]) && widths[i] >= 1)
      next.windows_.push_back({centers[i], widths[i]});
  next.voi_function_ = text(file, 0x0028, 0x1056);
  if (next.voi_function_ != "LINEAR_EXACT" && next.voi_function_ != "SIGMOID")
    next.voi_function_ = "LINEAR";
  // Lookup tables: the modality LUT replaces slope and intercept; VOI LUTs take the modality
  // output, which can be negative when the stored values or the intercept are.
  bool const is_signed = next.pixel_representation_ == 1;
  std::vector<Dicom> luts;
  if (file.read_items(Dicom::Tag(0x0028, 0x3000), luts) > 0)
    next.modality_lut_ =
        detail::read_lookup_table(luts[0], 0x3002, 0x3006, 0, is_signed, "the modality LUT");
  bool const negative = is_signed || (!next.modality_lut_.is() && next.rescale_intercept_ < 0);
  if (file.read_items(Dicom::Tag(0x0028, 0x3010), luts) > 0)
    for (Dicom const& item : luts)
      next.voi_luts_.push_back(
          detail::read_lookup_table(item, 0x3002, 0x3006, 0, negative, "a VOI LUT"));
  if (next.photometric_ == "PALETTE COLOR") {
    char const* names[3] = {"the red palette", "the green palette", "the blue palette"};
    for (int c = 0; c < 3; ++c) {
      auto const n = std::uint16_t(c);
      next.palette_[std::size_t(c)] =
          detail::read_lookup_table(file, std::uint16_t(0x1101 + n), std::uint16_t(0x1201 + n),
                                    std::uint16_t(0x1221 + n), is_signed, names[c]);
    }
  }
  next.value_ = with_pixels ? pixel_data : nullptr;
  swap(next);
  return true;
}

bool DicomPixels::decode(int frame, Image& out) const {
  if (empty()) return fail("no pixel data loaded");
  int const bits = 8 * get_sample_bytes() * samples_;
  color_type color = color_type::grey;
  if (samples_ == 3)
    color = frame_photometric_.compare(0, 3, "YBR") == 0 ? color_type::ycc : color_type::rgb;
  Image next(columns_, rows_, bits, 1, color);
  if (!decode(frame, next.getBuffer(), next.getBufferSize())) return false;
  out.swap(next);
  return true;
}

bool DicomPixels::decode(int frame, void* target, std::uint64_t size) const {
  if (empty()) return fail("no pixel data loaded");
  if (frame < 0 || frame >= frames_)
    return fail("frame " + std::to_string(frame) + " of " + std::to_string(frames_) + " frames");
  const std::uint64_t frame_bytes = get_frame_bytes();
  if (size < frame_bytes) return fail("the buffer is smaller than a frame");
  auto* out = static_cast<unsigned char*>(target);
  int const bytes = get_sample_bytes();
  const std::size_t pixels = std::size_t(rows_) * std::size_t(columns_);
  const std::size_t count = pixels * std::size_t(samples_);
  unsigned char const* data = value_->data();

  if (fragments_.empty()) {
    if (bits_allocated_ == 1) {
      const std::uint64_t first = std::uint64_t(frame) * count;
      for (std::size_t i = 0; i < count; ++i) {
        const std::uint64_t bit = first + i;
        out[i] = (data[bit >> 3] >> (bit & 7)) & 1;
      }
      return true;
    }
    if (photometric_ == "YBR_FULL_422" && samples_ == 3) {
      // Y1 Y2 Cb Cr for each pair of pixels: both take the pair's Cb and Cr.
      unsigned char const* in = data + std::size_t(frame) * pixels * 2;
      for (std::size_t p = 0; p < pixels; p += 2, in += 4) {
        unsigned char* o = out + 3 * p;
        o[0] = in[0], o[1] = in[2], o[2] = in[3];
        o[3] = in[1], o[4] = in[2], o[5] = in[3];
      }
      return true;
    }
    unsigned char const* in = data + std::size_t(frame) * std::size_t(frame_bytes);
    bool const swap = little_ != detail::kHostLittle && bytes > 1;
    if (planar_configuration_ == 0 && !swap) {  // the common case: one pass
      fit_samples(in, out, count, bytes, bits_stored_, pixel_representation_ == 1);
      return true;
    }
    if (planar_configuration_ == 1) {
      for (std::size_t c = 0; c < std::size_t(samples_); ++c)
        for (std::size_t p = 0; p < pixels; ++p)
          std::memcpy(out + (p * samples_ + c) * bytes, in + (c * pixels + p) * bytes, bytes);
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
    const std::uint32_t first = frame_first_[std::size_t(frame)];
    const std::uint32_t last = frame_first_[std::size_t(frame) + 1];
    std::vector<unsigned char> joined;
    byte_span stream{data + fragments_[first][0], std::size_t(fragments_[first][1])};
    if (last - first > 1) {
      for (std::uint32_t i = first; i < last; ++i)
        joined.insert(joined.end(), data + fragments_[i][0],
                      data + fragments_[i][0] + fragments_[i][1]);
      stream = {joined.data(), joined.size()};
    }
    detail::frame_layout layout;
    layout.rows = rows_;
    layout.columns = columns_;
    layout.samples = samples_;
    layout.bytes = bytes;
    layout.bits_stored = bits_stored_;
    layout.ycbcr_to_rgb = frame_photometric_ == "RGB" && photometric_ != "RGB";
    layout.packed_bits = bits_allocated_ == 1;
    detail::decode_result result;
    switch (detail::codec_of(transfer_syntax_)) {
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
        result.error = "no decoder for " + transfer_syntax_;
    }
    if (!result.ok) return fail("frame " + std::to_string(frame) + ": " + result.error);
  }

  fit_samples(out, out, count, bytes, bits_stored_, pixel_representation_ == 1);
  return true;
}

}  // namespace quib
