#include "cli.hpp"

#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <sstream>
#include <system_error>

namespace quib::tool {

// ---- JSON --------------------------------------------------------------------------------

Json Json::array() {
  Json j;
  j.kind = kind_t::array;
  return j;
}

Json Json::object() {
  Json j;
  j.kind = kind_t::object;
  return j;
}

Json Json::numbers(std::vector<double> const& values) {
  Json j = array();
  for (double v : values)
    j.push(v);
  return j;
}

Json Json::strings(std::vector<std::string> const& values) {
  Json j = array();
  for (std::string const& v : values)
    j.push(v);
  return j;
}

Json& Json::push(Json v) {
  if (kind != kind_t::array) throw std::logic_error("Json::push on a value that is not an array");
  items.push_back(std::move(v));
  return *this;
}

Json& Json::set(std::string const& key, Json v) {
  if (kind != kind_t::object) throw std::logic_error("Json::set on a value that is not an object");
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (keys[i] == key) {
      items[i] = std::move(v);
      return *this;
    }
  }
  keys.push_back(key);
  items.push_back(std::move(v));
  return *this;
}

namespace {

// Length of the valid UTF-8 sequence starting at s[i], or 0 when the bytes there are not one
// (overlong forms, surrogates and values past U+10FFFF are refused).
std::size_t utf8Length(std::string const& s, std::size_t i) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(s[k]); };
  const unsigned char c = byte(i);
  std::size_t n = 0;
  std::uint32_t cp = 0;
  if (c < 0x80) return 1;
  if (c >= 0xC2 && c <= 0xDF) {
    n = 2;
    cp = c & 0x1Fu;
  } else if (c >= 0xE0 && c <= 0xEF) {
    n = 3;
    cp = c & 0x0Fu;
  } else if (c >= 0xF0 && c <= 0xF4) {
    n = 4;
    cp = c & 0x07u;
  } else {
    return 0;
  }
  if (s.size() - i < n) return 0;
  for (std::size_t k = 1; k < n; ++k) {
    if ((byte(i + k) & 0xC0u) != 0x80u) return 0;
    cp = (cp << 6) | (byte(i + k) & 0x3Fu);
  }
  if ((n == 3 && cp < 0x800) || (n == 4 && cp < 0x10000) || cp > 0x10FFFF) return 0;
  if (cp >= 0xD800 && cp <= 0xDFFF) return 0;
  return n;
}

void indent(std::ostream& out, int depth) {
  for (int i = 0; i < depth; ++i)
    out << "  ";
}

}  // namespace

void writeJsonString(std::ostream& out, std::string const& s) {
  out << '"';
  for (std::size_t i = 0; i < s.size();) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    switch (c) {
      case '"':
        out << "\\\"";
        break;
      case '\\':
        out << "\\\\";
        break;
      case '\b':
        out << "\\b";
        break;
      case '\f':
        out << "\\f";
        break;
      case '\n':
        out << "\\n";
        break;
      case '\r':
        out << "\\r";
        break;
      case '\t':
        out << "\\t";
        break;
      default:
        if (c < 0x20 || c == 0x7F) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out << buf;
        } else if (c < 0x80) {
          out << static_cast<char>(c);
        } else if (const std::size_t n = utf8Length(s, i)) {
          out.write(s.data() + i, static_cast<std::streamsize>(n));
          i += n;
          continue;
        } else {
          out << "\\ufffd";
        }
    }
    ++i;
  }
  out << '"';
}

std::string formatNumber(double v) {
  if (std::isnan(v)) return "nan";
  if (std::isinf(v)) return v > 0 ? "inf" : "-inf";
  char buf[64];
  const auto r = std::to_chars(buf, buf + sizeof buf, v);
  return std::string(buf, r.ptr);
}

std::string formatShort(double v, int digits) {
  if (std::isnan(v)) return "nan";
  if (std::isinf(v)) return v > 0 ? "inf" : "-inf";
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.*g", digits, v);
  return buf;
}

void Json::writeAt(std::ostream& out, int depth) const {
  switch (kind) {
    case kind_t::null:
      out << "null";
      break;
    case kind_t::boolean:
      out << (flag ? "true" : "false");
      break;
    case kind_t::integer:
      out << whole;
      break;
    case kind_t::unsigned_integer:
      out << uwhole;
      break;
    case kind_t::number:
      if (std::isfinite(real))
        out << formatNumber(real);
      else
        out << "null";
      break;
    case kind_t::string:
      writeJsonString(out, text);
      break;
    case kind_t::array:
    case kind_t::object: {
      const bool isObject = kind == kind_t::object;
      if (items.empty()) {
        out << (isObject ? "{}" : "[]");
        break;
      }
      // Arrays of plain values stay on one line; nested structures get one item per line.
      bool flat = !isObject;
      for (Json const& item : items)
        flat = flat && item.kind != kind_t::array && item.kind != kind_t::object;
      out << (isObject ? '{' : '[');
      for (std::size_t i = 0; i < items.size(); ++i) {
        if (flat) {
          if (i) out << ", ";
        } else {
          out << (i ? ",\n" : "\n");
          indent(out, depth + 1);
        }
        if (isObject) {
          writeJsonString(out, keys[i]);
          out << ": ";
        }
        items[i].writeAt(out, depth + 1);
      }
      if (!flat) {
        out << '\n';
        indent(out, depth);
      }
      out << (isObject ? '}' : ']');
      break;
    }
  }
}

void Json::write(std::ostream& out) const {
  writeAt(out, 0);
  out << '\n';
}

std::string Json::dump() const {
  std::ostringstream s;
  write(s);
  return s.str();
}

