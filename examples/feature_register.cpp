// Registers a shifted, slightly rotated copy of a textured image back onto the original.
#include <quib/feature.hpp>

#include <opencv2/imgproc.hpp>

#include <cstdio>

int main() {
  cv::Mat noise(64, 80, CV_8UC1);
  cv::randu(noise, 0, 256);
  cv::Mat before;
  cv::resize(noise, before, cv::Size(320, 256), 0, 0, cv::INTER_CUBIC);

  const cv::Mat truth = (cv::Mat_<double>(3, 3) << 0.995, -0.03, 6.0, 0.03, 0.995, -4.0, 0, 0, 1);
  cv::Mat after;
  cv::warpPerspective(before, after, truth, before.size(), cv::INTER_LINEAR, cv::BORDER_REFLECT);

  quib::Feature feature;
  cv::Mat homography;
  quib::Feature::Data data;
  // Matches may move at most 30 pixels; keep those up to twice the mean descriptor distance.
  // A homography carried by fewer inliers than kMinimumInliers is likely chance.
  if (!feature.find(homography, data, before, after, 30.0, 2.0,
                    quib::Feature::MATCH_BRUTE_FORCE_HAMMING, quib::Feature::FIND_RANSAC) ||
      data.inliers < quib::Feature::kMinimumInliers) {
    std::puts("no registration found");
    return 1;
  }
  std::printf("%d inliers of %d matches, RMS transfer error %.3f px\n", data.inliers, data.matches,
              data.error);
  for (int r = 0; r < 3; ++r)
    std::printf("%9.4f %9.4f %9.4f\n", homography.at<double>(r, 0), homography.at<double>(r, 1),
                homography.at<double>(r, 2));
  return 0;
}
