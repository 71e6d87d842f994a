#include <quib/dib.hpp>

#include "system/bytes.hpp"
#include "system/native_path.hpp"
#include "system/utf8.hpp"

#include <algorithm>
#include <climits>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

namespace quib {

namespace {

using detail::load_le;
using detail::store_le;

constexpr int kFileHeaderBytes = 14;
constexpr int kInfoHeaderBytes = 40;
constexpr int kHeaderBytes = kFileHeaderBytes + kInfoHeaderBytes;
constexpr std::uint16_t kMagic = 0x4D42;  // "BM" read as a little-endian 16-bit number
// How an existing file is opened: for reading and updating its rows.
constexpr std::ios_base::openmode kUpdate = std::ios::in | std::ios::out | std::ios::binary;

// True when the path names something that exists and is not a directory.
bool is_existing_file(std::filesystem::path const& path) {
  std::error_code ec;
  auto const status = std::filesystem::status(path, ec);
  return !ec && std::filesystem::exists(status) && !std::filesystem::is_directory(status);
}

// Bytes of a row of `samples` samples, or -1 when the 32-bit row arithmetic would overflow.
int checked_line_bytes(std::int64_t samples, ImageCoordinator const& format) {
  const std::int64_t d = format.getDenominator();
  const std::int64_t n = format.getNumerator();
  const std::int64_t a = format.getAlign();
  if (samples < 0 || d <= 0 || n <= 0 || a <= 0) return -1;
  if ((samples + d - 1) * n > INT_MAX) return -1;
  const std::int64_t block_bytes = (samples + d - 1) / d * n;
  if (block_bytes + a - 1 > INT_MAX) return -1;
  return static_cast<int>((block_bytes + a - 1) / a * a);
}

int mod(int value, int divisor) {
  return ((value % divisor) + divisor) % divisor;
}

// The path as the Dib shows it: the UTF-8 text of a wide path.
std::string shown_path(std::wstring const& path) {
  return *detail::utf8_from_wide(path, detail::on_invalid_t::replace);
}

}  // namespace

Dib::Dib()
    : width_(0),
      height_(0),
      line_bytes_(0),
      x_dpi_(0),
      y_dpi_(0),
      plane_count_(0),
      color_count_(0),
      interleave_(interleave_type::pixel),
      position_{0, 0, 0, 0},
      data_offset_(0),
      top_down_(false),
      coordinator_(8, 1, 1, 1, color_type::undetermined),
      mode_(mode_t::none),
      bit_count_(0) {}

Dib::Dib(std::string const& path) : Dib() {
  file_path_ = path;
  open(std::filesystem::path(path), kUpdate);
}

Dib::Dib(std::wstring const& path) : Dib() {
  file_path_ = shown_path(path);
  if (auto const native = detail::native_path(path)) {
    open(*native, kUpdate);
  } else {
    refuse();
  }
}

Dib::Dib(std::string const& path, int w, int h, int xdpi, int ydpi, int bits, int align, int cc,
         Palette const& pal)
    : Dib() {
  file_path_ = path;
  open(std::filesystem::path(path), w, h, xdpi, ydpi, bits, align, cc, pal);
}

Dib::Dib(std::wstring const& path, int w, int h, int xdpi, int ydpi, int bits, int align, int cc,
         Palette const& pal)
    : Dib() {
  file_path_ = shown_path(path);
  if (auto const native = detail::native_path(path)) {
    open(*native, w, h, xdpi, ydpi, bits, align, cc, pal);
  } else {
    refuse();
  }
}

void Dib::open(std::filesystem::path const& path, std::ios_base::openmode how) {
  stream_ = std::make_shared<std::fstream>(path, how);
  // Reading needs no write access: a file that may not be written is opened for reading.
  if (!stream_->is_open() && (how & std::ios::out))
    stream_ = std::make_shared<std::fstream>(path, how & ~std::ios::out);
  if (!stream_->is_open() || stream_->fail() || !read_headers(false)) {
    refuse();
    return;
  }
  mode_ = mode_t::opened;
}

void Dib::open(std::filesystem::path const& path, int w, int h, int xdpi, int ydpi, int bits,
               int align, int cc, Palette const& pal) {
  auto open_mode = std::ios::in | std::ios::out | std::ios::binary;
  if (!is_existing_file(path)) open_mode |= std::ios::trunc;
  stream_ = std::make_shared<std::fstream>(path, open_mode);

  width_ = w;
  height_ = h < 0 ? -h : h;
  x_dpi_ = xdpi;
  y_dpi_ = ydpi;
  plane_count_ = 1;
  color_count_ = cc;
  top_down_ = h < 0;
  coordinator_ = ImageCoordinator(bits, align, color_type::undetermined);
  palette_ = pal;
  line_bytes_ = checked_line_bytes(std::int64_t(w) * cc, coordinator_);
  bool const sane = w >= 0 && h != INT_MIN && bits > 0 && cc > 0 && line_bytes_ >= 0 &&
                    pal.size() <= std::uint64_t(INT_MAX - kHeaderBytes) / 4;
  if (!sane || !stream_->is_open() || stream_->fail()) {
    refuse();
    return;
  }

  stream_->seekg(0, std::ios::end);
  if (stream_->tellg() > 0) {
    bit_count_ = static_cast<std::uint16_t>(std::int64_t(bits) * cc);
    if (!read_headers(true)) {  // an existing bitmap: reopened with the geometry given here
      refuse();
      return;
    }
    mode_ = mode_t::opened;
    return;
  }

  const std::uint64_t table_bytes = 4 * pal.size();
  int const off_bits = static_cast<int>(table_bytes) + kHeaderBytes;
  const std::uint64_t file_size = std::uint64_t(height_) * std::uint64_t(line_bytes_) + off_bits;
  const std::int64_t pixel_bits = std::int64_t(bits) * cc;
  bit_count_ = static_cast<std::uint16_t>(pixel_bits);  // as the header stores it
  std::vector<unsigned char> header(static_cast<std::size_t>(off_bits), 0);
  unsigned char* p = header.data();
  store_le<std::uint16_t>(p, kMagic);
  store_le<std::uint32_t>(p + 2, static_cast<std::uint32_t>(file_size));
  store_le<std::uint32_t>(p + 10, static_cast<std::uint32_t>(off_bits));
  store_le<std::uint32_t>(p + 14, kInfoHeaderBytes);
  store_le<std::int32_t>(p + 18, w);
  store_le<std::int32_t>(p + 22, h);
  store_le<std::uint16_t>(p + 26, 1);
  store_le<std::uint16_t>(p + 28, static_cast<std::uint16_t>(bit_count_));
  store_le<std::uint32_t>(p + 30, 0);  // no compression
  store_le<std::uint32_t>(p + 34, 0);  // image size: 0 is allowed for uncompressed rows
  store_le<std::int32_t>(p + 38,
                         static_cast<std::int32_t>((std::int64_t(xdpi) * 10000 + 253) / 254));
  store_le<std::int32_t>(p + 42,
                         static_cast<std::int32_t>((std::int64_t(ydpi) * 10000 + 253) / 254));
  store_le<std::uint32_t>(p + 46, std::uint32_t(1) << (pixel_bits % 32));
  store_le<std::uint32_t>(p + 50, static_cast<std::uint32_t>(pal.size()));
  for (std::uint64_t i = 0; i < pal.size(); ++i)
    store_le<std::uint32_t>(p + kHeaderBytes + 4 * i, pal.begin()[i]);
  stream_->seekp(0);
  stream_->write(reinterpret_cast<char const*>(p), off_bits);
  stream_->flush();
  stream_->seekp(off_bits);
  data_offset_ = off_bits;
  mode_ = mode_t::created;
}

bool Dib::read_headers(bool keep_geometry) {
  std::fstream& s = *stream_;
  s.seekg(0, std::ios::end);
  const std::int64_t file_size = s.tellg();
  s.seekg(0);
  unsigned char h[kHeaderBytes];
  s.read(reinterpret_cast<char*>(h), kFileHeaderBytes);
  if (s.gcount() != kFileHeaderBytes || load_le<std::uint16_t>(h) != kMagic) return false;
  s.read(reinterpret_cast<char*>(h + kFileHeaderBytes), kInfoHeaderBytes);
  if (s.gcount() != kInfoHeaderBytes) return false;

  auto const off_bits = load_le<std::uint32_t>(h + 10);
  auto const info_size = load_le<std::uint32_t>(h + 14);
  auto const file_width = load_le<std::int32_t>(h + 18);
  auto const file_height = load_le<std::int32_t>(h + 22);
  int const planes = load_le<std::uint16_t>(h + 26);
  int const file_bit_count = load_le<std::uint16_t>(h + 28);
  auto const compression = load_le<std::uint32_t>(h + 30);
  if (compression != 0) return false;
  if (off_bits < std::uint32_t(kHeaderBytes) || std::int64_t(off_bits) > file_size) return false;

  if (!keep_geometry) {
    int sample_bits = 8;
    int samples = 1;
    switch (file_bit_count) {
      case 1:
      case 2:
      case 4:
      case 15:
      case 16:
        sample_bits = file_bit_count;
        break;
      case 24:
        samples = 3;
        break;
      case 32:
        samples = 4;
        break;
      default:
        break;  // 8 bits and anything else: one 8-bit sample
    }
    if (file_width <= 0 || file_height == 0 || file_height == INT_MIN || planes == 0) return false;
    const ImageCoordinator format(sample_bits, 4, color_type::undetermined);
    int const row_bytes = checked_line_bytes(std::int64_t(file_width) * samples, format);
    if (row_bytes < 0) return false;
    const std::int64_t rows_height = file_height < 0 ? -std::int64_t(file_height) : file_height;
    // The rows must fit in the file behind the offset: nothing past the end is promised.
    const std::int64_t available = file_size - std::int64_t(off_bits);
    if (rows_height > available / row_bytes / planes) return false;
    coordinator_ = format;
    color_count_ = samples;
    line_bytes_ = row_bytes;
    width_ = file_width;
    height_ = static_cast<int>(rows_height);
    x_dpi_ = static_cast<int>(std::int64_t(load_le<std::int32_t>(h + 38)) * 254 / 10000);
    y_dpi_ = static_cast<int>(std::int64_t(load_le<std::int32_t>(h + 42)) * 254 / 10000);
    plane_count_ = planes;
    interleave_ = interleave_type::pixel;
    top_down_ = file_height < 0;
    bit_count_ = file_bit_count;
  }
  data_offset_ = static_cast<int>(off_bits);

  // The colour table sits between the information header and the first row.
  const std::int64_t table_start = std::min<std::int64_t>(
      kFileHeaderBytes + std::max<std::int64_t>(info_size, kInfoHeaderBytes), off_bits);
  const std::int64_t entries = (std::int64_t(off_bits) - table_start) / 4;
  Palette table(static_cast<std::uint64_t>(entries));
  if (entries > 0) {
    s.seekg(table_start);
    s.read(reinterpret_cast<char*>(table.begin()), entries * 4);
    for (std::int64_t i = 0; i < entries; ++i) {  // stored little-endian on every host
      table.begin()[i] = load_le<std::uint32_t>(table.begin() + i);
    }
  }
  palette_ = table;
  s.seekg(off_bits);
  std::fill(std::begin(position_), std::end(position_), 0);
  return s.good();
}

void Dib::refuse() {
  Dib failed;
  failed.stream_ = stream_ ? stream_ : std::make_shared<std::fstream>();
  if (failed.stream_->is_open()) failed.stream_->close();
  failed.stream_->setstate(std::ios::failbit);
  swap(failed);
}

bool Dib::create(std::string const& path) {
  if (!is_existing_file(path)) return false;
  Dib opened(path);
  swap(opened);
  return stream_ && stream_->good();
}

bool Dib::create(std::wstring const& path) {
  auto const native = detail::native_path(path);
  if (!native || !is_existing_file(*native)) return false;
  Dib opened(path);
  swap(opened);
  return stream_ && stream_->good();
}

bool Dib::create(std::string const& path, int w, int h, int xdpi, int ydpi, int bits, int align,
                 int cc, Palette const& pal) {
  Dib created(path, w, h, xdpi, ydpi, bits, align, cc, pal);
  swap(created);
  return stream_ && stream_->good();
}

bool Dib::create(std::wstring const& path, int w, int h, int xdpi, int ydpi, int bits, int align,
                 int cc, Palette const& pal) {
  Dib created(path, w, h, xdpi, ydpi, bits, align, cc, pal);
  swap(created);
  return stream_ && stream_->good();
}

void Dib::swap(Dib& o) noexcept {
  std::swap(stream_, o.stream_);
  std::swap(file_path_, o.file_path_);
  std::swap(width_, o.width_);
  std::swap(height_, o.height_);
  std::swap(line_bytes_, o.line_bytes_);
  std::swap(x_dpi_, o.x_dpi_);
  std::swap(y_dpi_, o.y_dpi_);
  std::swap(plane_count_, o.plane_count_);
  std::swap(color_count_, o.color_count_);
  std::swap(interleave_, o.interleave_);
  std::swap(position_, o.position_);
  std::swap(data_offset_, o.data_offset_);
  std::swap(top_down_, o.top_down_);
  palette_.swap(o.palette_);
  coordinator_.swap(o.coordinator_);
  std::swap(mode_, o.mode_);
  std::swap(bit_count_, o.bit_count_);
}

void Dib::close() {
  Dib closed;
  swap(closed);
}

bool Dib::fail() const {
  return !stream_ || stream_->fail();
}

void Dib::exceptions(std::ios_base::iostate mask) {
  if (stream_) stream_->exceptions(mask & ~std::ios_base::eofbit);
}

std::uint64_t Dib::getImageSize() const {
  return static_cast<std::uint64_t>(std::int64_t(plane_count_) * line_bytes_ * height_);
}

std::int64_t Dib::tell() const {
  if (!stream_) return 0;
  if (mode_ == mode_t::opened) return static_cast<std::int64_t>(stream_->tellg());
  if (mode_ == mode_t::created) return static_cast<std::int64_t>(stream_->tellp());
  return 0;
}

int Dib::tell(int index) const {
  return position_[mod(index, 4)];
}

void Dib::seek(int index, int row) {
  position_[mod(index, 4)] = row < 0 ? 0 : std::min(row, height_);
}

int Dib::rows_at(int cursor, int rows) const {
  return std::min(rows, height_ - cursor);
}

std::int64_t Dib::offset_of(int cursor, int rows) const {
  const std::int64_t row =
      top_down_ ? std::int64_t(plane_count_) * height_ - cursor - rows : std::int64_t(cursor);
  return std::int64_t(data_offset_) + row * line_bytes_;
}

int Dib::one_sample_line_bytes() const {
  return coordinator_.getLineBytes(width_);
}

int Dib::read(unsigned char* buffer, int bytes) {
  if (fail() || interleave_ != interleave_type::pixel) return 0;
  int const rows = rows_at(position_[0], line_bytes_ != 0 ? bytes / line_bytes_ : bytes);
  if (rows <= 0) return 0;
  stream_->seekg(offset_of(position_[0], rows));
  stream_->read(reinterpret_cast<char*>(buffer), std::streamsize(rows) * line_bytes_);
  position_[0] += rows;
  return static_cast<int>(stream_->gcount());
}

int Dib::write(unsigned char const* buffer, int bytes) {
  if (fail() || interleave_ != interleave_type::pixel) return 0;
  int const rows = rows_at(position_[0], line_bytes_ != 0 ? bytes / line_bytes_ : bytes);
  if (rows <= 0) return 0;
  const std::int64_t offset = offset_of(position_[0], rows);
  stream_->seekp(offset);
  stream_->write(reinterpret_cast<char const*>(buffer), std::streamsize(rows) * line_bytes_);
  stream_->flush();
  position_[0] += rows;
  const std::int64_t end = stream_->tellp();
  return end < offset ? 0 : static_cast<int>(end - offset);
}

int Dib::read(int index, unsigned char* buffer, int bytes) {
  if (fail() || interleave_ != interleave_type::pixel || color_count_ <= 0) return 0;
  int const slot = mod(index, 4);
  int const single = one_sample_line_bytes();
  if (single <= 0) return 0;
  int const rows = rows_at(position_[slot], bytes / single);
  if (rows <= 0) return 0;

  const std::size_t total = std::size_t(rows) * std::size_t(line_bytes_);
  std::vector<unsigned char> rows_buffer(total, 0);
  stream_->seekg(offset_of(position_[slot], rows));
  stream_->read(reinterpret_cast<char*>(rows_buffer.data()), std::streamsize(total));

  // One continuous walk with a stride of color_count_; bytes past the rows read as 0.
  const std::size_t limit = std::min<std::size_t>(total, std::size_t(bytes));
  std::size_t from = std::size_t(mod(index, color_count_));
  for (std::size_t k = 0; k < limit; ++k, from += std::size_t(color_count_)) {
    buffer[k] = from < total ? rows_buffer[from] : 0;
  }
  position_[slot] += rows;
  return single * rows;
}

int Dib::write(int index, unsigned char const* buffer, int bytes) {
  if (fail() || interleave_ != interleave_type::pixel || color_count_ <= 0) return 0;
  int const slot = mod(index, 4);
  int const single = one_sample_line_bytes();
  if (single <= 0) return 0;
  int const rows = rows_at(position_[slot], bytes / single);
  if (rows <= 0) return 0;

  const std::size_t total = std::size_t(rows) * std::size_t(line_bytes_);
  const std::int64_t offset = offset_of(position_[slot], rows);
  std::vector<unsigned char> rows_buffer(total, 0);
  stream_->seekg(0, std::ios::end);
  const std::int64_t file_size = stream_->tellg();
  if (offset < file_size) {  // read-modify-write of the rows that exist already
    auto const present = std::min<std::int64_t>(std::int64_t(total), file_size - offset);
    stream_->seekg(offset);
    stream_->read(reinterpret_cast<char*>(rows_buffer.data()), std::streamsize(present));
  }
  if (stream_->fail()) return 0;

  const std::size_t limit = std::min<std::size_t>(total, std::size_t(bytes));
  std::size_t to = std::size_t(mod(index, color_count_));
  for (std::size_t k = 0; k < limit; ++k, to += std::size_t(color_count_)) {
    if (to < total) rows_buffer[to] = buffer[k];
  }
  stream_->seekp(offset);
  stream_->write(reinterpret_cast<char const*>(rows_buffer.data()), std::streamsize(total));
  stream_->flush();
  position_[slot] += rows;
  return stream_->fail() ? 0 : single * rows;
}

}  // namespace quib
