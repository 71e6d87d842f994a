#include <quib/convert.hpp>
#include <quib/stl.hpp>

#include "system/fields.hpp"
#include "system/memory.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace quib {

namespace {

using Point = Stl::Point;
using Polygon = Stl::Polygon;

constexpr std::size_t kHeaderBytes = 80;
constexpr std::size_t kRecordBytes = 50;
constexpr std::size_t kFirstRecord = kHeaderBytes + 4;
// Bytes of one facet in compact text (six digits, no indentation), for the reservation: a
// guess on the low side reserves untouched address space, one on the high side copies the
// whole mesh when the lists outgrow it.
constexpr std::size_t kAsciiFacetBytes = 128;
constexpr std::size_t kMaxPoints = INT_MAX;  // indices are int

// For the innermost loops: the number parser (a call per number costs more than half of the
// work it does) and the merge table's prefetches.
#if defined(__GNUC__)
#define QUIB_STL_INLINE [[gnu::always_inline]] inline
#else
#define QUIB_STL_INLINE inline
#endif

// ---- little-endian fields ----

std::uint32_t load_u32(unsigned char const* p) {
  return std::uint32_t(p[0]) | (std::uint32_t(p[1]) << 8) | (std::uint32_t(p[2]) << 16) |
         (std::uint32_t(p[3]) << 24);
}
float load_f32(unsigned char const* p) {
  const std::uint32_t bits = load_u32(p);
  float v;
  std::memcpy(&v, &bits, sizeof v);
  return v;
}
void store_u32(char* p, std::uint32_t v) {
  for (int i = 0; i < 4; ++i)
    p[i] = static_cast<char>(v >> (8 * i));
}
void store_f32(char* p, float v) {
  std::uint32_t bits;
  std::memcpy(&bits, &v, sizeof bits);
  store_u32(p, bits);
}
std::uint32_t bits_of(float v) {
  std::uint32_t bits;
  std::memcpy(&bits, &v, sizeof bits);
  return bits;
}

// ---- files ----

std::filesystem::path native_path(std::wstring const& path) {
#if defined(_WIN32)
  return std::filesystem::path(path);
#else
  return std::filesystem::path(convert::to_string(path));  // file names are UTF-8 here
#endif
}

// Where a mesh's bytes come from. A source hands its bytes out front to back in spans that end
// on a unit boundary: after a whole number of `unit`-byte records, or after a line end when
// `unit` is 0. The last span holds whatever is left (a partial record, a last line without its
// line end); after it, spans are empty. A span stays valid until the next call.

// The bytes of a whole file already in memory, handed out in one span.
class MemorySource {
 public:
  explicit MemorySource(std::string_view bytes) : bytes_(bytes) {}

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
// whatever its reads return.
class FileSource {
 public:
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

// ---- point merging ----

// A hash set of points that hands out indices in order of first appearance. Points are equal
// when their coordinates compare equal as floats, except that +0.0 and -0.0 differ: that is
// exactly bitwise equality for points without NaN. A point with a NaN coordinate equals
// nothing, not even itself, so it never enters the table. Open addressing with linear probing
// over a well-mixed hash keeps grid-like coordinates (many equal low bits) as fast as random
// ones.
class PointTable {
 public:
  explicit PointTable(std::size_t expected) {
    std::size_t capacity = 16;
    while (capacity < expected)
      capacity <<= 1;
    slots_.reserve(capacity);
    detail::advise_huge_pages(slots_.data(), capacity * sizeof(Slot));
    slots_.assign(capacity, Slot{0, 0, 0, -1});
  }

  // Index of `p` in `points`, appending it when it is new.
  // Starts fetching the slot where the search for the point with these coordinate bits
  // begins, so that a later index() finds it in the cache. Inlined by force: out of line, the
  // compiler takes a function that only prefetches for one without effect and drops the call.
  QUIB_STL_INLINE void prefetch(std::uint32_t x, std::uint32_t y, std::uint32_t z) const {
#if defined(__GNUC__)
    __builtin_prefetch(&slots_[hash(x, y, z) & (slots_.size() - 1)]);
#else
    (void)x, (void)y, (void)z;
#endif
  }

