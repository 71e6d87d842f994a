#include <quib/projection.hpp>

#include <opencv2/calib3d.hpp>
#include <opencv2/core/persistence.hpp>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <utility>

namespace quib {

namespace {

const char kFormatTag[] = "camera.projection";

template <std::size_t N>
void copy_array(double (&dst)[N], double const (&src)[N]) {
  std::copy(std::begin(src), std::end(src), std::begin(dst));
}

// A cv::Mat header over a member array; the writers and OpenCV's inputs never modify it.
cv::Mat header(int rows, int cols, double const* data) {
  return cv::Mat(rows, cols, CV_64F, const_cast<double*>(data));
}

// Reads the first N values of a double matrix node. Everything about the node is checked
// before OpenCV is asked to materialise it, so a lying rows/cols pair cannot make it
// allocate more than the node's data holds.
template <std::size_t N>
bool read_matrix(cv::FileNode const& node, double (&out)[N]) {
  if (!node.isMap()) return false;
  cv::FileNode const rows = node["rows"];
  cv::FileNode const cols = node["cols"];
  cv::FileNode const dt = node["dt"];
  cv::FileNode const data = node["data"];
  if (!rows.isInt() || !cols.isInt() || !dt.isString() || !data.isSeq()) return false;
  if (dt.string() != "d") return false;  // only double elements
  const std::int64_t r = static_cast<int>(rows);
  const std::int64_t c = static_cast<int>(cols);
  if (r <= 0 || c <= 0 || r * c != static_cast<std::int64_t>(data.size())) return false;
  if (r * c < static_cast<std::int64_t>(N)) return false;
  cv::Mat m;
  node >> m;
  if (m.type() != CV_64FC1 || !m.isContinuous() || m.total() < N) return false;
  double const* p = m.ptr<double>();
  std::copy(p, p + N, std::begin(out));
  return true;
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

// OpenCV's YAML reader loops forever when, after the first collection, it looks for the next
// document and finds a '-' that does not start "---". A camera file is one block mapping
// whose keys start in column 0, so YAML text (anything not XML or JSON) is accepted only in
// that shape: directives and one "---" before the first key, no second document marker, and
// no column-0 line that starts a sequence or a flow collection. The mapping then runs to the
// end of the text, and the reader never goes looking for another document.
bool safe_for_reader(std::string const& text) {
  // A camera file is plain text; OpenCV's XML reader dereferences null on embedded NUL and
  // other control bytes, so they never reach it.
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if ((c < 0x20 && c != '\t' && c != '\n' && c != '\r') || c == 0x7f) return false;
  }
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return false;
  if (text[first] == '<' || text[first] == '{') return true;  // XML or JSON
  bool marker = false;
  bool started = false;
  std::size_t at = 0;
  while (at < text.size()) {
    std::size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(at, end - at);
    at = end + 1;
    const std::size_t p = line.find_first_not_of(" \t\r");
    if (p == std::string::npos || line[p] == '#') continue;
    if (p == 0 && (line.compare(0, 3, "---") == 0 || line.compare(0, 3, "...") == 0)) {
      const std::size_t rest = line.find_first_not_of(" \t\r", 3);
      if (started || marker || line[0] == '.' || (rest != std::string::npos && line[rest] != '#')) {
        return false;
      }
      marker = true;
      continue;
    }
    if (p == 0 && line[0] == '%' && !started && !marker) continue;  // a directive
    if (p == 0) {
      if (line[0] == '-' || line[0] == '[' || line[0] == '{') return false;
      started = true;
    } else if (!started) {
      return false;  // indented content before the first key
    }
  }
  return started;
}

// Reads an optional integer: absent gives 0, any other node type fails.
bool read_int(cv::FileNode const& node, int& out) {
  if (node.empty() || node.isNone()) {
    out = 0;
    return true;
  }
  if (!node.isInt()) return false;
  out = static_cast<int>(node);
  return true;
}

// A cv::Mat header over an image's pixels; 16-bit images are one 16-bit channel. An image
// whose rows cannot hold that many bytes is returned as an empty matrix.
cv::Mat wrap(Image const& image) {
  if (image.empty()) return cv::Mat();
  const bool wide = image.getBits() == 16;
  const int channels = wide ? 1 : image.getChannel();
  const int bitsPerChannel = wide ? 16 : 8;
  const std::int64_t needed =
      static_cast<std::int64_t>(image.getWidth()) * channels * (bitsPerChannel / 8);
  if (image.getWidth() <= 0 || image.getHeight() <= 0 || needed > image.getLineBytes()) {
    return cv::Mat();
  }
  return image.makeMat(channels, bitsPerChannel);
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

Projection::Projection(Info const& info) : size(info.size) {
  copy_array(matrix, info.matrix);
  copy_array(distortion, info.distortion);
  copy_array(rotation, info.rotation);
  copy_array(translation, info.translation);
}

Projection::Projection(extent_type const& s, Setup const& setup)
    : Projection(s, setup.matrix, setup.distortion, setup.rotation, setup.translation) {}

Projection::Projection(extent_type const& s, double const (&m)[9], double const (&d)[4],
                       double const (&r)[3], double const (&t)[3])
    : size(s) {
  copy_array(matrix, m);
  copy_array(distortion, d);
  copy_array(rotation, r);
  copy_array(translation, t);
}

Projection::Projection(extent_type const& s, double a, double b) {
  initialize(s, a, b);
}

void Projection::reset() {
  size = extent_type(0, 0);
  std::fill(std::begin(matrix), std::end(matrix), 0.0);
  matrix[0] = matrix[4] = matrix[8] = 1.0;
  std::fill(std::begin(distortion), std::end(distortion), 0.0);
  std::fill(std::begin(rotation), std::end(rotation), 0.0);
  std::fill(std::begin(translation), std::end(translation), 0.0);
}

void Projection::initialize(extent_type const& s, double a, double b) {
  reset();
  matrix[0] = matrix[4] = matrix[8] = 0.0;
  size = s;
  matrix[0] = s.cx / a;
  matrix[2] = s.cx * 0.5;
  matrix[4] = s.cy / b;
  matrix[5] = s.cy * 0.5;
  matrix[8] = 1.0;
}

void Projection::set_intrinsic(double const (&m)[9], double const (&d)[4]) {
  copy_array(matrix, m);
  copy_array(distortion, d);
}

void Projection::set_extrinsic(double const (&r)[3], double const (&t)[3]) {
  copy_array(rotation, r);
  copy_array(translation, t);
}

void Projection::resize(extent_type const& new_size) {
  if (new_size.cx == size.cx && new_size.cy == size.cy) return;
  // Single-precision ratios on purpose: rescaled intrinsics carry the float rounding.
  const double sx = static_cast<float>(new_size.cx) / static_cast<float>(size.cx);
  const double sy = static_cast<float>(new_size.cy) / static_cast<float>(size.cy);
  matrix[0] *= sx;
  matrix[2] *= sx;
  matrix[4] *= sy;
  matrix[5] *= sy;
  size = new_size;
}

void Projection::swap(Projection& other) noexcept {
  std::swap(*this, other);
}

bool Projection::is_distortion() const {
  return distortion[0] != 0.0 || distortion[1] != 0.0 || distortion[2] != 0.0 ||
         distortion[3] != 0.0;
}

Eigen::Matrix<double, 3, 3> Projection::get_matrix() const {
  Eigen::Matrix<double, 3, 3> m;
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c)
      m(r, c) = matrix[3 * r + c];
  }
  return m;
}

Eigen::Matrix<double, 4, 1> Projection::get_distortion() const {
  return Eigen::Matrix<double, 4, 1>(distortion[0], distortion[1], distortion[2], distortion[3]);
}

Eigen::Matrix<double, 3, 1> Projection::get_translation() const {
  return Eigen::Matrix<double, 3, 1>(translation[0], translation[1], translation[2]);
}

Eigen::Matrix<double, 3, 3> Projection::get_rotation() const {
  const double x = rotation[0];
  const double y = rotation[1];
  const double z = rotation[2];
  const double w = 0.0;
  Eigen::Matrix<double, 3, 3> r;
  r << 1 - 2 * (y * y + z * z), 2 * x * y - 2 * w * z, 2 * x * z + 2 * w * y,  //
      2 * x * y + 2 * w * z, 1 - 2 * (x * x + z * z), 2 * y * z - 2 * w * x,   //
      2 * x * z - 2 * w * y, 2 * y * z + 2 * w * x, 1 - 2 * (x * x + y * y);
  return r;
}

cv::Mat Projection::get_matrix_cv() const {
  return header(3, 3, matrix).clone();
}
cv::Mat Projection::get_distortion_cv() const {
  return header(1, 4, distortion).clone();
}
cv::Mat Projection::get_rotation_cv() const {
  return header(1, 3, rotation).clone();
}
cv::Mat Projection::get_translation_cv() const {
  return header(1, 3, translation).clone();
}

void Projection::undistort(std::vector<cv::Point_<float>> const& src,
                           std::vector<cv::Point_<float>>& dst) const {
  undistort_points(src, dst, header(3, 3, matrix), header(1, 4, distortion));
}

void Projection::undistort(std::vector<cv::Point_<double>> const& src,
                           std::vector<cv::Point_<double>>& dst) const {
  undistort_points(src, dst, header(3, 3, matrix), header(1, 4, distortion));
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
  cv::undistort(src, dst, header(3, 3, matrix), header(1, 4, distortion), cv::noArray());
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

bool Projection::load_setup(std::string const& path) {
  try {
    std::string text;
    cv::FileStorage fs;
    if (read_text(path, text) && safe_for_reader(text) &&
        fs.open(text, cv::FileStorage::READ | cv::FileStorage::MEMORY, "")) {
      Projection loaded;
      cv::FileNode const format = fs["format"];
      if (format.isString() && format.string() == kFormatTag &&
          read_int(fs["image_width"], loaded.size.cx) &&
          read_int(fs["image_height"], loaded.size.cy) &&
          read_matrix(fs["camera_matrix"], loaded.matrix) &&
          read_matrix(fs["distortion_coefficients"], loaded.distortion) &&
          read_matrix(fs["rotation_coefficients"], loaded.rotation) &&
          read_matrix(fs["translation_coefficients"], loaded.translation)) {
        *this = loaded;
        return true;
      }
    }
  } catch (...) {
    // a garbled file is a failed load like any other
  }
  reset();
  return false;
}

bool Projection::save_setup(std::string const& path) const {
  return save_setup(path, kFormatTag);
}

bool Projection::save_setup(std::string const& path, std::string const& format) const {
  try {
    // A file that cannot be created is not reported (the writes below go nowhere), but it is
    // found out here so that OpenCV has no reason to log about it.
    if (!std::ofstream(path, std::ios::binary | std::ios::app).is_open()) return true;
    cv::FileStorage fs(path, cv::FileStorage::WRITE, "");
    fs << "format" << format;
    fs << "image_width" << size.cx;
    fs << "image_height" << size.cy;
    fs << "camera_matrix" << header(3, 3, matrix);
    fs << "distortion_coefficients" << header(1, 4, distortion);
    fs << "rotation_coefficients" << header(1, 3, rotation);
    fs << "translation_coefficients" << header(1, 3, translation);
    fs.release();
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace quib
