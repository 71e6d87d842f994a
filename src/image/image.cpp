#include <quib/image.hpp>

#include <algorithm>
#include <cstring>
#include <utility>

namespace quib {

namespace {

const ImageCoordinator kDefaultFormat(8, 1, 1, 1, color_type::undetermined);

std::shared_ptr<unsigned char> allocate(int height, int line_bytes) {
  const std::size_t n = static_cast<std::size_t>(height) * static_cast<std::size_t>(line_bytes);
  return std::shared_ptr<unsigned char>(new unsigned char[n](),
                                        std::default_delete<unsigned char[]>());
}

std::shared_ptr<unsigned char> borrow(unsigned char* data) {
  return std::shared_ptr<unsigned char>(data, none_deleter());
}

std::ptrdiff_t block_offset(int x, int numerator, int denominator) {
  return static_cast<std::ptrdiff_t>((x * numerator) / denominator / numerator * numerator);
}

}  // namespace

Image::Image() : width_(0), height_(0), line_bytes_(0), coordinator_(kDefaultFormat) {}

Image::Image(Image const& other) = default;
Image& Image::operator=(Image const& other) = default;
Image::~Image() = default;

Image::Image(Image&& other) noexcept : Image() {
  swap(other);
}

Image& Image::operator=(Image&& other) noexcept {
  Image moved(std::move(other));
  swap(moved);
  return *this;
}

Image::Image(int w, int h, int bits, int align, color_type color)
    : Image(w, h, ImageCoordinator(bits, align, color)) {}

Image::Image(int w, int h, int lb, int bits, int align, color_type color)
    : Image(w, h, lb, ImageCoordinator(bits, align, color)) {}

Image::Image(int w, int h, unsigned char* data, int bits, int align, color_type color)
    : Image(w, h, data, ImageCoordinator(bits, align, color)) {}

Image::Image(int w, int h, int lb, unsigned char* data, int bits, int align, color_type color)
    : Image(w, h, lb, data, ImageCoordinator(bits, align, color)) {}

Image::Image(int w, int h, ImageCoordinator const& format)
    : Image(w, h, format.getLineBytes(w), format) {}

Image::Image(int w, int h, int lb, ImageCoordinator const& format)
    : width_(w), height_(h), line_bytes_(lb), buffer_(allocate(h, lb)), coordinator_(format) {}

Image::Image(int w, int h, unsigned char* data, ImageCoordinator const& format)
    : Image(w, h, format.getLineBytes(w), data, format) {}

Image::Image(int w, int h, int lb, unsigned char* data, ImageCoordinator const& format)
    : width_(w), height_(h), line_bytes_(lb), buffer_(borrow(data)), coordinator_(format) {}

void Image::with(Image const& other) {
  *this = other;
}

void Image::copy(Image const& other) {
  if (!other.buffer_) {
    with(other);
    return;
  }
  Image fresh(other.width_, other.height_, other.line_bytes_, other.coordinator_);
  std::memcpy(fresh.buffer_.get(), other.buffer_.get(),
              static_cast<std::size_t>(std::min(fresh.getBufferSize(), other.getBufferSize())));
  swap(fresh);
}

void Image::swap(Image& other) noexcept {
  std::swap(width_, other.width_);
  std::swap(height_, other.height_);
  std::swap(line_bytes_, other.line_bytes_);
  buffer_.swap(other.buffer_);
  coordinator_.swap(other.coordinator_);
}

void Image::clear() {
  Image empty;
  swap(empty);
}

std::uint64_t Image::getBufferSize() const {
  return static_cast<std::uint64_t>(static_cast<std::int64_t>(height_) * line_bytes_);
}

int Image::getLinePixel() const {
  int const n = coordinator_.getNumerator();
  return (coordinator_.getDenominator() * line_bytes_ + n - 1) / n;
}

bool Image::contains(point_type const& p) const {
  return static_cast<unsigned>(p.x) < static_cast<unsigned>(width_) &&
         static_cast<unsigned>(p.y) < static_cast<unsigned>(height_);
}

bool Image::isBorrowed() const {
  return std::get_deleter<none_deleter>(buffer_) != nullptr;
}

unsigned char* Image::getAddress(point_type const& p) {
  return buffer_.get() + static_cast<std::ptrdiff_t>(p.y) * line_bytes_ +
         block_offset(p.x, coordinator_.getNumerator(), coordinator_.getDenominator());
}

unsigned char const* Image::getAddress(point_type const& p) const {
  return const_cast<Image*>(this)->getAddress(p);
}

unsigned char* Image::getAddress(point_type const& p, ImageCoordinator const& format) {
  return buffer_.get() + static_cast<std::ptrdiff_t>(p.y) * format.getLineBytes(width_) +
         block_offset(p.x, format.getNumerator(), format.getDenominator());
}

unsigned char const* Image::getAddress(point_type const& p, ImageCoordinator const& format) const {
  return const_cast<Image*>(this)->getAddress(p, format);
}

unsigned char* Image::getAddress(point_type const& p, int bits, int align) {
  return getAddress(p, ImageCoordinator(bits, align, color_type::undetermined));
}

unsigned char const* Image::getAddress(point_type const& p, int bits, int align) const {
  return const_cast<Image*>(this)->getAddress(p, bits, align);
}

void Image::setExtent(extent_type const& e, ImageCoordinator const& format) {
  if (isBorrowed()) {
    width_ = e.cx;
    height_ = e.cy;
    line_bytes_ = format.getLineBytes(e.cx);
    coordinator_ = format;
    return;
  }
  Image fresh(e.cx, e.cy, format);
  if (buffer_) {
    // One flat run: rows are not re-aligned, so a new stride shears the old content.
    std::memcpy(fresh.buffer_.get(), buffer_.get(),
                static_cast<std::size_t>(std::min(getBufferSize(), fresh.getBufferSize())));
  }
  swap(fresh);
}

void Image::setExtent(extent_type const& e) {
  setExtent(e, ImageCoordinator(coordinator_));
}

void Image::setExtent(extent_type const& e, int bits, int align) {
  setExtent(e, ImageCoordinator(bits, align, color_type::undetermined));
}

cv::Mat Image::makeMat(int w, int h, int lb, unsigned char* data, std::uint64_t /*size*/,
                       int channels, int bits_per_channel, int /*align*/) {
  int depth = 7;
  if (bits_per_channel <= 8)
    depth = CV_8U;
  else if (bits_per_channel <= 16)
    depth = CV_16U;
  else if (bits_per_channel <= 32)
    depth = CV_32F;
  else if (bits_per_channel <= 64)
    depth = CV_64F;
  return cv::Mat(h, w, CV_MAKETYPE(depth, channels), data, static_cast<std::size_t>(lb));
}

cv::Mat Image::makeMat(int channels, int bits_per_channel) const {
  return makeMat(width_, height_, line_bytes_, buffer_.get(), getBufferSize(), channels,
                 bits_per_channel, coordinator_.getAlign());
}

cv::Mat Image::makeMat(int channels) const {
  return makeMat(channels, getBits() / channels);
}

cv::Mat Image::makeMat() const {
  return makeMat(getChannel());
}

IplImage Image::makeIpl(int w, int h, int lb, unsigned char* data, std::uint64_t size, int channels,
                        int bits_per_channel, int align) {
  IplImage ipl;
  std::memset(&ipl, 0, sizeof ipl);
  ipl.nSize = static_cast<int>(sizeof(IplImage));
  ipl.nChannels = channels;
  bool const known = bits_per_channel == 1 || bits_per_channel == 8 || bits_per_channel == 16 ||
                     bits_per_channel == 32;
  ipl.depth = known ? bits_per_channel : 8;
  ipl.dataOrder = 0;
  ipl.origin = 0;
  ipl.align = align;
  ipl.width = w;
  ipl.height = h;
  ipl.imageSize = static_cast<int>(size);
  ipl.imageData = reinterpret_cast<char*>(data);
  ipl.widthStep = lb;
  ipl.imageDataOrigin = reinterpret_cast<char*>(data);
  return ipl;
}

IplImage Image::makeIpl(int channels, int bits_per_channel) const {
  return makeIpl(width_, height_, line_bytes_, buffer_.get(), getBufferSize(), channels,
                 bits_per_channel, coordinator_.getAlign());
}

IplImage Image::makeIpl(int channels) const {
  return makeIpl(channels, getBits() / channels);
}

IplImage Image::makeIpl() const {
  return makeIpl(getChannel());
}

}  // namespace quib
