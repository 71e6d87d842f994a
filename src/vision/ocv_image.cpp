#include <quib/ocv.hpp>

#include <opencv2/core/core_c.h>
#include <opencv2/imgproc.hpp>

#include <cstdint>

namespace quib::ocv {

namespace {

// How an image's pixels turn into BGR bytes.
enum class layout_t { none, packed_grey, grey8, grey16, bgr, rgb, bgra, rgba, argb };

layout_t layout_of(Image const& image) {
  int const bits = image.getBits();
  const color_type color = image.getCoordinator().getColor();
  switch (bits) {
    case 1:
    case 2:
    case 4:
      return layout_t::packed_grey;
    case 8:
      return layout_t::grey8;
    case 16:  // one grey sample; 16-bit colour models (5-5-5) are not converted
      if (color == color_type::grey || color == color_type::undetermined) return layout_t::grey16;
      return layout_t::none;
    case 24:
      if (color == color_type::bgr || color == color_type::undetermined) return layout_t::bgr;
      return color == color_type::rgb ? layout_t::rgb : layout_t::none;
    case 32:
      if (color == color_type::bgra || color == color_type::undetermined) return layout_t::bgra;
      if (color == color_type::rgba) return layout_t::rgba;
      return color == color_type::argb ? layout_t::argb : layout_t::none;
    default:
      return layout_t::none;
  }
}

// The layout, or none when the image's rows cannot hold what the layout reads.
layout_t checked_layout(Image const& image) {
  if (image.empty() || image.getWidth() <= 0 || image.getHeight() <= 0) return layout_t::none;
  const layout_t l = layout_of(image);
  if (l == layout_t::none) return l;
  const std::int64_t row_bits = static_cast<std::int64_t>(image.getWidth()) * image.getBits();
  if ((row_bits + 7) / 8 > image.getLineBytes()) return layout_t::none;
  return l;
}

// Byte offsets of blue, green and red inside a 3- or 4-byte pixel.
struct order {
  int b, g, r, size;
};

order order_of(layout_t l) {
  switch (l) {
    case layout_t::rgb:
      return {2, 1, 0, 3};
    case layout_t::bgra:
      return {0, 1, 2, 4};
    case layout_t::rgba:
      return {2, 1, 0, 4};
    case layout_t::argb:
      return {3, 2, 1, 4};
    default:
      return {0, 1, 2, 3};
  }
}

cv::Mat view(IplImage const* ipl) {
  return cv::Mat(ipl->height, ipl->width, CV_8UC3, ipl->imageData,
                 static_cast<std::size_t>(ipl->widthStep));
}

// Layouts of whole bytes per sample are handed to OpenCV as a header over the image's rows.
bool whole_bytes(layout_t l) {
  return l != layout_t::packed_grey && l != layout_t::grey16;
}

cv::Mat byte_view(Image const& image, layout_t l) {
  int const channels = l == layout_t::grey8 ? 1 : order_of(l).size;
  return cv::Mat(image.getHeight(), image.getWidth(), CV_8UC(channels),
                 const_cast<unsigned char*>(image.getBuffer()),
                 static_cast<std::size_t>(image.getLineBytes()));
}

unsigned char const* row(Image const& image, int y) {
  return image.getBuffer() + static_cast<std::ptrdiff_t>(y) * image.getLineBytes();
}

unsigned char* row(Image& image, int y) {
  return image.getBuffer() + static_cast<std::ptrdiff_t>(y) * image.getLineBytes();
}

}  // namespace

void ipl_deleter::operator()(IplImage* image) const noexcept {
  if (image) cvReleaseImage(&image);
}

IplImage* createIpl_bgr2(Image const& image) {
  const layout_t l = checked_layout(image);
  if (l == layout_t::none) return nullptr;
  int const width = image.getWidth();
  int const height = image.getHeight();
  unique_ipl ipl(cvCreateImage(cvSize(width, height), IPL_DEPTH_8U, 3));
  cv::Mat out = view(ipl.get());
  if (whole_bytes(l)) {
    const cv::Mat in = byte_view(image, l);
    if (l == layout_t::grey8) {
      cv::cvtColor(in, out, cv::COLOR_GRAY2BGR);
    } else if (l == layout_t::bgr) {
      in.copyTo(out);
    } else {
      const order p = order_of(l);
      int const pairs[] = {p.b, 0, p.g, 1, p.r, 2};
      cv::mixChannels(&in, 1, &out, 1, pairs, 3);
    }
    return ipl.release();
  }
  int const bits = image.getBits();
  for (int y = 0; y < height; ++y) {
    unsigned char const* in = row(image, y);
    unsigned char* o = out.ptr<unsigned char>(y);
    switch (l) {
      case layout_t::packed_grey: {
        int const levels = (1 << bits) - 1;
        int const per_byte = 8 / bits;
        for (int x = 0; x < width; ++x) {
          int const shift = 8 - bits * (x % per_byte + 1);  // leftmost pixel in the high bits
          int const v = (in[x / per_byte] >> shift) & levels;
          o[3 * x] = o[3 * x + 1] = o[3 * x + 2] = static_cast<unsigned char>(v * 255 / levels);
        }
        break;
      }
      default: {  // 16-bit grey
        for (int x = 0; x < width; ++x) {
          unsigned const v =
              static_cast<unsigned>(in[2 * x]) | (static_cast<unsigned>(in[2 * x + 1]) << 8);
          // nearest of the 256 levels k * 257: 65535 maps to 255 and back exactly
          o[3 * x] = o[3 * x + 1] = o[3 * x + 2] =
              static_cast<unsigned char>((v * 255 + 32767) / 65535);
        }
        break;
      }
    }
  }
  return ipl.release();
}

bool copyImage_bgr2(Image& image, IplImage const* bgr) {
  const layout_t l = checked_layout(image);
  if (l == layout_t::none || !bgr || !bgr->imageData) return false;
  if (bgr->depth != IPL_DEPTH_8U || bgr->nChannels != 3 || bgr->width != image.getWidth() ||
      bgr->height != image.getHeight() || bgr->widthStep < 3 * bgr->width) {
    return false;
  }
  int const width = image.getWidth();
  int const height = image.getHeight();
  const cv::Mat in = view(bgr);
  if (whole_bytes(l)) {
    cv::Mat out = byte_view(image, l);
    if (l == layout_t::grey8) {
      cv::cvtColor(in, out, cv::COLOR_BGR2GRAY);
    } else if (l == layout_t::bgr) {
      in.copyTo(out);
    } else {  // alpha bytes are left as they are
      const order p = order_of(l);
      int const pairs[] = {0, p.b, 1, p.g, 2, p.r};
      cv::mixChannels(&in, 1, &out, 1, pairs, 3);
    }
    return true;
  }
  cv::Mat grey;
  cv::cvtColor(in, grey, cv::COLOR_BGR2GRAY);
  int const bits = image.getBits();
  for (int y = 0; y < height; ++y) {
    unsigned char* o = row(image, y);
    switch (l) {
      case layout_t::packed_grey: {
        int const levels = (1 << bits) - 1;
        int const per_byte = 8 / bits;
        unsigned char const* g = grey.ptr<unsigned char>(y);
        for (int x = 0; x < width; ++x) {
          int const shift = 8 - bits * (x % per_byte + 1);
          int const v = (g[x] * levels + 127) / 255;
          unsigned char& b = o[x / per_byte];
          b = static_cast<unsigned char>((b & ~(levels << shift)) | (v << shift));
        }
        break;
      }
      default: {  // 16-bit grey
        unsigned char const* g = grey.ptr<unsigned char>(y);
        for (int x = 0; x < width; ++x) {
          unsigned const v = g[x] * 257u;
          o[2 * x] = static_cast<unsigned char>(v & 0xff);
          o[2 * x + 1] = static_cast<unsigned char>(v >> 8);
        }
        break;
      }
    }
  }
  return true;
}

}  // namespace quib::ocv
