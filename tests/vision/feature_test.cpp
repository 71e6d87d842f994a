#include <quib/feature.hpp>

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <limits>
#include <vector>

namespace {

using quib::Feature;

// Blurred noise: plenty of corners at several scales.
cv::Mat texture(cv::Size size, std::uint64_t seed) {
  cv::RNG rng(seed);
  cv::Mat small(size.height / 4, size.width / 4, CV_8UC1);
  rng.fill(small, cv::RNG::UNIFORM, 0, 256);
  cv::Mat image;
  cv::resize(small, image, size, 0, 0, cv::INTER_CUBIC);
  cv::GaussianBlur(image, image, cv::Size(3, 3), 0.8);
  return image;
}

cv::Mat known_homography() {
  // A slight rotation and scale about the centre plus a little perspective and a shift.
  return (cv::Mat_<double>(3, 3) << 0.99, -0.05, 9.0, 0.04, 1.01, -6.0, 2e-5, -1e-5, 1.0);
}

double mean_reprojection_error(cv::Mat const& estimated, cv::Mat const& truth, cv::Size size) {
  std::vector<cv::Point2f> grid;
  for (int y = 20; y < size.height - 20; y += 20)
    for (int x = 20; x < size.width - 20; x += 20)
      grid.emplace_back(float(x), float(y));
  std::vector<cv::Point2f> a, b;
  cv::perspectiveTransform(grid, a, estimated);
  cv::perspectiveTransform(grid, b, truth);
  double sum = 0.0;
  for (std::size_t i = 0; i < grid.size(); ++i)
    sum += cv::norm(a[i] - b[i]);
  return sum / double(grid.size());
}

cv::DMatch pair(int query, int train, float distance) {
  return cv::DMatch(query, train, distance);
}

class FeatureRegistration : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    size = cv::Size(320, 256);
    before = texture(size, 7);
    cv::warpPerspective(before, after, known_homography(), size, cv::INTER_LINEAR,
                        cv::BORDER_REFLECT);
  }
  static cv::Size size;
  static cv::Mat before;
  static cv::Mat after;
  Feature feature;
};
cv::Size FeatureRegistration::size;
cv::Mat FeatureRegistration::before;
cv::Mat FeatureRegistration::after;

TEST_F(FeatureRegistration, RecoversAKnownHomographyWithRansac) {
  cv::Mat h;
  ASSERT_TRUE(feature.find(h, before, after, 40.0, 2.0, Feature::MATCH_BRUTE_FORCE_HAMMING,
                           Feature::FIND_RANSAC));
  ASSERT_EQ(h.size(), cv::Size(3, 3));
  EXPECT_LT(mean_reprojection_error(h, known_homography(), size), 1.0);

  // The same through quib::Image views of the same pixels.
  quib::Image a(size.width, size.height, before.data, 8, 1, quib::color_type::grey);
  quib::Image b(size.width, size.height, after.data, 8, 1, quib::color_type::grey);
  cv::Mat h2;
  ASSERT_TRUE(
      feature.find(h2, a, b, 40.0, 2.0, Feature::MATCH_BRUTE_FORCE_HAMMING, Feature::FIND_RANSAC));
  EXPECT_LT(mean_reprojection_error(h2, known_homography(), size), 1.0);
}

TEST_F(FeatureRegistration, ZeroLimitAndZeroRatioKeepOnlyExactAndBestMatches) {
  cv::Mat h;
  // Against itself every true match coincides and has distance 0: the best matches suffice.
  ASSERT_TRUE(feature.find(h, before, before, 0.0, 0.0, Feature::MATCH_BRUTE_FORCE_HAMMING,
                           Feature::FIND_ALL_POINTS));
  EXPECT_LT(cv::norm(h, cv::Mat::eye(3, 3, CV_64F)), 1e-6);
  // A shifted copy has no coinciding key points.
  cv::Mat shifted;
  const cv::Mat shift = (cv::Mat_<double>(2, 3) << 1, 0, 5.5, 0, 1, 3.5);
  cv::warpAffine(before, shifted, shift, size);
  EXPECT_FALSE(feature.find(h, before, shifted, 0.0, 2.0, Feature::MATCH_BRUTE_FORCE_HAMMING,
                            Feature::FIND_RANSAC));
  EXPECT_TRUE(h.empty());
}

