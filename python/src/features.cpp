// Key points, descriptors, matches and the homography between two image arrays; the traced
// boundaries of the regions of a mask.
#include "common.hpp"

#include <quib/contour.hpp>
#include <quib/feature.hpp>

#include <cmath>
#include <cstddef>
#include <limits>
#include <string>

namespace quib {
namespace python {
namespace {

static_assert(sizeof(cv::KeyPoint) == 28 && offsetof(cv::KeyPoint, class_id) == 24,
              "key points are seven packed 4-byte fields");
static_assert(sizeof(cv::DMatch) == 16 && offsetof(cv::DMatch, distance) == 12,
              "matches are four packed 4-byte fields");
static_assert(sizeof(cv::Point) == 2 * sizeof(int), "contour points are packed int pairs");

/// numpy.dtype of the named fields, made once (and kept to the end of the process).
py::dtype record_dtype(py::object const*& cache, py::list fields) {
  if (!cache) cache = new py::object(py::module_::import("numpy").attr("dtype")(fields));
  return py::reinterpret_borrow<py::dtype>(*cache);
}

/// The NumPy record of one key point, laid out as OpenCV's: pt (x, y), size, angle, response,
/// octave, class_id.
py::dtype keypoint_dtype() {
  static py::object const* cache = nullptr;
  if (cache) return py::reinterpret_borrow<py::dtype>(*cache);
  py::list f;
  f.append(py::make_tuple("pt", "<f4", py::make_tuple(2)));
  for (char const* name : {"size", "angle", "response"})
    f.append(py::make_tuple(name, "<f4"));
  f.append(py::make_tuple("octave", "<i4"));
  f.append(py::make_tuple("class_id", "<i4"));
  return record_dtype(cache, f);
}

/// The NumPy record of one match: queryIdx, trainIdx, imgIdx, distance (as cv2.DMatch).
py::dtype match_dtype() {
  static py::object const* cache = nullptr;
  if (cache) return py::reinterpret_borrow<py::dtype>(*cache);
  py::list f;
  for (char const* name : {"queryIdx", "trainIdx", "imgIdx"})
    f.append(py::make_tuple(name, "<i4"));
  f.append(py::make_tuple("distance", "<f4"));
  return record_dtype(cache, f);
}

/// Copies a record array of `dtype` into a vector of the OpenCV records it mirrors.
template <class Record>
std::vector<Record> records_of(py::handle h, py::dtype const& dtype, char const* what) {
  py::array a = py::array::ensure(h, py::array::c_style);
  if (!a || !a.dtype().equal(dtype) || a.ndim() != 1) {
    PyErr_Clear();
    fail_value(std::string(what) + " must be a 1-D array of dtype " +
               std::string(py::str(static_cast<py::handle>(dtype))) + ", as quib gives them");
  }
  std::vector<Record> out(static_cast<std::size_t>(a.shape(0)));
  if (!out.empty())
    std::memcpy(static_cast<void*>(out.data()), a.data(), out.size() * sizeof(Record));
  return out;
}

std::vector<cv::KeyPoint> keypoints_of(py::handle h, char const* what) {
  return records_of<cv::KeyPoint>(h, keypoint_dtype(), what);
}

std::vector<cv::DMatch> matches_of(py::handle h) {
  return records_of<cv::DMatch>(h, match_dtype(), "matches");
}

/// Descriptors as a (K, bytes) uint8 or (K, n) float32 array, C-contiguous (a view, no copy).
cv::Mat descriptors_of(py::array const& a, char const* what) {
  const bool binary = a.dtype().is(py::dtype::of<std::uint8_t>());
  if (a.ndim() != 2 || !(binary || a.dtype().is(py::dtype::of<float>())) ||
      !(a.flags() & py::array::c_style))
    fail_value(std::string(what) + " must be a C-contiguous (K, n) uint8 or float32 array, not " +
               shape_text(a));
  return cv::Mat(static_cast<int>(a.shape(0)), static_cast<int>(a.shape(1)),
                 binary ? CV_8U : CV_32F, const_cast<void*>(a.data()));
}

py::array descriptor_array(cv::Mat const& d) {
  if (d.empty())
    return py::array_t<std::uint8_t>(std::vector<py::ssize_t>{py::ssize_t(0), py::ssize_t(0)});
  const cv::Mat c = d.isContinuous() ? d : d.clone();
  py::dtype dtype = c.depth() == CV_32F ? py::dtype::of<float>() : py::dtype::of<std::uint8_t>();
  py::array out(dtype, {static_cast<py::ssize_t>(c.rows), static_cast<py::ssize_t>(c.cols)});
  std::memcpy(out.mutable_data(), c.data, c.total() * c.elemSize());
  return out;
}

Feature::match_t matcher_of(std::string const& name) {
  static const std::pair<char const*, Feature::match_t> names[] = {
      {"FlannBased", Feature::MATCH_FLANN_BASED},
      {"BruteForce", Feature::MATCH_BRUTE_FORCE},
      {"BruteForce-SL2", Feature::MATCH_BRUTE_FORCE_SL2},
      {"BruteForce-L1", Feature::MATCH_BRUTE_FORCE_L1},
      {"BruteForce-Hamming", Feature::MATCH_BRUTE_FORCE_HAMMING},
      {"BruteForce-Hamming(2)", Feature::MATCH_BRUTE_FORCE_HAMMING2}};
  for (auto const& n : names)
    if (name == n.first) return n.second;
  fail_value(
      "matcher is one of FlannBased, BruteForce, BruteForce-SL2, BruteForce-L1, "
      "BruteForce-Hamming, BruteForce-Hamming(2); not \"" +
      name + "\"");
}

Feature::find_t method_of(std::string const& name) {
  if (name == "ransac") return Feature::FIND_RANSAC;
  if (name == "lmeds") return Feature::FIND_LMEDS;
  if (name == "all") return Feature::FIND_ALL_POINTS;
  fail_value("method is \"ransac\", \"lmeds\" or \"all\", not \"" + name + "\"");
}

py::array_t<double> homography_array(cv::Mat const& h) {
  py::array_t<double> out({py::ssize_t(3), py::ssize_t(3)});
  if (h.rows == 3 && h.cols == 3 && h.type() == CV_64F) {
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j)
        out.mutable_at(i, j) = h.at<double>(i, j);
  } else {
    std::fill(out.mutable_data(), out.mutable_data() + 9, std::nan(""));
  }
  return out;
}

/// What find() gives back: the homography (NaN when none) and how well it is supported.
struct Registration {
  bool ok = false;
  cv::Mat homography;
  Feature::Data data;
};

/// A tracer and where its scan stands; iterating it yields one region after another.
struct PyTracer {
  ocv::ContourTracer tracer;
  cv::Point position{0, 0};
  int blank = 0;
  py::object image;  // the caller's mask array when it was given (the tracer writes into it)
};

py::array_t<std::int32_t> contour_array(std::vector<cv::Point> const& c) {
  py::array_t<std::int32_t> out({static_cast<py::ssize_t>(c.size()), py::ssize_t(2)});
  if (!c.empty()) std::memcpy(out.mutable_data(), c.data(), c.size() * sizeof(cv::Point));
  return out;
}

cv::Mat mask_of(py::array const& a, char const* what) {
  if (a.ndim() != 2 || !a.dtype().is(py::dtype::of<std::uint8_t>()))
    fail_value(std::string(what) + " must be a 2-D uint8 array, not " + shape_text(a) + " " +
               std::string(py::str(a.dtype())));
  return mat_of(a, what);
}

PyTracer make_tracer(py::array image, py::object mask, int blank) {
  if (blank < 0 || blank > 255) fail_value("blank is a uint8 value");
  cv::Mat base = mask_of(image, "image");
  PyTracer t;
  t.blank = blank;
  if (mask.is_none()) {
    t.tracer = ocv::ContourTracer(base);
  } else {
    py::array m = mask.cast<py::array>();
    if (!m.writeable()) fail_value("mask is read-only");
    cv::Mat shared = mask_of(m, "mask");
    if (shared.size() != base.size()) fail_value("mask must have the image's shape");
    t.tracer = ocv::ContourTracer(base, shared);
    t.image = m;
  }
  if (t.tracer.empty()) fail_value("an empty image has no regions");
  return t;
}

py::object next_contour(PyTracer& t) {
  std::vector<cv::Point> contour;
  bool found;
  {
    py::gil_scoped_release release;
    found = t.tracer.search(contour, t.position, static_cast<unsigned char>(t.blank));
  }
  if (!found) return py::none();
  return contour_array(contour);
}

}  // namespace

void bind_features(py::module_& m) {
  m.attr("KEYPOINT_DTYPE") = keypoint_dtype();
  m.attr("MATCH_DTYPE") = match_dtype();

  py::class_<Registration>(m, "Registration", R"doc(
What Feature.find() measured: ``homography`` (3, 3) float64 mapping image 1 onto image 2 (NaN
when none was found), ``ok``, the key point counts, the matches handed to the fit, the
``inliers`` within 3 pixels and their ``rms`` transfer error. Fewer inliers than
``Feature.MINIMUM_INLIERS`` (30) should not be trusted.
)doc")
      .def_readonly("ok", &Registration::ok)
      .def_property_readonly("homography",
                             [](Registration const& r) { return homography_array(r.homography); })
      .def_property_readonly("keypoints1", [](Registration const& r) { return r.data.keypoints1; })
      .def_property_readonly("keypoints2", [](Registration const& r) { return r.data.keypoints2; })
      .def_property_readonly("matches", [](Registration const& r) { return r.data.matches; })
      .def_property_readonly("inliers", [](Registration const& r) { return r.data.inliers; })
      .def_property_readonly("rms", [](Registration const& r) { return r.data.error; })
      .def("__repr__", [](Registration const& r) {
        return "<quib.Registration " + std::string(r.ok ? "" : "(none) ") +
               std::to_string(r.data.inliers) + " inliers of " + std::to_string(r.data.matches) +
               " matches, rms " + std::to_string(r.data.error) + " px>";
      });

  py::class_<Feature>(m, "Feature", R"doc(
Registers images by local features: AKAZE key points with binary (MLDB) descriptors, a
descriptor matcher, two plausibility filters and the homography fit.

Images are arrays (uint8, uint16 or float32; 1, 3 or 4 channels), read in place. Key points
come as a record array of ``quib.KEYPOINT_DTYPE`` (the fields of cv2.KeyPoint: ``pt`` (x, y),
``size``, ``angle``, ``response``, ``octave``, ``class_id``), so ``keypoints["pt"]`` is (K, 2);
descriptors as (K, 61) uint8; matches as a record array of ``quib.MATCH_DTYPE`` (queryIdx,
trainIdx, imgIdx, distance, as cv2.DMatch). Nothing found gives empty arrays, not
exceptions. Matchers are named as in cv2.DescriptorMatcher_create. Every call releases the
GIL; one Feature belongs to one thread at a time (AKAZE itself uses OpenCV's threads).

    >>> feature = quib.Feature()
    >>> r = feature.find(before, after, limit=40, ratio=2)
    >>> if r.ok and r.inliers >= quib.Feature.MINIMUM_INLIERS: h = r.homography
)doc")
      .def(py::init<>())
      .def_property_readonly_static("MINIMUM_INLIERS",
                                    [](py::object) { return Feature::kMinimumInliers; })
      .def(
          "detect",
          [](Feature& f, py::array image) {
            cv::Mat in = mat_of(image);
            std::vector<cv::KeyPoint> k;
            guarded([&] {
              py::gil_scoped_release release;
              return f.detect(k, in);
            });
            return records(k, keypoint_dtype());
          },
          py::arg("image"), "The key points of an image array.")
      .def(
          "compute",
          [](Feature& f, py::array image, py::handle keypoints) {
            cv::Mat in = mat_of(image);
            std::vector<cv::KeyPoint> k = keypoints_of(keypoints, "keypoints");
            cv::Mat d;
            guarded([&] {
              py::gil_scoped_release release;
              return f.compute(d, k, in);
            });
            return py::make_tuple(records(k, keypoint_dtype()), descriptor_array(d));
          },
          py::arg("image"), py::arg("keypoints"),
          "(keypoints, descriptors) for key points from detect() (the engine may drop some).")
      .def(
          "detect_and_compute",
          [](Feature& f, py::array image) {
            cv::Mat in = mat_of(image);
            std::vector<cv::KeyPoint> k;
            cv::Mat d;
            guarded([&] {
              py::gil_scoped_release release;
              return f.detect_and_compute(k, d, in);
            });
            return py::make_tuple(records(k, keypoint_dtype()), descriptor_array(d));
          },
          py::arg("image"), "(keypoints, descriptors) in one pass over the image.")
      .def(
          "match",
          [](Feature const& f, py::array d1, py::array d2, std::string const& matcher,
             py::object ratio) {
            cv::Mat a = descriptors_of(d1, "descriptors1"), b = descriptors_of(d2, "descriptors2");
            const Feature::match_t type = matcher_of(matcher);
            std::vector<cv::DMatch> out;
            guarded([&] {
              py::gil_scoped_release release;
              if (ratio.is_none()) return f.match(out, a, b, type);
              return f.match_ratio(out, a, b, type, ratio.cast<double>());
            });
            return records(out, match_dtype());
          },
          py::arg("descriptors1"), py::arg("descriptors2"),
          py::arg("matcher") = "BruteForce-Hamming", py::arg("ratio") = py::none(), R"doc(
The best match in descriptors2 for every descriptor of descriptors1; with ``ratio`` (0.8 is
usual) Lowe's ratio test keeps only matches clearly better than the second best.
)doc")
      .def(
          "cross_check",
          [](Feature const& f, py::handle forward, py::handle backward) {
            std::vector<cv::DMatch> out, fw = matches_of(forward), bw = matches_of(backward);
            static_cast<void>(f.extract_cross_match(out, fw, bw));
            return records(out, match_dtype());
          },
          py::arg("forward"), py::arg("backward"),
          "The forward matches (1 to 2) that the backward matches (2 to 1) confirm.")
      .def(
          "find_homography",
          [](Feature const& f, py::handle k1, py::handle k2, py::handle matches,
             std::string const& method) {
            std::vector<cv::KeyPoint> a = keypoints_of(k1, "keypoints1"),
                                      b = keypoints_of(k2, "keypoints2");
            std::vector<cv::DMatch> mm = matches_of(matches);
            const Feature::find_t how = method_of(method);
            cv::Mat h;
            guarded([&] {
              py::gil_scoped_release release;
              return f.find_perspective_matrix(h, a, b, mm, how);
            });
            const auto [inliers, rms] = Feature::measure_inliers(h, a, b, mm);
            return py::make_tuple(homography_array(h), inliers, rms);
          },
          py::arg("keypoints1"), py::arg("keypoints2"), py::arg("matches"),
          py::arg("method") = "ransac", R"doc(
Fits the homography from image 1 to image 2 to matched key points ("ransac", "lmeds" or "all"
points): ``(homography, inliers, rms)``; NaN and 0 inliers when no pair is usable. Fewer than
four pairs raise quib.ArgumentError.
)doc")
      .def(
          "find",
          [](Feature& f, py::array image1, py::array image2, double limit, double ratio,
             std::string const& matcher, std::string const& method) {
            cv::Mat a = mat_of(image1, "image1"), b = mat_of(image2, "image2");
            const Feature::match_t type = matcher_of(matcher);
            const Feature::find_t how = method_of(method);
            Registration r;
            py::gil_scoped_release release;
            try {
              r.ok = f.find(r.homography, r.data, a, b, limit, ratio, type, how);
            } catch (cv::Exception const&) {
              r.ok = false;  // too few matches for a homography: reported, not raised
            }
            if (!r.ok) r.homography.release();
            return r;
          },
          py::arg("image1"), py::arg("image2"), py::arg("limit") = 1e9, py::arg("ratio") = 2.0,
          py::arg("matcher") = "BruteForce-Hamming", py::arg("method") = "ransac", R"doc(
The whole registration of image1 onto image2: detect and describe both, match, keep matches
whose key points lie at most ``limit`` pixels apart and whose distance is at most ``ratio``
times the mean, fit the homography. Returns a Registration (``ok`` False when no homography
was found, also for too few matches).
)doc");

  py::class_<PyTracer>(m, "ContourTracer", R"doc(
Traces the outer boundaries of the 8-connected foreground regions of a 2-D uint8 array (every
pixel that differs from ``blank``), one region after another in row order. Iterating yields
each boundary as a (K, 2) int32 array of (x, y) pixels, each listed once in the order of the
trace; each traced region (with everything it encloses) is then marked 255 in ``mask``, so
nothing inside it starts another trace. The tracer copies the image; a ``mask`` array given to
the constructor is used in place (pixels of 255 are never entered) and receives the marks.
Raises quib.ArgumentError for an array that is not 2-D uint8, or an empty one. One tracer
belongs to one thread at a time; each search releases the GIL.

    >>> regions = list(quib.ContourTracer(binary))          # or quib.find_contours(binary)
    >>> [len(r) for r in regions]
)doc")
      .def(py::init(&make_tracer), py::arg("image"), py::arg("mask") = py::none(),
           py::arg("blank") = 0)
      .def("__iter__", [](py::object self) { return self; })
      .def("__next__",
           [](PyTracer& t) {
             py::object c = next_contour(t);
             if (c.is_none()) throw py::stop_iteration();
             return c;
           })
      .def_property_readonly(
          "position", [](PyTracer const& t) { return py::make_tuple(t.position.x, t.position.y); },
          "(x, y) where the next search starts.")
      .def_property_readonly(
          "mask",
          [](py::object self) {
            PyTracer& t = self.cast<PyTracer&>();
            cv::Mat mask = t.tracer.mask();
            return py::array_t<std::uint8_t>(
                {static_cast<py::ssize_t>(mask.rows), static_cast<py::ssize_t>(mask.cols)},
                {static_cast<py::ssize_t>(mask.step[0]), py::ssize_t(1)}, mask.data, self);
          },
          "The tracer's mask (a view that keeps the tracer alive): 255 over the traced regions, "
          "visit counts along their boundaries.");
  m.def(
      "find_contours",
      [](py::array image, int blank) {
        PyTracer t = make_tracer(std::move(image), py::none(), blank);
        py::list out;
        for (py::object c = next_contour(t); !c.is_none(); c = next_contour(t))
          out.append(c);
        return out;
      },
      py::arg("image"), py::arg("blank") = 0,
      "Every region's boundary in a 2-D uint8 array, as ContourTracer yields them: a list of "
      "(K, 2) int32 arrays of (x, y).");
  m.def(
      "fill_contour",
      [](py::array target, py::handle contour, int value, int background) {
        if (!target.writeable()) fail_value("target is read-only");
        cv::Mat t = mask_of(target, "target");
        auto c =
            py::array_t<std::int32_t, py::array::c_style | py::array::forcecast>::ensure(contour);
        if (!c || c.ndim() != 2 || c.shape(1) != 2) {
          PyErr_Clear();
          fail_value("contour must be a (K, 2) array of (x, y)");
        }
        if (value < 0 || value > 255 || background < 0 || background > 255)
          fail_value("value and background are uint8 values");
        std::vector<cv::Point> pts(static_cast<std::size_t>(c.shape(0)));
        for (std::size_t i = 0; i < pts.size(); ++i)
          pts[i] = cv::Point(c.data()[2 * i], c.data()[2 * i + 1]);
        ocv::ContourTracer tracer;
        return tracer.fill(t, pts, static_cast<unsigned char>(value),
                           static_cast<unsigned char>(background));
      },
      py::arg("target"), py::arg("contour"), py::arg("value") = 255, py::arg("background") = 0,
      "Fills the polygon of a (K, 2) contour (inside and outline) into a 2-D uint8 array in "
      "place; False when it covers no pixel of the array.");
}

}  // namespace python
}  // namespace quib
