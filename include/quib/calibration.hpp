// Chessboard calibration: collects board views and solves for a quib::Projection.
#pragma once

#include <quib/export.hpp>
#include <quib/image.hpp>
#include <quib/projection.hpp>
#include <quib/region.hpp>

#include <opencv2/core.hpp>

#include <vector>

namespace quib {

/// Calibrates a camera from views of a planar chessboard. Each call to calibration() finds
/// and refines the inner corners of the board in one image and appends them to an Info;
/// get_camera_matrix() then solves for the camera matrix, the distortion k1, k2, p1, p2 and a
/// pose, and get_chess_extrinsic_parameters() measures the board pose of the last view.
///
/// The Info owns the collected corners; the Calibration holds only the size of the last
/// accepted image and the board outline of the last pose measurement (for drawing).
/// Every operation reports failure by returning false (no board found, no views, an image
/// that cannot be converted, an Info whose vectors do not match its geometry) and leaves its
/// outputs untouched then; errors inside OpenCV's solvers (too few views, degenerate boards)
/// arrive as cv::Exception. One object belongs to one thread at a time.
///
///     quib::Calibration calib;
///     quib::Calibration::Info info;               // 10 x 7 inner corners, 24 mm squares
///     for (auto const& view : views) calib.calibration(info, view);
///     quib::Projection camera(calib.get_size(), 1.0, 1.0);    // the size the intrinsics fit
///     if (calib.get_camera_matrix(info, camera)) camera.save_setup("camera.yml");
class QUIB_API Calibration {
 public:
  using extent_type = region::extent<int>;

  /// The board geometry and the corners of every accepted view: plain data owned by the
  /// caller, filled by calibration() and read by the solvers, which check that its vectors
  /// agree with its geometry. One thread at a time.
  struct QUIB_API Info {
    int square_width;   ///< corner spacing along a board row, in the caller's length unit
    int square_height;  ///< corner spacing along a board column
    int columns;        ///< inner corners per board row
    int rows;           ///< inner corners per board column
    /// Refined corners, view after view, columns x rows per view in the finder's order.
    std::vector<cv::Point_<float>> corners;
    std::vector<int> counts;  ///< per view, the corner count
    std::vector<int> found;   ///< per view, the finder's result (non-zero)

    /// When positive, the corner spacings used in place of square_width and square_height:
    /// squares of any real size. Set by the real-valued constructor; 0 otherwise.
    double real_square_width = 0.0;
    double real_square_height = 0.0;

    /// 24 x 24 squares, 10 columns, 7 rows, no views.
    Info();
    Info(int square_width, int square_height, int columns, int rows);
    /// Squares of any positive real size, e.g. 24.5 mm. The integer spacings are set to the
    /// nearest whole numbers for code that reads them; the solvers and get_object_points() use
    /// the real ones. A size that is not positive and finite leaves the real spacing unset (0),
    /// so the integer one (then 0) applies and the solvers refuse the board.
    Info(double square_width, double square_height, int columns, int rows);

    /// The spacings in use: the real ones when set, otherwise the integer ones.
    double get_square_width() const;
    double get_square_height() const;

    /// Forgets the views, keeps the geometry.
    void clear();
    /// True when corners, counts and found all hold something.
    bool is() const;
    /// The board's corners in its own plane (z = 0), row after row, centred on the middle
    /// of the board: corner (i, j) is at (square_width * (i - (columns - 1) / 2),
    /// square_height * (j - (rows - 1) / 2)), in single precision, with the spacings of
    /// get_square_width() and get_square_height(). These are the object points of every view.
    std::vector<cv::Point3f> get_object_points() const;
  };

  /// One accepted view as the solver saw it.
  struct View {
    double rotation[3];     ///< the board's pose in this view: a rotation vector (Rodrigues)
    double translation[3];  ///< and a translation, in the board's length unit
    double error;           ///< RMS reprojection error of the view's corners, in pixels
  };

  /// Everything one solve measures. The camera matrix, distortion and pose are exactly what
  /// get_camera_matrix() gives for the same views.
  struct Data {
    double matrix[9];      ///< camera matrix, row-major
    double distortion[4];  ///< k1, k2, p1, p2
    double rotation[3];    ///< one pose over all views, as get_camera_matrix() gives it
    double translation[3];
    double matrix_deviation[4];      ///< standard deviations of fx, fy, cx, cy, in pixels
    double distortion_deviation[4];  ///< standard deviations of k1, k2, p1, p2
    double error;                    ///< RMS reprojection error over all corners, in pixels
    std::vector<View> views;         ///< per accepted view, in the order of the Info
  };