TEST_F(FeatureRegistration, UnknownMethodsFallBack) {
  std::vector<cv::KeyPoint> k1, k2;
  cv::Mat d1, d2;
  ASSERT_TRUE(feature.detect(k1, before) && feature.detect(k2, after));
  ASSERT_TRUE(feature.compute(d1, k1, before) && feature.compute(d2, k2, after));

  std::vector<cv::DMatch> plain, unknown;
  ASSERT_TRUE(feature.match(plain, d1, d2, Feature::MATCH_BRUTE_FORCE));
  ASSERT_TRUE(feature.match(unknown, d1, d2, static_cast<Feature::match_t>(42)));
  ASSERT_EQ(plain.size(), unknown.size());
  for (std::size_t i = 0; i < plain.size(); ++i) {
    EXPECT_EQ(plain[i].trainIdx, unknown[i].trainIdx);
    EXPECT_EQ(plain[i].distance, unknown[i].distance);
  }
  // FLANN takes binary descriptors through its hashing index; most of its matches are the
  // exhaustive search's.
  std::vector<cv::DMatch> hashed;
  const std::vector<cv::DMatch> exhaustive = plain;
  ASSERT_TRUE(feature.match(hashed, d1, d2, Feature::MATCH_FLANN_BASED));
  std::vector<cv::DMatch> hamming;
  ASSERT_TRUE(feature.match(hamming, d1, d2, Feature::MATCH_BRUTE_FORCE_HAMMING));
  std::size_t same = 0;
  for (cv::DMatch const& m : hashed) {
    ASSERT_GE(m.trainIdx, 0);
    same += hamming[static_cast<std::size_t>(m.queryIdx)].trainIdx == m.trainIdx ? 1 : 0;
  }
  EXPECT_GT(same, hamming.size() / 2);
  cv::Mat h;
  ASSERT_TRUE(
      feature.find(h, before, after, 40.0, 2.0, Feature::MATCH_FLANN_BASED, Feature::FIND_RANSAC));
  EXPECT_LT(mean_reprojection_error(h, known_homography(), size), 1.0);

  std::vector<cv::DMatch> close;
  ASSERT_TRUE(feature.extract_vector_distance(close, k1, k2, unknown, 30.0));
  cv::Mat all, fallback;
  ASSERT_TRUE(feature.find_perspective_matrix(all, k1, k2, close, Feature::FIND_ALL_POINTS));
  ASSERT_TRUE(
      feature.find_perspective_matrix(fallback, k1, k2, close, static_cast<Feature::find_t>(-3)));
  EXPECT_EQ(cv::norm(all, fallback), 0.0);
}

TEST_F(FeatureRegistration, OnePassGivesWhatDetectThenComputeGive) {
  std::vector<cv::KeyPoint> k1, k2;
  cv::Mat d1, d2;
  ASSERT_TRUE(feature.detect(k1, before));
  ASSERT_TRUE(feature.compute(d1, k1, before));
  ASSERT_TRUE(feature.detect_and_compute(k2, d2, before));
  ASSERT_EQ(k1.size(), k2.size());
  EXPECT_EQ(cv::norm(d1, d2, cv::NORM_HAMMING), 0.0);
  EXPECT_FALSE(feature.detect_and_compute(k2, d2, cv::Mat()));
  EXPECT_TRUE(k2.empty());
  EXPECT_TRUE(d2.empty());
}

