// Fits of lines, circles, planes, spheres and polynomials to (N, 2) / (N, 3) arrays, with their
// uncertainty, and the RANSAC plane search.
#include "common.hpp"

#include <quib/curve.hpp>
#include <quib/fit.hpp>
#include <quib/ransac.hpp>

#include <cmath>
#include <optional>
#include <string>

namespace quib {
namespace python {
namespace {

using P2 = Eigen::Matrix<double, 2, 1>;
using P3 = Eigen::Matrix<double, 3, 1>;

/// A fit and how well it determined its parameters, as Python sees one result.
template <class Fit>
struct Fitted {
  Fit fit;
  FitInfo info;
};

struct Request {
  std::vector<double> weights;
  bool weighted = false;
  bool robust = false;
  double k = 0.0;
};

Request request(std::size_t count, py::handle weights, py::handle k) {
  Request r;
  r.weights = weights_of(weights, static_cast<py::ssize_t>(count));
  r.weighted = !weights.is_none();
  r.robust = !k.is_none();
  if (r.robust && r.weighted) fail_value("give either weights or k (a robust refit), not both");
  if (r.robust) r.k = k.cast<double>();
  return r;
}

/// The fit of `points`: plain, weighted, or refitted once with Tukey weights when `k` is given.
/// A failed fit holds NaN coefficients and an empty covariance, which the result reports.
/// The points are read in place when the array allows it (see fit_points).
template <class Fit, class Point>
Fitted<Fit> fit(py::handle points, py::handle weights, py::handle k) {
  const PointView<Point> pts = fit_points<Point>(points, "points");
  const Request r = request(pts.count, weights, k);
  py::gil_scoped_release release;
  Fitted<Fit> out;
  if (r.robust)
    out.fit = Fit::create(pts.data, pts.count, r.k, out.info);
  else if (r.weighted)
    static_cast<void>(out.fit.calculate(pts.data, pts.count, r.weights.data(), out.info));
  else
    static_cast<void>(out.fit.calculate(pts.data, pts.count, out.info));
  return out;
}

template <class Fit, class Point>
py::array_t<double> residuals(Fitted<Fit> const& f, py::handle points) {
  const PointView<Point> pts = fit_points<Point>(points, "points");
  std::vector<double> d;
  {
    py::gil_scoped_release release;
    if (!f.fit.get_d(d, pts.data, pts.count)) d.assign(pts.count, std::nan(""));
  }
  return py::array_t<double>(static_cast<py::ssize_t>(d.size()), d.data());
}

py::array_t<double> vec(std::initializer_list<double> v) {
  return py::array_t<double>(static_cast<py::ssize_t>(v.size()), v.begin());
}

py::array_t<double> matrix(Eigen::MatrixXd const& m) {
  py::array_t<double> a({static_cast<py::ssize_t>(m.rows()), static_cast<py::ssize_t>(m.cols())});
  for (Eigen::Index i = 0; i < m.rows(); ++i)
    for (Eigen::Index j = 0; j < m.cols(); ++j)
      a.mutable_at(i, j) = m(i, j);
  return a;
}

/// The members every result shares: ok, the uncertainty, and residuals.
template <class Fit, class Point>
py::class_<Fitted<Fit>> result(py::module_& m, char const* name, char const* doc,
                               char const* order) {
  using F = Fitted<Fit>;
  const std::string cov = std::string("Parameter covariance sigma²·(JᵀJ)⁻¹, parameters ") + order +
                          "; (0, 0) after a failed fit, NaN with as many points as parameters.";
  return py::class_<F>(m, name, doc)
      .def_property_readonly(
          "ok", [](F const& f) { return f.fit.is(); },
          "False when the points did not determine a result (numbers are NaN).")
      .def_property_readonly(
          "rms", [](F const& f) { return f.info.get_rms(); }, "RMS residual sqrt(Σ w·r² / Σ w).")
      .def_property_readonly(
          "sigma", [](F const& f) { return f.info.get_sigma(); }, "sqrt(Σ w·r² / (n - p)).")
      .def_property_readonly(
          "count", [](F const& f) { return f.info.get_count(); },
          "Points used (finite, weight not 0).")
      .def_property_readonly(
          "covariance", [](F const& f) { return matrix(f.info.get_covariance()); }, cov.c_str())
      .def_property_readonly(
          "standard_errors",
          [](F const& f) {
            Eigen::VectorXd e =
                f.info.get_covariance().size() ? f.info.get_standard_errors() : Eigen::VectorXd();
            return py::array_t<double>(static_cast<py::ssize_t>(e.size()), e.data());
          })
      .def("residuals", &residuals<Fit, Point>, py::arg("points"));
}

template <class F>
std::string repr(F const& f, std::string body) {
  return "<quib." + body + (f.fit.is() ? "" : " (no fit)") + ">";
}

char const* const kFitNote = R"doc(
``points`` is an (N, {D}) array (float64; other real dtypes are converted). Points with a
non-finite coordinate are skipped. ``weights`` (N,) weights the points; ``k`` instead refits
once with Tukey biweights (threshold MAD/0.6745·k + median residual). Too few usable points or
a singular system give a result whose ``ok`` is False and whose numbers are NaN: no exception,
as with NumPy's fits of degenerate data. Wrong shapes raise quib.ArgumentError (ValueError).
The result carries ``rms``, ``covariance`` and ``standard_errors``. The GIL is released while
the points are copied and fitted.
)doc";

std::string note(char const* head, int dims) {
  std::string s = std::string(head) + kFitNote;
  s.replace(s.find("{D}"), 3, std::to_string(dims));
  return s;
}

std::string num(double v) {
  return std::to_string(v);
}

}  // namespace

void bind_numeric(py::module_& m) {
  using Line = Fitted<LeastSquaresLine>;
  result<LeastSquaresLine, P2>(m, "Line", "The line y = slope·x + intercept (vertical residuals).",
                               "(slope, intercept)")
      .def_property_readonly("slope", [](Line const& f) { return f.fit.a(); })
      .def_property_readonly("intercept", [](Line const& f) { return f.fit.b(); })
      .def(
          "y",
          [](Line const& f, py::array_t<double> x) {
            return py::vectorize([&f](double v) { return f.fit.get_y(v); })(x);
          },
          py::arg("x"))
      .def("__repr__", [](Line const& f) {
        return repr(f, "Line y = " + num(f.fit.a()) + "·x + " + num(f.fit.b()));
      });
  m.def("fit_line", &fit<LeastSquaresLine, P2>, py::arg("points"), py::arg("weights") = py::none(),
        py::arg("k") = py::none(),
        note("Fits y = slope·x + intercept to (N, 2) points.", 2).c_str());
  m.def(
      "fit_line_iterative",
      [](py::handle points, double tolerance, int count, py::handle k) {
        std::vector<P2> pts = points_of<P2>(points, "points");
        Line out{LeastSquaresLine(), FitInfo()};
        py::gil_scoped_release release;
        out.fit = k.is_none()
                      ? LeastSquaresLine::create_iterative(pts, tolerance, count)
                      : LeastSquaresLine::create_iterative(pts, tolerance, count, k.cast<double>());
        return out;
      },
      py::arg("points"), py::arg("tolerance"), py::arg("count"), py::arg("k") = py::none(), R"doc(
Fits a steep line by passes: after each pass a copy of the points is turned towards the
horizontal about the fitted intercept, until a pass's slope is within ``tolerance`` or ``count``
passes are done (robust passes with ``k``). The slope is the sum of the passes' slopes, the
intercept the last pass's. The result carries no uncertainty (``covariance`` is (0, 0)).
)doc");

  using Parabola = Fitted<LeastSquaresCurve>;
  result<LeastSquaresCurve, P2>(m, "Parabola", "The parabola y = a·x² + b·x + c.", "(a, b, c)")
      .def_property_readonly(
          "coefficients",
          [](Parabola const& f) {
            return vec({f.fit.a(), f.fit.b(), f.fit.c()});
          },
          "(a, b, c), highest power first.")
      .def(
          "y",
          [](Parabola const& f, py::array_t<double> x) {
            return py::vectorize([&f](double v) { return f.fit.get_y(v); })(x);
          },
          py::arg("x"));
  m.def("fit_parabola", &fit<LeastSquaresCurve, P2>, py::arg("points"),
        py::arg("weights") = py::none(), py::arg("k") = py::none(),
        note("Fits y = a·x² + b·x + c to (N, 2) points (needs three distinct x).", 2).c_str());
  using Cubic = Fitted<LeastSquaresCurve3>;
  result<LeastSquaresCurve3, P2>(m, "Cubic", "The cubic y = a·x³ + b·x² + c·x + d.", "(a, b, c, d)")
      .def_property_readonly(
          "coefficients",
          [](Cubic const& f) {
            return vec({f.fit.a(), f.fit.b(), f.fit.c(), f.fit.d()});
          },
          "(a, b, c, d), highest power first.")
      .def(
          "y",
          [](Cubic const& f, py::array_t<double> x) {
            return py::vectorize([&f](double v) { return f.fit.get_y(v); })(x);
          },
          py::arg("x"));
  m.def(
      "fit_cubic", &fit<LeastSquaresCurve3, P2>, py::arg("points"), py::arg("weights") = py::none(),
      py::arg("k") = py::none(),
      note("Fits y = a·x³ + b·x² + c·x + d to (N, 2) points (needs four distinct x).", 2).c_str());

  using Circle = Fitted<LeastSquaresCircle>;
  result<LeastSquaresCircle, P2>(m, "Circle", "A circle fitted by its algebraic residual.",
                                 "(a, b, c)")
      .def_property_readonly("center",
                             [](Circle const& f) {
                               return vec({f.fit.x(), f.fit.y()});
                             })
      .def_property_readonly("radius", [](Circle const& f) { return f.fit.r(); })
      .def_property_readonly(
          "coefficients",
          [](Circle const& f) {
            return vec({f.fit.a(), f.fit.b(), f.fit.c()});
          },
          "(a, b, c) of x² + y² + a·x + b·y + c = 0.")
      .def("__repr__", [](Circle const& f) {
        return repr(f, "Circle center=(" + num(f.fit.x()) + ", " + num(f.fit.y()) +
                           ") radius=" + num(f.fit.r()));
      });
  using GCircle = Fitted<GeometricCircle>;
  result<GeometricCircle, P2>(m, "GeometricCircle", "A circle fitted by orthogonal distance.",
                              "(x, y, radius)")
      .def_property_readonly("center",
                             [](GCircle const& f) {
                               return vec({f.fit.x(), f.fit.y()});
                             })
      .def_property_readonly("radius", [](GCircle const& f) { return f.fit.r(); })
      .def("__repr__", [](GCircle const& f) {
        return repr(f, "GeometricCircle center=(" + num(f.fit.x()) + ", " + num(f.fit.y()) +
                           ") radius=" + num(f.fit.r()));
      });
  m.def(
      "fit_circle",
      [](py::handle points, py::handle weights, py::handle k, bool geometric) -> py::object {
        if (geometric) return py::cast(fit<GeometricCircle, P2>(points, weights, k));
        return py::cast(fit<LeastSquaresCircle, P2>(points, weights, k));
      },
      py::arg("points"), py::arg("weights") = py::none(), py::arg("k") = py::none(),
      py::arg("geometric") = false,
      note("Fits a circle to (N, 2) points: by the algebraic residual, or with geometric=True by "
           "orthogonal distance (unbiased on short arcs; parameters x, y, radius).",
           2)
          .c_str());

  using Plane = Fitted<LeastSquaresPlane>;
  result<LeastSquaresPlane, P3>(m, "Plane", "The plane z = a·x + b·y + c (vertical residuals).",
                                "(a, b, c)")
      .def_property_readonly(
          "normal",
          [](Plane const& f) {
            return vec({f.fit.x(), f.fit.y(), f.fit.z()});
          },
          "Unit normal; normal · p = distance on the plane.")
      .def_property_readonly("distance", [](Plane const& f) { return f.fit.d(); })
      .def_property_readonly(
          "coefficients",
          [](Plane const& f) {
            return vec({f.fit.a(), f.fit.b(), f.fit.c()});
          },
          "(a, b, c) of z = a·x + b·y + c.")
      .def("__repr__", [](Plane const& f) {
        return repr(f, "Plane normal=(" + num(f.fit.x()) + ", " + num(f.fit.y()) + ", " +
                           num(f.fit.z()) + ") distance=" + num(f.fit.d()));
      });
  m.def("fit_plane", &fit<LeastSquaresPlane, P3>, py::arg("points"),
        py::arg("weights") = py::none(), py::arg("k") = py::none(),
        note("Fits z = a·x + b·y + c to (N, 3) points.", 3).c_str());

  using Sphere = Fitted<LeastSquaresSphere>;
  result<LeastSquaresSphere, P3>(m, "Sphere", "A sphere fitted by its algebraic residual.",
                                 "(a, b, c, d)")
      .def_property_readonly("center",
                             [](Sphere const& f) {
                               return vec({f.fit.x(), f.fit.y(), f.fit.z()});
                             })
      .def_property_readonly("radius", [](Sphere const& f) { return f.fit.r(); })
      .def_property_readonly(
          "coefficients",
          [](Sphere const& f) {
            return vec({f.fit.a(), f.fit.b(), f.fit.c(), f.fit.d()});
          },
          "(a, b, c, d) of x² + y² + z² + a·x + b·y + c·z + d = 0.")
      .def("__repr__", [](Sphere const& f) {
        return repr(f, "Sphere center=(" + num(f.fit.x()) + ", " + num(f.fit.y()) + ", " +
                           num(f.fit.z()) + ") radius=" + num(f.fit.r()));
      });
  using GSphere = Fitted<GeometricSphere>;
  result<GeometricSphere, P3>(m, "GeometricSphere", "A sphere fitted by orthogonal distance.",
                              "(x, y, z, radius)")
      .def_property_readonly("center",
                             [](GSphere const& f) {
                               return vec({f.fit.x(), f.fit.y(), f.fit.z()});
                             })
      .def_property_readonly("radius", [](GSphere const& f) { return f.fit.r(); });
  m.def(
      "fit_sphere",
      [](py::handle points, py::handle weights, py::handle k, bool geometric) -> py::object {
        if (geometric) return py::cast(fit<GeometricSphere, P3>(points, weights, k));
        return py::cast(fit<LeastSquaresSphere, P3>(points, weights, k));
      },
      py::arg("points"), py::arg("weights") = py::none(), py::arg("k") = py::none(),
      py::arg("geometric") = false,
      note("Fits a sphere to (N, 3) points: algebraic residual, or orthogonal distance with "
           "geometric=True.",
           3)
          .c_str());

  using Poly = Fitted<LeastSquaresDimension>;
  result<LeastSquaresDimension, P2>(
      m, "Polynomial", "y = Σ c[i]·x^(degree-i), highest power first.", "highest power first")
      .def_property_readonly("degree", [](Poly const& f) { return f.fit.get_numeric(); })
      .def_property_readonly(
          "coefficients",
          [](Poly const& f) {
            py::array_t<double> c(f.fit.size());
            for (int i = 0; i < f.fit.size(); ++i)
              c.mutable_at(i) = f.fit[i];
            return c;
          },
          "Highest power first, as numpy.polyfit gives them.")
      .def(
          "y",
          [](Poly const& f, py::array_t<double> x) {
            return py::vectorize([&f](double v) { return f.fit.get_y(v); })(x);
          },
          py::arg("x"))
      .def(
          "slope",
          [](Poly const& f, py::array_t<double> x) {
            return py::vectorize([&f](double v) { return f.fit.get_slope(v); })(x);
          },
          py::arg("x"))
      .def(
          "area", [](Poly const& f, double x0, double x1) { return f.fit.get_area(x0, x1); },
          py::arg("x0"), py::arg("x1"), "The definite integral from x0 to x1.")
      .def(
          "area_between",
          [](Poly const& f, double x0, double x1, double step) {
            return f.fit.get_area2(x0, x1, step);
          },
          py::arg("x0"), py::arg("x1"), py::arg("step"),
          "The area between the curve and the x axis, positive on both sides (split at the roots "
          "found every step).")
      .def(
          "length",
          [](Poly const& f, double x0, double x1, double step) {
            return f.fit.get_length(x0, x1, step);
          },
          py::arg("x0"), py::arg("x1"), py::arg("step"),
          "The arc length: chords over the samples x0 + step, x0 + 2·step, ... below x1.")
      .def(
          "x_at_length",
          [](Poly const& f, double x0, double length, double step) {
            return f.fit.get_x(x0, length, step);
          },
          py::arg("x0"), py::arg("length"), py::arg("step"),
          "The first sample from x0 (backwards for a negative length) whose arc length reaches "
          "|length|; NaN when it cannot be reached.")
      .def(
          "roots",
          [](Poly const& f, double x0, double x1, double step) {
            std::vector<double> r;
            {
              py::gil_scoped_release release;
              f.fit.get_solution(r, x0, x1, step);
            }
            return py::array_t<double>(static_cast<py::ssize_t>(r.size()), r.data());
          },
          py::arg("x0"), py::arg("x1"), py::arg("step"),
          "The roots in [x0, x1), found by sampling every step.")
      .def(
          "turning_points",
          [](Poly const& f, double x0, double x1, double step, bool local) {
            std::vector<int> kinds;
            LeastSquaresDimension::points_type at;
            {
              py::gil_scoped_release release;
              if (local)
                f.fit.get_local(kinds, at, x0, x1, step);
              else
                f.fit.get_extreme(kinds, at, x0, x1, step);
            }
            py::array_t<double> points({static_cast<py::ssize_t>(at.size()), py::ssize_t(2)});
            for (std::size_t i = 0; i < at.size(); ++i)
              for (int j = 0; j < 2; ++j)
                points.mutable_at(static_cast<py::ssize_t>(i), j) = at[i][j];
            return py::make_tuple(
                py::array_t<int>(static_cast<py::ssize_t>(kinds.size()), kinds.data()), points);
          },
          py::arg("x0"), py::arg("x1"), py::arg("step"), py::arg("local") = false, R"doc(
The turning points along [x0, x1) sampled every step: ``(kinds, points)`` with kind 1 for a
maximum, -1 for a minimum and, with ``local``, 0 for a slope that weakened and strengthens again;
points (K, 2) are the samples where each was seen.
)doc");
  m.def(
      "fit_polynomial",
      [](py::handle points, int degree, py::handle weights, py::handle k, double scale) {
        const PointView<P2> pts = fit_points<P2>(points, "points");
        if (degree < 0) fail_value("degree must be 0 or more");
        const Request r = request(pts.count, weights, k);
        py::gil_scoped_release release;
        Poly out{LeastSquaresDimension(scale), FitInfo()};
        if (r.robust)
          out.fit =
              LeastSquaresDimension::create(scale, degree, pts.data, pts.count, r.k, out.info);
        else if (r.weighted)
          static_cast<void>(
              out.fit.calculate(degree, pts.data, pts.count, r.weights.data(), out.info));
        else
          static_cast<void>(out.fit.calculate(degree, pts.data, pts.count, out.info));
        return out;
      },
      py::arg("points"), py::arg("degree"), py::arg("weights") = py::none(),
      py::arg("k") = py::none(), py::arg("scale") = 1.0,
      note("Fits a polynomial of the given degree to (N, 2) points.", 2).c_str());
  m.def(
      "ransac_plane",
      [](py::handle points, double threshold, double probability, std::uint64_t max_iterations,
         std::optional<std::uint32_t> seed) {
        const PointView<P3> pts = fit_points<P3>(points, "points");
        if (!(threshold > 0)) fail_value("threshold must be positive");
        if (!(probability >= 0 && probability <= 1)) fail_value("probability must lie in [0, 1]");
        RANSAC_Plane<P3, double> ransac;
        bool found;
        {
          py::gil_scoped_release release;
          found = seed
                      ? ransac.compute_seeded(pts.data, pts.count, threshold, probability,
                                              max_iterations, *seed)
                      : ransac.compute(pts.data, pts.count, threshold, probability, max_iterations);
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
      py::arg("max_iterations") = 1000, py::arg("seed") = py::none(), R"doc(
Searches (N, 3) points for the plane most points lie on (distance < threshold). Returns
``(normal, distance, inliers)``: the unit normal, normal · p on the plane, and the ascending
indices of the inliers; NaN and no indices when no plane was found. Without ``seed`` each call
seeds its generator with the current second; a given seed repeats the search exactly. The GIL
is released during the search.
)doc");
}

}  // namespace python
}  // namespace quib
