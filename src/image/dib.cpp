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

// True when the path names something that exists and is not a directory.
bool isExistingFile(std::filesystem::path const& path) {
  std::error_code ec;
  auto const status = std::filesystem::status(path, ec);
  return !ec && std::filesystem::exists(status) && !std::filesystem::is_directory(status);
}

// Bytes of a row of `samples` samples, or -1 when the 32-bit row arithmetic would overflow.
int checkedLineBytes(std::int64_t samples, ImageCoordinator const& format) {
  const std::int64_t d = format.getDenominator();
  const std::int64_t n = format.getNumerator();
  const std::int64_t a = format.getAlign();
  if (samples < 0 || d <= 0 || n <= 0 || a <= 0) return -1;
  if ((samples + d - 1) * n > INT_MAX) return -1;
  const std::int64_t blockBytes = (samples + d - 1) / d * n;
  if (blockBytes + a - 1 > INT_MAX) return -1;
  return static_cast<int>((blockBytes + a - 1) / a * a);
}

int mod(int value, int divisor) {
  return ((value % divisor) + divisor) % divisor;
}

// The path as the Dib shows it: the UTF-8 text of a wide path.
std::string shownPath(std::wstring const& path) {
  return *detail::utf8_from_wide(path, detail::on_invalid_t::replace);
}

}  // namespace

Dib::Dib()
    : width(0),
      height(0),
      lineBytes(0),
      xDpi(0),
      yDpi(0),
      planeCount(0),
      colorCount(0),
      interleave(interleave_type::pixel),
      position{0, 0, 0, 0},
      dataOffset(0),
      topDown(false),
      coordinator(8, 1, 1, 1, color_type::undetermined),
      mode(mode_t::none),
      bitCount(0) {}

Dib::Dib(std::string const& path) : Dib() {
  filePath = path;
  open(std::filesystem::path(path));
}

Dib::Dib(std::wstring const& path) : Dib() {
  filePath = shownPath(path);
  if (auto const native = detail::native_path(path)) {
    open(*native);
  } else {
    refuse();
  }
}

Dib::Dib(std::string const& path, int w, int h, int xdpi, int ydpi, int bits, int align, int cc,
         Palette const& pal)
    : Dib() {
  filePath = path;
  open(std::filesystem::path(path), w, h, xdpi, ydpi, bits, align, cc, pal);
}

Dib::Dib(std::wstring const& path, int w, int h, int xdpi, int ydpi, int bits, int align, int cc,
         Palette const& pal)
    : Dib() {
  filePath = shownPath(path);
  if (auto const native = detail::native_path(path)) {
    open(*native, w, h, xdpi, ydpi, bits, align, cc, pal);
  } else {
    refuse();
  }
}

void Dib::open(std::filesystem::path const& path) {
  stream = std::make_shared<std::fstream>(path, std::ios::in | std::ios::out | std::ios::binary);
  if (!stream->is_open() || stream->fail() || !readHeaders(false)) {
    refuse();
    return;
  }
  mode = mode_t::opened;
}

