// DICOM pixels: frames per codec, whole series into volumes, and one frame of a long multi-frame
// file. Data: a CT-like series (200 slices of 512 x 512, 16 bits) written here in native form
// and compressed with dcmtk's and gdcm's tools (RLE, JPEG Lossless, JPEG-LS, JPEG 2000), and a
// 500-frame file, into a temporary folder kept between runs. Peers: gdcm (ImageReader +
// GetBuffer) and dcmtk (DicomImage), the codec libraries called directly on the same bytes
// (CharLS, OpenJPEG, the 16-bit IJG build), and as limits memcpy of the same bytes and, for
// volumes, reading the files whole.
#include <quib/dicom_image.hpp>

#include "bench_common.hpp"

#include <benchmark/benchmark.h>
#include <charls/charls.h>
#include <openjpeg.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace ijg16 {
extern "C" {
#include <gdcmjpeg/16/jpeglib.h>
}
}  // namespace ijg16

#ifdef QUIB_BENCH_DCMTK
#include <dcmtk/dcmdata/dcrledrg.h>
#include <dcmtk/dcmimgle/dcmimage.h>
#include <dcmtk/dcmjpeg/djdecode.h>
#include <dcmtk/dcmjpls/djdecode.h>
#endif
#ifdef QUIB_BENCH_GDCM
#include <gdcmIPPSorter.h>
#include <gdcmImageReader.h>
#endif

