// Internal: the one conversion of the library's wide paths to the file system's own names.
#pragma once

#include "system/utf8.hpp"

#include <filesystem>
#include <optional>
#include <string>
#include <utility>

namespace quib::detail {

// The native path for a wide path, or nothing when the path holds something that is no character
// (an unpaired surrogate, a value past U+10FFFF): such a name names no file, and opening "\uFFFD"
// in its place would open the wrong one. A surrogate pair is the character it stands for.
inline std::optional<std::filesystem::path> native_path(std::wstring const& wide) {
#if defined(_WIN32)
  if (!utf8_from_wide(wide, on_invalid_t::fail)) return std::nullopt;
  return std::filesystem::path(wide);
#else
  auto utf8 = utf8_from_wide(wide, on_invalid_t::fail);
  if (!utf8) return std::nullopt;
  return std::filesystem::path(std::move(*utf8));  // file names are UTF-8 bytes here
#endif
}

}  // namespace quib::detail
