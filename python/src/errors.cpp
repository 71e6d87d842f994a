// Failures of library calls as Python exceptions, and the helpers every binding shares.
#include "common.hpp"

#include <cerrno>
#include <cstring>
#include <system_error>

namespace quib {
namespace python {

void fail_read(std::filesystem::path const& path, std::string reason) {
  std::error_code ec;
  const auto status = std::filesystem::status(path, ec);
  if (status.type() == std::filesystem::file_type::not_found)
    throw Failure{Failure::not_found, path.string(), std::strerror(ENOENT)};
  if (status.type() == std::filesystem::file_type::directory)
    throw Failure{Failure::is_directory, path.string(), std::strerror(EISDIR)};
  throw Failure{Failure::format, path.string(), std::move(reason)};
}

void fail_value(std::string reason) {
  throw Failure{Failure::value, std::string(), std::move(reason)};
}

std::wstring wide(std::filesystem::path const& path) {
  return path.wstring();
}

std::string shape_text(py::array const& a) {
  std::string s = "(";
  for (py::ssize_t i = 0; i < a.ndim(); ++i)
    s += (i ? ", " : "") + std::to_string(a.shape(i));
  return s + (a.ndim() == 1 ? ",)" : ")");
}

py::array_t<double> point_array(py::handle points, py::ssize_t dims, char const* what) {
  py::array_t<double> a;
  try {
    a = py::array_t<double>::ensure(points);
  } catch (py::error_already_set&) {
    a = py::array_t<double>();
  }
  if (!a) {
    PyErr_Clear();
    fail_value(std::string(what) + " must be an array of numbers of shape (N, " +
               std::to_string(dims) + ")");
  }
  if (a.ndim() != 2 || a.shape(1) != dims)
    fail_value(std::string(what) + " must have shape (N, " + std::to_string(dims) + "), not " +
               shape_text(a));
  return a;
}

std::vector<double> weights_of(py::handle weights, py::ssize_t count) {
  if (weights.is_none()) return {};
  auto a = py::array_t<double>::ensure(weights);
  if (!a) {
    PyErr_Clear();
    fail_value("weights must be an array of numbers of shape (N,)");
  }
  if (a.ndim() != 1 || a.shape(0) != count)
    fail_value("weights must have shape (" + std::to_string(count) + ",), one per point, not " +
               shape_text(a));
  std::vector<double> w(static_cast<std::size_t>(count));
  auto const* data = reinterpret_cast<unsigned char const*>(a.data());
  const py::ssize_t stride = a.strides(0);
  py::gil_scoped_release release;
  for (py::ssize_t i = 0; i < count; ++i)
    std::memcpy(&w[static_cast<std::size_t>(i)], data + i * stride, sizeof(double));
  return w;
}

void bind_errors(py::module_& m) {
  (void)m;
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (Failure const& f) {
      py::module_ errors = py::module_::import("quib.errors");
      char const* name = "FormatError";
      switch (f.kind) {
        case Failure::not_found:
          name = "NotFoundError";
          break;
        case Failure::is_directory:
          name = "IsADirectoryError";
          break;
        case Failure::format:
          name = "FormatError";
          break;
        case Failure::write:
          name = "WriteError";
          break;
        case Failure::value:
          name = "ArgumentError";
          break;
      }
      py::object error = errors.attr("make")(name, f.path, f.reason);
      PyErr_SetObject(error.get_type().ptr(), error.ptr());
    }
  });
}

}  // namespace python
}  // namespace quib
