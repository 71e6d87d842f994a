// quib name next|number|strip PATHS...: numbered file names of a series ("scan#7.png").
#include <quib/path.hpp>

#include "commands.hpp"

#include <charconv>
#include <cstdint>
#include <limits>
#include <memory>
#include <ostream>

namespace quib::tool {

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

enum class action { next, number, strip };

void nameAll(Context& ctx, action what, std::vector<std::string> const& paths,
             std::string const& ext) {
  Json all = Json::array();
  for (std::string const& path : paths) {
    ctx.subject = path;
    const Parts p = split(path, ext);
    Json j = {{"path", path}};
    std::string line;
    try {
      if (what == action::next) {
        const std::int64_t n = sharpNumber(path, p.stem);
        if (n == std::numeric_limits<std::int64_t>::max())
          throw Failure(path, "the number cannot grow any further");
        line = quib::add_sharp_number(quib::sub_sharp_number(p.stem), n < 0 ? 1 : n + 1) + p.ext;
        j["next"] = line;
      } else if (what == action::number) {
        const std::int64_t n = sharpNumber(path, p.stem);
        const std::string suffix = quib::get_suffix_number(p.stem);
        j["number"] = n < 0 ? Json() : Json(n);
        j["suffix"] = suffix.empty() ? Json() : Json(suffix);
        line = (n < 0 ? std::string("-") : std::to_string(n)) + '\t' +
               (suffix.empty() ? std::string("-") : suffix) + '\t' + path;
      } else {
        const std::string plain = quib::sub_sharp_number(p.stem);
        line = (plain != p.stem ? plain : quib::sub_suffix_number(p.stem)) + p.ext;
        j["stripped"] = line;
      }
    } catch (Failure const& f) {
      ctx.fail(f.file(), f.what());
      continue;
    }
    if (ctx.json)
      all.push_back(j);
    else
      ctx.out << line << '\n';
  }
  if (ctx.json) writeJson(ctx.out, all);
}

}  // namespace

void add_name_command(CLI::App& quib, Context& ctx) {
  CLI::App& name = commandGroup(
      quib, "name",
      "next, number and plain names of a numbered file series\n\n"
      "Works out the names of a numbered file series, where the number follows a '#' just "
      "before the extension (scan#1.png, scan#2.png, ...). Only the names are computed: no "
      "file is touched.");
  const auto add = [&](action what, char const* word, char const* description) {
    struct Options {
      std::vector<std::string> paths;
      std::string ext;
    };
    auto o = std::make_shared<Options>();
    CLI::App& cmd = addCommand(name, word, description);
    cmd.add_option("PATHS", o->paths, "names of the series")->required();
    cmd.add_option("--ext", o->ext,
                   "the extension of the series (e.g. .png), matched without regard to case; "
                   "by default each name's own extension is used")
        ->type_name("EXT");
    addJsonFlag(cmd, ctx);
    onRun(cmd, ctx, [o, what, &ctx] { nameAll(ctx, what, o->paths, o->ext); });
  };
  add(action::next, "next",
      "the name that follows each one\n\n"
      "scan#7.png gives scan#8.png, scan.png gives scan#1.png.");
  add(action::number, "number",
      "the '#' number of each name, and the plain number at its end\n\n"
      "Prints the '#' number, the plain number at the end of the name ('-' when there is none) "
      "and the path, separated by tabs.");
  add(action::strip, "strip",
      "each name without its number\n\n"
      "scan#7.png gives scan.png; a name without a '#' number loses its trailing number and the "
      "character before it (frame_12.png gives frame.png).");
}

}  // namespace quib::tool
