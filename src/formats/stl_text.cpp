#include "formats/stl_text.hpp"

#include "system/fields.hpp"
#include "system/utf8.hpp"

#include <fast_float/fast_float.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace quib::detail {

namespace {

// Calls `line(text)` for every line, without its '\n' and without a '\r' just before it;
// stops when `line` returns false.
template <class Line>
void for_each_line(std::string_view text, Line line) {
  while (!text.empty()) {
    void const* nl = std::memchr(text.data(), '\n', text.size());
    const std::size_t end =
        nl ? static_cast<std::size_t>(static_cast<char const*>(nl) - text.data()) : text.size();
    std::string_view l = text.substr(0, end);
    if (!l.empty() && l.back() == '\r') l.remove_suffix(1);
    if (!line(l)) return;
    text.remove_prefix(nl ? end + 1 : end);
  }
}

// Appends `text` with every byte that starts no well-formed UTF-8 sequence replaced by U+FFFD:
// the text that decoding it to wide text and encoding it again would give.
void append_valid_utf8(std::string& out, std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t start = i;
    bool well_formed = true;
    char32_t const c = decode_utf8(text, i, well_formed);
    if (well_formed) {
      out.append(text.data() + start, i - start);
    } else {
      append_utf8(out, c);
    }
  }
}

constexpr bool is_blank(char c) {
  return c == ' ' || c == '\t';
}

// Calls `field(text)` for the non-empty fields of a line; stops when it returns false.
template <class Field>
bool for_each_word(std::string_view line, std::string& scratch, Field field) {
  bool go_on = true;
  for_each_field(line, is_blank, '"', '"', scratch, [&](std::string_view f) {
    if (f.empty()) return true;
    go_on = field(f);
    return go_on;
  });
  return go_on;
}

// True when the text at p (before end) starts a decimal number the fast parser reads exactly
// as strtod: an optional minus, then a digit or a point, and no hexadecimal prefix. A plus
// sign, hexadecimal, "inf" and "nan" take strtod itself.
QUIB_STL_INLINE bool plain_decimal_at(char const* p, char const* end) {
  if (p != end && *p == '-') ++p;
  if (p == end) return false;
  if (*p == '0') return end - p < 2 || (p[1] != 'x' && p[1] != 'X');
  return unsigned(*p - '0') < 10 || *p == '.';
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
    int const n = flags ? __builtin_ctzll(flags) / 8 : 8;
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

// The short decimal forms that writers of STL produce ("-ddd.ddd", "d.dddddde-dd"): at most
// 19 significant digits and a power of ten within 1e-22..1e22, so that mantissa and power are
// exact doubles and one IEEE multiplication or division rounds correctly. Returns nullptr for
// anything else (hexadecimal, a plus sign, long or large numbers), else the end of the number.
QUIB_STL_INLINE char const* read_short_decimal(char const* p, char const* end, double& value) {
  bool const negative = p != end && *p == '-';
  if (negative) ++p;
  if (end - p >= 2 && p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) return nullptr;
  std::uint64_t mantissa = 0;
  char const* const start = p;
  p = read_digits(p, end, mantissa);
  int digits = static_cast<int>(p - start);
  int exponent = 0;
  if (p != end && *p == '.') {
    char const* const fraction = ++p;
    p = read_digits(p, end, mantissa);
    exponent = -static_cast<int>(p - fraction);
    digits -= exponent;
  }
  if (digits == 0 || digits > 19) return nullptr;
  if (p != end && (*p == 'e' || *p == 'E')) {
    char const* q = p + 1;
    bool const minus = q != end && *q == '-';
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
  if (mantissa > (std::uint64_t{1} << 53) || exponent < -22 || exponent > 22) return nullptr;
  double const v = static_cast<double>(mantissa);
  value = exponent < 0 ? v / kPowers[-exponent] : v * kPowers[exponent];
  if (negative) value = -value;
  return p;
}

// The decimal number at p, for a field that plain_decimal_at admits: the short forms
// directly, others through fast_float; both round correctly. Anything else is refused
// (ec is set) for the caller to read its own way.
QUIB_STL_INLINE fast_float::from_chars_result read_decimal(char const* p, char const* end,
                                                           double& value) {
  if (char const* e = read_short_decimal(p, end, value)) return {e, std::errc()};
  if (!plain_decimal_at(p, end)) return {p, std::errc::invalid_argument};
  return fast_float::from_chars(p, end, value);
}

// The characters that end a field or need a closer look when fields are scanned: blanks, the
// quote and the line ends.
constexpr auto kFieldStop = [] {
  std::array<bool, 256> stop{};
  for (unsigned char c : {' ', '\t', '"', '\n', '\r'})
    stop[c] = true;
  return stop;
}();

// A line without any of 'v', 's' and '"' before its '\n' holds nothing the text reader reads
// ("facet" fields, which start with 'f', are only counted).
constexpr auto kLineMatters = [] {
  std::array<bool, 256> matters{};
  for (unsigned char c : {'v', 's', '"', '\n'})
    matters[c] = true;
  return matters;
}();

// The first of 'v', 's', '"' and '\n' at or after p, or end; 16 bytes at a time where SSE2 is
// there. Calls `on_f(c)` for every 'f' before it, without leaving the scan.
template <class OnF>
QUIB_STL_INLINE char const* find_line_matter(char const* p, char const* const end, OnF on_f) {
#if defined(__SSE2__)
  const __m128i v = _mm_set1_epi8('v'), s = _mm_set1_epi8('s');
  const __m128i quote = _mm_set1_epi8('"'), nl = _mm_set1_epi8('\n'), f = _mm_set1_epi8('f');
  for (; end - p >= 16; p += 16) {
    const __m128i chunk = _mm_loadu_si128(reinterpret_cast<__m128i const*>(p));
    const __m128i hit =
        _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(chunk, v), _mm_cmpeq_epi8(chunk, s)),
                     _mm_or_si128(_mm_cmpeq_epi8(chunk, quote), _mm_cmpeq_epi8(chunk, nl)));
    auto const stops = static_cast<unsigned>(_mm_movemask_epi8(hit));
    auto fs = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(chunk, f)));
    if (stops != 0) fs &= (stops & -stops) - 1;  // the f's before the first stop
    for (; fs != 0; fs &= fs - 1)
      on_f(p + __builtin_ctz(fs));
    if (stops != 0) return p + __builtin_ctz(stops);
  }
