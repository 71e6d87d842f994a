#include <quib/projection.hpp>

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

// A fresh directory under the system's temporary directory, removed afterwards.
class TempDir {
 public:
  TempDir() {
    path_ =
        fs::temp_directory_path() /
        ("quib-projection-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
         "-" + ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(path_);
    fs::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ec;
    fs::remove_all(path_, ec);
  }
  std::string file(std::string const& name) const { return (path_ / name).string(); }
  std::string write(std::string const& name, std::string const& text) const {
    std::ofstream(file(name), std::ios::binary) << text;
    return file(name);
  }

 private:
  fs::path path_;
};

// A camera whose every field is distinct and awkward to print.
quib::Projection awkward_camera() {
  const double m[9] = {812.3456789012345, 0.1, 1.0 / 3.0, 0, 799.0000000000001, 241.25, 0, 0, 1};
  const double d[4] = {-0.2718281828459045, 1e-300, 7e-5, 5e-324};
  const double r[3] = {0.1, -2.5, 3.141592653589793};
  const double t[3] = {-1234.5, 1e15, std::nextafter(1.0, 2.0)};
  return quib::Projection({1600, 1200}, m, d, r, t);
}

void expect_identical(quib::Projection const& a, quib::Projection const& b) {
  EXPECT_EQ(a.get_size().cx, b.get_size().cx);
  EXPECT_EQ(a.get_size().cy, b.get_size().cy);
  // Bit patterns, so that denormals count.
  EXPECT_EQ(std::memcmp(a.get_matrix_array(), b.get_matrix_array(), sizeof(double[9])), 0);
  EXPECT_EQ(std::memcmp(a.get_distortion_array(), b.get_distortion_array(), sizeof(double[4])), 0);
  EXPECT_EQ(std::memcmp(a.get_rotation_array(), b.get_rotation_array(), sizeof(double[3])), 0);
  EXPECT_EQ(std::memcmp(a.get_translation_array(), b.get_translation_array(), sizeof(double[3])),
            0);
}

void expect_reset(quib::Projection const& p) {
  expect_identical(p, quib::Projection());
}

TEST(Projection, DefaultAndResetAreNoCamera) {
  quib::Projection p;
  EXPECT_TRUE(p.empty());
  EXPECT_FALSE(p.is_distortion());
  EXPECT_EQ(p.get_matrix(), (Eigen::Matrix3d::Identity()));
  p = awkward_camera();
  EXPECT_FALSE(p.empty());
  EXPECT_TRUE(p.is_distortion());
  for (int i = 0; i < 3; ++i)
    p.get_distortion_array()[i] = 0;
  EXPECT_TRUE(p.is_distortion());  // a denormal p2 still counts
  p.reset();
  expect_reset(p);
}

TEST(Projection, InitializeAndResize) {
  quib::Projection p({640, 480}, 2.0, 1.5);
  EXPECT_EQ(p.get_focal_x(), 320.0);
  EXPECT_EQ(p.get_center_x(), 320.0);
  EXPECT_EQ(p.get_focal_y(), 320.0);
  EXPECT_EQ(p.get_center_y(), 240.0);
  EXPECT_EQ(p.get_matrix_array()[1], 0.0);
  EXPECT_EQ(p.get_matrix_array()[8], 1.0);
  EXPECT_FALSE(p.is_distortion());

  p.get_matrix_array()[1] = 0.25;  // skew survives resizing
  const quib::Projection before = p;
  p.resize({640, 480});
  expect_identical(p, before);
  p.resize({1280, 960});
  EXPECT_EQ(p.get_focal_x(), 640.0);
  EXPECT_EQ(p.get_center_x(), 640.0);
  EXPECT_EQ(p.get_focal_y(), 640.0);
  EXPECT_EQ(p.get_center_y(), 480.0);
  EXPECT_EQ(p.get_matrix_array()[1], 0.25);

  // The ratio is a float quotient: 1/3 carries float rounding into the double result.
  quib::Projection third({3, 3}, 1.0, 1.0);
  third.resize({1, 1});
  EXPECT_EQ(third.get_focal_x(), 3.0 * static_cast<double>(1.0f / 3.0f));
  EXPECT_NE(third.get_focal_x(), 1.0);
  EXPECT_EQ(third.get_size().cx, 1);

  quib::Projection none;
  none.resize({10, 10});
  EXPECT_FALSE(std::isfinite(none.get_focal_x()));
  EXPECT_EQ(none.get_size().cx, 10);
}

TEST(Projection, RotationIsQuaternionReading) {
  quib::Projection p;
  EXPECT_EQ(p.get_rotation(), (Eigen::Matrix3d::Identity()));
  const double r[3] = {1, 0, 0};
  const double t[3] = {4, 5, 6};
  p.set_extrinsic(r, t);
  EXPECT_EQ(p.get_rotation(), (Eigen::Vector3d(1, -1, -1).asDiagonal().toDenseMatrix()));
  const double r2[3] = {0.5, 0.25, 2};
  p.set_extrinsic(r2, t);
  const Eigen::Matrix3d m = p.get_rotation();
  EXPECT_DOUBLE_EQ(m(0, 1), 2 * 0.5 * 0.25);
  EXPECT_DOUBLE_EQ(m(2, 2), 1 - 2 * (0.25 + 0.0625));
  EXPECT_EQ(p.get_translation(), Eigen::Vector3d(4, 5, 6));
}

TEST(Projection, CvGettersAreDeepCopies) {
  quib::Projection p = awkward_camera();
  cv::Mat m = p.get_matrix_cv();
  ASSERT_EQ(m.type(), CV_64FC1);
  EXPECT_EQ(m.size(), cv::Size(3, 3));
  EXPECT_EQ(m.at<double>(1, 2), 241.25);
  m.at<double>(1, 2) = 0;
  EXPECT_EQ(p.get_center_y(), 241.25);
  EXPECT_EQ(p.get_distortion_cv().size(), cv::Size(4, 1));
  EXPECT_EQ(p.get_rotation_cv().at<double>(0, 1), -2.5);
  EXPECT_EQ(p.get_translation_cv().size(), cv::Size(3, 1));
}

TEST(Projection, CameraFileRoundTripsBitExactly) {
  TempDir dir;
  const quib::Projection original = awkward_camera();
  for (std::string name : {"camera.xml", "camera.yml", "camera.yaml"}) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(original.save_setup(dir.file(name)));
    quib::Projection loaded;
    ASSERT_TRUE(loaded.load_setup(dir.file(name)));
    expect_identical(loaded, original);
  }
  // The syntax follows the name.
  std::ifstream xml(dir.file("camera.xml"));
  std::string first;
  std::getline(xml, first);
  EXPECT_EQ(first.rfind("<?xml", 0), 0u);
}

