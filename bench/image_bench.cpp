// Streaming a large 24-bit bitmap with Dib, against cv::imread / cv::imwrite and against a plain
// read or write of the same number of bytes (the I/O limit; the file sits in the page cache).
#include <quib/dib.hpp>

#include <benchmark/benchmark.h>
#include <opencv2/imgcodecs.hpp>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "bench_common.hpp"

namespace {

namespace fs = std::filesystem;

const int kWidth = quib::bench::size(8000, 160);  // a multiple of 4: rows need no padding
const int kHeight = quib::bench::size(6000, 120);
constexpr int kBand = 64;

std::string benchPath(const char* name) {
  static const fs::path dir = [] {
    fs::path d = fs::temp_directory_path() / "quib-image-bench";
    fs::create_directories(d);
    return d;
  }();
  return (dir / name).string();
}

cv::Mat picture() {
  cv::Mat m(kHeight, kWidth, CV_8UC3);
  cv::randu(m, cv::Scalar::all(0), cv::Scalar::all(255));
  return m;
}

// The source file for the read benchmarks, written once.
const std::string& sourceFile() {
  static const std::string path = [] {
    const std::string p = benchPath("source24.bmp");
    cv::imwrite(p, picture());
    return p;
  }();
  return path;
}

std::int64_t fileBytes(std::string const& path) {
  return std::int64_t(fs::file_size(path));
}

void BM_PlainRead(benchmark::State& state) {
  const std::string& path = sourceFile();
  std::vector<char> all(static_cast<std::size_t>(fileBytes(path)));
  for (auto _ : state) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    const std::size_t n = std::fread(all.data(), 1, all.size(), f);
    std::fclose(f);
    benchmark::DoNotOptimize(n);
  }
  state.SetBytesProcessed(state.iterations() * fileBytes(path));
}

void BM_DibReadBands(benchmark::State& state) {
  const std::string& path = sourceFile();
  std::vector<unsigned char> band;
  for (auto _ : state) {
    quib::Dib dib(path);
    band.resize(std::size_t(kBand) * dib.getLineBytes());
    std::int64_t total = 0;
    while (const int n = dib.read(band.data(), int(band.size())))
      total += n;
    benchmark::DoNotOptimize(total);
  }
  state.SetBytesProcessed(state.iterations() * fileBytes(path));
}

// The whole picture in picture order (rows top-down), as cv::imread gives it.
void BM_DibReadImage(benchmark::State& state) {
  const std::string& path = sourceFile();
  for (auto _ : state) {
    const quib::Image picture = quib::Dib::read_image(path);
    benchmark::DoNotOptimize(picture.getBuffer());
  }
  state.SetBytesProcessed(state.iterations() * fileBytes(path));
}

void BM_CvImread(benchmark::State& state) {
  const std::string& path = sourceFile();
  for (auto _ : state) {
    cv::Mat m = cv::imread(path, cv::IMREAD_UNCHANGED);
    benchmark::DoNotOptimize(m.data);
  }
  state.SetBytesProcessed(state.iterations() * fileBytes(path));
}

void BM_PlainWrite(benchmark::State& state) {
  const std::string path = benchPath("plain.bmp");
  const std::vector<char> all(static_cast<std::size_t>(fileBytes(sourceFile())), 1);
  for (auto _ : state) {
    fs::remove(path);  // as the other writers: a new file each time
    std::FILE* f = std::fopen(path.c_str(), "wb");
    std::fwrite(all.data(), 1, all.size(), f);
    std::fclose(f);
  }
  state.SetBytesProcessed(state.iterations() * std::int64_t(all.size()));
}

void BM_DibWriteBands(benchmark::State& state) {
  const std::string path = benchPath("dib.bmp");
  const cv::Mat source = picture();  // rows of 3 * width bytes: already the file's row length
  for (auto _ : state) {
    fs::remove(path);
    quib::Dib dib(path, kWidth, kHeight, 96, 96, 8, 4, 3, quib::Palette());
    for (int row = 0; row < kHeight; row += kBand) {
      const int rows = std::min(kBand, kHeight - row);
      const int n = dib.write(source.ptr(row), rows * dib.getLineBytes());
      benchmark::DoNotOptimize(n);
    }
  }
  state.SetBytesProcessed(state.iterations() * fileBytes(path));
}

void BM_CvImwrite(benchmark::State& state) {
  const std::string path = benchPath("cv.bmp");
  const cv::Mat source = picture();
  for (auto _ : state)
    cv::imwrite(path, source);
  state.SetBytesProcessed(state.iterations() * fileBytes(path));
}

// Many small 8-bit files with a full colour table: here the headers and the table are a real
// part of the work, so this is where the reading of header fields shows.
constexpr int kSmallSide = 64;

const std::string& smallFile() {
  static const std::string path = [] {
    const std::string p = benchPath("small8.bmp");
    cv::Mat m(kSmallSide, kSmallSide, CV_8UC1);
    cv::randu(m, cv::Scalar::all(0), cv::Scalar::all(255));
    cv::imwrite(p, m);
    return p;
  }();
  return path;
}

void BM_PlainReadSmall(benchmark::State& state) {
  const std::string& path = smallFile();
  std::vector<char> all(static_cast<std::size_t>(fileBytes(path)));
  for (auto _ : state) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    const std::size_t n = std::fread(all.data(), 1, all.size(), f);
    std::fclose(f);
    benchmark::DoNotOptimize(n);
  }
  state.SetBytesProcessed(state.iterations() * fileBytes(path));
}

void BM_DibReadSmall(benchmark::State& state) {
  const std::string& path = smallFile();
  std::vector<unsigned char> rows;
  for (auto _ : state) {
    quib::Dib dib(path);
    rows.resize(std::size_t(dib.getHeight()) * dib.getLineBytes());
    const int n = dib.read(rows.data(), int(rows.size()));
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(dib.getPalette().begin());
  }
  state.SetBytesProcessed(state.iterations() * fileBytes(path));
}

void BM_DibWriteSmall(benchmark::State& state) {
  const std::string path = benchPath("dib_small.bmp");
  quib::Palette grey(256);
  for (int i = 0; i < 256; ++i)
    grey[i] = 0x010101u * unsigned(i);
  const std::vector<unsigned char> rows(std::size_t(kSmallSide) * kSmallSide, 7);
  for (auto _ : state) {
    fs::remove(path);
    quib::Dib dib(path, kSmallSide, kSmallSide, 96, 96, 8, 4, 1, grey);
    const int n = dib.write(rows.data(), int(rows.size()));
    benchmark::DoNotOptimize(n);
  }
  state.SetBytesProcessed(state.iterations() * fileBytes(path));
}

void BM_DibReadImageSmall(benchmark::State& state) {
  const std::string& path = smallFile();
  for (auto _ : state) {
    const quib::Image picture = quib::Dib::read_image(path);
    benchmark::DoNotOptimize(picture.getBuffer());
  }
  state.SetBytesProcessed(state.iterations() * fileBytes(path));
}

void BM_CvImreadSmall(benchmark::State& state) {
  const std::string& path = smallFile();
  for (auto _ : state) {
    cv::Mat m = cv::imread(path, cv::IMREAD_UNCHANGED);
    benchmark::DoNotOptimize(m.data);
  }
  state.SetBytesProcessed(state.iterations() * fileBytes(path));
}

BENCHMARK(BM_PlainRead)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DibReadBands)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DibReadImage)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CvImread)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PlainWrite)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DibWriteBands)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CvImwrite)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PlainReadSmall)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_DibReadSmall)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_DibReadImageSmall)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_CvImreadSmall)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_DibWriteSmall)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
