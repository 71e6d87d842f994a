// quib contours MASK: the outlines of the regions of an 8-bit mask.
#include <quib/contour.hpp>

#include "commands.hpp"
#include "image_io.hpp"

#include <opencv2/imgproc.hpp>

#include <ostream>

namespace quib::tool {

char const* const contoursHelp =
    "usage: quib contours [--background V] [--overlay OUT] [--json] MASK\n"
    "\n"
    "Traces the outer boundary of every region of a mask picture (read as 8-bit grey):\n"
    "a region is a set of 8-connected pixels whose value differs from the background.\n"
    "Regions are found in row order; each is listed with its number of boundary points,\n"
    "the area enclosed by its boundary polygon and its bounding box (x, y, width, height).\n"
    "Regions that lie inside another one are not listed again.\n"
    "\n"
    "Options:\n"
    "  --background V   the background value, 0 to 255 (default 0)\n"
    "  --overlay OUT    write the mask with the outlines drawn in colour\n"
    "  --json           print JSON, with every boundary point\n";

int runContours(Context& ctx, std::vector<std::string> const& argv) {
  const Args args(argv, {{"--background", true}, {"--overlay", true}});
  if (args.positional().size() != 1) throw UsageError("wants exactly one MASK");
  const auto background = static_cast<unsigned char>(args.integer("--background", 0, 0, 255));
  std::string const& path = args.positional()[0];
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
        pts.push(Json::numbers({double(p.x), double(p.y)}));
      Json j = Json::object();
      j.set("points", c.size())
          .set("area", area)
          .set("box",
               Json::numbers({double(box.x), double(box.y), double(box.width), double(box.height)}))
          .set("contour", pts);
      list.push(j);
    } else {
      o << "  " << i + 1 << ": " << c.size() << " points, area " << formatShort(area) << ", box "
        << box.x << ',' << box.y << ' ' << box.width << 'x' << box.height << '\n';
    }
  }
  if (ctx.json) {
    Json j = Json::object();
    j.set("file", path).set("width", mask.cols).set("height", mask.rows).set("regions", list);
    j.write(ctx.out);
  }

  if (args.has("--overlay")) {
    cv::Mat overlay;
    cv::cvtColor(mask, overlay, cv::COLOR_GRAY2BGR);
    for (std::size_t i = 0; i < contours.size(); ++i) {
      const cv::Scalar colour(double((i * 97) % 200 + 55), double((i * 57 + 100) % 256), 255.0);
      for (cv::Point const& p : contours[i])
        overlay.at<cv::Vec3b>(p) =
            cv::Vec3b(static_cast<unsigned char>(colour[0]), static_cast<unsigned char>(colour[1]),
                      static_cast<unsigned char>(colour[2]));
    }
    ctx.subject = args.value("--overlay");
    writeImage(args.value("--overlay"), overlay);
  }
  return exit_code::ok;
}

}  // namespace quib::tool
