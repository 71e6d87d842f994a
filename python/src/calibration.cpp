// Chessboard calibration from image arrays: views collected one by one, solved into a camera.
#include "common.hpp"

#include <quib/calibration.hpp>

#include <cmath>

namespace quib {
namespace python {
namespace {

/// The collecting calibration: the board, its accepted views, and the size of the last one.
struct PyCalibration {
  Calibration calib;
  Calibration::Info info;
};

/// One solve: everything Calibration::Data holds, and the image size it was solved for.
struct Solved {
  Calibration::Data data;
  Projection::extent_type size;

  Projection camera() const {
    return Projection(size, data.matrix, data.distortion, data.rotation, data.translation);
  }
};

PyCalibration make(int columns, int rows, py::handle square) {
  if (columns < 2 || rows < 2) fail_value("a board has at least 2 x 2 inner corners");
  double w, h;
  if (py::isinstance<py::sequence>(square)) {
    auto s = square.cast<std::vector<double>>();
    if (s.size() != 2) fail_value("square is one size or (width, height)");
    w = s[0];
    h = s[1];
  } else {
    w = h = square.cast<double>();
  }
  if (!(w > 0 && h > 0 && std::isfinite(w) && std::isfinite(h)))
    fail_value("square sizes must be positive and finite");
  return PyCalibration{Calibration(), Calibration::Info(w, h, columns, rows)};
}

/// An image array the board finder can read: 8-bit grey, BGR or BGRA, or 16-bit grey.
Image board_image(py::array const& array) {
  Image image = image_of(array, "a board image");
  const int bits = image.getBits();
  if (bits != 8 && bits != 16 && bits != 24 && bits != 32)
    fail_value("a board image is uint8 (1, 3 or 4 channels) or uint16 (1 channel)");
  if (array.dtype().is(py::dtype::of<float>()))
    fail_value("a board image is uint8 (1, 3 or 4 channels) or uint16 (1 channel), not float32");
  return image;
}

py::array_t<double> doubles(double const* v, py::ssize_t n) {
  return py::array_t<double>(n, v);
}

py::array_t<double> per_view(Solved const& s, double (Calibration::View::*field)[3]) {
  const auto& views = s.data.views;
  py::array_t<double> out({static_cast<py::ssize_t>(views.size()), py::ssize_t(3)});
  auto w = out.mutable_unchecked<2>();
  for (std::size_t i = 0; i < views.size(); ++i)
    for (int j = 0; j < 3; ++j)
      w(static_cast<py::ssize_t>(i), j) = (views[i].*field)[j];
  return out;
}

unsigned int colour(py::handle c) {
  auto v = c.cast<std::vector<int>>();
  if (v.size() != 3) fail_value("color is (blue, green, red)");
  for (int x : v)
    if (x < 0 || x > 255) fail_value("color levels lie in 0..255");
  return static_cast<unsigned>(v[0]) | static_cast<unsigned>(v[1]) << 8 |
         static_cast<unsigned>(v[2]) << 16;
}

}  // namespace

void bind_calibration(py::module_& m) {
  py::class_<Solved>(m, "CameraCalibration", R"doc(
The result of Calibration.solve(): the camera matrix, the distortion (k1, k2, p1, p2), their
standard deviations, the RMS reprojection error, and every view's pose and error. ``camera`` is
a quib.Camera of the calibrated size with one pose over all views; ``save(path)`` writes it as a
camera file (YAML, XML or JSON by the name) that quib.read_camera and the quib tool read.
)doc")
      .def_property_readonly(
          "matrix", [](Solved const& s) { return doubles(s.data.matrix, 9).attr("reshape")(3, 3); })
      .def_property_readonly("distortion",
                             [](Solved const& s) { return doubles(s.data.distortion, 4); })
      .def_property_readonly(
          "matrix_deviation", [](Solved const& s) { return doubles(s.data.matrix_deviation, 4); },
          "Standard deviations of fx, fy, cx, cy, in pixels.")
      .def_property_readonly(
          "distortion_deviation",
          [](Solved const& s) { return doubles(s.data.distortion_deviation, 4); },
          "Standard deviations of k1, k2, p1, p2.")
      .def_property_readonly(
          "error", [](Solved const& s) { return s.data.error; },
          "RMS reprojection error over all corners, in pixels.")
      .def_property_readonly(
          "view_errors",
          [](Solved const& s) {
            py::array_t<double> e(static_cast<py::ssize_t>(s.data.views.size()));
            for (std::size_t i = 0; i < s.data.views.size(); ++i)
              e.mutable_at(static_cast<py::ssize_t>(i)) = s.data.views[i].error;
            return e;
          },
          "Per accepted view, its RMS reprojection error in pixels.")
      .def_property_readonly(
          "rotations", [](Solved const& s) { return per_view(s, &Calibration::View::rotation); },
          "(views, 3): each view's board rotation vector (Rodrigues).")
      .def_property_readonly(
          "translations",
          [](Solved const& s) { return per_view(s, &Calibration::View::translation); },
          "(views, 3): each view's board translation, in the board's length unit.")
      .def_property_readonly("size",
                             [](Solved const& s) { return py::make_tuple(s.size.cx, s.size.cy); })
      .def_property_readonly("camera", &Solved::camera)
      .def(
          "save",
          [](Solved const& s, std::filesystem::path const& path) {
            if (!s.camera().save_setup(wide(path)))
              throw Failure{Failure::write, path.string(), "the camera file could not be written"};
          },
          py::arg("path"))
      .def("__repr__", [](Solved const& s) {
        return "<quib.CameraCalibration fx=" + std::to_string(s.data.matrix[0]) +
               " fy=" + std::to_string(s.data.matrix[4]) +
               " error=" + std::to_string(s.data.error) + " px, " +
               std::to_string(s.data.views.size()) + " views>";
      });

  py::class_<PyCalibration>(m, "Calibration", R"doc(
Calibrates a camera from views of a planar chessboard of ``columns`` x ``rows`` inner corners
whose squares are ``square`` (one size, or (width, height)) in any length unit.

``add(image)`` finds and refines the board's corners in one image array (uint8 grey, BGR or
BGRA, or uint16 grey) and keeps them; it returns False when the whole board is not found. All
views must have one size. ``solve()`` gives a CameraCalibration; it raises quib.ArgumentError
without views or when the solver refuses them (too few, degenerate boards). quib.calibrate()
does both for a list of arrays. ``add`` and ``solve`` release the GIL. One Calibration belongs
to one thread at a time.

    >>> calib = quib.Calibration(10, 7, 24.0)
    >>> found = [calib.add(view) for view in views]
    >>> result = calib.solve()
    >>> result.matrix, result.distortion, result.error
    >>> result.save("camera.yml")
)doc")
      .def(py::init(&make), py::arg("columns") = 10, py::arg("rows") = 7, py::arg("square") = 24.0)
      .def(
          "add",
          [](PyCalibration& c, py::array image) {
            Image view = board_image(image);
            if (c.calib.is() && (c.calib.get_size().cx != view.getWidth() ||
                                 c.calib.get_size().cy != view.getHeight()))
              fail_value("every view has the size of the first (" +
                         std::to_string(c.calib.get_size().cx) + " x " +
                         std::to_string(c.calib.get_size().cy) + ")");
            return guarded([&] {
              py::gil_scoped_release release;
              return c.calib.calibration(c.info, view);
            });
          },
          py::arg("image"))
      .def("solve",
           [](PyCalibration const& c) {
             Solved s{Calibration::Data(), c.calib.get_size()};
             const bool ok = guarded([&] {
               py::gil_scoped_release release;
               return c.calib.get_camera_data(c.info, s.data);
             });
             if (!ok) fail_value("no board views to solve");
             return s;
           })
      .def(
          "reprojection_errors",
          [](PyCalibration const& c, Projection const& camera) {
            std::vector<double> e = guarded([&] {
              py::gil_scoped_release release;
              return c.calib.get_reprojection_errors(c.info, camera);
            });
            return py::array_t<double>(static_cast<py::ssize_t>(e.size()), e.data());
          },
          py::arg("camera"),
          "Each view's RMS reprojection error for a given camera (its pose solved per view).")
      .def(
          "draw_coverage",
          [](PyCalibration const& c, py::array image, py::handle color) {
            Image target = image_of(image, "the picture");
            if (!image.writeable()) fail_value("the picture is read-only");
            if (!guarded([&] { return c.calib.draw_coverage(c.info, target, colour(color)); }))
              fail_value("the picture's format cannot be drawn into");
          },
          py::arg("image"), py::arg("color") = py::make_tuple(0, 0, 255),
          "Draws every detected corner and each view's outline into an image array, in place.")
      .def(
          "draw_residuals",
          [](PyCalibration const& c, py::array image, Solved const& s, double magnification,
             py::handle color) {
            Image target = image_of(image, "the picture");
            if (!image.writeable()) fail_value("the picture is read-only");
            if (!guarded([&] {
                  return c.calib.draw_residuals(c.info, s.data, target, magnification,
                                                colour(color));
                }))
              fail_value(
                  "the picture's format cannot be drawn into, or the result is not of "
                  "these views");
          },
          py::arg("image"), py::arg("result"), py::arg("magnification") = 100.0,
          py::arg("color") = py::make_tuple(0, 0, 255),
          "Draws each corner's reprojection residual, magnified, into an image array in place.")
      .def_property_readonly("views", [](PyCalibration const& c) { return c.info.counts.size(); })
      .def_property_readonly(
          "size",
          [](PyCalibration const& c) {
            return py::make_tuple(c.calib.get_size().cx, c.calib.get_size().cy);
          },
          "(width, height) of the views; (0, 0) before the first.")
      .def_property_readonly(
          "corners",
          [](PyCalibration const& c) {
            const py::ssize_t per = c.info.columns * c.info.rows;
            const py::ssize_t views = static_cast<py::ssize_t>(c.info.counts.size());
            py::array_t<float> out({views, per, py::ssize_t(2)});
            static_assert(sizeof(cv::Point2f) == 2 * sizeof(float), "packed corners");
            if (!c.info.corners.empty())
              std::memcpy(out.mutable_data(), c.info.corners.data(),
                          std::min<std::size_t>(c.info.corners.size(),
                                                static_cast<std::size_t>(views * per)) *
                              sizeof(cv::Point2f));
            return out;
          },
          "(views, columns·rows, 2) float32: the refined corners of every view, in pixels.")
      .def_property_readonly(
          "object_points",
          [](PyCalibration const& c) {
            std::vector<cv::Point3f> p = c.info.get_object_points();
            py::array_t<float> out({static_cast<py::ssize_t>(p.size()), py::ssize_t(3)});
            if (!p.empty()) std::memcpy(out.mutable_data(), p.data(), p.size() * sizeof(p[0]));
            return out;
          },
          "(columns·rows, 3) float32: the board's corners in its own plane, centred.");
}

}  // namespace python
}  // namespace quib
