// ContourTracer against cv::findContours (external contours, every boundary pixel) on a mask
// of many blobs.
#include <quib/contour.hpp>

#include <benchmark/benchmark.h>
#include <opencv2/imgproc.hpp>

#include <cstdlib>
#if defined(__GLIBC__)
#include <malloc.h>
#endif
#include <vector>

namespace {

bool smoke() {
  return std::getenv("QUIB_BENCH_SMOKE") != nullptr;
}

// About 2000 filled ellipses of assorted sizes and angles on a 4000x4000 mask (a small one
// for the smoke run), with the outermost pixels left clear.
cv::Mat blob_mask() {
  const int side = smoke() ? 200 : 4000;
  const int blobs = smoke() ? 10 : 2600;
  cv::Mat mask = cv::Mat::zeros(side, side, CV_8UC1);
  cv::RNG rng(42);
  for (int i = 0; i < blobs; ++i) {
    const cv::Point centre(rng.uniform(40, side - 40), rng.uniform(40, side - 40));
    const cv::Size axes(rng.uniform(4, 26), rng.uniform(4, 26));
    cv::ellipse(mask, centre, axes, rng.uniform(0.0, 180.0), 0, 360, cv::Scalar(255), cv::FILLED);
  }
  cv::rectangle(mask, cv::Rect(0, 0, side, side), cv::Scalar(0));
  return mask;
}

// Builds a tracer and searches until false; with `construction` false, only the search is
// timed (not the private copy of the image and the zeroed mask).
void trace_regions(benchmark::State& state, bool construction) {
  cv::Mat mask = blob_mask();
  std::size_t regions = 0;
  for (auto _ : state) {
    if (!construction) state.PauseTiming();
    quib::ocv::ContourTracer tracer(mask);
    if (!construction) state.ResumeTiming();
    std::vector<cv::Point> contour;
    cv::Point position(0, 0);
    regions = 0;
    while (tracer.search(contour, position, 0))
      ++regions;
    benchmark::DoNotOptimize(regions);
  }
  state.counters["regions"] = static_cast<double>(regions);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(mask.total()));
}

void BM_ContourTracer(benchmark::State& state) {
  trace_regions(state, true);
}
BENCHMARK(BM_ContourTracer)->Unit(benchmark::kMillisecond);

void BM_ContourTracerSearchOnly(benchmark::State& state) {
  trace_regions(state, false);
}
BENCHMARK(BM_ContourTracerSearchOnly)->Unit(benchmark::kMillisecond);

void BM_OpenCvFindContours(benchmark::State& state) {
  cv::Mat mask = blob_mask();
  std::size_t regions = 0;
  for (auto _ : state) {
    std::vector<std::vector<cv::Point>> contours;
    cv::findContours(mask, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
    regions = contours.size();
    benchmark::DoNotOptimize(regions);
  }
  state.counters["regions"] = static_cast<double>(regions);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(mask.total()));
}
BENCHMARK(BM_OpenCvFindContours)->Unit(benchmark::kMillisecond);

// The plain limit: one bare pass over the mask, counting the left edges of foreground runs.
void BM_PlainPassOverMask(benchmark::State& state) {
  cv::Mat mask = blob_mask();
  for (auto _ : state) {
    std::size_t edges = 0;
    for (int y = 0; y < mask.rows; ++y) {
      const unsigned char* row = mask.ptr<unsigned char>(y);
      unsigned char left = 0;
      for (int x = 0; x < mask.cols; ++x) {
        edges += (row[x] != 0) & (left == 0);
        left = row[x];
      }
    }
    benchmark::DoNotOptimize(edges);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(mask.total()));
}
BENCHMARK(BM_PlainPassOverMask)->Unit(benchmark::kMillisecond);

}  // namespace

// Both sides allocate an image-sized copy per iteration (the tracer also a mask). Keep freed
// memory in the process, so that the loop measures the work rather than the kernel handing out
// fresh zeroed pages again on every iteration, which it does for one side only.
int main(int argc, char** argv) {
#if defined(__GLIBC__)
  mallopt(M_MMAP_THRESHOLD, 256 * 1024 * 1024);
  mallopt(M_TRIM_THRESHOLD, 512 * 1024 * 1024);
#endif
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
