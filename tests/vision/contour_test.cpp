#include <quib/contour.hpp>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <vector>

namespace {

using quib::ocv::ContourTracer;
using Points = std::vector<cv::Point>;

bool before(cv::Point const& a, cv::Point const& b) {
  return a.y != b.y ? a.y < b.y : a.x < b.x;
}

bool before_set(Points const& a, Points const& b) {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), before);
}

Points sorted(Points p) {
  std::sort(p.begin(), p.end(), before);
  p.erase(std::unique(p.begin(), p.end()), p.end());
  return p;
}

std::vector<Points> trace_all(ContourTracer& tracer, unsigned char blank = 0) {
  std::vector<Points> found;
  Points contour;
  cv::Point position(0, 0);
  while (tracer.search(contour, position, blank))
    found.push_back(contour);
  return found;
}

// The pixels of an axis-aligned rectangle's one-pixel frame.
Points frame(int x0, int y0, int x1, int y1) {
  Points p;
  for (int y = y0; y <= y1; ++y)
    for (int x = x0; x <= x1; ++x)
      if (x == x0 || x == x1 || y == y0 || y == y1) p.emplace_back(x, y);
  return sorted(p);
}

TEST(ContourTracer, RefusesImagesThatAreNotEightBitSingleChannel) {
  cv::Mat colour(4, 4, CV_8UC3, cv::Scalar::all(1));
  cv::Mat wide(4, 4, CV_16UC1, cv::Scalar::all(1));
  cv::Mat grey(4, 4, CV_8UC1, cv::Scalar::all(1));
  cv::Mat small_mask(3, 4, CV_8UC1, cv::Scalar::all(0));
  cv::Mat none;

  EXPECT_TRUE(ContourTracer(colour).empty());
  EXPECT_TRUE(ContourTracer(wide).empty());
  EXPECT_TRUE(ContourTracer(none).empty());
  EXPECT_TRUE(ContourTracer(grey, small_mask).empty());
  EXPECT_TRUE(ContourTracer(grey, colour).empty());

  ContourTracer tracer(grey);
  ASSERT_TRUE(tracer.is());
  const cv::Mat before = tracer.base();
  EXPECT_FALSE(tracer.create(colour));
  EXPECT_FALSE(tracer.create(grey, small_mask));
  EXPECT_FALSE(tracer.create(none));
  EXPECT_EQ(tracer.base().data, before.data) << "a failed create changes nothing";

  Points contour;
  cv::Point position(0, 0);
  EXPECT_FALSE(ContourTracer(colour).search(contour, position, 0));
  EXPECT_TRUE(contour.empty());
}

TEST(ContourTracer, CopiesTheImageAndSharesTheCallersMask) {
  cv::Mat image = cv::Mat::zeros(5, 5, CV_8UC1);
  image.at<unsigned char>(2, 2) = 7;
  cv::Mat mask = cv::Mat::zeros(5, 5, CV_8UC1);
  ContourTracer tracer(image, mask);
  image.at<unsigned char>(2, 2) = 0;  // the tracer works on its own copy
  EXPECT_EQ(trace_all(tracer).size(), 1u);
  EXPECT_EQ(mask.at<unsigned char>(2, 2), ContourTracer::F_MASK);

  ContourTracer copy(tracer), other;
  copy.swap(other);
  EXPECT_TRUE(copy.empty());
  EXPECT_EQ(other.mask().data, mask.data);
  other.release();
  EXPECT_TRUE(other.empty());
  EXPECT_TRUE(other.is_end(cv::Point(0, 0)));
}