namespace {

namespace fs = std::filesystem;

const int kSlices = quib::bench::size(200, 6);
const int kSide = quib::bench::size(512, 64);
const int kFrames = quib::bench::size(500, 8);
const int kFrameSide = quib::bench::size(256, 32);

struct Codec {
  const char* name;
  const char* command;  // how the native slice {in} becomes {out}; empty for native
};
const Codec kCodecs[] = {{"native", ""},
                         {"rle", "dcmcrle {in} {out}"},
                         {"jpeg-lossless", "dcmcjpeg +e1 {in} {out}"},
                         {"jpeg-ls", "dcmcjpls {in} {out}"},
                         {"j2k", "gdcmconv --j2k {in} {out}"}};

// A native explicit-VR little-endian file: 16-bit unsigned samples, 12 stored, CT-like.
std::string native_file(int side, int frames, int slice, const std::string& series) {
  std::string out = std::string(128, '\0') + "DICM";
  auto element = [&](unsigned group, unsigned number, const std::string& vr, std::string value) {
    if (value.size() % 2) value += vr == "UI" ? '\0' : ' ';
    auto u16 = [&](unsigned v) { out += std::string{char(v & 0xFF), char(v >> 8)}; };
    u16(group), u16(number);
    out += vr;
    if (vr == "OW" || vr == "OB") {
      u16(0), u16(unsigned(value.size() & 0xFFFF)), u16(unsigned(value.size() >> 16));
    } else {
      u16(unsigned(value.size()));
    }
    out += value;
  };
  auto us = [](unsigned v) { return std::string{char(v & 0xFF), char(v >> 8)}; };
  const std::string sop = frames > 1 ? "1.2.840.10008.5.1.4.1.1.7.3" : "1.2.840.10008.5.1.4.1.1.2";
  const std::string instance = series + "." + std::to_string(slice + 1);
  element(0x0002, 0x0001, "OB", std::string("\0\1", 2));
  element(0x0002, 0x0002, "UI", sop);
  element(0x0002, 0x0003, "UI", instance);
  element(0x0002, 0x0010, "UI", "1.2.840.10008.1.2.1");
  element(0x0008, 0x0016, "UI", sop);
  element(0x0008, 0x0018, "UI", instance);
  element(0x0008, 0x0060, "CS", "CT");
  element(0x0018, 0x0050, "DS", "1.25");
  element(0x0020, 0x000D, "UI", series + ".0");
  element(0x0020, 0x000E, "UI", series);
  element(0x0020, 0x0013, "IS", std::to_string(slice + 1));
  element(0x0020, 0x0032, "DS", "-100\\-120\\" + std::to_string(-200 + 1.25 * slice));
  element(0x0020, 0x0037, "DS", "1\\0\\0\\0\\1\\0");
  element(0x0028, 0x0002, "US", us(1));
  element(0x0028, 0x0004, "CS", "MONOCHROME2");
  if (frames > 1) element(0x0028, 0x0008, "IS", std::to_string(frames));
  element(0x0028, 0x0010, "US", us(unsigned(side)));
  element(0x0028, 0x0011, "US", us(unsigned(side)));
  element(0x0028, 0x0030, "DS", "0.7\\0.7");
  element(0x0028, 0x0100, "US", us(16));
  element(0x0028, 0x0101, "US", us(12));
  element(0x0028, 0x0102, "US", us(11));
  element(0x0028, 0x0103, "US", us(0));
  element(0x0028, 0x1052, "DS", "-1024");
  element(0x0028, 0x1053, "DS", "1");
  std::string pixels(std::size_t(side) * side * 2 * frames, '\0');
  std::uint32_t noise = 12345u + std::uint32_t(slice);
  for (int f = 0; f < frames; ++f)
    for (int y = 0; y < side; ++y)
      for (int x = 0; x < side; ++x) {
        const double dx = x - side / 2.0, dy = y - side / 2.0, r = std::sqrt(dx * dx + dy * dy);
        noise = noise * 1664525u + 1013904223u;
        int v =
            r < side * 0.45 ? 1024 + 40 + int(30 * std::sin(0.05 * x + 0.03 * (slice + f))) : 24;
        if (r < side * 0.1) v = 1024 + 700;
        v += int(noise >> 28) - 8;
        const std::size_t at = (std::size_t(f) * side * side + std::size_t(y) * side + x) * 2;
        pixels[at] = char(v & 0xFF), pixels[at + 1] = char((v >> 8) & 0x0F);
      }
  element(0x7FE0, 0x0010, "OW", pixels);
  return out;
}

std::string fill(std::string command, const std::string& in, const std::string& out) {
  command.replace(command.find("{in}"), 4, in);
  command.replace(command.find("{out}"), 5, out);
  return command + " >/dev/null 2>&1";
}

// The data folder: <tmp>/quib_dicom_pixels_bench_<slices>x<side>/<codec>/sliceNNN.dcm and
// multi-<codec>.dcm; made once, reused while it is complete.
const fs::path& data_folder() {
  static const fs::path root = [] {
    const fs::path dir =
        fs::temp_directory_path() /
        ("quib_dicom_pixels_bench_" + std::to_string(kSlices) + "x" + std::to_string(kSide));
    const fs::path done = dir / "complete";
    if (fs::exists(done)) return dir;
    for (const Codec& c : kCodecs)
      fs::create_directories(dir / c.name);
    for (int k = 0; k < kSlices; ++k) {
      char name[32];
      std::snprintf(name, sizeof name, "slice%03d.dcm", k);
      const fs::path native = dir / "native" / name;
      std::ofstream(native, std::ios::binary)
          << native_file(kSide, 1, k, "1.2.826.0.1.3680043.9.7777");
      for (const Codec& c : kCodecs)
        if (*c.command)
          std::system(fill(c.command, native.string(), (dir / c.name / name).string()).c_str());
    }
    const fs::path multi = dir / "multi-native.dcm";
    std::ofstream(multi, std::ios::binary)
        << native_file(kFrameSide, kFrames, 0, "1.2.826.0.1.3680043.9.7778");
    std::system(
        fill("dcmcjpls {in} {out}", multi.string(), (dir / "multi-jpeg-ls.dcm").string()).c_str());
    std::ofstream(done) << "ok";
    return dir;
  }();
  return root;
}

std::string slice_path(const char* codec, int k) {
  char name[32];
  std::snprintf(name, sizeof name, "slice%03d.dcm", k);
  return (data_folder() / codec / name).string();
}

std::wstring wide(const std::string& s) {
  return std::wstring(s.begin(), s.end());
}

const std::size_t kFrameBytes = std::size_t(kSide) * kSide * 2;

// Whole file to pixels, one slice per iteration, cycling through the series.
void BM_FileToPixels_Quib(benchmark::State& state) {
  const Codec& codec = kCodecs[state.range(0)];
  std::vector<unsigned char> out(kFrameBytes);
  int k = 0;
  for (auto _ : state) {
    quib::Dicom file;
    file.load(wide(slice_path(codec.name, k)), quib::Dicom::READ_STANDARD);
    quib::DicomPixels pixels(file);
    if (!pixels.decode(0, out.data(), out.size())) state.SkipWithError(pixels.get_error().c_str());
    benchmark::DoNotOptimize(out.data());
    k = (k + 1) % kSlices;
  }
  state.SetLabel(codec.name);
  state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(kFrameBytes));
}
BENCHMARK(BM_FileToPixels_Quib)->DenseRange(0, 4)->Unit(benchmark::kMillisecond);

