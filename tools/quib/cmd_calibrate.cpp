// quib calibrate --board 9x6 --square 24 IMAGES...: a camera from chessboard views.
#include <quib/calibration.hpp>
#include <quib/projection.hpp>

#include "camera_util.hpp"
#include "commands.hpp"
#include "image_io.hpp"

#include <filesystem>
#include <ostream>

namespace quib::tool {

char const* const calibrateHelp =
    "usage: quib calibrate --board CxR --square S [--out FILE] [--draw DIR] [--json] IMAGES...\n"
    "\n"
    "Calibrates a camera from pictures of a flat chessboard. Each picture gets one line:\n"
    "accepted, with its corner count, or why not. The accepted views are solved for the\n"
    "camera matrix and the lens distortion (k1, k2, p1, p2), which are saved in a camera file\n"
    "and printed with the reprojection error of every view and their root mean square (the\n"
    "distance in pixels between the detected corners and the board projected back through\n"
    "the camera). At least 3 accepted views are needed; 10 or more from varied angles give a\n"
    "good camera. All pictures must have the same size.\n"
    "\n"
    "Options:\n"
    "  --board CxR    inner corners of the board per row and per column, e.g. 9x6\n"
    "  --square S     corner spacing in your length unit, e.g. 24 (or WxH when the squares\n"
    "                 are not square); whole numbers\n"
    "  --out FILE     the camera file to write (default camera.yml; .xml works too)\n"
    "  --draw DIR     write each accepted view with its corners and board outline drawn\n"
    "  --json         print one JSON object\n";

namespace {

// "9x6" as two whole numbers from `low` to `high`; a single number means both.
std::pair<int, int> pairOf(std::string const& option, std::string const& text, bool single,
                           long long low, long long high) {
  const auto x = text.find_first_of("xX");
  long long a = 0, b = 0;
  bool ok = false;
  if (x == std::string::npos) {
    ok = single && parseInteger(text, a);
    b = a;
  } else {
    ok = parseInteger(text.substr(0, x), a) && parseInteger(text.substr(x + 1), b);
  }
  if (!ok || a < low || a > high || b < low || b > high)
    throw UsageError("option '" + option + "' wants " + (single ? "N or " : "") + "WxH with " +
                     std::to_string(low) + " to " + std::to_string(high) + ", not '" + text + "'");
  return {static_cast<int>(a), static_cast<int>(b)};
}

}  // namespace

int runCalibrate(Context& ctx, std::vector<std::string> const& argv) {
  const Args args(argv, {{"--board", true}, {"--square", true}, {"--out", true}, {"--draw", true}});
  if (!args.has("--board")) throw UsageError("--board CxR is required");
  if (!args.has("--square")) throw UsageError("--square S is required");
  const auto board = pairOf("--board", args.value("--board"), false, 2, 100);
  const auto square = pairOf("--square", args.value("--square"), true, 1, 100000);
  auto const& images = args.positional();
  if (images.empty()) throw UsageError("no IMAGES given");
  const std::string out = args.value("--out", "camera.yml");
  const std::string drawDir = args.value("--draw");
  if (!drawDir.empty()) makeDirectory(drawDir);

  quib::Calibration calibration;
  quib::Calibration::Info info(square.first, square.second, board.first, board.second);
  const std::size_t perView = std::size_t(board.first) * std::size_t(board.second);
  struct View {
    std::string file;
    std::string status;
    std::size_t index;  // among the accepted views, or npos
  };
  std::vector<View> views;
  std::vector<std::string> accepted;
  cv::Size size;
  Progress progress(ctx, images.size());
  for (std::string const& path : images) {
    progress.step(path);
    ctx.subject = path;
    View view{path, "", std::string::npos};
    try {
      cv::Mat picture = readImage(path, read_as::colour);
      if (!size.empty() && picture.size() != size) {
        view.status = "size " + std::to_string(picture.cols) + "x" + std::to_string(picture.rows) +
                      " differs from the first picture";
      } else if (calibration.calibration(info, imageOver(picture))) {
        size = picture.size();
        view.index = accepted.size();
        accepted.push_back(path);
        view.status = "accepted (" + std::to_string(perView) + " corners)";
      } else {
        view.status = "board not found";
      }
    } catch (Failure const& f) {
      progress.done();
      ctx.fail(f.file(), f.what());
      view.status = std::string("not read: ") + f.what();
    }
    if (!ctx.json) {
      progress.done();
      ctx.out << view.file << ": " << view.status << '\n';
    }
    views.push_back(view);
  }
  progress.done();

  if (accepted.size() < 3)
    throw Failure(out, "not written: the board was found in " + std::to_string(accepted.size()) +
                           " of " + std::to_string(images.size()) +
                           " pictures; at least 3 views are needed");
  ctx.subject = out;
  double matrix[9], distortion[4], rotation[3], translation[3];
  if (!calibration.get_camera_matrix(info, matrix, distortion, rotation, translation))
    throw Failure(out, "not written: the views could not be solved");
  quib::Projection camera({size.width, size.height}, matrix, distortion, rotation, translation);
  const std::vector<double> errors = reprojectionErrors(info, camera);

  ctx.subject = out;
  quib::Projection check;
  if (!camera.save_setup(out) || !check.load_setup(out))
    throw Failure(out, "the camera file could not be written");

  if (!drawDir.empty()) {
    for (std::size_t v = 0; v < accepted.size(); ++v) {
      ctx.subject = accepted[v];
      // An accumulator holding this view alone, so that the drawing shows it.
      quib::Calibration::Info one(info.square_width, info.square_height, info.columns, info.rows);
      one.corners.assign(info.corners.begin() + long(v * perView),
                         info.corners.begin() + long((v + 1) * perView));
      one.counts.push_back(info.counts[v]);
      one.found.push_back(info.found[v]);
      quib::Projection posed = camera;
      quib::Calibration drawing = calibration;
      cv::Mat picture = readImage(accepted[v], read_as::colour);
      quib::Image image = imageOver(picture);
      drawing.get_chess_extrinsic_parameters(one, posed);
      drawing.draw_calibration(one, posed, image, 0x00FF00u);
      writeImage(outputPath(drawDir, accepted[v], ".png"), picture);
    }
  }

  const double mean = meanError(errors);
  if (ctx.json) {
    Json list = Json::array();
    for (View const& v : views) {
      Json j = Json::object();
      j.set("file", v.file).set("accepted", v.index != std::string::npos).set("status", v.status);
      if (v.index != std::string::npos) j.set("error", errors[v.index]);
      list.push(j);
    }
    Json j = Json::object();
    j.set("camera_file", out)
        .set("width", size.width)
        .set("height", size.height)
        .set("fx", matrix[0])
        .set("fy", matrix[4])
        .set("cx", matrix[2])
        .set("cy", matrix[5])
        .set("k1", distortion[0])
        .set("k2", distortion[1])
        .set("p1", distortion[2])
        .set("p2", distortion[3])
        .set("views", list)
        .set("mean_error", mean);
    j.write(ctx.out);
  } else {
    std::ostream& o = ctx.out;
    o << "camera (" << accepted.size() << " views, " << size.width << 'x' << size.height << ")\n"
      << "  fx " << formatShort(matrix[0], 8) << "  fy " << formatShort(matrix[4], 8) << '\n'
      << "  cx " << formatShort(matrix[2], 8) << "  cy " << formatShort(matrix[5], 8) << '\n'
      << "  k1 " << formatShort(distortion[0]) << "  k2 " << formatShort(distortion[1]) << "  p1 "
      << formatShort(distortion[2]) << "  p2 " << formatShort(distortion[3]) << '\n'
      << "reprojection error (px)\n";
    for (std::size_t v = 0; v < accepted.size(); ++v)
      o << "  " << accepted[v] << "  " << formatShort(errors[v], 4) << '\n';
    o << "  mean  " << formatShort(mean, 4) << '\n' << "camera file: " << out << '\n';
  }
  return ctx.status;
}

}  // namespace quib::tool
