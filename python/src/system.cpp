// Hashing of any bytes-like object, and numbered file names.
#include "common.hpp"

#include <quib/clock.hpp>
#include <quib/convert.hpp>
#include <quib/hash.hpp>
#include <quib/path.hpp>

#include <cstdio>

namespace quib {
namespace python {
namespace {

/// Runs `update(data, size)` over the bytes of a bytes-like object (bytes, bytearray,
/// memoryview, a contiguous NumPy array) in place, without the GIL; a str gives its UTF-8 bytes.
template <class Update>
void with_bytes(py::handle data, Update update) {
  if (py::isinstance<py::str>(data)) {
    std::string s = data.cast<std::string>();
    py::gil_scoped_release release;
    update(s.data(), s.size());
    return;
  }
  Py_buffer view;
  if (PyObject_GetBuffer(data.ptr(), &view, PyBUF_C_CONTIGUOUS) != 0) {
    PyErr_Clear();
    fail_value(std::string("expected a bytes-like object or str, not ") +
               Py_TYPE(data.ptr())->tp_name);
  }
  {
    py::gil_scoped_release release;
    update(view.buf, static_cast<std::size_t>(view.len));
  }
  PyBuffer_Release(&view);
}

/// A streaming SHA-256 digest with hashlib's members (update, hexdigest).
struct Sha256 {
  sha256::Hasher hasher;
  std::string digest;
};

}  // namespace

void bind_system(py::module_& m) {
  m.def(
      "sha256",
      [](py::handle data) {
        sha256::Hasher hasher;
        bool ok = true;
        with_bytes(data, [&](void const* p, std::size_t n) { ok = hasher.update(p, n); });
        std::string hex;
        if (ok) {
          py::gil_scoped_release release;
          hex = hasher.final_hex();
        }
        if (hex.empty()) throw Failure{Failure::value, std::string(), "the SHA-256 engine failed"};
        return hex;
      },
      py::arg("data"), R"doc(
The SHA-256 digest of a bytes-like object (read in place, no copy) or of a str's UTF-8 bytes,
as 64 lower-case hex digits, as hashlib.sha256(data).hexdigest() gives it. Releases the GIL.
)doc");
  py::class_<Sha256>(m, "Sha256", "A SHA-256 digest fed in pieces, like hashlib.sha256().")
      .def(py::init<>())
      .def(
          "update",
          [](Sha256& s, py::handle data) {
            if (!s.digest.empty()) fail_value("the digest was already taken");
            bool ok = true;
            with_bytes(data, [&](void const* p, std::size_t n) { ok = s.hasher.update(p, n); });
            if (!ok) throw Failure{Failure::value, std::string(), "the SHA-256 engine failed"};
          },
          py::arg("data"))
      .def(
          "hexdigest",
          [](Sha256& s) {
            if (s.digest.empty()) s.digest = s.hasher.final_hex();
            return s.digest;
          },
          "The digest of everything added; later updates are refused.");
  m.def(
      "hash64",
      [](py::handle data) {
        if (py::isinstance<py::str>(data)) {
          std::wstring h = hash::compute(data.cast<std::wstring>());
          return std::string(h.begin(), h.end());
        }
        hash::Hasher hasher;
        with_bytes(data, [&](void const* p, std::size_t n) { hasher.update(p, n); });
        char text[17];
        std::snprintf(text, sizeof text, "%016llx",
                      static_cast<unsigned long long>(hasher.final()));
        return std::string(text);
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

  m.def(
      "split_fields",
      [](std::wstring const& text, std::wstring const& separators, wchar_t quote_open,
         wchar_t quote_close) {
        return convert::get_separator_wstring(text, separators, quote_open, quote_close);
      },
      py::arg("text"), py::arg("separators") = L" \t", py::arg("quote_open") = L'"',
      py::arg("quote_close") = L'"', R"doc(
Splits text at every separator character outside quotes; quote characters are dropped and a
quote left open runs to the end. Empty fields are kept (n separators give n + 1 fields), as the
library's readers split their text lines.

    >>> quib.split_fields('solid \t"my part" x')
    ['solid', '', 'my part', 'x']
)doc");

  py::class_<Clock>(m, "Clock", R"doc(
A stopwatch on the high-resolution monotonic counter. ``Clock()`` starts now; ``reset()``
restarts it; ``elapsed_ms`` is the whole milliseconds since the start. ``Clock.ms()`` is the
process-wide millisecond tick (it never wraps), ``Clock.frequency()`` the counter's counts per
second, ``Clock.counts()`` its current reading. A plain value; one per thread at a time.

    >>> clock = quib.Clock()
    >>> work()
    >>> clock.elapsed_ms
)doc")
      .def(py::init([]() { return Clock(0); }))
      .def("reset", &Clock::reset, py::arg("offset") = 0,
           "Restarts at the current reading plus `offset` counts.")
      .def_property_readonly(
          "elapsed_ms", [](Clock const& c) { return c.get_delta_ms(); },
          "Whole milliseconds since the start (truncated).")
      .def(
          "ms_since", [](Clock const& c, std::int64_t from) { return c.get_delta_ms(from); },
          py::arg("counts"), "Whole milliseconds since a counter reading (see counts()).")
      .def_property_readonly("start", &Clock::get_start, "The counter reading it measures from.")
      .def_static(
          "counts", []() { return Clock().get_delta_now(); },
          "The counter's current reading, in counts.")
      .def_static("ms", &Clock::get_ms, "The process-wide millisecond tick.")
      .def_static("frequency", &Clock::frequency, "Counter counts per second.");

  py::class_<Fps>(m, "Fps", R"doc(
Paces a display loop at ``rate`` frames per second and reports the rate reached. Call
``wait()`` once per frame after drawing: it sleeps (without the GIL) until the next frame is
due, at least 1 ms, and a late frame does not shift later ones. ``fps`` is the mean rate of the
last ``rate`` frames (0 before any). A rate below 1 counts as 1. One per thread at a time.

    >>> pacer = quib.Fps(30)
    >>> while running:
    ...     draw(); pacer.wait()
)doc")
      .def(py::init<int>(), py::arg("rate"))
      .def("wait", &Fps::wait, py::call_guard<py::gil_scoped_release>())
      .def_property_readonly("fps", &Fps::getFps)
      .def_property_readonly("now", &Fps::getNow, "The pacing clock, in milliseconds.");
}

}  // namespace python
}  // namespace quib