#ifdef QUIB_BENCH_GDCM
void BM_FileToPixels_Gdcm(benchmark::State& state) {
  const Codec& codec = kCodecs[state.range(0)];
  std::vector<char> out(kFrameBytes);
  int k = 0;
  for (auto _ : state) {
    gdcm::ImageReader reader;
    reader.SetFileName(slice_path(codec.name, k).c_str());
    if (!reader.Read() || !reader.GetImage().GetBuffer(out.data()))
      state.SkipWithError("gdcm failed");
    benchmark::DoNotOptimize(out.data());
    k = (k + 1) % kSlices;
  }
  state.SetLabel(codec.name);
  state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(kFrameBytes));
}
BENCHMARK(BM_FileToPixels_Gdcm)->DenseRange(0, 4)->Unit(benchmark::kMillisecond);
#endif

#ifdef QUIB_BENCH_DCMTK
struct DcmtkCodecs {
  DcmtkCodecs() {
    DJDecoderRegistration::registerCodecs();
    DJLSDecoderRegistration::registerCodecs();
    DcmRLEDecoderRegistration::registerCodecs();
  }
};

void BM_FileToPixels_Dcmtk(benchmark::State& state) {
  static DcmtkCodecs codecs;
  const Codec& codec = kCodecs[state.range(0)];
  if (state.range(0) == 4) {
    state.SkipWithError("dcmtk has no JPEG 2000 decoder");
    return;
  }
  int k = 0;
  for (auto _ : state) {
    DicomImage image(slice_path(codec.name, k).c_str());
    const DiPixel* data = image.getInterData();
    if (image.getStatus() != EIS_Normal || !data) state.SkipWithError("dcmtk failed");
    benchmark::DoNotOptimize(data ? data->getData() : nullptr);
    k = (k + 1) % kSlices;
  }
  state.SetLabel(codec.name);
  state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(kFrameBytes));
}
BENCHMARK(BM_FileToPixels_Dcmtk)->DenseRange(0, 4)->Unit(benchmark::kMillisecond);
#endif

// Decoding from memory: our call against the codec library called directly on the same bytes
// (memcpy for native data).
struct InMemory {
  quib::Dicom file;
  quib::DicomPixels pixels;
  std::vector<unsigned char> stream;  // the frame's bytes (one fragment)
  explicit InMemory(const char* codec) {
    file.load(wide(slice_path(codec, 0)), quib::Dicom::READ_STANDARD);
    pixels.load(file);
    const auto& value = file->at(quib::dicom::tag_key(0x7FE0, 0x0010));
    if (!pixels.is_encapsulated()) {
      stream = value;
      return;
    }
    std::vector<std::pair<std::size_t, std::size_t>> fragments;
    file.get_fragments("PixelData", fragments);
    if (fragments.size() > 1)
      stream.assign(value.begin() + std::ptrdiff_t(fragments[1].first),
                    value.begin() + std::ptrdiff_t(fragments[1].first + fragments[1].second));
  }
};

