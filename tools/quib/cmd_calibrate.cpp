// quib calibrate --board 9x6 --square 24 IMAGES...: a camera from chessboard views;
// quib calibrate --compare A.yml B.yml: how far two cameras image the same ray apart.
#include <quib/calibration.hpp>
#include <quib/projection.hpp>

#include "camera_util.hpp"
#include "commands.hpp"
#include "image_io.hpp"

#include <cmath>
#include <filesystem>
#include <memory>
#include <ostream>

namespace quib::tool {

namespace {

struct CalibrateOptions {
  std::vector<std::string> images;
  std::string board;
  std::string square;
  std::string out = "camera.yml";
  std::string draw;
  std::string residuals;
  std::string coverage;
  std::vector<std::string> compare;
};

// Residual arrows are drawn this many times their length.
constexpr double residualMagnification = 100;

// The projection difference of the second camera against the first over a 32x24 grid.
void compareCameras(Context& ctx, std::string const& first, std::string const& second) {
  ctx.subject = first;
  const quib::Projection a = loadCamera(first);
  ctx.subject = second;
  const quib::Projection b = loadCamera(second);
  quib::Projection::Difference d;
  if (!a.get_difference(b, d)) throw Failure(second, "cannot be compared with " + first);
  // Where the largest shift is, among the samples a ray reaches.
  cv::Point2d at(NAN, NAN);
  double largest = -1;
  for (std::size_t i = 0; i < d.shifts.size(); ++i) {
    const double length = cv::norm(d.shifts[i]);
    if (length > largest) {
      largest = length;
      at = d.points[i];
    }
  }
  if (ctx.json) {
    writeJson(ctx.out, {{"first", first},
                        {"second", second},
                        {"columns", d.columns},
                        {"rows", d.rows},
                        {"max", d.max},
                        {"max_at", {at.x, at.y}},
                        {"rms", d.rms},
                        {"mean", d.mean},
                        {"unreached", d.unreached}});
  } else {
    ctx.out << "projection difference of " << second << " against " << first << " (px, "
            << d.columns << 'x' << d.rows << " samples)\n"
            << "  max   " << formatShort(d.max, 4) << " at (" << formatShort(at.x, 5) << ", "
            << formatShort(at.y, 5) << ")\n"
            << "  rms   " << formatShort(d.rms, 4) << '\n'
            << "  mean  " << formatShort(d.mean, 4) << '\n';
    if (d.unreached > 0)
      ctx.out << "  " << d.unreached << " samples left out: no ray of " << first
              << " reaches them (its distortion folds over before them)\n";
  }
}

void calibrate(Context& ctx, CalibrateOptions const& o) {
  if (!o.compare.empty()) {
    if (!o.images.empty() || !o.board.empty() || !o.square.empty())
      throw UsageError("--compare takes two camera files and no pictures, --board or --square");
    compareCameras(ctx, o.compare[0], o.compare[1]);
    return;
  }
  if (o.board.empty()) throw UsageError("--board is required");
  if (o.square.empty()) throw UsageError("--square is required");
  if (o.images.empty()) throw UsageError("IMAGES is required");
  const auto board = parseSizePair(o.board);
  const auto square = parseSizePair(o.square);
  auto const& images = o.images;
  std::string const& out = o.out;
  std::string const& drawDir = o.draw;
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
  // The whole record: the camera (as get_camera_matrix gives it), its standard deviations and
  // every view's pose.
  quib::Calibration::Data data;
  if (!calibration.get_camera_data(info, data))
    throw Failure(out, "not written: the views could not be solved");
  double const(&matrix)[9] = data.matrix;
  double const(&distortion)[4] = data.distortion;
  double const(&rotation)[3] = data.rotation;
  double const(&translation)[3] = data.translation;
  quib::Projection camera({size.width, size.height}, matrix, distortion, rotation, translation);
  const std::vector<double> errors = calibration.get_reprojection_errors(info, camera);

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
      if (drawing.get_chess_extrinsic_parameters(one, posed))
        static_cast<void>(drawing.draw_calibration(one, posed, image, 0x00FF00u));
      writeImage(outputPath(drawDir, accepted[v], ".png"), picture);
    }
  }

  if (!o.residuals.empty() || !o.coverage.empty()) {
    // Both pictures over the first accepted view.
    ctx.subject = accepted.front();
    const cv::Mat first = readImage(accepted.front(), read_as::colour);
    if (!o.residuals.empty()) {
      ctx.subject = o.residuals;
      cv::Mat picture = first.clone();
      quib::Image image = imageOver(picture);
      if (!calibration.draw_residuals(info, data, image, residualMagnification, 0x0000FFu))
        throw Failure(o.residuals, "the residuals could not be drawn");
      writeImage(o.residuals, picture);
    }
    if (!o.coverage.empty()) {
      ctx.subject = o.coverage;
      cv::Mat picture = first.clone();
      quib::Image image = imageOver(picture);
      if (!calibration.draw_coverage(info, image, 0x00FF00u))
        throw Failure(o.coverage, "the coverage could not be drawn");
      writeImage(o.coverage, picture);
    }
  }

