// Row-streaming reading and writing of uncompressed bitmap files, and colour palettes.
#pragma once

#include <quib/export.hpp>
#include <quib/image.hpp>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <ios>
#include <memory>
#include <string>

namespace quib {

/// A shared array of 32-bit colour-table entries (blue, green, red, reserved), used to give a
/// new bitmap file its colour table. Copies share the entries; a borrowed array is never freed.
/// Owned entries start zero. `at` throws std::out_of_range("Palette: out of range.") when the
/// index, read as an unsigned 64-bit value, is *below* size(): the test is reversed on purpose,
/// and in-range access goes through operator[]. One palette object belongs to one thread.
///
///     quib::Palette grey(256);
///     for (int i = 0; i < 256; ++i) grey[i] = 0x010101u * i;
class QUIB_API Palette {
 public:
  /// No entries, null data.
  Palette();
  /// Owns `n` zero-filled entries.
  explicit Palette(std::uint64_t n);
  /// Borrows `data` (never freed).
  Palette(unsigned int* data, std::uint64_t n);
  Palette(Palette const&) = default;
  Palette& operator=(Palette const&) = default;
  ~Palette() = default;

  void clear();
  void swap(Palette& other) noexcept;
  std::uint64_t size() const { return count_; }
  unsigned int* begin() const { return data_; }
  unsigned int* end() const { return data_ + count_; }
  unsigned int& operator[](int i) const { return data_[i]; }
  /// Throws when i (as an unsigned 64-bit value) is less than size(); otherwise entry i,
  /// unchecked.
  unsigned int& at(int i) const;
  /// True when there is no entry array at all.
  bool empty() const { return data_ == nullptr; }
  explicit operator bool() const { return count_ != 0; }
  bool operator!() const { return count_ == 0; }

 private:
  unsigned int* data_;
  std::shared_ptr<unsigned int> handle_;
  std::uint64_t count_;
};

/// Sample arrangement of a bitmap file; rows are transferred only when pixel-interleaved.
enum class interleave_type : std::int32_t { pixel = 1 };

/// What Dib::read_image makes of the indices of a palette file (1, 2, 4 or 8 bits per pixel).
enum class palette_t : std::int32_t {
  index = 0,        ///< keep the indices: one 8-bit sample per pixel, color_type::grey
  bgr = 1,          ///< replace each index by its table colour: 24-bit BGR
  grey_or_bgr = 2,  ///< as bgr, but 8-bit grey levels when every entry is a grey (blue = green
                    ///< = red), as OpenCV reads such files
};

/// Streams whole rows between an uncompressed bitmap file ("BM", 40-byte information header)
/// and caller memory, so that an image larger than memory can be processed band by band.
/// A 24- or 32-bit file is described as 8-bit samples, 3 or 4 per pixel.
///
/// Row order: cursor row 0 is the first row stored in the file (the bottom of the picture in a
/// bottom-up file). In a top-down file each block of rows is taken from the end of the data
/// backwards while the rows inside one block keep their file order.
///
/// Failures are reported through the stream state: a file that cannot be opened or whose
/// headers are refused (another magic, compression, geometry whose row arithmetic would
/// overflow or whose rows do not fit in the file, an offset past its end) leaves fail() true
/// and path() empty; transfers on a failed Dib move nothing and return 0. Nothing throws unless
/// the caller enables stream exceptions. Copies share the open file; one Dib object belongs to
/// one thread at a time.
///
///     quib::Dib in("scan.bmp");
///     std::vector<unsigned char> band(64 * in.getLineBytes());
///     while (int n = in.read(band.data(), int(band.size()))) { /* n / getLineBytes() rows */ }
class QUIB_API Dib {
 public:
  /// How the file was opened: nothing open (or failed), an existing file opened for reading and
  /// updating, or a new file created for writing. The numbers are those of the file API's mode.
  enum class mode_t : std::int32_t { none = 0, opened = 1, created = 2 };

  /// Nothing open.
  Dib();
  /// Opens an existing bitmap file for reading and updating; a file this process may read but
  /// not write is opened for reading alone, and writes to it then fail. A narrow path is the
  /// file system's own name (UTF-8 bytes here).
  explicit Dib(std::string const& path);
  /// As above for a wide path. A path holding an unpaired surrogate names no file: it fails
  /// like a missing one, and no other file is opened in its place.
  explicit Dib(std::wstring const& path);
  /// Creates a new file (or reopens an existing bitmap) for writing rows. A negative height
  /// makes a top-down file.
  Dib(std::string const& path, int width, int height, int x_dpi, int y_dpi, int bits, int align,
      int color_count, Palette const& palette);
  Dib(std::wstring const& path, int width, int height, int x_dpi, int y_dpi, int bits, int align,
      int color_count, Palette const& palette);
  Dib(Dib const&) = default;
  Dib& operator=(Dib const&) = default;
  ~Dib() = default;