void BM_Decode_Quib(benchmark::State& state) {
  const Codec& codec = kCodecs[state.range(0)];
  InMemory data(codec.name);
  std::vector<unsigned char> out(kFrameBytes);
  for (auto _ : state) {
    if (!data.pixels.decode(0, out.data(), out.size()))
      state.SkipWithError(data.pixels.get_error().c_str());
    benchmark::DoNotOptimize(out.data());
  }
  state.SetLabel(codec.name);
  state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(kFrameBytes));
}
BENCHMARK(BM_Decode_Quib)->DenseRange(0, 4)->Unit(benchmark::kMicrosecond);

void BM_Decode_Memcpy(benchmark::State& state) {
  InMemory data("native");
  std::vector<unsigned char> out(kFrameBytes);
  for (auto _ : state) {
    std::memcpy(out.data(), data.stream.data(), std::min(out.size(), data.stream.size()));
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(kFrameBytes));
}
BENCHMARK(BM_Decode_Memcpy)->Unit(benchmark::kMicrosecond);

void BM_Decode_CharLS(benchmark::State& state) {
  InMemory data("jpeg-ls");
  std::vector<unsigned char> out(kFrameBytes);
  for (auto _ : state) {
    charls_jpegls_decoder* d = charls_jpegls_decoder_create();
    bool ok = charls_jpegls_decoder_set_source_buffer(d, data.stream.data(), data.stream.size()) ==
                  charls::jpegls_errc::success &&
              charls_jpegls_decoder_read_header(d) == charls::jpegls_errc::success &&
              charls_jpegls_decoder_decode_to_buffer(d, out.data(), out.size(), 0) ==
                  charls::jpegls_errc::success;
    charls_jpegls_decoder_destroy(d);
    if (!ok) state.SkipWithError("CharLS failed");
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(kFrameBytes));
}
BENCHMARK(BM_Decode_CharLS)->Unit(benchmark::kMicrosecond);

// The 16-bit IJG build that decodes lossless JPEG, called directly: a memory source and one
// jpeg_read_scanlines per row straight into the output.
void BM_Decode_Ijg16(benchmark::State& state) {
  using namespace ijg16;
  InMemory data("jpeg-lossless");
  std::vector<unsigned char> out(kFrameBytes);
  for (auto _ : state) {
    jpeg_decompress_struct info;
    jpeg_error_mgr err;
    info.err = jpeg_std_error(&err);
    jpeg_create_decompress(&info);
    jpeg_source_mgr source;
    source.next_input_byte = data.stream.data();
    source.bytes_in_buffer = data.stream.size();
    source.init_source = source.term_source = [](j_decompress_ptr) {};
    source.fill_input_buffer = [](j_decompress_ptr) -> boolean { return FALSE; };
    source.skip_input_data = [](j_decompress_ptr d, long n) {
      d->src->next_input_byte += n, d->src->bytes_in_buffer -= std::size_t(n);
    };
    source.resync_to_restart = jpeg_resync_to_restart;
    info.src = &source;
    jpeg_read_header(&info, TRUE);
    jpeg_start_decompress(&info);
    const std::size_t row_bytes = std::size_t(info.output_width) * 2;
    while (info.output_scanline < info.output_height) {
      JSAMPROW row = reinterpret_cast<JSAMPROW>(out.data() + info.output_scanline * row_bytes);
      jpeg_read_scanlines(&info, &row, 1);
    }
    jpeg_finish_decompress(&info);
    jpeg_destroy_decompress(&info);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(kFrameBytes));
}
BENCHMARK(BM_Decode_Ijg16)->Unit(benchmark::kMicrosecond);

struct OpjReader {
  const std::vector<unsigned char>* bytes;
  std::size_t at;
};

