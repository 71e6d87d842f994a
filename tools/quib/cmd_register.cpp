// quib register IMAGE1 IMAGE2: the homography between two pictures from AKAZE features.
#include <quib/feature.hpp>

#include "commands.hpp"
#include "image_io.hpp"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cctype>
#include <memory>
#include <ostream>

namespace quib::tool {

namespace {

quib::Feature::match_t matcherOf(std::string const& name) {
  static const std::pair<char const*, quib::Feature::match_t> names[] = {
      {"flannbased", quib::Feature::MATCH_FLANN_BASED},
      {"bruteforce", quib::Feature::MATCH_BRUTE_FORCE},
      {"bruteforce-sl2", quib::Feature::MATCH_BRUTE_FORCE_SL2},
      {"bruteforce-l1", quib::Feature::MATCH_BRUTE_FORCE_L1},
      {"bruteforce-hamming", quib::Feature::MATCH_BRUTE_FORCE_HAMMING},
      {"bruteforce-hamming(2)", quib::Feature::MATCH_BRUTE_FORCE_HAMMING2},
  };
  std::string lower;
  for (char c : name)
    lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (auto const& n : names)
    if (lower == n.first) return n.second;
  return quib::Feature::MATCH_BRUTE_FORCE_HAMMING;
}

const CLI::Validator matcherName(
    [](std::string& name) -> std::string {
      std::string lower;
      for (char c : name)
        lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      for (char const* known : {"flannbased", "bruteforce", "bruteforce-sl2", "bruteforce-l1",
                                "bruteforce-hamming", "bruteforce-hamming(2)"})
        if (lower == known) return {};
      return "unknown matcher '" + name + "'";
    },
    "");

struct RegisterOptions {
  std::vector<std::string> images;
  double limit = 100000;  // no limit: a changed viewpoint moves true matches far
  double ratio = 1;
  double ratioTest = 0;  // off
  bool mutual = false;
  int minInliers = quib::Feature::kMinimumInliers;
  std::string matcher = "BruteForce-Hamming";
  std::string method = "ransac";
  std::string out;
};

void registerImages(Context& ctx, RegisterOptions const& o) {
  auto const& pos = o.images;
  const double limit = o.limit;
  const double ratio = o.ratio;
  std::string const& matcherName = o.matcher;
  const auto matcher = matcherOf(matcherName);
  std::string const& methodName = o.method;
  quib::Feature::find_t method = quib::Feature::FIND_RANSAC;
  if (methodName == "lmeds")
    method = quib::Feature::FIND_LMEDS;
  else if (methodName == "all")
    method = quib::Feature::FIND_ALL_POINTS;

  const cv::Mat image1 = readImage(pos[0], read_as::colour);
  const cv::Mat image2 = readImage(pos[1], read_as::colour);

  quib::Feature feature;
  Progress progress(ctx, 6);
  std::vector<cv::KeyPoint> keys1, keys2;
  progress.step("key points");
  // Each step's result shows in the sizes of its outputs, which are reported below.
  ctx.subject = pos[0];
  static_cast<void>(feature.detect(keys1, image1));
  ctx.subject = pos[1];
  static_cast<void>(feature.detect(keys2, image2));
  const std::size_t detected1 = keys1.size(), detected2 = keys2.size();
  cv::Mat desc1, desc2;
  progress.step("descriptors");
  if (!keys1.empty()) static_cast<void>(feature.compute(desc1, keys1, image1));
  if (!keys2.empty()) static_cast<void>(feature.compute(desc2, keys2, image2));
  ctx.subject = "quib register";
  std::vector<cv::DMatch> matches, near, close;
  progress.step("matching");
  if (!desc1.empty() && !desc2.empty()) {
    if (o.ratioTest > 0) {
      static_cast<void>(feature.match_ratio(matches, desc1, desc2, matcher, o.ratioTest));
    } else {
      static_cast<void>(feature.match(matches, desc1, desc2, matcher));
    }
    if (o.mutual) {
      std::vector<cv::DMatch> backward;
      static_cast<void>(feature.match(backward, desc2, desc1, matcher));
      static_cast<void>(feature.extract_cross_match(matches, matches, backward));
    }
  }
  progress.step("filtering");
  static_cast<void>(feature.extract_vector_distance(near, keys1, keys2, matches, limit));
  const auto d = feature.get_hamming_distance(near);
  double threshold = std::clamp(double(d.z) * ratio, double(d.x), double(d.y));
  if (!near.empty()) static_cast<void>(feature.extract_hamming_distance(close, near, threshold));
  progress.done();

  const Json steps = {{"keypoints1", detected1},        {"keypoints2", detected2},
                      {"described1", keys1.size()},     {"described2", keys2.size()},
                      {"matches", matches.size()},      {"within_limit", near.size()},
                      {"within_distance", close.size()}};
  if (!ctx.json) {
    ctx.out << "key points      " << detected1 << " in " << pos[0] << ", " << detected2 << " in "
            << pos[1] << '\n'
            << "described       " << keys1.size() << ", " << keys2.size() << '\n'
            << "matches         " << matches.size() << " (" << matcherName << ")\n"
            << "within " << formatShort(limit) << " px  " << near.size() << '\n'
            << "distance <= " << formatShort(threshold) << "  " << close.size() << " (min "
            << formatShort(d.x) << ", mean " << formatShort(d.z) << ", max " << formatShort(d.y)
            << ")\n";
  }
  if (close.size() < 4) {
    ctx.out.flush();
    throw Failure(pos[0], "only " + std::to_string(close.size()) + " matches with " + pos[1] +
                              " survive; a homography needs 4");
  }
  cv::Mat h;
  if (!feature.find_perspective_matrix(h, keys1, keys2, close, method) || h.empty())
    throw Failure(pos[0], "no homography maps it onto " + pos[1]);
  h.convertTo(h, CV_64F);
  const auto [inliers, rms] = quib::Feature::measure_inliers(h, keys1, keys2, close, 3.0);

  Json hj = Json::array();
  for (int r = 0; r < 3; ++r)
    hj.push_back({h.at<double>(r, 0), h.at<double>(r, 1), h.at<double>(r, 2)});
  if (ctx.json) {
    writeJson(ctx.out, {{"image1", pos[0]},
                        {"image2", pos[1]},
                        {"limit", limit},
                        {"ratio", ratio},
                        {"matcher", matcherName},
                        {"method", methodName},
                        {"distance_threshold", threshold},
                        {"steps", steps},
                        {"inliers", inliers},
                        {"rms_error", rms},
                        {"min_inliers", o.minInliers},
                        {"homography", hj}});
  } else {
    ctx.out << "inliers         " << inliers << " of " << close.size() << ", RMS transfer error "
            << formatShort(rms) << " px\n";
    ctx.out << "homography (" << methodName << ")\n";
    for (int r = 0; r < 3; ++r)
      ctx.out << "  " << formatShort(h.at<double>(r, 0), 8) << "  "
              << formatShort(h.at<double>(r, 1), 8) << "  " << formatShort(h.at<double>(r, 2), 8)
              << '\n';
  }

  if (!o.out.empty()) {
    cv::Mat warped, blend;
    cv::warpPerspective(image1, warped, h, image2.size());
    cv::addWeighted(image2, 0.5, warped, 0.5, 0, blend);
    ctx.subject = o.out;
    writeImage(o.out, blend);
  }
  if (inliers < o.minInliers) {
    ctx.out.flush();
    throw Failure(pos[0], "only " + std::to_string(inliers) + " inliers with " + pos[1] +
                              "; the homography is not to be trusted below " +
                              std::to_string(o.minInliers));
  }
}

}  // namespace

void add_register_command(CLI::App& quib, Context& ctx) {
  auto o = std::make_shared<RegisterOptions>();
  CLI::App& cmd = addCommand(quib, "register", paragraphs(R"(
      map one picture onto another by features

      Finds the perspective transform (homography) that maps IMAGE1 onto IMAGE2 from AKAZE
      features, and reports how many features and matches survived each step: key points,
      descriptors, matches, matches whose points lie at most --limit pixels apart, matches
      whose descriptor distance is at most --ratio times the mean (clamped to the smallest and
      largest), and the inliers of the homography: the matches it carries to within 3 pixels
      of their partner, with their RMS transfer error. Fewer inliers than --min-inliers make
      the exit status 1: two unrelated pictures give a homography too, carried by a handful of
      chance matches.
)"));
  cmd.add_option("IMAGES", o->images, "IMAGE1 and IMAGE2; '-' reads standard input")
      ->required()
      ->expected(2);
  cmd.add_option("--limit", o->limit,
                 "how far a true match may move between the pictures, in pixels")
      ->type_name("PX")
      ->check(CLI::Range(0.0, 1e9))
      ->capture_default_str();
  cmd.add_option("--ratio", o->ratio, "distance threshold as a multiple of the mean distance")
      ->type_name("R")
      ->check(CLI::Range(0.0, 1e9))
      ->capture_default_str();
  cmd.add_option("--ratio-test", o->ratioTest,
                 "keep a match only when its distance is below R times the second-best "
                 "candidate's (Lowe's test; 0.8 is usual, 0 turns it off)")
      ->type_name("R")
      ->check(CLI::Range(0.0, 1.0))
      ->capture_default_str();
  cmd.add_flag("--mutual", o->mutual,
               "keep only matches that are also the best the other way round");
  cmd.add_option("--min-inliers", o->minInliers,
                 "inliers below which the registration fails (measured: pictures seen again "
                 "after a 30 to 40 degree turn keep over 1000, unrelated ones under 16)")
      ->type_name("N")
      ->check(CLI::Range(0, 1000000))
      ->capture_default_str();
  cmd.add_option("--matcher", o->matcher,
                 "BruteForce-Hamming, BruteForce-Hamming(2), BruteForce, BruteForce-SL2, "
                 "BruteForce-L1 or FlannBased")
      ->type_name("NAME")
      ->check(matcherName)
      ->capture_default_str();
  cmd.add_option("--method", o->method, "ransac, lmeds, or all (least squares over every match)")
      ->type_name("M")
      ->check(CLI::IsMember({"ransac", "lmeds", "all"}))
      ->capture_default_str();
  cmd.add_option("--out,--overlay", o->out,
                 "write IMAGE2 with IMAGE1 mapped onto it, half and half")
      ->type_name("FILE");
  addJsonFlag(cmd, ctx);
  onRun(cmd, ctx, [o, &ctx] { registerImages(ctx, *o); });
}

}  // namespace quib::tool
