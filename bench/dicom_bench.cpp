// Reading DICOM files: a 100 MB volume, a file of 100,000 small elements, the same elements
// deflated, and a file of deep undefined-length sequences, each in both readings and measured
// against a plain read of the same bytes and, when they were found at configure time, against
// dcmtk (loadFile + loadAllDataIntoMemory) and gdcm (gdcm::Reader::Read). Typed reading of every
// element of the small file is measured against dcmtk's DcmItem::findAndGet*.
#include <quib/dicom.hpp>

#include <benchmark/benchmark.h>
#include <unistd.h>
#include <zlib.h>

#ifdef QUIB_BENCH_DCMTK
#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
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

std::string meta_group(const char* syntax) {
  std::string out(128, '\0');
  out += "DICM";
  std::string meta;
  element(meta, 0x0002, 0x0001, "OB", std::string("\0\1", 2));
  element(meta, 0x0002, 0x0002, "UI", "1.2.840.10008.5.1.4.1.1.7");
  element(meta, 0x0002, 0x0003, "UI", "1.2.3.4.5.6.7.8");
  element(meta, 0x0002, 0x0010, "UI", syntax);
  element(out, 0x0002, 0x0000, "UL", std::string("\0\0\0\0", 4));
  std::uint32_t length = std::uint32_t(meta.size());
  for (int i = 0; i < 4; ++i)
    out[out.size() - 4 + i] = char((length >> (8 * i)) & 0xFF);
  out += meta;
  return out;
}

std::string data_set_start() {
  std::string out;
  element(out, 0x0008, 0x0016, "UI", "1.2.840.10008.5.1.4.1.1.7");
  element(out, 0x0008, 0x0018, "UI", "1.2.3.4.5.6.7.8");
  element(out, 0x0008, 0x0060, "CS", "OT");
  element(out, 0x0010, 0x0010, "PN", "Bench^Mark");
  return out;
}

std::string file_start() {
  return meta_group("1.2.840.10008.1.2.1") + data_set_start();
}

std::string deflate_raw(const std::string& raw) {
  z_stream z{};
  deflateInit2(&z, 6, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&z, uLong(raw.size())), '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(raw.data()));
  z.avail_in = uInt(raw.size());
  z.next_out = reinterpret_cast<Bytef*>(&out[0]);
  z.avail_out = uInt(out.size());
  deflate(&z, Z_FINISH);
  out.resize(z.total_out);
  deflateEnd(&z);
  return out;
}

// The files, written once into a fresh temporary directory and removed at exit.
struct Files {
  fs::path dir;
  std::string volume;
  std::string small;
  std::string deflated;
  std::string deep;
  std::int64_t volume_bytes = 0;
  std::int64_t small_bytes = 0;
  std::int64_t small_count = 0;
  std::int64_t deflated_bytes = 0;
  std::int64_t deep_bytes = 0;
  std::int64_t deep_count = 0;

