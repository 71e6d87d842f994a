// Internal: where the STL reader's bytes come from, a whole file in memory or a file read
// block by block.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace quib::detail {

// A source hands its bytes out front to back in spans that end on a unit boundary: after a
// whole number of `unit`-byte records, or after a line end when `unit` is 0. The last span
// holds whatever is left (a partial record, a last line without its line end); after it, spans
// are empty. A span stays valid until the next call.

// The bytes of a whole file already in memory, handed out in one span.
class memory_source {
 public:
  explicit memory_source(std::string_view bytes) : bytes_(bytes) {}

  std::uint64_t size() const { return bytes_.size(); }
  // The first `n` bytes, or fewer when the file is shorter.
  std::string_view head(std::size_t n) { return bytes_.substr(0, n); }
  // Hands the bytes out again, from `offset` on.
  bool restart(std::size_t offset) {
    rest_ = bytes_.substr(std::min(offset, bytes_.size()));
    return true;
  }
  std::string_view next(std::size_t /*unit*/) {
    std::string_view span = rest_;
    rest_ = {};
    return span;
  }

 private:
  std::string_view bytes_;
  std::string_view rest_;
};

// A regular file read block by block through one buffer, which grows only when a single line
// is longer than it. Read rather than mapped: a mapped file that another process truncates
// during the load would end the program with SIGBUS. A file that changes while it is read gives
// whatever its reads return. Nothing here throws but allocation.
class file_source {
 public:
  // False for anything but a regular file that can be opened (a folder, a missing file).
  bool open(std::filesystem::path const& path) {
    std::error_code ec;
    if (!std::filesystem::is_regular_file(path, ec)) return false;
    in_.rdbuf()->pubsetbuf(nullptr, 0);  // blocks go straight into our buffer
    in_.open(path, std::ios::binary);
    if (!in_) return false;
    in_.seekg(0, std::ios::end);
    const std::streamoff length = in_.tellg();
    if (length < 0) return false;
    size_ = static_cast<std::uint64_t>(length);
    return restart(0);
  }

  std::uint64_t size() const { return size_; }

  std::string_view head(std::size_t n) {
    head_.resize(n);
    if (!restart(0)) return {};
    head_.resize(read_some(head_.data(), n));
    return head_;
  }

  bool restart(std::size_t offset) {
    in_.clear();
    in_.seekg(static_cast<std::streamoff>(offset), std::ios::beg);
    begin_ = end_ = 0;
    at_end_ = false;
    return static_cast<bool>(in_);
  }

  std::string_view next(std::size_t unit) {
    for (;;) {
      const std::string_view held(block_.data() + begin_, end_ - begin_);
      std::size_t cut = held.size();
      if (!at_end_) {
        if (unit > 0) {
          cut -= cut % unit;
        } else {
          const std::size_t nl = held.rfind('\n');
          cut = nl == std::string_view::npos ? 0 : nl + 1;
        }
      }
      if (cut > 0 || at_end_) {
        begin_ += cut;
        return held.substr(0, cut);
      }
      // Not one whole unit held: keep the partial one at the front and read more after it.
      if (begin_ > 0) {
        std::memmove(block_.data(), block_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
      }
      if (end_ == block_.size()) block_.resize(std::max(kBlockBytes, 2 * block_.size()));
      const std::size_t got = read_some(block_.data() + end_, block_.size() - end_);
      end_ += got;
      at_end_ = got == 0;
    }
  }

 private:
  static constexpr std::size_t kBlockBytes = std::size_t{1} << 18;

  std::size_t read_some(char* into, std::size_t n) {
    if (!in_) return 0;
    in_.read(into, static_cast<std::streamsize>(n));
    return static_cast<std::size_t>(in_.gcount());
  }

  std::ifstream in_;
  std::uint64_t size_ = 0;
  std::string head_;
  std::vector<char> block_;
  std::size_t begin_ = 0, end_ = 0;  // unread bytes in block_
  bool at_end_ = false;
};

}  // namespace quib::detail
