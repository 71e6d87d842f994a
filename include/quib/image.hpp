// The image core: pixel-format descriptor, the image container and its OpenCV views.
#pragma once

#include <quib/export.hpp>
#include <quib/region.hpp>

#include <opencv2/core/types_c.h>
#include <opencv2/core.hpp>

#include <cstdint>
#include <memory>
#include <type_traits>

namespace quib {

/// The colour model of an image's pixels. Only the numbers and their channel groups are
/// fixed: 0 takes the channel count from the bit depth, 1 is one channel, 2-7 and 12-25 are
/// three channels, 8-11 are four; any other value counts as one channel.
enum class color_type : std::int32_t {
  undetermined = 0,  ///< channels follow from the bit depth
  grey = 1,          ///< one channel: grey level or palette index
  bgr = 2,
  rgb = 3,
  yuv = 4,
  ycrcb = 5,
  hsv = 6,
  hls = 7,
  bgra = 8,
  rgba = 9,
  argb = 10,
  cmyk = 11,
  lab = 12,
  luv = 13,
  xyz = 14,
  yxy = 15,
  hsi = 16,
  ycc = 17,
  yiq = 18,
  ycocg = 19,
  lms = 20,
  bayer_bg = 21,
  bayer_gb = 22,
  bayer_rg = 23,
  bayer_gr = 24,
  user = 25,
};

/// Describes how the pixels of an image map to bytes: bits per pixel, the block format
/// (`denominator` pixels occupy exactly `numerator` bytes), the row alignment in bytes and
/// the colour model. All row and address arithmetic of the library is done from these five
/// integers. A plain value; nothing is validated (a zero divisor is the caller's error).
///
///     quib::ImageCoordinator rgb(24, 4, quib::color_type::bgr);   // 1 pixel per 3 bytes
///     int stride = rgb.getLineBytes(5);                            // 16
class QUIB_API ImageCoordinator {
 public:
  /// Stores the three values and takes the block format from the bit depth.
  ImageCoordinator(int bits, int align, color_type color);
  /// Stores all five values as passed.
  ImageCoordinator(int bits, int align, int denominator, int numerator, color_type color);

  ImageCoordinator(ImageCoordinator const&) = default;
  ImageCoordinator& operator=(ImageCoordinator const&) = default;
  void swap(ImageCoordinator& other) noexcept;

  color_type getColor() const { return color_; }
  void setColor(color_type c) { color_ = c; }
  int getBits() const { return bits_; }
  /// Stores `bits` and re-derives the block format from it, replacing custom values.
  void setBits(int b);
  int getAlign() const { return align_; }
  void setAlign(int a) { align_ = a; }
  int getNumerator() const { return numerator_; }
  void setNumerator(int n) { numerator_ = n; }
  int getDenominator() const { return denominator_; }
  void setDenominator(int d) { denominator_ = d; }

  /// Channels per pixel, from the colour model (and the bit depth for `undetermined`).
  int getChannel() const;
  /// Bytes of a row of `width` pixels: whole blocks, rounded up to a multiple of `align`
  /// (32-bit signed arithmetic).
  int getLineBytes(int width) const;

  friend bool operator==(ImageCoordinator const& a, ImageCoordinator const& b) {
    return a.color_ == b.color_ && a.bits_ == b.bits_ && a.align_ == b.align_ &&
           a.denominator_ == b.denominator_ && a.numerator_ == b.numerator_;
  }
  friend bool operator!=(ImageCoordinator const& a, ImageCoordinator const& b) { return !(a == b); }

 protected:
  /// Fills `denominator` and `numerator` from the bit depth; `bits` itself is not stored.
  void setBlockFormat(int b);

 private:
  color_type color_;
  int bits_;
  int align_;
  int denominator_;
  int numerator_;
};

static_assert(std::is_trivially_copyable_v<ImageCoordinator>);
static_assert(sizeof(ImageCoordinator) == 5 * sizeof(std::int32_t));

/// The deleter of borrowed pixel memory: it frees nothing. An image whose buffer carries
/// this deleter never owns its pixels.
struct none_deleter {
  void operator()(void const*) const noexcept {}
};

/// An image whose pixel rows either belong to it or are borrowed from the caller.
/// Rows are stored top-down; row y starts at getBuffer() + y * getLineBytes().
/// Copies share the pixels; copy() duplicates them. A borrowed buffer is never freed, and the
/// caller keeps it alive while any image refers to it. Owned buffers start zero-filled.
/// Nothing is validated: a zero align or a negative size is the caller's error; allocation
/// failure throws std::bad_alloc and leaves the image unchanged.
/// One image object belongs to one thread at a time; images sharing a buffer may live on
/// different threads, but pixel writes are not synchronised.
///
///     quib::Image image(640, 480, 24, 4, quib::color_type::bgr);  // owned, zeroed, stride 1920
///     cv::Mat view = image.makeMat();                               // CV_8UC3 over the same bytes
class QUIB_API Image {
 public:
  using extent_type = region::extent<int>;
  using point_type = region::point<int>;