void BM_Decode_OpenJPEG(benchmark::State& state) {
  InMemory data("j2k");
  std::vector<unsigned char> out(kFrameBytes);
  for (auto _ : state) {
    OpjReader r{&data.stream, 0};
    opj_codec_t* codec = opj_create_decompress(OPJ_CODEC_J2K);
    opj_stream_t* stream = opj_stream_create(1 << 16, OPJ_TRUE);
    opj_stream_set_user_data(stream, &r, nullptr);
    opj_stream_set_user_data_length(stream, data.stream.size());
    opj_stream_set_read_function(stream, [](void* buffer, OPJ_SIZE_T n, void* user) -> OPJ_SIZE_T {
      auto* rr = static_cast<OpjReader*>(user);
      const std::size_t left = rr->bytes->size() - rr->at;
      if (left == 0) return OPJ_SIZE_T(-1);
      n = std::min<std::size_t>(n, left);
      std::memcpy(buffer, rr->bytes->data() + rr->at, n);
      rr->at += n;
      return n;
    });
    opj_stream_set_skip_function(stream, [](OPJ_OFF_T n, void* user) -> OPJ_OFF_T {
      auto* rr = static_cast<OpjReader*>(user);
      rr->at += std::size_t(n);
      return n;
    });
    opj_stream_set_seek_function(stream, [](OPJ_OFF_T n, void* user) -> OPJ_BOOL {
      static_cast<OpjReader*>(user)->at = std::size_t(n);
      return OPJ_TRUE;
    });
    opj_dparameters_t parameters;
    opj_set_default_decoder_parameters(&parameters);
    opj_setup_decoder(codec, &parameters);
    opj_image_t* image = nullptr;
    const bool ok = opj_read_header(stream, codec, &image) && opj_decode(codec, stream, image) &&
                    opj_end_decompress(codec, stream);
    if (ok) {  // the samples into 16-bit containers, as any caller must
      const OPJ_INT32* from = image->comps[0].data;
      for (std::size_t p = 0; p < kFrameBytes / 2; ++p) {
        const auto v = static_cast<std::uint16_t>(from[p]);
        std::memcpy(out.data() + 2 * p, &v, 2);
      }
    }
    opj_image_destroy(image);
    opj_stream_destroy(stream);
    opj_destroy_codec(codec);
    if (!ok) state.SkipWithError("OpenJPEG failed");
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(kFrameBytes));
}
BENCHMARK(BM_Decode_OpenJPEG)->Unit(benchmark::kMicrosecond);

