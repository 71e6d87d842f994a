#include <quib/convert.hpp>
#include <quib/projection.hpp>

#include "vision/camera_file.hpp"

#include <opencv2/calib3d.hpp>
#include <opencv2/core/persistence.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <utility>

namespace quib {

namespace {

char const kFormatTag[] = "camera.projection";

template <std::size_t N>
void copy_array(double (&dst)[N], double const (&src)[N]) {
  std::copy(std::begin(src), std::end(src), std::begin(dst));
}

// A cv::Mat header over a member array; the writers and OpenCV's inputs never modify it.
cv::Mat header(int rows, int cols, double const* data) {
  return cv::Mat(rows, cols, CV_64F, const_cast<double*>(data));
}

// Reads a whole regular file into memory; a camera file is well under 2 KB, so anything
// over a megabyte is refused rather than read. Directories, pipes and devices are refused
// too, so the reader never waits or logs about them.
bool read_text(std::string const& path, std::string& text) {
  std::error_code ec;
  if (!std::filesystem::is_regular_file(path, ec)) return false;
  const std::uintmax_t bytes = std::filesystem::file_size(path, ec);
  if (ec || bytes > (1u << 20)) return false;
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad() && text.size() <= (1u << 20);
}

// The file system's name for a wide path, or nothing when the path holds something that is no
// character (an unpaired surrogate, a value past U+10FFFF): such a name names no file. The
// conversion replaces exactly those with U+FFFD, so they are the names that do not survive
// the round trip.
std::optional<std::string> native_name(std::wstring const& wide) {
  std::string narrow = convert::to_string(wide);
  if (convert::to_wstring(narrow) != wide) return std::nullopt;
  return narrow;
}

// A cv::Mat header over an image's pixels; 16-bit images are one 16-bit channel. An image
// whose rows cannot hold that many bytes is returned as an empty matrix.
cv::Mat wrap(Image const& image) {
  if (image.empty()) return cv::Mat();
  bool const wide = image.getBits() == 16;
  int const channels = wide ? 1 : image.getChannel();
  int const bits_per_channel = wide ? 16 : 8;
  const std::int64_t needed =
      static_cast<std::int64_t>(image.getWidth()) * channels * (bits_per_channel / 8);
  if (image.getWidth() <= 0 || image.getHeight() <= 0 || needed > image.getLineBytes()) {
    return cv::Mat();
  }
  return image.makeMat(channels, bits_per_channel);
}

template <class T>
void undistort_points(std::vector<cv::Point_<T>> const& src, std::vector<cv::Point_<T>>& dst,
                      cv::Mat const& K, cv::Mat const& D) {
  if (src.empty()) {
    dst.clear();
    return;
  }
  cv::undistortPoints(src, dst, K, D, cv::noArray(), cv::noArray());
}

template <class T, class P>
void undistort_eigen(P const& projection, std::vector<Eigen::Matrix<T, 2, 1>> const& src,
                     std::vector<Eigen::Matrix<T, 2, 1>>& dst) {
  std::vector<cv::Point_<T>> in(src.size());
  for (std::size_t i = 0; i < src.size(); ++i)
    in[i] = cv::Point_<T>(src[i].x(), src[i].y());
  std::vector<cv::Point_<T>> out(dst.size());
  projection.undistort(in, out);
  const std::size_t n = std::min(dst.size(), out.size());
  for (std::size_t i = 0; i < n; ++i)
    dst[i] = Eigen::Matrix<T, 2, 1>(out[i].x, out[i].y);
}

}  // namespace

Projection::Projection() {
  reset();
}

Projection::Projection(Info const& info) : size_(info.size) {
  copy_array(matrix_, info.matrix);
  copy_array(distortion_, info.distortion);
  copy_array(rotation_, info.rotation);
  copy_array(translation_, info.translation);
}

Projection::Projection(extent_type const& s, Setup const& setup)
    : Projection(s, setup.matrix, setup.distortion, setup.rotation, setup.translation) {}

Projection::Projection(extent_type const& s, double const (&m)[9], double const (&d)[4],
                       double const (&r)[3], double const (&t)[3])
    : size_(s) {
  copy_array(matrix_, m);
  copy_array(distortion_, d);
  copy_array(rotation_, r);
  copy_array(translation_, t);
}

Projection::Projection(extent_type const& s, double a, double b) {
  initialize(s, a, b);
}

void Projection::reset() {
  size_ = extent_type(0, 0);
  std::fill(std::begin(matrix_), std::end(matrix_), 0.0);
  matrix_[0] = matrix_[4] = matrix_[8] = 1.0;
  std::fill(std::begin(distortion_), std::end(distortion_), 0.0);
  std::fill(std::begin(rotation_), std::end(rotation_), 0.0);
  std::fill(std::begin(translation_), std::end(translation_), 0.0);
}

void Projection::initialize(extent_type const& s, double a, double b) {
  reset();
  matrix_[0] = matrix_[4] = matrix_[8] = 0.0;
  size_ = s;
  matrix_[0] = s.cx / a;
  matrix_[2] = s.cx * 0.5;
  matrix_[4] = s.cy / b;
  matrix_[5] = s.cy * 0.5;
  matrix_[8] = 1.0;
}

void Projection::set_intrinsic(double const (&m)[9], double const (&d)[4]) {
  copy_array(matrix_, m);
  copy_array(distortion_, d);
}

void Projection::set_extrinsic(double const (&r)[3], double const (&t)[3]) {
  copy_array(rotation_, r);
  copy_array(translation_, t);
}

void Projection::resize(extent_type const& new_size) {
  if (new_size.cx == size_.cx && new_size.cy == size_.cy) return;
  // Single-precision ratios on purpose: rescaled intrinsics carry the float rounding.
  double const sx = static_cast<float>(new_size.cx) / static_cast<float>(size_.cx);
  double const sy = static_cast<float>(new_size.cy) / static_cast<float>(size_.cy);
  matrix_[0] *= sx;
  matrix_[2] *= sx;
  matrix_[4] *= sy;
  matrix_[5] *= sy;
  size_ = new_size;
}

void Projection::swap(Projection& other) noexcept {
  std::swap(*this, other);
}

bool Projection::is_distortion() const {
  return distortion_[0] != 0.0 || distortion_[1] != 0.0 || distortion_[2] != 0.0 ||
         distortion_[3] != 0.0;
}

Eigen::Matrix<double, 3, 3> Projection::get_matrix() const {
  Eigen::Matrix<double, 3, 3> m;
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c)
      m(r, c) = matrix_[3 * r + c];
  }
  return m;
}

