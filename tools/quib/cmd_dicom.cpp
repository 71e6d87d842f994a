// quib dicom dump FILE...: the elements of DICOM files as dcmdump lists them, or as DICOM JSON.
#include <quib/dicom.hpp>
#include <quib/dicom_image.hpp>

#include "commands.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace quib::tool {

namespace {

struct DumpOptions {
  std::vector<std::string> files;
  std::vector<std::string> tags;  // keywords or tags
  bool classic = false;
  bool full = false;
};

std::string vr_text(std::uint16_t type) {
  const char a = char(type & 0xFF), b = char(type >> 8);
  if (a < 'A' || a > 'Z' || b < 'A' || b > 'Z') return "UN";
  return std::string{a, b};
}

std::string tag_text(std::uint32_t key) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "(%04x,%04x)", unsigned(key & 0xFFFF), unsigned(key >> 16));
  return buf;
}

std::string keyword_of(std::uint32_t key) {
  const std::uint16_t group = std::uint16_t(key & 0xFFFF), number = std::uint16_t(key >> 16);
  const quib::Dicom::Data data(group, number, 0);
  const std::string_view k = quib::dicom::get_keyword(data.get_element());
  if (!k.empty()) return std::string(k);
  if ((group & 1) == 0) return "UnknownTag";
  return number >= 0x0010 && number <= 0x00FF ? "PrivateCreator" : "PrivateTag";
}

bool is_binary(const std::string& vr) {
  return vr == "OB" || vr == "OW" || vr == "OD" || vr == "OF" || vr == "OL" || vr == "OV" ||
         vr == "UN";
}

bool is_number(const std::string& vr) {
  return vr == "US" || vr == "SS" || vr == "UL" || vr == "SL" || vr == "FL" || vr == "FD" ||
         vr == "UV" || vr == "SV";
}

std::string number_text(double v) {
  if (v == std::floor(v) && std::fabs(v) < 1e15) return std::to_string(static_cast<long long>(v));
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.17g", v);
  // The shortest form that reads back the same.
  for (int p = 1; p < 17; ++p) {
    char s[32];
    std::snprintf(s, sizeof s, "%.*g", p, v);
    if (std::strtod(s, nullptr) == v) return s;
  }
  return buf;
}

// The value as dcmdump shows it: text in brackets, numbers and tags separated by backslashes,
// binary values as hexadecimal bytes or words; long values cut after `limit` characters.
std::string shown(const quib::Dicom& d, std::uint32_t key, const std::string& vr, bool full) {
  const std::vector<unsigned char>& v = *d.find(key);
  if (v.empty()) return "(no value available)";
  std::string out;
  std::vector<double> numbers;
  std::vector<std::uint32_t> tags;
  std::string text;
  if (d.get_text(key, text) >= 0) {
    out = "[" + text + "]";
  } else if (vr == "AT" && d.get_tags(key, tags) > 0) {
    for (std::uint32_t t : tags)
      out += (out.empty() ? "" : "\\") + tag_text(t);
  } else if ((is_number(vr) || vr == "OF" || vr == "OD") && d.get_numbers(key, numbers) > 0) {
    for (double x : numbers) {
      out += (out.empty() ? "" : "\\") + number_text(x);
      if (!full && out.size() > 64) break;
    }
  } else {
    // Bytes, or 16-bit words for OW, in the file's byte order as numbers.
    const bool words = vr == "OW" && v.size() % 2 == 0;
    const bool little = (key & 0xFFFF) == 2 ? d.get_info().meta_little : d.get_info().little;
    char buf[8];
    for (std::size_t i = 0; i < v.size(); i += words ? 2 : 1) {
      if (words) {
        const unsigned w = little ? v[i] | (v[i + 1] << 8) : v[i + 1] | (v[i] << 8);
        std::snprintf(buf, sizeof buf, "%04x", w);
      } else {
        std::snprintf(buf, sizeof buf, "%02x", v[i]);
      }
      out += (i ? "\\" : "") + std::string(buf);
      if (!full && out.size() > 64) break;
    }
  }
  if (!full && out.size() > 66) out = out.substr(0, 63) + "...";
  return out;
}

