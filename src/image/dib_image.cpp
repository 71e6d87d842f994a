// Reading a whole bitmap file into an image in picture order: rows top-down, palettes looked up.
#include <quib/dib.hpp>

#include "system/bytes.hpp"
#include "system/native_path.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <vector>

namespace quib {

namespace {

// One stored row turned into one picture row.
class row_converter {
 public:
  // False for a depth this reader does not understand.
  bool prepare(int bit_count, Palette const& table, palette_t mode) {
    bits_ = bit_count;
    switch (bits_) {
      case 1:
      case 2:
      case 4:
      case 8:
        prepare_palette(table, mode);
        return true;
      case 15:
      case 16:
        kind_ = kind_t::rgb555;
        channels_ = 3;
        return true;
      case 24:
      case 32:
        kind_ = kind_t::copy;
        channels_ = bits_ / 8;
        return true;
      default:
        return false;
    }
  }

  int channel_count() const { return channels_; }

  void convert(unsigned char const* src, unsigned char* dst, int width) const {
    switch (kind_) {
      case kind_t::copy:
        std::memcpy(dst, src, std::size_t(width) * std::size_t(channels_));
        break;
      case kind_t::rgb555:
        for (int x = 0; x < width; ++x, dst += 3) {
          unsigned const v = detail::load_le<std::uint16_t>(src + 2 * x);
          dst[0] = widen5(v & 31);
          dst[1] = widen5((v >> 5) & 31);
          dst[2] = widen5((v >> 10) & 31);
        }
        break;
      case kind_t::grey:
        for (int x = 0; x < width; ++x)
          dst[x] = grey_[index(src, x)];
        break;
      case kind_t::bgr:
        for (int x = 0; x < width; ++x, dst += 3)
          std::memcpy(dst, &colour_[index(src, x)][0], 3);
        break;
    }
  }

 private:
  enum class kind_t { copy, rgb555, grey, bgr };

  static unsigned char widen5(unsigned v) {
    return static_cast<unsigned char>((v << 3) | (v >> 2));
  }

  // The index of pixel x in a row of `bits`-bit indices, the leftmost pixel in the high bits.
  unsigned index(unsigned char const* row, int x) const {
    if (bits_ == 8) return row[x];
    int const bit = x * bits_;
    int const shift = 8 - bits_ - bit % 8;
    return (row[bit / 8] >> shift) & ((1u << bits_) - 1);
  }

  void prepare_palette(Palette const& table, palette_t mode) {
    unsigned const entries = 1u << bits_;
    bool all_grey = true;
    for (unsigned i = 0; i < entries; ++i) {
      // Without a table the indices are the even grey ramp of the depth; an index past the
      // end of a table is black.
      unsigned const bgr = table.size() == 0  ? i * 255 / (entries - 1) * 0x010101u
                           : i < table.size() ? table[int(i)] & 0xFFFFFFu
                                              : 0u;
      colour_[i] = {static_cast<unsigned char>(bgr), static_cast<unsigned char>(bgr >> 8),
                    static_cast<unsigned char>(bgr >> 16)};
      grey_[i] = colour_[i][0];
      all_grey = all_grey && colour_[i][0] == colour_[i][1] && colour_[i][1] == colour_[i][2];
    }
    if (mode == palette_t::index) {
      for (unsigned i = 0; i < 256; ++i)
        grey_[i] = static_cast<unsigned char>(i);
      kind_ = kind_t::grey;
    } else if (mode == palette_t::grey_or_bgr && all_grey) {
      kind_ = kind_t::grey;
    } else {
      kind_ = kind_t::bgr;
    }
    channels_ = kind_ == kind_t::grey ? 1 : 3;
  }

  int bits_ = 8;
  kind_t kind_ = kind_t::copy;
  int channels_ = 1;
  std::array<unsigned char, 256> grey_{};
  std::array<std::array<unsigned char, 3>, 256> colour_{};
};

color_type colour_of(int channels) {
  return channels == 1 ? color_type::grey : channels == 3 ? color_type::bgr : color_type::bgra;
}

}  // namespace

Image Dib::read_image(std::wstring const& path, palette_t palette) {
  auto const native = detail::native_path(path);
  if (!native) return {};
  Dib dib;
  dib.open(*native, std::ios::in | std::ios::binary);
  return dib.read_picture(palette);
}

Image Dib::read_image(std::string const& path, palette_t palette) {
  Dib dib;
  dib.open(std::filesystem::path(path), std::ios::in | std::ios::binary);
  return dib.read_picture(palette);
}

Image Dib::read_picture(palette_t mode) {
  row_converter converter;
  if (fail() || plane_count_ != 1 || width_ <= 0 || height_ <= 0 || line_bytes_ <= 0 ||
      !converter.prepare(bit_count_, palette_, mode)) {
    return {};
  }
  int const channels = converter.channel_count();
  Image picture(width_, height_, 8 * channels, 4, colour_of(channels));

  // The file is read in bands of about 256 KiB. Each band holds the file rows
  // [first, first + rows), in file order: the rows from the cursor on in a bottom-up file, and
  // in a top-down file the rows that far from the end, since its bands are taken from the end
  // of the data backwards. File row f is picture row f in a top-down file and picture row
  // height - 1 - f in a bottom-up one.
  int const band_rows = std::clamp((1 << 18) / line_bytes_, 1, height_);
  std::vector<unsigned char> band(std::size_t(band_rows) * std::size_t(line_bytes_));
  seek(0, 0);
  for (int cursor = 0; cursor < height_;) {
    int const rows = std::min(band_rows, height_ - cursor);
    int const bytes = rows * line_bytes_;
    if (read(band.data(), bytes) != bytes) return {};
    int const first = top_down_ ? height_ - cursor - rows : cursor;
    for (int k = 0; k < rows; ++k) {
      int const y = top_down_ ? first + k : height_ - 1 - (first + k);
      converter.convert(band.data() + std::size_t(k) * std::size_t(line_bytes_),
                        picture.getBuffer() + std::size_t(y) * std::size_t(picture.getLineBytes()),
                        width_);
    }
    cursor += rows;
  }
  return picture;
}

}  // namespace quib