Eigen::Matrix<double, 4, 1> Projection::get_distortion() const {
  return Eigen::Matrix<double, 4, 1>(distortion_[0], distortion_[1], distortion_[2],
                                     distortion_[3]);
}

Eigen::Matrix<double, 3, 1> Projection::get_translation() const {
  return Eigen::Matrix<double, 3, 1>(translation_[0], translation_[1], translation_[2]);
}

Eigen::Matrix<double, 3, 3> Projection::get_rotation() const {
  double const x = rotation_[0];
  double const y = rotation_[1];
  double const z = rotation_[2];
  double const w = 0.0;
  Eigen::Matrix<double, 3, 3> r;
  r << 1 - 2 * (y * y + z * z), 2 * x * y - 2 * w * z, 2 * x * z + 2 * w * y,  //
      2 * x * y + 2 * w * z, 1 - 2 * (x * x + z * z), 2 * y * z - 2 * w * x,   //
      2 * x * z - 2 * w * y, 2 * y * z + 2 * w * x, 1 - 2 * (x * x + y * y);
  return r;
}

cv::Mat Projection::get_matrix_cv() const {
  return header(3, 3, matrix_).clone();
}
cv::Mat Projection::get_distortion_cv() const {
  return header(1, 4, distortion_).clone();
}
cv::Mat Projection::get_rotation_cv() const {
  return header(1, 3, rotation_).clone();
}
cv::Mat Projection::get_translation_cv() const {
  return header(1, 3, translation_).clone();
}

