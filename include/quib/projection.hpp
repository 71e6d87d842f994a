// The camera model: intrinsics, lens distortion and one pose, the camera file, undistortion.
#pragma once

#include <quib/export.hpp>
#include <quib/image.hpp>
#include <quib/region.hpp>

#include <Eigen/Core>
#include <opencv2/core.hpp>

#include <string>
#include <type_traits>
#include <vector>

namespace quib {

/// One calibrated pinhole camera: the image size its intrinsics belong to, the 3x3 camera
/// matrix (row-major: fx, skew, cx / 0, fy, cy / 0, 0, 1), the lens distortion k1, k2, p1, p2
/// (two radial, two tangential) and one pose (a rotation triple and a translation triple).
///
/// A plain value of doubles: it owns everything it holds, copies are member-wise, and the
/// `_cv` getters hand out fresh deep copies. Loading the camera file never throws: a missing,
/// garbled or foreign file gives false and a reset object; saving gives false only when the
/// file storage throws. The undistortion overloads let OpenCV's exceptions through.
/// One object belongs to one thread at a time; distinct objects may be used in parallel.
///
///     quib::Projection camera({640, 480}, 2.0, 1.5);      // fx = 320, fy = 320, centred
///     if (!camera.save_setup("camera.yml")) return;
///     quib::Projection later;
///     if (later.load_setup("camera.yml")) later.undistort(points, normalised);
class QUIB_API Projection {
 public:
  using extent_type = region::extent<int>;

  /// The camera without its image size: 19 doubles.
  struct Setup {
    double matrix[9];
    double distortion[4];
    double rotation[3];
    double translation[3];
  };

  /// The whole camera: the image size followed by the Setup fields.
  struct Info {
    extent_type size;
    double matrix[9];
    double distortion[4];
    double rotation[3];
    double translation[3];
  };

  /// How two camera models differ across the image: where the other camera images the ray that
  /// this one images at each sample position. Filled by get_difference().
  struct Difference {
    int columns = 0;  ///< samples per row
    int rows = 0;     ///< rows of samples
    /// Sample positions in this camera's pixels, row after row: the centres of a columns x rows
    /// grid of cells over the image.
    std::vector<cv::Point2d> points;
    /// Per sample, the other camera's pixel minus the sample position, in this camera's pixels;
    /// NaN for a sample no ray of this camera images.
    std::vector<cv::Point2d> shifts;
    /// Samples no ray of this camera images: its distortion folds over before reaching them
    /// (a calibration extrapolated into corners no board reached). Left out of the figures below.
    int unreached = 0;
    double rms = 0;   ///< root mean square of the shift lengths (NaN when no sample is reached)
    double mean = 0;  ///< mean shift length
    double max = 0;   ///< largest shift length
  };

  /// No camera: size 0x0, identity matrix, no distortion, zero pose.
  Projection();
  explicit Projection(Info const& info);
  Projection(extent_type const& size, Setup const& setup);
  Projection(extent_type const& size, double const (&matrix)[9], double const (&distortion)[4],
             double const (&rotation)[3], double const (&translation)[3]);
  /// The same as initialize(size, a, b).
  Projection(extent_type const& size, double a, double b);
  Projection(Projection const&) = default;
  Projection& operator=(Projection const&) = default;
  ~Projection() = default;

  /// Back to the state of Projection().
  void reset();
  /// A synthetic camera: everything zeroed, then fx = width / a, cx = width / 2,
  /// fy = height / b, cy = height / 2 and matrix[8] = 1.
  void initialize(extent_type const& size, double a, double b);
  void set_intrinsic(double const (&matrix)[9], double const (&distortion)[4]);
  void set_extrinsic(double const (&rotation)[3], double const (&translation)[3]);
  /// Rescales fx, cx by new width / old width and fy, cy by new height / old height. Each
  /// ratio is a single-precision quotient widened to double, so the results carry float
  /// rounding. Skew, distortion and pose are kept. From a 0x0 camera the intrinsics become
  /// infinite or NaN; the new size is stored in any case. The same size changes nothing.
  void resize(extent_type const& new_size);
  void swap(Projection& other) noexcept;

  /// True when the width or the height is 0.
  bool empty() const { return size_.cx == 0 || size_.cy == 0; }
  /// True when any of k1, k2, p1, p2 is not exactly 0.
  bool is_distortion() const;

  extent_type get_size() const { return size_; }
  double get_focal_x() const { return matrix_[0]; }
  double get_focal_y() const { return matrix_[4]; }
  double get_center_x() const { return matrix_[2]; }
  double get_center_y() const { return matrix_[5]; }
  double get_distortion_k1() const { return distortion_[0]; }
  double get_distortion_k2() const { return distortion_[1]; }
  double get_distortion_p1() const { return distortion_[2]; }
  double get_distortion_p2() const { return distortion_[3]; }
  double get_rotation_x() const { return rotation_[0]; }
  double get_rotation_y() const { return rotation_[1]; }
  double get_rotation_z() const { return rotation_[2]; }
  double get_translation_x() const { return translation_[0]; }
  double get_translation_y() const { return translation_[1]; }
  double get_translation_z() const { return translation_[2]; }

  /// Writable references to the stored arrays.
  double (&get_matrix_array())[9] { return matrix_; }
  double (&get_distortion_array())[4] { return distortion_; }
  double (&get_rotation_array())[3] { return rotation_; }
  double (&get_translation_array())[3] { return translation_; }
  double const (&get_matrix_array() const)[9] { return matrix_; }
  double const (&get_distortion_array() const)[4] { return distortion_; }
  double const (&get_rotation_array() const)[3] { return rotation_; }
  double const (&get_translation_array() const)[3] { return translation_; }