  int index(Point const& p, std::vector<Point>& points) {
    if (std::isnan(p.x()) || std::isnan(p.y()) || std::isnan(p.z())) return append(p, points);
    const std::uint32_t x = bits_of(p.x()), y = bits_of(p.y()), z = bits_of(p.z());
    const std::size_t mask = slots_.size() - 1;
    std::size_t i = hash(x, y, z) & mask;
    for (;; i = (i + 1) & mask) {
      Slot& s = slots_[i];
      if (s.index < 0) break;
      if (s.x == x && s.y == y && s.z == z) return s.index;
    }
    const int n = append(p, points);
    slots_[i] = Slot{x, y, z, n};
    if (++used_ * 2 > slots_.size()) grow();
    return n;
  }

 private:
  struct Slot {
    std::uint32_t x, y, z;
    std::int32_t index;  // -1: empty
  };

  static std::uint64_t mix(std::uint64_t h) {
    h ^= h >> 33;
    h *= 0xFF51AFD7ED558CCDull;
    h ^= h >> 33;
    h *= 0xC4CEB9FE1A85EC53ull;
    h ^= h >> 33;
    return h;
  }
  static std::size_t hash(std::uint32_t x, std::uint32_t y, std::uint32_t z) {
    return static_cast<std::size_t>(
        mix((std::uint64_t(y) << 32 | x) ^ mix(z + 0x9E3779B97F4A7C15ull)));
  }

  static int append(Point const& p, std::vector<Point>& points) {
    points.push_back(p);
    return static_cast<int>(points.size() - 1);
  }

  void grow() {
    std::vector<Slot> old(slots_.size() * 2, Slot{0, 0, 0, -1});
    old.swap(slots_);
    const std::size_t mask = slots_.size() - 1;
    for (Slot const& s : old) {
      if (s.index < 0) continue;
      std::size_t i = hash(s.x, s.y, s.z) & mask;
      while (slots_[i].index >= 0)
        i = (i + 1) & mask;
      slots_[i] = s;
    }
  }

  std::vector<Slot> slots_;
  std::size_t used_ = 0;
};

// Collects triangles into fresh containers, merging corners on request.
class MeshBuilder {
 public:
  MeshBuilder(bool merge, std::size_t expected_triangles)
      : table_(merge ? expected_triangles : 0), merge_(merge) {
    points.reserve(expected_triangles * 3);
    polygons.reserve(expected_triangles);
    detail::advise_huge_pages(points.data(), points.capacity() * sizeof(Point));
    detail::advise_huge_pages(polygons.data(), polygons.capacity() * sizeof(Polygon));
  }

  // With merging, starts fetching the table slots of the triangle whose three corners are the
  // nine little-endian floats at `corners`.
  QUIB_STL_INLINE void prefetch(unsigned char const* corners) const {
    if (!merge_) return;
    for (int k = 0; k < 3; ++k)
      table_.prefetch(load_u32(corners + 12 * k), load_u32(corners + 12 * k + 4),
                      load_u32(corners + 12 * k + 8));
  }

  // Appends one triangle; false when the mesh would need more points than an int indexes.
  bool add(Point const& a, Point const& b, Point const& c) {
    if (points.size() > kMaxPoints - 3 || polygons.size() >= kMaxPoints) return false;
    if (merge_) {
      const int ia = table_.index(a, points);
      const int ib = table_.index(b, points);
      const int ic = table_.index(c, points);
      polygons.push_back(Polygon{ia, ib, ic});
    } else {
      const int n = static_cast<int>(points.size());
      points.push_back(a);
      points.push_back(b);
      points.push_back(c);
      polygons.push_back(Polygon{n, n + 1, n + 2});
    }
    return true;
  }

  std::vector<Point> points;
  std::vector<Polygon> polygons;