TEST(ContourTracer, SinglePixelGivesOnePointAndAdvancesPastIt) {
  cv::Mat image = cv::Mat::zeros(4, 5, CV_8UC1);
  image.at<unsigned char>(1, 4) = 1;  // last column: the position wraps to the next row
  ContourTracer tracer(image);
  Points contour;
  cv::Point position(0, 0);
  ASSERT_TRUE(tracer.search(contour, position, 0));
  EXPECT_EQ(contour, Points{cv::Point(4, 1)});
  EXPECT_EQ(position, cv::Point(0, 2));
  EXPECT_EQ(tracer.mask().at<unsigned char>(1, 4), ContourTracer::F_MASK);
  EXPECT_EQ(cv::countNonZero(tracer.mask()), 1);

  EXPECT_FALSE(tracer.search(contour, position, 0));
  EXPECT_EQ(contour, Points{cv::Point(4, 1)}) << "a failed search leaves the contour alone";
  EXPECT_EQ(position, cv::Point(0, 4));
  EXPECT_TRUE(tracer.is_end(position));

  cv::Point outside(-1, 0);
  EXPECT_FALSE(tracer.search(contour, outside, 0));
  EXPECT_EQ(outside, cv::Point(-1, 0));

  // Column 0 has no left neighbour to test.
  image.at<unsigned char>(1, 4) = 0;
  image.at<unsigned char>(2, 0) = 1;
  ASSERT_TRUE(tracer.create(image));
  position = cv::Point(0, 0);
  ASSERT_TRUE(tracer.search(contour, position, 0));
  EXPECT_EQ(contour, Points{cv::Point(0, 2)});
}

TEST(ContourTracer, ForegroundIsEverythingButTheBlankValue) {
  cv::Mat image(6, 6, CV_8UC1, cv::Scalar::all(200));
  image(cv::Rect(2, 2, 2, 2)) = 0;
  ContourTracer tracer(image);
  const auto found = trace_all(tracer, 200);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(sorted(found[0]), frame(2, 2, 3, 3));
}

TEST(ContourTracer, TracesARegionTouchingTheBorderAlongItsInnerSide) {
  // Columns 4..7 and rows 2..5 of an 8x6 image: the last column and the last row are never
  // entered from inside, so the first contour is the frame of columns 4..6, rows 2..4.
  cv::Mat image = cv::Mat::zeros(6, 8, CV_8UC1);
  image(cv::Rect(4, 2, 4, 4)) = 1;
  ContourTracer tracer(image);
  const auto found = trace_all(tracer);
  ASSERT_FALSE(found.empty());
  EXPECT_EQ(sorted(found[0]), frame(4, 2, 6, 4));
  EXPECT_EQ(tracer.mask().at<unsigned char>(3, 7), 0) << "last column left unmarked";
  // The bottom row is reached only by its own left edge, and is then traced on its own.
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(sorted(found[1]), frame(4, 5, 6, 5));
}

TEST(ContourTracer, RegionInTheTopLeftCornerClosesAtItsStart) {
  // The start pixel (0, 0) can only be re-entered across the border; the trace must still
  // close there instead of wandering through the interior. The rest of the top row is never
  // entered from below, and the bottom row is left to a trace of its own.
  cv::Mat image(30, 40, CV_8UC1, cv::Scalar::all(1));
  ContourTracer tracer(image);
  const auto found = trace_all(tracer);
  ASSERT_EQ(found.size(), 2u);
  Points first = frame(0, 1, 38, 28);
  first.emplace_back(0, 0);
  EXPECT_EQ(sorted(found[0]), sorted(first));
  EXPECT_EQ(sorted(found[1]), frame(0, 29, 38, 29));
}

TEST(ContourTracer, RingIsTracedOnceAndItsHoleIsFilled) {
  cv::Mat image = cv::Mat::zeros(12, 12, CV_8UC1);
  image(cv::Rect(2, 2, 8, 8)) = 1;
  image(cv::Rect(4, 4, 4, 4)) = 0;
  image.at<unsigned char>(5, 5) = 1;  // an island inside the hole is part of the region
  ContourTracer tracer(image);
  const auto found = trace_all(tracer);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(sorted(found[0]), frame(2, 2, 9, 9));
  cv::Mat expected = cv::Mat::zeros(12, 12, CV_8UC1);
  expected(cv::Rect(2, 2, 8, 8)) = ContourTracer::F_MASK;
  EXPECT_EQ(cv::countNonZero(tracer.mask() != expected), 0);
}

