// The camera model: camera files, and undistortion of point arrays and images.
#include "common.hpp"

#include <quib/ocv.hpp>
#include <quib/projection.hpp>

namespace quib {
namespace python {
namespace {

Projection load_camera(std::filesystem::path const& path) {
  Projection p;
  if (!p.load_setup(path.string())) fail_read(path, "not a camera file");
  return p;
}

py::array_t<double> matrix_of(double const* v, py::ssize_t rows, py::ssize_t cols) {
  py::array_t<double> a({rows, cols});
  std::memcpy(a.mutable_data(), v, static_cast<std::size_t>(rows * cols) * sizeof(double));
  return a;
}

}  // namespace

void bind_vision(py::module_& m) {
  py::class_<Projection>(m, "Camera", R"doc(
A camera model: camera matrix, lens distortion (k1, k2, p1, p2) and one pose, as read from a
camera file written by calibration. ``quib.read_camera(path)`` loads one (FileNotFoundError,
quib.FormatError). One camera belongs to one thread at a time.

    >>> camera = quib.read_camera("camera.yml")
    >>> normalised = camera.undistort_points(pixels)       # (N, 2) -> (N, 2)
)doc")
      .def(py::init([](int width, int height, py::handle matrix, py::handle distortion) {
             auto k = py::array_t<double>::ensure(matrix);
             auto d = py::array_t<double>::ensure(distortion);
             if (!k || k.size() != 9) fail_value("matrix must hold 9 numbers (3x3)");
             if (!d || d.size() != 4) fail_value("distortion must hold 4 numbers (k1, k2, p1, p2)");
             double kk[9], dd[4];
             auto kc = py::array_t<double, py::array::c_style>::ensure(k);
             auto dc = py::array_t<double, py::array::c_style>::ensure(d);
             std::memcpy(kk, kc.data(), sizeof kk);
             std::memcpy(dd, dc.data(), sizeof dd);
             const double zero[3] = {0, 0, 0};
             return Projection(Projection::extent_type(width, height), kk, dd, zero, zero);
           }),
           py::arg("width"), py::arg("height"), py::arg("matrix"), py::arg("distortion"))
      .def_property_readonly(
          "size",
          [](Projection const& p) { return py::make_tuple(p.get_size().cx, p.get_size().cy); },
          "(width, height)")
      .def_property_readonly(
          "matrix", [](Projection const& p) { return matrix_of(p.get_matrix_array(), 3, 3); })
      .def_property_readonly(
          "distortion",
          [](Projection const& p) { return py::array_t<double>(4, p.get_distortion_array()); })
      .def(
          "save",
          [](Projection const& p, std::filesystem::path const& path) {
            if (!p.save_setup(path.string()))
              throw Failure{Failure::write, path.string(), "the camera file could not be written"};
          },
          py::arg("path"))
      .def(
          "undistort_points",
          [](Projection const& p, py::handle points) {
            std::vector<Eigen::Matrix<double, 2, 1>> src =
                points_of<Eigen::Matrix<double, 2, 1>>(points, "points");
            std::vector<Eigen::Matrix<double, 2, 1>> dst;
            {
              py::gil_scoped_release release;
              p.undistort(src, dst);
            }
            py::array_t<double> out({static_cast<py::ssize_t>(dst.size()), py::ssize_t(2)});
            if (!dst.empty())
              std::memcpy(out.mutable_data(), dst.data(), dst.size() * sizeof(dst[0]));
            return out;
          },
          py::arg("points"), "Undistorts (N, 2) pixel points into normalised camera coordinates.")
      .def(
          "undistort",
          [](Projection const& p, py::array image) {
            cv::Mat in = mat_of(image);
            py::array dst(image.dtype(),
                          std::vector<py::ssize_t>(image.shape(), image.shape() + image.ndim()));
            cv::Mat out(in.rows, in.cols, in.type(), dst.mutable_data());
            guarded([&] {
              py::gil_scoped_release release;
              cv::Mat result;
              p.undistort(in, result);
              result.copyTo(out);
            });
            return dst;
          },
          py::arg("image"),
          "Undistorts an image array (uint8, uint16 or float32; 1, 3 or 4 channels); returns a "
          "new C-contiguous array of the same shape. Releases the GIL.")
      .def_property_readonly(
          "rotation",
          [](Projection const& p) { return py::array_t<double>(3, p.get_rotation_array()); },
          "The pose's rotation vector (Rodrigues), as calibration gives it.")
      .def_property_readonly(
          "translation",
          [](Projection const& p) { return py::array_t<double>(3, p.get_translation_array()); })
      .def(
          "difference",
          [](Projection const& p, Projection const& other, int columns, int rows) {
            Projection::Difference d;
            bool ok;
            {
              py::gil_scoped_release release;
              ok = p.get_difference(other, d, columns, rows);
            }
            if (!ok)
              fail_value("no comparison: a camera without size, or a grid of " +
                         std::to_string(columns) + " x " + std::to_string(rows) + " samples");
            static_assert(sizeof(cv::Point2d) == 2 * sizeof(double), "packed points");
            auto grid = [&](std::vector<cv::Point2d> const& v) {
              py::array_t<double> a({static_cast<py::ssize_t>(d.rows),
                                     static_cast<py::ssize_t>(d.columns), py::ssize_t(2)});
              if (!v.empty()) std::memcpy(a.mutable_data(), v.data(), v.size() * sizeof(v[0]));
              return a;
            };
            py::dict out;
            out["points"] = grid(d.points);
            out["shifts"] = grid(d.shifts);
            out["unreached"] = d.unreached;
            out["rms"] = d.rms;
            out["mean"] = d.mean;
            out["max"] = d.max;
            return out;
          },
          py::arg("other"), py::arg("columns") = 32, py::arg("rows") = 24, R"doc(
Where ``other`` images the ray this camera images at each sample of a columns x rows grid of
cell centres: a dict of ``points`` and ``shifts`` ((rows, columns, 2) pixels; a shift is NaN
where no ray of this camera arrives), ``unreached`` (their count) and ``rms`` / ``mean`` /
``max`` of the shift lengths. Poses take no part. Raises quib.ArgumentError for a camera
without size or a grid of more than a million samples.
)doc");
  m.def(
      "to_bgr",
      [](py::array image) {
        const Image src = image_of(image);
        py::array_t<std::uint8_t> out(
            {py::ssize_t(src.getHeight()), py::ssize_t(src.getWidth()), py::ssize_t(3)});
        bool ok;
        {
          py::gil_scoped_release release;
          ocv::unique_ipl bgr = ocv::make_unique_ipl(ocv::createIpl_bgr2(src));
          ok = bgr != nullptr;
          const std::size_t row = static_cast<std::size_t>(src.getWidth()) * 3;
          for (int y = 0; ok && y < src.getHeight(); ++y)
            std::memcpy(out.mutable_data() + static_cast<std::size_t>(y) * row,
                        bgr->imageData + static_cast<std::ptrdiff_t>(y) * bgr->widthStep, row);
        }
        if (!ok) fail_value("an image of this format has no BGR form (float32, or 16-bit colour)");
        return out;
      },
      py::arg("image"), R"doc(
The image as 8-bit BGR (rows, columns, 3), as the library hands images to OpenCV's colour
calls: grey levels repeated (16-bit grey scaled to 8 bits), BGRA without its alpha. uint8 with
1, 3 or 4 channels and uint16 grey are converted; other arrays raise quib.ArgumentError.
)doc");
  m.def("read_camera", &load_camera, py::arg("path"), py::call_guard<py::gil_scoped_release>());
}

}  // namespace python
}  // namespace quib