// ---- Arguments ---------------------------------------------------------------------------

bool parseInteger(std::string const& text, long long& out) {
  if (text.empty()) return false;
  const char* first = text.data();
  if (*first == '+') ++first;
  const char* last = text.data() + text.size();
  const auto r = std::from_chars(first, last, out);
  return r.ec == std::errc() && r.ptr == last;
}

bool parseNumber(std::string const& text, double& out) {
  if (text.empty()) return false;
  const char* first = text.data();
  if (*first == '+') ++first;
  const char* last = text.data() + text.size();
  const auto r = std::from_chars(first, last, out);
  return r.ec == std::errc() && r.ptr == last && std::isfinite(out);
}

Args::Args(std::vector<std::string> const& argv, std::vector<OptionDef> const& defs) {
  bool optionsEnded = false;
  for (std::size_t i = 0; i < argv.size(); ++i) {
    std::string const& a = argv[i];
    if (optionsEnded || a.size() < 2 || a[0] != '-' || (a[1] != '-' && a != "-h")) {
      // A lone "-" or a negative number is a positional argument.
      rest.push_back(a);
      continue;
    }
    if (a == "--") {
      optionsEnded = true;
      continue;
    }
    if (a == "--help" || a == "-h") {
      wantsHelp = true;
      continue;
    }
    const std::size_t eq = a.find('=');
    const std::string name = a.substr(0, eq);
    OptionDef const* def = nullptr;
    for (OptionDef const& d : defs)
      if (d.name == name) def = &d;
    if (!def) throw UsageError("unknown option '" + name + "'");
    std::string val;
    if (def->takesValue) {
      if (eq != std::string::npos) {
        val = a.substr(eq + 1);
      } else if (i + 1 < argv.size()) {
        val = argv[++i];
      } else {
        throw UsageError("option '" + name + "' needs a value");
      }
    } else if (eq != std::string::npos) {
      throw UsageError("option '" + name + "' takes no value");
    }
    if (!def->repeatable && has(name)) throw UsageError("option '" + name + "' given twice");
    given.emplace_back(name, val);
  }
}

bool Args::has(std::string const& name) const {
  for (auto const& g : given)
    if (g.first == name) return true;
  return false;
}

std::string Args::value(std::string const& name, std::string const& fallback) const {
  for (auto const& g : given)
    if (g.first == name) return g.second;
  return fallback;
}

std::vector<std::string> Args::values(std::string const& name) const {
  std::vector<std::string> all;
  for (auto const& g : given)
    if (g.first == name) all.push_back(g.second);
  return all;
}

double Args::number(std::string const& name, double fallback, double low, double high) const {
  if (!has(name)) return fallback;
  const std::string text = value(name);
  double v = 0;
  if (!parseNumber(text, v) || v < low || v > high)
    throw UsageError("option '" + name + "' wants a number from " + formatShort(low) + " to " +
                     formatShort(high) + ", not '" + text + "'");
  return v;
}

long long Args::integer(std::string const& name, long long fallback, long long low,
                        long long high) const {
  if (!has(name)) return fallback;
  const std::string text = value(name);
  long long v = 0;
  if (!parseInteger(text, v) || v < low || v > high)
    throw UsageError("option '" + name + "' wants a whole number from " + std::to_string(low) +
                     " to " + std::to_string(high) + ", not '" + text + "'");
  return v;
}

// ---- Context and progress ----------------------------------------------------------------

namespace {

// File names and reasons go on one line whatever they contain.
std::string oneLine(std::string s) {
  for (char& c : s)
    if (c == '\n' || c == '\r') c = ' ';
  while (!s.empty() && s.back() == ' ')
    s.pop_back();
  return s;
}

}  // namespace

void Context::fail(std::string const& file, std::string const& reason) {
  out.flush();
  err << "quib: " << oneLine(file) << ": " << oneLine(reason) << std::endl;
  status = exit_code::failed;
}

Progress::Progress(Context& context, std::size_t n) : ctx(context), total(n) {}

Progress::~Progress() {
  done();
}

void Progress::step(std::string const& label) {
  ++count;
  if (!ctx.terminal) return;
  ctx.err << "\r\033[K";
  if (total) ctx.err << '[' << count << '/' << total << "] ";
  ctx.err << oneLine(label) << std::flush;
  shown = true;
}

void Progress::done() {
  if (!shown) return;
  ctx.err << "\r\033[K" << std::flush;
  shown = false;
}

bool toWide(std::string const& text, std::wstring& out) {
  out.clear();
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t n = utf8Length(text, i);
    if (n == 0) return false;
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    std::uint32_t cp = n == 1   ? byte(i)
                       : n == 2 ? byte(i) & 0x1Fu
                       : n == 3 ? byte(i) & 0x0Fu
                                : byte(i) & 0x07u;
    for (std::size_t k = 1; k < n; ++k)
      cp = (cp << 6) | (byte(i + k) & 0x3Fu);
    out += static_cast<wchar_t>(cp);
    i += n;
  }
  return true;
}

std::string unreadableReason(std::string const& path) {
  std::error_code ec;
  const auto st = std::filesystem::status(path, ec);
  if (st.type() == std::filesystem::file_type::not_found) return "no such file or directory";
  if (st.type() == std::filesystem::file_type::directory) return "is a directory";
  errno = 0;
  std::ifstream probe(path, std::ios::binary);
  if (!probe) {
    const int e = errno;
    return e ? std::string(std::strerror(e)) : std::string("cannot be opened");
  }
  return "";
}

}  // namespace quib::tool