#endif
  for (; p != end && !kLineMatters[static_cast<unsigned char>(*p)]; ++p)
    if (*p == 'f') on_f(p);
  return p;
}

// What one text line gives the reader: a name, or up to three vertex coordinates.
struct text_line {
  enum kind_t { none, name_line, vertex_line } kind = none;
  int have = 0;
  double xyz[3] = {0, 0, 0};
  bool has_name = false;
  bool facet = false;     // a field "facet": a new facet starts
  std::string_view name;  // valid until the next line is read
};

// Takes one field of a line: outside a name or vertex line the fields "vertex" and "solid"
// start one; the field after "solid" is the name; the three fields after "vertex" are x, y, z.
// Returns false when the rest of the line no longer matters.
bool take_field(text_line& line, std::string_view f) {
  switch (line.kind) {
    case text_line::none:
      if (f == "vertex") {
        line.kind = text_line::vertex_line;
      } else if (f == "solid") {
        line.kind = text_line::name_line;
      } else if (f == "facet") {
        line.facet = true;
      }
      return true;
    case text_line::name_line:
      line.name = f;
      line.has_name = true;
      return false;
    default:
      line.xyz[line.have++] = parse_stl_number(f);
      return line.have < 3;
  }
}

char const* past_line(char const* p, char const* end) {
  if (p != end && *p == '\n') return p + 1;  // the usual case, without a call
  void const* nl = std::memchr(p, '\n', static_cast<std::size_t>(end - p));
  return nl ? static_cast<char const*>(nl) + 1 : end;
}

// Reads the line at p field by field through the splitter, quotes and all; returns the start
// of the next line. A line with bytes of 128 and more is made well-formed UTF-8 first, so
// that removing quotes cannot join the pieces of two broken sequences into one character.
char const* read_line_general(char const* p, char const* end, std::string& text,
                              std::string& scratch, text_line& line) {
  char const* const next = past_line(p, end);
  std::string_view raw(p, static_cast<std::size_t>(next - p));
  if (!raw.empty() && raw.back() == '\n') raw.remove_suffix(1);
  if (!raw.empty() && raw.back() == '\r') raw.remove_suffix(1);
  text.clear();
  append_valid_utf8(text, raw);
  for_each_word(text, scratch, [&](std::string_view f) { return take_field(line, f); });
  return next;
}

