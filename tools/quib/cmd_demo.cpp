// quib demo: the measurement road end to end on pictures made at run time.
#include <quib/calibration.hpp>
#include <quib/fit.hpp>
#include <quib/projection.hpp>

#include "board_render.hpp"
#include "camera_util.hpp"
#include "commands.hpp"
#include "image_io.hpp"

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <memory>
#include <ostream>

namespace quib::tool {

namespace {

using P2 = Eigen::Matrix<double, 2, 1>;
using P3 = Eigen::Matrix<double, 3, 1>;

// Board (X, Y) of a normalised image point, for the pose (r, t) of the board plane z = 0.
cv::Point2d onBoard(cv::Matx33d const& r, cv::Vec3d const& t, cv::Point2d const& n) {
  const cv::Matx33d h(r(0, 0), r(0, 1), t[0], r(1, 0), r(1, 1), t[1], r(2, 0), r(2, 1), t[2]);
  const cv::Vec3d b = h.inv() * cv::Vec3d(n.x, n.y, 1);
  return {b[0] / b[2], b[1] / b[2]};
}

// Sub-pixel points on the edge of a dark disc around `centre`: along rays, where the grey
// level first rises through the middle between the disc and the paper.
std::vector<cv::Point2f> discEdge(cv::Mat const& grey, cv::Point2d centre, double reach) {
  std::vector<cv::Point2f> edge;
  const double level = 0.5 * (20 + 250);
  for (int k = 0; k < 72; ++k) {
    const double a = 2 * M_PI * k / 72;
    const cv::Point2d dir(std::cos(a), std::sin(a));
    double prev = -1;
    for (double s = 0; s < reach; s += 0.25) {
      const cv::Point2d p = centre + dir * s;
      const int x = static_cast<int>(std::floor(p.x)), y = static_cast<int>(std::floor(p.y));
      if (x < 0 || y < 0 || x + 1 >= grey.cols || y + 1 >= grey.rows) break;
      const double fx = p.x - x, fy = p.y - y;
      const double v = (1 - fy) * ((1 - fx) * grey.at<unsigned char>(y, x) +
                                   fx * grey.at<unsigned char>(y, x + 1)) +
                       fy * ((1 - fx) * grey.at<unsigned char>(y + 1, x) +
                             fx * grey.at<unsigned char>(y + 1, x + 1));
      if (prev >= 0 && prev < level && v >= level) {
        const double back = (v - level) / (v - prev) * 0.25;
        const cv::Point2d q = p - dir * back;
        edge.emplace_back(static_cast<float>(q.x), static_cast<float>(q.y));
        break;
      }
      prev = v;
    }
  }
  return edge;
}

double degrees(double radians) {
  return radians * 180 / M_PI;
}

void demo(Context& ctx, std::string const& outDir) {
  const auto started = std::chrono::steady_clock::now();
  const std::string dir =
      outDir.empty() ? (std::filesystem::temp_directory_path() / "quib-demo").string() : outDir;
  makeDirectory(dir);
  ctx.subject = dir;

  // The true camera: 640 x 480, barrel distortion, the principal point a little off centre.
  Lens lens;
  lens.size = cv::Size(640, 480);
  lens.matrix = cv::Matx33d(560, 0, 326.5, 0, 558, 237.25, 0, 0, 1);
  lens.distortion = cv::Vec4d(-0.28, 0.11, 0.0012, -0.0009);
  Board board;  // 9 x 6 inner corners, 24 mm apart
  board.discRadius = 18;
  board.discX = 0;
  board.discY = (board.rows + 1) * 0.5 * board.square + board.square + board.discRadius + 6;
  const BoardRenderer renderer(lens, board);

  // Twelve poses: the board tilted up to about 35 degrees, 370 to 430 mm away.
  std::vector<std::pair<cv::Vec3d, cv::Vec3d>> poses;
  for (int i = 0; i < 12; ++i) {
    const double ax = 0.45 * std::sin(i * 1.7), ay = 0.5 * std::cos(i * 2.3),
                 az = 0.2 * std::sin(i);
    const cv::Vec3d t(45 * std::sin(i * 0.9), 25 * std::cos(i * 1.3) - 12, 370 + 12 * (i % 6));
    poses.emplace_back(cv::Vec3d(ax, ay, az), t);
  }

  quib::Calibration calibration;
  quib::Calibration::Info info(int(board.square), int(board.square), board.columns, board.rows);
  std::vector<std::string> written;
  std::vector<cv::Mat> pictures;
  std::vector<std::size_t> acceptedViews;
  Progress progress(ctx, poses.size());
  for (std::size_t i = 0; i < poses.size(); ++i) {
    progress.step("view " + std::to_string(i + 1));
    cv::Mat grey = renderer.render(poses[i].first, poses[i].second);
    cv::Mat bgr;
    cv::cvtColor(grey, bgr, cv::COLOR_GRAY2BGR);
    const std::string file =
        (std::filesystem::path(dir) / ("view" + std::to_string(i + 1) + ".png")).string();
    writeImage(file, bgr);
    written.push_back(file);
    if (calibration.calibration(info, imageOver(bgr))) acceptedViews.push_back(i);
    pictures.push_back(grey);
  }
  progress.done();
  const std::size_t views = info.found.size();
  if (views < 3) throw Failure(dir, "the board was found in too few views");

  double matrix[9], distortion[4], rotation[3], translation[3];
  if (!calibration.get_camera_matrix(info, matrix, distortion, rotation, translation))
    throw Failure(dir, "calibration did not solve");
  const quib::Projection solved({lens.size.width, lens.size.height}, matrix, distortion, rotation,
                                translation);
  const std::string cameraFile = (std::filesystem::path(dir) / "camera.yml").string();
  quib::Projection camera;
  if (!solved.save_setup(cameraFile) || !camera.load_setup(cameraFile))
    throw Failure(cameraFile, "the camera file did not survive saving and loading");
  const std::vector<double> errors = calibration.get_reprojection_errors(info, camera);

  cv::Mat corrected;
  camera.undistort(pictures[0], corrected);
  const std::string correctedFile = (std::filesystem::path(dir) / "view1-undistorted.png").string();
  writeImage(correctedFile, corrected);

  // Measurements in the last view that shows the board, through the recovered camera.
  const std::size_t last = acceptedViews.back();
  const std::size_t perView = std::size_t(board.columns) * std::size_t(board.rows);
  const std::size_t lastAccepted = views - 1;
  const std::vector<cv::Point2f> corners(info.corners.begin() + long(lastAccepted * perView),
                                         info.corners.begin() + long((lastAccepted + 1) * perView));
  const std::vector<cv::Point3f> object = info.get_object_points();
  cv::Vec3d rvec, tvec;
  cv::solvePnP(object, corners, camera.get_matrix_cv(), camera.get_distortion_cv(), rvec, tvec);
  cv::Matx33d r;
  cv::Rodrigues(rvec, r);

  // The board's plane in camera coordinates, fitted to its corners placed by the pose.
  std::vector<P3> boardCam;
  for (cv::Point3f const& p : object) {
    const cv::Vec3d c = r * cv::Vec3d(p.x, p.y, p.z) + tvec;
    boardCam.emplace_back(c[0], c[1], c[2]);
  }
  const quib::LeastSquaresPlane plane(boardCam);
  cv::Matx33d trueR;
  cv::Rodrigues(poses[last].first, trueR);
  const cv::Vec3d trueNormal(trueR(0, 2), trueR(1, 2), trueR(2, 2));
  const cv::Vec3d fitNormal(plane.x(), plane.y(), plane.z());
  const double cosAngle = std::fabs(trueNormal.dot(fitNormal)) / cv::norm(fitNormal);
  const double tilt = degrees(std::acos(std::min(1.0, cosAngle)));
  const double trueDistance = std::fabs(trueNormal.dot(poses[last].second));
  const double fitDistance = std::fabs(plane.d());

  // The disc: its edge found in the distorted picture, undistorted, placed on the board.
  std::vector<cv::Point2f> centreImage;
  cv::projectPoints(std::vector<cv::Point3f>{{float(board.discX), float(board.discY), 0.f}}, rvec,
                    tvec, camera.get_matrix_cv(), camera.get_distortion_cv(), centreImage);
  const std::vector<cv::Point2f> edge =
      discEdge(pictures[last], centreImage[0], 4 * board.discRadius * matrix[0] / tvec[2]);
  std::vector<cv::Point2f> normalised;
  camera.undistort(edge, normalised);
  std::vector<P2> discPoints;
  for (cv::Point2f const& n : normalised) {
    const cv::Point2d b = onBoard(r, tvec, {n.x, n.y});
    discPoints.emplace_back(b.x, b.y);
  }
  const auto circle = quib::LeastSquaresCircle::create(discPoints, 3.0);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

  const double truth[8] = {lens.matrix(0, 0),  lens.matrix(1, 1),  lens.matrix(0, 2),
                           lens.matrix(1, 2),  lens.distortion[0], lens.distortion[1],
                           lens.distortion[2], lens.distortion[3]};
  const double found[8] = {camera.get_focal_x(),       camera.get_focal_y(),
                           camera.get_center_x(),      camera.get_center_y(),
                           camera.get_distortion_k1(), camera.get_distortion_k2(),
                           camera.get_distortion_p1(), camera.get_distortion_p2()};
  char const* const names[8] = {"fx", "fy", "cx", "cy", "k1", "k2", "p1", "p2"};
  const double mean = meanError(errors);

  if (ctx.json) {
    Json cam = Json::object();
    for (int i = 0; i < 8; ++i)
      cam[names[i]] = {{"true", truth[i]}, {"recovered", found[i]}};
    const Json disc = {{"edge_points", edge.size()},
                       {"true_radius", board.discRadius},
                       {"radius", circle.r()},
                       {"true_centre", {board.discX, board.discY}},
                       {"centre", {circle.x(), circle.y()}}};
    const Json plane = {
        {"normal_error_degrees", tilt}, {"true_distance", trueDistance}, {"distance", fitDistance}};
    const Json files = {{"directory", dir},
                        {"views", written},
                        {"camera_file", cameraFile},
                        {"undistorted", correctedFile}};
    writeJson(ctx.out, {{"views", poses.size()},
                        {"accepted", views},
                        {"camera", cam},
                        {"view_errors", errors},
                        {"mean_error", mean},
                        {"disc", disc},
                        {"plane", plane},
                        {"files", files},
                        {"seconds", seconds}});
    return;
  }
  std::ostream& o = ctx.out;
  o << "quib demo: " << poses.size() << " synthetic chessboard views (9x6 corners, 24 mm), "
    << views << " accepted\n\n"
    << "camera        true         recovered    error\n";
  for (int i = 0; i < 8; ++i) {
    std::string a = formatShort(truth[i], 6), b = formatShort(found[i], 6);
    a.resize(std::max<std::size_t>(a.size(), 12), ' ');
    b.resize(std::max<std::size_t>(b.size(), 12), ' ');
    o << "  " << names[i] << "          " << a << ' ' << b << ' '
      << formatShort(found[i] - truth[i], 3) << '\n';
  }
  o << "\nreprojection error: " << formatShort(mean, 3) << " px (root mean square over " << views
    << " views; worst view " << formatShort(*std::max_element(errors.begin(), errors.end()), 3)
    << " px)\n"
    << "disc (circle fit of " << edge.size() << " edge points): radius "
    << formatShort(circle.r(), 5) << " mm (true " << formatShort(board.discRadius) << "), centre "
    << formatShort(circle.x(), 4) << ", " << formatShort(circle.y(), 4) << " mm (true "
    << formatShort(board.discX) << ", " << formatShort(board.discY) << ")\n"
    << "board plane (plane fit of " << boardCam.size() << " corners): normal off by "
    << formatShort(tilt, 3) << " degrees, distance " << formatShort(fitDistance, 5) << " mm (true "
    << formatShort(trueDistance, 5) << ")\n\n"
    << "pictures and camera file in " << dir << ":\n"
    << "  view1.png ... view" << poses.size() << ".png, camera.yml, view1-undistorted.png\n"
    << "done in " << formatShort(seconds, 3) << " s\n";
}

}  // namespace

void add_demo_command(CLI::App& quib, Context& ctx) {
  auto dir = std::make_shared<std::string>();
  CLI::App& cmd = addCommand(quib, "demo", paragraphs(R"(
      calibrate and measure on synthetic views, end to end

      Shows the measurement road end to end without any data files: renders chessboard views
      through a known camera with lens distortion, calibrates from them, saves and reloads the
      camera file, removes the distortion from a view, and measures a printed disc (circle
      fit) and the board's plane (plane fit) through the recovered camera. It prints the true
      against the recovered camera, the errors, and where it wrote its pictures.
)"));
  cmd.add_option("--out", *dir,
                 "where to write the views, the camera file and the corrected view (default: "
                 "quib-demo in the temporary directory)")
      ->type_name("DIR");
  addJsonFlag(cmd, ctx);
  onRun(cmd, ctx, [dir, &ctx] { demo(ctx, *dir); });
}

}  // namespace quib::tool
