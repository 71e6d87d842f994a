// Hashing of any bytes-like object, and numbered file names.
#include "common.hpp"

#include <quib/hash.hpp>
#include <quib/path.hpp>

#include <cstdio>

namespace quib {
namespace python {
namespace {

/// The bytes of a bytes-like object (bytes, bytearray, memoryview, a contiguous NumPy array)
/// as a byte vector; a str gives its UTF-8 bytes. The copy is made without the GIL.
std::vector<unsigned char> bytes_of(py::handle data) {
  if (py::isinstance<py::str>(data)) {
    std::string s = data.cast<std::string>();
    return std::vector<unsigned char>(s.begin(), s.end());
  }
  Py_buffer view;
  if (PyObject_GetBuffer(data.ptr(), &view, PyBUF_C_CONTIGUOUS) != 0) {
    PyErr_Clear();
    fail_value(std::string("expected a bytes-like object or str, not ") +
               Py_TYPE(data.ptr())->tp_name);
  }
  std::vector<unsigned char> out;
  {
    py::gil_scoped_release release;
    auto const* p = static_cast<unsigned char const*>(view.buf);
    out.assign(p, p + view.len);
  }
  PyBuffer_Release(&view);
  return out;
}

std::string hex(std::vector<unsigned char> const& bytes) {
  std::string s(bytes.size() * 2, '0');
  for (std::size_t i = 0; i < bytes.size(); ++i)
    std::snprintf(&s[2 * i], 3, "%02x", bytes[i]);
  return s;
}

}  // namespace

void bind_system(py::module_& m) {
  m.def(
      "sha256",
      [](py::handle data) {
        std::vector<unsigned char> in = bytes_of(data);
        std::vector<unsigned char> out;
        bool ok;
        {
          py::gil_scoped_release release;
          ok = sha256::compute(out, in);
        }
        if (!ok) throw Failure{Failure::value, std::string(), "the SHA-256 engine failed"};
        return hex(out);
      },
      py::arg("data"), R"doc(
The SHA-256 digest of a bytes-like object (or of a str's UTF-8 bytes) as 64 lower-case hex
digits, as hashlib.sha256(data).hexdigest() gives it. Releases the GIL while hashing.
)doc");
  m.def(
      "hash64",
      [](py::handle data) {
        if (py::isinstance<py::str>(data)) {
          std::wstring w = data.cast<std::wstring>();
          std::wstring h = hash::compute(w);
          return std::string(h.begin(), h.end());
        }
        std::vector<unsigned char> in = bytes_of(data);
        std::vector<unsigned char> out;
        {
          py::gil_scoped_release release;
          hash::compute(out, in);
        }
        return hex(out);
      },
      py::arg("data"), R"doc(
The library's fast 64-bit hash (not for security) as 16 hex digits: of the bytes of a
bytes-like object, or of a str's UTF-16 code units (as the library hashes wide strings).
)doc");

  m.def("add_suffix_number",
        py::overload_cast<std::string const&, std::int64_t>(&add_suffix_number), py::arg("path"),
        py::arg("n"));
  m.def("get_suffix_number", py::overload_cast<std::string const&>(&get_suffix_number),
        py::arg("path"));
  m.def("sub_suffix_number", py::overload_cast<std::string const&>(&sub_suffix_number),
        py::arg("path"));
  m.def("add_sharp_number", py::overload_cast<std::string const&, std::int64_t>(&add_sharp_number),
        py::arg("path"), py::arg("n"));
  m.def("get_sharp_number", py::overload_cast<std::string const&>(&get_sharp_number),
        py::arg("path"));
  m.def("sub_sharp_number", py::overload_cast<std::string const&>(&sub_sharp_number),
        py::arg("path"));
}

}  // namespace python
}  // namespace quib
