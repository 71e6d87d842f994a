// Element values read as what their VR says: numbers, tags, text, names, dates.
#include "formats/dicom_internal.hpp"
#include "system/bytes.hpp"

#include <charconv>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>

namespace quib {

namespace {

using detail::vr;

// One element's bytes with what is needed to read them.
struct raw_element {
  std::vector<unsigned char> const* value = nullptr;
  std::uint16_t type = 0;
  bool little = true;

  std::string_view text() const {
    return std::string_view(reinterpret_cast<char const*>(value->data()), value->size());
  }
};

// The VRs whose values are text.
constexpr detail::vr_set kText("AE AS CS DA DS DT IS LO LT PN SH ST TM UC UI UR UT");
bool is_text(std::uint16_t type) {
  return kText.has(type);
}

// Text VRs that hold one value, backslashes included, and keep their leading blanks.
bool is_one_text(std::uint16_t type) {
  return type == vr('L', 'T') || type == vr('S', 'T') || type == vr('U', 'T') ||
         type == vr('U', 'R');
}

std::string_view trim(std::string_view s, bool leading) {
  while (leading && !s.empty() && s.front() == ' ')
    s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\0'))
    s.remove_suffix(1);
  return s;
}

// Splits decoded text at backslashes into trimmed values.
template <class F>
void each_value(std::string_view text, F&& f) {
  for (std::size_t start = 0;;) {
    const std::size_t end = text.find('\\', start);
    f(trim(text.substr(start, end == std::string_view::npos ? end : end - start), true));
    if (end == std::string_view::npos) return;
    start = end + 1;
  }
}

template <class T>
bool whole_number(std::string_view s, T& out) {
  if (!s.empty() && s.front() == '+') s.remove_prefix(1);
  auto const [end, error] = std::from_chars(s.data(), s.data() + s.size(), out);
  return error == std::errc() && end == s.data() + s.size() && !s.empty();
}

bool decimal(std::string_view s, double& out) {
  if (!s.empty() && s.front() == '+') s.remove_prefix(1);
  auto const [end, error] = std::from_chars(s.data(), s.data() + s.size(), out);
  return error == std::errc() && end == s.data() + s.size() && !s.empty();
}

// The size of one binary value of a VR, 0 when the VR is not binary numbers.
std::size_t binary_size(std::uint16_t type) {
  switch (type) {
    case vr('O', 'B'):
      return 1;
    case vr('U', 'S'):
    case vr('S', 'S'):
    case vr('O', 'W'):
      return 2;
    case vr('U', 'L'):
    case vr('S', 'L'):
    case vr('F', 'L'):
    case vr('O', 'L'):
    case vr('O', 'F'):
      return 4;
    case vr('F', 'D'):
    case vr('U', 'V'):
    case vr('S', 'V'):
    case vr('O', 'V'):
    case vr('O', 'D'):
      return 8;
    default:
      return 0;
  }
}

// Calls f(value) for each whole binary value, read as the VR's C++ type.
template <class F>
void each_binary(raw_element const& raw, F&& f) {
  const std::size_t size = binary_size(raw.type);
  unsigned char const* p = raw.value->data();
  const std::size_t n = raw.value->size() / size;
  bool const little = raw.little;
  for (std::size_t i = 0; i < n; ++i, p += size) {
    switch (raw.type) {
      case vr('O', 'B'):
        f(*p);
        break;
      case vr('U', 'S'):
      case vr('O', 'W'):
        f(detail::load<std::uint16_t>(p, little));
        break;
      case vr('S', 'S'):
        f(detail::load<std::int16_t>(p, little));
        break;
      case vr('U', 'L'):
      case vr('O', 'L'):
        f(detail::load<std::uint32_t>(p, little));
        break;
      case vr('S', 'L'):
        f(detail::load<std::int32_t>(p, little));
        break;
      case vr('F', 'L'):
      case vr('O', 'F'):
        f(detail::load<float>(p, little));
        break;
      case vr('F', 'D'):
      case vr('O', 'D'):
        f(detail::load<double>(p, little));
        break;
      case vr('U', 'V'):
      case vr('O', 'V'):
        f(detail::load<std::uint64_t>(p, little));
        break;
      default:  // SV
        f(detail::load<std::int64_t>(p, little));
        break;
    }
  }
}

// Reads n digits at s[at]; false when they are not all digits.
bool digits(std::string_view s, std::size_t at, std::size_t n, int& out) {
  if (at + n > s.size()) return false;
  out = 0;
  for (std::size_t i = at; i < at + n; ++i) {
    if (s[i] < '0' || s[i] > '9') return false;
    out = out * 10 + (s[i] - '0');
  }
  return true;
}

// HH[MM[SS[.F{1,6}]]], or HH:MM[:SS[.F]]; reads from s[at], moves `at` past what it read.
bool parse_time(std::string_view s, std::size_t& at, Dicom::DateTime& t) {
  if (!digits(s, at, 2, t.hour) || t.hour > 23) return false;
  at += 2;
  bool const colons = at < s.size() && s[at] == ':';
  for (int* field : {&t.minute, &t.second}) {
    if (colons) {
      if (at >= s.size() || s[at] != ':') return true;
      ++at;
    } else if (at >= s.size() || s[at] < '0' || s[at] > '9') {
      return true;  // a time may stop after any field
    }
    if (!digits(s, at, 2, *field) || *field > (field == &t.minute ? 59 : 60)) return false;
    at += 2;
  }
  if (at < s.size() && s[at] == '.') {
    ++at;
    int micro = 0, n = 0;
    while (at < s.size() && s[at] >= '0' && s[at] <= '9' && n < 6) {
      micro = micro * 10 + (s[at++] - '0');
      ++n;
    }
    if (n == 0) return false;
    for (int k = n; k < 6; ++k)
      micro *= 10;
    t.microsecond = micro;
  }
  return true;
}

bool parse_date(std::string_view s, std::size_t& at, Dicom::DateTime& t, bool partial) {
  if (!digits(s, at, 4, t.year)) return false;
  at += 4;
  bool const dots = !partial && at < s.size() && s[at] == '.';
  for (int* field : {&t.month, &t.day}) {
    if (dots) {
      if (at >= s.size() || s[at] != '.') return false;
      ++at;
    }
    if (partial && (at >= s.size() || s[at] < '0' || s[at] > '9')) return true;
    if (!digits(s, at, 2, *field)) return false;
    at += 2;
  }
  return t.month >= 1 && t.month <= 12 && t.day >= 1 && t.day <= 31;
}

bool parse_date_time(std::string_view s, std::uint16_t type, Dicom::DateTime& t) {
  std::size_t at = 0;
  if (type == vr('D', 'A')) {
    if (!parse_date(s, at, t, false)) return false;
  } else if (type == vr('T', 'M')) {
    if (!parse_time(s, at, t)) return false;
  } else {
    if (!parse_date(s, at, t, true)) return false;
    if (t.day >= 0 && at < s.size() && s[at] >= '0' && s[at] <= '9' && !parse_time(s, at, t))
      return false;
    if (t.month >= 0 && (t.month < 1 || t.month > 12)) return false;
    if (at < s.size() && (s[at] == '+' || s[at] == '-')) {
      int hours = 0, minutes = 0;
      if (!digits(s, at + 1, 2, hours) || !digits(s, at + 3, 2, minutes)) return false;
      t.offset = (s[at] == '-' ? -1 : 1) * (hours * 60 + minutes);
      t.has_offset = true;
      at += 5;
    }
  }
  return at == s.size();
}

}  // namespace

namespace {

raw_element raw_of(Dicom const& d, Dicom::Tag const& tag) {
  raw_element raw;
  raw.value = d.find(tag);
  if (raw.value == nullptr) return raw;
  raw.type = d.get_type(tag);
  raw.little = tag.get_group() == 2 ? d.get_info().meta_little : d.get_info().little;
  return raw;
}

}  // namespace

int Dicom::get_numbers(Tag tag, std::vector<double>& values) const {
  values.clear();
  const raw_element raw = raw_of(*this, tag);
  if (raw.value == nullptr) return -1;
  if (binary_size(raw.type) != 0) {
    values.reserve(raw.value->size() / binary_size(raw.type));
    each_binary(raw, [&](auto v) { values.push_back(double(v)); });
    return int(values.size());
  }
  if (raw.type != vr('D', 'S') && raw.type != vr('I', 'S')) return -1;
  bool ok = true;
  if (!trim(raw.text(), true).empty()) {
    each_value(raw.text(), [&](std::string_view s) {
      double v = 0;
      ok = ok && decimal(s, v);
      values.push_back(v);
    });
  }
  if (!ok) values.clear();
  return ok ? int(values.size()) : -1;
}

int Dicom::get_integers(Tag tag, std::vector<std::int64_t>& values) const {
  values.clear();
  const raw_element raw = raw_of(*this, tag);
  if (raw.value == nullptr) return -1;
  bool ok = true;
  switch (raw.type) {
    case vr('U', 'S'):
    case vr('S', 'S'):
    case vr('U', 'L'):
    case vr('S', 'L'):
    case vr('U', 'V'):
    case vr('S', 'V'):
      each_binary(raw, [&](auto v) {
        if constexpr (std::is_integral_v<decltype(v)>) {
          if constexpr (std::is_same_v<decltype(v), std::uint64_t>) {
            ok = ok && v <= std::uint64_t(std::numeric_limits<std::int64_t>::max());
          }
          values.push_back(std::int64_t(v));
        }
      });
      break;
    case vr('I', 'S'):
      if (!trim(raw.text(), true).empty()) {
        each_value(raw.text(), [&](std::string_view s) {
          std::int64_t v = 0;
          ok = ok && whole_number(s, v);
          values.push_back(v);
        });
      }
      break;
    default:
      ok = false;
  }
  if (!ok) values.clear();
  return ok ? int(values.size()) : -1;
}

int Dicom::get_tags(Tag tag, std::vector<std::uint32_t>& values) const {
  values.clear();
  const raw_element raw = raw_of(*this, tag);
  if (raw.value == nullptr || raw.type != vr('A', 'T')) return -1;
  unsigned char const* p = raw.value->data();
  for (std::size_t i = 0; i + 4 <= raw.value->size(); i += 4) {
    values.push_back(dicom::tag_key(detail::load<std::uint16_t>(p + i, raw.little),
                                    detail::load<std::uint16_t>(p + i + 2, raw.little)));
  }
  return int(values.size());
}

int Dicom::get_text(Tag tag, std::string& text) const {
  text.clear();
  const raw_element raw = raw_of(*this, tag);
  if (raw.value == nullptr || !is_text(raw.type)) return -1;
  text = dicom::decode_text(info_.charset, trim(raw.text(), false));
  return 1;
}

int Dicom::get_strings(Tag tag, std::vector<std::string>& values) const {
  values.clear();
  const raw_element raw = raw_of(*this, tag);
  if (raw.value == nullptr || !is_text(raw.type)) return -1;
  std::string text = dicom::decode_text(info_.charset, trim(raw.text(), false));
  if (is_one_text(raw.type)) {
    if (!text.empty()) values.push_back(std::move(text));
  } else if (!trim(text, true).empty()) {
    each_value(text, [&](std::string_view s) { values.emplace_back(s); });
  }
  return int(values.size());
}

int Dicom::get_names(Tag tag, std::vector<Name>& values) const {
  values.clear();
  std::vector<std::string> names;
  if (get_type(tag) != vr('P', 'N') || get_strings(tag, names) < 0) return -1;
  for (std::string const& written : names) {
    Name name;
    const std::string_view all(written);
    const std::size_t first = all.find('=');
    const std::string_view alphabetic = all.substr(0, first);
    if (first != std::string_view::npos) {
      const std::string_view rest = all.substr(first + 1);
      const std::size_t second = rest.find('=');
      name.ideographic = std::string(trim(rest.substr(0, second), true));
      if (second != std::string_view::npos) {
        name.phonetic = std::string(trim(rest.substr(second + 1), true));
      }
    }
    std::string* parts[] = {&name.family, &name.given, &name.middle, &name.prefix, &name.suffix};
    std::size_t start = 0;
    for (std::string* part : parts) {
      if (start > alphabetic.size()) break;
      const std::size_t end = alphabetic.find('^', start);
      *part = std::string(
          trim(alphabetic.substr(start, end == std::string_view::npos ? end : end - start), true));
      start = end == std::string_view::npos ? alphabetic.size() + 1 : end + 1;
    }
    values.push_back(std::move(name));
  }
  return int(values.size());
}

int Dicom::get_dates(Tag tag, std::vector<DateTime>& values) const {
  values.clear();
  const std::uint16_t type = get_type(tag);
  if (type != vr('D', 'A') && type != vr('T', 'M') && type != vr('D', 'T')) return -1;
  std::vector<std::string> written;
  if (get_strings(tag, written) < 0) return -1;
  for (std::string const& s : written) {
    DateTime t;
    if (!parse_date_time(s, type, t)) {
      values.clear();
      return -1;
    }
    values.push_back(t);
  }
  return int(values.size());
}

}  // namespace quib