TEST_F(FeatureRegistration, RatioTestKeepsDistinctiveMatches) {
  std::vector<cv::KeyPoint> k1, k2;
  cv::Mat d1, d2;
  ASSERT_TRUE(feature.detect_and_compute(k1, d1, before));
  ASSERT_TRUE(feature.detect_and_compute(k2, d2, after));
  std::vector<cv::DMatch> all, strict, loose;
  ASSERT_TRUE(feature.match(all, d1, d2, Feature::MATCH_BRUTE_FORCE_HAMMING));
  ASSERT_TRUE(feature.match_ratio(strict, d1, d2, Feature::MATCH_BRUTE_FORCE_HAMMING, 0.7));
  ASSERT_TRUE(feature.match_ratio(loose, d1, d2, Feature::MATCH_BRUTE_FORCE_HAMMING, 1.01));
  EXPECT_LT(strict.size(), loose.size());
  EXPECT_EQ(loose.size(), all.size());
  // Nearly every match that passes lands where the homography puts it.
  const auto [inliers, error] = Feature::measure_inliers(known_homography(), k1, k2, strict);
  EXPECT_GT(inliers, static_cast<int>(0.95 * strict.size()));
  EXPECT_LT(error, 1.5);
  EXPECT_FALSE(feature.match_ratio(strict, d1, d2, Feature::MATCH_BRUTE_FORCE_HAMMING, 0.0));
  EXPECT_FALSE(feature.match_ratio(strict, cv::Mat(), d2, Feature::MATCH_BRUTE_FORCE_HAMMING, 1));
}

// A picture with blobs, boxes and lettering on a smooth background, like a painted wall.
cv::Mat scene(cv::Size size, int seed) {
  cv::RNG rng(seed);
  cv::Mat small(size.height / 8, size.width / 8, CV_8UC1);
  rng.fill(small, cv::RNG::UNIFORM, 60, 200);
  cv::Mat image;
  cv::resize(small, image, size, 0, 0, cv::INTER_CUBIC);
  for (int i = 0; i < 60; ++i) {
    const cv::Point c(rng.uniform(0, size.width), rng.uniform(0, size.height));
    const cv::Scalar grey(rng.uniform(0, 256));
    switch (rng.uniform(0, 3)) {
      case 0:
        cv::ellipse(image, c, cv::Size(rng.uniform(4, 30), rng.uniform(4, 30)), rng.uniform(0, 180),
                    0, 360, grey, cv::FILLED, cv::LINE_AA);
        break;
      case 1:
        cv::rectangle(image, cv::Rect(c.x, c.y, rng.uniform(4, 40), rng.uniform(4, 40)), grey,
                      cv::FILLED);
        break;
      default:
        cv::putText(image, "QUIB", c, cv::FONT_HERSHEY_SIMPLEX, rng.uniform(0.4, 1.2), grey, 2,
                    cv::LINE_AA);
    }
  }
  cv::GaussianBlur(image, image, cv::Size(3, 3), 0.7);
  return image;
}

// The picture as a plane turned by `degrees` about its vertical axis and tilted by `tilt`
// degrees, seen from one and a half widths away.
cv::Mat turned(cv::Size size, double degrees, double tilt) {
  const double w = size.width;
  const double h = size.height;
  const double d = 1.5 * w;
  const double t = degrees * CV_PI / 180;
  const double u = tilt * CV_PI / 180;
  const std::vector<cv::Point2f> from{{0, 0}, {float(w), 0}, {float(w), float(h)}, {0, float(h)}};
  std::vector<cv::Point2f> to;
  for (cv::Point2f const& p : from) {
    const double x = p.x - w / 2;
    const double y = p.y - h / 2;
    const double x1 = x * std::cos(t);
    const double z1 = -x * std::sin(t);
    const double y2 = y * std::cos(u) - z1 * std::sin(u);
    const double z2 = y * std::sin(u) + z1 * std::cos(u);
    const double s = d / (d + z2) * 0.8;
    to.emplace_back(float(w / 2 + x1 * s), float(h / 2 + y2 * s));
  }
  return cv::getPerspectiveTransform(from, to);
}

