// The module _quib, imported by the package quib (quib/__init__.py).
#include "common.hpp"

PYBIND11_MODULE(_quib, m) {
  m.doc() = "QUIB imaging and measurement library: images, fits, STL, DICOM, hashing, cameras.";
  quib::python::bind_errors(m);
  quib::python::bind_image(m);
  quib::python::bind_numeric(m);
  quib::python::bind_formats(m);
  quib::python::bind_system(m);
  quib::python::bind_vision(m);
  quib::python::bind_calibration(m);
  quib::python::bind_features(m);
  quib::python::bind_statistics(m);
}
