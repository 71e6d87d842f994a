// Feature-based registration: key points, binary descriptors, matching and the homography.
#pragma once

#include <quib/export.hpp>
#include <quib/image.hpp>
#include <quib/region.hpp>

#include <opencv2/core.hpp>
#include <opencv2/features2d.hpp>

#include <limits>
#include <utility>
#include <vector>

namespace quib {

/// Finds the perspective transform (homography) that maps one image onto another from local
/// features: AKAZE key points and binary descriptors, a descriptor matcher chosen by the
/// caller, two plausibility filters (image distance, then descriptor distance) and
/// cv::findHomography. Each step is also offered on its own.
///
/// The engine is AKAZE with MLDB descriptors of full size and 3 channels, threshold 0.001,
/// 4 octaves of 4 layers and Perona-Malik g2 diffusivity. Images may be 8-bit, 16-bit or float,
/// with 1, 3 (BGR) or 4 channels; a quib::Image must be of whole bytes per channel (8, 16 or 32
/// bits each).
///
/// Memory: the object holds only the engine; copies share it. Outputs are written into the
/// caller's containers; filters build their result aside, so an output may be the same vector
/// as an input.
///
/// Failures: every step returns false when it has nothing to work on or produces nothing
/// (empty or unsupported image, no key points, empty descriptors, no matches, match indices
/// outside the key point lists) and never throws for that. Exceptions that OpenCV raises pass
/// through unchanged, for example fewer than four point pairs in cv::findHomography.
///
/// Threads: one Feature object belongs to one thread at a time (copies share the engine, so
/// they count as one object); separate objects may run in parallel.
///
///     quib::Feature feature;
///     cv::Mat h;
///     if (feature.find(h, before, after, 40.0, 2.0, quib::Feature::MATCH_BRUTE_FORCE_HAMMING,
///                      quib::Feature::FIND_RANSAC))
///       cv::warpPerspective(before, aligned, h, after.size());
class QUIB_API Feature {
 public:
  /// The descriptor matcher, created by name; any other value selects "BruteForce".
  enum match_t : int {
    MATCH_FLANN_BASED = 0,           ///< "FlannBased" (an LSH index for binary descriptors)
    MATCH_BRUTE_FORCE = 1,           ///< "BruteForce" (L2)
    MATCH_BRUTE_FORCE_SL2 = 2,       ///< "BruteForce-SL2" (squared L2)
    MATCH_BRUTE_FORCE_L1 = 3,        ///< "BruteForce-L1"
    MATCH_BRUTE_FORCE_HAMMING = 4,   ///< "BruteForce-Hamming"
    MATCH_BRUTE_FORCE_HAMMING2 = 5,  ///< "BruteForce-Hamming(2)"
  };
  /// The fitting method of cv::findHomography; any other value fits with all points.
  enum find_t : int {
    FIND_ALL_POINTS = 0,  ///< least squares over all pairs
    FIND_RANSAC = 1,      ///< cv::RANSAC
    FIND_LMEDS = 2,       ///< cv::LMEDS
  };

  /// What find() measured of the homography it returned.
  struct Data {
    int keypoints1 = 0;  ///< key points of image 1 (after the descriptors were computed)
    int keypoints2 = 0;  ///< key points of image 2
    int matches = 0;     ///< matches handed to the fit, after the two filters
    /// Matches whose transfer error |H p1 - p2| is at most the fit's threshold of 3 pixels.
    /// Two unrelated pictures give a handful at most; see kMinimumInliers.
    int inliers = 0;
    /// Root mean square of the inliers' transfer errors, in pixels; NaN without inliers.
    double error = std::numeric_limits<double>::quiet_NaN();
  };

  /// The inlier count below which a registration should not be trusted. Measured on 800 x 640
  /// pictures made for the purpose (see docs/vision.md): textured scenes seen again after a 30
  /// to 40 degree turn of the viewpoint keep 1161 to 2120 inliers with "BruteForce-Hamming" and
  /// RANSAC, while pairs of unrelated pictures keep 7 to 15 by chance.
  static constexpr int kMinimumInliers = 30;

  /// Creates the AKAZE engine.
  Feature();

  /// Empties `keypoints` and detects key points over the whole image. True when at least one
  /// was found; false for an empty or unsupported image.
  [[nodiscard]] bool detect(std::vector<cv::KeyPoint>& keypoints, cv::Mat const& image);
  [[nodiscard]] bool detect(std::vector<cv::KeyPoint>& keypoints, Image const& image);

  /// Detects key points and computes their descriptors in one pass over the image (the scale
  /// space is built once): what detect() then compute() give, at the cost of one of them.
  /// True when at least one descriptor was computed; false for an empty or unsupported image.
  [[nodiscard]] bool detect_and_compute(std::vector<cv::KeyPoint>& keypoints, cv::Mat& descriptors,
                                        cv::Mat const& image);

  /// Releases `descriptors` and computes one row per key point; the engine may drop key
  /// points, and `keypoints` is updated to match. The key points must come from detect(): the
  /// engine reads their class_id as a scale level, and OpenCV throws for one it does not have. True
  /// when the descriptor matrix has at least one element; false for no key points or an empty or
  /// unsupported image.
  [[nodiscard]] bool compute(cv::Mat& descriptors, std::vector<cv::KeyPoint>& keypoints,
                             cv::Mat const& image);
  [[nodiscard]] bool compute(cv::Mat& descriptors, std::vector<cv::KeyPoint>& keypoints,
                             Image const& image);