TEST(ContourTracer, FindsSeparateRegionsInScanOrderAndNeverRestartsInsideOne) {
  // A U shape (whose right arm starts a foreground run on every row) and a diagonal line.
  cv::Mat image = cv::Mat::zeros(10, 14, CV_8UC1);
  image(cv::Rect(1, 1, 5, 7)) = 1;
  image(cv::Rect(2, 1, 3, 5)) = 0;
  for (int i = 0; i < 4; ++i)
    image.at<unsigned char>(3 + i, 8 + i) = 1;
  ContourTracer tracer(image);
  const auto found = trace_all(tracer);
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0].front(), cv::Point(1, 1));
  EXPECT_EQ(found[1].front(), cv::Point(8, 3));
  EXPECT_EQ(sorted(found[1]), sorted({{8, 3}, {9, 4}, {10, 5}, {11, 6}}));
}

TEST(ContourTracer, SkipsRegionsAlreadyInTheGivenMask) {
  cv::Mat image = cv::Mat::zeros(8, 8, CV_8UC1);
  image(cv::Rect(1, 1, 2, 2)) = 1;
  image(cv::Rect(5, 5, 2, 2)) = 1;
  cv::Mat mask = cv::Mat::zeros(8, 8, CV_8UC1);
  mask(cv::Rect(1, 1, 2, 2)) = ContourTracer::F_MASK;
  ContourTracer tracer(image, mask);
  const auto found = trace_all(tracer);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(sorted(found[0]), frame(5, 5, 6, 6));
}

TEST(ContourTracer, CopiesTakenDuringASearchKeepTheMarksMadeSoFar) {
  // Tall regions far apart: the own mask is made ready row by row as the search goes, and a
  // copy taken in between must neither lose the marks made nor see unready rows.
  cv::Mat image = cv::Mat::zeros(120, 30, CV_8UC1);
  image(cv::Rect(2, 2, 5, 60)) = 9;
  image(cv::Rect(10, 80, 4, 30)) = 9;
  ContourTracer tracer(image);
  EXPECT_EQ(cv::countNonZero(tracer.mask()), 0);
  ContourTracer fresh(image);
  Points contour;
  cv::Point position(0, 0);
  ASSERT_TRUE(fresh.search(contour, position, 0));
  ContourTracer copy(fresh);
  EXPECT_EQ(cv::countNonZero(copy.mask() == ContourTracer::F_MASK), 5 * 60);
  ASSERT_TRUE(copy.search(contour, position, 0));
  EXPECT_EQ(contour.front(), cv::Point(10, 80));
  EXPECT_FALSE(fresh.search(contour, position, 0));
  EXPECT_EQ(cv::countNonZero(fresh.mask() == ContourTracer::F_MASK), 5 * 60 + 4 * 30);
  EXPECT_EQ(cv::countNonZero(fresh.mask()), 5 * 60 + 4 * 30);
}

