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

    /// 24 x 24 squares, 10 columns, 7 rows, no views.
    Info();
    Info(int square_width, int square_height, int columns, int rows);

    /// Forgets the views, keeps the geometry.
    void clear();
    /// True when corners, counts and found all hold something.
    bool is() const;
    /// The board's corners in its own plane (z = 0), row after row, centred on the middle
    /// of the board: corner (i, j) is at (square_width * (i - (columns - 1) / 2),
    /// square_height * (j - (rows - 1) / 2)). These are the object points of every view.
    std::vector<cv::Point3f> get_object_points() const;
  };

  Calibration() = default;
  Calibration(Calibration const&) = default;
  Calibration& operator=(Calibration const&) = default;

  /// True once a view has been accepted (the stored size is not 0).
  bool is() const { return size.cx != 0 && size.cy != 0; }
  /// Forgets the stored size.
  void release() { size = extent_type(0, 0); }
  /// The size of the last accepted image.
  extent_type get_size() const { return size; }
  /// The four image points of the board outline measured last (empty before).
  std::vector<cv::Point_<float>> const& get_quad() const { return quad; }

  /// Finds the board in one image (any format createIpl_bgr2 converts), refines its corners
  /// and appends them to info. False, with info and the stored size untouched, when the
  /// image cannot be converted or the whole board is not found.
  bool calibration(Info& info, Image const& image);

  /// Solves the camera over all views in info: camera matrix (row-major), k1, k2, p1, p2, and
  /// one pose that fits all views at once (with one view, that view's pose). The image size
  /// is the stored one. False, with the outputs untouched, when info holds no views or its
  /// vectors disagree with its geometry.
  bool get_camera_matrix(Info const& info, double (&matrix)[9], double (&distortion)[4],
                         double (&rotation)[3], double (&translation)[3]) const;
  /// The same into the projection's arrays; its size is left as it is.
  bool get_camera_matrix(Info const& info, Projection& projection) const;

  /// The board pose in the last view for a known camera, measured on two patches of corners:
  /// a long patch from the first corner (the short side's count by the long side's count,
  /// made odd) and a square patch of the short side's count, centred along the long side.
  /// A patch of w x h corners is taken to span w x h squares, which scales the translation
  /// by w / (w - 1). When rows >= columns, rotation x and z come from the long patch and y
  /// from the square one; otherwise y comes from the long patch and x, z from the square one.
  /// The translation is always the square patch's, and its outline is kept for drawing.
  /// False, with the outputs untouched, when info holds no complete view.
  bool get_chess_extrinsic_parameters(Info const& info, double const (&matrix)[9],
                                      double const (&distortion)[4], double (&rotation)[3],
                                      double (&translation)[3]);
  /// The same, reading the intrinsics from and writing the pose into the projection.
  bool get_chess_extrinsic_parameters(Info const& info, Projection& projection);

  /// Draws the last view's corners and the stored outline into the image, in the image's own
  /// format. `color` is read lowest byte first as the blue, green and red levels (0x00RRGGBB).
  /// False when the image cannot be converted.
  bool draw_calibration(Info const& info, Projection const& projection, Image& image,
                        unsigned int color);
  /// As draw_calibration, plus a cross-hair through the projection's principal point,
  /// rescaled to the image's size.
  bool draw_correction(Info const& info, Projection const& projection, Image& image,
                       unsigned int color);

 private:
  extent_type size;
  std::vector<cv::Point_<float>> quad;
};

}  // namespace quib