  Calibration() = default;
  Calibration(Calibration const&) = default;
  Calibration& operator=(Calibration const&) = default;

  /// True once a view has been accepted (the stored size is not 0).
  bool is() const { return size_.cx != 0 && size_.cy != 0; }
  /// Forgets the stored size.
  void release() { size_ = extent_type(0, 0); }
  /// The size of the last accepted image.
  extent_type get_size() const { return size_; }
  /// The four image points of the board outline measured last (empty before).
  std::vector<cv::Point_<float>> const& get_quad() const { return quad_; }

  /// Finds the board in one image (any format createIpl_bgr2 converts), refines its corners
  /// and appends them to info. False, with info and the stored size untouched, when the
  /// image cannot be converted or the whole board is not found.
  [[nodiscard]] bool calibration(Info& info, Image const& image);

  /// Solves the camera over all views in info: camera matrix (row-major), k1, k2, p1, p2, and
  /// one pose that fits all views at once (with one view, that view's pose). The image size
  /// is the stored one. False, with the outputs untouched, when info holds no views or its
  /// vectors disagree with its geometry.
  [[nodiscard]] bool get_camera_matrix(Info const& info, double (&matrix)[9],
                                       double (&distortion)[4], double (&rotation)[3],
                                       double (&translation)[3]) const;
  /// The same into the projection's arrays; its size is left as it is.
  [[nodiscard]] bool get_camera_matrix(Info const& info, Projection& projection) const;

  /// Solves as get_camera_matrix() does (same model, flags and stopping rule, the same
  /// results) and also gives the standard deviations of the intrinsics and the distortion
  /// (from the solver's Jacobian at the solution, scaled by the residuals, as
  /// cv::calibrateCameraExtended gives them), the RMS reprojection error, and each view's
  /// pose and RMS error. False, with `data` untouched, as for get_camera_matrix().
  [[nodiscard]] bool get_camera_data(Info const& info, Data& data) const;

  /// The RMS reprojection error of each view in info for a given camera, in pixels: each
  /// view's pose is solved for the camera (cv::solvePnP), its board points projected back
  /// and compared with the detected corners. Empty when info holds no complete view.
  std::vector<double> get_reprojection_errors(Info const& info, Projection const& camera) const;

  /// The board pose in the last view for a known camera, measured on two patches of corners:
  /// a long patch from the first corner (the short side's count by the long side's count,
  /// made odd) and a square patch of the short side's count, centred along the long side.
  /// A patch of w x h corners is taken to span w x h squares, which scales the translation
  /// by w / (w - 1). When rows >= columns, rotation x and z come from the long patch and y
  /// from the square one; otherwise y comes from the long patch and x, z from the square one.
  /// The translation is always the square patch's, and its outline is kept for drawing.
  /// False, with the outputs untouched, when info holds no complete view.
  [[nodiscard]] bool get_chess_extrinsic_parameters(Info const& info, double const (&matrix)[9],
                                                    double const (&distortion)[4],
                                                    double (&rotation)[3],
                                                    double (&translation)[3]);
  /// The same, reading the intrinsics from and writing the pose into the projection.
  [[nodiscard]] bool get_chess_extrinsic_parameters(Info const& info, Projection& projection);

  /// Draws the last view's corners and the stored outline into the image, in the image's own
  /// format. `color` is read lowest byte first as the blue, green and red levels (0x00RRGGBB).
  /// False when the image cannot be converted.
  [[nodiscard]] bool draw_calibration(Info const& info, Projection const& projection, Image& image,
                                      unsigned int color);
  /// As draw_calibration, plus a cross-hair through the projection's principal point,
  /// rescaled to the image's size.
  [[nodiscard]] bool draw_correction(Info const& info, Projection const& projection, Image& image,
                                     unsigned int color);

  /// The residual picture: for every corner of every view, an arrow from the detected corner
  /// towards where the solved camera projects the board point, its length magnified by
  /// `magnification` (e.g. 100: a 0.05 pixel error shows as 5 pixels), in the image's own
  /// format. Positions are scaled from the calibration's image size to the image's. False when
  /// the image cannot be converted or `data` does not hold one pose per view of `info`.
  [[nodiscard]] bool draw_residuals(Info const& info, Data const& data, Image& image,
                                    double magnification, unsigned int color) const;
  /// The coverage picture: every detected corner of every view as a dot and each view's
  /// board outline, so that the parts of the image no board reached show as empty. Scaled as
  /// draw_residuals(). False when the image cannot be converted.
  [[nodiscard]] bool draw_coverage(Info const& info, Image& image, unsigned int color) const;

 private:
  extent_type size_;
  std::vector<cv::Point_<float>> quad_;
};

}  // namespace quib
