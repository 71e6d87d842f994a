// Text of DICOM values decoded to UTF-8 under the Specific Character Set.
#include <quib/dicom.hpp>

#include "system/utf8.hpp"

#include <iconv.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace quib::dicom {

namespace {

enum class set_t { ascii, latin1, utf8, other };

struct named {
  char const* term;  // the defined term after "ISO_IR " or "ISO 2022 IR "
  char const* iconv;
};

// The single-byte sets (and the two Chinese ones) that glibc's iconv decodes.
constexpr named kSets[] = {{"101", "ISO-8859-2"}, {"109", "ISO-8859-3"}, {"110", "ISO-8859-4"},
                           {"144", "ISO-8859-5"}, {"127", "ISO-8859-6"}, {"126", "ISO-8859-7"},
                           {"138", "ISO-8859-8"}, {"148", "ISO-8859-9"}, {"203", "ISO-8859-15"},
                           {"166", "TIS-620"},    {"13", "SHIFT_JIS"}};

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\0'))
    s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\0'))
    s.remove_suffix(1);
  return s;
}

// The set one defined term names; `name` receives iconv's name for `other`.
set_t set_of(std::string_view term, char const*& name) {
  term = trim(term);
  if (term.empty() || term == "ISO_IR 6" || term == "ISO 2022 IR 6") return set_t::ascii;
  if (term == "ISO_IR 192") return set_t::utf8;
  if (term == "GB18030" || term == "GBK") {
    name = term == "GBK" ? "GBK" : "GB18030";
    return set_t::other;
  }
  std::string_view number;
  if (term.substr(0, 7) == "ISO_IR ") {
    number = term.substr(7);
  } else if (term.substr(0, 12) == "ISO 2022 IR ") {
    number = term.substr(12);
  } else {
    return set_t::ascii;  // not a set we know: read as the default repertoire
  }
  if (number == "100") return set_t::latin1;
  for (named const& n : kSets) {
    if (number == n.term) {
      name = n.iconv;
      return set_t::other;
    }
  }
  return set_t::ascii;
}

// Appends bytes that should be UTF-8, each byte that is not part of a character as U+FFFD.
void append_checked_utf8(std::string& out, std::string_view in) {
  std::size_t i = 0;
  while (i < in.size()) {
    unsigned char const c = static_cast<unsigned char>(in[i]);
    std::size_t n = c < 0x80                 ? 1
                    : c >= 0xC2 && c <= 0xDF ? 2
                    : c >= 0xE0 && c <= 0xEF ? 3
                    : c >= 0xF0 && c <= 0xF4 ? 4
                                             : 0;
    bool ok = n != 0 && i + n <= in.size();
    char32_t cp = n == 1 ? c : n == 2 ? (c & 0x1F) : n == 3 ? (c & 0x0F) : (c & 0x07);
    for (std::size_t k = 1; ok && k < n; ++k) {
      unsigned char const t = static_cast<unsigned char>(in[i + k]);
      ok = (t & 0xC0) == 0x80;
      cp = (cp << 6) | (t & 0x3F);
    }
    // Overlong forms, surrogates and values past U+10FFFF are no characters.
    ok = ok && !(n == 3 && cp < 0x800) && !(n == 4 && (cp < 0x10000 || cp > 0x10FFFF)) &&
         detail::is_scalar_value(cp);
    if (ok) {
      out.append(in.substr(i, n));
      i += n;
    } else {
      detail::append_utf8(out, detail::kReplacementCharacter);
      ++i;
    }
  }
}

void append_iconv(std::string& out, char const* name, std::string_view in) {
  iconv_t cd = iconv_open("UTF-8", name);
  if (cd == iconv_t(-1)) {
    for (char c : in)
      detail::append_utf8(out, static_cast<unsigned char>(c));
    return;
  }
  char* from = const_cast<char*>(in.data());
  std::size_t left = in.size();
  char block[1024];
  while (left > 0) {
    char* to = block;
    std::size_t room = sizeof block;
    const std::size_t done = iconv(cd, &from, &left, &to, &room);
    out.append(block, std::size_t(to - block));
    if (done == std::size_t(-1) && errno != E2BIG) {
      detail::append_utf8(out, detail::kReplacementCharacter);  // not text in this set
      ++from;
      --left;
      iconv(cd, nullptr, nullptr, nullptr, nullptr);
    }
  }
  iconv_close(cd);
}

}  // namespace

std::string decode_text(std::string_view charset, std::string_view bytes) {
  bool plain = true;  // ASCII without escapes reads the same in every set
  for (char c : bytes)
    plain = plain && static_cast<unsigned char>(c) < 0x80 && c != '\x1B';
  if (plain) return std::string(bytes);
  // Several values name the sets that ISO 2022 escapes switch between; the single-byte and
  // Chinese sets are ASCII below 0x80, so the first value that names more than ASCII decides.
  set_t set = set_t::ascii;
  char const* name = nullptr;
  for (std::size_t start = 0; start <= charset.size();) {
    std::size_t end = charset.find('\\', start);
    if (end == std::string_view::npos) end = charset.size();
    set = set_of(charset.substr(start, end - start), name);
    if (set != set_t::ascii) break;
    start = end + 1;
  }
  std::string text;
  if (bytes.find('\x1B') != std::string_view::npos && set != set_t::utf8) {
    // ISO 2022 escapes (ESC, intermediate bytes 0x20-0x2F, a final byte) only switch sets.
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      if (bytes[i] != '\x1B') {
        text += bytes[i];
        continue;
      }
      while (i + 1 < bytes.size() && bytes[i + 1] >= 0x20 && bytes[i + 1] <= 0x2F)
        ++i;
      if (i + 1 < bytes.size()) ++i;
    }
    bytes = text;
  }
  std::string out;
  out.reserve(bytes.size());
  bool ascii = true;
  for (char c : bytes)
    ascii = ascii && static_cast<unsigned char>(c) < 0x80;
  if (ascii) {
    out.assign(bytes);
  } else if (set == set_t::utf8) {
    append_checked_utf8(out, bytes);
  } else if (set == set_t::other) {
    append_iconv(out, name, bytes);
  } else {
    for (char c : bytes)
      detail::append_utf8(out, static_cast<unsigned char>(c));  // Latin-1
  }
  return out;
}

}  // namespace quib::dicom