  const double mean = meanError(errors);
  if (ctx.json) {
    Json list = Json::array();
    for (View const& v : views) {
      Json j = {{"file", v.file}, {"accepted", v.index != std::string::npos}, {"status", v.status}};
      if (v.index != std::string::npos) {
        quib::Calibration::View const& seen = data.views[v.index];
        j["error"] = errors[v.index];
        j["rotation"] = {seen.rotation[0], seen.rotation[1], seen.rotation[2]};
        j["translation"] = {seen.translation[0], seen.translation[1], seen.translation[2]};
      }
      list.push_back(std::move(j));
    }
    writeJson(ctx.out, {{"camera_file", out},
                        {"width", size.width},
                        {"height", size.height},
                        {"fx", matrix[0]},
                        {"fy", matrix[4]},
                        {"cx", matrix[2]},
                        {"cy", matrix[5]},
                        {"k1", distortion[0]},
                        {"k2", distortion[1]},
                        {"p1", distortion[2]},
                        {"p2", distortion[3]},
                        {"deviations",
                         {{"fx", data.matrix_deviation[0]},
                          {"fy", data.matrix_deviation[1]},
                          {"cx", data.matrix_deviation[2]},
                          {"cy", data.matrix_deviation[3]},
                          {"k1", data.distortion_deviation[0]},
                          {"k2", data.distortion_deviation[1]},
                          {"p1", data.distortion_deviation[2]},
                          {"p2", data.distortion_deviation[3]}}},
                        {"views", list},
                        {"mean_error", mean},
                        {"rms_error", data.error}});
  } else {
    std::ostream& o = ctx.out;
    auto pm = [&](double value, double deviation, int digits) {
      return formatShort(value, digits) + " +- " + formatShort(deviation, 3);
    };
    o << "camera (" << accepted.size() << " views, " << size.width << 'x' << size.height << ")\n"
      << "  fx " << pm(matrix[0], data.matrix_deviation[0], 8) << "  fy "
      << pm(matrix[4], data.matrix_deviation[1], 8) << '\n'
      << "  cx " << pm(matrix[2], data.matrix_deviation[2], 8) << "  cy "
      << pm(matrix[5], data.matrix_deviation[3], 8) << '\n'
      << "  k1 " << pm(distortion[0], data.distortion_deviation[0], 6) << "  k2 "
      << pm(distortion[1], data.distortion_deviation[1], 6) << '\n'
      << "  p1 " << pm(distortion[2], data.distortion_deviation[2], 6) << "  p2 "
      << pm(distortion[3], data.distortion_deviation[3], 6) << '\n'
      << "reprojection error (px)\n";
    for (std::size_t v = 0; v < accepted.size(); ++v)
      o << "  " << accepted[v] << "  " << formatShort(errors[v], 4) << '\n';
    o << "  mean  " << formatShort(mean, 4) << '\n' << "camera file: " << out << '\n';
  }
}

}  // namespace

void add_calibrate_command(CLI::App& quib, Context& ctx) {
  auto o = std::make_shared<CalibrateOptions>();
  CLI::App& cmd = addCommand(quib, "calibrate", paragraphs(R"(
      calibrate a camera from chessboard pictures

      Calibrates a camera from pictures of a flat chessboard. Each picture gets one line:
      accepted, with its corner count, or why not. The accepted views are solved for the
      camera matrix and the lens distortion (k1, k2, p1, p2), which are saved in a camera file
      and printed with their standard deviations (from the solver, as OpenCV's
      calibrateCameraExtended gives them) and the reprojection error of every view and their
      root mean square (the distance in pixels between the detected corners and the board
      projected back through the camera); --json adds each view's pose. At least 3 accepted
      views are needed; 10 or more from varied angles give a good camera. All pictures must
      have the same size.

      With --compare A.yml B.yml and no pictures, prints how far apart the two cameras image
      the same ray across the image: the largest displacement (and where), the root mean
      square and the mean, in pixels of A, over a 32x24 grid; the poses take no part.
)"));
  CLI::Option* images =
      cmd.add_option("IMAGES", o->images, "the chessboard pictures; '-' reads standard input");
  cmd.add_option("--board", o->board,
                 "inner corners of the board per row and per column, e.g. 9x6 (required unless "
                 "--compare)")
      ->type_name("CxR")
      ->check(sizePair(false, 2, 100));
  cmd.add_option("--square", o->square,
                 "corner spacing in your length unit, e.g. 24 (or WxH when the squares are not "
                 "square); whole numbers (required unless --compare)")
      ->type_name("S")
      ->check(sizePair(true, 1, 100000));
  cmd.add_option("--out", o->out, "the camera file to write (.yml or .xml)")
      ->type_name("FILE")
      ->capture_default_str();
  cmd.add_option("--draw", o->draw,
                 "write each accepted view with its corners and board outline drawn")
      ->type_name("DIR");
  cmd.add_option("--residuals", o->residuals,
                 "write the first view with every corner's reprojection error of every view as an "
                 "arrow, magnified 100 times")
      ->type_name("PNG");
  cmd.add_option("--coverage", o->coverage,
                 "write the first view with every detected corner and board outline of every view")
      ->type_name("PNG");
  cmd.add_option("--compare", o->compare,
                 "compare two camera files instead of calibrating: the projection difference of "
                 "B against A")
      ->type_name("A B")
      ->expected(2)
      ->excludes(images);
  addJsonFlag(cmd, ctx);
  onRun(cmd, ctx, [o, &ctx] { calibrate(ctx, *o); });
}

}  // namespace quib::tool
