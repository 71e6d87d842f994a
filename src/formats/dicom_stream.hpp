// Internal: reading DICOM bytes from a stream, shared by the classic and the standard walk.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <istream>
#include <streambuf>
#include <vector>

namespace quib::detail {

// The buffered bytes of any stream buffer. The get area's pointers are protected members of
// std::streambuf; naming them through a derived class gives member pointers that apply to
// every stream buffer.
struct get_area : std::streambuf {
  static std::size_t left(std::streambuf* buf) {
    return std::size_t((buf->*&get_area::egptr)() - (buf->*&get_area::gptr)());
  }
  // Copies n <= left(buf) bytes (n within int) out and moves past them.
  static void take(std::streambuf* buf, void* target, std::size_t n) {
    if (n == 0) return;
    std::memcpy(target, (buf->*&get_area::gptr)(), n);
    (buf->*&get_area::gbump)(int(n));
  }
};

// Reads up to n bytes straight from the stream buffer; a short read sets eofbit and failbit,
// as std::istream::read would.
inline std::size_t pull(std::istream& in, void* target, std::size_t n) {
  if (!in.good()) {
    in.setstate(std::ios_base::failbit);
    return 0;
  }
  std::streambuf* buf = in.rdbuf();
  std::streamsize got;
  if (n <= 4096 && get_area::left(buf) >= n) {
    // Headers and short values usually sit in the stream's buffer already: copy them out
    // directly instead of through the virtual bulk read, which costs more than the copy.
    get_area::take(buf, target, n);
    got = std::streamsize(n);
  } else {
    got = buf->sgetn(static_cast<char*>(target), std::streamsize(n));
    if (got < 0) got = 0;
  }
  if (std::size_t(got) < n) in.setstate(std::ios_base::eofbit | std::ios_base::failbit);
  return std::size_t(got);
}

// Moves the stream back by `consumed` bytes and keeps its state (a stream that ran out still
// reports end of file).
inline void rewind(std::istream& in, std::size_t consumed) {
  std::ios_base::iostate state = in.rdstate();
  in.clear();
  if (consumed != 0 &&
      in.rdbuf()->pubseekoff(-std::streamoff(consumed), std::ios_base::cur, std::ios_base::in) ==
          std::streampos(std::streamoff(-1))) {
    state |= std::ios_base::failbit;
  }
  in.setstate(state);
}

// The stream buffer's position, or -1 when it cannot tell.
inline std::streamoff position(std::istream& in) {
  return std::streamoff(in.rdbuf()->pubseekoff(0, std::ios_base::cur, std::ios_base::in));
}

// Bytes left in the stream, or -1 when the stream cannot tell (not seekable).
inline std::streamoff bytes_left(std::istream& in) {
  std::streambuf* buf = in.rdbuf();
  std::streampos here = buf->pubseekoff(0, std::ios_base::cur, std::ios_base::in);
  if (here == std::streampos(std::streamoff(-1))) return -1;
  std::streampos end = buf->pubseekoff(0, std::ios_base::end, std::ios_base::in);
  buf->pubseekpos(here, std::ios_base::in);
  if (end == std::streampos(std::streamoff(-1)) || end < here) return -1;
  return std::streamoff(end - here);
}

// A read-only stream buffer over bytes the caller keeps alive, seekable like a file.
class memory_buf : public std::streambuf {
 public:
  memory_buf(unsigned char const* data, std::size_t size) {
    char* p = const_cast<char*>(reinterpret_cast<char const*>(data));
    setg(p, p, p + size);
  }

 protected:
  pos_type seekoff(off_type off, std::ios_base::seekdir dir, std::ios_base::openmode) override {
    off_type base = dir == std::ios_base::beg   ? 0
                    : dir == std::ios_base::cur ? off_type(gptr() - eback())
                                                : off_type(egptr() - eback());
    return seekpos(pos_type(base + off), std::ios_base::in);
  }
  pos_type seekpos(pos_type pos, std::ios_base::openmode) override {
    const off_type at = off_type(pos);
    if (at < 0 || at > off_type(egptr() - eback())) return pos_type(off_type(-1));
    setg(eback(), eback() + at, egptr());
    return pos;
  }
};

}  // namespace quib::detail