 private:
  PointTable table_;
  bool merge_;
};

// ---- reading ----

enum class Encoding { unknown, binary, ascii };

// Calls `line(text)` for every line, without its '\n' and without a '\r' just before it;
// stops when `line` returns false.
template <class Line>
void for_each_line(std::string_view text, Line line) {
  while (!text.empty()) {
    const void* nl = std::memchr(text.data(), '\n', text.size());
    const std::size_t end =
        nl ? static_cast<std::size_t>(static_cast<char const*>(nl) - text.data()) : text.size();
    std::string_view l = text.substr(0, end);
    if (!l.empty() && l.back() == '\r') l.remove_suffix(1);
    if (!line(l)) return;
    text.remove_prefix(nl ? end + 1 : end);
  }
}

// Calls `field(text)` for the non-empty fields of a line; stops when it returns false.
template <class Field>
bool for_each_word(std::string_view line, std::string& scratch, Field field) {
  bool go_on = true;
  const auto is_blank = [](char c) { return c == ' ' || c == '\t'; };
  detail::for_each_field(line, is_blank, '"', '"', scratch, [&](std::string_view f) {
    if (f.empty()) return true;
    go_on = field(f);
    return go_on;
  });
  return go_on;
}

// The text test: "solid", a name, "facet" and "normal" in that order over the fields of all
// lines, the state carrying over from line to line and from span to span.
class TextDetector {
 public:
  bool decided() const { return state_ == 4; }
  void feed(std::string_view lines) {
    for_each_line(lines, [&](std::string_view line) {
      return for_each_word(line, scratch_, [&](std::string_view f) {
        switch (state_) {
          case 0:
            if (f == "solid") state_ = 1;
            break;
          case 1:
            state_ = 2;
            break;
          case 2:
            if (f == "facet") state_ = 3;
            break;
          default:
            if (f == "normal") state_ = 4;
            break;
        }
        return state_ != 4;
      });
    });
  }

