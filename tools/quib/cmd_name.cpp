// quib name next|number|strip PATHS...: numbered file names of a series ("scan#7.png").
#include <quib/path.hpp>

#include "commands.hpp"

#include <charconv>
#include <cstdint>
#include <limits>
#include <ostream>

namespace quib::tool {

char const* const nameHelp =
    "usage: quib name next   [--ext EXT] [--json] PATHS...\n"
    "       quib name number [--ext EXT] [--json] PATHS...\n"
    "       quib name strip  [--ext EXT] [--json] PATHS...\n"
    "\n"
    "Works out the names of a numbered file series, where the number follows a '#' just\n"
    "before the extension (scan#1.png, scan#2.png, ...). Only the names are computed: no\n"
    "file is touched.\n"
    "\n"
    "  next     the name that follows: scan#7.png gives scan#8.png, scan.png gives scan#1.png\n"
    "  number   the '#' number of each name, and the plain number at its end if any\n"
    "           ('-' when there is none)\n"
    "  strip    the name without its number: scan#7.png gives scan.png; a name without a\n"
    "           '#' number loses its trailing number and the character before it\n"
    "           (frame_12.png gives frame.png)\n"
    "\n"
    "Options:\n"
    "  --ext EXT   the extension of the series (e.g. .png), matched without regard to case;\n"
    "              by default each name's own extension is used\n"
    "  --json      print a JSON array with one object per path\n";

namespace {

// A name split into the part that carries the numbers and its extension.
struct Parts {
  std::string stem;
  std::string ext;
};

Parts split(std::string const& path, std::string const& ext) {
  if (!ext.empty()) {
    // The library's rule: the extension counts when the lower-cased path ends with it.
    std::string lower;
    for (char c : ext)
      lower += (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    if (quib::is_ext_path(path, lower))
      return {path.substr(0, path.size() - lower.size()), path.substr(path.size() - lower.size())};
    return {path, ext};  // as the library does, a name without the extension gets it
  }
  // The extension of the file name only: a dot in a folder name does not count.
  const std::string own = quib::get_extension(path);
  if (own.find('/') != std::string::npos || own.size() == path.size() ||
      path[path.size() - own.size() - 1] == '/')
    return {path, ""};
  return {quib::sub_extension(path), own};
}

// The '#' number of a stem, or -1 when it has none; Failure past the 64-bit range.
std::int64_t sharpNumber(std::string const& path, std::string const& stem) {
  const std::string digits = quib::get_sharp_number(stem);
  if (digits.empty()) return -1;
  std::int64_t n = 0;
  const auto r = std::from_chars(digits.data(), digits.data() + digits.size(), n);
  if (r.ec != std::errc() || r.ptr != digits.data() + digits.size())
    throw Failure(path, "the number " + digits + " is too large");
  return n;
}

}  // namespace

int runName(Context& ctx, std::vector<std::string> const& argv) {
  const Args args(argv, {{"--ext", true}});
  auto const& pos = args.positional();
  if (pos.empty()) throw UsageError("missing action (next, number or strip)");
  const std::string action = pos[0];
  if (action != "next" && action != "number" && action != "strip")
    throw UsageError("unknown action '" + action + "'");
  if (pos.size() < 2) throw UsageError("no PATHS given");
  const std::string ext = args.value("--ext");

  Json all = Json::array();
  for (std::size_t i = 1; i < pos.size(); ++i) {
    std::string const& path = pos[i];
    ctx.subject = path;
    const Parts p = split(path, ext);
    Json j = Json::object();
    j.set("path", path);
    std::string line;
    try {
      if (action == "next") {
        const std::int64_t n = sharpNumber(path, p.stem);
        if (n == std::numeric_limits<std::int64_t>::max())
          throw Failure(path, "the number cannot grow any further");
        line = quib::add_sharp_number(quib::sub_sharp_number(p.stem), n < 0 ? 1 : n + 1) + p.ext;
        j.set("next", line);
      } else if (action == "number") {
        const std::int64_t n = sharpNumber(path, p.stem);
        const std::string suffix = quib::get_suffix_number(p.stem);
        j.set("number", n < 0 ? Json() : Json(n));
        j.set("suffix", suffix.empty() ? Json() : Json(suffix));
        line = (n < 0 ? std::string("-") : std::to_string(n)) + '\t' +
               (suffix.empty() ? std::string("-") : suffix) + '\t' + path;
      } else {
        const std::string plain = quib::sub_sharp_number(p.stem);
        line = (plain != p.stem ? plain : quib::sub_suffix_number(p.stem)) + p.ext;
        j.set("stripped", line);
      }
    } catch (Failure const& f) {
      ctx.fail(f.file(), f.what());
      continue;
    }
    if (ctx.json)
      all.push(j);
    else
      ctx.out << line << '\n';
  }
  if (ctx.json) all.write(ctx.out);
  return ctx.status;
}

}  // namespace quib::tool
