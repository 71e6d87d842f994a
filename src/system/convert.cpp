#include <quib/convert.hpp>

#include "system/fields.hpp"
#include "system/utf8.hpp"

#include <string_view>

namespace quib::convert {

std::string to_string(std::wstring const& text) {
  return *detail::utf8_from_wide(text, detail::on_invalid_t::replace);
}

std::wstring to_wstring(std::string const& text) {
  return *detail::wide_from_utf8(text, detail::on_invalid_t::replace);
}

std::vector<std::wstring> get_separator_wstring(std::wstring const& text,
                                                std::wstring const& separators, wchar_t quote_open,
                                                wchar_t quote_close) {
  std::vector<std::wstring> fields;
  std::wstring scratch;
  auto const is_separator = [&](wchar_t c) { return separators.find(c) != std::wstring::npos; };
  detail::for_each_field(std::wstring_view(text), is_separator, quote_open, quote_close, scratch,
                         [&](std::wstring_view field) {
                           fields.emplace_back(field);
                           return true;
                         });
  return fields;
}

}  // namespace quib::convert
