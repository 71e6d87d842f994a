#include <quib/calibration.hpp>
#include <quib/ocv.hpp>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cfloat>
#include <cstdint>

namespace quib {

namespace {

// Corners per view, or 0 when the geometry is not a board.
std::size_t board_corners(Calibration::Info const& info) {
  if (info.columns <= 0 || info.rows <= 0) return 0;
  return static_cast<std::size_t>(info.columns) * static_cast<std::size_t>(info.rows);
}

// True when the views recorded in info fit its geometry: at least one view, one count and
// one result per view, every count a whole board, and exactly that many corners.
bool consistent(Calibration::Info const& info) {
  const std::size_t n = board_corners(info);
  const std::size_t views = info.found.size();
  if (n == 0 || views == 0 || info.counts.size() != views) return false;
  if (info.corners.size() / n != views || info.corners.size() % n != 0) return false;
  return std::all_of(info.counts.begin(), info.counts.end(),
                     [n](int c) { return c >= 0 && static_cast<std::size_t>(c) == n; });
}

cv::Mat corner_view(Calibration::Info const& info, std::size_t first, std::size_t count) {
  return cv::Mat(static_cast<int>(count), 1, CV_32FC2,
                 const_cast<cv::Point_<float>*>(info.corners.data() + first));
}

cv::Mat bgr_view(IplImage* ipl) {
  return cv::Mat(ipl->height, ipl->width, CV_8UC3, ipl->imageData,
                 static_cast<std::size_t>(ipl->widthStep));
}

bool is_bgr24(Image const& image) {
  const color_type color = image.getCoordinator().getColor();
  return !image.empty() && image.getBits() == 24 &&
         (color == color_type::bgr || color == color_type::undetermined) && image.getWidth() > 0 &&
         image.getHeight() > 0 &&
         static_cast<std::int64_t>(image.getWidth()) * 3 <= image.getLineBytes();
}

// Truncates a coordinate to a pixel; clamped so that NaN or huge values never overflow int.
int to_pixel(double v) {
  const double limit = 1 << 24;
  if (!(v > -limit)) return -static_cast<int>(limit);
  if (v > limit) return static_cast<int>(limit);
  return static_cast<int>(v);
}

cv::Point to_point(cv::Point_<float> const& p) {
  return cv::Point(to_pixel(p.x), to_pixel(p.y));
}

// Pose of one w x h patch whose top-left corner is at column x0, row y0 of the last view.
// The patch is taken to span w x h squares, centred on the origin.
struct patch_pose {
  double rotation[3];
  double translation[3];
  std::vector<cv::Point_<float>> outline;
};

patch_pose solve_patch(Calibration::Info const& info, std::size_t base, int w, int h, int x0,
                       int y0, cv::Mat const& matrix, cv::Mat const& distortion) {
  const float W = static_cast<float>(w * info.square_width);
  const float H = static_cast<float>(h * info.square_height);
  const std::vector<cv::Point3d> object = {
      {-W / 2, -H / 2, 0.0}, {W / 2, -H / 2, 0.0}, {W / 2, H / 2, 0.0}, {-W / 2, H / 2, 0.0}};
  const std::size_t columns = static_cast<std::size_t>(info.columns);
  const std::size_t top = base + static_cast<std::size_t>(y0) * columns + x0;
  const std::size_t bottom = base + static_cast<std::size_t>(y0 + h - 1) * columns + x0;
  const std::size_t index[4] = {top, top + (w - 1), bottom + (w - 1), bottom};
  std::vector<cv::Point2d> image(4);
  patch_pose pose;
  for (int k = 0; k < 4; ++k) {
    cv::Point_<float> const& c = info.corners[index[k]];
    image[k] = cv::Point2d(c.x, c.y);
    pose.outline.push_back(c);
  }
  cv::Mat rvec;
  cv::Mat tvec;
  cv::solvePnP(object, image, matrix, distortion, rvec, tvec, false, cv::SOLVEPNP_ITERATIVE);
  for (int k = 0; k < 3; ++k) {
    pose.rotation[k] = rvec.at<double>(k);
    pose.translation[k] = tvec.at<double>(k);
  }
  return pose;
}

}  // namespace

Calibration::Info::Info() : Info(24, 24, 10, 7) {}

Calibration::Info::Info(int sw, int sh, int c, int r)
    : square_width(sw), square_height(sh), columns(c), rows(r) {}

void Calibration::Info::clear() {
  corners.clear();
  counts.clear();
  found.clear();
}

bool Calibration::Info::is() const {
  return !corners.empty() && !counts.empty() && !found.empty();
}

std::vector<cv::Point3f> Calibration::Info::get_object_points() const {
  std::vector<cv::Point3f> points;
  if (board_corners(*this) == 0) return points;
  points.reserve(board_corners(*this));
  const float ox = static_cast<float>(columns - 1) * static_cast<float>(square_width) * -0.5f;
  const float oy = static_cast<float>(rows - 1) * static_cast<float>(square_height) * -0.5f;
  for (int j = 0; j < rows; ++j) {
    for (int i = 0; i < columns; ++i) {
      points.emplace_back(static_cast<float>(square_width) * static_cast<float>(i) + ox,
                          static_cast<float>(square_height) * static_cast<float>(j) + oy, 0.0f);
    }
  }
  return points;
}

bool Calibration::calibration(Info& info, Image const& image) {
  const std::size_t n = board_corners(info);
  if (n == 0) return false;
  // A 24-bit BGR image is searched in its own pixels (nothing writes to them); every other
  // format goes through a BGR copy.
  ocv::unique_ipl bgr;
  cv::Mat view;
  if (is_bgr24(image)) {
    view = image.makeMat(3, 8);
  } else {
    bgr = ocv::make_unique_ipl(ocv::createIpl_bgr2(image));
    if (!bgr) return false;
    view = bgr_view(bgr.get());
  }
  std::vector<cv::Point2f> corners;
  const bool found =
      cv::findChessboardCorners(view, cv::Size(info.columns, info.rows), corners,
                                cv::CALIB_CB_ADAPTIVE_THRESH | cv::CALIB_CB_NORMALIZE_IMAGE);
  if (!found || corners.size() != n) return false;
  cv::Mat grey;
  cv::cvtColor(view, grey, cv::COLOR_BGR2GRAY);
  cv::cornerSubPix(grey, corners, cv::Size(3, 3), cv::Size(-1, -1),
                   cv::TermCriteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 20, 0.03f));
  // Reserve first so that the three vectors grow together or not at all.
  info.corners.reserve(info.corners.size() + n);
  info.counts.reserve(info.counts.size() + 1);
  info.found.reserve(info.found.size() + 1);
  info.corners.insert(info.corners.end(), corners.begin(), corners.end());
  info.counts.push_back(static_cast<int>(corners.size()));
  info.found.push_back(1);
  size = image.getExtent();
  return true;
}