std::string entry_line(int depth, std::uint32_t key, const std::string& vr,
                       const std::string& value, const std::string& length, int count,
                       const std::string& name) {
  std::string line(std::size_t(2 * depth), ' ');
  line += tag_text(key) + " " + vr + " " + value;
  const std::size_t column = std::size_t(2 * depth) + 52;
  if (line.size() < column) line.resize(column, ' ');
  if (length.empty()) return line.substr(0, line.find_last_not_of(' ') + 1);  // an item
  char tail[64];
  std::snprintf(tail, sizeof tail, " # %4s, %d ", length.c_str(), count);
  return line + tail + name;
}

// Writes the elements of one table, items of sequences indented below their sequence.
void list(std::ostream& out, const quib::Dicom& d, int depth, bool full,
          const std::vector<std::uint32_t>& only) {
  for (const quib::Dicom::Entry& e : d.get_entries()) {
    if (depth == 0 && !only.empty() && std::find(only.begin(), only.end(), e.key) == only.end())
      continue;
    const std::string vr = vr_text(e.type);
    const std::string name = keyword_of(e.key);
    const std::vector<unsigned char>& v = *d.find(e.key);
    const std::string length = e.undefined ? "u/l" : std::to_string(v.size());
    std::vector<quib::Dicom> items;
    std::vector<std::pair<std::size_t, std::size_t>> fragments;
    if (e.undefined && vr != "SQ" && vr != "UN" && d.get_fragments(e.key, fragments) >= 0) {
      out << entry_line(depth, e.key, vr,
                        "(PixelSequence #=" + std::to_string(fragments.size()) + ")", length, 1,
                        name)
          << '\n';
      for (const auto& [at, size] : fragments) {
        std::string bytes;
        char buf[4];
        for (std::size_t i = 0; i < size && (full || bytes.size() < 64); ++i) {
          std::snprintf(buf, sizeof buf, "%02x", v[at + i]);
          bytes += (i ? "\\" : "") + std::string(buf);
        }
        if (bytes.empty())
          bytes = "(no value available)";
        else if (!full && bytes.size() >= 64)
          bytes += "...";
        out << entry_line(depth + 1, quib::dicom::tag_key(0xFFFE, 0xE000), "pi", bytes,
                          std::to_string(size), 1, "Item")
            << '\n';
      }
      continue;
    }
    const int n = vr == "SQ" || (vr == "UN" && e.undefined) ? d.read_items(e.key, items) : -1;
    if (n >= 0) {
      out << entry_line(depth, e.key, vr,
                        std::string("(Sequence with ") + (e.undefined ? "undefined" : "explicit") +
                            " length #=" + std::to_string(n) + ")",
                        length, 1, name)
          << '\n';
      for (const quib::Dicom& item : items) {
        out << entry_line(depth + 1, quib::dicom::tag_key(0xFFFE, 0xE000), "na",
                          "(Item with " + std::to_string(item->size()) + " elements)", "", 1,
                          "Item")
            << '\n';
        list(out, item, depth + 2, full, {});
      }
      continue;
    }
    std::vector<std::string> values;
    const int count = d.get_strings(e.key, values) >= 0 ? int(values.size()) : 1;
    out << entry_line(depth, e.key, vr, shown(d, e.key, vr, full), length, v.empty() ? 0 : count,
                      name)
        << '\n';
  }
}

// ----- DICOM JSON ------------------------------------------------------------------------

void base64(std::ostream& out, const unsigned char* p, std::size_t n) {
  static const char* const digits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  char block[4096];
  std::size_t used = 0;
  for (std::size_t i = 0; i < n; i += 3) {
    const std::uint32_t a = p[i], b = i + 1 < n ? p[i + 1] : 0, c = i + 2 < n ? p[i + 2] : 0;
    const std::uint32_t w = (a << 16) | (b << 8) | c;
    block[used++] = digits[(w >> 18) & 63];
    block[used++] = digits[(w >> 12) & 63];
    block[used++] = i + 1 < n ? digits[(w >> 6) & 63] : '=';
    block[used++] = i + 2 < n ? digits[w & 63] : '=';
    if (used == sizeof block) {
      out.write(block, std::streamsize(used));
      used = 0;
    }
  }
  out.write(block, std::streamsize(used));
}

