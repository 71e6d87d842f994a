// quib stl info|convert|merge: STL meshes.
#include <quib/stl.hpp>

#include "commands.hpp"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <ostream>

namespace quib::tool {

char const* const stlHelp =
    "usage: quib stl info    [--json] FILES...\n"
    "       quib stl convert [--ascii | --binary] [--precision N] [--name NAME] IN OUT\n"
    "       quib stl merge   [--ascii | --binary] [--precision N] [--name NAME] OUT IN...\n"
    "\n"
    "  info     the solid's name, encoding, triangle and distinct vertex counts and the\n"
    "           bounding box of each file\n"
    "  convert  writes IN to OUT in the other encoding (ASCII <-> binary), or in the one\n"
    "           chosen with --ascii or --binary\n"
    "  merge    writes the triangles of all IN files into one file OUT; identical\n"
    "           vertices are shared and counted once\n"
    "\n"
    "Options:\n"
    "  --ascii         write ASCII STL\n"
    "  --binary        write binary STL\n"
    "  --precision N   digits after the decimal point in ASCII output (1 to 9, default 6;\n"
    "                  implies --ascii)\n"
    "  --name NAME     the solid's name in the output (default: that of the first input)\n"
    "  --json          print JSON\n";

namespace {

std::wstring widePath(std::string const& path) {
  std::wstring wide;
  if (!toWide(path, wide)) throw Failure(path, "the file name is not valid UTF-8");
  return wide;
}

// The encoding the reader will pick: binary when the length matches the stored count.
bool isBinary(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  unsigned char b[4] = {0, 0, 0, 0};
  in.seekg(80);
  if (!in.read(reinterpret_cast<char*>(b), 4)) return false;
  const std::uint64_t count = b[0] | (b[1] << 8) | (b[2] << 16) | (std::uint64_t(b[3]) << 24);
  std::error_code ec;
  const auto size = std::filesystem::file_size(path, ec);
  return !ec && size == count * 50 + 84;
}

quib::Stl load(Context& ctx, std::string const& path, bool merge) {
  ctx.subject = path;
  if (std::string reason = unreadableReason(path); !reason.empty()) throw Failure(path, reason);
  quib::Stl mesh;
  if (mesh.load(widePath(path), merge) < 0) throw Failure(path, "not an STL file");
  return mesh;
}

Json info(Context& ctx, std::string const& path) {
  const quib::Stl mesh = load(ctx, path, true);
  const float inf = std::numeric_limits<float>::infinity();
  std::vector<double> lo(3, inf), hi(3, -inf);
  for (auto const& p : mesh.points()) {
    for (int i = 0; i < 3; ++i) {
      if (!std::isfinite(p[i])) continue;
      lo[std::size_t(i)] = std::min<double>(lo[std::size_t(i)], p[i]);
      hi[std::size_t(i)] = std::max<double>(hi[std::size_t(i)], p[i]);
    }
  }
  Json j = Json::object();
  j.set("file", path)
      .set("name", mesh.get_name())
      .set("encoding", isBinary(path) ? "binary" : "ascii")
      .set("triangles", mesh.size_polygon())
      .set("vertices", mesh.size());
  Json box = Json::object();
  if (mesh.is() && lo[0] <= hi[0]) {
    box.set("min", Json::numbers(lo)).set("max", Json::numbers(hi));
    box.set("size", Json::numbers({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]}));
    j.set("bounding_box", box);
  } else {
    j.set("bounding_box", Json());
  }
  if (!ctx.json) {
    std::ostream& o = ctx.out;
    o << path << '\n'
      << "  name          " << (mesh.get_name().empty() ? "(none)" : mesh.get_name()) << '\n'
      << "  encoding      " << (isBinary(path) ? "binary" : "ASCII") << '\n'
      << "  triangles     " << mesh.size_polygon() << '\n'
      << "  vertices      " << mesh.size() << " distinct\n";
    if (mesh.is() && lo[0] <= hi[0]) {
      const auto triple = [](std::vector<double> const& v) {
        return formatShort(v[0], 8) + ", " + formatShort(v[1], 8) + ", " + formatShort(v[2], 8);
      };
      o << "  bounding box  (" << triple(lo) << ") to (" << triple(hi) << ")\n"
        << "  size          " << triple({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]}) << '\n';
    }
  }
  return j;
}

