#include <quib/projection.hpp>

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

// A fresh directory under the system's temporary directory, removed afterwards.
struct TempDir {
  fs::path path = fs::temp_directory_path() /
                  ("quib-projection-" +
                   std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()));
  TempDir() { fs::create_directories(path); }
  ~TempDir() {
    std::error_code ec;
    fs::remove_all(path, ec);
  }
  std::string file(std::string const& name) const { return (path / name).string(); }
};

// A camera whose every field is distinct and awkward to print (a denormal included).
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
  EXPECT_EQ(std::memcmp(a.get_matrix_array(), b.get_matrix_array(), sizeof(double[9])), 0);
  EXPECT_EQ(std::memcmp(a.get_distortion_array(), b.get_distortion_array(), sizeof(double[4])), 0);
  EXPECT_EQ(std::memcmp(a.get_rotation_array(), b.get_rotation_array(), sizeof(double[3])), 0);
  EXPECT_EQ(std::memcmp(a.get_translation_array(), b.get_translation_array(), sizeof(double[3])),
            0);
}

TEST(Projection, InitializeResizeAndReset) {
  quib::Projection p({640, 480}, 2.0, 1.5);
  EXPECT_EQ(p.get_matrix(), (Eigen::Matrix3d() << 320, 0, 320, 0, 320, 240, 0, 0, 1).finished());
  EXPECT_FALSE(p.is_distortion());

  p.get_matrix_array()[1] = 0.25;  // skew survives resizing
  const quib::Projection before = p;
  p.resize({640, 480});
  expect_identical(p, before);
  p.resize({1280, 960});
  EXPECT_EQ(p.get_matrix(), (Eigen::Matrix3d() << 640, 0.25, 640, 0, 640, 480, 0, 0, 1).finished());

  // The ratio is a float quotient: 1/3 carries float rounding into the double result.
  quib::Projection third({3, 3}, 1.0, 1.0);
  third.resize({1, 1});
  EXPECT_EQ(third.get_focal_x(), 3.0 * static_cast<double>(1.0f / 3.0f));

  p = awkward_camera();
  for (int i = 0; i < 3; ++i)
    p.get_distortion_array()[i] = 0;
  EXPECT_TRUE(p.is_distortion());  // a denormal p2 still counts
  p.reset();
  EXPECT_TRUE(p.empty());
  EXPECT_FALSE(p.is_distortion());
  expect_identical(p, quib::Projection());
  EXPECT_EQ(p.get_matrix(), Eigen::Matrix3d::Identity());
}

TEST(Projection, RotationIsQuaternionReading) {
  quib::Projection p;
  EXPECT_EQ(p.get_rotation(), Eigen::Matrix3d::Identity());
  const double r[3] = {1, 0, 0};
  const double t[3] = {4, 5, 6};
  p.set_extrinsic(r, t);
  EXPECT_EQ(p.get_rotation(), Eigen::Vector3d(1, -1, -1).asDiagonal().toDenseMatrix());
  cv::Mat copy = p.get_rotation_cv();  // a deep copy
  copy.at<double>(0, 0) = 9;
  EXPECT_EQ(p.get_rotation_x(), 1.0);
}

TEST(Projection, CameraFileRoundTripsBitExactly) {
  TempDir dir;
  const quib::Projection original = awkward_camera();
  for (std::string name : {"camera.xml", "camera.yml"}) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(original.save_setup(dir.file(name)));
    quib::Projection loaded;
    ASSERT_TRUE(loaded.load_setup(dir.file(name)));
    expect_identical(loaded, original);
  }
  std::string first;
  std::getline(std::ifstream(dir.file("camera.xml")), first);
  EXPECT_EQ(first.rfind("<?xml", 0), 0u);  // the syntax follows the name
}

