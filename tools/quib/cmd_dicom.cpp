// quib dicom dump FILE [--tag gggg,eeee]: the element table of a DICOM file.
#include <quib/dicom.hpp>

#include "commands.hpp"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <ostream>

namespace quib::tool {

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

struct DumpOptions {
  std::vector<std::string> files;
  std::vector<std::string> tags;
  bool full = false;
};

const CLI::Validator tagName(
    [](std::string& text) -> std::string {
      std::uint16_t g = 0, n = 0;
      return parseTag(text, g, n) ? std::string() : "'" + text + "' is not a tag like 0010,0010";
    },
    "");

void dump(Context& ctx, DumpOptions const& o) {
  if (o.files.size() != 1) throw UsageError("'dump' takes exactly one FILE");
  std::vector<std::uint32_t> wanted;
  for (std::string const& t : o.tags) {
    std::uint16_t g = 0, n = 0;
    parseTag(t, g, n);
    wanted.push_back(quib::dicom::tag_key(g, n));
  }

  std::string const& path = o.files.front();
  ctx.subject = path;
  const InputFile input(path);
  if (std::string reason = unreadableReason(input.path()); !reason.empty())
    throw Failure(path, reason);
  quib::Dicom file;
  if (file.load(widePath(input.path())) < 0)
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

  const bool full = o.full || ctx.json;
  Json list = Json::array();
  for (Entry const& e : entries) {
    const std::string vr = vrOf(e.group, e.number);
    const quib::Dicom::Data data(e.group, e.number, static_cast<std::uint32_t>(e.value->size()));
    const std::string name = data.get_name();
    const bool text = isText(vr);
    std::string value = text ? textValue(*e.value) : std::string();
    if (ctx.json) {
      Json j = {{"tag", tagText(e.group, e.number)},
                {"vr", vr},
                {"name", name},
                {"length", e.value->size()}};
      if (text) j["value"] = value;
      list.push_back(std::move(j));
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
  if (ctx.json) writeJson(ctx.out, {{"file", path}, {"elements", list}});
}

}  // namespace

CLI::App& dicomGroup(CLI::App& quib) {
  return commandGroup(quib, "dicom", "list and read the contents of DICOM files");
}

void add_dicom_command(CLI::App& quib, Context& ctx) {
  auto o = std::make_shared<DumpOptions>();
  CLI::App& cmd = addCommand(
      dicomGroup(quib), "dump",
      "list the elements of a DICOM file\n\n"
      "Lists the elements of a DICOM file in tag order: tag, value representation and name "
      "from the data dictionary, the value length, and the value itself for text elements "
      "(binary values are shown by their size). Items of sequences with undefined length are "
      "listed as top-level elements; members of repeating groups appear under the group's "
      "first tag (60xx as 6000).");
  cmd.add_option("FILE", o->files, "the DICOM file; '-' reads standard input");
  cmd.add_option("--tag", o->tags,
                 "show only this element (hexadecimal); a tag that the file does not hold is an "
                 "error")
      ->type_name("gggg,eeee")
      ->allow_extra_args(false)
      ->check(tagName);
  cmd.add_flag("--full", o->full, "do not shorten long text values");
  addJsonFlag(cmd, ctx);
  onRun(cmd, ctx, [o, &ctx] { dump(ctx, *o); });
}

}  // namespace quib::tool