// Saves and checks the file's length: the writer itself reports no I/O errors.
void save(Context& ctx, quib::Stl const& mesh, std::string const& out, int precision) {
  ctx.subject = out;
  std::error_code ec;
  if (std::filesystem::is_directory(out, ec)) throw Failure(out, "is a directory");
  {
    std::ofstream probe(out, std::ios::binary | std::ios::app);
    if (!probe) throw Failure(out, std::string("cannot be written: ") + std::strerror(errno));
  }
  mesh.save(widePath(out), precision);
  const std::uint64_t triangles = static_cast<std::uint64_t>(mesh.size_polygon());
  bool complete = false;
  if (precision <= 0) {
    const auto size = std::filesystem::file_size(out, ec);
    complete = !ec && size == 84 + 50 * triangles;
  } else {
    // "solid", seven lines per facet, "endsolid".
    std::ifstream in(out, std::ios::binary);
    std::uint64_t lines = 0;
    char buf[1 << 16];
    while (in.read(buf, sizeof buf) || in.gcount() > 0) {
      lines += static_cast<std::uint64_t>(std::count(buf, buf + in.gcount(), '\n'));
      if (in.eof()) break;
    }
    complete = lines == 2 + 7 * triangles;
  }
  if (!complete) throw Failure(out, "the file was not written completely");
}

struct Output {
  bool ascii;
  int precision;
};

// The output encoding: as chosen, else `ascii`.
Output outputMode(Args const& args, bool ascii) {
  if (args.has("--ascii") && args.has("--binary"))
    throw UsageError("--ascii and --binary exclude each other");
  if (args.has("--binary") && args.has("--precision"))
    throw UsageError("--precision applies to ASCII output only");
  const int precision = static_cast<int>(args.integer("--precision", 6, 1, 9));
  if (args.has("--ascii") || args.has("--precision")) ascii = true;
  if (args.has("--binary")) ascii = false;
  return {ascii, precision};
}

}  // namespace

int runStl(Context& ctx, std::vector<std::string> const& argv) {
  const Args args(argv, {{"--ascii"}, {"--binary"}, {"--precision", true}, {"--name", true}});
  auto const& pos = args.positional();
  if (pos.empty()) throw UsageError("missing action (info, convert or merge)");
  const std::string action = pos[0];
  const std::vector<std::string> files(pos.begin() + 1, pos.end());

  if (action == "info") {
    if (files.empty()) throw UsageError("no FILES given");
    if (args.has("--ascii") || args.has("--binary") || args.has("--precision") ||
        args.has("--name"))
      throw UsageError("'info' takes no output options");
    Json all = Json::array();
    Progress progress(ctx, files.size());
    for (std::string const& f : files) {
      progress.step(f);
      try {
        Json j = info(ctx, f);
        all.push(j);
      } catch (Failure const& e) {
        progress.done();
        ctx.fail(e.file(), e.what());
      }
    }
    progress.done();
    if (ctx.json) all.write(ctx.out);
    return ctx.status;
  }

  if (action == "convert" || action == "merge") {
    std::vector<std::string> inputs;
    std::string out;
    if (action == "convert") {
      if (files.size() != 2) throw UsageError("'convert' wants IN and OUT");
      inputs = {files[0]};
      out = files[1];
    } else {
      if (files.size() < 2) throw UsageError("'merge' wants OUT and at least one IN");
      out = files[0];
      inputs.assign(files.begin() + 1, files.end());
    }
    outputMode(args, false);  // bad options are found before any work
    std::vector<quib::Stl::Point> points;
    std::vector<quib::Stl::Polygon> polygons;
    std::string name;
    Progress progress(ctx, inputs.size());
    for (std::size_t i = 0; i < inputs.size(); ++i) {
      progress.step(inputs[i]);
      const quib::Stl mesh = load(ctx, inputs[i], false);
      if (i == 0) name = mesh.get_name();
      const std::size_t base = points.size();
      if (base + static_cast<std::size_t>(mesh.size()) >
          static_cast<std::size_t>(std::numeric_limits<int>::max()))
        throw Failure(inputs[i], "too many vertices in all");
      points.insert(points.end(), mesh.points().begin(), mesh.points().end());
      for (auto const& poly : mesh.polygons()) {
        quib::Stl::Polygon shifted(poly);
        for (int& v : shifted)
          v += static_cast<int>(base);
        polygons.push_back(std::move(shifted));
      }
    }
    progress.done();
    // convert goes to the other encoding by default; merge writes binary.
    const Output mode = outputMode(args, action == "convert" && isBinary(inputs[0]));
    quib::Stl result;
    result.assign(points, polygons);
    result.set_name(args.value("--name", name));
    if (action == "merge") result.compress();
    save(ctx, result, out, mode.ascii ? mode.precision : 0);
    Json j = Json::object();
    j.set("file", out)
        .set("encoding", mode.ascii ? "ascii" : "binary")
        .set("name", result.get_name())
        .set("triangles", result.size_polygon())
        .set("vertices", result.size())
        .set("inputs", static_cast<std::uint64_t>(inputs.size()));
    if (ctx.json)
      j.write(ctx.out);
    else
      ctx.out << out << ": " << result.size_polygon() << " triangles, "
              << (mode.ascii ? "ASCII" : "binary")
              << (action == "merge" ? ", " + std::to_string(result.size()) + " distinct vertices"
                                    : std::string())
              << '\n';
    return exit_code::ok;
  }
  throw UsageError("unknown action '" + action + "'");
}

}  // namespace quib::tool
