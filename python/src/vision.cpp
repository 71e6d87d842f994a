// The camera model: camera files, and undistortion of point arrays and images.
#include "common.hpp"

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
            py::array src = py::array::ensure(image, py::array::c_style);
            if (!src || src.ndim() < 2 || src.ndim() > 3)
              fail_value("an image array has shape (rows, columns[, channels])");
            int depth;
            if (src.dtype().is(py::dtype::of<std::uint8_t>()))
              depth = CV_8U;
            else if (src.dtype().is(py::dtype::of<std::uint16_t>()))
              depth = CV_16U;
            else if (src.dtype().is(py::dtype::of<float>()))
              depth = CV_32F;
            else
              fail_value("an image array has dtype uint8, uint16 or float32");
            const int channels = src.ndim() == 3 ? static_cast<int>(src.shape(2)) : 1;
            if (channels < 1 || channels > 4) fail_value("an image has 1 to 4 channels");
            py::array dst(src.dtype(),
                          std::vector<py::ssize_t>(src.shape(), src.shape() + src.ndim()));
            cv::Mat in(static_cast<int>(src.shape(0)), static_cast<int>(src.shape(1)),
                       CV_MAKETYPE(depth, channels), const_cast<void*>(src.data()));
            cv::Mat out(in.rows, in.cols, in.type(), dst.mutable_data());
            {
              py::gil_scoped_release release;
              cv::Mat result;
              p.undistort(in, result);
              result.copyTo(out);
            }
            return dst;
          },
          py::arg("image"), "Undistorts an image array; returns a new array of the same shape.");
  m.def("read_camera", &load_camera, py::arg("path"), py::call_guard<py::gil_scoped_release>());
}

}  // namespace python
}  // namespace quib