std::string quoted(const std::string& s) {
  return nlohmann::json(s).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void json_set(std::ostream& out, const quib::Dicom& d, const std::vector<std::uint32_t>& only,
              const std::string& extra = {});

void json_element(std::ostream& out, const quib::Dicom& d, const quib::Dicom::Entry& e) {
  const std::string vr = vr_text(e.type);
  char key[16];
  std::snprintf(key, sizeof key, "\"%04X%04X\"", unsigned(e.key & 0xFFFF), unsigned(e.key >> 16));
  out << key << ":{\"vr\":\"" << vr << '"';
  const std::vector<unsigned char>& v = *d.find(e.key);
  std::vector<quib::Dicom> items;
  if ((vr == "SQ" || (vr == "UN" && e.undefined)) && d.read_items(e.key, items) >= 0) {
    out << ",\"Value\":[";
    for (std::size_t i = 0; i < items.size(); ++i) {
      if (i) out << ',';
      json_set(out, items[i], {});
    }
    out << "]}";
    return;
  }
  if (v.empty()) {
    out << '}';
    return;
  }
  std::vector<double> numbers;
  std::vector<std::uint32_t> tags;
  std::vector<std::string> strings;
  std::vector<quib::Dicom::Name> names;
  if (is_binary(vr) || e.type == 0) {
    out << ",\"InlineBinary\":\"";
    base64(out, v.data(), v.size());
    out << "\"}";
    return;
  }
  out << ",\"Value\":[";
  bool first = true;
  const auto sep = [&] {
    if (!first) out << ',';
    first = false;
  };
  if (vr == "PN" && d.get_strings(e.key, strings) >= 0) {
    for (const std::string& s : strings) {
      sep();
      // Alphabetic, Ideographic and Phonetic groups, as written.
      if (s.empty()) {
        out << "null";  // an empty value among several is null in DICOM JSON
        continue;
      }
      const std::size_t a = s.find('='), b = a == std::string::npos ? a : s.find('=', a + 1);
      out << "{\"Alphabetic\":" << quoted(s.substr(0, a));
      if (a != std::string::npos) out << ",\"Ideographic\":" << quoted(s.substr(a + 1, b - a - 1));
      if (b != std::string::npos) out << ",\"Phonetic\":" << quoted(s.substr(b + 1));
      out << '}';
    }
  } else if (vr == "AT" && d.get_tags(e.key, tags) >= 0) {
    for (std::uint32_t t : tags) {
      sep();
      std::snprintf(key, sizeof key, "\"%04X%04X\"", unsigned(t & 0xFFFF), unsigned(t >> 16));
      out << key;
    }
  } else if ((is_number(vr) || vr == "DS" || vr == "IS") && d.get_numbers(e.key, numbers) >= 0) {
    for (double x : numbers) {
      sep();
      out << (std::isfinite(x) ? number_text(x) : "null");  // JSON has no NaN or infinity
    }
  } else if (d.get_strings(e.key, strings) >= 0) {
    for (const std::string& s : strings) {
      sep();
      out << (s.empty() ? "null" : quoted(s));
    }
  }
  out << "]}";
}

// `extra` is one more member written after the elements ("\"name\":value").
void json_set(std::ostream& out, const quib::Dicom& d, const std::vector<std::uint32_t>& only,
              const std::string& extra) {
  out << '{';
  bool first = true;
  for (const quib::Dicom::Entry& e : d.get_entries()) {
    if (!only.empty() && std::find(only.begin(), only.end(), e.key) == only.end()) continue;
    if (!first) out << ',';
    first = false;
    json_element(out, d, e);
  }
  if (!extra.empty()) out << (first ? "" : ",") << extra;
  out << '}';
}

// Whether the pixels of a file decode: its pixel module is read and frame 0 decoded (the
// module reads the file's own bytes, so only that one frame is held besides the file).
struct PixelsNote {
  bool decodes = false;
  int rows = 0, columns = 0, frames = 0;
  std::string photometric, reason;
};

PixelsNote check_pixels(const quib::Dicom& file) {
  PixelsNote note;
  quib::DicomPixels pixels;
  quib::Image frame;
  if (!pixels.load(file) || !pixels.decode(0, frame)) {
    note.reason = pixels.get_error();
    return note;
  }
  note.decodes = true;
  note.rows = pixels.get_rows();
  note.columns = pixels.get_columns();
  note.frames = pixels.get_frames();
  note.photometric = pixels.get_photometric();
  return note;
}

std::string pixels_line(const PixelsNote& note) {
  if (!note.decodes) return "# pixels: do not decode: " + note.reason;
  return "# pixels: " + std::to_string(note.columns) + " x " + std::to_string(note.rows) + ", " +
         std::to_string(note.frames) + (note.frames == 1 ? " frame, " : " frames, ") +
         note.photometric + ", decodes";
}

const CLI::Validator tagName(
    [](std::string& text) -> std::string {
      return quib::Dicom::Tag(text).is()
                 ? std::string()
                 : "'" + text + "' is neither a keyword like PatientName nor a tag like 0010,0010";
    },
    "");

void dump(Context& ctx, DumpOptions const& o) {
  if (o.files.empty()) throw UsageError("'dump' wants at least one FILE");
  std::vector<std::uint32_t> wanted;
  for (std::string const& t : o.tags)
    wanted.push_back(quib::Dicom::Tag(t).get_key());
  const quib::Dicom::read_t how =
      o.classic ? quib::Dicom::READ_CLASSIC : quib::Dicom::READ_STANDARD;
  const bool several = o.files.size() > 1;
  if (ctx.json && several) ctx.out << "[\n";
  bool first = true;
  for (std::string const& name : o.files) {
    ctx.subject = name;
    const InputFile input(name);
    if (std::string reason = unreadableReason(input.path()); !reason.empty()) {
      ctx.fail(name, reason);
      continue;
    }
    quib::Dicom file;
    if (file.load(widePath(input.path()), how) < 0) {
      ctx.fail(name, o.classic ? "not a DICOM file (no zero preamble and DICM magic)"
                               : "not a DICOM file (no DICM after the 128-byte preamble)");
      continue;
    }
    // The pixels are checked on the standard reading of the whole file only.
    static const std::uint32_t pixel_data = quib::Dicom::Tag("PixelData").get_key();
    const bool check =
        !ctx.json && !o.classic && wanted.empty() && file.find(pixel_data) != nullptr;
    const PixelsNote note = check ? check_pixels(file) : PixelsNote();
    if (ctx.json) {
      if (!first) ctx.out << ",\n";
      // DICOM JSON has no place for the note: tags are its only keys.
      json_set(ctx.out, file, wanted, std::string());
      ctx.out << (several ? "" : "\n");
    } else {
      if (several) ctx.out << (first ? "" : "\n") << "# " << name << '\n';
      list(ctx.out, file, 0, o.full, wanted);
      if (check) ctx.out << pixels_line(note) << '\n';
    }
    first = false;
    for (std::uint32_t key : wanted) {
      if (file.find(key) == nullptr) ctx.fail(name, "no element " + tag_text(key));
    }
    if (!file.is_complete()) {
      ctx.fail(name, "reading stopped early at byte " + std::to_string(file.get_stop_offset()) +
                         ", after " + std::to_string(file->size()) + " elements");
    }
  }
  if (ctx.json && several) ctx.out << "\n]\n";
}

}  // namespace