 private:
  int state_ = 0;
  std::string scratch_;
};

// The size test first: a file of exactly 84 + 50 x the count at byte 80 is binary, whatever
// its header says. Otherwise the text test, over the source from its start.
template <class Source>
Encoding detect(Source& source) {
  const std::string_view head = source.head(kFirstRecord);
  if (head.size() == kFirstRecord) {
    const std::uint64_t count =
        load_u32(reinterpret_cast<unsigned char const*>(head.data()) + kHeaderBytes);
    if (source.size() == count * kRecordBytes + kFirstRecord) return Encoding::binary;
  }
  if (!source.restart(0)) return Encoding::unknown;
  TextDetector text;
  for (std::string_view lines = source.next(0); !lines.empty() && !text.decided();
       lines = source.next(0))
    text.feed(lines);
  return text.decided() ? Encoding::ascii : Encoding::unknown;
}

// Appends the decimal digits at p to `mantissa` (which may wrap when there are more than 19;
// the caller then refuses the number) and returns the end of the digits. Eight bytes at a time
// where they can be loaded, which spares a mispredicted branch per number.
QUIB_STL_INLINE char const* read_digits(char const* p, char const* const end,
                                        std::uint64_t& mantissa) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  while (end - p >= 8) {
    std::uint64_t chunk;
    std::memcpy(&chunk, p, 8);  // first character in the lowest byte
    // High bit of a byte set when it is not '0'..'9'. Digits neither borrow nor carry, so the
    // lowest flagged byte is exactly the first non-digit.
    const std::uint64_t flags =
        ((chunk + 0x4646464646464646ull) | (chunk - 0x3030303030303030ull)) & 0x8080808080808080ull;
    const int n = flags ? __builtin_ctzll(flags) / 8 : 8;
    if (n == 0) return p;
    // The n digits to the top bytes, zeros (leading digits) below, then the usual 8-digit SWAR.
    std::uint64_t d = (chunk - 0x3030303030303030ull) << (8 * (8 - n));
    d = (d * 10) + (d >> 8);
    d = (((d & 0x000000FF000000FFull) * (100 + (1000000ull << 32))) +
         (((d >> 16) & 0x000000FF000000FFull) * (1 + (10000ull << 32)))) >>
        32;
    static constexpr std::uint64_t kScale[] = {1,      10,      100,      1000,     10000,
                                               100000, 1000000, 10000000, 100000000};
    mantissa = mantissa * kScale[n] + d;
    p += n;
    if (n < 8) return p;
  }
#endif
  while (p != end && unsigned(*p - '0') < 10)
    mantissa = mantissa * 10 + unsigned(*p++ - '0');
  return p;
}

// The plain decimal forms "-ddd.ddd" and "d.ddde-dd" with at most 19 significant digits and a
// power of ten within 1e-22..1e22: then mantissa and power are exact doubles, and one IEEE
// multiplication or division rounds correctly, giving the bits that strtod gives. Returns
// nullptr for anything else (which then takes the general road), else the end of the number.
QUIB_STL_INLINE char const* parse_simple_decimal(char const* p, char const* end, double& value) {
  const bool negative = p != end && *p == '-';
  if (negative) ++p;
  if (end - p >= 2 && p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) return nullptr;  // hexadecimal
  // Up to 19 digits in all (leading zeros included) fit in 64 bits; longer ones go the general
  // road.
  std::uint64_t mantissa = 0;
  int digits = 0, exponent = 0;
  char const* const start = p;
  p = read_digits(p, end, mantissa);
  digits = static_cast<int>(p - start);
  if (p != end && *p == '.') {
    char const* const fraction = ++p;
    p = read_digits(p, end, mantissa);
    exponent = -static_cast<int>(p - fraction);
    digits -= exponent;
  }
  if (digits > 19) return nullptr;
  const bool any = digits > 0;
  if (!any) return nullptr;
  if (p != end && (*p == 'e' || *p == 'E')) {
    char const* q = p + 1;
    const bool minus = q != end && *q == '-';
    if (q != end && (*q == '-' || *q == '+')) ++q;
    if (q != end && unsigned(*q - '0') < 10) {
      int e = 0;
      for (; q != end && unsigned(*q - '0') < 10; ++q) {
        if (e > 10000) return nullptr;
        e = e * 10 + (*q - '0');
      }
      exponent += minus ? -e : e;
      p = q;
    }  // else "1e" or "1e+": the number ends before the 'e'
  }
  static constexpr double kPowers[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                       1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                       1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
  if (mantissa > (std::uint64_t(1) << 53) || exponent < -22 || exponent > 22) return nullptr;
  double v = static_cast<double>(mantissa);
  v = exponent < 0 ? v / kPowers[-exponent] : v * kPowers[exponent];
  value = negative ? -v : v;
  return p;
}

// Reads x, y or z of a vertex line the way wcstod does (0 when nothing can be read).
double parse_number(std::string_view f) {
  char const* p = f.data();
  char const* const end = p + f.size();
  double v = 0;
  if (parse_simple_decimal(p, end, v) == end) return v;
  // Other decimal forms go through from_chars; signs, hexadecimal, inf/nan, leading white
  // space and out-of-range values take the slow road below.
  char const* q = p;
  if (q != end && *q == '-') ++q;
  const bool plain = q != end && ((*q >= '0' && *q <= '9') || *q == '.') &&
                     !(*q == '0' && q + 1 != end && (q[1] == 'x' || q[1] == 'X'));
  if (plain) {
    const auto r = std::from_chars(p, end, v);
    if (r.ec == std::errc()) return v;
  }
  const std::wstring wide = convert::to_wstring(std::string(f));
  return std::wcstod(wide.c_str(), nullptr);
}

// The characters that end a field or need a closer look when fields are scanned: blanks, the
// quote and the line ends.
constexpr auto kFieldStop = [] {
  std::array<bool, 256> stop{};
  for (unsigned char c : {' ', '\t', '"', '\n', '\r'})
    stop[c] = true;
  return stop;
}();

// A line without any of 'v', 's' and '"' before its '\n' holds nothing the text reader uses.
constexpr auto kLineMatters = [] {
  std::array<bool, 256> matters{};
  for (unsigned char c : {'v', 's', '"', '\n'})
    matters[c] = true;
  return matters;
}();

// The first of 'v', 's', '"' and '\n' at or after p, or end; 16 bytes at a time where SSE2 is
// there.
char const* find_line_matter(char const* p, char const* const end) {
#if defined(__SSE2__)
  const __m128i v = _mm_set1_epi8('v'), s = _mm_set1_epi8('s');
  const __m128i quote = _mm_set1_epi8('"'), nl = _mm_set1_epi8('\n');
  for (; end - p >= 16; p += 16) {
    const __m128i chunk = _mm_loadu_si128(reinterpret_cast<__m128i const*>(p));
    const __m128i hit =
        _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(chunk, v), _mm_cmpeq_epi8(chunk, s)),
                     _mm_or_si128(_mm_cmpeq_epi8(chunk, quote), _mm_cmpeq_epi8(chunk, nl)));
    const int mask = _mm_movemask_epi8(hit);
    if (mask != 0) return p + __builtin_ctz(static_cast<unsigned>(mask));
  }
#endif
  while (p != end && !kLineMatters[static_cast<unsigned char>(*p)])
    ++p;
  return p;
}

// What one text line gives the reader: a name, or up to three vertex coordinates.
struct AsciiLine {
  enum Kind { none, name_line, vertex_line } kind = none;
  int have = 0;
  double xyz[3] = {0, 0, 0};
  bool has_name = false;
  std::string_view name;  // valid until the next line is read
};

// Takes one field of a line: outside a name or vertex line the fields "vertex" and "solid"
// start one; the field after "solid" is the name; the three fields after "vertex" are x, y, z.
// Returns false when the rest of the line no longer matters.
bool take_field(AsciiLine& line, std::string_view f) {
  switch (line.kind) {
    case AsciiLine::none:
      if (f == "vertex") {
        line.kind = AsciiLine::vertex_line;
      } else if (f == "solid") {
        line.kind = AsciiLine::name_line;
      }
      return true;
    case AsciiLine::name_line:
      line.name = f;
      line.has_name = true;
      return false;
    default:
      line.xyz[line.have++] = parse_number(f);
      return line.have < 3;
  }
}

char const* past_line(char const* p, char const* end) {
  if (p != end && *p == '\n') return p + 1;  // the usual case, without a call
  const void* nl = std::memchr(p, '\n', static_cast<std::size_t>(end - p));
  return nl ? static_cast<char const*>(nl) + 1 : end;
}

// Reads the line at p as wide text through the field splitter, the way every line is defined
// to be read; returns the start of the next line. `name` holds a name the line gives.
char const* read_line_general(char const* p, char const* end, std::string& name, AsciiLine& line) {
  char const* const next = past_line(p, end);
  std::string_view text(p, static_cast<std::size_t>(next - p));
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
  // Decoded first, then split: removing quotes must not join the bytes of two broken UTF-8
  // sequences into one valid character.
  const std::wstring wide = convert::to_wstring(std::string(text));
  std::wstring scratch;
  const auto is_blank = [](wchar_t c) { return c == L' ' || c == L'\t'; };
  detail::for_each_field(
      std::wstring_view(wide), is_blank, L'"', L'"', scratch, [&](std::wstring_view f) {
        if (f.empty()) return true;
        switch (line.kind) {
          case AsciiLine::none:
            if (f == L"vertex") {
              line.kind = AsciiLine::vertex_line;
            } else if (f == L"solid") {
              line.kind = AsciiLine::name_line;
            }
            return true;
          case AsciiLine::name_line:
            name = convert::to_string(std::wstring(f));
            line.name = name;
            line.has_name = true;
            return false;
          default:
            line.xyz[line.have++] = std::wcstod(std::wstring(f).c_str(), nullptr);
            return line.have < 3;
        }
      });
  return next;
}

// The same reading for lines without quotes, in one pass over the bytes. Returns the start of
// the next line, or nullptr when the line holds a quote that matters (the caller then reads
// it with read_line_general).
char const* read_line_fast(char const* p, char const* const end, AsciiLine& line) {
  // A line matters only when one of its fields can be "vertex" or "solid", or when it holds a
  // quote. Without a 'v', an 's' or a '"' it cannot, and is passed over in one quick scan.
  char const* const q = find_line_matter(p, end);
  if (q == end) return end;
  if (*q == '\n') return q + 1;
  // The usual vertex line: "vertex" is the first field that can matter. Nothing before q on
  // this line can start a name or vertex line or hold a quote, so the fields there are passed
  // over and the numbers read at once.
  const auto is_blank = [](char c) { return c == ' ' || c == '\t'; };
  if (*q == 'v' && end - q > 6 && (q == p || is_blank(q[-1])) && std::memcmp(q, "vertex", 6) == 0 &&
      is_blank(q[6])) {
    line.kind = AsciiLine::vertex_line;
    p = q + 6;
  }
  // A '\r' ends the line only right before '\n' or at the end of the text.
  const auto cr_ends_line = [end](char const* q) { return q + 1 == end || q[1] == '\n'; };
  const auto field_end = [&](char const* q) -> char const* {
    for (; q != end; ++q) {
      if (!kFieldStop[static_cast<unsigned char>(*q)]) continue;
      const char c = *q;
      if (c == '"') return nullptr;
      if (c != '\r' || cr_ends_line(q)) return q;
    }
    return q;
  };
  for (;;) {
    while (p != end && (*p == ' ' || *p == '\t'))
      ++p;
    if (p == end) return end;
    if (*p == '\n') return p + 1;
    if (*p == '\r' && cr_ends_line(p)) return p + 1 == end ? end : p + 2;
    if (line.kind == AsciiLine::vertex_line) {
      double v;
      char const* e = parse_simple_decimal(p, end, v);
      if (e != nullptr &&
          (e == end || *e == ' ' || *e == '\t' || *e == '\n' || (*e == '\r' && cr_ends_line(e)))) {
        line.xyz[line.have++] = v;
        if (line.have == 3) return past_line(e, end);
        p = e;
        continue;
      }
    }
    char const* const e = field_end(p);
    if (e == nullptr) return nullptr;
    const std::string_view f(p, static_cast<std::size_t>(e - p));
    if (line.kind == AsciiLine::none && f != "vertex" && f != "solid") {
      p = e;  // the common case: a field that starts nothing
      continue;
    }
    if (!take_field(line, f)) return past_line(e, end);
    p = e;
  }
}

// Forms triangles from the vertex lines of a text, three at a time, carrying the pending
// corners and the name from span to span.
class TextReader {
 public:
  TextReader(bool merge, std::size_t expected_triangles) : mesh(merge, expected_triangles) {}

