// Internal: the one UTF-8 encoder and decoder behind the library's wide-to-narrow conversions.
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

// Decodes one UTF-8 sequence at text[i]; advances i past it, or past one byte when the
// sequence is not well formed (the caller then gets U+FFFD).
inline char32_t decode_utf8(std::string_view text, std::size_t& i) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char b0 = byte(i);
  if (b0 < 0x80) {
    ++i;
    return b0;
  }
  int length = 0;
  char32_t c = 0;
  char32_t minimum = 0;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    length = 2, c = b0 & 0x1F, minimum = 0x80;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    length = 3, c = b0 & 0x0F, minimum = 0x800;
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    length = 4, c = b0 & 0x07, minimum = 0x10000;
  } else {
    ++i;
    return kReplacementCharacter;
  }
  if (text.size() - i < static_cast<std::size_t>(length)) {
    ++i;
    return kReplacementCharacter;
  }
  for (int k = 1; k < length; ++k) {
    const unsigned char b = byte(i + k);
    if ((b & 0xC0) != 0x80) {
      ++i;
      return kReplacementCharacter;
    }
    c = (c << 6) | (b & 0x3F);
  }
  if (c < minimum || !is_scalar_value(c)) {
    ++i;
    return kReplacementCharacter;
  }
  i += length;
  return c;
}

// Appends `text` with every byte that starts no well-formed UTF-8 sequence replaced by U+FFFD,
// the same text that decoding it and encoding it again gives.
inline void append_valid_utf8(std::string& out, std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t start = i;
    const char32_t c = decode_utf8(text, i);
    if (c == kReplacementCharacter && i - start == 1) {
      append_utf8(out, c);
    } else {
      out.append(text.data() + start, i - start);
    }
  }
}

}  // namespace quib::detail
