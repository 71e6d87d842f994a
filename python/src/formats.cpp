// STL meshes as (P, 3) float32 points and (T, 3) int32 triangles; DICOM files as element tables.
#include "common.hpp"

#include <quib/dicom.hpp>
#include <quib/dicom_image.hpp>
#include <quib/mesh_measures.hpp>
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

/// A DICOM file read with the standard reading, and the pixel module found in it (made on
/// first use; it refers to the Pixel Data inside `dicom`, whose address never changes).
struct PyDicom {
  Dicom dicom;
  std::string path;
  std::unique_ptr<DicomPixels> pixels;
};

PyDicom read_dicom(std::filesystem::path const& path, bool classic) {
  PyDicom d;
  d.path = path.string();
  if (d.dicom.load(wide(path), classic ? Dicom::READ_CLASSIC : Dicom::READ_STANDARD) < 0)
    fail_read(path, "not a DICOM file (no 128-byte preamble followed by \"DICM\")");
  return d;
}

/// The tag as pydicom and every DICOM text writes it (group in the high 16 bits) and the
/// library's table key (group in the low 16 bits): the same swap both ways.
std::uint32_t swap_halves(std::uint32_t v) {
  return (v << 16) | (v >> 16);
}

/// A key given from Python: a keyword or tag text, an int 0xGGGGEEEE, or (group, number).
Dicom::Tag tag_of(py::handle key) {
  if (py::isinstance<py::str>(key)) {
    Dicom::Tag t(key.cast<std::string>());
    if (t.empty()) throw py::key_error(key.cast<std::string>());
    return t;
  }
  if (py::isinstance<py::tuple>(key) && py::len(key) == 2) {
    py::tuple t = key.cast<py::tuple>();
    return Dicom::Tag(t[0].cast<std::uint16_t>(), t[1].cast<std::uint16_t>());
  }
  return Dicom::Tag(swap_halves(key.cast<std::uint32_t>()));
}

std::string vr_text(std::uint16_t type) {
  if (!type) return std::string();
  return std::string{static_cast<char>(type & 0xFF), static_cast<char>(type >> 8)};
}

template <class T>
py::object one_or_list(std::vector<T> const& v) {
  if (v.empty()) return py::none();
  if (v.size() == 1) return py::cast(v.front());
  return py::cast(v);
}

py::object value_of(PyDicom const& d, Dicom::Tag tag);

py::object wrap_items(PyDicom const& d, Dicom::Tag tag) {
  std::vector<Dicom> items;
  if (d.dicom.read_items(tag, items) < 0) return py::none();
  py::list out;
  for (Dicom& item : items) {
    auto sub = std::make_unique<PyDicom>();
    sub->dicom = std::move(item);
    sub->path = d.path;
    out.append(py::module_::import("quib").attr("DicomFile")(py::cast(std::move(sub))));
  }
  return out;
}

/// The value as its VR says: int / float (a list when several), str (a list when several),
/// a list of DicomFile items for a sequence, bytes for anything else.
py::object value_of(PyDicom const& d, Dicom::Tag tag) {
  Dicom const& f = d.dicom;
  const std::vector<unsigned char>* raw = f.find(tag);
  if (!raw) throw py::key_error(std::to_string(swap_halves(tag.get_key())));
  const std::string vr = vr_text(f.get_type(tag));
  auto is = [&vr](std::initializer_list<char const*> set) {
    for (char const* s : set)
      if (vr == s) return true;
    return false;
  };
  if (is({"US", "SS", "UL", "SL", "UV", "SV", "IS"})) {
    std::vector<std::int64_t> v;
    if (f.get_integers(tag, v) >= 0) return one_or_list(v);
  } else if (is({"FL", "FD", "DS"})) {
    std::vector<double> v;
    if (f.get_numbers(tag, v) >= 0) return one_or_list(v);
  } else if (vr == "AT") {
    std::vector<std::uint32_t> v;
    if (f.get_tags(tag, v) >= 0) {
      for (auto& t : v)
        t = swap_halves(t);
      return one_or_list(v);
    }
  } else if (vr == "SQ") {
    return wrap_items(d, tag);
  } else if (is({"AE", "AS", "CS", "DA", "DT", "LO", "PN", "SH", "TM", "UC", "UI"})) {
    std::vector<std::string> v;
    if (f.get_strings(tag, v) >= 0) return v.empty() ? py::str("") : one_or_list(v);
  } else if (is({"LT", "ST", "UT", "UR"})) {
    std::string text;
    if (f.get_text(tag, text) >= 0) return py::str(text);
  }
  return py::bytes(reinterpret_cast<char const*>(raw->data()), raw->size());
}

