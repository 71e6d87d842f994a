// The measurement road: calibrate a camera from photographs of a chessboard, save the camera
// file, load it as a later run would, then undistort an image and a list of measured points.
// Usage: camera_road CAMERA.yml VIEW1.png VIEW2.png ...   (9 x 6 inner corners, 25 mm squares)
#include <quib/calibration.hpp>
#include <quib/projection.hpp>

#include <opencv2/imgcodecs.hpp>

#include <cstdio>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s CAMERA.yml VIEW.png [VIEW.png ...]\n", argv[0]);
    return 2;
  }
  const std::string cameraFile = argv[1];

  // 1. Collect views: every photograph becomes a quib::Image (here borrowing the pixels of a
  //    cv::Mat) and is handed to the calibration, which keeps the corners of boards it finds.
  quib::Calibration calib;
  quib::Calibration::Info info(25, 25, 9, 6);  // square size in mm, inner corners per row, rows
  std::vector<cv::Mat> photos;
  for (int i = 2; i < argc; ++i) {
    cv::Mat photo = cv::imread(argv[i], cv::IMREAD_COLOR);
    if (photo.empty()) {
      std::fprintf(stderr, "%s: cannot read\n", argv[i]);
      continue;
    }
    const quib::Image view(photo.cols, photo.rows, static_cast<int>(photo.step), photo.data, 24, 1,
                           quib::color_type::bgr);
    const bool found = calib.calibration(info, view);
    std::printf("%s: %s\n", argv[i], found ? "board found" : "no board");
    photos.push_back(photo);
  }
  if (info.found.size() < 3) {
    std::fprintf(stderr, "need at least three views with the whole board\n");
    return 1;
  }

  // 2. Calibrate. The projection takes the image size first; the solve fills in the camera
  //    matrix, the distortion k1, k2, p1, p2 and a pose.
  quib::Projection camera(calib.get_size(), 1.0, 1.0);
  if (!calib.get_camera_matrix(info, camera)) return 1;
  std::printf("fx %.2f fy %.2f cx %.2f cy %.2f k1 %.4f k2 %.4f\n", camera.get_focal_x(),
              camera.get_focal_y(), camera.get_center_x(), camera.get_center_y(),
              camera.get_distortion_k1(), camera.get_distortion_k2());
  // The whole record says how far to trust it: standard deviations and each view's error.
  quib::Calibration::Data data;
  if (calib.get_camera_data(info, data)) {
    std::printf("+- fx %.2f fy %.2f cx %.2f cy %.2f; RMS error %.3f px\n", data.matrix_deviation[0],
                data.matrix_deviation[1], data.matrix_deviation[2], data.matrix_deviation[3],
                data.error);
    for (std::size_t v = 0; v < data.views.size(); ++v)
      std::printf("  view %zu: %.3f px\n", v + 1, data.views[v].error);
  }

  // 3. Save the camera file (YAML or XML, chosen by the file name).
  if (!camera.save_setup(cameraFile)) return 1;

  // 4. A later run loads it; a missing or foreign file gives false and a reset camera.
  quib::Projection later;
  if (!later.load_setup(cameraFile)) {
    std::fprintf(stderr, "%s: not a camera file\n", cameraFile.c_str());
    return 1;
  }

  // 5. Undistort an image in place: the image's own pixels are rewritten.
  quib::Image first(photos[0].cols, photos[0].rows, static_cast<int>(photos[0].step),
                    photos[0].data, 24, 1, quib::color_type::bgr);
  later.undistort(first);
  cv::imwrite("undistorted.png", photos[0]);

  // 6. Undistort measured points. They come back in normalised camera coordinates; multiply
  //    by the focal lengths and add the centre to get undistorted pixels.
  const std::vector<cv::Point2d> measured = {{100.0, 80.0}, {320.5, 240.25}};
  std::vector<cv::Point2d> normalised;
  later.undistort(measured, normalised);
  for (std::size_t i = 0; i < measured.size(); ++i) {
    const double x = normalised[i].x * later.get_focal_x() + later.get_center_x();
    const double y = normalised[i].y * later.get_focal_y() + later.get_center_y();
    std::printf("(%.2f, %.2f) -> (%.2f, %.2f)\n", measured[i].x, measured[i].y, x, y);
  }
  return 0;
}