TEST(Feature, InliersTellARegistrationFromAChanceOne) {
  const cv::Size size(400, 320);
  const cv::Mat first = scene(size, 1);
  const cv::Mat truth = turned(size, 35, 5);
  cv::Mat second;
  cv::warpPerspective(first, second, truth, size, cv::INTER_LINEAR, cv::BORDER_CONSTANT,
                      cv::Scalar(128));
  Feature feature;
  cv::Mat h;
  Feature::Data data;
  // No limit on how far a match may move: the view has changed a lot.
  ASSERT_TRUE(feature.find(h, data, first, second, 1e9, 2.0, Feature::MATCH_BRUTE_FORCE_HAMMING,
                           Feature::FIND_RANSAC));
  EXPECT_GT(data.keypoints1, 0);
  EXPECT_GT(data.keypoints2, 0);
  EXPECT_LE(data.inliers, data.matches);
  EXPECT_GE(data.inliers, 3 * Feature::kMinimumInliers);
  EXPECT_LT(data.error, 1.5);
  EXPECT_LT(mean_reprojection_error(h, truth, size), 1.0);
  const auto [inliers, error] = Feature::measure_inliers(h, {}, {}, {});
  EXPECT_EQ(inliers, 0);
  EXPECT_TRUE(std::isnan(error));

  // Unrelated pictures still give a homography, but with few inliers.
  ASSERT_TRUE(feature.find(h, data, first, scene(size, 99), 1e9, 2.0,
                           Feature::MATCH_BRUTE_FORCE_HAMMING, Feature::FIND_RANSAC));
  EXPECT_LT(data.inliers, Feature::kMinimumInliers);
}

TEST(Feature, TexturelessImagesFailAtDetection) {
  Feature feature;
  cv::Mat flat(200, 200, CV_8UC1, cv::Scalar(90));
  std::vector<cv::KeyPoint> keypoints{cv::KeyPoint(1, 1, 1)};
  EXPECT_FALSE(feature.detect(keypoints, flat));
  EXPECT_TRUE(keypoints.empty());
  cv::Mat h = cv::Mat::eye(3, 3, CV_64F);
  EXPECT_FALSE(feature.find(h, flat, flat, 10.0, 1.0, Feature::MATCH_BRUTE_FORCE_HAMMING,
                            Feature::FIND_RANSAC));
  EXPECT_TRUE(h.empty());
}

TEST(Feature, EmptyOrUnsupportedInputGivesFalseWithoutThrowing) {
  Feature feature;
  const cv::Mat image = texture(cv::Size(96, 96), 3);
  std::vector<cv::KeyPoint> keypoints;
  cv::Mat descriptors = cv::Mat::ones(2, 2, CV_8U);
  std::vector<cv::DMatch> matches{pair(0, 0, 1)};

  for (cv::Mat const& bad :
       {cv::Mat(), cv::Mat(1, 50, CV_8UC1, cv::Scalar(3)), cv::Mat(50, 50, CV_64FC1, cv::Scalar(3)),
        cv::Mat(50, 50, CV_8UC2, cv::Scalar(3)), cv::Mat(50, 50, CV_16SC1, cv::Scalar(3))}) {
    EXPECT_FALSE(feature.detect(keypoints, bad));
    keypoints = {cv::KeyPoint(10, 10, 5)};
    EXPECT_FALSE(feature.compute(descriptors, keypoints, bad));
    EXPECT_TRUE(descriptors.empty());
    cv::Mat h;
    EXPECT_FALSE(feature.find(h, bad, image, 10, 1, Feature::MATCH_BRUTE_FORCE_HAMMING,
                              Feature::FIND_RANSAC));
  }
  // Pixel layouts that have no cv::Mat view: sub-byte and 12-bit pixels, no pixels at all.
  for (quib::Image const& bad :
       {quib::Image(), quib::Image(64, 64, 1, 4, quib::color_type::grey),
        quib::Image(64, 64, 12, 4, quib::color_type::undetermined),
        quib::Image(64, 64, 4, 4, quib::color_type::grey),
        quib::Image(64, 64, 10, 8, 1, quib::color_type::grey)}) {  // stride shorter than a row
    EXPECT_FALSE(feature.detect(keypoints, bad));
  }

  keypoints.clear();
  EXPECT_FALSE(feature.compute(descriptors, keypoints, image));
  EXPECT_FALSE(feature.match(matches, cv::Mat(), cv::Mat::ones(2, 2, CV_8U),
                             Feature::MATCH_BRUTE_FORCE_HAMMING));
  EXPECT_TRUE(matches.empty());
  EXPECT_FALSE(feature.extract_hamming_distance(matches, {}, 10));
  EXPECT_FALSE(feature.extract_vector_distance(matches, {}, {}, {}, 10));
  cv::Mat h = cv::Mat::eye(3, 3, CV_64F);
  EXPECT_FALSE(feature.find_perspective_matrix(h, {}, {}, {}, Feature::FIND_RANSAC));
  EXPECT_TRUE(h.empty());
  EXPECT_FALSE(feature.extract_cross_match(matches, {}, {}));
  EXPECT_FALSE(feature.extract_cross_point_match(matches, {}, {}, {}, {}));
}

