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

namespace {

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

// A mesh, and the encoding it was read from.
struct Loaded {
  quib::Stl mesh;
  bool binary = false;
};

Loaded load(Context& ctx, std::string const& name, bool merge) {
  ctx.subject = name;
  const InputFile input(name);
  std::string const& path = input.path();
  if (std::string reason = unreadableReason(path); !reason.empty()) throw Failure(name, reason);
  Loaded loaded;
  if (loaded.mesh.load(widePath(path), merge) < 0) throw Failure(name, "not an STL file");
  loaded.binary = isBinary(path);
  return loaded;
}

Json info(Context& ctx, std::string const& path) {
  const Loaded loaded = load(ctx, path, true);
  quib::Stl const& mesh = loaded.mesh;
  const float inf = std::numeric_limits<float>::infinity();
  std::vector<double> lo(3, inf), hi(3, -inf);
  for (auto const& p : mesh.points()) {
    for (int i = 0; i < 3; ++i) {
      if (!std::isfinite(p[i])) continue;
      lo[std::size_t(i)] = std::min<double>(lo[std::size_t(i)], p[i]);
      hi[std::size_t(i)] = std::max<double>(hi[std::size_t(i)], p[i]);
    }
  }
  Json j = {{"file", path},
            {"name", mesh.get_name()},
            {"encoding", loaded.binary ? "binary" : "ascii"},
            {"triangles", mesh.size_polygon()},
            {"vertices", mesh.size()}};
  if (mesh.is() && lo[0] <= hi[0]) {
    const std::vector<double> size = {hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]};
    j["bounding_box"] = {{"min", lo}, {"max", hi}, {"size", size}};
  } else {
    j["bounding_box"] = nullptr;
  }
  if (!ctx.json) {
    std::ostream& o = ctx.out;
    o << path << '\n'
      << "  name          " << (mesh.get_name().empty() ? "(none)" : mesh.get_name()) << '\n'
      << "  encoding      " << (loaded.binary ? "binary" : "ASCII") << '\n'
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

struct WriteOptions {
  std::vector<std::string> inputs;
  std::string out;
  std::string name;
  int precision = 6;
  bool ascii = false;
  bool binary = false;
};

// Writes the triangles of all inputs into one file: convert (one input, to the other encoding
// by default) and merge (shared vertices, binary by default).
void write(Context& ctx, WriteOptions const& o, bool merge, bool precisionGiven) {
  std::vector<quib::Stl::Point> points;
  std::vector<quib::Stl::Polygon> polygons;
  std::string name;
  bool firstBinary = false;
  Progress progress(ctx, o.inputs.size());
  for (std::size_t i = 0; i < o.inputs.size(); ++i) {
    progress.step(o.inputs[i]);
    const Loaded loaded = load(ctx, o.inputs[i], false);
    quib::Stl const& mesh = loaded.mesh;
    if (i == 0) {
      name = mesh.get_name();
      firstBinary = loaded.binary;
    }
    const std::size_t base = points.size();
    if (base + static_cast<std::size_t>(mesh.size()) >
        static_cast<std::size_t>(std::numeric_limits<int>::max()))
      throw Failure(o.inputs[i], "too many vertices in all");
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
  bool ascii = !merge && firstBinary;
  if (o.ascii || precisionGiven) ascii = true;
  if (o.binary) ascii = false;
  quib::Stl result;
  result.assign(points, polygons);
  result.set_name(o.name.empty() ? name : o.name);
  if (merge) result.compress();
  save(ctx, result, o.out, ascii ? o.precision : 0);
  if (ctx.json)
    writeJson(ctx.out, {{"file", o.out},
                        {"encoding", ascii ? "ascii" : "binary"},
                        {"name", result.get_name()},
                        {"triangles", result.size_polygon()},
                        {"vertices", result.size()},
                        {"inputs", o.inputs.size()}});
  else
    ctx.out << o.out << ": " << result.size_polygon() << " triangles, "
            << (ascii ? "ASCII" : "binary")
            << (merge ? ", " + std::to_string(result.size()) + " distinct vertices" : std::string())
            << '\n';
}

}  // namespace

void add_stl_command(CLI::App& quib, Context& ctx) {
  CLI::App& stl = commandGroup(quib, "stl", "describe, convert and merge STL meshes");

  auto files = std::make_shared<std::vector<std::string>>();
  CLI::App& describe =
      addCommand(stl, "info",
                 "name, encoding, counts and bounding box of STL meshes\n\n"
                 "Reads each file with identical vertices merged and prints the solid's name, its "
                 "encoding, the triangle and distinct vertex counts and the bounding box.");
  describe.add_option("FILES", *files, "STL files; '-' reads standard input")->required();
  addJsonFlag(describe, ctx);
  onRun(describe, ctx, [files, &ctx] {
    Json all = Json::array();
    Progress progress(ctx, files->size());
    for (std::string const& f : *files) {
      progress.step(f);
      try {
        Json j = info(ctx, f);
        all.push_back(std::move(j));
      } catch (Failure const& e) {
        progress.done();
        ctx.fail(e.file(), e.what());
      }
    }
    progress.done();
    if (ctx.json) writeJson(ctx.out, all);
  });

  // convert and merge write a file with the same options.
  const auto writer = [&](char const* word, char const* description, bool merge) {
    auto o = std::make_shared<WriteOptions>();
    CLI::App& cmd = addCommand(stl, word, description);
    if (merge)
      cmd.add_option("IN", o->inputs, "the meshes to merge; '-' reads standard input")->required();
    else
      cmd.add_option("IN", o->inputs, "the mesh to convert; '-' reads standard input")
          ->required()
          ->expected(1);
    cmd.add_option("--out", o->out, "the STL file to write")->type_name("FILE")->required();
    CLI::Option* ascii = cmd.add_flag("--ascii", o->ascii, "write ASCII STL");
    CLI::Option* binary = cmd.add_flag("--binary", o->binary, "write binary STL");
    CLI::Option* precision =
        cmd.add_option("--precision", o->precision,
                       "digits after the decimal point in ASCII output (implies --ascii)")
            ->type_name("N")
            ->check(CLI::Range(1, 9))
            ->capture_default_str();
    ascii->excludes(binary);
    precision->excludes(binary);
    cmd.add_option("--name", o->name,
                   "the solid's name in the output (default: that of the first input)")
        ->type_name("NAME");
    addJsonFlag(cmd, ctx);
    onRun(cmd, ctx, [o, merge, precision, &ctx] { write(ctx, *o, merge, precision->count() > 0); });
  };
  writer("convert",
         "write a mesh in the other encoding\n\n"
         "Writes IN to the --out file in the other encoding (ASCII <-> binary), or in the one "
         "chosen with --ascii or --binary.",
         false);
  writer("merge",
         "merge meshes into one\n\n"
         "Writes the triangles of all IN files into the --out file (binary unless --ascii or "
         "--precision is given); identical vertices are shared and counted once.",
         true);
}

}  // namespace quib::tool