  /// Opens an existing file; false at once when the path is not an existing regular file.
  [[nodiscard]] bool create(std::string const& path);
  /// Reads a whole bitmap file into a new image in picture order: rows top-down whatever the
  /// file's row order, one 8-bit sample per channel, rows padded to 4 bytes. By depth:
  /// - 1, 2, 4 and 8 bits: as `palette` says (see palette_t); an index past the end of the
  ///   colour table is black. A file without a table reads as if its table were the even grey
  ///   ramp of its depth (black and white for 1 bit).
  /// - 16 bits (5 bits each of red, green and blue, the top bit unused): 24-bit BGR, each
  ///   5-bit value v widened to (v << 3) | (v >> 2).
  /// - 24 bits: 24-bit BGR; 32 bits: 32-bit BGRA, the fourth byte as stored.
  /// On failure (the file cannot be opened as a Dib, another depth, more than one plane, an
  /// empty picture, or rows missing) the result is an empty image (`empty()` true); nothing
  /// throws but std::bad_alloc. The file is opened for reading only and read once, in bands;
  /// the caller owns the result.
  ///
  ///     quib::Image picture = quib::Dib::read_image(L"scan.bmp");
  ///     if (picture.empty()) { /* not a bitmap this reader understands */ }
  ///     cv::Mat view = picture.makeMat();  // CV_8UC1, CV_8UC3 or CV_8UC4
  [[nodiscard]] static Image read_image(std::wstring const& path,
                                        palette_t palette = palette_t::grey_or_bgr);
  [[nodiscard]] static Image read_image(std::string const& path,
                                        palette_t palette = palette_t::grey_or_bgr);

  /// Creates or reopens a file for writing; true when the stream is good.
  [[nodiscard]] bool create(std::string const& path, int width, int height, int x_dpi, int y_dpi,
                            int bits, int align, int color_count, Palette const& palette);
  /// The same for wide paths; path() then holds the path in UTF-8.
  [[nodiscard]] bool create(std::wstring const& path);
  [[nodiscard]] bool create(std::wstring const& path, int width, int height, int x_dpi, int y_dpi,
                            int bits, int align, int color_count, Palette const& palette);
  void swap(Dib& other) noexcept;
  /// Releases this handle (the file closes when no copy shares it).
  void close();

  bool fail() const;
  explicit operator bool() const { return !fail(); }
  /// Sets the stream's exception mask; the end-of-file bit is always taken out of it.
  void exceptions(std::ios_base::iostate mask);
  /// The path given when opening (UTF-8 for a wide path); empty after a failure.
  std::string path() const { return file_path_; }

  int getWidth() const { return width_; }
  int getHeight() const { return height_; }
  int getLineBytes() const { return line_bytes_; }
  int getXDpi() const { return x_dpi_; }
  int getYDpi() const { return y_dpi_; }
  int getPlaneCount() const { return plane_count_; }
  int getColorCount() const { return color_count_; }
  interleave_type getInterleave() const { return interleave_; }
  int getBits() const { return coordinator_.getBits(); }
  int getAlign() const { return coordinator_.getAlign(); }
  /// getPlaneCount() * getLineBytes() * getHeight().
  std::uint64_t getImageSize() const;
  /// The descriptor of one sample (color 0, bits per sample, align).
  ImageCoordinator getCoordinator() const { return coordinator_; }
  /// The colour table of the file (read from an opened file, given to a created one).
  Palette getPalette() const { return palette_; }
  bool isTopDown() const { return top_down_; }
  /// Bits per pixel as the file header gives them (`biBitCount`): 1, 4, 8, 16, 24 or 32 in an
  /// ordinary file; bits per sample times samples for a created one.
  int getBitCount() const { return bit_count_; }
  int getDataOffset() const { return data_offset_; }

  mode_t getMode() const { return mode_; }
  /// The stream's read position after opening, its write position after creating, else 0.
  std::int64_t tell() const;
  /// Row cursor number index mod 4.
  int tell(int index) const;
  /// Sets row cursor number index mod 4 to min(row, height), or 0 for a negative row.
  void seek(int index, int row);

  /// Moves bytes / getLineBytes() whole rows at cursor 0; returns the bytes moved (0 on failure).
  [[nodiscard]] int read(unsigned char* buffer, int bytes);
  [[nodiscard]] int write(unsigned char const* buffer, int bytes);
  /// Moves sample plane `index` mod getColorCount() at cursor index mod 4, in units of the
  /// one-sample row length; never touches more than `bytes` bytes of the caller's memory.
  [[nodiscard]] int read(int index, unsigned char* buffer, int bytes);
  [[nodiscard]] int write(int index, unsigned char const* buffer, int bytes);

 private:
  void open(std::filesystem::path const& native, std::ios_base::openmode how);
  void open(std::filesystem::path const& native, int width, int height, int x_dpi, int y_dpi,
            int bits, int align, int color_count, Palette const& palette);
  bool read_headers(bool keep_geometry);
  void refuse();
  int rows_at(int cursor, int rows) const;
  std::int64_t offset_of(int cursor, int rows) const;
  int one_sample_line_bytes() const;
  Image read_picture(palette_t palette);

  std::shared_ptr<std::fstream> stream_;
  std::string file_path_;
  int width_;
  int height_;
  int line_bytes_;
  int x_dpi_;
  int y_dpi_;
  int plane_count_;
  int color_count_;
  interleave_type interleave_;
  int position_[4];
  int data_offset_;
  bool top_down_;
  Palette palette_;
  ImageCoordinator coordinator_;
  mode_t mode_;
  int bit_count_;
};

inline void swap(Palette& a, Palette& b) noexcept {
  a.swap(b);
}
inline void swap(Dib& a, Dib& b) noexcept {
  a.swap(b);
}

}  // namespace quib
