#include <quib/feature.hpp>

#include <opencv2/calib3d.hpp>
#include <opencv2/flann.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <tuple>

namespace quib {

namespace {

// The engine converts 8-bit, 16-bit and float images of 1, 3 or 4 channels to grey; other
// types make it throw, and so does an image of a single row or column.
bool usable(cv::Mat const& image) {
  if (image.empty() || image.dims != 2 || image.rows < 2 || image.cols < 2) return false;
  int const depth = image.depth();
  int const channels = image.channels();
  return (depth == CV_8U || depth == CV_16U || depth == CV_32F) &&
         (channels == 1 || channels == 3 || channels == 4);
}

// A header over the pixels of `image` when its layout maps onto a cv::Mat: whole bytes per
// channel (8, 16 or 32 bits each) and rows long enough for the width. Otherwise an empty Mat.
cv::Mat view(Image const& image) {
  if (image.empty()) return cv::Mat();
  const ImageCoordinator format = image.getCoordinator();
  int const channels = format.getChannel();
  int const bits = format.getBits();
  if (channels <= 0 || bits % channels != 0) return cv::Mat();
  int const per_channel = bits / channels;
  if (per_channel != 8 && per_channel != 16 && per_channel != 32) return cv::Mat();
  if (format.getDenominator() != 1 || format.getNumerator() * 8 != bits) return cv::Mat();
  const std::int64_t row = static_cast<std::int64_t>(image.getWidth()) * (bits / 8);
  if (image.getWidth() <= 0 || image.getHeight() <= 0 || image.getLineBytes() < row)
    return cv::Mat();
  return image.makeMat();
}

char const* matcher_name(Feature::match_t type) {
  switch (type) {
    case Feature::MATCH_FLANN_BASED:
      return "FlannBased";
    case Feature::MATCH_BRUTE_FORCE_SL2:
      return "BruteForce-SL2";
    case Feature::MATCH_BRUTE_FORCE_L1:
      return "BruteForce-L1";
    case Feature::MATCH_BRUTE_FORCE_HAMMING:
      return "BruteForce-Hamming";
    case Feature::MATCH_BRUTE_FORCE_HAMMING2:
      return "BruteForce-Hamming(2)";
    case Feature::MATCH_BRUTE_FORCE:
    default:
      return "BruteForce";
  }
}

int homography_method(Feature::find_t method) {
  switch (method) {
    case Feature::FIND_RANSAC:
      return cv::RANSAC;
    case Feature::FIND_LMEDS:
      return cv::LMEDS;
    case Feature::FIND_ALL_POINTS:
    default:
      return 0;
  }
}

// The matcher of `type`. FLANN's default KD-trees take float descriptors only; binary ones get
// its locality-sensitive hashing index.
cv::Ptr<cv::DescriptorMatcher> make_matcher(Feature::match_t type, cv::Mat const& descriptors) {
  if (type == Feature::MATCH_FLANN_BASED && descriptors.depth() == CV_8U) {
    return cv::makePtr<cv::FlannBasedMatcher>(cv::makePtr<cv::flann::LshIndexParams>(12, 20, 2));
  }
  return cv::DescriptorMatcher::create(matcher_name(type));
}

// The hashing index may find no neighbour for a query; such entries carry index -1.
void drop_unmatched(std::vector<cv::DMatch>& matches) {
  matches.erase(
      std::remove_if(matches.begin(), matches.end(),
                     [](cv::DMatch const& m) { return m.trainIdx < 0 || m.queryIdx < 0; }),
      matches.end());
}

bool in_range(int index, std::size_t size) {
  return index >= 0 && static_cast<std::size_t>(index) < size;
}

}  // namespace

Feature::Feature()
    : engine_(cv::AKAZE::create(cv::AKAZE::DESCRIPTOR_MLDB, 0, 3, 0.001f, 4, 4,
                                cv::KAZE::DIFF_PM_G2)) {}

bool Feature::detect(std::vector<cv::KeyPoint>& keypoints, cv::Mat const& image) {
  keypoints.clear();
  if (!usable(image)) return false;
  engine_->detect(image, keypoints);
  return !keypoints.empty();
}

bool Feature::detect(std::vector<cv::KeyPoint>& keypoints, Image const& image) {
  return detect(keypoints, view(image));
}

bool Feature::detect_and_compute(std::vector<cv::KeyPoint>& keypoints, cv::Mat& descriptors,
                                 cv::Mat const& image) {
  keypoints.clear();
  descriptors.release();
  if (!usable(image)) return false;
  engine_->detectAndCompute(image, cv::noArray(), keypoints, descriptors);
  return !descriptors.empty();
}

bool Feature::compute(cv::Mat& descriptors, std::vector<cv::KeyPoint>& keypoints,
                      cv::Mat const& image) {
  descriptors.release();
  if (keypoints.empty() || !usable(image)) return false;
  engine_->compute(image, keypoints, descriptors);
  return !descriptors.empty();
}

bool Feature::compute(cv::Mat& descriptors, std::vector<cv::KeyPoint>& keypoints,
                      Image const& image) {
  return compute(descriptors, keypoints, view(image));
}

bool Feature::match(std::vector<cv::DMatch>& matches, cv::Mat const& descriptors1,
                    cv::Mat const& descriptors2, match_t type) const {
  matches.clear();
  if (descriptors1.empty() || descriptors2.empty()) return false;
  make_matcher(type, descriptors1)->match(descriptors1, descriptors2, matches);
  drop_unmatched(matches);
  return !matches.empty();
}

bool Feature::match_ratio(std::vector<cv::DMatch>& matches, cv::Mat const& descriptors1,
                          cv::Mat const& descriptors2, match_t type, double ratio) const {
  matches.clear();
  if (descriptors1.empty() || descriptors2.empty()) return false;
  std::vector<std::vector<cv::DMatch>> candidates;
  make_matcher(type, descriptors1)->knnMatch(descriptors1, descriptors2, candidates, 2);
  for (std::vector<cv::DMatch> const& c : candidates) {
    if (c.empty() || c[0].trainIdx < 0) continue;
    if (c.size() < 2 || c[1].trainIdx < 0 || c[0].distance < ratio * c[1].distance)
      matches.push_back(c[0]);
  }
  return !matches.empty();
}

region::vector3<float> Feature::get_hamming_distance(std::vector<cv::DMatch> const& matches) const {
  if (matches.empty()) return {0.0f, 0.0f, 0.0f};
  double low = matches.front().distance;
  double high = low;
  double sum = 0.0;
  for (cv::DMatch const& m : matches) {
    low = std::min(low, static_cast<double>(m.distance));
    high = std::max(high, static_cast<double>(m.distance));
    sum += m.distance;
  }
  double const mean = sum / static_cast<double>(matches.size());
  return {static_cast<float>(low), static_cast<float>(high), static_cast<float>(mean)};
}

bool Feature::extract_hamming_distance(std::vector<cv::DMatch>& out,
                                       std::vector<cv::DMatch> const& matches,
                                       double threshold) const {
  std::vector<cv::DMatch> kept;
  for (cv::DMatch const& m : matches) {
    if (m.distance <= threshold) kept.push_back(m);
  }
  out.swap(kept);
  return !out.empty();
}

bool Feature::extract_vector_distance(std::vector<cv::DMatch>& out,
                                      std::vector<cv::KeyPoint> const& keypoints1,
                                      std::vector<cv::KeyPoint> const& keypoints2,
                                      std::vector<cv::DMatch> const& matches, double limit) const {
  std::vector<cv::DMatch> kept;
  if (limit >= 0.0) {  // also false for NaN
    double const limit2 = limit * limit;
    for (cv::DMatch const& m : matches) {
      if (!in_range(m.queryIdx, keypoints1.size()) || !in_range(m.trainIdx, keypoints2.size()))
        continue;
      const cv::Point2f a = keypoints1[static_cast<std::size_t>(m.queryIdx)].pt;
      const cv::Point2f b = keypoints2[static_cast<std::size_t>(m.trainIdx)].pt;
      double const dx = static_cast<double>(a.x) - b.x;
      double const dy = static_cast<double>(a.y) - b.y;
      if (dx * dx + dy * dy <= limit2) kept.push_back(m);
    }
  }
  out.swap(kept);
  return !out.empty();
}

bool Feature::find_perspective_matrix(cv::Mat& homography,
                                      std::vector<cv::KeyPoint> const& keypoints1,
                                      std::vector<cv::KeyPoint> const& keypoints2,
                                      std::vector<cv::DMatch> const& matches, find_t method) const {
  std::vector<cv::Point2f> from;
  std::vector<cv::Point2f> to;
  from.reserve(matches.size());
  to.reserve(matches.size());
  for (cv::DMatch const& m : matches) {
    if (!in_range(m.queryIdx, keypoints1.size()) || !in_range(m.trainIdx, keypoints2.size()))
      continue;
    from.push_back(keypoints1[static_cast<std::size_t>(m.queryIdx)].pt);
    to.push_back(keypoints2[static_cast<std::size_t>(m.trainIdx)].pt);
  }
  if (from.empty()) {
    homography.release();
    return false;
  }
  homography =
      cv::findHomography(from, to, homography_method(method), 3.0, cv::noArray(), 2000, 0.995);
  return !homography.empty();
}

bool Feature::find(cv::Mat& homography, cv::Mat const& image1, cv::Mat const& image2, double limit,
                   double ratio, match_t type, find_t method) {
  Data data;
  return find(homography, data, image1, image2, limit, ratio, type, method);
}

bool Feature::find(cv::Mat& homography, Data& data, cv::Mat const& image1, cv::Mat const& image2,
                   double limit, double ratio, match_t type, find_t method) {
  homography.release();
  data = Data();
  std::vector<cv::KeyPoint> keypoints1;
  std::vector<cv::KeyPoint> keypoints2;
  cv::Mat descriptors1;
  cv::Mat descriptors2;
  bool const found1 = detect_and_compute(keypoints1, descriptors1, image1);
  bool const found2 = detect_and_compute(keypoints2, descriptors2, image2);
  data.keypoints1 = static_cast<int>(keypoints1.size());
  data.keypoints2 = static_cast<int>(keypoints2.size());
  if (!found1 || !found2) return false;

  std::vector<cv::DMatch> matches;
  if (!match(matches, descriptors1, descriptors2, type)) return false;
  if (!extract_vector_distance(matches, keypoints1, keypoints2, matches, limit)) return false;

  const region::vector3<float> spread = get_hamming_distance(matches);
  double threshold = spread.z * ratio;
  // Clamp into [minimum, maximum] so that at least the best match survives; NaN goes to the
  // minimum as well.
  if (!(threshold >= spread.x)) threshold = spread.x;
  if (threshold > spread.y) threshold = spread.y;
  if (!extract_hamming_distance(matches, matches, threshold)) return false;
  data.matches = static_cast<int>(matches.size());

  if (!find_perspective_matrix(homography, keypoints1, keypoints2, matches, method)) return false;
  std::tie(data.inliers, data.error) =
      measure_inliers(homography, keypoints1, keypoints2, matches, 3.0);
  return true;
}

std::pair<int, double> Feature::measure_inliers(cv::Mat const& homography,
                                                std::vector<cv::KeyPoint> const& keypoints1,
                                                std::vector<cv::KeyPoint> const& keypoints2,
                                                std::vector<cv::DMatch> const& matches,
                                                double threshold) {
  double const nan = std::numeric_limits<double>::quiet_NaN();
  if (homography.rows != 3 || homography.cols != 3 || homography.channels() != 1) return {0, nan};
  cv::Matx33d h;
  homography.convertTo(cv::Mat(h, false), CV_64F);
  int count = 0;
  double sum = 0;
  for (cv::DMatch const& m : matches) {
    if (!in_range(m.queryIdx, keypoints1.size()) || !in_range(m.trainIdx, keypoints2.size()))
      continue;
    const cv::Point2f a = keypoints1[static_cast<std::size_t>(m.queryIdx)].pt;
    const cv::Point2f b = keypoints2[static_cast<std::size_t>(m.trainIdx)].pt;
    const cv::Vec3d p = h * cv::Vec3d(a.x, a.y, 1.0);
    double const dx = p[0] / p[2] - b.x;
    double const dy = p[1] / p[2] - b.y;
    double const e2 = dx * dx + dy * dy;
    if (e2 <= threshold * threshold) {  // false for NaN
      ++count;
      sum += e2;
    }
  }
  return {count, count > 0 ? std::sqrt(sum / count) : nan};
}

bool Feature::find(cv::Mat& homography, Image const& image1, Image const& image2, double limit,
                   double ratio, match_t type, find_t method) {
  return find(homography, view(image1), view(image2), limit, ratio, type, method);
}

bool Feature::extract_cross_match(std::vector<cv::DMatch>& out,
                                  std::vector<cv::DMatch> const& forward,
                                  std::vector<cv::DMatch> const& backward) const {
  // Backward pairs as (index in image 2, index in image 1), sorted for lookup.
  std::vector<std::pair<int, int>> confirmed;
  confirmed.reserve(backward.size());
  for (cv::DMatch const& b : backward)
    confirmed.emplace_back(b.queryIdx, b.trainIdx);
  std::sort(confirmed.begin(), confirmed.end());

  std::vector<cv::DMatch> kept;
  for (cv::DMatch const& f : forward) {
    if (std::binary_search(confirmed.begin(), confirmed.end(),
                           std::make_pair(f.trainIdx, f.queryIdx)))
      kept.push_back(f);
  }
  out.swap(kept);
  return !out.empty();
}

bool Feature::extract_cross_point_match(std::vector<cv::DMatch>& out,
                                        std::vector<cv::KeyPoint> const& keypoints1,
                                        std::vector<cv::KeyPoint> const& keypoints2,
                                        std::vector<cv::DMatch> const& forward,
                                        std::vector<cv::DMatch> const& backward) const {
  // A pair of positions (image 2, then image 1); only finite ones, so the ordering is strict.
  using position_pair = std::array<float, 4>;
  auto key = [](cv::Point2f const& p2, cv::Point2f const& p1, position_pair& k) {
    if (!std::isfinite(p2.x) || !std::isfinite(p2.y) || !std::isfinite(p1.x) ||
        !std::isfinite(p1.y))
      return false;
    // + 0.0f turns -0 into +0, so that equal positions compare equal in the ordering.
    k = {p2.x + 0.0f, p2.y + 0.0f, p1.x + 0.0f, p1.y + 0.0f};
    return true;
  };

  std::vector<position_pair> confirmed;
  confirmed.reserve(backward.size());
  for (cv::DMatch const& b : backward) {
    position_pair k;
    if (in_range(b.queryIdx, keypoints2.size()) && in_range(b.trainIdx, keypoints1.size()) &&
        key(keypoints2[static_cast<std::size_t>(b.queryIdx)].pt,
            keypoints1[static_cast<std::size_t>(b.trainIdx)].pt, k))
      confirmed.push_back(k);
  }
  std::sort(confirmed.begin(), confirmed.end());

  std::vector<cv::DMatch> kept;
  for (cv::DMatch const& f : forward) {
    position_pair k;
    if (in_range(f.trainIdx, keypoints2.size()) && in_range(f.queryIdx, keypoints1.size()) &&
        key(keypoints2[static_cast<std::size_t>(f.trainIdx)].pt,
            keypoints1[static_cast<std::size_t>(f.queryIdx)].pt, k) &&
        std::binary_search(confirmed.begin(), confirmed.end(), k))
      kept.push_back(f);
  }
  out.swap(kept);
  return !out.empty();
}

}  // namespace quib