void Projection::undistort(std::vector<cv::Point_<float>> const& src,
                           std::vector<cv::Point_<float>>& dst) const {
  undistort_points(src, dst, header(3, 3, matrix_), header(1, 4, distortion_));
}

void Projection::undistort(std::vector<cv::Point_<double>> const& src,
                           std::vector<cv::Point_<double>>& dst) const {
  undistort_points(src, dst, header(3, 3, matrix_), header(1, 4, distortion_));
}

void Projection::undistort(std::vector<Eigen::Matrix<float, 2, 1>> const& src,
                           std::vector<Eigen::Matrix<float, 2, 1>>& dst) const {
  undistort_eigen(*this, src, dst);
}

void Projection::undistort(std::vector<Eigen::Matrix<double, 2, 1>> const& src,
                           std::vector<Eigen::Matrix<double, 2, 1>>& dst) const {
  undistort_eigen(*this, src, dst);
}

void Projection::undistort(cv::Mat const& src, cv::Mat& dst) const {
  cv::undistort(src, dst, header(3, 3, matrix_), header(1, 4, distortion_), cv::noArray());
}

void Projection::undistort(cv::Mat& img) const {
  cv::Mat result;
  undistort(img, result);
  if (!result.empty()) result.copyTo(img);
}

void Projection::undistort(Image const& src, Image& dst) const {
  cv::Mat out = wrap(dst);
  undistort(wrap(src), out);  // writes into dst's pixels only when the header already fits
}

void Projection::undistort(Image& img) const {
  cv::Mat view = wrap(img);
  cv::Mat result;
  undistort(view, result);
  if (!result.empty()) result.copyTo(view);
}

namespace {

// The undistorted normalised coordinates that the camera (k1, k2, p1, p2) images at pixel p,
// by Newton's method from the distorted position. cv::undistortPoints' fixed-point iteration
// drifts away in the corners of a strongly distorted picture; Newton's converges wherever the
// distortion is invertible. NaN when no ray is imaged there (the distortion folds over
// before reaching p).
cv::Point2d normalised_ray(double const (&m)[9], double const (&k)[4], cv::Point2d p) {
  double const yd = (p.y - m[5]) / m[4];
  double const xd = (p.x - m[2]) / m[0];  // no skew, as cv::projectPoints
  double x = xd;
  double y = yd;
  for (int step = 0; step < 100; ++step) {
    double const r2 = x * x + y * y;
    double const radial = 1 + k[0] * r2 + k[1] * r2 * r2;
    double const dradial = k[0] + 2 * k[1] * r2;  // d radial / d (r2)
    double const fx = x * radial + 2 * k[2] * x * y + k[3] * (r2 + 2 * x * x) - xd;
    double const fy = y * radial + k[2] * (r2 + 2 * y * y) + 2 * k[3] * x * y - yd;
    double const a = radial + 2 * x * x * dradial + 2 * k[2] * y + 6 * k[3] * x;
    double const b = 2 * x * y * dradial + 2 * k[2] * x + 2 * k[3] * y;
    double const c = 2 * x * y * dradial + 2 * k[2] * x + 2 * k[3] * y;
    double const d = radial + 2 * y * y * dradial + 6 * k[2] * y + 2 * k[3] * x;
    double const det = a * d - b * c;
    if (!std::isfinite(det) || det == 0) break;
    double const dx = (d * fx - b * fy) / det;
    double const dy = (a * fy - c * fx) / det;
    x -= dx;
    y -= dy;
    if (std::abs(dx) + std::abs(dy) < 1e-15) break;
  }
  double const r2 = x * x + y * y;
  double const radial = 1 + k[0] * r2 + k[1] * r2 * r2;
  double const ex = x * radial + 2 * k[2] * x * y + k[3] * (r2 + 2 * x * x) - xd;
  double const ey = y * radial + k[2] * (r2 + 2 * y * y) + 2 * k[3] * x * y - yd;
  if (!(std::abs(ex) + std::abs(ey) < 1e-10)) return {NAN, NAN};
  return {x, y};
}

}  // namespace