  /// Empties `matches` and finds the best train descriptor (`descriptors2`) for every query
  /// descriptor (`descriptors1`). True when there is at least one match; false when either set
  /// is empty. "FlannBased" on binary (8-bit) descriptors uses FLANN's locality-sensitive
  /// hashing index (12 tables, 20-bit keys, multi-probe level 2), which may leave a query without
  /// a match; on float descriptors it uses FLANN's default KD-trees.
  [[nodiscard]] bool match(std::vector<cv::DMatch>& matches, cv::Mat const& descriptors1,
                           cv::Mat const& descriptors2, match_t type) const;

  /// Lowe's ratio test: for every query descriptor its two nearest train descriptors are
  /// found, and the best is kept when its distance is below `ratio` times the second's (0.8 is
  /// the usual choice; a query with a single candidate is kept). Empties `matches` first.
  /// True when a match is kept; false when either set is empty or nothing passes.
  [[nodiscard]] bool match_ratio(std::vector<cv::DMatch>& matches, cv::Mat const& descriptors1,
                                 cv::Mat const& descriptors2, match_t type, double ratio) const;

  /// (minimum, maximum, mean) of the match distances, summed in double precision;
  /// (0, 0, 0) for no matches.
  region::vector3<float> get_hamming_distance(std::vector<cv::DMatch> const& matches) const;

  /// Keeps, in order, the matches whose distance is at most `threshold`. True when `out` is
  /// not empty.
  [[nodiscard]] bool extract_hamming_distance(std::vector<cv::DMatch>& out,
                                              std::vector<cv::DMatch> const& matches,
                                              double threshold) const;

  /// Keeps, in order, the matches whose query point (in `keypoints1`) and train point (in
  /// `keypoints2`) lie at most `limit` pixels apart; a negative or NaN limit keeps nothing.
  /// Matches whose indices fall outside the key point lists are dropped. True when `out` is
  /// not empty.
  [[nodiscard]] bool extract_vector_distance(std::vector<cv::DMatch>& out,
                                             std::vector<cv::KeyPoint> const& keypoints1,
                                             std::vector<cv::KeyPoint> const& keypoints2,
                                             std::vector<cv::DMatch> const& matches,
                                             double limit) const;

  /// Fits the homography from image 1 to image 2 to the matched key point positions with
  /// cv::findHomography (reprojection threshold 3 pixels, at most 2000 iterations, confidence
  /// 0.995) and stores its result in `homography`. True when that result is not empty. Matches
  /// whose indices fall outside the key point lists are skipped; with no pair left,
  /// `homography` is released and the result is false. Fewer than four pairs make OpenCV throw.
  [[nodiscard]] bool find_perspective_matrix(cv::Mat& homography,
                                             std::vector<cv::KeyPoint> const& keypoints1,
                                             std::vector<cv::KeyPoint> const& keypoints2,
                                             std::vector<cv::DMatch> const& matches,
                                             find_t method) const;

  /// The whole pipeline: detect and compute in both images, match image 1 (query) against
  /// image 2 (train), keep the matches whose key points lie at most `limit` pixels apart, keep
  /// those whose distance is at most mean * `ratio` (clamped to the [minimum, maximum] of the
  /// kept distances, so the best match always survives), and fit the homography with
  /// `method`. On false `homography` is empty.
  [[nodiscard]] bool find(cv::Mat& homography, cv::Mat const& image1, cv::Mat const& image2,
                          double limit, double ratio, match_t type, find_t method);
  [[nodiscard]] bool find(cv::Mat& homography, Image const& image1, Image const& image2,
                          double limit, double ratio, match_t type, find_t method);
  /// The same pipeline, also reporting in `data` how well the homography is supported: the
  /// key point and match counts, the inliers and their RMS transfer error. `data` is filled as
  /// far as the pipeline got, also when the result is false.
  [[nodiscard]] bool find(cv::Mat& homography, Data& data, cv::Mat const& image1,
                          cv::Mat const& image2, double limit, double ratio, match_t type,
                          find_t method);

  /// The inliers of a homography among matched key points: how many matches it carries from
  /// image 1 to within `threshold` pixels of their point in image 2, and the RMS of those
  /// transfer errors (NaN when there are none). Matches with foreign indices are skipped.
  static std::pair<int, double> measure_inliers(cv::Mat const& homography,
                                                std::vector<cv::KeyPoint> const& keypoints1,
                                                std::vector<cv::KeyPoint> const& keypoints2,
                                                std::vector<cv::DMatch> const& matches,
                                                double threshold = 3.0);

  /// Keeps, in order, the forward matches (image 1 to 2) that the backward matches (image 2 to
  /// 1) confirm: a forward match (q, t) survives when some backward match is (t, q), so the
  /// two descriptors are each other's nearest neighbours. True when `out` is not empty.
  [[nodiscard]] bool extract_cross_match(std::vector<cv::DMatch>& out,
                                         std::vector<cv::DMatch> const& forward,
                                         std::vector<cv::DMatch> const& backward) const;

  /// As extract_cross_match(), but the confirmation compares key point positions instead of
  /// indices: a forward match survives when some backward match leads from a key point at the
  /// same position as its train point (in `keypoints2`) to a key point at the same position as
  /// its query point (in `keypoints1`). Useful when several key points share a position. Both
  /// lists index `keypoints1` and `keypoints2` (forward: query 1, train 2; backward: query 2,
  /// train 1); indices outside them and non-finite positions never confirm. True when `out`
  /// is not empty.
  [[nodiscard]] bool extract_cross_point_match(std::vector<cv::DMatch>& out,
                                               std::vector<cv::KeyPoint> const& keypoints1,
                                               std::vector<cv::KeyPoint> const& keypoints2,
                                               std::vector<cv::DMatch> const& forward,
                                               std::vector<cv::DMatch> const& backward) const;

 private:
  cv::Ptr<cv::AKAZE> engine_;
};

}  // namespace quib
