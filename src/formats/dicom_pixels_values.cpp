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

bool DicomPixels::decode_values(int frame, Image& out) const {
  if (samples != 1) return fail("real values need one sample per pixel");
  Image raw;
  if (!decode(frame, raw)) return false;
  Image next(columns, rows, 32, 1, color_type::grey);
  auto* to = reinterpret_cast<float*>(next.getBuffer());
  double const slope = rescale_slope, intercept = rescale_intercept;
  for_each_sample(
      raw.getBuffer(), std::size_t(rows) * columns, get_sample_bytes(), pixel_representation == 1,
      [&](std::size_t i, std::int64_t v) { to[i] = float(double(v) * slope + intercept); });
  out.swap(next);
  return true;
}

bool DicomPixels::decode_values16(int frame, Image& out) const {
  if (samples != 1) return fail("real values need one sample per pixel");
  Image raw;
  if (!decode(frame, raw)) return false;
  Image next(columns, rows, 16, 1, color_type::grey);
  unsigned char* to = next.getBuffer();
  bool fits = true;
  double const slope = rescale_slope, intercept = rescale_intercept;
  for_each_sample(raw.getBuffer(), std::size_t(rows) * columns, get_sample_bytes(),
                  pixel_representation == 1, [&](std::size_t i, std::int64_t v) {
                    const double r = std::nearbyint(double(v) * slope + intercept);
                    fits = fits && r >= -32768 && r <= 32767;
                    const auto s = static_cast<std::int16_t>(fits ? r : 0);
                    std::memcpy(to + 2 * i, &s, 2);
                  });
  if (!fits) return fail("a rescaled value does not fit 16 bits");
  out.swap(next);
  return true;
}

bool DicomPixels::decode_display(int frame, Image& out, int window) const {
  Image raw;
  if (!decode(frame, raw)) return false;
  const std::size_t pixels = std::size_t(rows) * columns;
  int const bytes = get_sample_bytes();
  bool const is_signed = pixel_representation == 1;

  if (photometric == "PALETTE COLOR" && samples == 1) {
    Image next(columns, rows, 24, 1, color_type::rgb);
    unsigned char* to = next.getBuffer();
    std::array<std::vector<unsigned char>, 3> table;
    std::array<std::int64_t, 3> first{};
    for (int c = 0; c < 3; ++c) {
      auto const& d = palette_descriptor[c];
      const std::size_t entries = d[0] == 0 ? 65536 : std::size_t(d[0]);
      first[c] = is_signed ? std::int16_t(d[1]) : d[1];
      auto const& data = palette[c];
      if (d[2] == 8 && data.size() * 2 >= entries && data.size() < entries) {
        for (std::size_t i = 0; i < entries; ++i)  // two 8-bit entries to a word
          table[c].push_back((data[i / 2] >> (8 * (i % 2))) & 0xFF);
      } else if (data.size() >= entries && (d[2] == 8 || d[2] == 16)) {
        for (std::size_t i = 0; i < entries; ++i)
          table[c].push_back(d[2] == 8 ? (data[i] > 255 ? data[i] >> 8 : data[i]) : data[i] >> 8);
      } else {
        return fail("palette shorter than its descriptor, or missing");
      }
    }
    for_each_sample(raw.getBuffer(), pixels, bytes, is_signed, [&](std::size_t i, std::int64_t v) {
      for (int c = 0; c < 3; ++c) {
        const std::int64_t k =
            std::clamp<std::int64_t>(v - first[c], 0, std::int64_t(table[c].size()) - 1);
        to[3 * i + c] = table[c][std::size_t(k)];
      }
    });
    out.swap(next);
    return true;
  }

  if (samples == 3) {
    Image next(columns, rows, 24, 1, color_type::rgb);
    unsigned char* to = next.getBuffer();
    int const shift = bits_stored > 8 ? bits_stored - 8 : 0;
    for_each_sample(raw.getBuffer(), pixels * 3, bytes, false, [&](std::size_t i, std::int64_t v) {
      to[i] = static_cast<unsigned char>(std::clamp<std::int64_t>(v >> shift, 0, 255));
    });
    if (frame_photometric == "YBR_FULL") {
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

  // Grey: rescale, window, invert MONOCHROME1.
  std::vector<double> values(pixels);
  double const slope = rescale_slope, intercept = rescale_intercept;
  for_each_sample(raw.getBuffer(), pixels, bytes, is_signed, [&](std::size_t i, std::int64_t v) {
    values[i] = double(v) * slope + intercept;
  });
  double center, width;
  std::string function = voi_function;
  if (window >= 0 && std::size_t(window) < windows.size()) {
    center = windows[std::size_t(window)][0];
    width = windows[std::size_t(window)][1];
  } else {
    auto const [lo, hi] = std::minmax_element(values.begin(), values.end());
    center = (*lo + *hi) / 2;
    width = *hi - *lo;
    function = "LINEAR_EXACT";
    if (width <= 0) width = 1;
  }
  Image next(columns, rows, 8, 1, color_type::grey);
  unsigned char* to = next.getBuffer();
  bool const invert = photometric == "MONOCHROME1";
  for (std::size_t i = 0; i < pixels; ++i) {
    unsigned char const g = to_byte(windowed(values[i], center, width, function));
    to[i] = invert ? 255 - g : g;
  }
  out.swap(next);
  return true;
}

}  // namespace quib