// The same reading for lines without quotes, in one pass over the bytes. Returns the start of
// the next line, or nullptr when the line holds a quote that matters (the caller then reads
// it with read_line_general).
char const* read_line_fast(char const* p, char const* const end, text_line& line) {
  // A line matters only when one of its fields can be "vertex", "solid" or "facet", or when it
  // holds a quote. Without a 'v', an 's', an 'f' or a '"' it cannot, and is passed over in one
  // quick scan. A "facet" is noted and the scan goes on past it.
  auto const cr_ends_line = [end](char const* c) { return c + 1 == end || c[1] == '\n'; };
  auto const field_ends_at = [&](char const* c) {
    return c == end || is_blank(*c) || *c == '\n' || (*c == '\r' && cr_ends_line(c));
  };
  char const* const q = find_line_matter(p, end, [&](char const* c) {
    if ((c == p || is_blank(c[-1])) && end - c >= 5 && std::memcmp(c, "facet", 5) == 0 &&
        field_ends_at(c + 5))
      line.facet = true;
  });
  if (q == end) return end;
  if (*q == '\n') return q + 1;
  // The usual vertex line: "vertex" is the first field that can matter. Nothing before q on
  // this line can start a name or vertex line or hold a quote, so the fields there are passed
  // over and the numbers read at once.
  if (*q == 'v' && end - q > 6 && (q == p || is_blank(q[-1])) && std::memcmp(q, "vertex", 6) == 0 &&
      is_blank(q[6])) {
    line.kind = text_line::vertex_line;
    p = q + 6;
  }
  // A '\r' ends the line only right before '\n' or at the end of the text (cr_ends_line).
  auto const field_end = [&](char const* c) -> char const* {
    for (; c != end; ++c) {
      if (!kFieldStop[static_cast<unsigned char>(*c)]) continue;
      if (*c == '"') return nullptr;
      if (*c != '\r' || cr_ends_line(c)) return c;
    }
    return c;
  };
  for (;;) {
    while (p != end && is_blank(*p))
      ++p;
    if (p == end) return end;
    if (*p == '\n') return p + 1;
    if (*p == '\r' && cr_ends_line(p)) return p + 1 == end ? end : p + 2;
    if (line.kind == text_line::vertex_line) {
      double v;
      auto const r = read_decimal(p, end, v);
      char const* const e = r.ptr;
      if (r.ec == std::errc() && field_ends_at(e)) {
        line.xyz[line.have++] = v;
        if (line.have == 3) return past_line(e, end);
        p = e;
        continue;
      }
    }
    char const* const e = field_end(p);
    if (e == nullptr) return nullptr;
    const std::string_view f(p, static_cast<std::size_t>(e - p));
    if (line.kind == text_line::none && f != "vertex" && f != "solid") {
      if (f == "facet") line.facet = true;
      p = e;  // the common case: a field that starts nothing
      continue;
    }
    if (!take_field(line, f)) return past_line(e, end);
    p = e;
  }
}

}  // namespace

double parse_stl_number(std::string_view field) {
  char const* const p = field.data();
  char const* const end = p + field.size();
  double v = 0;
  if (plain_decimal_at(p, end)) {
    auto const r = read_decimal(p, end, v);
    return r.ec == std::errc() ? v : 0.0;
  }
  if (field.empty()) return 0.0;
  const std::string copy(field);  // strtod wants a terminated string
  return std::strtod(copy.c_str(), nullptr);
}

void stl_text_detector::feed(std::string_view lines) {
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

std::int64_t stl_text_reader::odd_facets() const {
  return odd_facets_ + (in_facet_ && facet_vertices_ != 3 ? 1 : 0);
}

bool stl_text_reader::feed(std::string_view lines) {
  char const* p = lines.data();
  char const* const end = p + lines.size();
  std::string text;
  while (p != end) {
    text_line line;
    char const* next = read_line_fast(p, end, line);
    if (next == nullptr) {
      line = text_line();
      next = read_line_general(p, end, text, scratch_, line);
    }
    p = next;
    if (line.has_name) {
      name.clear();
      append_valid_utf8(name, line.name);
    }
    if (line.facet) {
      if (in_facet_ && facet_vertices_ != 3) ++odd_facets_;
      in_facet_ = true;
      facet_vertices_ = 0;
    }
    if (line.kind != text_line::vertex_line || line.have < 3) continue;
    ++facet_vertices_;
    corners_[pending_++] =
        Stl::Point(static_cast<float>(line.xyz[0]), static_cast<float>(line.xyz[1]),
                   static_cast<float>(line.xyz[2]));
    if (pending_ < 3) continue;
    pending_ = 0;
    if (!mesh.add(corners_[0], corners_[1], corners_[2])) return false;
  }
  return true;
}

}  // namespace quib::detail
