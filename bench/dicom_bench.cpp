// Reading DICOM files: a 100 MB volume and a file of 100,000 small elements, each measured
// against a plain read of the same bytes and, when they were found at configure time, against
// dcmtk (loadFile + loadAllDataIntoMemory) and gdcm (gdcm::Reader::Read).
#include <quib/dicom.hpp>

#include <benchmark/benchmark.h>

#ifdef QUIB_BENCH_DCMTK
#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/oflog/oflog.h>
#endif
#ifdef QUIB_BENCH_GDCM
#include <gdcmReader.h>
#endif

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

namespace {

namespace fs = std::filesystem;

bool smoke() {
  return std::getenv("QUIB_BENCH_SMOKE") != nullptr;
}

void put16(std::string& out, unsigned v) {
  out += char(v & 0xFF);
  out += char((v >> 8) & 0xFF);
}
void put32(std::string& out, std::uint32_t v) {
  put16(out, v & 0xFFFF);
  put16(out, v >> 16);
}
// Explicit VR little-endian element; OB/OW/UT take the long header.
void element(std::string& out, unsigned group, unsigned number, const char* vr,
             const std::string& value) {
  put16(out, group);
  put16(out, number);
  out += vr;
  std::string v(vr);
  if (v == "OB" || v == "OW" || v == "UT") {
    put16(out, 0);
    put32(out, std::uint32_t(value.size()));
  } else {
    put16(out, unsigned(value.size()));
  }
  out += value;
}

std::string file_start() {
  std::string out(128, '\0');
  out += "DICM";
  std::string meta;
  element(meta, 0x0002, 0x0001, "OB", std::string("\0\1", 2));
  element(meta, 0x0002, 0x0002, "UI", "1.2.840.10008.5.1.4.1.1.7");
  element(meta, 0x0002, 0x0003, "UI", "1.2.3.4.5.6.7.8");
  element(meta, 0x0002, 0x0010, "UI", "1.2.840.10008.1.2.1");
  element(out, 0x0002, 0x0000, "UL", std::string("\0\0\0\0", 4));
  std::uint32_t length = std::uint32_t(meta.size());
  for (int i = 0; i < 4; ++i)
    out[out.size() - 4 + i] = char((length >> (8 * i)) & 0xFF);
  out += meta;
  element(out, 0x0008, 0x0016, "UI", "1.2.840.10008.5.1.4.1.1.7");
  element(out, 0x0008, 0x0018, "UI", "1.2.3.4.5.6.7.8");
  element(out, 0x0008, 0x0060, "CS", "OT");
  element(out, 0x0010, 0x0010, "PN", "Bench^Mark");
  return out;
}

// The two files, written once into a fresh temporary directory and removed at exit.
struct Files {
  fs::path dir;
  std::string volume;
  std::string small;
  std::int64_t volume_bytes = 0;
  std::int64_t small_bytes = 0;
  std::int64_t small_count = 0;

  Files() {
    dir = fs::temp_directory_path() / ("quib_dicom_bench_" + std::to_string(std::rand()));
    fs::create_directories(dir);

    const std::uint32_t pixels = smoke() ? (1u << 16) : (100u << 20);
    std::string v = file_start();
    const unsigned side = smoke() ? 128 : 7240;  // about 100 MB of 16-bit samples
    std::string rows;
    put16(rows, side);
    element(v, 0x0028, 0x0010, "US", rows);
    element(v, 0x0028, 0x0011, "US", rows);
    element(v, 0x0028, 0x0100, "US", std::string("\x10\0", 2));
    put16(v, 0x7FE0);
    put16(v, 0x0010);
    v += "OW";
    put16(v, 0);
    put32(v, pixels);
    volume = (dir / "volume.dcm").string();
    write(volume, v, pixels);
    volume_bytes = std::int64_t(v.size()) + pixels;

    small_count = smoke() ? 1000 : 100000;
    std::string s = file_start();
    for (std::int64_t i = 0; i < small_count; ++i) {
      // Unknown even groups in ascending order, 4096 elements each, 8-byte text values.
      unsigned group = 0x0F00 + 2 * unsigned(i / 4096);
      unsigned number = 0x0010 + unsigned(i % 4096);
      std::string text = std::to_string(10000000 + i);
      element(s, group, number, "LO", text);
    }
    small = (dir / "small.dcm").string();
    write(small, s, 0);
    small_bytes = std::int64_t(s.size());
  }
  ~Files() {
    std::error_code ec;
    fs::remove_all(dir, ec);
  }
  static void write(const std::string& path, const std::string& head, std::uint32_t zeros) {
    std::ofstream out(path, std::ios::binary);
    out << head;
    std::vector<char> block(1 << 20, 0x11);
    while (zeros > 0) {
      std::uint32_t n = std::min<std::uint32_t>(zeros, std::uint32_t(block.size()));
      out.write(block.data(), n);
      zeros -= n;
    }
  }
};

Files& files() {
  static Files f;
  return f;
}

const std::string& path_of(int which) {
  return which == 0 ? files().volume : files().small;
}

void count(benchmark::State& state, int which) {
  const Files& f = files();
  state.SetBytesProcessed(state.iterations() * (which == 0 ? f.volume_bytes : f.small_bytes));
  if (which == 1) state.SetItemsProcessed(state.iterations() * f.small_count);
}

void BM_Quib(benchmark::State& state) {
  const int which = int(state.range(0));
  const std::string& p = path_of(which);
  const std::wstring wide(p.begin(), p.end());
  for (auto _ : state) {
    quib::Dicom file;
    int n = file.load(wide);
    if (n < 5) state.SkipWithError("load failed");
    benchmark::DoNotOptimize(file->size());
  }
  count(state, which);
}

// The limit: reading the same bytes into one buffer, nothing parsed.
void BM_PlainRead(benchmark::State& state) {
  const int which = int(state.range(0));
  for (auto _ : state) {
    std::ifstream in(path_of(which), std::ios::binary | std::ios::ate);
    std::vector<char> bytes(std::size_t(in.tellg()));
    in.seekg(0);
    in.read(bytes.data(), std::streamsize(bytes.size()));
    benchmark::DoNotOptimize(bytes.data());
  }
  count(state, which);
}

#ifdef QUIB_BENCH_DCMTK
void BM_Dcmtk(benchmark::State& state) {
  const int which = int(state.range(0));
  OFLog::configure(OFLogger::FATAL_LOG_LEVEL);
  for (auto _ : state) {
    DcmFileFormat file;
    if (file.loadFile(OFFilename(path_of(which).c_str())).bad() ||
        file.loadAllDataIntoMemory().bad()) {
      state.SkipWithError("dcmtk failed");
    }
    benchmark::DoNotOptimize(file.getDataset());
  }
  count(state, which);
}
BENCHMARK(BM_Dcmtk)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
#endif

#ifdef QUIB_BENCH_GDCM
void BM_Gdcm(benchmark::State& state) {
  const int which = int(state.range(0));
  for (auto _ : state) {
    gdcm::Reader reader;
    reader.SetFileName(path_of(which).c_str());
    if (!reader.Read()) state.SkipWithError("gdcm failed");
    benchmark::DoNotOptimize(&reader.GetFile());
  }
  count(state, which);
}
BENCHMARK(BM_Gdcm)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
#endif

// Argument 0: the volume; 1: the small elements (items_per_second counts elements).
BENCHMARK(BM_Quib)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlainRead)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