CLI::App& dicomGroup(CLI::App& quib) {
  return commandGroup(quib, "dicom", "list and read the contents of DICOM files");
}

void add_dicom_command(CLI::App& quib, Context& ctx) {
  auto o = std::make_shared<DumpOptions>();
  CLI::App& cmd = addCommand(dicomGroup(quib), "dump", paragraphs(R"(
      list the elements of DICOM files

      Lists the elements of each file in tag order as dcmdump does: tag, the VR the file gives
      (the dictionary's in implicit-VR files), the value (text decoded to UTF-8 under the
      file's character set, numbers decoded, binary values in hexadecimal, long values
      shortened), the length (u/l for undefined) and multiplicity, and the keyword. The items
      of sequences follow their sequence, indented; encapsulated pixel data lists its
      fragments. Without --tag or --classic, a file with Pixel Data ends with a note on
      whether its first frame decodes ('# pixels: 512 x 512, 1 frame, MONOCHROME2, decodes' or
      '# pixels: do not decode: REASON'; not in --json, whose keys are tags only). A file
      whose reading stopped early (cut or damaged) is listed as far as it was read, then
      reported as an error (exit status 1).
)"));
  cmd.add_option("FILE", o->files, "the DICOM files; '-' reads standard input")->required();
  cmd.add_option("--tag", o->tags,
                 "show only this element, by keyword (PatientName) or tag (0010,0010); an element "
                 "that the file does not hold is an error")
      ->type_name("TAG")
      ->allow_extra_args(false)
      ->check(tagName);
  cmd.add_flag("--classic", o->classic,
               "read the classic way (zero preamble, items of undefined-length sequences at the "
               "top level, transfer syntax switched by any UI element)");
  cmd.add_flag("--full", o->full, "do not shorten long values");
  addJsonFlag(cmd, ctx);
  onRun(cmd, ctx, [o, &ctx] { dump(ctx, *o); });
}

}  // namespace quib::tool
