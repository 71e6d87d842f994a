// Discriminant statistics of sample classes, robust weights, centroids and scatter, turning
// points of slope streams, and the Mersenne Twister, over NumPy arrays.
#include "common.hpp"

#include <quib/discrim.hpp>
#include <quib/math.hpp>
#include <quib/random.hpp>
#include <quib/robust.hpp>
#include <quib/slope.hpp>

#include <cstdint>
#include <optional>

namespace quib {
namespace python {
namespace {

template <int D>
using Point = Eigen::Matrix<double, D, 1>;

/// A 1-D float64 array of numbers (converted from any real array or sequence).
std::vector<double> numbers_of(py::handle values, char const* what) {
  auto a = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(values);
  if (!a || a.ndim() != 1) {
    PyErr_Clear();
    fail_value(std::string(what) + " must be a 1-D array of numbers");
  }
  return std::vector<double>(a.data(), a.data() + a.shape(0));
}

py::array_t<double> array_of(std::vector<double> const& v) {
  return py::array_t<double>(static_cast<py::ssize_t>(v.size()), v.data());
}

template <int D>
py::array_t<double> matrix_of(Eigen::Matrix<double, D, D> const& m) {
  py::array_t<double> a({py::ssize_t(D), py::ssize_t(D)});
  for (int i = 0; i < D; ++i)
    for (int j = 0; j < D; ++j)
      a.mutable_at(i, j) = m(i, j);
  return a;
}

template <int D>
py::array_t<double> vector_of(Point<D> const& p) {
  return py::array_t<double>(D, p.data());
}

/// Evaluates `score` at one query (D,) -> float, or at each row of (M, D) -> (M,) array.
template <int D, class Score>
py::object at_points(py::handle x, Score score) {
  auto a = py::array_t<double, py::array::forcecast>::ensure(x);
  if (a && a.ndim() == 1 && a.shape(0) == D) {
    Point<D> p;
    for (int i = 0; i < D; ++i)
      p[i] = a.at(i);
    return py::float_(score(p));
  }
  PyErr_Clear();
  std::vector<Point<D>> pts = points_of<Point<D>>(x, "x");
  py::array_t<double> out(static_cast<py::ssize_t>(pts.size()));
  double* o = out.mutable_data();
  py::gil_scoped_release release;
  for (std::size_t i = 0; i < pts.size(); ++i)
    o[i] = score(pts[i]);
  return std::move(out);
}

template <class Discrim, int D>
void bind_discrim(py::module_& m, char const* name) {
  using P = Point<D>;
  py::class_<Discrim>(m, name, R"doc(
One class of D-dimensional samples ((N, D) array) modelled by its centroid and scatter matrix
(the sum of (s - mean)(s - mean)ᵀ, not divided by N), and scores of queries against it. Each
score takes one query (D,) and gives a float, or (M, D) queries and gives an (M,) array:
``mahalanobis`` (squared distance D²), ``gaussian`` and ``gaussian2`` (densities
exp(-D²/2) / (pow(2π, sqrt(k))·sqrt(det C)), resp. with det C⁻¹; k defaults to N),
``bayes(x, p, c)`` = log p + c - D²/2, ``bayes2`` also - log(det C)/2, ``linear`` and
``nearest_neighbor`` (squared distance to the nearest sample). These normalisations are the
library's own and kept for comparability with earlier results. A singular scatter matrix (all
samples equal) gives non-finite scores; ``ok`` is False without samples or with a non-finite
centroid. The object owns a copy of the samples; one object per thread at a time.
)doc")
      .def(py::init([](py::handle samples) { return Discrim(points_of<P>(samples, "samples")); }),
           py::arg("samples"))
      .def_property_readonly("ok", &Discrim::is)
      .def_property_readonly("centroid",
                             [](Discrim const& d) { return vector_of<D>(d.get_centroid()); })
      .def_property_readonly(
          "covariance", [](Discrim const& d) { return matrix_of<D>(d.get_covariance()); },
          "The scatter matrix Σ (s - mean)(s - mean)ᵀ.")
      .def_property_readonly("count", [](Discrim const& d) { return d.array().size(); })
      .def(
          "mahalanobis",
          [](Discrim const& d, py::handle x) {
            return at_points<D>(x, [&](P const& p) { return d.get_mahalanobis_distance(p); });
          },
          py::arg("x"))
      .def(
          "gaussian",
          [](Discrim const& d, py::handle x, std::optional<int> k) {
            return at_points<D>(x, [&](P const& p) {
              return k ? d.get_gaussian_distribution(p, *k) : d.get_gaussian_distribution(p);
            });
          },
          py::arg("x"), py::arg("k") = py::none())
      .def(
          "gaussian2",
          [](Discrim const& d, py::handle x, std::optional<int> k) {
            return at_points<D>(x, [&](P const& p) {
              return k ? d.get_gaussian_distribution2(p, *k) : d.get_gaussian_distribution2(p);
            });
          },
          py::arg("x"), py::arg("k") = py::none())
      .def(
          "bayes",
          [](Discrim const& d, py::handle x, double prior, double c) {
            return at_points<D>(x,
                                [&](P const& p) { return d.get_bayes_discriminant(p, prior, c); });
          },
          py::arg("x"), py::arg("p"), py::arg("c") = 0.0)
      .def(
          "bayes2",
          [](Discrim const& d, py::handle x, double prior, double c) {
            return at_points<D>(x,
                                [&](P const& p) { return d.get_bayes_discriminant2(p, prior, c); });
          },
          py::arg("x"), py::arg("p"), py::arg("c") = 0.0)
      .def(
          "linear",
          [](Discrim const& d, py::handle x) {
            return at_points<D>(x, [&](P const& p) { return d.get_linear_discriminant(p); });
          },
          py::arg("x"))
      .def(
          "nearest_neighbor",
          [](Discrim const& d, py::handle x) {
            return at_points<D>(x,
                                [&](P const& p) { return d.get_nearest_neighbor_discriminant(p); });
          },
          py::arg("x"));
}

/// `count` draws of T, or one when `size` is None.
template <class T>
py::object draw(MersenneTwister& mt, std::optional<py::ssize_t> size) {
  if (!size) return py::cast(static_cast<T>(mt));
  if (*size < 0) fail_value("size must not be negative");
  py::array_t<T> out(*size);
  T* o = out.mutable_data();
  py::gil_scoped_release release;
  for (py::ssize_t i = 0; i < *size; ++i)
    o[i] = static_cast<T>(mt);
  return std::move(out);
}

py::object turn_or_none(bool fired, int turn) {
  return fired ? py::object(py::int_(turn)) : py::object(py::none());
}

}  // namespace

void bind_statistics(py::module_& m) {
  py::class_<Discrim1>(m, "Discrim1", R"doc(
One class of scalar samples ((N,) array) modelled by its mean and variance. ``gaussian(x)`` is
the density exp(-(x - mean)²·variance/2) / sqrt(2π·sqrt(variance)) (the variance multiplies in
the exponent: the library's own normalisation, kept for comparability), ``bayes(x, p, c)`` =
density·p + c; both take a number or an array. ``ok`` is False without samples.
)doc")
      .def(py::init([](py::handle samples) { return Discrim1(numbers_of(samples, "samples")); }),
           py::arg("samples"))
      .def_property_readonly("ok", &Discrim1::is)
      .def_property_readonly("centroid", &Discrim1::get_centroid)
      .def_property_readonly("covariance", &Discrim1::get_covariance,
                             "The variance (divided by N).")
      .def_property_readonly("count", [](Discrim1 const& d) { return d.array().size(); })
      .def(
          "gaussian",
          [](Discrim1 const& d, py::array_t<double> x) {
            return py::vectorize([&d](double v) { return d.get_gaussian_distribution(v); })(x);
          },
          py::arg("x"))
      .def(
          "bayes",
          [](Discrim1 const& d, py::array_t<double> x, double p, double c) {
            return py::vectorize(
                [&d, p, c](double v) { return d.get_bayes_discriminant(v, p, c); })(x);
          },
          py::arg("x"), py::arg("p"), py::arg("c") = 0.0);
  bind_discrim<Discrim2, 2>(m, "Discrim2");
  bind_discrim<Discrim3, 3>(m, "Discrim3");

  m.def(
      "tukey_weights",
      [](py::handle residuals, double c) {
        std::vector<double> d = numbers_of(residuals, "residuals");
        RobustM w;
        {
          py::gil_scoped_release release;
          static_cast<void>(w.estimate(d, c));
        }
        return array_of(w.array());
      },
      py::arg("residuals"), py::arg("c"), R"doc(
Tukey's biweight of each residual: (1 - (d/c)²)² within the threshold c, 0 beyond it (also
exactly at ±c and for non-finite residuals). c = 0 or not finite switches weighting off (all 1);
c < 0 gives all 0. Set c with median_abs, mad and madn, e.g.
``c = quib.madn(quib.mad(d, m)) * 4.685 + m`` with ``m = quib.median_abs(d)``.
)doc");
  m.def(
      "median_abs", [](py::handle d) { return RobustM::get_med(numbers_of(d, "residuals")); },
      py::arg("residuals"), "The median of |d| over the finite residuals; 0 when there are none.");
  m.def(
      "mad",
      [](py::handle d, double median) {
        return RobustM::get_mad(numbers_of(d, "residuals"), median);
      },
      py::arg("residuals"), py::arg("median"),
      "The median of |d - median| over the finite residuals; 0 when there are none.");
  m.def(
      "madn", [](double mad) { return RobustM::get_madn(mad); }, py::arg("mad"),
      "mad / 0.6745: the standard deviation of normal data estimated from the MAD.");

  m.def(
      "centroid",
      [](py::handle points) -> py::object {
        auto a = py::array_t<double>::ensure(points);
        if (a && a.ndim() == 2 && a.shape(1) == 2)
          return vector_of<2>(eigen::get_centroid(points_of<Point<2>>(points, "points")));
        PyErr_Clear();
        return vector_of<3>(eigen::get_centroid(points_of<Point<3>>(points, "points")));
      },
      py::arg("points"),
      "The mean of the (N, 2) or (N, 3) points with finite coordinates; NaN when there are "
      "none.");
  m.def(
      "scatter_matrix",
      [](py::handle points) -> py::object {
        auto a = py::array_t<double>::ensure(points);
        if (a && a.ndim() == 2 && a.shape(1) == 2) {
          auto p = points_of<Point<2>>(points, "points");
          return matrix_of<2>(eigen::get_covariance_matrix(eigen::get_centroid(p), p));
        }
        PyErr_Clear();
        auto p = points_of<Point<3>>(points, "points");
        return matrix_of<3>(eigen::get_covariance_matrix(eigen::get_centroid(p), p));
      },
      py::arg("points"),
      "The compensated scatter Σ (p - c)(p - c)ᵀ of the finite (N, 2) or (N, 3) points about "
      "their centroid, not divided by N.");

  py::class_<Slope>(m, "Slope", R"doc(
Watches slope values fed one at a time and reports where a curve expected to rise
(``direction`` > 0) or fall (< 0) turns. ``extreme(slope)`` reports a sign change against the
direction, ``local(slope)`` also a weakening slope that strengthens again: each returns the
turn (1 maximum, -1 minimum, 0 local turn) or None. A plain value; one per thread at a time.

    >>> s = quib.Slope(1)
    >>> [s.local(v) for v in (3.0, 2.0, 1.0, 2.0)]
    [None, None, None, 0]
)doc")
      .def(py::init<int>(), py::arg("direction"))
      .def_property("direction", py::overload_cast<>(&Slope::dir, py::const_),
                    py::overload_cast<int>(&Slope::dir))
      .def_property_readonly("peak", &Slope::get_peak)
      .def_property_readonly("rebound", &Slope::get_rebound)
      .def(
          "extreme",
          [](Slope& s, double slope) {
            int turn = 0;
            const bool fired = s.is_extreme(turn, slope);
            return turn_or_none(fired, turn);
          },
          py::arg("slope"))
      .def(
          "local",
          [](Slope& s, double slope) {
            int turn = 0;
            const bool fired = s.is_local(turn, slope);
            return turn_or_none(fired, turn);
          },
          py::arg("slope"));

  py::class_<MersenneTwister>(m, "MersenneTwister", R"doc(
The library's 32-bit Mersenne Twister (MT19937). Each draw takes the next number in the asked
type: ``uint32``/``int32`` one tempered word, ``uint64``/``int64`` two (the first as the low
half), ``float64``/``float32`` uniform in [-1, 1). ``size=None`` gives one number, ``size=n``
an array of n (drawn without the GIL). Copies (copy.copy) continue the same sequence
independently. One generator per thread.

    >>> quib.MersenneTwister(5489).uint32()
    3499211612
)doc")
      .def(py::init<unsigned int>(), py::arg("seed"))
      .def("seed", &MersenneTwister::create, py::arg("seed"), "Starts the sequence of `seed` anew.")
      .def("uint32", &draw<std::uint32_t>, py::arg("size") = py::none())
      .def("int32", &draw<std::int32_t>, py::arg("size") = py::none())
      .def("uint64", &draw<std::uint64_t>, py::arg("size") = py::none())
      .def("int64", &draw<std::int64_t>, py::arg("size") = py::none())
      .def("float64", &draw<double>, py::arg("size") = py::none())
      .def("float32", &draw<float>, py::arg("size") = py::none())
      .def("__copy__", [](MersenneTwister const& mt) { return MersenneTwister(mt); });
}

}  // namespace python
}  // namespace quib
