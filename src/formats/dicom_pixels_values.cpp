// Values for people: rescaled real values, windowed grey levels, colour as RGB.
#include <quib/dicom_image.hpp>

#include "formats/dicom_pixels.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace quib {

namespace {

// Calls emit(i, v) for each sample of a decoded frame, v as a signed or unsigned integer.
template <class Emit>
void for_each_sample(unsigned char const* data, std::size_t count, int bytes, bool is_signed,
                     Emit emit) {
  for (std::size_t i = 0; i < count; ++i) {
    unsigned char const* p = data + i * std::size_t(bytes);
    std::int64_t v;
    if (bytes == 1) {
      v = is_signed ? std::int64_t(std::int8_t(p[0])) : std::int64_t(p[0]);
    } else if (bytes == 2) {
      std::uint16_t u;
      std::memcpy(&u, p, 2);
      v = is_signed ? std::int64_t(std::int16_t(u)) : std::int64_t(u);
    } else {
      std::uint32_t u;
      std::memcpy(&u, p, 4);
      v = is_signed ? std::int64_t(std::int32_t(u)) : std::int64_t(u);
    }
    emit(i, v);
  }
}

// The grey level 0..255 of value x through a window (center c, width w).
double windowed(double x, double c, double w, std::string const& function) {
  double y;
  if (function == "SIGMOID") {
    y = 255.0 / (1.0 + std::exp(-4.0 * (x - c) / w));
  } else if (function == "LINEAR_EXACT") {
    y = ((x - c) / w + 0.5) * 255.0;
  } else if (w <= 1) {  // a window one value wide is a threshold
    y = x < c - 0.5 ? 0 : 255;
  } else {
    y = ((x - (c - 0.5)) / (w - 1) + 0.5) * 255.0;
  }
  return std::clamp(y, 0.0, 255.0);
}

// The entry of a lookup table for value v: the first entry below its range, the last above.
std::uint16_t look_up(DicomPixels::LookupTable const& table, std::int64_t v) {
  const std::int64_t k =
      std::clamp<std::int64_t>(v - table.first, 0, std::int64_t(table.entries.size()) - 1);
  return table.entries[std::size_t(k)];
}

unsigned char to_byte(double v) {
  return static_cast<unsigned char>(std::lround(std::clamp(v, 0.0, 255.0)));
}

}  // namespace

namespace detail {

void rescale_samples(unsigned char const* in, std::size_t count, int bytes, bool is_signed,
                     double slope, double intercept, unsigned char* out) {
  for_each_sample(in, count, bytes, is_signed, [&](std::size_t i, std::int64_t v) {
    const float r = float(double(v) * slope + intercept);
    std::memcpy(out + 4 * i, &r, 4);
  });
}

}  // namespace detail

bool DicomPixels::make_values(unsigned char const* in, std::size_t count,
                              unsigned char* out) const {
  bool const is_signed = pixel_representation_ == 1;
  if (!modality_lut_.error.empty()) return fail(modality_lut_.error);
  if (!modality_lut_.is()) {
    detail::rescale_samples(in, count, get_sample_bytes(), is_signed, rescale_slope_,
                            rescale_intercept_, out);
    return true;
  }
  for_each_sample(in, count, get_sample_bytes(), is_signed, [&](std::size_t i, std::int64_t v) {
    const float r = look_up(modality_lut_, v);
    std::memcpy(out + 4 * i, &r, 4);
  });
  return true;
}

bool DicomPixels::decode_values(int frame, Image& out) const {
  if (samples_ != 1) return fail("real values need one sample per pixel");
  Image raw;
  if (!decode(frame, raw)) return false;
  Image next(columns_, rows_, 32, 1, color_type::grey);
  if (!make_values(raw.getBuffer(), std::size_t(rows_) * columns_, next.getBuffer())) return false;
  out.swap(next);
  return true;
}

bool DicomPixels::decode_values16(int frame, Image& out) const {
  Image values;
  if (!decode_values(frame, values)) return false;
  Image next(columns_, rows_, 16, 1, color_type::grey);
  unsigned char* to = next.getBuffer();
  auto const* from = reinterpret_cast<float const*>(values.getBuffer());
  for (std::size_t i = 0, n = std::size_t(rows_) * columns_; i < n; ++i) {
    double const r = std::nearbyint(double(from[i]));
    if (!(r >= -32768 && r <= 32767)) return fail("a rescaled value does not fit 16 bits");
    auto const v = static_cast<std::int16_t>(r);
    std::memcpy(to + 2 * i, &v, 2);
  }
  out.swap(next);
  return true;
}