  Files() {
    // Named by process: benchmarks running at the same time must not share (and remove) it.
    dir = fs::temp_directory_path() / ("quib_dicom_bench_" + std::to_string(::getpid()));
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

    // The small elements again, their data set deflated.
    const std::string plain = file_start();
    const std::string set = s.substr(plain.size() - data_set_start().size());
    std::string d = meta_group("1.2.840.10008.1.2.1.99") + deflate_raw(set);
    deflated = (dir / "deflated.dcm").string();
    write(deflated, d, 0);
    deflated_bytes = std::int64_t(d.size());

    // Sequences of undefined length, each nested `depth` levels, one element per item.
    const int depth = 50;
    const int sequences = smoke() ? 20 : 2000;
    std::string q = file_start();
    std::string open, close;
    for (int level = 0; level < depth; ++level) {
      put16(open, 0x0040), put16(open, 0xA730), open += "SQ", put16(open, 0);
      put32(open, 0xFFFFFFFFu);
      put16(open, 0xFFFE), put16(open, 0xE000), put32(open, 0xFFFFFFFFu);
      element(open, 0x0008, 0x0104, "LO", "meaning ");
      put16(close, 0xFFFE), put16(close, 0xE00D), put32(close, 0);
      put16(close, 0xFFFE), put16(close, 0xE0DD), put32(close, 0);
    }
    for (int i = 0; i < sequences; ++i) {
      // Private groups in ascending order, so that every sequence is a top-level element.
      std::string top = open;
      top[0] = char(0x01 + 2 * (i / 4096)), top[1] = char(0x10);
      top[2] = char((0x1000 + i % 4096) & 0xFF), top[3] = char((0x1000 + i % 4096) >> 8);
      q += top + close;
    }
    deep = (dir / "deep.dcm").string();
    write(deep, q, 0);
    deep_bytes = std::int64_t(q.size());
    deep_count = std::int64_t(sequences) * depth;
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

// Argument 0: the volume; 1: the small elements; 2: the small elements deflated; 3: the deep
// sequences (items_per_second counts elements, nested ones included).
const std::string& path_of(int which) {
  const Files& f = files();
  return which == 0 ? f.volume : which == 1 ? f.small : which == 2 ? f.deflated : f.deep;
}

void count(benchmark::State& state, int which) {
  const Files& f = files();
  const std::int64_t bytes[] = {f.volume_bytes, f.small_bytes, f.deflated_bytes, f.deep_bytes};
  state.SetBytesProcessed(state.iterations() * bytes[which]);
  if (which == 1 || which == 2) state.SetItemsProcessed(state.iterations() * f.small_count);
  if (which == 3) state.SetItemsProcessed(state.iterations() * f.deep_count);
}

// Second argument: 0 the classic reading, 1 the standard one (the classic reading does not
// inflate, so it is not run on the deflated file).
void BM_Quib(benchmark::State& state) {
  const int which = int(state.range(0));
  const auto how = quib::Dicom::read_t(state.range(1));
  const std::string& p = path_of(which);
  const std::wstring wide(p.begin(), p.end());
  for (auto _ : state) {
    quib::Dicom file;
    int n = file.load(wide, how);
    if (n < 5 || (how == quib::Dicom::READ_STANDARD && !file.is_complete()))
      state.SkipWithError("load failed");
    benchmark::DoNotOptimize(file->size());
  }
  count(state, which);
}

// Typed reading of every element of the small file, loaded once: each value as its strings.
void BM_QuibValues(benchmark::State& state) {
  const std::string& p = files().small;
  quib::Dicom file;
  file.load(std::wstring(p.begin(), p.end()), quib::Dicom::READ_STANDARD);
  std::vector<std::string> strings;
  for (auto _ : state) {
    std::size_t total = 0;
    for (const quib::Dicom::Entry& e : file.get_entries()) {
      file.get_strings(e.key, strings);
      total += strings.size();
    }
    benchmark::DoNotOptimize(total);
  }
  state.SetItemsProcessed(state.iterations() * std::int64_t(file.get_entries().size()));
}
BENCHMARK(BM_QuibValues)->Unit(benchmark::kMillisecond);

// The limit of typed reading: each value copied out of the table into one string.
void BM_PlainValues(benchmark::State& state) {
  const std::string& p = files().small;
  quib::Dicom file;
  file.load(std::wstring(p.begin(), p.end()), quib::Dicom::READ_STANDARD);
  std::string text;
  for (auto _ : state) {
    std::size_t total = 0;
    for (const quib::Dicom::Entry& e : file.get_entries()) {
      const std::vector<unsigned char>& v = *file.find(e.key);
      text.assign(v.begin(), v.end());
      total += text.size();
    }
    benchmark::DoNotOptimize(total);
  }
  state.SetItemsProcessed(state.iterations() * std::int64_t(file.get_entries().size()));
}
BENCHMARK(BM_PlainValues)->Unit(benchmark::kMillisecond);

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
BENCHMARK(BM_Dcmtk)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);

// Argument 0: every element as its string through DcmItem::findAndGetOFStringArray, which
// searches the item's list from its start, so only every 100th element is looked up (items per
// second count the look-ups); 1: every element visited in order and read with
// DcmElement::getOFStringArray, dcmtk's own fastest way through a whole data set.
void BM_DcmtkValues(benchmark::State& state) {
  OFLog::configure(OFLogger::FATAL_LOG_LEVEL);
  DcmFileFormat file;
  file.loadFile(OFFilename(files().small.c_str()));
  file.loadAllDataIntoMemory();
  DcmDataset* set = file.getDataset();
  std::vector<DcmTagKey> keys;
  for (DcmObject* o = set->nextInContainer(nullptr); o != nullptr; o = set->nextInContainer(o))
    keys.push_back(o->getTag());
  const bool search = state.range(0) == 0;
  OFString text;
  std::int64_t done = 0;
  for (auto _ : state) {
    std::size_t total = 0;
    if (search) {
      for (std::size_t i = 0; i < keys.size(); i += 100) {
        set->findAndGetOFStringArray(keys[i], text);
        total += text.size();
        ++done;
      }
    } else {
      for (DcmObject* o = set->nextInContainer(nullptr); o != nullptr;
           o = set->nextInContainer(o)) {
        static_cast<DcmElement*>(o)->getOFStringArray(text);
        total += text.size();
        ++done;
      }
    }
    benchmark::DoNotOptimize(total);
  }
  state.SetItemsProcessed(done);
}
BENCHMARK(BM_DcmtkValues)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
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
BENCHMARK(BM_Gdcm)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);
#endif

BENCHMARK(BM_Quib)
    ->Args({0, 0})
    ->Args({0, 1})
    ->Args({1, 0})
    ->Args({1, 1})
    ->Args({2, 1})
    ->Args({3, 0})
    ->Args({3, 1})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlainRead)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
