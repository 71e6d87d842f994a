// Internal: the one conversion of the library's wide paths to the file system's own names.
#pragma once

#include "system/utf8.hpp"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace quib::detail {

// The native path for a wide path (UTF-32, or UTF-16 where wchar_t has 16 bits), or nothing when
// the path holds something that is no character (an unpaired surrogate, a value past U+10FFFF):
// such a name names no file, and opening "\uFFFD" in its place would open the wrong one.
inline std::optional<std::filesystem::path> native_path(std::wstring const& wide) {
#if defined(_WIN32)
  return std::filesystem::path(wide);
#else
  std::string out;
  out.reserve(wide.size());
  const std::wstring_view view(wide);
  for (std::size_t i = 0; i < view.size(); ++i) {
    const char32_t c =
        sizeof(wchar_t) == 2 ? join_surrogates(view, i) : static_cast<char32_t>(view[i]);
    if (!is_scalar_value(c)) return std::nullopt;
    append_utf8(out, c);
  }
  return std::filesystem::path(std::move(out));  // file names are UTF-8 bytes here
#endif
}

}  // namespace quib::detail