TEST(Feature, FiltersKeepMatchesInOrderAndIgnoreForeignIndices) {
  Feature feature;
  const std::vector<cv::KeyPoint> k1{cv::KeyPoint(0, 0, 1), cv::KeyPoint(10, 10, 1),
                                     cv::KeyPoint(5, 5, 1)};
  const std::vector<cv::KeyPoint> k2{cv::KeyPoint(3, 4, 1), cv::KeyPoint(10, 10, 1)};
  std::vector<cv::DMatch> matches{pair(0, 0, 30), pair(1, 1, 10), pair(2, 1, 20),
                                  pair(7, 0, 0),  pair(0, -1, 0), pair(2, 0, 40)};

  EXPECT_FLOAT_EQ(feature.get_hamming_distance(matches).z, 100.0f / 6.0f);

  std::vector<cv::DMatch> out;
  ASSERT_TRUE(feature.extract_hamming_distance(out, matches, 20.0));
  ASSERT_EQ(out.size(), 4u);
  EXPECT_EQ(out[1].queryIdx, 2);

  // (0,0)-(3,4) is 5 apart, (1,1) coincides, (2,1) is 7.07 apart, (2,0) 2.24.
  ASSERT_TRUE(feature.extract_vector_distance(out, k1, k2, matches, 5.0));
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out[0].queryIdx, 0);
  EXPECT_EQ(out[2].queryIdx, 2);
  ASSERT_TRUE(feature.extract_vector_distance(out, k1, k2, matches, 0.0));
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].queryIdx, 1);
  EXPECT_FALSE(feature.extract_vector_distance(out, k1, k2, matches, -6.0));

  // Filtering a list into itself works.
  ASSERT_TRUE(feature.extract_hamming_distance(matches, matches, 0.0));
  EXPECT_EQ(matches.size(), 2u);

  // Fewer than four pairs: cv::findHomography's own exception passes through.
  cv::Mat h;
  EXPECT_THROW(static_cast<void>(feature.find_perspective_matrix(
                   h, k1, k2, {pair(0, 0, 0), pair(1, 1, 0), pair(2, 0, 0)}, Feature::FIND_RANSAC)),
               cv::Exception);
  EXPECT_FALSE(feature.find_perspective_matrix(h, k1, k2, {pair(9, 9, 0)}, Feature::FIND_RANSAC));
}

TEST(Feature, CrossMatchKeepsMutualNearestNeighbours) {
  Feature feature;
  const std::vector<cv::DMatch> forward{pair(0, 2, 1), pair(1, 0, 1), pair(2, 2, 1), pair(3, 1, 1)};
  const std::vector<cv::DMatch> backward{pair(0, 1, 1), pair(1, 0, 1), pair(2, 0, 1),
                                         pair(-4, 99, 1)};
  std::vector<cv::DMatch> out;
  ASSERT_TRUE(feature.extract_cross_match(out, forward, backward));
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0].queryIdx, 0);
  EXPECT_EQ(out[1].queryIdx, 1);

  // By position: key points 0 and 3 of image 1 share a position, so the backward match
  // (1 -> 0) also confirms the forward match (3 -> 1).
  const std::vector<cv::KeyPoint> k1{cv::KeyPoint(1, 1, 1), cv::KeyPoint(2, 2, 1),
                                     cv::KeyPoint(3, 3, 1), cv::KeyPoint(1, 1, 4)};
  std::vector<cv::KeyPoint> k2{cv::KeyPoint(7, 7, 1), cv::KeyPoint(8, 8, 1), cv::KeyPoint(9, 9, 1)};
  ASSERT_TRUE(feature.extract_cross_point_match(out, k1, k2, forward, backward));
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out[2].queryIdx, 3);
  k2[1].pt.x = std::numeric_limits<float>::quiet_NaN();
  ASSERT_TRUE(feature.extract_cross_point_match(out, k1, k2, forward, backward));
  EXPECT_EQ(out.size(), 2u);
}

}  // namespace