bool DicomPixels::decode_display(int frame, Image& out, int window) const {
  if (photometric_ == "PALETTE COLOR" && samples_ == 1) {
    for (LookupTable const& table : palette_) {
      if (!table.error.empty()) return fail(table.error);
      if (!table.is()) return fail("a PALETTE COLOR file without its palette");
    }
  }
  Image raw;
  if (!decode(frame, raw)) return false;
  const std::size_t pixels = std::size_t(rows_) * columns_;
  int const bytes = get_sample_bytes();
  bool const is_signed = pixel_representation_ == 1;

  if (photometric_ == "PALETTE COLOR" && samples_ == 1) {
    Image next(columns_, rows_, 24, 1, color_type::rgb);
    unsigned char* to = next.getBuffer();
    for_each_sample(raw.getBuffer(), pixels, bytes, is_signed, [&](std::size_t i, std::int64_t v) {
      for (int c = 0; c < 3; ++c) {
        LookupTable const& table = palette_[std::size_t(c)];
        const std::uint16_t y = look_up(table, v);
        to[3 * i + c] = static_cast<unsigned char>(table.bits == 16 ? y >> 8 : y);
      }
    });
    out.swap(next);
    return true;
  }

  if (samples_ == 3) {
    Image next(columns_, rows_, 24, 1, color_type::rgb);
    unsigned char* to = next.getBuffer();
    int const shift = bits_stored_ > 8 ? bits_stored_ - 8 : 0;
    for_each_sample(raw.getBuffer(), pixels * 3, bytes, false, [&](std::size_t i, std::int64_t v) {
      to[i] = static_cast<unsigned char>(std::clamp<std::int64_t>(v >> shift, 0, 255));
    });
    if (frame_photometric_ == "YBR_FULL") {
      for (std::size_t p = 0; p < pixels; ++p) {
        unsigned char* px = to + 3 * p;
        double const y = px[0], cb = px[1] - 128.0, cr = px[2] - 128.0;
        px[0] = to_byte(y + 1.402 * cr);
        px[1] = to_byte(y - 0.344136 * cb - 0.714136 * cr);
        px[2] = to_byte(y + 1.772 * cb);
      }
    }
    out.swap(next);
    return true;
  }

  // Grey: real values, then a VOI LUT or a window, then MONOCHROME1 inverted.
  std::vector<float> values(pixels);
  if (!make_values(raw.getBuffer(), pixels, reinterpret_cast<unsigned char*>(values.data())))
    return false;
  std::size_t const luts = voi_luts_.size();
  Image next(columns_, rows_, 8, 1, color_type::grey);
  unsigned char* to = next.getBuffer();
  bool const invert = photometric_ == "MONOCHROME1";
  if (window >= 0 && std::size_t(window) < luts) {
    LookupTable const& table = voi_luts_[std::size_t(window)];
    if (!table.is())
      return fail(table.error.empty() ? "a VOI LUT without its descriptor" : table.error);
    double const scale = 255.0 / double((1 << table.bits) - 1);
    for (std::size_t i = 0; i < pixels; ++i) {
      const std::int64_t v = std::llround(std::clamp(double(values[i]), -1e15, 1e15));
      unsigned char const g = to_byte(look_up(table, v) * scale);
      to[i] = invert ? 255 - g : g;
    }
    out.swap(next);
    return true;
  }
  double center, width;
  std::string function = voi_function_;
  if (window >= 0 && std::size_t(window) - luts < windows_.size()) {
    center = windows_[std::size_t(window) - luts][0];
    width = windows_[std::size_t(window) - luts][1];
  } else {
    auto const [lo, hi] = std::minmax_element(values.begin(), values.end());
    center = (double(*lo) + double(*hi)) / 2;
    width = double(*hi) - double(*lo);
    function = "LINEAR_EXACT";
    if (width <= 0) width = 1;
  }
  for (std::size_t i = 0; i < pixels; ++i) {
    unsigned char const g = to_byte(windowed(values[i], center, width, function));
    to[i] = invert ? 255 - g : g;
  }
  out.swap(next);
  return true;
}

}  // namespace quib
