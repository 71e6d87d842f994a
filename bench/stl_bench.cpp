// STL loading and saving against a plain read or write of the same bytes, and against the
// readers of assimp and admesh when they were found at configure time.
#include <quib/mesh_measures.hpp>
#include <quib/stl.hpp>

#include <benchmark/benchmark.h>
#include <Eigen/Geometry>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#if defined(QUIB_BENCH_ASSIMP)
#include <assimp/cimport.h>
#include <assimp/config.h>
#include <assimp/postprocess.h>
#include <assimp/scene.h>
#endif
#if defined(QUIB_BENCH_ADMESH)
#include <admesh/stl.h>
#endif

namespace {

namespace fs = std::filesystem;

enum Kind { grid_binary, random_binary, grid_ascii, kind_count };
char const* const kNames[kind_count] = {"grid.stl", "random.stl", "grid_ascii.stl"};

// The test meshes, written once per process into a temporary directory that is removed at
// exit: a flat plate on an integer grid (many equal low bits, the hard case for a hash) and the
// same connectivity with random coordinates. 1,000,000 triangles, a few thousand when
// QUIB_BENCH_SMOKE is set.
class Files {
 public:
  static Files& get() {
    static Files files;
    return files;
  }
  std::string path(Kind k) const { return (dir_ / kNames[k]).string(); }
  std::wstring wpath(Kind k) const { return (dir_ / kNames[k]).wstring(); }
  std::uintmax_t bytes(Kind k) const { return fs::file_size(dir_ / kNames[k]); }
  quib::Stl const& mesh(Kind k) const { return k == random_binary ? random_ : grid_; }

 private:
  Files() {
    std::random_device rd;
    dir_ = fs::temp_directory_path() / ("quib_stl_bench_" + std::to_string(rd()));
    fs::create_directories(dir_);
    const bool smoke = std::getenv("QUIB_BENCH_SMOKE") != nullptr;
    const int side = smoke ? 40 : 708;  // 2 x 707 x 707 = 999,698 triangles
    std::vector<Eigen::Vector3f> plate, scattered;
    std::mt19937 random(42);
    std::uniform_real_distribution<float> coordinate(-500.0f, 500.0f);
    for (int j = 0; j < side; ++j)
      for (int i = 0; i < side; ++i) {
        plate.emplace_back(float(i), float(j), 0.0f);
        scattered.emplace_back(coordinate(random), coordinate(random), coordinate(random));
      }
    std::vector<std::vector<int>> triangles;
    for (int j = 0; j + 1 < side; ++j)
      for (int i = 0; i + 1 < side; ++i) {
        const int k = j * side + i;
        triangles.push_back({k, k + 1, k + side});
        triangles.push_back({k + 1, k + side + 1, k + side});
      }
    grid_.assign(plate, triangles);
    grid_.set_name("grid");
    random_.assign(scattered, triangles);
    random_.set_name("random");
    grid_.save(wpath(grid_binary), 0);
    random_.save(wpath(random_binary), 0);
    grid_.save(wpath(grid_ascii), 6);
  }
  ~Files() {
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }

  fs::path dir_;
  quib::Stl grid_, random_;
};

void finish(benchmark::State& state, Kind k) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(Files::get().bytes(k)));
}

// The limit: the file's bytes read into a buffer, nothing parsed.
void plain_read(benchmark::State& state, Kind k) {
  const std::string path = Files::get().path(k);
  std::vector<char> buffer(Files::get().bytes(k));
  for (auto _ : state) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    benchmark::DoNotOptimize(std::fread(buffer.data(), 1, buffer.size(), f));
    std::fclose(f);
  }
  finish(state, k);
}

void quib_load(benchmark::State& state, Kind k, bool merge) {
  const std::wstring path = Files::get().wpath(k);
  for (auto _ : state) {
    quib::Stl mesh;
    benchmark::DoNotOptimize(mesh.load(path, merge));
  }
  finish(state, k);
}

// The floor that the mesh's data model sets for any reader: one std::vector<int> per triangle,
// made and released, as a load without merging makes them. Nothing is read or parsed.
void polygon_lists(benchmark::State& state, Kind k) {
  const std::size_t count = Files::get().mesh(k).polygons().size();
  for (auto _ : state) {
    std::vector<std::vector<int>> polygons;
    polygons.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
      const int n = static_cast<int>(3 * i);
      polygons.push_back(std::vector<int>{n, n + 1, n + 2});
    }
    benchmark::DoNotOptimize(polygons.data());
  }
  finish(state, k);
}

// The limit for saving: the same number of bytes written from memory.
void plain_write(benchmark::State& state, Kind k) {
  const std::string path = Files::get().path(k) + ".out";
  std::vector<char> buffer(Files::get().bytes(k), 'x');
  for (auto _ : state) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    benchmark::DoNotOptimize(std::fwrite(buffer.data(), 1, buffer.size(), f));
    std::fclose(f);
  }
  finish(state, k);
}