void Dib::open(std::filesystem::path const& path, int w, int h, int xdpi, int ydpi, int bits,
               int align, int cc, Palette const& pal) {
  auto openMode = std::ios::in | std::ios::out | std::ios::binary;
  if (!isExistingFile(path)) openMode |= std::ios::trunc;
  stream = std::make_shared<std::fstream>(path, openMode);

  width = w;
  height = h < 0 ? -h : h;
  xDpi = xdpi;
  yDpi = ydpi;
  planeCount = 1;
  colorCount = cc;
  topDown = h < 0;
  coordinator = ImageCoordinator(bits, align, color_type::undetermined);
  palette = pal;
  lineBytes = checkedLineBytes(std::int64_t(w) * cc, coordinator);
  bool const sane = w >= 0 && h != INT_MIN && bits > 0 && cc > 0 && lineBytes >= 0 &&
                    pal.size() <= std::uint64_t(INT_MAX - kHeaderBytes) / 4;
  if (!sane || !stream->is_open() || stream->fail()) {
    refuse();
    return;
  }

  stream->seekg(0, std::ios::end);
  if (stream->tellg() > 0) {
    bitCount = static_cast<std::uint16_t>(std::int64_t(bits) * cc);
    if (!readHeaders(true)) {  // an existing bitmap: reopened with the geometry given here
      refuse();
      return;
    }
    mode = mode_t::opened;
    return;
  }

  const std::uint64_t tableBytes = 4 * pal.size();
  int const offBits = static_cast<int>(tableBytes) + kHeaderBytes;
  const std::uint64_t fileSize = std::uint64_t(height) * std::uint64_t(lineBytes) + offBits;
  const std::int64_t pixelBits = std::int64_t(bits) * cc;
  bitCount = static_cast<std::uint16_t>(pixelBits);  // as the header stores it
  std::vector<unsigned char> header(static_cast<std::size_t>(offBits), 0);
  unsigned char* p = header.data();
  store_le<std::uint16_t>(p, kMagic);
  store_le<std::uint32_t>(p + 2, static_cast<std::uint32_t>(fileSize));
  store_le<std::uint32_t>(p + 10, static_cast<std::uint32_t>(offBits));
  store_le<std::uint32_t>(p + 14, kInfoHeaderBytes);
  store_le<std::int32_t>(p + 18, w);
  store_le<std::int32_t>(p + 22, h);
  store_le<std::uint16_t>(p + 26, 1);
  store_le<std::uint16_t>(p + 28, static_cast<std::uint16_t>(bitCount));
  store_le<std::uint32_t>(p + 30, 0);  // no compression
  store_le<std::uint32_t>(p + 34, 0);  // image size: 0 is allowed for uncompressed rows
  store_le<std::int32_t>(p + 38,
                         static_cast<std::int32_t>((std::int64_t(xdpi) * 10000 + 253) / 254));
  store_le<std::int32_t>(p + 42,
                         static_cast<std::int32_t>((std::int64_t(ydpi) * 10000 + 253) / 254));
  store_le<std::uint32_t>(p + 46, std::uint32_t(1) << (pixelBits % 32));
  store_le<std::uint32_t>(p + 50, static_cast<std::uint32_t>(pal.size()));
  for (std::uint64_t i = 0; i < pal.size(); ++i)
    store_le<std::uint32_t>(p + kHeaderBytes + 4 * i, pal.begin()[i]);
  stream->seekp(0);
  stream->write(reinterpret_cast<char const*>(p), offBits);
  stream->flush();
  stream->seekp(offBits);
  dataOffset = offBits;
  mode = mode_t::created;
}

