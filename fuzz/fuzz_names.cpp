// Numbered file names, text conversion and hashes over arbitrary text: nothing may crash, the
// parts that the name functions split off must put the name back together, text, hashing and
// paths must agree on what is a character, and hashing in pieces must equal hashing at once.
#include <quib/convert.hpp>
#include <quib/hash.hpp>
#include <quib/path.hpp>

#include "system/native_path.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

void check(bool ok) {
  if (!ok) __builtin_trap();
}

template <class String>
void split_and_join(String const& name) {
  using Char = typename String::value_type;
  String const sharp = quib::get_sharp_number(name);
  if (!sharp.empty())
    check(quib::sub_sharp_number(name) + Char('#') + sharp == name);
  else
    check(quib::sub_sharp_number(name) == name);

  String const suffix = quib::get_suffix_number(name);
  String const rest = quib::sub_suffix_number(name);
  if (!suffix.empty())
    check(rest.size() + 1 + suffix.size() == name.size());
  else
    check(rest == name);

  String const ext = quib::get_extension(name);
  check(quib::sub_extension(name) + ext == name);
  quib::is_ext_path(name, ext);
  quib::add_extension(name, ext);
  if (!name.empty())
    check(quib::get_sharp_number(quib::add_sharp_number(name, 7)) == String(1, Char('7')));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string const narrow(reinterpret_cast<char const*>(data), size);
  split_and_join(narrow);

  // The same bytes as 32-bit wide characters, any value included.
  std::wstring wide(size / sizeof(wchar_t), L'\0');
  if (!wide.empty()) std::memcpy(&wide[0], data, wide.size() * sizeof(wchar_t));
  split_and_join(wide);

  bool ascii = true;
  for (unsigned char c : narrow)
    ascii = ascii && c < 0x80;
  if (ascii) {
    auto widen = [](std::string const& s) { return std::wstring(s.begin(), s.end()); };
    std::wstring const widened = widen(narrow);
    check(quib::sub_sharp_number(widened) == widen(quib::sub_sharp_number(narrow)));
    check(quib::get_suffix_number(widened) == widen(quib::get_suffix_number(narrow)));
    check(quib::is_ext_path(widened, L".png") == quib::is_ext_path(narrow, ".png"));
    check(quib::hash::compute(widened) == widen(quib::hash::compute(narrow)));
  }

  std::string const ext = size > 0 && data[0] % 2 ? ".png" : "";
  int const number = quib::get_sharp_path_number(narrow, ext);
  check(number >= -1);
  // A renumbered name reads back its number unless ".png" also occurs earlier in it.
  std::string const renamed = quib::get_sharp_path(narrow, ".png", 305);
  std::string lowered = renamed;
  for (char& c : lowered)
    c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  if (lowered.find(".png") + 4 == lowered.size()) {
    check(quib::get_sharp_path_number(renamed, ".png") == 305);
  }

  std::vector<unsigned char> out;
  quib::hash::compute(out, std::vector<unsigned char>(data, data + size));
  check(out.size() == 8);
  check(quib::sha256::compute(wide).size() == 64);
  check(quib::sha256::compute(narrow).size() == 64);

  // Text, hashing and paths: one reading of the wide characters.
  std::string const utf8 = quib::convert::to_string(wide);
  auto const path = quib::detail::native_path(wide);
  bool const clean = utf8.find("\xEF\xBF\xBD") == std::string::npos;
  if (path) check(path->native() == utf8);
  if (clean) check(path.has_value());
  check(quib::sha256::compute(wide) == quib::convert::to_wstring(quib::sha256::compute(utf8)));
  check(quib::convert::to_string(quib::convert::to_wstring(narrow)).size() <= 3 * size);

  // In two pieces, split where the first byte says.
  std::size_t const cut = size > 0 ? data[0] % (size + 1) : 0;
  quib::sha256::Hasher sha;
  quib::hash::Hasher bytes, chars;
  check(sha.update(data, cut) && sha.update(data + cut, size - cut));
  bytes.update(data, cut);
  bytes.update(data + cut, size - cut);
  chars.update(std::string_view(narrow).substr(0, cut));
  chars.update(std::string_view(narrow).substr(cut));
  std::vector<unsigned char> digest, whole;
  check(sha.final(digest));
  check(quib::sha256::compute(whole, std::vector<unsigned char>(data, data + size)));
  check(digest == whole);
  std::uint64_t const value = bytes.final();
  for (int i = 0; i < 8; ++i)
    check(out[std::size_t(i)] == static_cast<unsigned char>(value >> (56 - 8 * i)));
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(chars.final()));
  check(quib::hash::compute(narrow) == text);
  return 0;
}