TEST(Projection, RefusesForeignFormatTags) {
  TempDir dir;
  for (std::string tag : {"camera.projection ", "camera", "", "Camera.projection"}) {
    SCOPED_TRACE("[" + tag + "]");
    const std::string path = dir.file("tagged.yml");
    ASSERT_TRUE(awkward_camera().save_setup(path, tag));
    quib::Projection p = awkward_camera();
    EXPECT_FALSE(p.load_setup(path));
    expect_reset(p);
  }
}

TEST(Projection, RefusesBrokenCameraFiles) {
  TempDir dir;
  const std::string good = dir.file("good.yml");
  ASSERT_TRUE(awkward_camera().save_setup(good));
  std::string text;
  {
    std::ifstream in(good, std::ios::binary);
    text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  auto replaced = [&](std::string const& from, std::string const& to) {
    std::string t = text;
    const auto at = t.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return t.replace(at, from.size(), to);
  };
  const std::string matrix = "camera_matrix: !!opencv-matrix";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"empty", ""},
      {"truncated", text.substr(0, text.size() / 2)},
      {"not yaml", "%YAML:1.0\n{{{ ]] :: \x01\x02"},
      {"binary", std::string("\0\xff\xfe garbage", 11)},
      {"missing matrix", replaced("camera_matrix", "camera_matrics")},
      {"short distortion", replaced("rows: 1\n   cols: 4", "rows: 1\n   cols: 2")},
      {"integer matrix", replaced(matrix + "\n   rows: 3\n   cols: 3\n   dt: d",
                                  matrix + "\n   rows: 3\n   cols: 3\n   dt: i")},
      {"string matrix", replaced(matrix, "camera_matrix: \"3x3\"\nunused: !!opencv-matrix")},
      {"string width", replaced("image_width: 1600", "image_width: wide")},
      {"lying rows", replaced("rows: 3\n   cols: 3", "rows: 300000\n   cols: 300000")},
      {"format as number", replaced("format: \"camera.projection\"", "format: 7")},
  };
  for (auto const& [name, content] : cases) {
    SCOPED_TRACE(name);
    const std::string path = dir.write("broken.yml", content);
    quib::Projection p = awkward_camera();
    EXPECT_FALSE(p.load_setup(path));
    expect_reset(p);
  }
  quib::Projection p = awkward_camera();
  EXPECT_FALSE(p.load_setup(dir.file("absent.yml")));
  expect_reset(p);

  // Absent sizes read as 0; the camera still loads.
  const std::string sizeless = dir.write("sizeless.yml", replaced("image_width: 1600\n", ""));
  EXPECT_TRUE(p.load_setup(sizeless));
  EXPECT_EQ(p.get_size().cx, 0);
  EXPECT_EQ(p.get_size().cy, 1200);
}

