// Extensions, suffix numbers and "#" numbers, written once for both character types.
#include <quib/path.hpp>

#include <climits>
#include <cstddef>
#include <cwctype>

namespace quib {
namespace {

template <class Char>
bool is_digit(Char c) {
  return c >= Char('0') && c <= Char('9');
}

char to_lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

wchar_t to_lower(wchar_t c) {
  return static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(c)));
}

template <class Char>
std::basic_string<Char> number_text(std::int64_t n) {
  // Printed as the unsigned 64-bit value of n's two's complement.
  auto value = static_cast<std::uint64_t>(n);
  Char digits[20];
  std::size_t count = 0;
  do {
    digits[count++] = static_cast<Char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  std::basic_string<Char> text;
  text.reserve(count);
  while (count > 0)
    text.push_back(digits[--count]);
  return text;
}

// The index where the run of digits at the end of `s` begins (s.size() when there is none).
template <class Char>
std::size_t trailing_digits(std::basic_string<Char> const& s) {
  std::size_t i = s.size();
  while (i > 0 && is_digit(s[i - 1]))
    --i;
  return i;
}

template <class Char>
bool is_ext_path_t(std::basic_string<Char> const& path, std::basic_string<Char> const& ext) {
  if (ext.empty() || path.size() <= ext.size()) return false;
  std::basic_string<Char> lower(path);
  for (Char& c : lower)
    c = to_lower(c);
  std::size_t const first = lower.find(ext);
  return first != std::basic_string<Char>::npos && first + ext.size() == lower.size();
}

template <class Char>
std::basic_string<Char> add_extension_t(std::basic_string<Char> const& path,
                                        std::basic_string<Char> const& ext) {
  if (!ext.empty() && ext[0] != Char('.')) return path + Char('.') + ext;
  return path + ext;
}

template <class Char>
std::basic_string<Char> sub_extension_t(std::basic_string<Char> const& path) {
  std::size_t const dot = path.rfind(Char('.'));
  return dot == std::basic_string<Char>::npos ? path : path.substr(0, dot);
}

template <class Char>
std::basic_string<Char> get_extension_t(std::basic_string<Char> const& path) {
  std::size_t const dot = path.rfind(Char('.'));
  return dot == std::basic_string<Char>::npos ? std::basic_string<Char>() : path.substr(dot);
}

template <class Char>
std::basic_string<Char> sub_suffix_number_t(std::basic_string<Char> const& path) {
  if (path.size() <= 2) return path;
  std::size_t const run = trailing_digits(path);
  if (run == path.size() || run == 0) return path;
  return path.substr(0, run - 1);  // the digits and the one character before them go
}

template <class Char>
std::basic_string<Char> get_suffix_number_t(std::basic_string<Char> const& path) {
  if (path.size() <= 2) return {};
  std::size_t const run = trailing_digits(path);
  if (run == path.size() || run == 0) return {};
  return path.substr(run);
}

// The index of the "#" directly before a non-empty trailing run of digits, or npos.
template <class Char>
std::size_t sharp_position(std::basic_string<Char> const& path) {
  if (path.size() <= 2) return std::basic_string<Char>::npos;
  std::size_t const run = trailing_digits(path);
  if (run == path.size() || run == 0 || path[run - 1] != Char('#')) {
    return std::basic_string<Char>::npos;
  }
  return run - 1;
}

template <class Char>
std::basic_string<Char> sub_sharp_number_t(std::basic_string<Char> const& path) {
  std::size_t const sharp = sharp_position(path);
  return sharp == std::basic_string<Char>::npos ? path : path.substr(0, sharp);
}

template <class Char>
std::basic_string<Char> get_sharp_number_t(std::basic_string<Char> const& path) {
  std::size_t const sharp = sharp_position(path);
  return sharp == std::basic_string<Char>::npos ? std::basic_string<Char>()
                                                : path.substr(sharp + 1);
}

// Step 1 of the series-name functions: `path` without `ext` when it ends with it.
std::string cut_extension(std::string const& path, std::string const& ext) {
  return is_ext_path_t(path, ext) ? path.substr(0, path.size() - ext.size()) : path;
}

}  // namespace

bool is_ext_path(std::wstring const& path, std::wstring const& ext) {
  return is_ext_path_t(path, ext);
}
bool is_ext_path(std::string const& path, std::string const& ext) {
  return is_ext_path_t(path, ext);
}

std::wstring add_extension(std::wstring const& path, std::wstring const& ext) {
  return add_extension_t(path, ext);
}
std::string add_extension(std::string const& path, std::string const& ext) {
  return add_extension_t(path, ext);
}

std::wstring sub_extension(std::wstring const& path) {
  return sub_extension_t(path);
}
std::string sub_extension(std::string const& path) {
  return sub_extension_t(path);
}

std::wstring get_extension(std::wstring const& path) {
  return get_extension_t(path);
}
std::string get_extension(std::string const& path) {
  return get_extension_t(path);
}

std::wstring add_suffix_number(std::wstring const& path, std::int64_t n) {
  return path + number_text<wchar_t>(n);
}
std::string add_suffix_number(std::string const& path, std::int64_t n) {
  return path + number_text<char>(n);
}

std::wstring sub_suffix_number(std::wstring const& path) {
  return sub_suffix_number_t(path);
}
std::string sub_suffix_number(std::string const& path) {
  return sub_suffix_number_t(path);
}

std::wstring get_suffix_number(std::wstring const& path) {
  return get_suffix_number_t(path);
}
std::string get_suffix_number(std::string const& path) {
  return get_suffix_number_t(path);
}

std::wstring add_sharp_number(std::wstring const& path, std::int64_t n) {
  return path + L'#' + number_text<wchar_t>(n);
}
std::string add_sharp_number(std::string const& path, std::int64_t n) {
  return path + '#' + number_text<char>(n);
}

std::wstring sub_sharp_number(std::wstring const& path) {
  return sub_sharp_number_t(path);
}
std::string sub_sharp_number(std::string const& path) {
  return sub_sharp_number_t(path);
}

std::wstring get_sharp_number(std::wstring const& path) {
  return get_sharp_number_t(path);
}
std::string get_sharp_number(std::string const& path) {
  return get_sharp_number_t(path);
}

std::string get_sharp_path(std::string const& path, std::string const& ext, std::int64_t n) {
  return get_sharp_path(path, ext, number_text<char>(n));
}

std::string get_sharp_path(std::string const& path, std::string const& ext,
                           std::string const& text) {
  return sub_sharp_number_t(cut_extension(path, ext)) + '#' + text + ext;
}

std::string get_sharp_path_suffix(std::string const& path, std::string const& ext) {
  return get_sharp_number_t(cut_extension(path, ext));
}

int get_sharp_path_number(std::string const& path, std::string const& ext) {
  std::string const digits = get_sharp_path_suffix(path, ext);
  if (digits.empty()) return -1;
  // Decimal digits only (the suffix holds nothing else), saturating like a 32-bit strtol.
  long long value = 0;
  for (char c : digits) {
    value = value * 10 + (c - '0');
    if (value > INT_MAX) return INT_MAX;
  }
  return static_cast<int>(value);
}

}  // namespace quib
