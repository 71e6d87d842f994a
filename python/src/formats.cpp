// STL meshes as (P, 3) float32 points and (T, 3) int32 triangles; DICOM files as element tables.
#include "common.hpp"

#include <quib/dicom.hpp>
#include <quib/stl.hpp>

#include <algorithm>
#include <cstdint>
#include <limits>

namespace quib {
namespace python {
namespace {

static_assert(sizeof(Stl::Point) == 3 * sizeof(float), "mesh points are packed float triples");

/// The Python mesh: the library's mesh (whose point vector the `points` array views) and the
/// triangle array, made once on first use.
struct PyMesh {
  Stl stl;
  py::object triangles;
};

PyMesh read_stl(std::filesystem::path const& path, bool merge) {
  PyMesh mesh;
  if (mesh.stl.load(wide(path), merge) < 0)
    fail_read(path, "not an STL file (neither binary nor ASCII)");
  return mesh;
}

/// Checks and copies (T, 3) integer triangles whose indices lie in [0, points).
std::vector<Stl::Polygon> polygons_of(py::handle triangles, std::size_t points) {
  auto t = py::array_t<std::int64_t>::ensure(triangles);
  if (!t) {
    PyErr_Clear();
    fail_value("triangles must be an integer array of shape (T, 3)");
  }
  if (t.ndim() != 2 || t.shape(1) != 3)
    fail_value("triangles must have shape (T, 3), not " + shape_text(t));
  auto r = t.unchecked<2>();
  std::vector<Stl::Polygon> out(static_cast<std::size_t>(t.shape(0)));
  for (py::ssize_t i = 0; i < t.shape(0); ++i) {
    for (int j = 0; j < 3; ++j) {
      const std::int64_t v = r(i, j);
      if (v < 0 || static_cast<std::uint64_t>(v) >= points)
        fail_value("triangle " + std::to_string(i) + " refers to point " + std::to_string(v) +
                   " of " + std::to_string(points));
    }
    out[static_cast<std::size_t>(i)] = {static_cast<int>(r(i, 0)), static_cast<int>(r(i, 1)),
                                        static_cast<int>(r(i, 2))};
  }
  return out;
}

PyMesh make_mesh(py::handle points, py::handle triangles, std::string const& name) {
  auto p = py::array_t<float>::ensure(points);
  if (!p) {
    PyErr_Clear();
    fail_value("points must be an array of numbers of shape (P, 3)");
  }
  if (p.ndim() != 2 || p.shape(1) != 3)
    fail_value("points must have shape (P, 3), not " + shape_text(p));
  if (p.shape(0) > std::numeric_limits<int>::max()) fail_value("too many points for a mesh");
  std::vector<Stl::Point> pts(static_cast<std::size_t>(p.shape(0)));
  auto r = p.unchecked<2>();
  for (py::ssize_t i = 0; i < p.shape(0); ++i)
    pts[static_cast<std::size_t>(i)] = Stl::Point(r(i, 0), r(i, 1), r(i, 2));
  std::vector<Stl::Polygon> polys = polygons_of(triangles, pts.size());
  PyMesh mesh;
  mesh.stl.swap(pts, polys);
  mesh.stl.set_name(name);
  return mesh;
}

py::object points_view(py::object self) {
  PyMesh& mesh = self.cast<PyMesh&>();
  auto& pts = const_cast<std::vector<Stl::Point>&>(mesh.stl.points());
  const py::ssize_t n = static_cast<py::ssize_t>(pts.size());
  // The array views the mesh's own vector and holds a reference to the mesh.
  return py::array_t<float>({n, py::ssize_t(3)},
                            {py::ssize_t(sizeof(Stl::Point)), py::ssize_t(sizeof(float))},
                            n ? pts.front().data() : nullptr, self);
}

py::object triangles_of(PyMesh& mesh) {
  if (!mesh.triangles) {
    auto const& polys = mesh.stl.polygons();
    const py::ssize_t n = static_cast<py::ssize_t>(polys.size());
    py::array_t<std::int32_t> t({n, py::ssize_t(3)});
    std::int32_t* out = t.mutable_data();
    {
      py::gil_scoped_release release;
      for (auto const& poly : polys) {
        for (std::size_t j = 0; j < 3; ++j)
          *out++ = j < poly.size() ? poly[j] : -1;
      }
    }
    t.attr("flags").attr("writeable") = false;
    mesh.triangles = t;
  }
  return mesh.triangles;
}

void save_stl(PyMesh const& mesh, std::filesystem::path const& path, bool ascii, int precision) {
  if (ascii && precision <= 0) fail_value("precision must be positive for an ASCII file");
  {
    py::gil_scoped_release release;
    mesh.stl.save(wide(path), ascii ? precision : 0);
  }
  std::error_code ec;
  if (!std::filesystem::is_regular_file(path, ec))
    throw Failure{Failure::write, path.string(), "the STL file could not be written"};
}

/// A DICOM file read into its element table (the module's half of quib.read_dicom).
struct PyDicom {
  Dicom dicom;
};

PyDicom read_dicom_table(std::filesystem::path const& path) {
  PyDicom d;
  if (d.dicom.load(wide(path)) < 0)
    fail_read(path, "not a DICOM file (no 128-byte preamble followed by \"DICM\")");
  return d;
}

/// The tag as pydicom and every DICOM text writes it: group in the high 16 bits.
std::uint32_t python_tag(std::uint32_t key) {
  return (key << 16) | (key >> 16);
}

}  // namespace

void bind_formats(py::module_& m) {
  py::class_<PyMesh>(m, "Mesh", R"doc(
A triangle mesh: ``points`` (P, 3) float32 and ``triangles`` (T, 3) int32 indices into them.

``points`` is an array over the mesh's own memory (no copy) that keeps the mesh alive;
``triangles`` is made once and is read-only. ``Mesh(points, triangles, name="")`` builds a mesh
from arrays (checked: shapes, and every index within the points). One mesh belongs to one
thread at a time.

    >>> mesh = quib.read_stl("part.stl")
    >>> mesh.points.shape, mesh.triangles.shape
    ((P, 3), (T, 3))
)doc")
      .def(py::init(&make_mesh), py::arg("points"), py::arg("triangles"), py::arg("name") = "")
      .def_property_readonly("points", &points_view)
      .def_property_readonly("triangles", &triangles_of)
      .def_property(
          "name", [](PyMesh const& m) { return py::bytes(m.stl.get_name()); },
          [](PyMesh& m, std::string const& name) { m.stl.set_name(name); },
          "The solid's name, as the file's bytes.")
      .def("__len__", [](PyMesh const& m) { return m.stl.size_polygon(); })
      .def("save", &save_stl, py::arg("path"), py::arg("ascii") = false, py::arg("precision") = 6,
           "Writes the mesh as binary STL, or ASCII with `precision` digits after the point. "
           "Raises quib.WriteError when the file cannot be written.")
      .def("__repr__", [](PyMesh const& m) {
        return "<quib.Mesh " + std::to_string(m.stl.size()) + " points, " +
               std::to_string(m.stl.size_polygon()) + " triangles>";
      });
  m.def("read_stl", &read_stl, py::arg("path"), py::arg("merge") = true,
        py::call_guard<py::gil_scoped_release>(), R"doc(
Reads a binary or ASCII STL file. With ``merge`` (the default) equal points share one index,
as trimesh gives them; without, every corner has a point of its own (3 per triangle). Raises
FileNotFoundError, IsADirectoryError or quib.FormatError (a ValueError). Releases the GIL.
)doc");
  m.def(
      "write_stl",
      [](std::filesystem::path const& path, py::handle points, py::handle triangles, bool ascii,
         int precision) { save_stl(make_mesh(points, triangles, ""), path, ascii, precision); },
      py::arg("path"), py::arg("points"), py::arg("triangles"), py::arg("ascii") = false,
      py::arg("precision") = 6, "Writes (P, 3) points and (T, 3) triangles as an STL file.");

  py::class_<PyDicom>(m, "_DicomTable")
      .def("tags",
           [](PyDicom const& d) {
             std::vector<std::uint32_t> tags;
             tags.reserve(d.dicom->size());
             for (auto const& e : *d.dicom)
               tags.push_back(python_tag(e.first));
             std::sort(tags.begin(), tags.end());
             return tags;
           })
      .def("raw",
           [](PyDicom const& d, std::uint32_t tag) -> py::object {
             auto it = d.dicom->find(python_tag(tag));
             if (it == d.dicom->end()) return py::none();
             return py::bytes(reinterpret_cast<char const*>(it->second.data()), it->second.size());
           })
      .def_static(
          "vr",
          [](std::uint32_t tag) {
            const auto group = static_cast<std::uint16_t>(tag >> 16),
                       number = static_cast<std::uint16_t>(tag);
            std::uint16_t type = 0;
            if (auto const* row = dicom::find_set(group, number))
              type = row->type;
            else if (auto const* row2 = dicom::find_map(group, number))
              type = row2->type;
            if (!type) return std::string();
            return std::string{static_cast<char>(type & 0xFF), static_cast<char>(type >> 8)};
          })
      .def_static("name", [](std::uint32_t tag) {
        return Dicom::Data(static_cast<std::uint16_t>(tag >> 16), static_cast<std::uint16_t>(tag),
                           0)
            .get_name();
      });
  m.def("_read_dicom_table", &read_dicom_table, py::arg("path"),
        py::call_guard<py::gil_scoped_release>());
}

}  // namespace python
}  // namespace quib
