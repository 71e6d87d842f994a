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

std::string read_all(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// Loads `text` written to `name` into a camera that held something else before.
bool load_text(TempDir const& dir, std::string const& name, std::string const& text,
               quib::Projection& p) {
  std::ofstream(dir.file(name), std::ios::binary) << text;
  p = awkward_camera();
  return p.load_setup(dir.file(name));
}

TEST(Projection, CameraFileRoundTripsBitExactly) {
  TempDir dir;
  quib::Projection original = awkward_camera();
  for (std::string name : {"camera.xml", "camera.yml", "camera.json"}) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(original.save_setup(dir.file(name)));
    quib::Projection loaded;
    ASSERT_TRUE(loaded.load_setup(dir.file(name)));
    expect_identical(loaded, original);
  }
  EXPECT_EQ(read_all(dir.file("camera.xml")).rfind("<?xml", 0), 0u);  // the syntax follows the name

  // Values the writer spells out (".Nan", "-.Inf") and negative sizes come back as well. (The
  // writer prints -0 as 0, so that sign is the one thing a camera file does not keep.)
  original.get_matrix_array()[1] = std::numeric_limits<double>::quiet_NaN();
  original.get_distortion_array()[0] = -std::numeric_limits<double>::infinity();
  original.get_rotation_array()[2] = std::numeric_limits<double>::infinity();
  original = quib::Projection(quib::Projection::extent_type(-3, 0), original.get_matrix_array(),
                              original.get_distortion_array(), original.get_rotation_array(),
                              original.get_translation_array());
  for (std::string name : {"odd.xml", "odd.yml", "odd.json"}) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(original.save_setup(dir.file(name)));
    quib::Projection loaded;
    ASSERT_TRUE(loaded.load_setup(dir.file(name)));
    EXPECT_TRUE(std::isnan(loaded.get_matrix_array()[1]));
    loaded.get_matrix_array()[1] = original.get_matrix_array()[1];
    expect_identical(loaded, original);
  }
}

// Files as OpenCV's own file storage writes them, with what a user might add by hand: other
// keys before and after, comments, other matrices, integer elements in a double matrix.
TEST(Projection, ReadsWhatTheFileStorageWrites) {
  TempDir dir;
  const quib::Projection want = awkward_camera();
  for (std::string name : {"storage.yml", "storage.xml", "storage.json"}) {
    SCOPED_TRACE(name);
    {
      cv::FileStorage fs(dir.file(name), cv::FileStorage::WRITE);
      fs << "note"
         << "written by \"hand\" <here> & there";
      fs << "format"
         << "camera.projection";
      fs << "image_height" << 1200 << "image_width" << 1600;
      fs << "extra_matrix" << cv::Mat::eye(2, 2, CV_32S);
      fs << "camera_matrix" << want.get_matrix_cv();
      fs << "translation_coefficients" << want.get_translation_cv();
      fs << "rotation_coefficients" << want.get_rotation_cv();
      fs << "distortion_coefficients" << want.get_distortion_cv();
      fs << "list" << std::vector<int>{1, 2, 3};
      fs.writeComment("a comment at the end");
    }
    quib::Projection p;
    ASSERT_TRUE(p.load_setup(dir.file(name)));
    expect_identical(p, want);
  }
  // A YAML file written by hand: comments, blank lines, CRLF line ends, no header, quoted tag.
  const std::string hand =
      "# camera of rig 2\r\nformat: 'camera.projection'  # checked\r\nimage_width: 640\r\n"
      "\r\ncamera_matrix: !!opencv-matrix\r\n  rows: 3\r\n  cols: 3\r\n  dt: d\r\n"
      "  data: [ 500, 0, 320,\r\n   0, 500, 240, 0, 0, 1 ]\r\n"
      "distortion_coefficients:\n    rows: 1\n    cols: 4\n    dt: d\n    data: [0, 0, 0, 0]\n"
      "rotation_coefficients: !!opencv-matrix\n rows: 3\n cols: 1\n dt: d\n data: [ 1, 2, 3 ]\n"
      "translation_coefficients: !!opencv-matrix\n rows: 1\n cols: 3\n dt: d\n"
      " data: [ -1., +2.5e1, .5 ]\n...\n# the end\n";
  quib::Projection p;
  ASSERT_TRUE(load_text(dir, "hand.yml", hand, p));
  EXPECT_EQ(p.get_size().cx, 640);
  EXPECT_EQ(p.get_size().cy, 0);
  EXPECT_EQ(p.get_matrix(), (Eigen::Matrix3d() << 500, 0, 320, 0, 500, 240, 0, 0, 1).finished());
  EXPECT_EQ(p.get_rotation_z(), 3.0);
  EXPECT_EQ(p.get_translation(), Eigen::Vector3d(-1, 25, 0.5));
}