void quib_save(benchmark::State& state, Kind k, int precision) {
  const std::wstring path = Files::get().wpath(k) + L".out";
  quib::Stl const& mesh = Files::get().mesh(k);
  for (auto _ : state)
    benchmark::DoNotOptimize(mesh.save(path, precision));
  finish(state, k);
}

// Merging the corners of an unmerged mesh. The copy that compress consumes is made outside the
// timing.
void quib_compress(benchmark::State& state, Kind k) {
  quib::Stl unmerged = Files::get().mesh(k);
  unmerged.decompress();
  for (auto _ : state) {
    state.PauseTiming();
    quib::Stl mesh = unmerged;
    state.ResumeTiming();
    benchmark::DoNotOptimize(mesh.compress());
  }
}

// The limit for merging: one plain open-addressing table (linear probing, a strong 64-bit mix
// of the coordinate bits) over the same corners, writing one index per corner into a flat
// array and the distinct points into a list. No polygon lists are made.
void plain_table(benchmark::State& state, Kind k) {
  quib::Stl unmerged = Files::get().mesh(k);
  unmerged.decompress();
  std::vector<quib::Stl::Point> const& corners = unmerged.points();
  struct Slot {
    std::uint32_t x, y, z;
    std::int32_t index;
  };
  const auto bits = [](float v) {
    std::uint32_t b;
    std::memcpy(&b, &v, 4);
    return b;
  };
  const auto mix = [](std::uint64_t h) {
    h ^= h >> 33;
    h *= 0xFF51AFD7ED558CCDull;
    h ^= h >> 33;
    h *= 0xC4CEB9FE1A85EC53ull;
    h ^= h >> 33;
    return h;
  };
  for (auto _ : state) {
    std::size_t capacity = 16;
    while (capacity < corners.size())
      capacity <<= 1;
    std::vector<Slot> slots(capacity, Slot{0, 0, 0, -1});
    std::vector<quib::Stl::Point> points;
    std::vector<int> indices(corners.size());
    const std::size_t mask = capacity - 1;
    for (std::size_t c = 0; c < corners.size(); ++c) {
      const std::uint32_t x = bits(corners[c].x()), y = bits(corners[c].y()),
                          z = bits(corners[c].z());
      std::size_t i = mix((std::uint64_t(y) << 32 | x) ^ mix(z + 0x9E3779B97F4A7C15ull)) & mask;
      for (;; i = (i + 1) & mask) {
        if (slots[i].index < 0) {
          slots[i] = Slot{x, y, z, static_cast<int>(points.size())};
          points.push_back(corners[c]);
          break;
        }
        if (slots[i].x == x && slots[i].y == y && slots[i].z == z) break;
      }
      indices[c] = slots[i].index;
    }
    benchmark::DoNotOptimize(indices.data());
    benchmark::DoNotOptimize(points.data());
  }
}

// Mesh measures on the merged mesh in memory.
void quib_measures(benchmark::State& state, Kind k) {
  const quib::Stl mesh(Files::get().wpath(k), true);
  for (auto _ : state) {
    const quib::MeshMeasures m(mesh);
    benchmark::DoNotOptimize(m.volume);
  }
}

// The limit for measuring: one plain pass over the same triangles summing area and signed
// volume, no topology.
void plain_pass(benchmark::State& state, Kind k) {
  const quib::Stl mesh(Files::get().wpath(k), true);
  auto const& points = mesh.points();
  for (auto _ : state) {
    double area = 0, volume = 0;
    for (auto const& p : mesh.polygons()) {
      const Eigen::Vector3d a = points[std::size_t(p[0])].cast<double>(),
                            b = points[std::size_t(p[1])].cast<double>(),
                            c = points[std::size_t(p[2])].cast<double>();
      area += (b - a).cross(c - a).norm();
      volume += a.dot(b.cross(c));
    }
    benchmark::DoNotOptimize(area);
    benchmark::DoNotOptimize(volume);
  }
}

// numpy-stl (python3-stl) through the system's python3: volume, centre of gravity, inertia,
// areas and its closedness test, timed inside python after the file is read.
void numpy_stl_measures(benchmark::State& state, Kind k) {
  const std::string command =
      "/usr/bin/python3 -W ignore -c \"import sys, time; from stl import mesh; "
      "m = mesh.Mesh.from_file(sys.argv[1]); t = time.perf_counter(); "
      "v, cog, inertia = m.get_mass_properties(); a = m.areas.sum(); c = m.is_closed(); "
      "print(time.perf_counter() - t)\" " +
      Files::get().path(k) + " 2>/dev/null";
  for (auto _ : state) {
    std::FILE* pipe = ::popen(command.c_str(), "r");
    double seconds = -1;
    if (pipe == nullptr || std::fscanf(pipe, "%lf", &seconds) != 1) seconds = -1;
    if (pipe != nullptr) ::pclose(pipe);
    if (seconds < 0) {
      state.SkipWithError("python3 with numpy-stl is not available");
      break;
    }
    state.SetIterationTime(seconds);
  }
}

