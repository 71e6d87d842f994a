// quib register IMAGE1 IMAGE2: the homography between two pictures from AKAZE features.
#include <quib/feature.hpp>

#include "commands.hpp"
#include "image_io.hpp"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cctype>
#include <ostream>

namespace quib::tool {

char const* const registerHelp =
    "usage: quib register [--limit PX] [--ratio R] [--matcher NAME]\n"
    "                     [--method ransac|lmeds|all] [--overlay OUT] [--json] IMAGE1 IMAGE2\n"
    "\n"
    "Finds the perspective transform (homography) that maps IMAGE1 onto IMAGE2 from AKAZE\n"
    "features, and reports how many features and matches survived each step: key points,\n"
    "descriptors, matches, matches whose points lie at most PX pixels apart, matches whose\n"
    "descriptor distance is at most R times the mean (clamped to the smallest and largest).\n"
    "\n"
    "Options:\n"
    "  --limit PX       how far a true match may move between the pictures (default 50)\n"
    "  --ratio R        distance threshold as a multiple of the mean distance (default 1)\n"
    "  --matcher NAME   BruteForce-Hamming (default), BruteForce-Hamming(2), BruteForce,\n"
    "                   BruteForce-SL2, BruteForce-L1 or FlannBased\n"
    "  --method M       ransac (default), lmeds, or all (least squares over every match)\n"
    "  --overlay OUT    write IMAGE2 with IMAGE1 mapped onto it, half and half\n"
    "  --json           print one JSON object\n";

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
  throw UsageError("unknown matcher '" + name + "'");
}

}  // namespace

int runRegister(Context& ctx, std::vector<std::string> const& argv) {
  const Args args(argv, {{"--limit", true},
                         {"--ratio", true},
                         {"--matcher", true},
                         {"--method", true},
                         {"--overlay", true}});
  auto const& pos = args.positional();
  if (pos.size() != 2) throw UsageError("wants IMAGE1 and IMAGE2");
  const double limit = args.number("--limit", 50, 0, 1e9);
  const double ratio = args.number("--ratio", 1, 0, 1e9);
  const std::string matcherName = args.value("--matcher", "BruteForce-Hamming");
  const auto matcher = matcherOf(matcherName);
  const std::string methodName = args.value("--method", "ransac");
  quib::Feature::find_t method = quib::Feature::FIND_RANSAC;
  if (methodName == "lmeds")
    method = quib::Feature::FIND_LMEDS;
  else if (methodName == "all")
    method = quib::Feature::FIND_ALL_POINTS;
  else if (methodName != "ransac")
    throw UsageError("unknown method '" + methodName + "' (ransac, lmeds or all)");

  const cv::Mat image1 = readImage(pos[0], read_as::colour);
  const cv::Mat image2 = readImage(pos[1], read_as::colour);

  quib::Feature feature;
  Progress progress(ctx, 6);
  std::vector<cv::KeyPoint> keys1, keys2;
  progress.step("key points");
  ctx.subject = pos[0];
  feature.detect(keys1, image1);
  ctx.subject = pos[1];
  feature.detect(keys2, image2);
  const std::size_t detected1 = keys1.size(), detected2 = keys2.size();
  cv::Mat desc1, desc2;
  progress.step("descriptors");
  if (!keys1.empty()) feature.compute(desc1, keys1, image1);
  if (!keys2.empty()) feature.compute(desc2, keys2, image2);
  ctx.subject = "quib register";
  std::vector<cv::DMatch> matches, near, close;
  progress.step("matching");
  if (!desc1.empty() && !desc2.empty()) feature.match(matches, desc1, desc2, matcher);
  progress.step("filtering");
  feature.extract_vector_distance(near, keys1, keys2, matches, limit);
  const auto d = feature.get_hamming_distance(near);
  double threshold = std::clamp(double(d.z) * ratio, double(d.x), double(d.y));
  if (!near.empty()) feature.extract_hamming_distance(close, near, threshold);
  progress.done();

  Json steps = Json::object();
  steps.set("keypoints1", detected1)
      .set("keypoints2", detected2)
      .set("described1", keys1.size())
      .set("described2", keys2.size())
      .set("matches", matches.size())
      .set("within_limit", near.size())
      .set("within_distance", close.size());
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

  Json hj = Json::array();
  for (int r = 0; r < 3; ++r)
    hj.push(Json::numbers({h.at<double>(r, 0), h.at<double>(r, 1), h.at<double>(r, 2)}));
  if (ctx.json) {
    Json j = Json::object();
    j.set("image1", pos[0])
        .set("image2", pos[1])
        .set("limit", limit)
        .set("ratio", ratio)
        .set("matcher", matcherName)
        .set("method", methodName)
        .set("distance_threshold", threshold)
        .set("steps", steps)
        .set("homography", hj);
    j.write(ctx.out);
  } else {
    ctx.out << "homography (" << methodName << ")\n";
    for (int r = 0; r < 3; ++r)
      ctx.out << "  " << formatShort(h.at<double>(r, 0), 8) << "  "
              << formatShort(h.at<double>(r, 1), 8) << "  " << formatShort(h.at<double>(r, 2), 8)
              << '\n';
  }

  if (args.has("--overlay")) {
    cv::Mat warped, blend;
    cv::warpPerspective(image1, warped, h, image2.size());
    cv::addWeighted(image2, 0.5, warped, 0.5, 0, blend);
    ctx.subject = args.value("--overlay");
    writeImage(args.value("--overlay"), blend);
  }
  return exit_code::ok;
}

}  // namespace quib::tool