TEST(Projection, RefusesForeignAndBrokenCameraFiles) {
  TempDir dir;
  for (std::string tag : {"camera.projection ", "camera", ""}) {
    SCOPED_TRACE("tag [" + tag + "]");
    ASSERT_TRUE(awkward_camera().save_setup(dir.file("tagged.yml"), tag));
    quib::Projection p = awkward_camera();
    EXPECT_FALSE(p.load_setup(dir.file("tagged.yml")));
    expect_identical(p, quib::Projection());
  }

  ASSERT_TRUE(awkward_camera().save_setup(dir.file("good.yml")));
  std::ifstream in(dir.file("good.yml"), std::ios::binary);
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  auto replaced = [&](std::string const& from, std::string const& to) {
    std::string t = text;
    const auto at = t.find(from);
    return at == std::string::npos ? "(" + from + " not found)" : t.replace(at, from.size(), to);
  };
  const std::string cases[][2] = {
      {"empty", ""},
      {"truncated", text.substr(0, text.size() / 2)},
      {"not yaml", "%YAML:1.0\n{{{ ]] :: \x01\x02"},
      {"missing matrix", replaced("camera_matrix", "camera_matrics")},
      {"short distortion", replaced("rows: 1\n   cols: 4", "rows: 1\n   cols: 2")},
      {"integer matrix", replaced("cols: 3\n   dt: d", "cols: 3\n   dt: i")},
      {"string matrix", replaced("camera_matrix:", "camera_matrix: \"3x3\"\nunused:")},
      {"string width", replaced("image_width: 1600", "image_width: wide")},
      {"lying size", replaced("rows: 3\n   cols: 3", "rows: 300000\n   cols: 300000")},
  };
  for (auto const& [name, content] : cases) {
    SCOPED_TRACE(name);
    std::ofstream(dir.file("broken.yml"), std::ios::binary) << content;
    quib::Projection p = awkward_camera();
    EXPECT_FALSE(p.load_setup(dir.file("broken.yml")));
    expect_identical(p, quib::Projection());
  }
  for (std::string path : {dir.file("absent.yml"), dir.path.string()}) {
    quib::Projection p = awkward_camera();
    EXPECT_FALSE(p.load_setup(path));
    expect_identical(p, quib::Projection());
  }
}

// Found by the fuzzer: text after the first collection once sent the YAML reader into an
// endless search for the next document.
TEST(Projection, RefusesTextAfterTheMappingWithoutHanging) {
  TempDir dir;
  for (std::string text : {"%YAML:1.\n---L:0\n----\n", "%YAML:1.0\n---\na: 1\n...\n-\n",
                           "%YAML:1.0\n---\n{a: 1}\nxyz-\n", "%YAML:1.0\n---\n  a: 1\nbcd-\n"}) {
    SCOPED_TRACE(text);
    std::ofstream(dir.file("stray.yml"), std::ios::binary) << text;
    quib::Projection p = awkward_camera();
    EXPECT_FALSE(p.load_setup(dir.file("stray.yml")));
    expect_identical(p, quib::Projection());
  }
}

// Found by the fuzzer: an XML declaration followed by NUL bytes crashed OpenCV's XML reader.
TEST(Projection, RefusesControlBytesBeforeTheReaderSeesThem) {
  TempDir dir;
  const std::string text(
      "\x3c\x3f\x78\x6d\x6c\x20\x76\x65\x72\x73\x69\x6f\x6e\x3d\x00\x00\x00\x00\x00\x00\x00\x00\xff"
      "\xff\x3f\x73\x3c\x6f\x70\x6d\x65\x72",
      32);
  std::ofstream(dir.file("nul.xml"), std::ios::binary) << text;
  quib::Projection p = awkward_camera();
  EXPECT_FALSE(p.load_setup(dir.file("nul.xml")));
  expect_identical(p, quib::Projection());
}

