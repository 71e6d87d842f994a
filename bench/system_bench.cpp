// SHA-256 in one call and streamed in blocks, against OpenSSL's EVP interface called directly, the
// 64-bit hash in its three forms, and the frame pacer's timing over a real 60 fps loop.
#include <quib/clock.hpp>
#include <quib/hash.hpp>

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

bool smoke() {
  return std::getenv("QUIB_BENCH_SMOKE") != nullptr;
}

std::vector<unsigned char> const& data(std::size_t size) {
  static std::vector<unsigned char> buffer;
  if (buffer.size() != size) {
    buffer.assign(size, 0);
    std::uint32_t x = 12345;
    for (auto& b : buffer)
      b = static_cast<unsigned char>((x = x * 1664525u + 1013904223u) >> 24);
  }
  return buffer;
}

void Sha256Quib(benchmark::State& state) {
  auto const& in = data(static_cast<std::size_t>(state.range(0)));
  std::vector<unsigned char> out;
  for (auto _ : state) {
    bool const ok = quib::sha256::compute(out, in);
    benchmark::DoNotOptimize(ok);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}

// The streaming object fed in 64 KiB blocks, as a file reader feeds it.
void Sha256Stream(benchmark::State& state) {
  auto const& in = data(static_cast<std::size_t>(state.range(0)));
  std::size_t const block = 64 * 1024;
  quib::sha256::Hasher sha;
  std::vector<unsigned char> out;
  for (auto _ : state) {
    for (std::size_t at = 0; at < in.size(); at += block)
      sha.update(in.data() + at, std::min(block, in.size() - at));
    bool const ok = sha.final(out);
    benchmark::DoNotOptimize(ok);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}

// The peer: the same digest through EVP directly, with no library in between.
void Sha256Evp(benchmark::State& state) {
  auto const& in = data(static_cast<std::size_t>(state.range(0)));
  unsigned char out[EVP_MAX_MD_SIZE];
  for (auto _ : state) {
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    unsigned int length = 0;
    EVP_DigestInit_ex(context, EVP_sha256(), nullptr);
    EVP_DigestUpdate(context, in.data(), in.size());
    EVP_DigestFinal_ex(context, out, &length);
    EVP_MD_CTX_free(context);
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}

void HashBytes(benchmark::State& state) {
  auto const& in = data(static_cast<std::size_t>(state.range(0)));
  std::vector<unsigned char> out;
  for (auto _ : state) {
    quib::hash::compute(out, in);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}

void HashNarrow(benchmark::State& state) {
  auto const& bytes = data(static_cast<std::size_t>(state.range(0)));
  std::string const in(bytes.begin(), bytes.end());
  for (auto _ : state)
    benchmark::DoNotOptimize(quib::hash::compute(in));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}

// Counted in characters, as the other forms are counted in elements.
void HashWide(benchmark::State& state) {
  auto const& bytes = data(static_cast<std::size_t>(state.range(0)));
  std::wstring const in(bytes.begin(), bytes.end());
  for (auto _ : state)
    benchmark::DoNotOptimize(quib::hash::compute(in));
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0) *
                          static_cast<std::int64_t>(sizeof(wchar_t)));
}

// A real loop paced at 60 fps for `frames` frames: the mean frame time and its jitter (the
// standard deviation of the frame times), in milliseconds.
void FpsLoop(benchmark::State& state) {
  auto const frames = static_cast<int>(state.range(0));
  double mean = 0, jitter = 0;
  int reached = 0;
  for (auto _ : state) {
    quib::Fps fps(60);
    std::vector<double> times;
    auto previous = std::chrono::steady_clock::now();
    for (int f = 0; f < frames; ++f) {
      fps.wait();
      auto const now = std::chrono::steady_clock::now();
      times.push_back(std::chrono::duration<double, std::milli>(now - previous).count());
      previous = now;
    }
    double sum = 0, squares = 0;
    for (double t : times)
      sum += t;
    mean = sum / frames;
    for (double t : times)
      squares += (t - mean) * (t - mean);
    jitter = std::sqrt(squares / frames);
    reached = fps.getFps();
  }
  state.counters["mean_ms"] = mean;
  state.counters["jitter_ms"] = jitter;
  state.counters["getFps"] = reached;
}

}  // namespace

int main(int argc, char** argv) {
  bool const tiny = smoke();
  std::int64_t const mib = 1 << 20;
  for (std::int64_t size :
       tiny ? std::vector<std::int64_t>{1024} : std::vector<std::int64_t>{mib, 256 * mib}) {
    benchmark::RegisterBenchmark("Sha256/quib", Sha256Quib)
        ->Arg(size)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("Sha256/stream", Sha256Stream)
        ->Arg(size)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("Sha256/evp", Sha256Evp)->Arg(size)->Unit(benchmark::kMillisecond);
  }
  std::int64_t const hashed = tiny ? 1024 : 16 * mib;
  benchmark::RegisterBenchmark("Hash/bytes", HashBytes)->Arg(hashed);
  benchmark::RegisterBenchmark("Hash/narrow", HashNarrow)->Arg(hashed);
  benchmark::RegisterBenchmark("Hash/wide", HashWide)->Arg(hashed);
  benchmark::RegisterBenchmark("Fps/60", FpsLoop)
      ->Arg(tiny ? 3 : 120)  // 120 frames at 60 fps: 2 s
      ->Iterations(1)
      ->Unit(benchmark::kMillisecond);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
