#include <quib/ocv.hpp>

#include <opencv2/core/core_c.h>
#include <opencv2/imgproc.hpp>

#include <cstdint>

namespace quib::ocv {

namespace {

// How an image's pixels turn into BGR bytes.
enum class layout { none, packed_grey, grey8, grey16, bgr, rgb, bgra, rgba, argb };

layout layout_of(Image const& image) {
  int const bits = image.getBits();
  const color_type color = image.getCoordinator().getColor();
  switch (bits) {
    case 1:
    case 2:
    case 4:
      return layout::packed_grey;
    case 8:
      return layout::grey8;
    case 16:  // one grey sample; 16-bit colour models (5-5-5) are not converted
      if (color == color_type::grey || color == color_type::undetermined) return layout::grey16;
      return layout::none;
    case 24:
      if (color == color_type::bgr || color == color_type::undetermined) return layout::bgr;
      return color == color_type::rgb ? layout::rgb : layout::none;
    case 32:
      if (color == color_type::bgra || color == color_type::undetermined) return layout::bgra;
      if (color == color_type::rgba) return layout::rgba;
      return color == color_type::argb ? layout::argb : layout::none;
    default:
      return layout::none;
  }
}

// The layout, or none when the image's rows cannot hold what the layout reads.
layout checked_layout(Image const& image) {
  if (image.empty() || image.getWidth() <= 0 || image.getHeight() <= 0) return layout::none;
  const layout l = layout_of(image);
  if (l == layout::none) return l;
  const std::int64_t rowBits = static_cast<std::int64_t>(image.getWidth()) * image.getBits();
  if ((rowBits + 7) / 8 > image.getLineBytes()) return layout::none;
  return l;
}

// Byte offsets of blue, green and red inside a 3- or 4-byte pixel.
struct order {
  int b, g, r, size;
};

order order_of(layout l) {
  switch (l) {
    case layout::rgb:
      return {2, 1, 0, 3};
    case layout::bgra:
      return {0, 1, 2, 4};
    case layout::rgba:
      return {2, 1, 0, 4};
    case layout::argb:
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
bool whole_bytes(layout l) {
  return l != layout::packed_grey && l != layout::grey16;
}

cv::Mat byte_view(Image const& image, layout l) {
  int const channels = l == layout::grey8 ? 1 : order_of(l).size;
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
  const layout l = checked_layout(image);
  if (l == layout::none) return nullptr;
  int const width = image.getWidth();
  int const height = image.getHeight();
  unique_ipl ipl(cvCreateImage(cvSize(width, height), IPL_DEPTH_8U, 3));
  cv::Mat out = view(ipl.get());
  if (whole_bytes(l)) {
    const cv::Mat in = byte_view(image, l);
    if (l == layout::grey8) {
      cv::cvtColor(in, out, cv::COLOR_GRAY2BGR);
    } else if (l == layout::bgr) {
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
      case layout::packed_grey: {
        int const levels = (1 << bits) - 1;
        int const perByte = 8 / bits;
        for (int x = 0; x < width; ++x) {
          int const shift = 8 - bits * (x % perByte + 1);  // leftmost pixel in the high bits
          int const v = (in[x / perByte] >> shift) & levels;
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
  const layout l = checked_layout(image);
  if (l == layout::none || !bgr || !bgr->imageData) return false;
  if (bgr->depth != IPL_DEPTH_8U || bgr->nChannels != 3 || bgr->width != image.getWidth() ||
      bgr->height != image.getHeight() || bgr->widthStep < 3 * bgr->width) {
    return false;
  }
  int const width = image.getWidth();
  int const height = image.getHeight();
  const cv::Mat in = view(bgr);
  if (whole_bytes(l)) {
    cv::Mat out = byte_view(image, l);
    if (l == layout::grey8) {
      cv::cvtColor(in, out, cv::COLOR_BGR2GRAY);
    } else if (l == layout::bgr) {
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
      case layout::packed_grey: {
        int const levels = (1 << bits) - 1;
        int const perByte = 8 / bits;
        unsigned char const* g = grey.ptr<unsigned char>(y);
        for (int x = 0; x < width; ++x) {
          int const shift = 8 - bits * (x % perByte + 1);
          int const v = (g[x] * levels + 127) / 255;
          unsigned char& b = o[x / perByte];
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