  // Reads the whole lines of `lines`; false when the mesh outgrows int indices.
  bool feed(std::string_view lines) {
    char const* p = lines.data();
    char const* const end = p + lines.size();
    while (p != end) {
      AsciiLine line;
      char const* next = read_line_fast(p, end, line);
      if (next == nullptr) {
        line = AsciiLine();
        next = read_line_general(p, end, general_name_, line);
      }
      p = next;
      if (line.has_name) name = convert::to_string(convert::to_wstring(std::string(line.name)));
      if (line.kind != AsciiLine::vertex_line || line.have < 3) continue;
      corners_[pending_++] = Point(static_cast<float>(line.xyz[0]), static_cast<float>(line.xyz[1]),
                                   static_cast<float>(line.xyz[2]));
      if (pending_ < 3) continue;
      pending_ = 0;
      if (!mesh.add(corners_[0], corners_[1], corners_[2])) return false;
    }
    return true;
  }

  MeshBuilder mesh;
  std::string name;  // empty unless a name line occurs

 private:
  Point corners_[3];
  int pending_ = 0;
  std::string general_name_;
};

// Reads name, points and polygons from `source`; returns the number of polygons, or -1 (the
// outputs are then unspecified).
template <class Source>
int read_mesh(Source& source, bool merge, std::string& name, std::vector<Point>& points,
              std::vector<Polygon>& polygons) {
  const Encoding encoding = detect(source);
  if (encoding == Encoding::unknown) return -1;

  if (encoding == Encoding::binary) {
    const std::string_view header = source.head(kHeaderBytes);
    std::size_t n = 0;
    while (n < header.size() && static_cast<signed char>(header[n]) > 32)
      ++n;
    name.assign(header.data(), n);
    // The size test has tied the count to the file's length; records are read to the end.
    MeshBuilder mesh(merge, (source.size() - kFirstRecord) / kRecordBytes);
    if (!source.restart(kFirstRecord)) return -1;
    // Merging looks up records a few ahead, so that their table slots arrive from memory
    // while the records before them are handled.
    constexpr std::size_t kAhead = 8;
    for (std::string_view span = source.next(kRecordBytes); !span.empty();
         span = source.next(kRecordBytes)) {
      auto const* p = reinterpret_cast<unsigned char const*>(span.data());
      const std::size_t count = span.size() / kRecordBytes;  // a partial last record is dropped
      for (std::size_t k = 0; k < count; ++k) {
        unsigned char const* r = p + k * kRecordBytes + 12;  // past the normal
        if (k + kAhead < count) mesh.prefetch(r + kAhead * kRecordBytes);
        const Point a(load_f32(r), load_f32(r + 4), load_f32(r + 8));
        const Point b(load_f32(r + 12), load_f32(r + 16), load_f32(r + 20));
        const Point c(load_f32(r + 24), load_f32(r + 28), load_f32(r + 32));
        if (!mesh.add(a, b, c)) return -1;
      }
    }
    points.swap(mesh.points);
    polygons.swap(mesh.polygons);
    return static_cast<int>(polygons.size());
  }

  TextReader text(merge, static_cast<std::size_t>(source.size() / kAsciiFacetBytes));
  if (!source.restart(0)) return -1;
  for (std::string_view lines = source.next(0); !lines.empty(); lines = source.next(0))
    if (!text.feed(lines)) return -1;
  name.swap(text.name);
  points.swap(text.mesh.points);
  polygons.swap(text.mesh.polygons);
  return static_cast<int>(polygons.size());
}

// Reads the mesh `source` holds into `mesh` (see Stl::load).
template <class Source>
int load_from(Source& source, bool merge, Stl& mesh) {
  std::string name;
  std::vector<Point> points;
  std::vector<Polygon> polygons;
  const int result = read_mesh(source, merge, name, points, polygons);
  if (result < 0) {
    mesh.clear();
    return -1;
  }
  mesh.set_name(name);
  mesh.swap(points, polygons);
  return result;
}

}  // namespace