// The whole series into one volume: on the calling thread alone (second argument 1) and on
// every core (0).
void BM_Volume_Quib(benchmark::State& state) {
  const Codec& codec = kCodecs[state.range(0)];
  const std::wstring folder = (data_folder() / codec.name).wstring();
  int threads = 0;
  for (auto _ : state) {
    quib::DicomVolume volume;
    volume.set_threads(int(state.range(1)));
    if (!volume.load(folder)) state.SkipWithError(volume.get_error().c_str());
    threads = volume.get_threads();
    benchmark::DoNotOptimize(volume.get_data());
  }
  state.SetLabel(std::string(codec.name) + ", " + std::to_string(threads) + " threads");
  state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(kFrameBytes) * kSlices);
}
BENCHMARK(BM_Volume_Quib)
    ->ArgsProduct({{0, 1, 2, 3, 4}, {1, 0}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The limit: every slice file read whole into the one volume-sized buffer, no parsing.
void BM_Volume_ReadFiles(benchmark::State& state) {
  const Codec& codec = kCodecs[state.range(0)];
  std::vector<std::string> names;
  std::size_t total = 0;
  for (int k = 0; k < kSlices; ++k)
    names.push_back(slice_path(codec.name, k)), total += fs::file_size(names.back());
  for (auto _ : state) {
    std::unique_ptr<char[]> volume(new char[std::max(total, kFrameBytes * kSlices)]);
    std::size_t at = 0;
    for (const std::string& name : names) {
      std::ifstream in(name, std::ios::binary);
      in.read(volume.get() + at, std::streamsize(total - at));
      at += std::size_t(in.gcount());
    }
    benchmark::DoNotOptimize(volume.get());
  }
  state.SetLabel(codec.name);
  state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(kFrameBytes) * kSlices);
}
BENCHMARK(BM_Volume_ReadFiles)->DenseRange(0, 4)->Unit(benchmark::kMillisecond)->UseRealTime();

#ifdef QUIB_BENCH_GDCM
void BM_Volume_Gdcm(benchmark::State& state) {
  const Codec& codec = kCodecs[state.range(0)];
  std::vector<std::string> names;
  for (int k = 0; k < kSlices; ++k)
    names.push_back(slice_path(codec.name, k));
  for (auto _ : state) {
    gdcm::IPPSorter sorter;
    sorter.SetComputeZSpacing(true);
    if (!sorter.Sort(names)) state.SkipWithError("gdcm could not sort");
    std::unique_ptr<char[]> volume(new char[kFrameBytes * kSlices]);
    std::size_t k = 0;
    for (const std::string& name : sorter.GetFilenames()) {
      gdcm::ImageReader reader;
      reader.SetFileName(name.c_str());
      if (!reader.Read() || !reader.GetImage().GetBuffer(volume.get() + k++ * kFrameBytes))
        state.SkipWithError("gdcm failed");
    }
    benchmark::DoNotOptimize(volume.get());
  }
  state.SetLabel(codec.name);
  state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(kFrameBytes) * kSlices);
}
BENCHMARK(BM_Volume_Gdcm)->DenseRange(0, 4)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

#ifdef QUIB_BENCH_DCMTK
void BM_Volume_Dcmtk(benchmark::State& state) {
  static DcmtkCodecs codecs;
  const Codec& codec = kCodecs[state.range(0)];
  if (state.range(0) == 4) {
    state.SkipWithError("dcmtk has no JPEG 2000 decoder");
    return;
  }
  for (auto _ : state) {
    // dcmtk has no series sorter: each image is copied into place in file order (the files
    // are named in position order), which spares dcmtk the sorting the others do.
    std::unique_ptr<char[]> volume(new char[kFrameBytes * kSlices]);
    for (int k = 0; k < kSlices; ++k) {
      DicomImage image(slice_path(codec.name, k).c_str());
      const DiPixel* data = image.getInterData();
      if (image.getStatus() != EIS_Normal || !data) {
        state.SkipWithError("dcmtk failed");
        break;
      }
      std::memcpy(volume.get() + std::size_t(k) * kFrameBytes, data->getData(),
                  std::min<std::size_t>(kFrameBytes, data->getCount() * 2));
    }
    benchmark::DoNotOptimize(volume.get());
  }
  state.SetLabel(codec.name);
  state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(kFrameBytes) * kSlices);
}
BENCHMARK(BM_Volume_Dcmtk)->DenseRange(0, 4)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

// Frame k of the 500-frame JPEG-LS file: locating it and decoding it alone.
void BM_MultiFrame_Quib(benchmark::State& state) {
  static quib::Dicom file;
  if (file.empty())
    file.load((data_folder() / "multi-jpeg-ls.dcm").wstring(), quib::Dicom::READ_STANDARD);
  const int k = state.range(0) == 0 ? 0 : kFrames - 1;
  std::vector<unsigned char> out(std::size_t(kFrameSide) * kFrameSide * 2);
  for (auto _ : state) {
    quib::DicomPixels pixels(file);
    if (!pixels.decode(k, out.data(), out.size())) state.SkipWithError(pixels.get_error().c_str());
    benchmark::DoNotOptimize(out.data());
  }
  state.SetLabel("frame " + std::to_string(k));
}
BENCHMARK(BM_MultiFrame_Quib)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
