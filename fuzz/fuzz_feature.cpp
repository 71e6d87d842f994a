// Feeds key point lists and match lists read from the input, with foreign indices, odd
// distances and non-finite positions, through the match filters and the homography fit.
#include <quib/feature.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

struct Reader {
  const std::uint8_t* data;
  std::size_t size;
  template <class T>
  T take() {
    T v{};
    if (size >= sizeof v) {
      std::memcpy(&v, data, sizeof v);
      data += sizeof v;
      size -= sizeof v;
    }
    return v;
  }
};

std::vector<cv::KeyPoint> keypoints(Reader& in, int count) {
  std::vector<cv::KeyPoint> k;
  for (int i = 0; i < count; ++i) {
    const float x = in.take<std::uint8_t>() == 0xff ? in.take<float>() : in.take<std::uint8_t>();
    k.emplace_back(x, static_cast<float>(in.take<std::uint8_t>()), 1.0f);
  }
  return k;
}

std::vector<cv::DMatch> matches(Reader& in, int count) {
  std::vector<cv::DMatch> m;
  for (int i = 0; i < count; ++i) {
    const int q = in.take<std::int8_t>();
    const int t = in.take<std::int8_t>();
    m.emplace_back(q, t, in.take<float>());
  }
  return m;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Reader in{data, size};
  const int n1 = in.take<std::uint8_t>() % 32;
  const int n2 = in.take<std::uint8_t>() % 32;
  const int nf = in.take<std::uint8_t>() % 64;
  const int nb = in.take<std::uint8_t>() % 64;
  const double limit = in.take<float>();
  const double threshold = in.take<float>();
  const std::vector<cv::KeyPoint> k1 = keypoints(in, n1);
  const std::vector<cv::KeyPoint> k2 = keypoints(in, n2);
  const std::vector<cv::DMatch> forward = matches(in, nf);
  const std::vector<cv::DMatch> backward = matches(in, nb);

  quib::Feature feature;
  std::vector<cv::DMatch> out;
  feature.get_hamming_distance(forward);
  feature.extract_hamming_distance(out, forward, threshold);
  feature.extract_vector_distance(out, k1, k2, forward, limit);
  // Each filter reports whether it kept something.
  if (feature.extract_cross_match(out, forward, backward) == out.empty()) std::abort();
  if (feature.extract_cross_point_match(out, k1, k2, forward, backward) == out.empty())
    std::abort();
  cv::Mat h;
  try {
    if (feature.find_perspective_matrix(h, k1, k2, forward, quib::Feature::FIND_RANSAC)) {
      const auto inliers = quib::Feature::measure_inliers(h, k1, k2, forward).first;
      if (inliers < 0 || inliers > static_cast<int>(forward.size())) std::abort();
    }
  } catch (cv::Exception const&) {
    // OpenCV's own refusals (too few pairs) reach the caller by design.
  }
  return 0;
}