// Edits of a good file, each of which must be refused, in each syntax the writer makes.
TEST(Projection, RefusesForeignAndBrokenCameraFiles) {
  TempDir dir;
  for (std::string tag : {"camera.projection ", "camera", ""}) {
    SCOPED_TRACE("tag [" + tag + "]");
    ASSERT_TRUE(awkward_camera().save_setup(dir.file("tagged.yml"), tag));
    quib::Projection p = awkward_camera();
    EXPECT_FALSE(p.load_setup(dir.file("tagged.yml")));
    expect_identical(p, quib::Projection());
  }

  struct Edit {
    const char* name;
    const char* yml[2];
    const char* xml[2];
  };
  const Edit edits[] = {
      {"missing matrix", {"camera_matrix", "camera_matrics"}, {"camera_matrix", "camera_matrics"}},
      {"short distortion",
       {"rows: 1\n   cols: 4", "rows: 1\n   cols: 2"},
       {"<rows>1</rows>\n  <cols>4</cols>", "<rows>1</rows>\n  <cols>2</cols>"}},
      {"rows and columns against data",
       {"rows: 1\n   cols: 4", "rows: 1\n   cols: 5"},
       {"<rows>1</rows>\n  <cols>4</cols>", "<rows>5</rows>\n  <cols>1</cols>"}},
      {"integer matrix", {"dt: d", "dt: i"}, {"<dt>d</dt>", "<dt>i</dt>"}},
      {"word in the data", {"data: [ ", "data: [ x, "}, {"<data>\n", "<data>\n x "}},
      {"string matrix",
       {"camera_matrix:", "camera_matrix: \"3x3\"\nunused:"},
       {"<camera_matrix type_id=\"opencv-matrix\">",
        "<camera_matrix>\"3x3\"</camera_matrix><unused>"}},
      {"other type", {"!!opencv-matrix", "!!opencv-nd-matrix"}, {"opencv-matrix", "opencv-nd"}},
      {"string width", {"image_width: 1600", "image_width: wide"}, {">1600<", ">wide<"}},
      {"quoted width", {"image_width: 1600", "image_width: \"1600\""}, {">1600<", ">\"1600\"<"}},
      {"real width", {"image_width: 1600", "image_width: 1600.5"}, {">1600<", ">1600.5<"}},
      {"width out of range",
       {"image_width: 1600", "image_width: 3000000000"},
       {">1600<", ">3000000000<"}},
      {"lying size",
       {"rows: 3\n   cols: 3", "rows: 300000\n   cols: 300000"},
       {"<rows>3</rows>\n  <cols>3</cols>", "<rows>300000</rows>\n  <cols>300000</cols>"}},
      {"key twice",
       {"image_height:", "image_width: 2\nimage_height:"},
       {"<image_height>", "<image_width>2</image_width><image_height>"}},
      {"text after",
       {"translation_coefficients", "- x\ntranslation_coefficients"},
       {"</opencv_storage>", "</opencv_storage><opencv_storage/>"}},
  };
  for (std::string ext : {".yml", ".xml"}) {
    ASSERT_TRUE(awkward_camera().save_setup(dir.file("good" + ext)));
    const std::string text = read_all(dir.file("good" + ext));
    const bool yml = ext == ".yml";
    for (Edit const& e : edits) {
      SCOPED_TRACE(e.name + ext);
      std::string edited = text;
      const std::string from = yml ? e.yml[0] : e.xml[0];
      const auto at = edited.find(from);
      ASSERT_NE(at, std::string::npos);
      edited.replace(at, from.size(), yml ? e.yml[1] : e.xml[1]);
      quib::Projection p;
      EXPECT_FALSE(load_text(dir, "broken" + ext, edited, p));
      expect_identical(p, quib::Projection());
    }
    // Every cut of the file is refused, and none crashes.
    for (std::size_t cut = 0; cut + 1 < text.size(); cut += yml ? 7 : 11) {
      SCOPED_TRACE(cut);
      quib::Projection p;
      EXPECT_FALSE(load_text(dir, "cut" + ext, text.substr(0, cut), p));
    }
  }
  const std::string garbage[] = {"",  " \n\t\n", "%YAML:1.0\n{{{ ]] :: \x01\x02", "<",
                                 "{", "[1]",     "format: camera.projection\n"};
  for (std::string const& text : garbage) {
    SCOPED_TRACE(text);
    quib::Projection p;
    EXPECT_FALSE(load_text(dir, "garbage.yml", text, p));
    expect_identical(p, quib::Projection());
  }
}