  /// Element (row, column) is matrix[3 * row + column].
  Eigen::Matrix<double, 3, 3> get_matrix() const;
  /// (k1, k2, p1, p2).
  Eigen::Matrix<double, 4, 1> get_distortion() const;
  Eigen::Matrix<double, 3, 1> get_translation() const;
  /// The rotation triple read as the vector of a quaternion whose scalar is 0, turned
  /// into a matrix by the unnormalised quaternion formula (1 - 2(y² + z²), 2xy, 2xz / ...).
  /// This is not the rotation vector's matrix: for that, use cv::Rodrigues on
  /// get_rotation_cv().
  Eigen::Matrix<double, 3, 3> get_rotation() const;
  /// Fresh CV_64F copies: 3x3, 1x4, 1x3 and 1x3.
  cv::Mat get_matrix_cv() const;
  cv::Mat get_distortion_cv() const;
  cv::Mat get_rotation_cv() const;
  cv::Mat get_translation_cv() const;

  /// Removes the lens distortion from image points. The results are ideal normalised camera
  /// coordinates ((x - cx) / fx, (y - cy) / fy once undistorted), not pixels; dst is resized
  /// to src. An empty src gives an empty dst.
  void undistort(std::vector<cv::Point_<float>> const& src,
                 std::vector<cv::Point_<float>>& dst) const;
  void undistort(std::vector<cv::Point_<double>> const& src,
                 std::vector<cv::Point_<double>>& dst) const;
  /// As above, but dst is never resized: size it to src first. Only the first dst.size()
  /// results are delivered (fewer when src is shorter).
  void undistort(std::vector<Eigen::Matrix<float, 2, 1>> const& src,
                 std::vector<Eigen::Matrix<float, 2, 1>>& dst) const;
  void undistort(std::vector<Eigen::Matrix<double, 2, 1>> const& src,
                 std::vector<Eigen::Matrix<double, 2, 1>>& dst) const;
  /// cv::undistort with this camera matrix as the new one.
  void undistort(cv::Mat const& src, cv::Mat& dst) const;
  /// Undistorts into a temporary and copies a non-empty result back into img.
  void undistort(cv::Mat& img) const;
  /// Works on the images' own pixels through cv::Mat headers. A 16-bit image is one 16-bit
  /// channel; any other image is its channel count of 8-bit samples. dst must already have
  /// the size and pixel format of src, otherwise it is left as it was. An image whose rows
  /// are too short for that view (1, 2 or 4 bits per pixel) is treated as empty, which
  /// OpenCV refuses with an exception.
  void undistort(Image const& src, Image& dst) const;
  void undistort(Image& img) const;

  /// Compares two camera models across the image: each sample position of a columns x rows
  /// grid is undistorted with this camera (by Newton's method, which unlike
  /// cv::undistortPoints also converges in the corners of a strongly distorted picture) and the ray
  /// projected with the other (rescaled to this camera's size when the sizes differ); the pose of
  /// neither takes part. Zero everywhere for the same intrinsics. False, with `out` untouched, when
  /// either camera is empty, columns or rows is not positive, or a grid would exceed a million
  /// samples.
  ///
  ///     quib::Projection::Difference d;
  ///     if (a.get_difference(b, d)) std::printf("differ by %.3f px at most\n", d.max);
  [[nodiscard]] bool get_difference(Projection const& other, Difference& out, int columns = 32,
                                    int rows = 24) const;

  /// Reads a camera file as save_setup writes it: YAML, XML or JSON, told by the text itself.
  /// Its "format" must be exactly "camera.projection", "image_width" and "image_height" plain
  /// integers (absent ones read as 0), and the four matrices double matrices of at least 9, 4,
  /// 3 and 3 elements whose rows times columns equal their element count. The reader is the
  /// library's own, strict about the shapes the writer makes: a YAML file is one block mapping
  /// with its keys in column 0 and each matrix an indented mapping (tag "!!opencv-matrix")
  /// whose data is a flow sequence; an XML file has one "opencv_storage" element; keys given
  /// twice, anchors, aliases, nested collections and control bytes are refused. Folders,
  /// devices, gzip files and files over a megabyte are refused too. On any failure the object
  /// is reset and false is returned; never throws, never logs.
  [[nodiscard]] bool load_setup(std::string const& path);
  /// The same for a wide path; a path holding an unpaired surrogate names no file and fails.
  [[nodiscard]] bool load_setup(std::wstring const& path);
  /// Writes the camera file with the tag "camera.projection"; the syntax follows the file
  /// name (".xml", ".yml", ".json"), doubles in full precision. False only when the storage
  /// throws: a file that cannot be opened is not detected.
  [[nodiscard]] bool save_setup(std::string const& path) const;
  /// The same for a wide path; a path holding an unpaired surrogate writes nothing and fails.
  [[nodiscard]] bool save_setup(std::wstring const& path) const;
  /// The same with another "format" tag (such a file is not loadable by load_setup).
  [[nodiscard]] bool save_setup(std::string const& path, std::string const& format) const;
  [[nodiscard]] bool save_setup(std::wstring const& path, std::string const& format) const;

 private:
  extent_type size_;
  double matrix_[9];
  double distortion_[4];
  double rotation_[3];
  double translation_[3];
};

inline void swap(Projection& a, Projection& b) noexcept {
  a.swap(b);
}

static_assert(std::is_trivially_copyable_v<Projection>);
static_assert(std::is_trivially_copyable_v<Projection::Setup>);
static_assert(std::is_trivially_copyable_v<Projection::Info>);

}  // namespace quib