TEST(Projection, UndistortsPointsToNormalisedCoordinates) {
  const quib::Projection plain({640, 480}, 2.0, 1.5);  // fx = fy = 320, centre (320, 240)
  std::vector<cv::Point2f> out;
  plain.undistort(std::vector<cv::Point2f>{{0, 0}, {640, 120}}, out);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0], cv::Point2f(-1.0f, -0.75f));
  EXPECT_EQ(out[1], cv::Point2f(1.0f, -0.375f));

  const quib::Projection lens = awkward_camera();
  const std::vector<cv::Point2d> src = {{100.5, 50.25}, {1500, 1100}, {800, 600}};
  std::vector<cv::Point2d> got;
  std::vector<cv::Point2d> want;
  lens.undistort(src, got);
  cv::undistortPoints(src, want, lens.get_matrix_cv(), lens.get_distortion_cv());
  EXPECT_EQ(got, want);
  lens.undistort(std::vector<cv::Point2d>(), got);
  EXPECT_TRUE(got.empty());

  // The Eigen overloads deliver only as many results as dst already holds.
  const std::vector<Eigen::Vector2d> eigenSrc = {{100.5, 50.25}, {1500, 1100}, {800, 600}};
  std::vector<Eigen::Vector2d> shorter(2, Eigen::Vector2d(7, 7));
  lens.undistort(eigenSrc, shorter);
  ASSERT_EQ(shorter.size(), 2u);
  EXPECT_EQ(shorter[1], Eigen::Vector2d(want[1].x, want[1].y));
  std::vector<Eigen::Vector2d> longer(4, Eigen::Vector2d(7, 7));
  lens.undistort(eigenSrc, longer);
  EXPECT_EQ(longer[2], Eigen::Vector2d(want[2].x, want[2].y));
  EXPECT_EQ(longer[3], Eigen::Vector2d(7, 7));
  std::vector<Eigen::Vector2f> empty;
  lens.undistort(std::vector<Eigen::Vector2f>{{1, 2}}, empty);
  EXPECT_TRUE(empty.empty());
}

TEST(Projection, UndistortsImagesInTheirOwnMemory) {
  quib::Projection lens({200, 150}, 1.0, 1.0);
  const double d[4] = {-0.3, 0.1, 0.002, -0.001};
  lens.set_intrinsic(lens.get_matrix_array(), d);
  const cv::Mat K = lens.get_matrix_cv();
  const cv::Mat D = lens.get_distortion_cv();

  for (int bits : {8, 16, 24, 32}) {
    SCOPED_TRACE(bits);
    const auto colour = bits == 32   ? quib::color_type::bgra
                        : bits == 24 ? quib::color_type::bgr
                                     : quib::color_type::grey;
    quib::Image src(200, 150, bits, 4, colour);
    auto view = [bits](quib::Image const& i) {
      return bits == 16 ? i.makeMat(1, 16) : i.makeMat();
    };
    cv::randu(view(src), cv::Scalar::all(0), cv::Scalar::all(bits == 16 ? 65535 : 255));
    cv::Mat want;
    cv::undistort(view(src), want, K, D);

    quib::Image dst(200, 150, bits, 4, colour);
    lens.undistort(src, dst);
    EXPECT_EQ(cv::norm(view(dst), want, cv::NORM_INF), 0.0);
    unsigned char* const pixels = src.getBuffer();
    lens.undistort(src);
    EXPECT_EQ(src.getBuffer(), pixels);
    EXPECT_EQ(cv::norm(view(src), want, cv::NORM_INF), 0.0);
  }

  // A destination of another format is left as it was.
  quib::Image src(200, 150, 24, 4, quib::color_type::bgr);
  cv::randu(src.makeMat(), cv::Scalar::all(0), cv::Scalar::all(255));
  quib::Image grey(200, 150, 8, 4, quib::color_type::grey);
  lens.undistort(src, grey);
  EXPECT_EQ(cv::countNonZero(grey.makeMat()), 0);

  // Packed pixels cannot be viewed as bytes: OpenCV refuses the empty view.
  quib::Image packed(200, 150, 1, 4, quib::color_type::grey);
  EXPECT_THROW(lens.undistort(packed), cv::Exception);
}

}  // namespace