TEST(Projection, RefusesPathsThatNameNoCameraFile) {
  TempDir dir;
  ASSERT_TRUE(awkward_camera().save_setup(dir.file("good.yml")));
  for (std::string path : {dir.file("absent.yml"), dir.path.string(), std::string("/dev/null")}) {
    SCOPED_TRACE(path);
    quib::Projection p = awkward_camera();
    EXPECT_FALSE(p.load_setup(path));
    expect_identical(p, quib::Projection());
  }
  // Wide names: a good one loads; one with an unpaired surrogate names no file, even when a
  // file named with U+FFFD in its place exists.
  const std::wstring wide = dir.path.wstring() + L"/g\u00e9.yml";
  ASSERT_TRUE(awkward_camera().save_setup(wide));
  quib::Projection p;
  ASSERT_TRUE(p.load_setup(wide));
  expect_identical(p, awkward_camera());
  std::wstring lone = dir.path.wstring() + L"/x.yml";
  ASSERT_TRUE(awkward_camera().save_setup(dir.path.wstring() + L"/\uFFFD.yml"));
  lone.replace(lone.size() - 5, 1, 1, static_cast<wchar_t>(0xD800));
  EXPECT_FALSE(p.load_setup(lone));
  expect_identical(p, quib::Projection());
  EXPECT_FALSE(awkward_camera().save_setup(lone));
  EXPECT_FALSE(p.load_setup(dir.path.wstring()));
}

// Found by fuzzing OpenCV's reader, which crashed or hung on these; the camera file reader
// refuses each.
TEST(Projection, RefusesWhatCrashedTheFileStorageReader) {
  TempDir dir;
  const std::string texts[] = {
      "<?xml v=",
      std::string("<?xml version=\0\0\0\0\0\0\0\0\xff\xff?s<opmer", 32),
      "<?xml version=\"1.0\"?>\n<opencv_storage>\n<format>camera.projection</format>\n<camera_ma",
      "<?xml version=\"1.0\"?>\n<opencv_storage>\n<format>camera.projection</for",
      "<?xml version=\"1.0\"?>\n<opencv_storage>\n<camera_matrix type_id=\"opencv-matrix\">\n"
      "<rows>3</rows><cols>3</cols><dt>d</dt><data>1 2 3</da></camera_matrix>",
      "<?xml version=\"1.0\"?><opencv_storage><a><b><c>1</c></b></a></opencv_storage>",
      "<opencv_storage><format>camera.projection</format></opencv_storage><x",
      "%YAML:1.\n---L:0\n----\n",
      "%YAML:1.0\n---\na: 1\n...\n-\n",
      "%YAML:1.0\n---\n{a: 1}\nxyz-\n",
      "%YAML:1.0\n---\n  a: 1\nbcd-\n",
      "a: [1, [2, 3]]\n",
      "a: &x 1\nb: *x\n",
      "a:\n  b:\n    c: 1\n",
      "{\"a\": {\"b\": {\"c\": 1}}}",
      "{\"format\": \"camera.projection\", \"data\": [1, 2,",
  };
  for (std::string const& text : texts) {
    for (std::string name : {"crash.yml", "crash.xml"}) {
      SCOPED_TRACE(name + ": " + text);
      quib::Projection p;
      EXPECT_FALSE(load_text(dir, name, text, p));
      expect_identical(p, quib::Projection());
    }
  }
}

