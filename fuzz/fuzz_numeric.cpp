// Feeds arbitrary numbers (NaN, infinities, huge and tiny values included) to every fit,
// curve walk, RANSAC search and statistic of the numeric subsystem.
#include <quib/curve.hpp>
#include <quib/discrim.hpp>
#include <quib/fit.hpp>
#include <quib/ransac.hpp>
#include <quib/robust.hpp>
#include <quib/slope.hpp>

#include "number_reader.hpp"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace {

// Doubles of any bits; near the end of the input, small multiples of 0.25.
class Reader : public fuzz::Reader {
 public:
  using fuzz::Reader::Reader;
  double number() { return remaining() < sizeof(double) ? byte() * 0.25 : raw(0.0); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Reader in(data, size);
  const int degree = in.byte() % 9;
  const double k = in.number();
  const std::size_t count = in.byte() % 64;
  std::vector<Eigen::Vector2d> p2;
  std::vector<Eigen::Vector3d> p3;
  std::vector<Eigen::Vector3f> p3f;
  std::vector<double> weights, values;
  for (std::size_t i = 0; i < count && in.remaining() > 0; ++i) {
    const double x = in.number(), y = in.number(), z = in.number();
    p2.emplace_back(x, y);
    p3.emplace_back(x, y, z);
    p3f.emplace_back(static_cast<float>(x), static_cast<float>(y), static_cast<float>(z));
    weights.push_back(in.number());
    values.push_back(x);
  }

  std::vector<double> d;
  static_cast<void>(quib::LeastSquaresLine::create(p2, k).get_d(d, p2));
  quib::LeastSquaresLine line;
  static_cast<void>(line.calculate(p2, weights));
  quib::LeastSquaresLine::create_iterative(p2, 1e-6, degree, k);
  static_cast<void>(quib::LeastSquaresCircle::create(p2, k).get_d(d, p2));
  static_cast<void>(quib::LeastSquaresPlane::create(p3, k).get_d(d, p3));
  static_cast<void>(quib::LeastSquaresSphere::create(p3, k).get_d(d, p3));
  quib::LeastSquaresCurve::create(p2, k);
  quib::LeastSquaresCurve3 cubic;
  static_cast<void>(cubic.calculate(p2, weights));

  const auto poly = quib::LeastSquaresDimension::create(in.number(), degree, p2, k);
  static_cast<void>(poly.get_d(d, p2));
  const double x0 = in.number(), x1 = in.number();
  const double step = (x1 - x0) / (1 + in.byte());  // at most 256 samples
  std::vector<double> roots;
  std::vector<int> kinds;
  std::vector<Eigen::Vector2d> turns;
  poly.get_length(x0, x1, step);
  poly.get_area2(x0, x1, step);
  poly.get_solution(roots, x0, x1, step);
  poly.get_local(kinds, turns, x0, x1, step);
  poly.get_extreme(kinds, turns, x0, x1, step);
  const double length = std::fmod(in.number(), 100.0 * step);
  if (std::isfinite(length)) poly.get_x(x0, length, step);

  quib::RobustM robust(values, k);
  quib::RobustM::get_mad(values, quib::RobustM::get_med(values));

  quib::RANSAC_Plane<Eigen::Vector3d, double> ransac;
  static_cast<void>(ransac.compute(p3, k, in.byte() / 255.0, 20));
  quib::RANSAC_Plane<Eigen::Vector3f, float> ransacf;
  static_cast<void>(ransacf.compute(p3f, static_cast<float>(k), in.byte() / 255.0, 20));

  quib::Discrim1 d1(values);
  d1.get_likelihood();
  quib::Discrim2 d2(p2);
  quib::Discrim3 d3(p3);
  if (!p2.empty()) {
    d2.get_gaussian_distribution2(p2[0]);
    d2.get_nearest_neighbor_discriminant(p2[0]);
    d3.get_bayes_discriminant2(p3[0], 0.5, 0.0);
    d3.get_linear_discriminant(p3[0]);
  }

  quib::Slope slope(static_cast<int>(in.byte() % 3) - 1);
  int turn = 0;
  for (double v : values)
    slope.is_local(turn, v);
  return 0;
}
