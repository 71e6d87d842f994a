// Reading a whole bitmap file into an image in picture order: rows top-down, palettes looked up.
#include <quib/dib.hpp>

#include "system/bytes.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

namespace quib {

namespace {

// One stored row turned into one picture row.
class RowConverter {
 public:
  // False for a depth this reader does not understand.
  bool prepare(int bitCount, Palette const& table, palette_t mode) {
    bits = bitCount;
    switch (bits) {
      case 1:
      case 2:
      case 4:
      case 8:
        preparePalette(table, mode);
        return true;
      case 15:
      case 16:
        kind = kind_t::rgb555;
        channels = 3;
        return true;
      case 24:
      case 32:
        kind = kind_t::copy;
        channels = bits / 8;
        return true;
      default:
        return false;
    }
  }

  int channelCount() const { return channels; }

  void convert(unsigned char const* src, unsigned char* dst, int width) const {
    switch (kind) {
      case kind_t::copy:
        std::memcpy(dst, src, std::size_t(width) * std::size_t(channels));
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
          dst[x] = grey[index(src, x)];
        break;
      case kind_t::bgr:
        for (int x = 0; x < width; ++x, dst += 3)
          std::memcpy(dst, &colour[index(src, x)][0], 3);
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
    if (bits == 8) return row[x];
    int const bit = x * bits;
    int const shift = 8 - bits - bit % 8;
    return (row[bit / 8] >> shift) & ((1u << bits) - 1);
  }

  void preparePalette(Palette const& table, palette_t mode) {
    unsigned const entries = 1u << bits;
    bool allGrey = true;
    for (unsigned i = 0; i < entries; ++i) {
      // Without a table the indices are the even grey ramp of the depth; an index past the
      // end of a table is black.
      unsigned const bgr = table.size() == 0  ? i * 255 / (entries - 1) * 0x010101u
                           : i < table.size() ? table[int(i)] & 0xFFFFFFu
                                              : 0u;
      colour[i] = {static_cast<unsigned char>(bgr), static_cast<unsigned char>(bgr >> 8),
                   static_cast<unsigned char>(bgr >> 16)};
      grey[i] = colour[i][0];
      allGrey = allGrey && colour[i][0] == colour[i][1] && colour[i][1] == colour[i][2];
    }
    if (mode == palette_t::index) {
      for (unsigned i = 0; i < 256; ++i)
        grey[i] = static_cast<unsigned char>(i);
      kind = kind_t::grey;
    } else if (mode == palette_t::grey_or_bgr && allGrey) {
      kind = kind_t::grey;
    } else {
      kind = kind_t::bgr;
    }
    channels = kind == kind_t::grey ? 1 : 3;
  }

  int bits = 8;
  kind_t kind = kind_t::copy;
  int channels = 1;
  std::array<unsigned char, 256> grey{};
  std::array<std::array<unsigned char, 3>, 256> colour{};
};

color_type colourOf(int channels) {
  return channels == 1 ? color_type::grey : channels == 3 ? color_type::bgr : color_type::bgra;
}

}  // namespace

Image Dib::read_image(std::wstring const& path, palette_t palette) {
  return Dib(path).readPicture(palette);
}

Image Dib::read_image(std::string const& path, palette_t palette) {
  return Dib(path).readPicture(palette);
}

Image Dib::readPicture(palette_t mode) {
  RowConverter converter;
  if (fail() || planeCount != 1 || width <= 0 || height <= 0 || lineBytes <= 0 ||
      !converter.prepare(bitCount, palette, mode)) {
    return {};
  }
  int const channels = converter.channelCount();
  Image picture(width, height, 8 * channels, 4, colourOf(channels));

  // The file is read in bands of about 256 KiB. Each band holds the file rows
  // [first, first + rows), in file order: the rows from the cursor on in a bottom-up file, and
  // in a top-down file the rows that far from the end, since its bands are taken from the end
  // of the data backwards. File row f is picture row f in a top-down file and picture row
  // height - 1 - f in a bottom-up one.
  int const bandRows = std::clamp((1 << 18) / lineBytes, 1, height);
  std::vector<unsigned char> band(std::size_t(bandRows) * std::size_t(lineBytes));
  seek(0, 0);
  for (int cursor = 0; cursor < height;) {
    int const rows = std::min(bandRows, height - cursor);
    int const bytes = rows * lineBytes;
    if (read(band.data(), bytes) != bytes) return {};
    int const first = topDown ? height - cursor - rows : cursor;
    for (int k = 0; k < rows; ++k) {
      int const y = topDown ? first + k : height - 1 - (first + k);
      converter.convert(band.data() + std::size_t(k) * std::size_t(lineBytes),
                        picture.getBuffer() + std::size_t(y) * std::size_t(picture.getLineBytes()),
                        width);
    }
    cursor += rows;
  }
  return picture;
}

}  // namespace quib
