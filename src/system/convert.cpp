#include <quib/convert.hpp>

#include "system/fields.hpp"
#include "system/utf8.hpp"

#include <cstdint>
#include <string_view>

namespace quib::convert {

namespace {

constexpr char32_t kReplacement = detail::kReplacementCharacter;
using detail::is_scalar_value;

void appendWide(std::wstring& out, char32_t c) {
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

// Decodes one UTF-8 sequence at text[i]; advances i past it, or past one byte when the
// sequence is not well formed (the caller then gets U+FFFD).
char32_t decodeUtf8(std::string_view text, std::size_t& i) {
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
    return kReplacement;
  }
  if (text.size() - i < static_cast<std::size_t>(length)) {
    ++i;
    return kReplacement;
  }
  for (int k = 1; k < length; ++k) {
    const unsigned char b = byte(i + k);
    if ((b & 0xC0) != 0x80) {
      ++i;
      return kReplacement;
    }
    c = (c << 6) | (b & 0x3F);
  }
  if (c < minimum || !is_scalar_value(c)) {
    ++i;
    return kReplacement;
  }
  i += length;
  return c;
}

}  // namespace

std::string to_string(std::wstring const& text) {
  std::string out;
  out.reserve(text.size());
  const std::wstring_view view(text);
  for (std::size_t i = 0; i < view.size(); ++i) {
    // Where wchar_t has 16 bits a surrogate pair is one character; a lone surrogate, like
    // anything else that is no character, becomes U+FFFD.
    const char32_t c =
        sizeof(wchar_t) == 2 ? detail::join_surrogates(view, i) : static_cast<char32_t>(view[i]);
    detail::append_utf8(out, c);
  }
  return out;
}

std::wstring to_wstring(std::string const& text) {
  std::wstring out;
  out.reserve(text.size());
  const std::string_view view(text);
  for (std::size_t i = 0; i < view.size();)
    appendWide(out, decodeUtf8(view, i));
  return out;
}

std::vector<std::wstring> get_separator_wstring(std::wstring const& text,
                                                std::wstring const& separators, wchar_t quote_open,
                                                wchar_t quote_close) {
  std::vector<std::wstring> fields;
  std::wstring scratch;
  const auto isSeparator = [&](wchar_t c) { return separators.find(c) != std::wstring::npos; };
  detail::for_each_field(std::wstring_view(text), isSeparator, quote_open, quote_close, scratch,
                         [&](std::wstring_view field) {
                           fields.emplace_back(field);
                           return true;
                         });
  return fields;
}

}  // namespace quib::convert