bool Projection::get_difference(Projection const& other, Difference& out, int columns,
                                int rows) const {
  if (empty() || other.empty() || columns <= 0 || rows <= 0) return false;
  if (static_cast<std::int64_t>(columns) * rows > 1000000) return false;
  Projection seen(other);
  seen.resize(size_);
  Difference made;
  made.columns = columns;
  made.rows = rows;
  for (int j = 0; j < rows; ++j) {
    for (int i = 0; i < columns; ++i) {
      made.points.emplace_back((i + 0.5) * size_.cx / columns, (j + 0.5) * size_.cy / rows);
    }
  }
  std::vector<cv::Point2d> rays;
  rays.reserve(made.points.size());
  for (cv::Point2d const& p : made.points)
    rays.push_back(normalised_ray(matrix_, distortion_, p));
  std::vector<cv::Point3d> directions;
  directions.reserve(rays.size());
  for (cv::Point2d const& r : rays)
    directions.emplace_back(std::isnan(r.x) ? 0.0 : r.x, std::isnan(r.y) ? 0.0 : r.y, 1.0);
  std::vector<cv::Point2d> projected;
  double const zero[3] = {0, 0, 0};
  cv::projectPoints(directions, header(1, 3, zero), header(1, 3, zero), header(3, 3, seen.matrix_),
                    header(1, 4, seen.distortion_), projected);
  double sum = 0;
  for (std::size_t k = 0; k < projected.size(); ++k) {
    if (std::isnan(rays[k].x)) {
      made.shifts.emplace_back(NAN, NAN);
      ++made.unreached;
      continue;
    }
    made.shifts.push_back(projected[k] - made.points[k]);
    double const length = std::hypot(made.shifts.back().x, made.shifts.back().y);
    sum += length * length;
    made.mean += length;
    made.max = std::max(made.max, length);
  }
  auto const reached = static_cast<double>(projected.size()) - made.unreached;
  made.rms = reached > 0 ? std::sqrt(sum / reached) : NAN;
  made.mean = reached > 0 ? made.mean / reached : NAN;
  if (reached == 0) made.max = NAN;
  out = std::move(made);
  return true;
}

bool Projection::load_setup(std::string const& path) {
  try {
    std::string text;
    Info loaded{};
    if (read_text(path, text) && detail::read_camera_file(text, loaded)) {
      *this = Projection(loaded);
      return true;
    }
  } catch (...) {
    // allocation failure while reading: a failed load like any other
  }
  reset();
  return false;
}

bool Projection::load_setup(std::wstring const& path) {
  const std::optional<std::string> name = native_name(path);
  if (!name) {
    reset();
    return false;
  }
  return load_setup(*name);
}

bool Projection::save_setup(std::string const& path) const {
  return save_setup(path, kFormatTag);
}

bool Projection::save_setup(std::wstring const& path) const {
  return save_setup(path, kFormatTag);
}

bool Projection::save_setup(std::wstring const& path, std::string const& format) const {
  const std::optional<std::string> name = native_name(path);
  return name && save_setup(*name, format);
}

bool Projection::save_setup(std::string const& path, std::string const& format) const {
  try {
    // A file that cannot be created is not reported (the writes below go nowhere), but it is
    // found out here so that OpenCV has no reason to log about it.
    if (!std::ofstream(path, std::ios::binary | std::ios::app).is_open()) return true;
    cv::FileStorage fs(path, cv::FileStorage::WRITE, "");
    fs << "format" << format;
    fs << "image_width" << size_.cx;
    fs << "image_height" << size_.cy;
    fs << "camera_matrix" << header(3, 3, matrix_);
    fs << "distortion_coefficients" << header(1, 4, distortion_);
    fs << "rotation_coefficients" << header(1, 3, rotation_);
    fs << "translation_coefficients" << header(1, 3, translation_);
    fs.release();
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace quib
