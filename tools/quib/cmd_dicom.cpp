// quib dicom dump FILE [--tag gggg,eeee]: the element table of a DICOM file.
#include <quib/dicom.hpp>

#include "commands.hpp"

#include <algorithm>
#include <cstdio>
#include <ostream>

namespace quib::tool {

char const* const dicomHelp =
    "usage: quib dicom dump [--tag gggg,eeee]... [--full] [--json] FILE\n"
    "\n"
    "Lists the elements of a DICOM file in tag order: tag, value representation and name\n"
    "from the data dictionary, the value length, and the value itself for text elements\n"
    "(binary values are shown by their size). Items of sequences with undefined length are\n"
    "listed as top-level elements; members of repeating groups appear under the group's\n"
    "first tag (60xx as 6000).\n"
    "\n"
    "Options:\n"
    "  --tag gggg,eeee   show only this element (hexadecimal; may be repeated); a tag\n"
    "                    that the file does not hold is an error\n"
    "  --full            do not shorten long text values\n"
    "  --json            print one JSON object\n";

namespace {

struct Entry {
  std::uint16_t group;
  std::uint16_t number;
  std::vector<unsigned char> const* value;
};

// The dictionary's VR for a tag, looked up as the reader does: the masked table first.
std::string vrOf(std::uint16_t group, std::uint16_t number) {
  std::uint16_t type = 0;
  if (auto const* m = quib::dicom::find_map(group, number))
    type = m->type;
  else if (auto const* s = quib::dicom::find_set(group, number))
    type = s->type;
  const char a = static_cast<char>(type & 0xFF);
  const char b = static_cast<char>(type >> 8);
  if (a < 'A' || a > 'Z' || b < 'A' || b > 'Z') return "--";
  return std::string{a, b};
}

bool isText(std::string const& vr) {
  static char const* const text[] = {"AE", "AS", "CS", "DA", "DS", "DT", "IS", "LO", "LT",
                                     "PN", "SH", "ST", "TM", "UC", "UI", "UR", "UT"};
  return std::find_if(std::begin(text), std::end(text), [&](char const* t) { return vr == t; }) !=
         std::end(text);
}

// A text value without its padding; control bytes are shown as '.'.
std::string textValue(std::vector<unsigned char> const& v) {
  std::size_t end = v.size();
  while (end > 0 && (v[end - 1] == ' ' || v[end - 1] == '\0'))
    --end;
  std::string s;
  for (std::size_t i = 0; i < end; ++i) {
    const unsigned char c = v[i];
    s += (c < 0x20 || c == 0x7F) ? '.' : static_cast<char>(c);
  }
  return s;
}

std::string tagText(std::uint16_t group, std::uint16_t number) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%04x,%04x", group, number);
  return buf;
}

bool parseTag(std::string const& text, std::uint16_t& group, std::uint16_t& number) {
  std::string t = text;
  if (t.size() == 11 && t.front() == '(' && t.back() == ')') t = t.substr(1, 9);
  if (t.size() != 9 || t[4] != ',') return false;
  unsigned long parts[2];
  for (int i = 0; i < 2; ++i) {
    const std::string h = t.substr(i == 0 ? 0 : 5, 4);
    if (h.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) return false;
    parts[i] = std::stoul(h, nullptr, 16);
  }
  group = static_cast<std::uint16_t>(parts[0]);
  number = static_cast<std::uint16_t>(parts[1]);
  return true;
}

}  // namespace

int runDicom(Context& ctx, std::vector<std::string> const& argv) {
  const Args args(argv, {{"--tag", true, true}, {"--full"}});
  auto const& pos = args.positional();
  if (pos.empty()) throw UsageError("missing action (dump)");
  if (pos[0] != "dump") throw UsageError("unknown action '" + pos[0] + "'");
  if (pos.size() != 2) throw UsageError("'dump' takes exactly one FILE");
  std::vector<std::uint32_t> wanted;
  for (std::string const& t : args.values("--tag")) {
    std::uint16_t g = 0, n = 0;
    if (!parseTag(t, g, n)) throw UsageError("'" + t + "' is not a tag like 0010,0010");
    wanted.push_back(quib::dicom::tag_key(g, n));
  }

  std::string const& path = pos[1];
  ctx.subject = path;
  if (std::string reason = unreadableReason(path); !reason.empty()) throw Failure(path, reason);
  std::wstring wide;
  if (!toWide(path, wide)) throw Failure(path, "the file name is not valid UTF-8");
  quib::Dicom file;
  if (file.load(wide) < 0)
    throw Failure(path, "not a DICOM file (no zero preamble and DICM magic)");

  std::vector<Entry> entries;
  for (auto const& [key, value] : file.elements()) {
    if (!wanted.empty() && std::find(wanted.begin(), wanted.end(), key) == wanted.end()) continue;
    entries.push_back(
        {static_cast<std::uint16_t>(key & 0xFFFF), static_cast<std::uint16_t>(key >> 16), &value});
  }
  std::sort(entries.begin(), entries.end(), [](Entry const& a, Entry const& b) {
    return a.group != b.group ? a.group < b.group : a.number < b.number;
  });
  for (std::uint32_t key : wanted) {
    if (file.elements().count(key) == 0)
      ctx.fail(path, "no element " + tagText(static_cast<std::uint16_t>(key & 0xFFFF),
                                             static_cast<std::uint16_t>(key >> 16)));
  }

  const bool full = args.has("--full") || ctx.json;
  Json list = Json::array();
  for (Entry const& e : entries) {
    const std::string vr = vrOf(e.group, e.number);
    const quib::Dicom::Data data(e.group, e.number, static_cast<std::uint32_t>(e.value->size()));
    const std::string name = data.get_name();
    const bool text = isText(vr);
    std::string value = text ? textValue(*e.value) : std::string();
    if (ctx.json) {
      Json j = Json::object();
      j.set("tag", tagText(e.group, e.number))
          .set("vr", vr)
          .set("name", name)
          .set("length", e.value->size());
      if (text) j.set("value", value);
      list.push(j);
      continue;
    }
    if (!full && value.size() > 64) value = value.substr(0, 61) + "...";
    std::string label = name.empty() ? "(unknown)" : name;
    label.resize(std::max<std::size_t>(label.size(), 40), ' ');
    ctx.out << '(' << tagText(e.group, e.number) << ") " << vr << ' ' << label << ' ';
    if (text)
      ctx.out << '[' << value << "]\n";
    else
      ctx.out << '(' << e.value->size() << " bytes)\n";
  }
  if (ctx.json) {
    Json j = Json::object();
    j.set("file", path).set("elements", list);
    j.write(ctx.out);
  }
  return ctx.status;
}

}  // namespace quib::tool
