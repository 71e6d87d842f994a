// Fits of lines, circles, planes, spheres and polynomials to (N, 2) / (N, 3) arrays, and the
// RANSAC plane search.
#include "common.hpp"

#include <quib/curve.hpp>
#include <quib/fit.hpp>
#include <quib/ransac.hpp>

#include <cmath>
#include <string>

namespace quib {
namespace python {
namespace {

using P2 = Eigen::Matrix<double, 2, 1>;
using P3 = Eigen::Matrix<double, 3, 1>;

/// The fit of `points`: plain, weighted, or refitted once with Tukey weights when `k` is given.
template <class Fit, class Point>
Fit fit(py::handle points, py::handle weights, py::handle k) {
  std::vector<Point> pts = points_of<Point>(points, "points");
  std::vector<double> w = weights_of(weights, static_cast<py::ssize_t>(pts.size()));
  const bool robust = !k.is_none();
  if (robust && !weights.is_none())
    fail_value("give either weights or k (a robust refit), not both");
  const double kk = robust ? k.cast<double>() : 0.0;
  py::gil_scoped_release release;
  if (robust) return Fit::create(pts, kk);
  Fit f;  // a failed fit holds NaN coefficients, which the result object reports
  if (weights.is_none())
    static_cast<void>(f.calculate(pts));
  else
    static_cast<void>(f.calculate(pts, w));
  return f;
}

template <class Fit, class Point>
py::array_t<double> residuals(Fit const& f, py::handle points) {
  std::vector<Point> pts = points_of<Point>(points, "points");
  std::vector<double> d;
  {
    py::gil_scoped_release release;
    if (!f.get_d(d, pts)) d.assign(pts.size(), std::nan(""));
  }
  return py::array_t<double>(static_cast<py::ssize_t>(d.size()), d.data());
}

py::array_t<double> vec(std::initializer_list<double> v) {
  return py::array_t<double>(static_cast<py::ssize_t>(v.size()), v.begin());
}

char const* const kFitNote = R"doc(
``points`` is an (N, {D}) array (float64; other real dtypes are converted). Points with a
non-finite coordinate are skipped. ``weights`` (N,) weights the points; ``k`` instead refits
once with Tukey biweights (threshold MAD/0.6745·k + median residual). Too few usable points or
a singular system give a result whose ``ok`` is False and whose numbers are NaN: no exception,
as with NumPy's fits of degenerate data. Wrong shapes raise quib.ArgumentError (ValueError).
The GIL is released while the points are copied and fitted.
)doc";

std::string note(char const* head, int dims) {
  std::string s = std::string(head) + kFitNote;
  s.replace(s.find("{D}"), 3, std::to_string(dims));
  return s;
}

template <class Fit>
std::string repr_ok(Fit const& f, std::string body) {
  return f.is() ? body : body + " (no fit)";
}

}  // namespace

void bind_numeric(py::module_& m) {
  py::class_<LeastSquaresLine>(m, "Line", "The line y = slope·x + intercept (vertical residuals).")
      .def_property_readonly("ok", &LeastSquaresLine::is)
      .def_property_readonly("slope", &LeastSquaresLine::a)
      .def_property_readonly("intercept", &LeastSquaresLine::b)
      .def("y", py::vectorize(&LeastSquaresLine::get_y), py::arg("x"))
      .def("residuals", &residuals<LeastSquaresLine, P2>, py::arg("points"),
           "y - (slope·x + intercept) per point, as an (N,) array.")
      .def("__repr__", [](LeastSquaresLine const& f) {
        return repr_ok(
            f, "<quib.Line y = " + std::to_string(f.a()) + "·x + " + std::to_string(f.b()) + ">");
      });
  m.def("fit_line", &fit<LeastSquaresLine, P2>, py::arg("points"), py::arg("weights") = py::none(),
        py::arg("k") = py::none(),
        note("Fits y = slope·x + intercept to (N, 2) points.", 2).c_str());

  py::class_<LeastSquaresCircle>(m, "Circle", "A circle fitted by its algebraic residual.")
      .def_property_readonly("ok", &LeastSquaresCircle::is)
      .def_property_readonly("center",
                             [](LeastSquaresCircle const& f) {
                               return vec({f.x(), f.y()});
                             })
      .def_property_readonly("radius", &LeastSquaresCircle::r)
      .def_property_readonly(
          "coefficients",
          [](LeastSquaresCircle const& f) {
            return vec({f.a(), f.b(), f.c()});
          },
          "(a, b, c) of x² + y² + a·x + b·y + c = 0.")
      .def("residuals", &residuals<LeastSquaresCircle, P2>, py::arg("points"),
           "Algebraic residuals |p - center|² - radius² per point.")
      .def("__repr__", [](LeastSquaresCircle const& f) {
        return repr_ok(f, "<quib.Circle center=(" + std::to_string(f.x()) + ", " +
                              std::to_string(f.y()) + ") radius=" + std::to_string(f.r()) + ">");
      });
  m.def("fit_circle", &fit<LeastSquaresCircle, P2>, py::arg("points"),
        py::arg("weights") = py::none(), py::arg("k") = py::none(),
        note("Fits a circle to (N, 2) points (algebraic residual).", 2).c_str());

  py::class_<LeastSquaresPlane>(m, "Plane", "The plane z = a·x + b·y + c (vertical residuals).")
      .def_property_readonly("ok", &LeastSquaresPlane::is)
      .def_property_readonly(
          "normal",
          [](LeastSquaresPlane const& f) {
            return vec({f.x(), f.y(), f.z()});
          },
          "Unit normal; normal · p = distance on the plane.")
      .def_property_readonly("distance", &LeastSquaresPlane::d)
      .def_property_readonly(
          "coefficients",
          [](LeastSquaresPlane const& f) {
            return vec({f.a(), f.b(), f.c()});
          },
          "(a, b, c) of z = a·x + b·y + c.")
      .def("residuals", &residuals<LeastSquaresPlane, P3>, py::arg("points"),
           "z - (a·x + b·y + c) per point.")
      .def("__repr__", [](LeastSquaresPlane const& f) {
        return repr_ok(f, "<quib.Plane normal=(" + std::to_string(f.x()) + ", " +
                              std::to_string(f.y()) + ", " + std::to_string(f.z()) +
                              ") distance=" + std::to_string(f.d()) + ">");
      });
  m.def("fit_plane", &fit<LeastSquaresPlane, P3>, py::arg("points"),
        py::arg("weights") = py::none(), py::arg("k") = py::none(),
        note("Fits z = a·x + b·y + c to (N, 3) points.", 3).c_str());

  py::class_<LeastSquaresSphere>(m, "Sphere", "A sphere fitted by its algebraic residual.")
      .def_property_readonly("ok", &LeastSquaresSphere::is)
      .def_property_readonly("center",
                             [](LeastSquaresSphere const& f) {
                               return vec({f.x(), f.y(), f.z()});
                             })
      .def_property_readonly("radius", &LeastSquaresSphere::r)
      .def_property_readonly(
          "coefficients",
          [](LeastSquaresSphere const& f) {
            return vec({f.a(), f.b(), f.c(), f.d()});
          },
          "(a, b, c, d) of x² + y² + z² + a·x + b·y + c·z + d = 0.")
      .def("residuals", &residuals<LeastSquaresSphere, P3>, py::arg("points"))
      .def("__repr__", [](LeastSquaresSphere const& f) {
        return repr_ok(f, "<quib.Sphere center=(" + std::to_string(f.x()) + ", " +
                              std::to_string(f.y()) + ", " + std::to_string(f.z()) +
                              ") radius=" + std::to_string(f.r()) + ">");
      });
  m.def("fit_sphere", &fit<LeastSquaresSphere, P3>, py::arg("points"),
        py::arg("weights") = py::none(), py::arg("k") = py::none(),
        note("Fits a sphere to (N, 3) points (algebraic residual).", 3).c_str());

  py::class_<LeastSquaresDimension>(m, "Polynomial",
                                    "y = Σ c[i]·x^(degree-i), highest power first.")
      .def_property_readonly("ok", &LeastSquaresDimension::is)
      .def_property_readonly("degree", &LeastSquaresDimension::get_numeric)
      .def_property_readonly(
          "coefficients",
          [](LeastSquaresDimension const& f) {
            py::array_t<double> c(f.size());
            for (int i = 0; i < f.size(); ++i)
              c.mutable_at(i) = f[i];
            return c;
          },
          "Highest power first, as numpy.polyfit gives them.")
      .def("y", py::vectorize(&LeastSquaresDimension::get_y), py::arg("x"))
      .def("slope", py::vectorize(&LeastSquaresDimension::get_slope), py::arg("x"))
      .def("area", &LeastSquaresDimension::get_area, py::arg("x0"), py::arg("x1"))
      .def("residuals", &residuals<LeastSquaresDimension, P2>, py::arg("points"));
  m.def(
      "fit_polynomial",
      [](py::handle points, int degree, py::handle weights, py::handle k, double scale) {
        std::vector<P2> pts = points_of<P2>(points, "points");
        std::vector<double> w = weights_of(weights, static_cast<py::ssize_t>(pts.size()));
        if (degree < 0) fail_value("degree must be 0 or more");
        if (!k.is_none() && !weights.is_none())
          fail_value("give either weights or k (a robust refit), not both");
        const bool robust = !k.is_none();
        const double kk = robust ? k.cast<double>() : 0.0;
        py::gil_scoped_release release;
        if (robust) return LeastSquaresDimension::create(scale, degree, pts, kk);
        LeastSquaresDimension f(scale);
        if (weights.is_none())
          static_cast<void>(f.calculate(degree, pts));
        else
          static_cast<void>(f.calculate(degree, pts, w));
        return f;
      },
      py::arg("points"), py::arg("degree"), py::arg("weights") = py::none(),
      py::arg("k") = py::none(), py::arg("scale") = 1.0,
      note("Fits a polynomial of the given degree to (N, 2) points.", 2).c_str());

  m.def(
      "ransac_plane",
      [](py::handle points, double threshold, double probability, std::uint64_t max_iterations) {
        std::vector<P3> pts = points_of<P3>(points, "points");
        if (!(threshold > 0)) fail_value("threshold must be positive");
        if (!(probability >= 0 && probability <= 1)) fail_value("probability must lie in [0, 1]");
        RANSAC_Plane<P3, double> ransac;
        bool found;
        {
          py::gil_scoped_release release;
          found = ransac.compute(pts, threshold, probability, max_iterations);
        }
        py::array_t<double> normal(3);
        normal.mutable_at(0) = normal.mutable_at(1) = normal.mutable_at(2) = std::nan("");
        std::vector<int> const& idx = ransac.indices();
        py::array_t<std::int64_t> inliers(static_cast<py::ssize_t>(idx.size()));
        for (std::size_t i = 0; i < idx.size(); ++i)
          inliers.mutable_at(static_cast<py::ssize_t>(i)) = idx[i];
        double distance = std::nan("");
        if (found) {
          const P3 n = ransac.result()[3];
          for (int i = 0; i < 3; ++i)
            normal.mutable_at(i) = n[i];
          distance = n.dot(ransac.result()[0]);
        }
        return py::make_tuple(normal, distance, inliers);
      },
      py::arg("points"), py::arg("threshold"), py::arg("probability") = 0.99,
      py::arg("max_iterations") = 1000, R"doc(
Searches (N, 3) points for the plane most points lie on (distance < threshold). Returns
``(normal, distance, inliers)``: the unit normal, normal · p on the plane, and the ascending
indices of the inliers; NaN and no indices when no plane was found. Each call seeds its
generator with the current second. The GIL is released during the search.
)doc");
}

}  // namespace python
}  // namespace quib
