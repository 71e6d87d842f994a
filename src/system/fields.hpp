// Internal: the one field splitter behind convert::get_separator_wstring and the STL text reader.
#pragma once

#include <string>
#include <string_view>

namespace quib::detail {

// Calls `emit(field)` for each field of `text` (a basic_string_view of the same character
// type), in order, empty fields included; stops early when `emit` returns false. Fields are
// separated by the characters for which `is_separator` is true; `open` starts a quoted run in
// which separators do not split and `close` ends it, both quotes being dropped. A field without
// quotes is handed over as a view into `text`; one with quotes is assembled in `scratch`.
template <class Char, class IsSeparator, class Emit>
void for_each_field(std::basic_string_view<Char> text, IsSeparator is_separator, Char open,
                    Char close, std::basic_string<Char>& scratch, Emit emit) {
  const std::size_t n = text.size();
  std::size_t i = 0;
  for (;;) {
    const std::size_t start = i;
    while (i < n && !is_separator(text[i]) && text[i] != open)
      ++i;
    std::basic_string_view<Char> field = text.substr(start, i - start);
    if (i < n && text[i] == open) {
      // Quoted field: collect the plain part seen so far, then the rest character by character.
      scratch.assign(field.data(), field.size());
      bool quoted = false;
      for (; i < n; ++i) {
        const Char c = text[i];
        if (quoted) {
          if (c == close) {
            quoted = false;
          } else {
            scratch.push_back(c);
          }
        } else if (c == open) {
          quoted = true;
        } else if (is_separator(c)) {
          break;
        } else {
          scratch.push_back(c);
        }
      }
      field = std::basic_string_view<Char>(scratch);
    }
    if (!emit(field)) return;
    if (i >= n) return;
    ++i;  // past the separator
  }
}

}  // namespace quib::detail
