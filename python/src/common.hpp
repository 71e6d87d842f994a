// Shared pieces of the Python module: failures that become Python exceptions, paths, arrays.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include <quib/image.hpp>

#include <opencv2/core.hpp>

#include "system/memory.hpp"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace quib {
namespace python {

namespace py = pybind11;

/// A failure of a library call, raised as an exception of the quib.Error family (see
/// quib/errors.py) once the module is back in Python: the file, and the reason in words.
struct Failure {
  enum kind_t { not_found, is_directory, format, write, value };
  kind_t kind;
  std::string path;
  std::string reason;
};

/// Raises the failure of reading `path`: FileNotFoundError when nothing is there,
/// IsADirectoryError for a folder, otherwise quib.FormatError with `reason`.
[[noreturn]] void fail_read(std::filesystem::path const& path, std::string reason);
/// Raises ValueError (quib.ArgumentError) with `reason`.
[[noreturn]] void fail_value(std::string reason);

/// The library's wide path of a file name given as str, bytes or os.PathLike.
std::wstring wide(std::filesystem::path const& path);

/// "(3, 2)" for error messages.
std::string shape_text(py::array const& a);

/// Points as a read-only float64 array of shape (N, D): any real array or nested sequence is
/// converted (one copy only when the dtype differs); other shapes raise ValueError.
py::array_t<double> point_array(py::handle points, py::ssize_t dims, char const* what);

/// Copies the rows of an (N, D) float64 array into a vector of Eigen points. Needs no GIL.
template <class Point>
std::vector<Point> to_points(double const* data, py::ssize_t rows, py::ssize_t row_stride,
                             py::ssize_t col_stride) {
  std::vector<Point> out(static_cast<std::size_t>(rows));
  constexpr int D = Point::RowsAtCompileTime;
  if (row_stride == D * py::ssize_t(sizeof(double)) && col_stride == py::ssize_t(sizeof(double))) {
    // Eigen points are plain arrays of D doubles. Large copies go to huge pages: a tenth of the
    // time of a 10-million-point fit is otherwise spent faulting in the copy's pages.
    detail::advise_huge_pages(out.data(), out.size() * sizeof(Point));
    if (rows > 0)
      std::memcpy(static_cast<void*>(out.data()), data,
                  static_cast<std::size_t>(rows) * sizeof(Point));
    return out;
  }
  auto const* bytes = reinterpret_cast<unsigned char const*>(data);
  for (py::ssize_t i = 0; i < rows; ++i)
    for (int j = 0; j < D; ++j)
      std::memcpy(&out[static_cast<std::size_t>(i)][j], bytes + i * row_stride + j * col_stride,
                  sizeof(double));
  return out;
}

/// Points given from Python as a vector, read with the GIL released.
template <class Point>
std::vector<Point> points_of(py::handle points, char const* what) {
  constexpr int D = Point::RowsAtCompileTime;
  py::array_t<double> a = point_array(points, D, what);
  double const* data = a.data();
  const py::ssize_t rows = a.shape(0), rs = a.strides(0), cs = a.strides(1);
  py::gil_scoped_release release;
  return to_points<Point>(data, rows, rs, cs);
}

/// Points given from Python for a fit that reads caller memory: the array's own memory when it
/// is C-contiguous float64 aligned as `Point` asks (16 bytes for 2-D points, which Eigen moves
/// with aligned instructions), otherwise one copy made without the GIL.
template <class Point>
struct PointView {
  py::array_t<double> array;  // keeps the points alive
  std::vector<Point> copy;    // the points, when the array cannot be read in place
  Point const* data = nullptr;
  std::size_t count = 0;
};

template <class Point>
PointView<Point> fit_points(py::handle points, char const* what) {
  constexpr int D = Point::RowsAtCompileTime;
  PointView<Point> v;
  v.array = point_array(points, D, what);
  const py::ssize_t rows = v.array.shape(0), rs = v.array.strides(0), cs = v.array.strides(1);
  double const* data = v.array.data();
  const bool packed =
      rows <= 1 || (rs == D * py::ssize_t(sizeof(double)) && cs == py::ssize_t(sizeof(double)));
  const bool aligned = reinterpret_cast<std::uintptr_t>(data) % alignof(Point) == 0;
  v.count = static_cast<std::size_t>(rows);
  if (packed && aligned) {
    v.data = reinterpret_cast<Point const*>(data);
  } else {
    py::gil_scoped_release release;
    v.copy = to_points<Point>(data, rows, rs, cs);
    v.data = v.copy.data();
  }
  return v;
}

/// An optional weight array of length N as a vector; empty when `weights` is None.
std::vector<double> weights_of(py::handle weights, py::ssize_t count);

/// A NumPy array over the pixels of an image the library made; the array keeps them alive.
py::array image_array(Image&& image);

/// A library image over the pixels of a uint8 / uint16 / float32 array (rows, columns[, 1, 3
/// or 4 channels]) whose pixels are contiguous within a row: no copy, valid while the array
/// lives. Other arrays raise quib.ArgumentError naming `what`.
Image image_of(py::array const& array, char const* what = "an image array");

/// A cv::Mat header over an image array's pixels (no copy), under the same conditions.
cv::Mat mat_of(py::array const& array, char const* what = "an image array");

/// A C-contiguous array of `count` rows of `Record` (no copy) for a record vector the caller
/// fills; `dtype` describes one record.
template <class Record>
py::array records(std::vector<Record> const& v, py::dtype const& dtype) {
  py::array out(dtype, std::vector<py::ssize_t>{static_cast<py::ssize_t>(v.size())});
  if (!v.empty())
    std::memcpy(out.mutable_data(), static_cast<void const*>(v.data()), v.size() * sizeof(Record));
  return out;
}

/// Runs `call`, turning an OpenCV exception into quib.ArgumentError with its message.
template <class Call>
auto guarded(Call&& call) -> decltype(call()) {
  try {
    return call();
  } catch (cv::Exception const& e) {
    fail_value(e.err.empty() ? std::string(e.what()) : e.err);
  }
}

void bind_errors(py::module_& m);
void bind_image(py::module_& m);
void bind_numeric(py::module_& m);
void bind_formats(py::module_& m);
void bind_system(py::module_& m);
void bind_vision(py::module_& m);
void bind_calibration(py::module_& m);
void bind_features(py::module_& m);
void bind_statistics(py::module_& m);

}  // namespace python
}  // namespace quib