TEST(ContourTracer, MatchesOpenCvOnRandomMasks) {
  // Thresholded noise gives thin spurs, diagonal links, holes and islands in holes.
  cv::RNG rng(20240611);
  for (int round = 0; round < 12; ++round) {
    SCOPED_TRACE(round);
    cv::Mat noise(90 + round, 110, CV_8UC1);
    rng.fill(noise, cv::RNG::UNIFORM, 0, 256);
    if (round % 3 == 1) cv::GaussianBlur(noise, noise, cv::Size(5, 5), 1.2);
    const int cut = round % 3 == 2 ? 170 : 128;
    cv::Mat image = noise > cut;
    cv::rectangle(image, cv::Rect(0, 0, image.cols, image.rows), cv::Scalar(0));  // clear border

    std::vector<Points> expected;
    cv::Mat work = image.clone();
    std::vector<Points> cv_contours;
    cv::findContours(work, cv_contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
    cv::Mat cv_filled = cv::Mat::zeros(image.size(), CV_8UC1);
    for (std::size_t i = 0; i < cv_contours.size(); ++i) {
      expected.push_back(sorted(cv_contours[i]));
      cv::drawContours(cv_filled, cv_contours, static_cast<int>(i), cv::Scalar(255), cv::FILLED);
    }

    ContourTracer tracer(image);
    std::vector<Points> actual;
    for (Points const& c : trace_all(tracer))
      actual.push_back(sorted(c));
    std::sort(expected.begin(), expected.end(), before_set);
    std::sort(actual.begin(), actual.end(), before_set);
    EXPECT_EQ(actual.size(), expected.size());
    EXPECT_TRUE(actual == expected);
    // The mask marks each found region with its holes closed.
    EXPECT_EQ(cv::countNonZero((tracer.mask() == ContourTracer::F_MASK) != cv_filled), 0);

    // fill() takes OpenCV's contours (which list a pixel again where the boundary comes back
    // to it) as polygons, as drawContours does.
    cv::Mat filled = cv::Mat::zeros(image.size(), CV_8UC1);
    for (Points const& c : cv_contours)
      EXPECT_TRUE(tracer.fill(filled, c, 255, 0));
    EXPECT_EQ(cv::countNonZero(filled != cv_filled), 0);
  }
}

TEST(ContourTracer, FillsPolygonsGivenByTheirCorners) {
  cv::Mat image = cv::Mat::zeros(4, 4, CV_8UC1);
  ContourTracer tracer(image);
  cv::Mat target(20, 30, CV_8UC1, cv::Scalar(3));
  // A square's four corners mark the whole square, outline and inside.
  ASSERT_TRUE(tracer.fill(target, {{2, 3}, {9, 3}, {9, 10}, {2, 10}}, 200, 3));
  EXPECT_EQ(cv::countNonZero(target == 200), 64);
  EXPECT_EQ(cv::countNonZero(target(cv::Rect(2, 3, 8, 8)) == 200), 64);

  // Any polygon, also one reaching far outside, as cv::fillPoly with its outline drawn.
  const std::vector<Points> polygons = {
      {{5, 1}, {25, 4}, {14, 18}},                    // a triangle
      {{3, 2}, {26, 2}, {26, 17}, {15, 8}, {3, 17}},  // concave
      {{-40000, -5}, {12, -5}, {12, 90000}},          // corners far outside
      {{-3, 1}, {3, 3}},                              // a line running into the target
      {{7, 7}},                                       // one pixel
  };
  for (Points const& polygon : polygons) {
    SCOPED_TRACE(::testing::PrintToString(polygon));
    cv::Mat ours = cv::Mat::zeros(20, 30, CV_8UC1);
    ASSERT_TRUE(tracer.fill(ours, polygon, 9, 0));
    // The reference on a canvas large enough to hold every corner that fillPoly can take.
    const bool far = polygon[0].x < -1000;
    cv::Mat want = cv::Mat::zeros(20, 30, CV_8UC1);
    if (far) {
      // Within the target the far triangle covers every pixel with x <= 12: its long edge
      // passes far below.
      want(cv::Rect(0, 0, 13, 20)) = 9;
      EXPECT_EQ(cv::countNonZero(ours != want), 0);
    } else {
      cv::fillPoly(want, std::vector<Points>{polygon}, cv::Scalar(9));
      cv::polylines(want, std::vector<Points>{polygon}, true, cv::Scalar(9));
      EXPECT_EQ(cv::countNonZero(ours != want), 0);
    }
  }
}

TEST(ContourTracer, FillRefusesWhatItCannotWrite) {
  cv::Mat image = cv::Mat::zeros(4, 4, CV_8UC1);
  ContourTracer tracer(image);
  cv::Mat colour(4, 4, CV_8UC3, cv::Scalar::all(0));
  cv::Mat target = cv::Mat::zeros(4, 4, CV_8UC1);
  EXPECT_FALSE(tracer.fill(colour, {{1, 1}}, 5, 0));
  EXPECT_FALSE(tracer.fill(target, {}, 5, 0));
  EXPECT_FALSE(tracer.fill(target, {{-3, 1}, {4, 9}}, 5, 0));  // passes the target by
  EXPECT_FALSE(tracer.fill(target, {{-3, -3}, {-1, -9}, {-9, -1}}, 5, 0));
  EXPECT_EQ(cv::countNonZero(target), 0);
}

}  // namespace