DicomPixels& pixels_of(PyDicom& d) {
  if (!d.pixels) {
    auto p = std::make_unique<DicomPixels>();
    if (!p->load(d.dicom))
      throw Failure{Failure::format, d.path, "no decodable pixel data: " + p->get_error()};
    d.pixels = std::move(p);
  }
  return *d.pixels;
}

py::dtype sample_dtype(int bytes, bool is_signed) {
  switch (bytes) {
    case 1:
      return is_signed ? py::dtype::of<std::int8_t>() : py::dtype::of<std::uint8_t>();
    case 2:
      return is_signed ? py::dtype::of<std::int16_t>() : py::dtype::of<std::uint16_t>();
    default:
      return is_signed ? py::dtype::of<std::int32_t>() : py::dtype::of<std::uint32_t>();
  }
}

/// Frame `frame` decoded straight into a new array (rows, columns[, samples]).
py::array decode_frame(PyDicom& d, int frame) {
  DicomPixels& p = pixels_of(d);
  if (frame < 0 || frame >= p.get_frames())
    throw py::index_error("frame " + std::to_string(frame) + " of " +
                          std::to_string(p.get_frames()));
  std::vector<py::ssize_t> shape{p.get_rows(), p.get_columns()};
  // Expanded YBR_FULL_422 and colour data come as three samples per pixel.
  const std::uint64_t pixels = std::uint64_t(p.get_rows()) * std::uint64_t(p.get_columns());
  const std::uint64_t bytes = p.get_frame_bytes();
  const int sample_bytes = p.get_sample_bytes();
  const std::uint64_t samples = pixels ? bytes / (pixels * std::uint64_t(sample_bytes)) : 1;
  if (samples > 1) shape.push_back(static_cast<py::ssize_t>(samples));
  py::array out(sample_dtype(sample_bytes, p.get_pixel_representation() == 1), shape);
  bool ok;
  {
    py::gil_scoped_release release;
    ok = p.decode(frame, out.mutable_data(), bytes);
  }
  if (!ok)
    throw Failure{Failure::format, d.path, "frame " + std::to_string(frame) + ": " + p.get_error()};
  return out;
}

py::array_t<double> doubles(double const* v, std::size_t n) {
  return py::array_t<double>(static_cast<py::ssize_t>(n), v);
}

/// A DICOM series or multi-frame file as one volume.
struct PyVolume {
  DicomVolume volume;
};

PyVolume read_volume(py::handle source, bool rescaled, std::string const& series, int threads) {
  if (threads < 0) fail_value("threads must be 0 (every core) or more");
  PyVolume v;
  v.volume.set_threads(threads);
  bool ok;
  std::string what;
  if (py::isinstance<py::str>(source) || py::hasattr(source, "__fspath__") ||
      py::isinstance<py::bytes>(source)) {
    auto path = source.cast<std::filesystem::path>();
    what = path.string();
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) fail_read(path, "");
    py::gil_scoped_release release;
    ok = v.volume.load(wide(path), rescaled, series);
  } else {
    std::vector<std::wstring> files;
    for (py::handle f : source)
      files.push_back(wide(f.cast<std::filesystem::path>()));
    what = std::to_string(files.size()) + " files";
    py::gil_scoped_release release;
    ok = v.volume.load(files, rescaled, series);
  }
  if (!ok) throw Failure{Failure::format, what, "no volume: " + v.volume.get_error()};
  return v;
}

