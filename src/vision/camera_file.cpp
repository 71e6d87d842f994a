#include "vision/camera_file.hpp"

#include <pugixml.hpp>

#include <charconv>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

namespace quib::detail {

namespace {

// Elements of a sequence kept as numbers: the longest matrix of a camera file has nine.
constexpr std::size_t kKept = 9;

struct entry;

// One node of the document, which has at most two levels: the top mapping's values are
// scalars, sequences or mappings (the matrices), and a matrix's values are scalars or
// sequences. A sequence keeps its length and its first elements only, so that a long one costs
// no memory.
struct node {
  enum class kind_t { null, scalar, sequence, mapping } kind = kind_t::null;
  std::string text;  // a scalar, its escapes decoded
  bool quoted = false;
  std::size_t count = 0;  // a sequence's elements
  bool numeric = true;    // every element a number
  double first[kKept] = {};
  std::vector<entry> fields;  // a mapping
};

struct entry {
  std::string key;
  node value;
};

using entries = std::vector<entry>;

bool is_space(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && is_space(s.front()))
    s.remove_prefix(1);
  while (!s.empty() && is_space(s.back()))
    s.remove_suffix(1);
  return s;
}

bool starts_with(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}

// A number as the writer prints it: decimal, with an optional sign, and ".Nan", ".Inf" in the
// spellings YAML and the writer use. Words that strtod would read ("inf", "nan", hex) are not
// numbers here, as they are not for the file storage.
bool parse_number(std::string_view s, double& out) {
  if (s.empty()) return false;
  bool negative = false;
  if (s.front() == '+' || s.front() == '-') {
    negative = s.front() == '-';
    s.remove_prefix(1);
  }
  for (std::string_view nan : {".nan", ".NaN", ".NAN", ".Nan"}) {
    if (s == nan) {
      out = std::numeric_limits<double>::quiet_NaN();
      return true;
    }
  }
  for (std::string_view inf : {".inf", ".Inf", ".INF"}) {
    if (s == inf) {
      out = negative ? -std::numeric_limits<double>::infinity()
                     : std::numeric_limits<double>::infinity();
      return true;
    }
  }
  if (s.empty() || !((s.front() >= '0' && s.front() <= '9') || s.front() == '.')) return false;
  double value = 0;
  auto const [end, error] = std::from_chars(s.data(), s.data() + s.size(), value);
  if (error != std::errc() || end != s.data() + s.size()) return false;
  out = negative ? -value : value;
  return true;
}

bool parse_int(std::string_view s, int& out) {
  if (!s.empty() && s.front() == '+') s.remove_prefix(1);
  if (s.empty() || s.front() == '+') return false;
  auto const [end, error] = std::from_chars(s.data(), s.data() + s.size(), out);
  return error == std::errc() && end == s.data() + s.size();
}

void push_element(node& sequence, std::string_view token, bool quoted) {
  double number = 0;
  if (quoted || !parse_number(token, number)) {
    sequence.numeric = false;
  } else if (sequence.count < kKept) {
    sequence.first[sequence.count] = number;
  }
  ++sequence.count;
}

// Adds a field; a key given twice makes the document ambiguous and is refused.
bool add_field(entries& fields, std::string_view key, node&& value) {
  if (key.empty()) return false;
  for (entry const& f : fields) {
    if (f.key == key) return false;
  }
  fields.push_back(entry{std::string(key), std::move(value)});
  return true;
}

void append_utf8(std::string& out, std::uint32_t c) {
  if (c < 0x80) {
    out.push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (c >> 6)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xE0 | (c >> 12)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// A quoted scalar starting at text[at] (a double or a single quote) on one line. Double quotes
// take the writer's escapes (\" \\ \/ \' \n \r \t \b \f \0, \xHH and \uHHHH below the
// surrogates); single quotes take '' for a quote. `at` moves past the closing quote.
bool parse_quoted(std::string_view text, std::size_t& at, std::string& out) {
  char const quote = text[at++];
  out.clear();
  while (at < text.size()) {
    char const c = text[at++];
    if (c == '\n' || c == '\r') return false;
    if (c == quote) {
      if (quote == '\'' && at < text.size() && text[at] == '\'') {
        out.push_back('\'');
        ++at;
        continue;
      }
      return true;
    }
    if (c != '\\' || quote == '\'') {
      out.push_back(c);
      continue;
    }
    if (at >= text.size()) return false;
    char const e = text[at++];
    switch (e) {
      case '"':
      case '\\':
      case '/':
      case '\'':
        out.push_back(e);
        break;
      case 'n':
        out.push_back('\n');
        break;
      case 'r':
        out.push_back('\r');
        break;
      case 't':
        out.push_back('\t');
        break;
      case 'b':
        out.push_back('\b');
        break;
      case 'f':
        out.push_back('\f');
        break;
      case '0':
        out.push_back('\0');
        break;
      case 'x':
      case 'u': {
        const std::size_t digits = e == 'x' ? 2 : 4;
        if (text.size() - at < digits) return false;
        std::uint32_t code = 0;
        for (std::size_t k = 0; k < digits; ++k) {
          int const d = hex_digit(text[at++]);
          if (d < 0) return false;
          code = code * 16 + static_cast<std::uint32_t>(d);
        }
        if (code >= 0xD800 && code <= 0xDFFF) return false;
        append_utf8(out, code);
        break;
      }
      default:
        return false;
    }
  }
  return false;  // no closing quote
}

// Skips blanks and comments up to the line end: YAML's "#" when `comments` is set, otherwise
// the "//" that the writer puts in JSON.
void skip_space(std::string_view text, std::size_t& at, bool comments) {
  while (at < text.size()) {
    if (is_space(text[at])) {
      ++at;
    } else if (comments ? text[at] == '#' : text.substr(at, 2) == "//") {
      while (at < text.size() && text[at] != '\n')
        ++at;
    } else {
      break;
    }
  }
}

bool is_flow_end(char c) {
  return c == ',' || c == ']' || c == '}' || c == '[' || c == '{' || c == '#' || is_space(c);
}

// A flow sequence of scalars starting at text[at] == '[', which may run over several lines;
// `at` moves past the closing bracket. Nested collections are refused.
bool parse_flow_sequence(std::string_view text, std::size_t& at, node& out, bool comments) {
  ++at;  // '['
  out = node();
  out.kind = node::kind_t::sequence;
  skip_space(text, at, comments);
  if (at < text.size() && text[at] == ']') {
    ++at;
    return true;
  }
  std::string decoded;
  while (at < text.size()) {
    char const c = text[at];
    if (c == '"' || c == '\'') {
      if (!parse_quoted(text, at, decoded)) return false;
      push_element(out, decoded, true);
    } else {
      const std::size_t start = at;
      while (at < text.size() && !is_flow_end(text[at]))
        ++at;
      if (at == start) return false;
      push_element(out, text.substr(start, at - start), false);
    }
    skip_space(text, at, comments);
    if (at >= text.size()) return false;
    if (text[at] == ']') {
      ++at;
      return true;
    }
    if (text[at] != ',') return false;
    ++at;
    skip_space(text, at, comments);
  }
  return false;
}

// ---- YAML: the block mapping the writer makes ----

// The end of the line that holds text[at] (the '\n' or the text's end).
std::size_t line_end(std::string_view text, std::size_t at) {
  const std::size_t end = text.find('\n', at);
  return end == std::string_view::npos ? text.size() : end;
}

// True when text[at, end) holds only blanks and perhaps a comment.
bool rest_is_blank(std::string_view text, std::size_t at, std::size_t end) {
  while (at < end && (text[at] == ' ' || text[at] == '\t' || text[at] == '\r'))
    ++at;
  return at == end || text[at] == '#';
}

bool is_key_char(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-' || c == '.';
}

// "key:" at text[at]; `at` moves past the colon, which must end the line or be followed by a
// blank. Keys are plain words, as the writer makes them.
bool parse_key(std::string_view text, std::size_t& at, std::size_t end, std::string_view& key) {
  const std::size_t start = at;
  while (at < end && is_key_char(text[at]))
    ++at;
  key = text.substr(start, at - start);
  if (key.empty() || at >= end || text[at] != ':') return false;
  ++at;
  return at == end || text[at] == ' ' || text[at] == '\t' || text[at] == '\r';
}

// The value after "key:" when it is on the same line: a quoted or plain scalar, or a flow
// sequence (which may continue on later lines). `at` moves to the end of the value's last line.
bool parse_inline_value(std::string_view text, std::size_t& at, node& out) {
  std::size_t end = line_end(text, at);
  while (at < end && (text[at] == ' ' || text[at] == '\t'))
    ++at;
  if (at >= end) return false;
  char const c = text[at];
  if (c == '[') {
    if (!parse_flow_sequence(text, at, out, true)) return false;
    end = line_end(text, at);
  } else if (c == '"' || c == '\'') {
    out = node();
    out.kind = node::kind_t::scalar;
    out.quoted = true;
    if (!parse_quoted(text, at, out.text)) return false;
  } else if (std::strchr("{&*!|>@`%#]},?", c) != nullptr) {
    return false;  // anchors, tags, block scalars, flow mappings: not in a camera file
  } else {
    // A plain scalar runs to a comment or the line end.
    std::size_t stop = at;
    while (stop < end && !(text[stop] == '#' && (text[stop - 1] == ' ' || text[stop - 1] == '\t')))
      ++stop;
    out = node();
    out.kind = node::kind_t::scalar;
    out.text = std::string(trim(text.substr(at, stop - at)));
    at = end;
    return true;
  }
  if (!rest_is_blank(text, at, end)) return false;
  at = end;
  return true;
}

// Leading blanks of the line at text[at]; npos when a tab indents it (YAML forbids that).
std::size_t indentation(std::string_view text, std::size_t at, std::size_t end) {
  std::size_t n = 0;
  while (at + n < end && text[at + n] == ' ')
    ++n;
  if (at + n < end && text[at + n] == '\t') return std::string_view::npos;
  return n;
}

// The indented block mapping under a top-level key, from the line at text[at]; `at` moves to
// the first line that is not part of it. Its values are scalars or flow sequences.
bool parse_block_mapping(std::string_view text, std::size_t& at, node& out) {
  out = node();
  std::size_t indent = 0;
  while (at < text.size()) {
    const std::size_t end = line_end(text, at);
    if (rest_is_blank(text, at, end)) {
      at = end + 1;
      continue;
    }
    const std::size_t n = indentation(text, at, end);
    if (n == std::string_view::npos) return false;
    if (n == 0) break;  // the next top-level key
    if (indent == 0) indent = n;
    if (n != indent) return false;
    std::size_t p = at + n;
    std::string_view key;
    node value;
    if (!parse_key(text, p, end, key) || !parse_inline_value(text, p, value)) return false;
    if (!add_field(out.fields, key, std::move(value))) return false;
    at = p + 1;
  }
  out.kind = out.fields.empty() ? node::kind_t::null : node::kind_t::mapping;
  return true;
}

bool read_yaml(std::string_view text, entries& fields) {
  bool marker = false;
  bool started = false;
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t end = line_end(text, at);
    std::string_view const line = text.substr(at, end - at);
    if (rest_is_blank(text, at, end)) {
      at = end + 1;
      continue;
    }
    if (line[0] == ' ' || line[0] == '\t') return false;  // indented where a key belongs
    bool const bare = line.size() == 3 ||
                      (line.size() > 3 && (line[3] == ' ' || line[3] == '\t' || line[3] == '\r'));
    if (starts_with(line, "---") && bare) {
      if (started || marker || !rest_is_blank(text, at + 3, end)) return false;
      marker = true;
      at = end + 1;
      continue;
    }
    if (starts_with(line, "...") && bare) {
      // The end of the document: nothing but blanks and comments may follow.
      for (at = end + 1; at < text.size(); at = line_end(text, at) + 1) {
        if (!rest_is_blank(text, at, line_end(text, at))) return false;
      }
      break;
    }
    if (line[0] == '%') {  // a directive, such as the writer's "%YAML:1.0"
      if (started || marker) return false;
      at = end + 1;
      continue;
    }
    std::size_t p = at;
    std::string_view key;
    if (!parse_key(text, p, end, key)) return false;
    // What follows the colon: nothing (an indented mapping or null), the matrix tag (an
    // indented mapping), or a value on this line.
    std::size_t q = p;
    while (q < end && (text[q] == ' ' || text[q] == '\t'))
      ++q;
    bool tagged = false;
    if (starts_with(text.substr(q, end - q), "!!opencv-matrix")) {
      tagged = true;
      q += std::strlen("!!opencv-matrix");
      if (q < end && !(text[q] == ' ' || text[q] == '\t' || text[q] == '\r')) return false;
    }
    node value;
    if (rest_is_blank(text, q, end)) {
      at = end + 1;
      if (!parse_block_mapping(text, at, value)) return false;
      if (tagged && value.kind != node::kind_t::mapping) return false;
    } else {
      if (tagged || !parse_inline_value(text, p, value)) return false;
      at = p + 1;
    }
    if (!add_field(fields, key, std::move(value))) return false;
    started = true;
  }
  return started;
}

// ---- JSON: the object the writer makes for a ".json" name ----

bool parse_json_scalar(std::string_view text, std::size_t& at, node& out) {
  out = node();
  out.kind = node::kind_t::scalar;
  if (text[at] == '"') {
    out.quoted = true;
    return parse_quoted(text, at, out.text);
  }
  const std::size_t start = at;
  while (at < text.size() && !is_flow_end(text[at]) && text[at] != ':')
    ++at;
  out.text = std::string(text.substr(start, at - start));
  return at > start;
}

// An object starting at text[at] == '{'; `depth` 0 is the document, 1 a matrix.
bool parse_json_object(std::string_view text, std::size_t& at, entries& fields, int depth) {
  ++at;  // '{'
  skip_space(text, at, false);
  if (at < text.size() && text[at] == '}') {
    ++at;
    return true;
  }
  std::string key;
  while (at < text.size()) {
    if (text[at] != '"' || !parse_quoted(text, at, key)) return false;
    skip_space(text, at, false);
    if (at >= text.size() || text[at] != ':') return false;
    ++at;
    skip_space(text, at, false);
    if (at >= text.size()) return false;
    node value;
    if (text[at] == '[') {
      if (!parse_flow_sequence(text, at, value, false)) return false;
    } else if (text[at] == '{') {
      if (depth > 0 || !parse_json_object(text, at, value.fields, depth + 1)) return false;
      value.kind = node::kind_t::mapping;
    } else if (!parse_json_scalar(text, at, value)) {
      return false;
    }
    if (!add_field(fields, key, std::move(value))) return false;
    skip_space(text, at, false);
    if (at >= text.size()) return false;
    if (text[at] == '}') {
      ++at;
      return true;
    }
    if (text[at] != ',') return false;
    ++at;
    skip_space(text, at, false);
  }
  return false;
}

bool read_json(std::string_view text, entries& fields) {
  std::size_t at = 0;
  skip_space(text, at, false);
  if (!parse_json_object(text, at, fields, 0)) return false;
  skip_space(text, at, false);
  return at == text.size();
}

// ---- XML: the "opencv_storage" document ----

// An element's text as a scalar: a value in double quotes is a quoted string (the writer
// quotes strings that could pass for something else); entities are decoded by the parser.
node xml_scalar(std::string_view content) {
  node out;
  content = trim(content);
  if (content.empty()) return out;  // null
  out.kind = node::kind_t::scalar;
  if (content.size() >= 2 && content.front() == '"' && content.back() == '"') {
    out.quoted = true;
    content = content.substr(1, content.size() - 2);
  }
  out.text = std::string(content);
  return out;
}

node xml_sequence(std::string_view content) {
  node out;
  out.kind = node::kind_t::sequence;
  std::size_t at = 0;
  while (true) {
    while (at < content.size() && is_space(content[at]))
      ++at;
    if (at >= content.size()) break;
    const std::size_t start = at;
    while (at < content.size() && !is_space(content[at]))
      ++at;
    const std::string_view token = content.substr(start, at - start);
    push_element(out, token, token.front() == '"');
  }
  return out;
}

// The text of an element that holds only text (and perhaps comments); false when it holds
// elements or other nodes.
bool xml_text(pugi::xml_node node, std::string& out) {
  out.clear();
  for (pugi::xml_node child : node.children()) {
    const pugi::xml_node_type type = child.type();
    if (type == pugi::node_pcdata || type == pugi::node_cdata) {
      out += child.value();
    } else if (type != pugi::node_comment) {
      return false;
    }
  }
  return true;
}

bool read_xml(std::string_view text, entries& fields) {
  pugi::xml_document doc;
  const pugi::xml_parse_result parsed = doc.load_buffer(
      text.data(), text.size(), pugi::parse_default | pugi::parse_declaration, pugi::encoding_utf8);
  if (!parsed) return false;
  pugi::xml_node root;
  for (pugi::xml_node child : doc.children()) {
    if (child.type() != pugi::node_element) continue;
    if (root) return false;  // one document element only
    root = child;
  }
  if (!root || std::strcmp(root.name(), "opencv_storage") != 0) return false;
  std::string content;
  for (pugi::xml_node child : root.children()) {
    const pugi::xml_node_type type = child.type();
    if (type == pugi::node_comment) continue;
    if (type != pugi::node_element) return false;  // stray text between the fields
    node value;
    const pugi::xml_attribute kind = child.attribute("type_id");
    bool const mapping =
        kind || child.find_child([](pugi::xml_node n) { return n.type() == pugi::node_element; });
    if (mapping) {
      if (kind && std::strcmp(kind.value(), "opencv-matrix") != 0) return false;
      for (pugi::xml_node member : child.children()) {
        if (member.type() == pugi::node_comment) continue;
        if (member.type() != pugi::node_element) {
          if (member.type() == pugi::node_pcdata && trim(member.value()).empty()) continue;
          return false;
        }
        if (!xml_text(member, content)) return false;
        bool const data = std::strcmp(member.name(), "data") == 0;
        if (!add_field(value.fields, member.name(),
                       data ? xml_sequence(content) : xml_scalar(content)))
          return false;
      }
      value.kind = node::kind_t::mapping;
    } else {
      if (!xml_text(child, content)) return false;
      value = xml_scalar(content);
    }
    if (!add_field(fields, child.name(), std::move(value))) return false;
  }
  return true;
}

// ---- The camera's fields ----

node const* find(entries const& fields, std::string_view key) {
  for (entry const& f : fields) {
    if (f.key == key) return &f.value;
  }
  return nullptr;
}

// An absent or null size is 0; anything but a plain integer fails.
bool read_size(entries const& fields, std::string_view key, int& out) {
  node const* v = find(fields, key);
  if (v == nullptr || v->kind == node::kind_t::null) {
    out = 0;
    return true;
  }
  return v->kind == node::kind_t::scalar && !v->quoted && parse_int(v->text, out);
}

bool read_dimension(entries const& fields, std::string_view key, int& out) {
  node const* v = find(fields, key);
  return v != nullptr && v->kind == node::kind_t::scalar && !v->quoted && parse_int(v->text, out) &&
         out > 0;
}

template <std::size_t N>
bool read_matrix(entries const& fields, std::string_view key, double (&out)[N]) {
  static_assert(N <= kKept);
  node const* m = find(fields, key);
  if (m == nullptr || m->kind != node::kind_t::mapping) return false;
  int rows = 0;
  int cols = 0;
  if (!read_dimension(m->fields, "rows", rows) || !read_dimension(m->fields, "cols", cols))
    return false;
  node const* dt = find(m->fields, "dt");
  node const* data = find(m->fields, "data");
  if (dt == nullptr || dt->kind != node::kind_t::scalar || dt->text != "d") return false;
  if (data == nullptr || data->kind != node::kind_t::sequence || !data->numeric) return false;
  const std::uint64_t elements =
      static_cast<std::uint64_t>(rows) * static_cast<std::uint64_t>(cols);
  if (elements != data->count || elements < N) return false;
  std::copy(data->first, data->first + N, out);
  return true;
}

}  // namespace

bool read_camera_file(std::string_view text, Projection::Info& info) {
  // A camera file is text: control bytes other than blanks and line ends mean it is not one.
  for (char const ch : text) {
    auto const c = static_cast<unsigned char>(ch);
    if ((c < 0x20 && c != '\t' && c != '\n' && c != '\r') || c == 0x7f) return false;
  }
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return false;
  entries fields;
  bool const read = text[first] == '<'   ? read_xml(text, fields)
                    : text[first] == '{' ? read_json(text.substr(first), fields)
                                         : read_yaml(text, fields);
  if (!read) return false;
  node const* format = find(fields, "format");
  return format != nullptr && format->kind == node::kind_t::scalar &&
         format->text == "camera.projection" && read_size(fields, "image_width", info.size.cx) &&
         read_size(fields, "image_height", info.size.cy) &&
         read_matrix(fields, "camera_matrix", info.matrix) &&
         read_matrix(fields, "distortion_coefficients", info.distortion) &&
         read_matrix(fields, "rotation_coefficients", info.rotation) &&
         read_matrix(fields, "translation_coefficients", info.translation);
}

}  // namespace quib::detail
