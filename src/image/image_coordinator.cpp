#include <quib/image.hpp>

#include <utility>

namespace quib {

ImageCoordinator::ImageCoordinator(int b, int a, color_type c)
    : color_(c), bits_(b), align_(a), denominator_(1), numerator_(1) {
  setBlockFormat(b);
}

ImageCoordinator::ImageCoordinator(int b, int a, int d, int n, color_type c)
    : color_(c), bits_(b), align_(a), denominator_(d), numerator_(n) {}

void ImageCoordinator::swap(ImageCoordinator& other) noexcept {
  std::swap(*this, other);
}

void ImageCoordinator::setBits(int b) {
  bits_ = b;
  setBlockFormat(b);
}

void ImageCoordinator::setBlockFormat(int b) {
  switch (b) {
    case 1:
      denominator_ = 8;
      numerator_ = 1;
      break;
    case 2:
      denominator_ = 4;
      numerator_ = 1;
      break;
    case 3:
      denominator_ = 8;
      numerator_ = 3;
      break;
    case 4:
      denominator_ = 2;
      numerator_ = 1;
      break;
    case 12:
    case 15:
    case 16:
      denominator_ = 1;
      numerator_ = 2;
      break;
    case 24:
      denominator_ = 1;
      numerator_ = 3;
      break;
    case 32:
      denominator_ = 1;
      numerator_ = 4;
      break;
    default:
      denominator_ = 1;
      numerator_ = 1;
      break;  // 8 bits and every depth outside the table
  }
}

int ImageCoordinator::getChannel() const {
  int const c = static_cast<int>(color_);
  if (c > 25) return 1;
  if (c == 0) {
    if (bits_ == 12 || bits_ == 15 || bits_ == 16 || bits_ == 24) return 3;
    return bits_ == 32 ? 4 : 1;
  }
  if ((c >= 2 && c <= 7) || (c >= 12 && c <= 25)) return 3;
  if (c >= 8 && c <= 11) return 4;
  return 1;
}

int ImageCoordinator::getLineBytes(int w) const {
  int const d = denominator_;
  int const n = numerator_;
  int const block_bytes = (((w + d - 1) * n) / d) / n * n;
  return ((block_bytes + align_ - 1) / align_) * align_;
}

}  // namespace quib