bool Dib::readHeaders(bool keepGeometry) {
  std::fstream& s = *stream;
  s.seekg(0, std::ios::end);
  const std::int64_t fileSize = s.tellg();
  s.seekg(0);
  unsigned char h[kHeaderBytes];
  s.read(reinterpret_cast<char*>(h), kFileHeaderBytes);
  if (s.gcount() != kFileHeaderBytes || load_le<std::uint16_t>(h) != kMagic) return false;
  s.read(reinterpret_cast<char*>(h + kFileHeaderBytes), kInfoHeaderBytes);
  if (s.gcount() != kInfoHeaderBytes) return false;

  auto const offBits = load_le<std::uint32_t>(h + 10);
  auto const infoSize = load_le<std::uint32_t>(h + 14);
  auto const fileWidth = load_le<std::int32_t>(h + 18);
  auto const fileHeight = load_le<std::int32_t>(h + 22);
  int const planes = load_le<std::uint16_t>(h + 26);
  int const fileBitCount = load_le<std::uint16_t>(h + 28);
  auto const compression = load_le<std::uint32_t>(h + 30);
  if (compression != 0) return false;
  if (offBits < std::uint32_t(kHeaderBytes) || std::int64_t(offBits) > fileSize) return false;

  if (!keepGeometry) {
    int sampleBits = 8;
    int samples = 1;
    switch (fileBitCount) {
      case 1:
      case 2:
      case 4:
      case 15:
      case 16:
        sampleBits = fileBitCount;
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
    if (fileWidth <= 0 || fileHeight == 0 || fileHeight == INT_MIN || planes == 0) return false;
    const ImageCoordinator format(sampleBits, 4, color_type::undetermined);
    int const rowBytes = checkedLineBytes(std::int64_t(fileWidth) * samples, format);
    if (rowBytes < 0) return false;
    const std::int64_t rowsHeight = fileHeight < 0 ? -std::int64_t(fileHeight) : fileHeight;
    // The rows must fit in the file behind the offset: nothing past the end is promised.
    const std::int64_t available = fileSize - std::int64_t(offBits);
    if (rowsHeight > available / rowBytes / planes) return false;
    coordinator = format;
    colorCount = samples;
    lineBytes = rowBytes;
    width = fileWidth;
    height = static_cast<int>(rowsHeight);
    xDpi = static_cast<int>(std::int64_t(load_le<std::int32_t>(h + 38)) * 254 / 10000);
    yDpi = static_cast<int>(std::int64_t(load_le<std::int32_t>(h + 42)) * 254 / 10000);
    planeCount = planes;
    interleave = interleave_type::pixel;
    topDown = fileHeight < 0;
    bitCount = fileBitCount;
  }
  dataOffset = static_cast<int>(offBits);

  // The colour table sits between the information header and the first row.
  const std::int64_t tableStart = std::min<std::int64_t>(
      kFileHeaderBytes + std::max<std::int64_t>(infoSize, kInfoHeaderBytes), offBits);
  const std::int64_t entries = (std::int64_t(offBits) - tableStart) / 4;
  Palette table(static_cast<std::uint64_t>(entries));
  if (entries > 0) {
    s.seekg(tableStart);
    s.read(reinterpret_cast<char*>(table.begin()), entries * 4);
    for (std::int64_t i = 0; i < entries; ++i) {  // stored little-endian on every host
      table.begin()[i] = load_le<std::uint32_t>(table.begin() + i);
    }
  }
  palette = table;
  s.seekg(offBits);
  std::fill(std::begin(position), std::end(position), 0);
  return s.good();
}

void Dib::refuse() {
  Dib failed;
  failed.stream = stream ? stream : std::make_shared<std::fstream>();
  if (failed.stream->is_open()) failed.stream->close();
  failed.stream->setstate(std::ios::failbit);
  swap(failed);
}

bool Dib::create(std::string const& path) {
  if (!isExistingFile(path)) return false;
  Dib opened(path);
  swap(opened);
  return stream && stream->good();
}

bool Dib::create(std::wstring const& path) {
  auto const native = detail::native_path(path);
  if (!native || !isExistingFile(*native)) return false;
  Dib opened(path);
  swap(opened);
  return stream && stream->good();
}

bool Dib::create(std::string const& path, int w, int h, int xdpi, int ydpi, int bits, int align,
                 int cc, Palette const& pal) {
  Dib created(path, w, h, xdpi, ydpi, bits, align, cc, pal);
  swap(created);
  return stream && stream->good();
}

bool Dib::create(std::wstring const& path, int w, int h, int xdpi, int ydpi, int bits, int align,
                 int cc, Palette const& pal) {
  Dib created(path, w, h, xdpi, ydpi, bits, align, cc, pal);
  swap(created);
  return stream && stream->good();
}

void Dib::swap(Dib& o) noexcept {
  std::swap(stream, o.stream);
  std::swap(filePath, o.filePath);
  std::swap(width, o.width);
  std::swap(height, o.height);
  std::swap(lineBytes, o.lineBytes);
  std::swap(xDpi, o.xDpi);
  std::swap(yDpi, o.yDpi);
  std::swap(planeCount, o.planeCount);
  std::swap(colorCount, o.colorCount);
  std::swap(interleave, o.interleave);
  std::swap(position, o.position);
  std::swap(dataOffset, o.dataOffset);
  std::swap(topDown, o.topDown);
  palette.swap(o.palette);
  coordinator.swap(o.coordinator);
  std::swap(mode, o.mode);
  std::swap(bitCount, o.bitCount);
}

void Dib::close() {
  Dib closed;
  swap(closed);
}

bool Dib::fail() const {
  return !stream || stream->fail();
}

void Dib::exceptions(std::ios_base::iostate mask) {
  if (stream) stream->exceptions(mask & ~std::ios_base::eofbit);
}

std::uint64_t Dib::getImageSize() const {
  return static_cast<std::uint64_t>(std::int64_t(planeCount) * lineBytes * height);
}

std::int64_t Dib::tell() const {
  if (!stream) return 0;
  if (mode == mode_t::opened) return static_cast<std::int64_t>(stream->tellg());
  if (mode == mode_t::created) return static_cast<std::int64_t>(stream->tellp());
  return 0;
}

int Dib::tell(int index) const {
  return position[mod(index, 4)];
}

void Dib::seek(int index, int row) {
  position[mod(index, 4)] = row < 0 ? 0 : std::min(row, height);
}

int Dib::rowsAt(int cursor, int rows) const {
  return std::min(rows, height - cursor);
}

std::int64_t Dib::offsetOf(int cursor, int rows) const {
  const std::int64_t row =
      topDown ? std::int64_t(planeCount) * height - cursor - rows : std::int64_t(cursor);
  return std::int64_t(dataOffset) + row * lineBytes;
}

int Dib::oneSampleLineBytes() const {
  return coordinator.getLineBytes(width);
}

int Dib::read(unsigned char* buffer, int bytes) {
  if (fail() || interleave != interleave_type::pixel) return 0;
  int const rows = rowsAt(position[0], lineBytes != 0 ? bytes / lineBytes : bytes);
  if (rows <= 0) return 0;
  stream->seekg(offsetOf(position[0], rows));
  stream->read(reinterpret_cast<char*>(buffer), std::streamsize(rows) * lineBytes);
  position[0] += rows;
  return static_cast<int>(stream->gcount());
}

int Dib::write(unsigned char const* buffer, int bytes) {
  if (fail() || interleave != interleave_type::pixel) return 0;
  int const rows = rowsAt(position[0], lineBytes != 0 ? bytes / lineBytes : bytes);
  if (rows <= 0) return 0;
  const std::int64_t offset = offsetOf(position[0], rows);
  stream->seekp(offset);
  stream->write(reinterpret_cast<char const*>(buffer), std::streamsize(rows) * lineBytes);
  stream->flush();
  position[0] += rows;
  const std::int64_t end = stream->tellp();
  return end < offset ? 0 : static_cast<int>(end - offset);
}

int Dib::read(int index, unsigned char* buffer, int bytes) {
  if (fail() || interleave != interleave_type::pixel || colorCount <= 0) return 0;
  int const slot = mod(index, 4);
  int const single = oneSampleLineBytes();
  if (single <= 0) return 0;
  int const rows = rowsAt(position[slot], bytes / single);
  if (rows <= 0) return 0;

  const std::size_t total = std::size_t(rows) * std::size_t(lineBytes);
  std::vector<unsigned char> rowsBuffer(total, 0);
  stream->seekg(offsetOf(position[slot], rows));
  stream->read(reinterpret_cast<char*>(rowsBuffer.data()), std::streamsize(total));

  // One continuous walk with a stride of colorCount; bytes past the rows read as 0.
  const std::size_t limit = std::min<std::size_t>(total, std::size_t(bytes));
  std::size_t from = std::size_t(mod(index, colorCount));
  for (std::size_t k = 0; k < limit; ++k, from += std::size_t(colorCount)) {
    buffer[k] = from < total ? rowsBuffer[from] : 0;
  }
  position[slot] += rows;
  return single * rows;
}

int Dib::write(int index, unsigned char const* buffer, int bytes) {
  if (fail() || interleave != interleave_type::pixel || colorCount <= 0) return 0;
  int const slot = mod(index, 4);
  int const single = oneSampleLineBytes();
  if (single <= 0) return 0;
  int const rows = rowsAt(position[slot], bytes / single);
  if (rows <= 0) return 0;

  const std::size_t total = std::size_t(rows) * std::size_t(lineBytes);
  const std::int64_t offset = offsetOf(position[slot], rows);
  std::vector<unsigned char> rowsBuffer(total, 0);
  stream->seekg(0, std::ios::end);
  const std::int64_t fileSize = stream->tellg();
  if (offset < fileSize) {  // read-modify-write of the rows that exist already
    auto const present = std::min<std::int64_t>(std::int64_t(total), fileSize - offset);
    stream->seekg(offset);
    stream->read(reinterpret_cast<char*>(rowsBuffer.data()), std::streamsize(present));
  }
  if (stream->fail()) return 0;

  const std::size_t limit = std::min<std::size_t>(total, std::size_t(bytes));
  std::size_t to = std::size_t(mod(index, colorCount));
  for (std::size_t k = 0; k < limit; ++k, to += std::size_t(colorCount)) {
    if (to < total) rowsBuffer[to] = buffer[k];
  }
  stream->seekp(offset);
  stream->write(reinterpret_cast<char const*>(rowsBuffer.data()), std::streamsize(total));
  stream->flush();
  position[slot] += rows;
  return stream->fail() ? 0 : single * rows;
}

}  // namespace quib
