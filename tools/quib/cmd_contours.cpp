// quib contours MASK: the outlines of the regions of an 8-bit mask.
#include <quib/contour.hpp>

#include "commands.hpp"
#include "image_io.hpp"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <memory>
#include <ostream>

namespace quib::tool {

namespace {

struct ContoursOptions {
  std::string mask;
  std::string out;
  int background = 0;
  int threshold = -1;  // none
};

// What is measured of one region: its own pixels (the 8-connected component of its first
// boundary pixel; regions inside its holes are not counted), their centroid, the length of
// its outer boundary, its bounding box and its holes.
struct Region {
  std::vector<cv::Point> contour;
  int area = 0;
  cv::Point2d centroid;
  double perimeter = 0;
  cv::Rect box;
  int holes = 0;
};

Region measure(std::vector<cv::Point> const& contour, cv::Mat const& labels, cv::Mat const& stats,
               cv::Mat const& centroids) {
  Region r;
  r.contour = contour;
  const int label = labels.at<int>(contour.front());
  r.area = stats.at<int>(label, cv::CC_STAT_AREA);
  r.centroid = cv::Point2d(centroids.at<double>(label, 0), centroids.at<double>(label, 1));
  r.box =
      cv::Rect(stats.at<int>(label, cv::CC_STAT_LEFT), stats.at<int>(label, cv::CC_STAT_TOP),
               stats.at<int>(label, cv::CC_STAT_WIDTH), stats.at<int>(label, cv::CC_STAT_HEIGHT));
  // The component alone, with a free pixel all round: its outer boundary, and the background
  // parts (4-connected) other than the one outside it are its holes.
  cv::Mat own = cv::Mat::zeros(r.box.height + 2, r.box.width + 2, CV_8UC1);
  own(cv::Rect(1, 1, r.box.width, r.box.height)).setTo(255, labels(r.box) == label);
  std::vector<std::vector<cv::Point>> outer;
  cv::findContours(own.clone(), outer, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
  if (!outer.empty())
    r.perimeter = outer.front().size() > 1 ? cv::arcLength(outer.front(), true) : 0;
  cv::Mat background;
  const int parts = cv::connectedComponents(own == 0, background, 4);
  r.holes = std::max(0, parts - 2);  // label 0 is the region itself, one part is outside
  return r;
}

void contours(Context& ctx, ContoursOptions const& options) {
  const auto background = static_cast<unsigned char>(options.background);
  std::string const& path = options.mask;
  ctx.subject = path;
  cv::Mat picture = readImage(path, read_as::grey);
  // With a threshold, the pixels above it are the foreground.
  cv::Mat mask = picture;
  unsigned char blank = background;
  if (options.threshold >= 0) {
    mask = picture > options.threshold;
    blank = 0;
  }
  // One background pixel all round, so that regions touching the picture's border are traced
  // whole (the tracer keeps off the outermost pixels).
  cv::Mat padded;
  cv::copyMakeBorder(mask, padded, 1, 1, 1, 1, cv::BORDER_CONSTANT, cv::Scalar(blank));
  cv::Mat labels, stats, centroids;
  cv::connectedComponentsWithStats(padded != blank, labels, stats, centroids, 8, CV_32S);

  quib::ocv::ContourTracer tracer;
  if (!tracer.create(padded)) throw Failure(path, "the picture is empty");
  std::vector<Region> regions;
  std::vector<cv::Point> contour;
  cv::Point position(0, 0);
  Progress progress(ctx, 0);
  while (tracer.search(contour, position, blank)) {
    regions.push_back(measure(contour, labels, stats, centroids));
    Region& r = regions.back();
    for (cv::Point& p : r.contour)
      p -= cv::Point(1, 1);
    r.centroid -= cv::Point2d(1, 1);
    r.box.x -= 1;
    r.box.y -= 1;
    if (regions.size() % 1000 == 0) progress.step(std::to_string(regions.size()) + " regions");
  }
  progress.done();

  Json list = Json::array();
  std::ostream& o = ctx.out;
  if (!ctx.json)
    o << path << ": " << regions.size() << (regions.size() == 1 ? " region" : " regions") << '\n';
  for (std::size_t i = 0; i < regions.size(); ++i) {
    Region const& r = regions[i];
    if (ctx.json) {
      Json pts = Json::array();
      for (cv::Point const& p : r.contour)
        pts.push_back({p.x, p.y});
      list.push_back({{"points", r.contour.size()},
                      {"area", r.area},
                      {"centroid", {r.centroid.x, r.centroid.y}},
                      {"perimeter", r.perimeter},
                      {"box", {r.box.x, r.box.y, r.box.width, r.box.height}},
                      {"holes", r.holes},
                      {"contour", std::move(pts)}});
    } else {
      o << "  " << i + 1 << ": area " << r.area << " px, centroid " << formatShort(r.centroid.x)
        << ',' << formatShort(r.centroid.y) << ", perimeter " << formatShort(r.perimeter)
        << ", box " << r.box.x << ',' << r.box.y << ' ' << r.box.width << 'x' << r.box.height
        << ", " << r.holes << (r.holes == 1 ? " hole" : " holes") << ", " << r.contour.size()
        << " points\n";
    }
  }
  if (ctx.json)
    writeJson(ctx.out,
              {{"file", path}, {"width", mask.cols}, {"height", mask.rows}, {"regions", list}});

  if (!options.out.empty()) {
    cv::Mat overlay;
    cv::cvtColor(picture, overlay, cv::COLOR_GRAY2BGR);
    for (std::size_t i = 0; i < regions.size(); ++i) {
      const cv::Scalar colour(double((i * 97) % 200 + 55), double((i * 57 + 100) % 256), 255.0);
      for (cv::Point const& p : regions[i].contour)
        overlay.at<cv::Vec3b>(p) =
            cv::Vec3b(static_cast<unsigned char>(colour[0]), static_cast<unsigned char>(colour[1]),
                      static_cast<unsigned char>(colour[2]));
    }
    ctx.subject = options.out;
    writeImage(options.out, overlay);
  }
}

}  // namespace

void add_contours_command(CLI::App& quib, Context& ctx) {
  auto o = std::make_shared<ContoursOptions>();
  CLI::App& cmd = addCommand(quib, "contours", paragraphs(R"(
      trace the regions of a mask

      Traces the outer boundary of every region of a mask picture (read as 8-bit grey): a
      region is a set of 8-connected pixels whose value differs from the background (or, with
      --threshold, that are brighter than the threshold). Regions touching the picture's
      border are traced whole. Regions are found in row order; each is listed with its area in
      pixels (its own pixels, holes not counted), the centroid of those pixels, the length of
      its outer boundary (through the boundary pixels' centres, diagonal steps counting sqrt
      2), its bounding box (x, y, width, height), its number of holes and of boundary points.
      Regions that lie inside another one's hole are not listed again. With --json, every
      boundary point too.
)"));
  cmd.add_option("MASK", o->mask, "the mask picture; '-' reads standard input")->required();
  cmd.add_option("--background", o->background, "the background value")
      ->type_name("V")
      ->check(CLI::Range(0, 255))
      ->capture_default_str();
  cmd.add_option("--threshold", o->threshold,
                 "grey pictures: the foreground is every pixel above T (the background value is "
                 "then ignored)")
      ->type_name("T")
      ->check(CLI::Range(0, 254));
  cmd.add_option("--out,--overlay", o->out, "write the mask with the outlines drawn in colour")
      ->type_name("FILE");
  addJsonFlag(cmd, ctx);
  onRun(cmd, ctx, [o, &ctx] { contours(ctx, *o); });
}

}  // namespace quib::tool