TEST(Projection, DifferenceOfTwoCamerasAcrossTheImage) {
  const double m[9] = {1210, 0.1, 805, 0, 1190, 590, 0, 0, 1};
  const double k[4] = {-0.12, 0.04, 0.001, -0.0005};
  const double zero[3] = {0, 0, 0};
  const quib::Projection a({1600, 1200}, m, k, zero, zero);
  quib::Projection::Difference d;
  ASSERT_TRUE(a.get_difference(a, d, 8, 6));
  ASSERT_EQ(d.points.size(), 48u);
  EXPECT_EQ(d.points[0], cv::Point2d(100, 100));  // cell centres of 1600 x 1200
  EXPECT_EQ(d.points[47], cv::Point2d(1500, 1100));
  EXPECT_LT(d.max, 1e-6);
  // Strong barrel distortion: the corners of the picture still come back where they were.
  const double barrel[4] = {-0.2, 0.05, 0, 0};
  const double wide[9] = {420, 0, 243, 0, 418, 176, 0, 0, 1};
  const quib::Projection fisheye({480, 360}, wide, barrel, zero, zero);
  ASSERT_TRUE(fisheye.get_difference(fisheye, d));
  EXPECT_LT(d.max, 1e-9);
  EXPECT_EQ(d.unreached, 0);
  // A negative k2 folds the picture over before its corners: those samples have no ray.
  const double folded[4] = {-0.18, -0.29, 0, 0};
  const quib::Projection fold({480, 360}, wide, folded, zero, zero);
  ASSERT_TRUE(fold.get_difference(fold, d));
  EXPECT_GT(d.unreached, 0);
  EXPECT_LT(d.unreached, 768 / 2);
  EXPECT_TRUE(std::isnan(d.shifts[0].x));  // a corner
  EXPECT_LT(d.max, 1e-9);

  // The same camera at twice the size differs by nothing; one with fx 1 % longer by 1 % of
  // each sample's distance from the centre, along x.
  quib::Projection twice = a;
  twice.resize({3200, 2400});
  ASSERT_TRUE(a.get_difference(twice, d, 8, 6));
  EXPECT_LT(d.max, 1e-4);
  quib::Projection longer({640, 480}, 2.0, 1.5);
  quib::Projection plain = longer;
  longer.get_matrix_array()[0] *= 1.01;
  ASSERT_TRUE(plain.get_difference(longer, d, 4, 4));
  for (std::size_t k = 0; k < d.points.size(); ++k) {
    EXPECT_NEAR(d.shifts[k].x, 0.01 * (d.points[k].x - 320), 1e-9);
    EXPECT_NEAR(d.shifts[k].y, 0.0, 1e-9);
  }
  EXPECT_NEAR(d.max, 0.01 * 240, 1e-9);
  EXPECT_GT(d.max, d.rms);
  EXPECT_GT(d.rms, d.mean);

  d.rms = -1;
  EXPECT_FALSE(plain.get_difference(quib::Projection(), d));
  EXPECT_FALSE(quib::Projection().get_difference(plain, d));
  EXPECT_FALSE(plain.get_difference(plain, d, 0, 3));
  EXPECT_FALSE(plain.get_difference(plain, d, 2000, 2000));
  EXPECT_EQ(d.rms, -1);
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
