// Internal: the library's one UTF-8 encoder and decoder. Every conversion between wide text and
// UTF-8 goes through here, and each call names what happens to something that is no character.
//
// Wide text is read as UTF-16 code units or as UTF-32 alike, whatever the width of wchar_t: a high
// surrogate directly followed by a low one is the one character they stand for (so UTF-16 text
// kept one unit per wchar_t reads as it does on Windows); any other surrogate is unpaired, and an
// unpaired surrogate or a value past U+10FFFF is no character.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace quib::detail {

constexpr char32_t kReplacementCharacter = 0xFFFD;

/// What a conversion does with something that is no character (an unpaired surrogate, a value
/// past U+10FFFF, bytes that are not well-formed UTF-8).
enum class on_invalid_t {
  replace,  ///< put U+FFFD in its place (text, hashing)
  fail,     ///< give up: the result is nothing (file names)
};

constexpr bool is_high_surrogate(char32_t c) {
  return c >= 0xD800 && c <= 0xDBFF;
}
constexpr bool is_low_surrogate(char32_t c) {
  return c >= 0xDC00 && c <= 0xDFFF;
}
constexpr bool is_scalar_value(char32_t c) {
  return c < 0xD800 || (c > 0xDFFF && c <= 0x10FFFF);
}

// The character at text[i]: a high surrogate directly followed by a low one is joined into one
// character, and i is moved onto the low one. Anything else (an unpaired surrogate included)
// comes back as it is, for the caller to judge.
inline char32_t join_surrogates(std::wstring_view text, std::size_t& i) {
  char32_t const c = static_cast<char32_t>(text[i]);
  if (is_high_surrogate(c) && i + 1 < text.size()) {
    char32_t const low = static_cast<char32_t>(text[i + 1]);
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

// Appends `c` to wide text: as two surrogates where wchar_t has 16 bits and c is above U+FFFF.
inline void append_wide(std::wstring& out, char32_t c) {
  if constexpr (sizeof(wchar_t) == 2) {
    if (c >= 0x10000) {
      c -= 0x10000;
      out.push_back(static_cast<wchar_t>(0xD800 + (c >> 10)));
      out.push_back(static_cast<wchar_t>(0xDC00 + (c & 0x3FF)));
      return;
    }
  }
  out.push_back(static_cast<wchar_t>(c));
}

// Decodes the UTF-8 sequence at text[i] and moves i past it. A sequence that is not well formed
// (a stray continuation byte, an overlong form, a surrogate, a value past U+10FFFF, a truncated
// sequence) moves i past one byte and gives U+FFFD; `well_formed` then becomes false.
inline char32_t decode_utf8(std::string_view text, std::size_t& i, bool& well_formed) {
  auto const byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
  unsigned char const b0 = byte(i);
  if (b0 < 0x80) {
    ++i;
    return b0;
  }
  std::size_t length = 0;
  char32_t c = 0;
  char32_t minimum = 0;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    length = 2, c = b0 & 0x1F, minimum = 0x80;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    length = 3, c = b0 & 0x0F, minimum = 0x800;
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    length = 4, c = b0 & 0x07, minimum = 0x10000;
  }
  bool ok = length != 0 && text.size() - i >= length;
  for (std::size_t k = 1; ok && k < length; ++k) {
    unsigned char const b = byte(i + k);
    ok = (b & 0xC0) == 0x80;
    c = (c << 6) | (b & 0x3F);
  }
  if (!ok || c < minimum || !is_scalar_value(c)) {
    well_formed = false;
    ++i;
    return kReplacementCharacter;
  }
  i += length;
  return c;
}

// Wide text as UTF-8 (see the top of this file for how wide text is read); nothing when the text
// holds something that is no character and `policy` is on_invalid_t::fail.
inline std::optional<std::string> utf8_from_wide(std::wstring_view wide, on_invalid_t policy) {
  std::string out;
  out.reserve(wide.size());
  for (std::size_t i = 0; i < wide.size(); ++i) {
    char32_t const c = join_surrogates(wide, i);
    if (!is_scalar_value(c) && policy == on_invalid_t::fail) return std::nullopt;
    append_utf8(out, c);
  }
  return out;
}

// UTF-8 as wide text; each byte that belongs to no well-formed sequence is one U+FFFD, or the
// result is nothing when `policy` is on_invalid_t::fail.
inline std::optional<std::wstring> wide_from_utf8(std::string_view utf8, on_invalid_t policy) {
  std::wstring out;
  out.reserve(utf8.size());
  bool well_formed = true;
  for (std::size_t i = 0; i < utf8.size();) {
    append_wide(out, decode_utf8(utf8, i, well_formed));
    if (!well_formed && policy == on_invalid_t::fail) return std::nullopt;
  }
  return out;
}

}  // namespace quib::detail
