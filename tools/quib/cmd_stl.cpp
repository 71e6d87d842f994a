// quib stl info|convert|merge: STL meshes.
#include <quib/mesh_measures.hpp>
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

// A mesh, and the encoding it was read from.
struct Loaded {
  quib::Stl mesh;
  bool binary = false;
};

Loaded load(Context& ctx, std::string const& name, bool merge) {
  ctx.subject = name;
  const InputFile input(name);
  std::string const& path = input.path();
  Loaded loaded;
  if (loaded.mesh.load(widePath(path), merge) < 0) {
    const std::string reason = unreadableReason(path);
    throw Failure(name, reason.empty() ? "not an STL file" : reason);
  }
  loaded.binary = loaded.mesh.info().binary;
  return loaded;
}

std::vector<double> values(Eigen::Vector3d const& v) {
  return {v.x(), v.y(), v.z()};
}

Json info(Context& ctx, std::string const& path) {
  const Loaded loaded = load(ctx, path, true);
  quib::Stl const& mesh = loaded.mesh;
  const quib::MeshMeasures m(mesh);
  const bool box = std::isfinite(m.box_min.x());
  const std::int64_t odd = mesh.info().odd_facets;
  Json j = {{"file", path},
            {"name", mesh.get_name()},
            {"encoding", loaded.binary ? "binary" : "ascii"},
            {"triangles", mesh.size_polygon()},
            {"vertices", mesh.size()},
            {"odd_facets", odd}};
  if (box) {
    j["bounding_box"] = {{"min", values(m.box_min)},
                         {"max", values(m.box_max)},
                         {"size", values(m.box_max - m.box_min)}};
  } else {
    j["bounding_box"] = nullptr;
  }
  // NaN is no JSON number: a measure without a value is null.
  const auto number = [](double v) { return std::isfinite(v) ? Json(v) : Json(nullptr); };
  const auto vector = [&](Eigen::Vector3d const& v) {
    return v.allFinite() ? Json(values(v)) : Json(nullptr);
  };
  Json inertia = nullptr;
  if (m.inertia.allFinite()) {
    inertia = Json::array();
    for (int r = 0; r < 3; ++r)
      inertia.push_back(values(m.inertia.row(r).transpose()));
  }
  j["measures"] = {{"area", number(m.area)},
                   {"volume", number(m.volume)},
                   {"centroid", vector(m.centroid)},
                   {"inertia", inertia},
                   {"closed", m.closed},
                   {"oriented", m.oriented},
                   {"solid", m.solid},
                   {"edges", m.edges},
                   {"boundary_edges", m.boundary_edges},
                   {"non_manifold_edges", m.non_manifold_edges},
                   {"inconsistent_edges", m.inconsistent_edges},
                   {"degenerate_triangles", m.degenerate_triangles},
                   {"non_finite_triangles", m.non_finite_triangles},
                   {"parts", m.parts}};
  if (!ctx.json) {
    std::ostream& o = ctx.out;
    const auto triple = [](Eigen::Vector3d const& v) {
      return formatShort(v.x(), 8) + ", " + formatShort(v.y(), 8) + ", " + formatShort(v.z(), 8);
    };
    o << path << '\n'
      << "  name          " << (mesh.get_name().empty() ? "(none)" : mesh.get_name()) << '\n'
      << "  encoding      " << (loaded.binary ? "binary" : "ASCII") << '\n'
      << "  triangles     " << mesh.size_polygon() << '\n'
      << "  vertices      " << mesh.size() << " distinct\n";
    if (odd > 0)
      o << "  odd facets    " << odd
        << " with other than 3 vertices: the triangles after the first are misgrouped\n";
    if (box) {
      o << "  bounding box  (" << triple(m.box_min) << ") to (" << triple(m.box_max) << ")\n"
        << "  size          " << triple(m.box_max - m.box_min) << '\n';
    }
    if (m.is()) {
      o << "  area          " << formatShort(m.area, 8) << '\n'
        << "  edges         " << m.edges << ": " << m.boundary_edges << " open, "
        << m.non_manifold_edges << " non-manifold, " << m.inconsistent_edges
        << " wound against a neighbour\n"
        << "  parts         " << m.parts << '\n'
        << "  degenerate    " << m.degenerate_triangles << " triangles of zero area\n";
      if (m.non_finite_triangles > 0)
        o << "  non-finite    " << m.non_finite_triangles << " triangles\n";
      o << "  solid         "
        << (m.solid ? "yes: closed and consistently oriented"
                    : std::string("no: ") + (m.closed ? "closed" : "open") + ", " +
                          (m.oriented ? "consistently oriented" : "inconsistently oriented"))
        << '\n';
      // Volume, centroid and inertia describe a solid only; otherwise they are shown marked.
      const std::string mark = m.solid ? "" : "  (not a solid)";
      o << "  volume        " << formatShort(m.volume, 8) << mark << '\n';
      if (m.centroid.allFinite())
        o << "  centroid      " << triple(m.centroid) << mark << '\n'
          << "  inertia       " << triple(m.inertia.row(0).transpose()) << mark << '\n'
          << "                " << triple(m.inertia.row(1).transpose()) << '\n'
          << "                " << triple(m.inertia.row(2).transpose()) << '\n';
    }
  }
  return j;
}

// Writes the mesh; degenerate facets get the normal 0 0 0, never NaN.
void save(Context& ctx, quib::Stl const& mesh, std::string const& out, int precision) {
  ctx.subject = out;
  std::error_code ec;
  if (std::filesystem::is_directory(out, ec)) throw Failure(out, "is a directory");
  {
    std::ofstream probe(out, std::ios::binary | std::ios::app);
    if (!probe) throw Failure(out, std::string("cannot be written: ") + std::strerror(errno));
  }
  if (!mesh.write(widePath(out), precision))
    throw Failure(out, "the file was not written completely");
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
  CLI::App& describe = addCommand(stl, "info", paragraphs(R"(
      name, encoding, counts, bounding box and measures of STL meshes

      Reads each file with identical vertices merged and prints the solid's name, its
      encoding, the triangle and distinct vertex counts, text facets with other than three
      vertices, the bounding box, the surface area, the edges (open, non-manifold, wound
      against a neighbour), the connected parts, and whether the mesh is a closed,
      consistently oriented solid; then its volume, centroid and inertia tensor about the
      centroid at unit density, marked when the mesh is no solid.
)"));
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
