#include <quib/calibration.hpp>
#include <quib/ocv.hpp>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <utility>

namespace quib {

namespace {

// A real spacing that can stand for a square: positive and finite.
bool real_spacing(double v) {
  return v > 0 && v <= 1e12;
}

// The nearest whole number of a spacing, 0 for one that is not a spacing.
int whole(double v) {
  return real_spacing(v) && v < 2e9 ? static_cast<int>(std::lround(v)) : 0;
}

// Corners per view, or 0 when the geometry is not a board.
std::size_t board_corners(Calibration::Info const& info) {
  if (info.columns <= 0 || info.rows <= 0) return 0;
  return static_cast<std::size_t>(info.columns) * static_cast<std::size_t>(info.rows);
}

// True when the views recorded in info fit its geometry: at least one view, one count and
// one result per view, every count a whole board, and exactly that many corners.
bool consistent(Calibration::Info const& info) {
  const std::size_t n = board_corners(info);
  if (!real_spacing(info.get_square_width()) || !real_spacing(info.get_square_height())) {
    return false;
  }
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

// The RMS distance between projected points and the detected corners (an N x 1 CV_32FC2 view).
double rms_distance(std::vector<cv::Point2f> const& projected, cv::Mat const& seen) {
  double sum = 0;
  for (std::size_t i = 0; i < projected.size(); ++i) {
    const cv::Point2f e = projected[i] - seen.at<cv::Point2f>(static_cast<int>(i));
    sum += static_cast<double>(e.x) * e.x + static_cast<double>(e.y) * e.y;
  }
  return projected.empty() ? 0.0 : std::sqrt(sum / static_cast<double>(projected.size()));
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
  double const limit = 1 << 24;
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
  float const W = static_cast<float>(w * info.get_square_width());
  float const H = static_cast<float>(h * info.get_square_height());
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

Calibration::Info::Info(double sw, double sh, int c, int r)
    : square_width(whole(sw)), square_height(whole(sh)), columns(c), rows(r) {
  if (real_spacing(sw) && real_spacing(sh)) {
    real_square_width = sw;
    real_square_height = sh;
  }
}

double Calibration::Info::get_square_width() const {
  return real_square_width > 0 ? real_square_width : square_width;
}

double Calibration::Info::get_square_height() const {
  return real_square_height > 0 ? real_square_height : square_height;
}

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
  float const sw = static_cast<float>(get_square_width());
  float const sh = static_cast<float>(get_square_height());
  float const ox = static_cast<float>(columns - 1) * sw * -0.5f;
  float const oy = static_cast<float>(rows - 1) * sh * -0.5f;
  for (int j = 0; j < rows; ++j) {
    for (int i = 0; i < columns; ++i)
      points.emplace_back(sw * static_cast<float>(i) + ox, sh * static_cast<float>(j) + oy, 0.0f);
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
  bool const found =
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
  size_ = image.getExtent();
  return true;
}

namespace {

// The views of an Info as the solvers take them: every view shares one board; each view's
// corners are a header over the Info's vector.
struct view_set {
  std::vector<cv::Point3f> board;
  std::vector<cv::Mat> objects;
  std::vector<cv::Mat> images;
  explicit view_set(Calibration::Info const& info) : board(info.get_object_points()) {
    const std::size_t views = info.found.size();
    const std::size_t n = board.size();
    objects.assign(views, cv::Mat(board));
    images.resize(views);
    for (std::size_t v = 0; v < views; ++v)
      images[v] = corner_view(info, v * n, n);
  }
};

const cv::TermCriteria kSolverStop(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 30,
                                   DBL_EPSILON);

// One pose over the points of all views together, for the solved camera.
void one_pose(Calibration::Info const& info, view_set const& set, cv::Mat const& camera,
              cv::Mat const& k, double (&rotation)[3], double (&translation)[3]) {
  const std::size_t views = info.found.size();
  std::vector<cv::Point3f> all;
  all.reserve(views * set.board.size());
  for (std::size_t v = 0; v < views; ++v)
    all.insert(all.end(), set.board.begin(), set.board.end());
  cv::Mat rvec;
  cv::Mat tvec;
  cv::solvePnP(all, corner_view(info, 0, views * set.board.size()), camera, k, rvec, tvec, false,
               cv::SOLVEPNP_ITERATIVE);
  for (int i = 0; i < 3; ++i) {
    rotation[i] = rvec.at<double>(i);
    translation[i] = tvec.at<double>(i);
  }
}

void copy_intrinsics(cv::Mat const& camera, cv::Mat const& k, double (&matrix)[9],
                     double (&distortion)[4]) {
  for (int i = 0; i < 9; ++i)
    matrix[i] = camera.at<double>(i / 3, i % 3);
  for (int i = 0; i < 4; ++i)
    distortion[i] = k.at<double>(0, i);
}

}  // namespace

bool Calibration::get_camera_matrix(Info const& info, double (&matrix)[9], double (&distortion)[4],
                                    double (&rotation)[3], double (&translation)[3]) const {
  if (!consistent(info)) return false;
  const view_set set(info);
  cv::Mat camera = cv::Mat::zeros(3, 3, CV_64F);
  cv::Mat coefficients = cv::Mat::zeros(1, 4, CV_64F);
  // k3 is held at 0: the camera keeps the four coefficients k1, k2, p1, p2.
  cv::calibrateCamera(set.objects, set.images, cv::Size(size_.cx, size_.cy), camera, coefficients,
                      cv::noArray(), cv::noArray(), cv::CALIB_FIX_K3, kSolverStop);
  const cv::Mat k = coefficients.reshape(1, 1).colRange(0, 4).clone();
  double r[3];
  double t[3];
  one_pose(info, set, camera, k, r, t);
  copy_intrinsics(camera, k, matrix, distortion);
  std::copy(r, r + 3, rotation);
  std::copy(t, t + 3, translation);
  return true;
}

bool Calibration::get_camera_data(Info const& info, Data& data) const {
  if (!consistent(info)) return false;
  const view_set set(info);
  cv::Mat camera = cv::Mat::zeros(3, 3, CV_64F);
  cv::Mat coefficients = cv::Mat::zeros(1, 4, CV_64F);
  std::vector<cv::Mat> rvecs;
  std::vector<cv::Mat> tvecs;
  cv::Mat deviations;
  cv::Mat errors;
  double const rms = cv::calibrateCamera(set.objects, set.images, cv::Size(size_.cx, size_.cy),
                                         camera, coefficients, rvecs, tvecs, deviations,
                                         cv::noArray(), errors, cv::CALIB_FIX_K3, kSolverStop);
  const cv::Mat k = coefficients.reshape(1, 1).colRange(0, 4).clone();
  Data made;
  copy_intrinsics(camera, k, made.matrix, made.distortion);
  one_pose(info, set, camera, k, made.rotation, made.translation);
  // The deviations come as fx, fy, cx, cy, k1, k2, p1, p2, k3, ...
  deviations = deviations.reshape(1, 1);
  for (int i = 0; i < 4; ++i) {
    made.matrix_deviation[i] = deviations.at<double>(0, i);
    made.distortion_deviation[i] = deviations.at<double>(0, 4 + i);
  }
  made.error = rms;
  made.views.resize(rvecs.size());
  errors = errors.reshape(1, 1);
  for (std::size_t v = 0; v < rvecs.size(); ++v) {
    View& view = made.views[v];
    for (int i = 0; i < 3; ++i) {
      view.rotation[i] = rvecs[v].at<double>(i);
      view.translation[i] = tvecs[v].at<double>(i);
    }
    view.error = errors.at<double>(0, static_cast<int>(v));
  }
  data = std::move(made);
  return true;
}

std::vector<double> Calibration::get_reprojection_errors(Info const& info,
                                                         Projection const& camera) const {
  std::vector<double> errors;
  if (!consistent(info)) return errors;
  const view_set set(info);
  const cv::Mat K = camera.get_matrix_cv();
  const cv::Mat D = camera.get_distortion_cv();
  std::vector<cv::Point2f> back;
  for (cv::Mat const& seen : set.images) {
    cv::Mat rvec;
    cv::Mat tvec;
    cv::solvePnP(set.board, seen, K, D, rvec, tvec, false, cv::SOLVEPNP_ITERATIVE);
    cv::projectPoints(set.board, rvec, tvec, K, D, back);
    errors.push_back(rms_distance(back, seen));
  }
  return errors;
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

  bool const upright = info.rows >= info.columns;
  int const n = std::min(info.columns, info.rows);
  int const long_side = std::max(info.columns, info.rows);
  int const m = (long_side > 1 && long_side % 2 == 0) ? long_side - 1 : long_side;
  int const offset = (long_side - n) / 2;

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
  quad_.swap(second.outline);
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
    int const cx = to_pixel(scaled.get_center_x());
    int const cy = to_pixel(scaled.get_center_y());
    cv::line(view, cv::Point(0, cy), cv::Point(image.getWidth() - 1, cy), ink, 1, cv::LINE_AA, 0);
    cv::line(view, cv::Point(cx, 0), cv::Point(cx, image.getHeight() - 1), ink, 1, cv::LINE_AA, 0);
  }
  for (std::size_t i = 0; i < quad.size(); ++i) {
    const std::size_t next = (i + 1) % quad.size();
    cv::line(view, to_point(quad[i]), to_point(quad[next]), ink, 1, cv::LINE_AA, 0);
  }
  return ocv::copyImage_bgr2(image, bgr.get());
}

// Draws into a BGR copy of the image with `paint(view, scale, ink)`, then writes it back in the
// image's own format. The scale takes calibration pixels to the image's.
template <class Paint>
bool draw_over(Image& image, Calibration::extent_type const& size, unsigned int color,
               Paint&& paint) {
  const ocv::unique_ipl bgr = ocv::make_unique_ipl(ocv::createIpl_bgr2(image));
  if (!bgr) return false;
  cv::Mat view = bgr_view(bgr.get());
  const cv::Point2d scale = size.cx > 0 && size.cy > 0
                                ? cv::Point2d(static_cast<double>(image.getWidth()) / size.cx,
                                              static_cast<double>(image.getHeight()) / size.cy)
                                : cv::Point2d(1, 1);
  const cv::Scalar ink(color & 0xffu, (color >> 8) & 0xffu, (color >> 16) & 0xffu, 0);
  paint(view, scale, ink);
  return ocv::copyImage_bgr2(image, bgr.get());
}

// A point in image pixels with four bits of fraction, for OpenCV's drawing with shift 4.
cv::Point fixed(cv::Point2d const& p, cv::Point2d const& scale) {
  return cv::Point(to_pixel(p.x * scale.x * 16), to_pixel(p.y * scale.y * 16));
}

}  // namespace

bool Calibration::draw_residuals(Info const& info, Data const& data, Image& image,
                                 double magnification, unsigned int color) const {
  if (!consistent(info) || data.views.size() != info.found.size()) return false;
  const view_set set(info);
  const cv::Mat K(3, 3, CV_64F, const_cast<double*>(data.matrix));
  const cv::Mat D(1, 4, CV_64F, const_cast<double*>(data.distortion));
  return draw_over(image, size_, color, [&](cv::Mat& view, cv::Point2d scale, cv::Scalar ink) {
    std::vector<cv::Point2f> back;
    for (std::size_t v = 0; v < set.images.size(); ++v) {
      const cv::Mat rvec(3, 1, CV_64F, const_cast<double*>(data.views[v].rotation));
      const cv::Mat tvec(3, 1, CV_64F, const_cast<double*>(data.views[v].translation));
      cv::projectPoints(set.board, rvec, tvec, K, D, back);
      for (std::size_t i = 0; i < back.size(); ++i) {
        const cv::Point2d seen = set.images[v].at<cv::Point2f>(static_cast<int>(i));
        const cv::Point2d tip = seen + (cv::Point2d(back[i]) - seen) * magnification;
        cv::arrowedLine(view, fixed(seen, scale), fixed(tip, scale), ink, 1, cv::LINE_AA, 4, 0.2);
      }
    }
  });
}

bool Calibration::draw_coverage(Info const& info, Image& image, unsigned int color) const {
  bool const views = consistent(info);
  return draw_over(image, size_, color, [&](cv::Mat& view, cv::Point2d scale, cv::Scalar ink) {
    if (!views) return;
    const std::size_t n = board_corners(info);
    const std::size_t columns = static_cast<std::size_t>(info.columns);
    for (std::size_t base = 0; base < info.corners.size(); base += n) {
      // The outline through the four outer corners of the view's board.
      const std::size_t corner[4] = {base, base + columns - 1, base + n - 1, base + n - columns};
      std::vector<cv::Point> outline;
      for (std::size_t c : corner)
        outline.push_back(fixed(info.corners[c], scale));
      cv::polylines(view, outline, true, ink, 1, cv::LINE_AA, 4);
      for (std::size_t i = base; i < base + n; ++i)
        cv::circle(view, fixed(info.corners[i], scale), 2 * 16, ink, cv::FILLED, cv::LINE_AA, 4);
    }
  });
}

bool Calibration::draw_calibration(Info const& info, Projection const& /*projection*/, Image& image,
                                   unsigned int color) {
  return draw(info, nullptr, quad_, image, color);
}

bool Calibration::draw_correction(Info const& info, Projection const& projection, Image& image,
                                  unsigned int color) {
  return draw(info, &projection, quad_, image, color);
}

}  // namespace quib