bool Calibration::get_camera_matrix(Info const& info, double (&matrix)[9], double (&distortion)[4],
                                    double (&rotation)[3], double (&translation)[3]) const {
  if (!consistent(info)) return false;
  const std::size_t views = info.found.size();
  const std::size_t n = board_corners(info);
  std::vector<cv::Point3f> board = info.get_object_points();

  // Every view shares one board; each view's corners are a header over the Info's vector.
  std::vector<cv::Mat> objects(views, cv::Mat(board));
  std::vector<cv::Mat> images(views);
  for (std::size_t v = 0; v < views; ++v)
    images[v] = corner_view(info, v * n, n);

  cv::Mat camera = cv::Mat::zeros(3, 3, CV_64F);
  cv::Mat coefficients = cv::Mat::zeros(1, 4, CV_64F);
  // k3 is held at 0: the camera keeps the four coefficients k1, k2, p1, p2.
  cv::calibrateCamera(
      objects, images, cv::Size(size.cx, size.cy), camera, coefficients, cv::noArray(),
      cv::noArray(), cv::CALIB_FIX_K3,
      cv::TermCriteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 30, DBL_EPSILON));
  const cv::Mat k = coefficients.reshape(1, 1).colRange(0, 4).clone();

  // One pose over the points of all views together.
  std::vector<cv::Point3f> all;
  all.reserve(views * n);
  for (std::size_t v = 0; v < views; ++v)
    all.insert(all.end(), board.begin(), board.end());
  cv::Mat rvec;
  cv::Mat tvec;
  cv::solvePnP(all, corner_view(info, 0, views * n), camera, k, rvec, tvec, false,
               cv::SOLVEPNP_ITERATIVE);

  for (int i = 0; i < 9; ++i)
    matrix[i] = camera.at<double>(i / 3, i % 3);
  for (int i = 0; i < 4; ++i)
    distortion[i] = k.at<double>(0, i);
  for (int i = 0; i < 3; ++i) {
    rotation[i] = rvec.at<double>(i);
    translation[i] = tvec.at<double>(i);
  }
  return true;
}