  /// Empty: no pixels, 0x0, 8 bits, align 1.
  Image();
  Image(Image const& other);
  Image(Image&& other) noexcept;
  Image& operator=(Image const& other);
  Image& operator=(Image&& other) noexcept;
  ~Image();

  /// Owned, zero-filled pixels; the stride follows from the row length rule.
  Image(int width, int height, int bits, int align, color_type color);
  /// Owned, zero-filled pixels of height * line_bytes bytes.
  Image(int width, int height, int line_bytes, int bits, int align, color_type color);
  /// Borrowed pixels; the stride follows from the row length rule.
  Image(int width, int height, unsigned char* data, int bits, int align, color_type color);
  /// Borrowed pixels with the given stride.
  Image(int width, int height, int line_bytes, unsigned char* data, int bits, int align,
        color_type color);
  Image(int width, int height, ImageCoordinator const& coordinator);
  Image(int width, int height, int line_bytes, ImageCoordinator const& coordinator);
  Image(int width, int height, unsigned char* data, ImageCoordinator const& coordinator);
  Image(int width, int height, int line_bytes, unsigned char* data,
        ImageCoordinator const& coordinator);

  /// Takes over the other image's description and shares its pixels (as operator=).
  void with(Image const& other);
  /// A deep copy into a new owned buffer; without a source buffer, the same as with().
  void copy(Image const& other);
  void swap(Image& other) noexcept;
  /// Back to the state of Image().
  void clear();

  /// True when there is no pixel buffer (a 0x0 image with a buffer is not empty).
  bool empty() const { return !buffer_; }
  int getWidth() const { return width_; }
  int getHeight() const { return height_; }
  int getLineBytes() const { return line_bytes_; }
  int getBits() const { return coordinator_.getBits(); }
  int getAlign() const { return coordinator_.getAlign(); }
  int getChannel() const { return coordinator_.getChannel(); }
  ImageCoordinator getCoordinator() const { return coordinator_; }
  extent_type getExtent() const { return extent_type(width_, height_); }
  region::rect<int> getRect() const { return region::rect<int>{0, 0, width_, height_}; }
  unsigned char* getBuffer() { return buffer_.get(); }
  unsigned char const* getBuffer() const { return buffer_.get(); }
  /// getHeight() * getLineBytes().
  std::uint64_t getBufferSize() const;
  /// How many pixels one stride can hold (at least the width).
  int getLinePixel() const;
  /// True when 0 <= p.x < width and 0 <= p.y < height.
  bool contains(point_type const& p) const;
  /// True when the pixels are borrowed from the caller rather than owned.
  bool isBorrowed() const;

  /// The start of the block holding pixel p (no bounds check; see contains()).
  unsigned char* getAddress(point_type const& p);
  unsigned char const* getAddress(point_type const& p) const;
  /// As if the buffer were laid out in `format`, with a stride computed from this width.
  unsigned char* getAddress(point_type const& p, ImageCoordinator const& format);
  unsigned char const* getAddress(point_type const& p, ImageCoordinator const& format) const;
  unsigned char* getAddress(point_type const& p, int bits, int align);
  unsigned char const* getAddress(point_type const& p, int bits, int align) const;

  /// Resizes and re-describes. Borrowed pixels are only re-described; owned pixels are
  /// replaced by a new zero-filled buffer that receives the old bytes as one flat run.
  void setExtent(extent_type const& e, ImageCoordinator const& format);
  void setExtent(extent_type const& e);
  void setExtent(extent_type const& e, int bits, int align);

  /// A cv::Mat header over `data` (no copy, no reference held). Depth by bits per channel:
  /// <= 8 CV_8U, <= 16 CV_16U, <= 32 CV_32F, <= 64 CV_64F, larger 7. `size` and `align` are
  /// not used.
  static cv::Mat makeMat(int width, int height, int line_bytes, unsigned char* data,
                         std::uint64_t size, int channels, int bits_per_channel, int align);
  cv::Mat makeMat(int channels, int bits_per_channel) const;
  cv::Mat makeMat(int channels) const;
  cv::Mat makeMat() const;

  /// An IplImage record over `data`: depth 1, 8, 16 or 32 when bits_per_channel is exactly that,
  /// otherwise 8; interleaved, top-left origin, no region of interest.
  static IplImage makeIpl(int width, int height, int line_bytes, unsigned char* data,
                          std::uint64_t size, int channels, int bits_per_channel, int align);
  IplImage makeIpl(int channels, int bits_per_channel) const;
  IplImage makeIpl(int channels) const;
  IplImage makeIpl() const;

 private:
  int width_;
  int height_;
  int line_bytes_;
  std::shared_ptr<unsigned char> buffer_;
  ImageCoordinator coordinator_;
};

inline void swap(Image& a, Image& b) noexcept {
  a.swap(b);
}
inline void swap(ImageCoordinator& a, ImageCoordinator& b) noexcept {
  a.swap(b);
}

}  // namespace quib
