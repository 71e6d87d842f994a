#include <quib/image.hpp>

#include <utility>

namespace quib {

ImageCoordinator::ImageCoordinator(int b, int a, color_type c)
    : color(c), bits(b), align(a), denominator(1), numerator(1) {
  setBlockFormat(b);
}

ImageCoordinator::ImageCoordinator(int b, int a, int d, int n, color_type c)
    : color(c), bits(b), align(a), denominator(d), numerator(n) {}

void ImageCoordinator::swap(ImageCoordinator& other) noexcept {
  std::swap(*this, other);
}

void ImageCoordinator::setBits(int b) {
  bits = b;
  setBlockFormat(b);
}

void ImageCoordinator::setBlockFormat(int b) {
  switch (b) {
    case 1:
      denominator = 8;
      numerator = 1;
      break;
    case 2:
      denominator = 4;
      numerator = 1;
      break;
    case 3:
      denominator = 8;
      numerator = 3;
      break;
    case 4:
      denominator = 2;
      numerator = 1;
      break;
    case 12:
    case 15:
    case 16:
      denominator = 1;
      numerator = 2;
      break;
    case 24:
      denominator = 1;
      numerator = 3;
      break;
    case 32:
      denominator = 1;
      numerator = 4;
      break;
    default:
      denominator = 1;
      numerator = 1;
      break;  // 8 bits and every depth outside the table
  }
}

int ImageCoordinator::getChannel() const {
  int const c = static_cast<int>(color);
  if (c > 25) return 1;
  if (c == 0) {
    if (bits == 12 || bits == 15 || bits == 16 || bits == 24) return 3;
    return bits == 32 ? 4 : 1;
  }
  if ((c >= 2 && c <= 7) || (c >= 12 && c <= 25)) return 3;
  if (c >= 8 && c <= 11) return 4;
  return 1;
}

int ImageCoordinator::getLineBytes(int w) const {
  int const d = denominator;
  int const n = numerator;
  int const blockBytes = (((w + d - 1) * n) / d) / n * n;
  return ((blockBytes + align - 1) / align) * align;
}

}  // namespace quib