#if defined(QUIB_BENCH_ASSIMP)
// assimp's importer; `join` removes the facet normals (which differ between the facets of a
// vertex) and then joins identical vertices, its way of building a shared-vertex mesh.
void assimp_import(benchmark::State& state, Kind k, bool join) {
  const std::string path = Files::get().path(k);
  aiPropertyStore* props = aiCreatePropertyStore();
  aiSetImportPropertyInteger(props, AI_CONFIG_PP_RVC_FLAGS, aiComponent_NORMALS);
  const unsigned flags = join ? aiProcess_RemoveComponent | aiProcess_JoinIdenticalVertices : 0;
  for (auto _ : state) {
    aiScene const* scene = aiImportFileExWithProperties(path.c_str(), flags, nullptr, props);
    if (scene == nullptr) state.SkipWithError("assimp could not read the file");
    aiReleaseImport(scene);
  }
  aiReleasePropertyStore(props);
  finish(state, k);
}
#endif

#if defined(QUIB_BENCH_ADMESH)
// admesh's reader; `shared` also connects the facets (which the shared-vertex table needs)
// and builds that table.
void admesh_open(benchmark::State& state, Kind k, bool shared) {
  std::string path = Files::get().path(k);
  for (auto _ : state) {
    stl_file stl{};
    stl_open(&stl, path.data());
    if (stl_get_error(&stl)) state.SkipWithError("admesh could not read the file");
    if (shared) {
      stl_check_facets_exact(&stl);
      stl_generate_shared_vertices(&stl);
    }
    stl_close(&stl);
  }
  finish(state, k);
}

// admesh's statistics on a file it has read: the facets connected by exact matching (its
// edge check), the volume and the statistics it keeps while reading. The reading is not timed.
void admesh_measures(benchmark::State& state, Kind k) {
  std::string path = Files::get().path(k);
  for (auto _ : state) {
    state.PauseTiming();
    stl_file stl{};
    stl_open(&stl, path.data());
    if (stl_get_error(&stl)) state.SkipWithError("admesh could not read the file");
    state.ResumeTiming();
    stl_check_facets_exact(&stl);
    stl_calculate_volume(&stl);
    benchmark::DoNotOptimize(stl.stats.volume);
    benchmark::DoNotOptimize(stl.stats.connected_facets_3_edge);
    state.PauseTiming();
    stl_close(&stl);
    state.ResumeTiming();
  }
}
#endif

}  // namespace

#define QUIB_BENCH(...) BENCHMARK_CAPTURE(__VA_ARGS__)->Unit(benchmark::kMillisecond)

QUIB_BENCH(plain_read, binary, grid_binary);
QUIB_BENCH(polygon_lists, binary, grid_binary);
QUIB_BENCH(quib_load, binary, grid_binary, false);
QUIB_BENCH(quib_load, merged_grid, grid_binary, true);
QUIB_BENCH(quib_load, merged_random, random_binary, true);
QUIB_BENCH(plain_read, ascii, grid_ascii);
QUIB_BENCH(quib_load, ascii, grid_ascii, false);
QUIB_BENCH(plain_table, grid, grid_binary);
QUIB_BENCH(quib_compress, grid, grid_binary);
QUIB_BENCH(plain_table, random, random_binary);
QUIB_BENCH(quib_compress, random, random_binary);
QUIB_BENCH(plain_pass, random, random_binary);
QUIB_BENCH(quib_measures, random, random_binary);
BENCHMARK_CAPTURE(numpy_stl_measures, random, random_binary)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(3);
QUIB_BENCH(plain_write, binary, grid_binary);
QUIB_BENCH(quib_save, binary, grid_binary, 0);
QUIB_BENCH(plain_write, ascii, grid_ascii);
QUIB_BENCH(quib_save, ascii, grid_ascii, 6);
#if defined(QUIB_BENCH_ASSIMP)
QUIB_BENCH(assimp_import, binary, grid_binary, false);
QUIB_BENCH(assimp_import, joined_grid, grid_binary, true);
QUIB_BENCH(assimp_import, joined_random, random_binary, true);
QUIB_BENCH(assimp_import, ascii, grid_ascii, false);
#endif
#if defined(QUIB_BENCH_ADMESH)
QUIB_BENCH(admesh_open, binary, grid_binary, false);
QUIB_BENCH(admesh_open, shared_grid, grid_binary, true);
QUIB_BENCH(admesh_open, shared_random, random_binary, true);
QUIB_BENCH(admesh_open, ascii, grid_ascii, false);
QUIB_BENCH(admesh_measures, random, random_binary);
#endif

BENCHMARK_MAIN();
