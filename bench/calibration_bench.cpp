// Calibration and undistortion through quib against the same OpenCV calls made directly.
#include <quib/calibration.hpp>
#include <quib/projection.hpp>

#include "chessboard_views.hpp"

#include <benchmark/benchmark.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <cfloat>
#include <cstdlib>
#include <vector>

namespace {

bool smoke() {
  return std::getenv("QUIB_BENCH_SMOKE") != nullptr;
}

struct Scene {
  cv::Size size;
  cv::Matx33d camera;
  cv::Vec4d lens{-0.1, 0.02, 0.0005, -0.0005};
  std::vector<quib::Image> views;
};

// 20 views at 1280x960 (4 at 320x240 for the smoke run), rendered once.
Scene const& scene() {
  static const Scene s = [] {
    Scene made;
    const double scale = smoke() ? 0.5 : 2.0;
    made.size = cv::Size(static_cast<int>(640 * scale), static_cast<int>(480 * scale));
    made.camera = cv::Matx33d(620 * scale, 0, 322 * scale, 0, 615 * scale, 238 * scale, 0, 0, 1);
    const quib::test::BoardRenderer renderer(made.size, made.camera, cv::Vec4d(), 2);
    const auto poses = quib::test::board_poses(560);
    const int count = smoke() ? 4 : 20;
    for (int i = 0; i < count; ++i) {
      quib::test::BoardPose pose = poses[i % poses.size()];
      pose.rvec[2] += 0.03 * (i / 8);
      pose.tvec[0] += 8.0 * (i / 8);
      const cv::Mat grey = renderer.render(pose, 10, 7, 24, 24);
      quib::Image image(grey.cols, grey.rows, 24, 4, quib::color_type::bgr);
      cv::Mat view = image.makeMat();
      cv::cvtColor(grey, view, cv::COLOR_GRAY2BGR);
      made.views.push_back(image);
    }
    return made;
  }();
  return s;
}

void BM_CalibrateQuib(benchmark::State& state) {
  Scene const& s = scene();
  for (auto _ : state) {
    quib::Calibration calib;
    quib::Calibration::Info info;
    int accepted = 0;
    for (auto const& view : s.views)
      accepted += calib.calibration(info, view) ? 1 : 0;
    benchmark::DoNotOptimize(accepted);
    quib::Projection camera;
    benchmark::DoNotOptimize(calib.get_camera_matrix(info, camera));
  }
  state.counters["views"] = static_cast<double>(s.views.size());
}
BENCHMARK(BM_CalibrateQuib)->Unit(benchmark::kMillisecond);

void BM_CalibrateOpenCV(benchmark::State& state) {
  Scene const& s = scene();
  const cv::Size pattern(10, 7);
  std::vector<cv::Point3f> board;
  for (int j = 0; j < 7; ++j) {
    for (int i = 0; i < 10; ++i)
      board.emplace_back(24.f * i - 108.f, 24.f * j - 72.f, 0.f);
  }
  for (auto _ : state) {
    std::vector<std::vector<cv::Point2f>> images;
    for (auto const& view : s.views) {
      const cv::Mat bgr = view.makeMat();
      std::vector<cv::Point2f> corners;
      if (!cv::findChessboardCorners(bgr, pattern, corners,
                                     cv::CALIB_CB_ADAPTIVE_THRESH | cv::CALIB_CB_NORMALIZE_IMAGE)) {
        continue;
      }
      cv::Mat grey;
      cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
      cv::cornerSubPix(
          grey, corners, cv::Size(3, 3), cv::Size(-1, -1),
          cv::TermCriteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 20, 0.03f));
      images.push_back(corners);
    }
    std::vector<std::vector<cv::Point3f>> objects(images.size(), board);
    cv::Mat camera = cv::Mat::zeros(3, 3, CV_64F);
    cv::Mat lens = cv::Mat::zeros(1, 4, CV_64F);
    cv::calibrateCamera(
        objects, images, s.size, camera, lens, cv::noArray(), cv::noArray(), cv::CALIB_FIX_K3,
        cv::TermCriteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 30, DBL_EPSILON));
    std::vector<cv::Point3f> allObjects;
    std::vector<cv::Point2f> allImages;
    for (std::size_t v = 0; v < images.size(); ++v) {
      allObjects.insert(allObjects.end(), board.begin(), board.end());
      allImages.insert(allImages.end(), images[v].begin(), images[v].end());
    }
    cv::Mat rvec;
    cv::Mat tvec;
    cv::solvePnP(allObjects, allImages, camera, lens.colRange(0, 4), rvec, tvec, false,
                 cv::SOLVEPNP_ITERATIVE);
    benchmark::DoNotOptimize(rvec.data);
  }
  state.counters["views"] = static_cast<double>(s.views.size());
}
BENCHMARK(BM_CalibrateOpenCV)->Unit(benchmark::kMillisecond);