TEST(Projection, UndistortsPointsToNormalisedCoordinates) {
  quib::Projection plain({640, 480}, 2.0, 1.5);  // fx = fy = 320, centre (320, 240)
  const std::vector<cv::Point2f> in = {{320, 240}, {0, 0}, {640, 120}};
  std::vector<cv::Point2f> out;
  plain.undistort(in, out);
  ASSERT_EQ(out.size(), 3u);
  EXPECT_FLOAT_EQ(out[1].x, -1.0f);
  EXPECT_FLOAT_EQ(out[1].y, -0.75f);
  EXPECT_FLOAT_EQ(out[2].x, 1.0f);
  EXPECT_FLOAT_EQ(out[2].y, -0.375f);

  const quib::Projection lens = awkward_camera();
  const std::vector<cv::Point2d> pd = {{100.5, 50.25}, {1500, 1100}, {800, 600}};
  std::vector<cv::Point2d> got;
  std::vector<cv::Point2d> want;
  lens.undistort(pd, got);
  cv::undistortPoints(pd, want, lens.get_matrix_cv(), lens.get_distortion_cv());
  ASSERT_EQ(got.size(), want.size());
  for (std::size_t i = 0; i < got.size(); ++i)
    EXPECT_EQ(got[i], want[i]);

  std::vector<cv::Point2d> none = {{1, 2}};
  lens.undistort(std::vector<cv::Point2d>(), none);
  EXPECT_TRUE(none.empty());
}

TEST(Projection, EigenUndistortionNeverResizes) {
  const quib::Projection lens = awkward_camera();
  const std::vector<Eigen::Vector2d> src = {{100, 100}, {900, 700}, {1500, 50}};
  std::vector<cv::Point2d> want;
  cv::undistortPoints(std::vector<cv::Point2d>{{100, 100}, {900, 700}, {1500, 50}}, want,
                      lens.get_matrix_cv(), lens.get_distortion_cv());

  std::vector<Eigen::Vector2d> full(3);
  lens.undistort(src, full);
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(full[i], Eigen::Vector2d(want[i].x, want[i].y)) << i;

  std::vector<Eigen::Vector2d> shorter(2, Eigen::Vector2d(7, 7));
  lens.undistort(src, shorter);
  ASSERT_EQ(shorter.size(), 2u);
  EXPECT_EQ(shorter[1], full[1]);

  std::vector<Eigen::Vector2d> longer(5, Eigen::Vector2d(7, 7));
  lens.undistort(src, longer);
  EXPECT_EQ(longer[2], full[2]);
  EXPECT_EQ(longer[4], Eigen::Vector2d(7, 7));

  std::vector<Eigen::Vector2f> empty;
  lens.undistort(std::vector<Eigen::Vector2f>{{1, 2}}, empty);
  EXPECT_TRUE(empty.empty());
  std::vector<Eigen::Vector2f> one(1);
  lens.undistort(std::vector<Eigen::Vector2f>{{100, 100}}, one);
  EXPECT_FLOAT_EQ(one[0].x(), static_cast<float>(want[0].x));
}

// A deterministic test card.
void paint(cv::Mat m) {
  cv::randu(m, cv::Scalar::all(0), cv::Scalar::all(m.depth() == CV_16U ? 65535 : 255));
  cv::GaussianBlur(m, m, cv::Size(9, 9), 3);
}

TEST(Projection, UndistortsImagesInTheirOwnMemory) {
  quib::Projection lens({200, 150}, 1.0, 1.0);
  const double d[4] = {-0.3, 0.1, 0.002, -0.001};
  lens.set_intrinsic(lens.get_matrix_array(), d);

  for (int bits : {8, 16, 24, 32}) {
    SCOPED_TRACE(bits);
    const auto colour = bits == 32   ? quib::color_type::bgra
                        : bits == 24 ? quib::color_type::bgr
                                     : quib::color_type::grey;
    quib::Image src(200, 150, bits, 4, colour);
    const cv::Mat srcView = bits == 16 ? src.makeMat(1, 16) : src.makeMat();
    paint(srcView);
    cv::Mat want;
    cv::undistort(srcView, want, lens.get_matrix_cv(), lens.get_distortion_cv());

    quib::Image dst(200, 150, bits, 4, colour);
    lens.undistort(src, dst);
    const cv::Mat dstView = bits == 16 ? dst.makeMat(1, 16) : dst.makeMat();
    EXPECT_EQ(cv::norm(dstView, want, cv::NORM_INF), 0.0);

    quib::Image inPlace;
    inPlace.copy(src);
    unsigned char* const pixels = inPlace.getBuffer();
    lens.undistort(inPlace);
    EXPECT_EQ(inPlace.getBuffer(), pixels);
    const cv::Mat inPlaceView = bits == 16 ? inPlace.makeMat(1, 16) : inPlace.makeMat();
    EXPECT_EQ(cv::norm(inPlaceView, want, cv::NORM_INF), 0.0);
  }

  // A destination of another format is left as it was.
  quib::Image src(200, 150, 24, 4, quib::color_type::bgr);
  paint(src.makeMat());
  quib::Image grey(200, 150, 8, 4, quib::color_type::grey);
  lens.undistort(src, grey);
  EXPECT_EQ(cv::countNonZero(grey.makeMat()), 0);

  cv::Mat mat = src.makeMat().clone();
  cv::Mat want;
  lens.undistort(mat, want);
  lens.undistort(mat);
  EXPECT_EQ(cv::norm(mat, want, cv::NORM_INF), 0.0);

  // Packed pixels cannot be viewed as bytes: OpenCV refuses the empty view.
  quib::Image packed(200, 150, 1, 4, quib::color_type::grey);
  EXPECT_THROW(lens.undistort(packed), cv::Exception);
}

}  // namespace