// ---- Stl ----

Stl::Stl() = default;
Stl::Stl(std::wstring const& path, bool merge) {
  load(path, merge);
}
Stl::Stl(Stl const&) = default;
Stl& Stl::operator=(Stl const&) = default;
Stl::Stl(Stl&&) noexcept = default;
Stl& Stl::operator=(Stl&&) noexcept = default;
Stl::~Stl() = default;

int Stl::load(std::wstring const& path, bool merge) {
  FileSource file;
  if (!file.open(native_path(path))) {
    clear();
    return -1;
  }
  return load_from(file, merge, *this);
}

int Stl::load_buffer(void const* data, std::size_t size, bool merge) {
  MemorySource bytes(std::string_view(static_cast<char const*>(data), data ? size : 0));
  return load_from(bytes, merge, *this);
}

int Stl::save(std::wstring const& path, int precision) const {
  std::ofstream out(native_path(path), std::ios::binary | std::ios::trunc);
  std::string buffer;
  constexpr std::size_t kFlush = 1 << 20;
  const auto flush = [&] {
    out.write(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    buffer.clear();
  };
  // n = (b - a) x (c - b), scaled by 1 / |n| in single precision; a degenerate triangle gives
  // non-finite components, written as they are.
  const auto normal = [&](Polygon const& p) {
    const Point& a = points_[static_cast<std::size_t>(p[0])];
    const Point& b = points_[static_cast<std::size_t>(p[1])];
    const Point& c = points_[static_cast<std::size_t>(p[2])];
    const Point e1 = b - a, e2 = c - b;
    const Point n(e1.y() * e2.z() - e1.z() * e2.y(), e1.z() * e2.x() - e1.x() * e2.z(),
                  e1.x() * e2.y() - e1.y() * e2.x());
    const float scale = 1.0f / std::sqrt(n.x() * n.x() + n.y() * n.y() + n.z() * n.z());
    return Point(n.x() * scale, n.y() * scale, n.z() * scale);
  };

  if (precision <= 0) {
    char header[kFirstRecord] = {};
    std::memcpy(header, name_.data(), std::min(name_.size(), kHeaderBytes));
    store_u32(header + kHeaderBytes, static_cast<std::uint32_t>(polygons_.size()));
    buffer.append(header, sizeof header);
    char record[kRecordBytes] = {};
    for (Polygon const& p : polygons_) {
      const Point n = normal(p);
      char* r = record;
      for (int i = 0; i < 3; ++i, r += 4)
        store_f32(r, n[i]);
      for (int k = 0; k < 3; ++k) {
        const Point& v = points_[static_cast<std::size_t>(p[static_cast<std::size_t>(k)])];
        for (int i = 0; i < 3; ++i, r += 4)
          store_f32(r, v[i]);
      }
      buffer.append(record, sizeof record);
      if (buffer.size() >= kFlush) flush();
    }
    flush();
    return size_polygon();
  }

  // Fixed notation in the classic locale. A float has at most 149 significant digits after
  // the point, so digits past 160 are zeros and are appended rather than formatted.
  const int digits = std::min(precision, 160);
  char number[256];
  const auto put = [&](float value) {
    const auto r = std::to_chars(number, number + sizeof number, static_cast<double>(value),
                                 std::chars_format::fixed, digits);
    buffer.append(number, r.ptr);
    if (precision > digits && std::isfinite(value)) {
      buffer.append(static_cast<std::size_t>(precision - digits), '0');
    }
  };
  const auto put3 = [&](char const* prefix, Point const& v) {
    buffer += prefix;
    put(v.x());
    buffer += ' ';
    put(v.y());
    buffer += ' ';
    put(v.z());
    buffer += '\n';
  };
  buffer += "solid ";
  buffer += name_;
  buffer += '\n';
  for (Polygon const& p : polygons_) {
    put3("facet normal ", normal(p));
    buffer += "outer loop\n";
    for (int k = 0; k < 3; ++k) {
      put3("vertex ", points_[static_cast<std::size_t>(p[static_cast<std::size_t>(k)])]);
    }
    buffer += "endloop\nendfacet\n";
    if (buffer.size() >= kFlush) flush();
  }
  buffer += "endsolid ";
  buffer += name_;
  buffer += '\n';
  flush();
  return size_polygon();
}

void Stl::assign(std::vector<Point> const& points, std::vector<Polygon> const& polygons) {
  std::vector<Point> new_points(points);
  std::vector<Polygon> new_polygons(polygons);
  swap(new_points, new_polygons);
}

void Stl::assign(std::vector<Eigen::Matrix<double, 3, 1>> const& points,
                 std::vector<Polygon> const& polygons) {
  std::vector<Point> new_points;
  new_points.reserve(points.size());
  for (auto const& p : points)
    new_points.push_back(p.cast<float>());
  std::vector<Polygon> new_polygons(polygons);
  swap(new_points, new_polygons);
}

void Stl::swap(Stl& other) noexcept {
  points_.swap(other.points_);
  polygons_.swap(other.polygons_);
}

void Stl::swap(std::vector<Point>& points, std::vector<Polygon>& polygons) noexcept {
  points_.swap(points);
  polygons_.swap(polygons);
}

void Stl::clear() {
  points_.clear();
  polygons_.clear();
}

int Stl::compress() {
  if (points_.empty()) return 0;
  std::vector<Point> points;
  std::vector<Polygon> polygons;
  polygons.reserve(polygons_.size());
  PointTable table(polygons_.size());
  for (Polygon const& p : polygons_) {
    Polygon corners;
    const std::size_t n = std::min<std::size_t>(p.size(), 3);
    corners.reserve(n);
    for (std::size_t k = 0; k < n; ++k) {
      corners.push_back(table.index(points_[static_cast<std::size_t>(p[k])], points));
    }
    polygons.push_back(std::move(corners));
  }
  swap(points, polygons);
  return size();
}

int Stl::decompress() {
  if (points_.empty()) return 0;
  std::vector<Point> points;
  points.reserve(polygons_.size() * 3);
  std::vector<Polygon> polygons;
  polygons.reserve(polygons_.size());
  for (Polygon const& p : polygons_) {
    const int n = static_cast<int>(points.size());
    for (std::size_t k = 0; k < 3; ++k)
      points.push_back(points_[static_cast<std::size_t>(p[k])]);
    polygons.push_back(Polygon{n, n + 1, n + 2});
  }
  swap(points, polygons);
  return size();
}

}  // namespace quib
