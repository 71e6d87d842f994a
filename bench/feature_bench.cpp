// Feature::find against the same OpenCV calls made directly, on two 800x640 images.
#include <quib/feature.hpp>

#include <benchmark/benchmark.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

bool smoke() {
  return std::getenv("QUIB_BENCH_SMOKE") != nullptr;
}

struct Pair {
  cv::Mat before;
  cv::Mat after;
};

Pair image_pair() {
  const cv::Size size = smoke() ? cv::Size(160, 128) : cv::Size(800, 640);
  cv::RNG rng(11);
  cv::Mat small(size.height / 4, size.width / 4, CV_8UC1);
  rng.fill(small, cv::RNG::UNIFORM, 0, 256);
  Pair p;
  cv::resize(small, p.before, size, 0, 0, cv::INTER_CUBIC);
  const cv::Mat h = (cv::Mat_<double>(3, 3) << 0.99, -0.04, 12.0, 0.03, 1.0, -8.0, 1e-5, 0, 1);
  cv::warpPerspective(p.before, p.after, h, size, cv::INTER_LINEAR, cv::BORDER_REFLECT);
  return p;
}

constexpr double kLimit = 40.0;
constexpr double kRatio = 2.0;

void BM_FeatureFind(benchmark::State& state) {
  const Pair p = image_pair();
  quib::Feature feature;
  for (auto _ : state) {
    cv::Mat h;
    const bool ok =
        feature.find(h, p.before, p.after, kLimit, kRatio, quib::Feature::MATCH_BRUTE_FORCE_HAMMING,
                     quib::Feature::FIND_RANSAC);
    benchmark::DoNotOptimize(ok);
  }
}
BENCHMARK(BM_FeatureFind)->Unit(benchmark::kMillisecond);

// The same pipeline written against OpenCV alone.
void BM_OpenCvDirect(benchmark::State& state) {
  const Pair p = image_pair();
  cv::Ptr<cv::AKAZE> akaze =
      cv::AKAZE::create(cv::AKAZE::DESCRIPTOR_MLDB, 0, 3, 0.001f, 4, 4, cv::KAZE::DIFF_PM_G2);
  for (auto _ : state) {
    std::vector<cv::KeyPoint> k1, k2;
    cv::Mat d1, d2;
    akaze->detectAndCompute(p.before, cv::noArray(), k1, d1);
    akaze->detectAndCompute(p.after, cv::noArray(), k2, d2);
    std::vector<cv::DMatch> matches;
    cv::DescriptorMatcher::create("BruteForce-Hamming")->match(d1, d2, matches);
    std::vector<cv::DMatch> near;
    for (cv::DMatch const& m : matches) {
      const cv::Point2f d = k1[m.queryIdx].pt - k2[m.trainIdx].pt;
      if (d.x * d.x + d.y * d.y <= kLimit * kLimit) near.push_back(m);
    }
    double low = near.front().distance, high = low, sum = 0;
    for (cv::DMatch const& m : near) {
      low = std::min<double>(low, m.distance);
      high = std::max<double>(high, m.distance);
      sum += m.distance;
    }
    const double threshold = std::clamp(sum / near.size() * kRatio, low, high);
    std::vector<cv::Point2f> from, to;
    for (cv::DMatch const& m : near) {
      if (m.distance > threshold) continue;
      from.push_back(k1[m.queryIdx].pt);
      to.push_back(k2[m.trainIdx].pt);
    }
    cv::Mat h = cv::findHomography(from, to, cv::RANSAC, 3.0, cv::noArray(), 2000, 0.995);
    benchmark::DoNotOptimize(h.data);
  }
}
BENCHMARK(BM_OpenCvDirect)->Unit(benchmark::kMillisecond);

// Key points and descriptors of one picture: ours in one pass, ours in two (detect, then
// compute), OpenCV's detectAndCompute, and one bare pass over the pixels as the plain limit.
void BM_FeatureDetectAndCompute(benchmark::State& state) {
  const Pair p = image_pair();
  quib::Feature feature;
  for (auto _ : state) {
    std::vector<cv::KeyPoint> k;
    cv::Mat d;
    const bool ok = feature.detect_and_compute(k, d, p.before);
    benchmark::DoNotOptimize(ok);
  }
}
BENCHMARK(BM_FeatureDetectAndCompute)->Unit(benchmark::kMillisecond);

void BM_FeatureDetectThenCompute(benchmark::State& state) {
  const Pair p = image_pair();
  quib::Feature feature;
  for (auto _ : state) {
    std::vector<cv::KeyPoint> k;
    cv::Mat d;
    const bool ok = feature.detect(k, p.before) && feature.compute(d, k, p.before);
    benchmark::DoNotOptimize(ok);
  }
}
BENCHMARK(BM_FeatureDetectThenCompute)->Unit(benchmark::kMillisecond);

void BM_OpenCvDetectAndCompute(benchmark::State& state) {
  const Pair p = image_pair();
  cv::Ptr<cv::AKAZE> akaze =
      cv::AKAZE::create(cv::AKAZE::DESCRIPTOR_MLDB, 0, 3, 0.001f, 4, 4, cv::KAZE::DIFF_PM_G2);
  for (auto _ : state) {
    std::vector<cv::KeyPoint> k;
    cv::Mat d;
    akaze->detectAndCompute(p.before, cv::noArray(), k, d);
    benchmark::DoNotOptimize(d.data);
  }
}
BENCHMARK(BM_OpenCvDetectAndCompute)->Unit(benchmark::kMillisecond);

void BM_PlainPassOverPixels(benchmark::State& state) {
  const Pair p = image_pair();
  for (auto _ : state) {
    std::uint64_t sum = 0;
    for (int y = 0; y < p.before.rows; ++y) {
      const unsigned char* row = p.before.ptr<unsigned char>(y);
      for (int x = 0; x < p.before.cols; ++x)
        sum += row[x];
    }
    benchmark::DoNotOptimize(sum);
  }
}
BENCHMARK(BM_PlainPassOverPixels)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