py::object volume_array(py::object self) {
  PyVolume& v = self.cast<PyVolume&>();
  DicomVolume& vol = v.volume;
  std::vector<py::ssize_t> shape{vol.get_depth(), vol.get_height(), vol.get_width()};
  if (vol.get_samples() > 1) shape.push_back(vol.get_samples());
  py::dtype dtype(vol.get_sample_type());
  return py::array(dtype, shape, {}, vol.get_data(), self);
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

  py::class_<PyDicom>(m, "_Dicom")
      .def("tags",
           [](PyDicom const& d) {
             std::vector<std::uint32_t> tags;
             for (auto const& e : d.dicom.get_entries())
               tags.push_back(swap_halves(e.key));
             std::sort(tags.begin(), tags.end());
             return tags;
           })
      .def("has",
           [](PyDicom const& d, py::handle key) {
             try {
               return d.dicom.find(tag_of(key)) != nullptr;
             } catch (py::error_already_set&) {
               return false;
             } catch (py::key_error&) {
               return false;
             } catch (py::cast_error&) {
               return false;
             }
           })
      .def("value", [](PyDicom const& d, py::handle key) { return value_of(d, tag_of(key)); })
      .def("raw",
           [](PyDicom const& d, py::handle key) {
             const Dicom::Tag tag = tag_of(key);
             auto const* raw = d.dicom.find(tag);
             if (!raw) throw py::key_error(std::to_string(swap_halves(tag.get_key())));
             return py::bytes(reinterpret_cast<char const*>(raw->data()), raw->size());
           })
      .def("vr",
           [](PyDicom const& d, py::handle key) { return vr_text(d.dicom.get_type(tag_of(key))); })
      .def("keyword",
           [](PyDicom const&, py::handle key) {
             const Dicom::Tag tag = tag_of(key);
             return std::string(dicom::get_keyword(
                 Dicom::Data(tag.get_group(), tag.get_number(), 0).get_element()));
           })
      .def("name",
           [](PyDicom const&, py::handle key) {
             const Dicom::Tag tag = tag_of(key);
             return Dicom::Data(tag.get_group(), tag.get_number(), 0).get_name();
           })
      .def_property_readonly("complete", [](PyDicom const& d) { return d.dicom.is_complete(); })
      .def_property_readonly("stop_offset",
                             [](PyDicom const& d) { return d.dicom.get_stop_offset(); })
      .def_property_readonly("transfer_syntax",
                             [](PyDicom const& d) { return d.dicom.get_info().syntax; })
      .def_property_readonly("path", [](PyDicom const& d) { return d.path; })
      .def("pixels", &decode_frame, py::arg("frame") = 0)
      .def("pixel_info",
           [](PyDicom& d) {
             DicomPixels& p = pixels_of(d);
             py::dict out;
             out["rows"] = p.get_rows();
             out["columns"] = p.get_columns();
             out["samples"] = p.get_samples();
             out["bits_allocated"] = p.get_bits_allocated();
             out["bits_stored"] = p.get_bits_stored();
             out["pixel_representation"] = p.get_pixel_representation();
             out["photometric"] = p.get_frame_photometric();
             out["frames"] = p.get_frames();
             out["rescale"] = py::make_tuple(p.get_rescale_slope(), p.get_rescale_intercept());
             return out;
           })
      .def(
          "values",
          [](PyDicom& d, int frame) {
            DicomPixels& p = pixels_of(d);
            Image image;
            bool ok;
            {
              py::gil_scoped_release release;
              ok = p.decode_values(frame, image);
            }
            if (!ok)
              throw Failure{Failure::format, d.path,
                            "frame " + std::to_string(frame) + ": " + p.get_error()};
            return image_array(std::move(image));
          },
          py::arg("frame") = 0)
      .def(
          "display",
          [](PyDicom& d, int frame, int window) {
            DicomPixels& p = pixels_of(d);
            Image image;
            bool ok;
            {
              py::gil_scoped_release release;
              ok = p.decode_display(frame, image, window);
            }
            if (!ok)
              throw Failure{Failure::format, d.path,
                            "frame " + std::to_string(frame) + ": " + p.get_error()};
            return image_array(std::move(image));
          },
          py::arg("frame") = 0, py::arg("window") = 0);
  m.def("_read_dicom", &read_dicom, py::arg("path"), py::arg("classic") = false,
        py::call_guard<py::gil_scoped_release>());

  py::class_<PyVolume>(m, "Volume", R"doc(
A DICOM series (or multi-frame file) as one volume: ``array`` is (slices, rows, columns) over the
volume's own buffer (no copy; it keeps the volume alive), with ``spacing`` (x, y, z mm),
``origin`` (the first voxel's centre) and ``direction`` (3x3, rows are the x, y, z axes in
patient space). Made by quib.read_volume.
)doc")
      .def_property_readonly("array", &volume_array)
      .def_property_readonly("spacing",
                             [](PyVolume const& v) {
                               auto a = v.volume.get_spacing();
                               return doubles(a.data(), 3);
                             })
      .def_property_readonly("origin",
                             [](PyVolume const& v) {
                               auto a = v.volume.get_origin();
                               return doubles(a.data(), 3);
                             })
      .def_property_readonly("direction",
                             [](PyVolume const& v) {
                               auto a = v.volume.get_direction();
                               return doubles(a.data(), 9).attr("reshape")(3, 3);
                             })
      .def_property_readonly("series", [](PyVolume const& v) { return v.volume.get_series(); })
      .def_property_readonly(
          "threads", [](PyVolume const& v) { return v.volume.get_threads(); },
          "The number of threads the volume was read with.");
  m.def("read_volume", &read_volume, py::arg("source"), py::arg("rescaled") = false,
        py::arg("series") = "", py::arg("threads") = 0,
        R"doc(
Reads a DICOM series from a folder, one multi-frame file, or a list of files into a Volume:
slices of one Series Instance UID (``series``, or the one with most images) ordered along their
normal; ``rescaled`` gives float32 real values (Hounsfield units for CT). Raises
FileNotFoundError, or quib.FormatError with the reason (sizes differ, uneven spacing, ...).
Slices are read and decoded on ``threads`` threads (0: one per core; 1: the calling thread
alone, for callers that load many series on threads of their own). The volume's ``array`` is
the decoded buffer itself, not a copy. Releases the GIL while reading.
)doc");

  m.def(
      "mesh_measures",
      [](PyMesh const& mesh) {
        MeshMeasures r;
        {
          py::gil_scoped_release release;
          r = MeshMeasures(mesh.stl);
        }
        py::dict out;
        out["polygons"] = r.polygons;
        out["triangles"] = r.triangles;
        out["degenerate_triangles"] = r.degenerate_triangles;
        out["non_finite_triangles"] = r.non_finite_triangles;
        out["invalid_polygons"] = r.invalid_polygons;
        out["edges"] = r.edges;
        out["boundary_edges"] = r.boundary_edges;
        out["non_manifold_edges"] = r.non_manifold_edges;
        out["inconsistent_edges"] = r.inconsistent_edges;
        out["parts"] = r.parts;
        out["closed"] = r.closed;
        out["oriented"] = r.oriented;
        out["solid"] = r.solid;
        out["area"] = r.area;
        out["volume"] = r.volume;
        out["centroid"] = doubles(r.centroid.data(), 3);
        py::array_t<double> inertia({3, 3});
        for (int i = 0; i < 3; ++i)
          for (int j = 0; j < 3; ++j)
            inertia.mutable_at(i, j) = r.inertia(i, j);
        out["inertia"] = inertia;
        out["box_min"] = doubles(r.box_min.data(), 3);
        out["box_max"] = doubles(r.box_max.data(), 3);
        return out;
      },
      py::arg("mesh"), R"doc(
One pass over a merged mesh: counts (edges, boundary and non-manifold edges, parts, ...), the
verdicts closed / oriented / solid, area, signed volume, centroid, inertia (3x3) and bounding
box, as a dict. Volume, centroid and inertia describe a solid only when ``solid`` is True.
)doc");
}

}  // namespace python
}  // namespace quib
