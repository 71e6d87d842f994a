// quib contours MASK: the outlines of the regions of an 8-bit mask.
#include <quib/contour.hpp>

#include "commands.hpp"
#include "image_io.hpp"

#include <opencv2/imgproc.hpp>

#include <memory>
#include <ostream>

namespace quib::tool {

namespace {

struct ContoursOptions {
  std::string mask;
  std::string out;
  int background = 0;
};

void contours(Context& ctx, ContoursOptions const& options) {
  const auto background = static_cast<unsigned char>(options.background);
  std::string const& path = options.mask;
  ctx.subject = path;
  cv::Mat mask = readImage(path, read_as::grey);

  quib::ocv::ContourTracer tracer;
  if (!tracer.create(mask)) throw Failure(path, "the picture is empty");
  std::vector<std::vector<cv::Point>> contours;
  std::vector<cv::Point> contour;
  cv::Point position(0, 0);
  Progress progress(ctx, 0);
  while (tracer.search(contour, position, background)) {
    contours.push_back(contour);
    if (contours.size() % 1000 == 0) progress.step(std::to_string(contours.size()) + " regions");
  }
  progress.done();

  Json list = Json::array();
  std::ostream& o = ctx.out;
  if (!ctx.json)
    o << path << ": " << contours.size() << (contours.size() == 1 ? " region" : " regions") << '\n';
  for (std::size_t i = 0; i < contours.size(); ++i) {
    auto const& c = contours[i];
    const cv::Rect box = cv::boundingRect(c);
    const double area = cv::contourArea(c);
    if (ctx.json) {
      Json pts = Json::array();
      for (cv::Point const& p : c)
        pts.push_back({p.x, p.y});
      list.push_back({{"points", c.size()},
                      {"area", area},
                      {"box", {box.x, box.y, box.width, box.height}},
                      {"contour", std::move(pts)}});
    } else {
      o << "  " << i + 1 << ": " << c.size() << " points, area " << formatShort(area) << ", box "
        << box.x << ',' << box.y << ' ' << box.width << 'x' << box.height << '\n';
    }
  }
  if (ctx.json)
    writeJson(ctx.out,
              {{"file", path}, {"width", mask.cols}, {"height", mask.rows}, {"regions", list}});

  if (!options.out.empty()) {
    cv::Mat overlay;
    cv::cvtColor(mask, overlay, cv::COLOR_GRAY2BGR);
    for (std::size_t i = 0; i < contours.size(); ++i) {
      const cv::Scalar colour(double((i * 97) % 200 + 55), double((i * 57 + 100) % 256), 255.0);
      for (cv::Point const& p : contours[i])
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
  CLI::App& cmd = addCommand(
      quib, "contours",
      "trace the regions of a mask\n\n"
      "Traces the outer boundary of every region of a mask picture (read as 8-bit grey): a "
      "region is a set of 8-connected pixels whose value differs from the background. Regions "
      "are found in row order; each is listed with its number of boundary points, the area "
      "enclosed by its boundary polygon and its bounding box (x, y, width, height). Regions "
      "that lie inside another one are not listed again. With --json, every boundary point "
      "too.");
  cmd.add_option("MASK", o->mask, "the mask picture; '-' reads standard input")->required();
  cmd.add_option("--background", o->background, "the background value")
      ->type_name("V")
      ->check(CLI::Range(0, 255))
      ->capture_default_str();
  cmd.add_option("--out,--overlay", o->out, "write the mask with the outlines drawn in colour")
      ->type_name("FILE");
  addJsonFlag(cmd, ctx);
  onRun(cmd, ctx, [o, &ctx] { contours(ctx, *o); });
}

}  // namespace quib::tool