quib::Projection scene_camera() {
  Scene const& s = scene();
  double m[9];
  for (int i = 0; i < 9; ++i)
    m[i] = s.camera.val[i];
  const double d[4] = {s.lens[0], s.lens[1], s.lens[2], s.lens[3]};
  const double zero[3] = {0, 0, 0};
  return quib::Projection({s.size.width, s.size.height}, m, d, zero, zero);
}

void BM_UndistortImageQuib(benchmark::State& state) {
  const quib::Projection camera = scene_camera();
  quib::Image const& src = scene().views.front();
  quib::Image dst(src.getWidth(), src.getHeight(), 24, 4, quib::color_type::bgr);
  for (auto _ : state) {
    camera.undistort(src, dst);
    benchmark::DoNotOptimize(dst.getBuffer());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(src.getBufferSize()));
}
BENCHMARK(BM_UndistortImageQuib)->Unit(benchmark::kMillisecond);

void BM_UndistortImageOpenCV(benchmark::State& state) {
  const quib::Projection camera = scene_camera();
  const cv::Mat src = scene().views.front().makeMat().clone();
  const cv::Mat K = camera.get_matrix_cv();
  const cv::Mat D = camera.get_distortion_cv();
  cv::Mat dst(src.size(), src.type());
  for (auto _ : state) {
    cv::undistort(src, dst, K, D);
    benchmark::DoNotOptimize(dst.data);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(src.total() * src.elemSize()));
}
BENCHMARK(BM_UndistortImageOpenCV)->Unit(benchmark::kMillisecond);

std::vector<cv::Point2f> point_cloud() {
  const int n = smoke() ? 1000 : 100000;
  std::vector<cv::Point2f> points(n);
  cv::RNG rng(7);
  for (auto& p : points) {
    p = cv::Point2f(rng.uniform(0.f, static_cast<float>(scene().size.width)),
                    rng.uniform(0.f, static_cast<float>(scene().size.height)));
  }
  return points;
}

void BM_UndistortPointsQuib(benchmark::State& state) {
  const quib::Projection camera = scene_camera();
  const std::vector<cv::Point2f> src = point_cloud();
  std::vector<cv::Point2f> dst;
  for (auto _ : state) {
    camera.undistort(src, dst);
    benchmark::DoNotOptimize(dst.data());
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(src.size()));
}
BENCHMARK(BM_UndistortPointsQuib)->Unit(benchmark::kMillisecond);

void BM_UndistortPointsOpenCV(benchmark::State& state) {
  const quib::Projection camera = scene_camera();
  const std::vector<cv::Point2f> src = point_cloud();
  const cv::Mat K = camera.get_matrix_cv();
  const cv::Mat D = camera.get_distortion_cv();
  std::vector<cv::Point2f> dst;
  for (auto _ : state) {
    cv::undistortPoints(src, dst, K, D);
    benchmark::DoNotOptimize(dst.data());
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(src.size()));
}
BENCHMARK(BM_UndistortPointsOpenCV)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
