#include <quib/convert.hpp>

#include "system/fields.hpp"
#include "system/utf8.hpp"

#include <cstdint>
#include <string_view>

namespace quib::convert {

namespace {

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
    appendWide(out, detail::decode_utf8(view, i));
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