bool Calibration::get_camera_matrix(Info const& info, Projection& projection) const {
  return get_camera_matrix(info, projection.get_matrix_array(), projection.get_distortion_array(),
                           projection.get_rotation_array(), projection.get_translation_array());
}

bool Calibration::get_chess_extrinsic_parameters(Info const& info, double const (&matrix)[9],
                                                 double const (&distortion)[4],
                                                 double (&rotation)[3], double (&translation)[3]) {
  if (!consistent(info)) return false;
  const std::size_t base = (info.found.size() - 1) * board_corners(info);
  const cv::Mat camera(3, 3, CV_64F, const_cast<double*>(matrix));
  const cv::Mat coefficients(1, 4, CV_64F, const_cast<double*>(distortion));

  const bool upright = info.rows >= info.columns;
  const int n = std::min(info.columns, info.rows);
  const int longSide = std::max(info.columns, info.rows);
  const int m = (longSide > 1 && longSide % 2 == 0) ? longSide - 1 : longSide;
  const int offset = (longSide - n) / 2;

  // The long patch from the first corner, then the square patch centred on the long side.
  const patch_pose first = upright ? solve_patch(info, base, n, m, 0, 0, camera, coefficients)
                                   : solve_patch(info, base, m, n, 0, 0, camera, coefficients);
  patch_pose second = upright ? solve_patch(info, base, n, n, 0, offset, camera, coefficients)
                              : solve_patch(info, base, n, n, offset, 0, camera, coefficients);

  if (upright) {
    rotation[0] = first.rotation[0];
    rotation[1] = second.rotation[1];
    rotation[2] = first.rotation[2];
  } else {
    rotation[0] = second.rotation[0];
    rotation[1] = first.rotation[1];
    rotation[2] = second.rotation[2];
  }
  std::copy(std::begin(second.translation), std::end(second.translation), std::begin(translation));
  quad.swap(second.outline);
  return true;
}

bool Calibration::get_chess_extrinsic_parameters(Info const& info, Projection& projection) {
  return get_chess_extrinsic_parameters(
      info, projection.get_matrix_array(), projection.get_distortion_array(),
      projection.get_rotation_array(), projection.get_translation_array());
}

namespace {

bool draw(Calibration::Info const& info, Projection const* projection,
          std::vector<cv::Point_<float>> const& quad, Image& image, unsigned int color) {
  const ocv::unique_ipl bgr = ocv::make_unique_ipl(ocv::createIpl_bgr2(image));
  if (!bgr) return false;
  cv::Mat view = bgr_view(bgr.get());
  if (consistent(info)) {
    const std::size_t n = board_corners(info);
    const std::size_t base = (info.found.size() - 1) * n;
    cv::drawChessboardCorners(view, cv::Size(info.columns, info.rows), corner_view(info, base, n),
                              info.found.back() != 0);
  }
  // Lowest byte first: blue, green, red.
  const cv::Scalar ink(color & 0xffu, (color >> 8) & 0xffu, (color >> 16) & 0xffu, 0);
  if (projection) {
    Projection scaled(*projection);
    scaled.resize(image.getExtent());  // single-precision ratios, as Projection::resize
    const int cx = to_pixel(scaled.get_center_x());
    const int cy = to_pixel(scaled.get_center_y());
    cv::line(view, cv::Point(0, cy), cv::Point(image.getWidth() - 1, cy), ink, 1, cv::LINE_AA, 0);
    cv::line(view, cv::Point(cx, 0), cv::Point(cx, image.getHeight() - 1), ink, 1, cv::LINE_AA, 0);
  }
  for (std::size_t i = 0; i < quad.size(); ++i) {
    const std::size_t next = (i + 1) % quad.size();
    cv::line(view, to_point(quad[i]), to_point(quad[next]), ink, 1, cv::LINE_AA, 0);
  }
  return ocv::copyImage_bgr2(image, bgr.get());
}

}  // namespace

bool Calibration::draw_calibration(Info const& info, Projection const& /*projection*/, Image& image,
                                   unsigned int color) {
  return draw(info, nullptr, quad, image, color);
}

bool Calibration::draw_correction(Info const& info, Projection const& projection, Image& image,
                                  unsigned int color) {
  return draw(info, &projection, quad, image, color);
}

}  // namespace quib
