// Internal: the one UTF-8 encoder behind the library's wide-to-narrow conversions.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace quib::detail {

constexpr char32_t kReplacementCharacter = 0xFFFD;

constexpr bool is_high_surrogate(char32_t c) {
  return c >= 0xD800 && c <= 0xDBFF;
}
constexpr bool is_low_surrogate(char32_t c) {
  return c >= 0xDC00 && c <= 0xDFFF;
}
constexpr bool is_scalar_value(char32_t c) {
  return c < 0xD800 || (c > 0xDFFF && c <= 0x10FFFF);
}

// The character at text[i] read as UTF-16: a high surrogate directly followed by a low one is
// joined into one character, and i is moved onto the low one. Anything else (a lone surrogate
// included) comes back as it is, for the caller to judge.
inline char32_t join_surrogates(std::wstring_view text, std::size_t& i) {
  const char32_t c = static_cast<char32_t>(text[i]);
  if (is_high_surrogate(c) && i + 1 < text.size()) {
    const char32_t low = static_cast<char32_t>(text[i + 1]);
    if (is_low_surrogate(low)) {
      ++i;
      return 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
    }
  }
  return c;
}

// Appends `c` in UTF-8; a value that is no Unicode scalar value is written as U+FFFD.
inline void append_utf8(std::string& out, char32_t c) {
  if (!is_scalar_value(c)) c = kReplacementCharacter;
  if (c < 0x80) {
    out.push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (c >> 6)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (c >> 12)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (c >> 18)));
    out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

}  // namespace quib::detail
