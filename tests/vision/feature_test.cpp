#include <quib/feature.hpp>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

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
  // Binary descriptors are not for FLANN: OpenCV's exception reaches the caller.
  EXPECT_THROW(feature.match(plain, d1, d2, Feature::MATCH_FLANN_BASED), cv::Exception);

  std::vector<cv::DMatch> close;
  ASSERT_TRUE(feature.extract_vector_distance(close, k1, k2, unknown, 30.0));
  cv::Mat all, fallback;
  ASSERT_TRUE(feature.find_perspective_matrix(all, k1, k2, close, Feature::FIND_ALL_POINTS));
  ASSERT_TRUE(
      feature.find_perspective_matrix(fallback, k1, k2, close, static_cast<Feature::find_t>(-3)));
  EXPECT_EQ(cv::norm(all, fallback), 0.0);
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
  EXPECT_THROW(feature.find_perspective_matrix(
                   h, k1, k2, {pair(0, 0, 0), pair(1, 1, 0), pair(2, 0, 0)}, Feature::FIND_RANSAC),
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
