// Feeds arbitrary point sets (NaN, infinities, huge, tiny, repeated, collinear and coplanar
// points) to the geometric circle and sphere fits and to every fit's statistics. A fit either
// succeeds with finite values or reports no result; it never hangs (bounded iterations).
#include <quib/curve.hpp>
#include <quib/fit.hpp>

#include "number_reader.hpp"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

// Mostly small numbers (so that real circles occur), sometimes doubles of any bits.
class Reader : public fuzz::Reader {
 public:
  using fuzz::Reader::Reader;
  double number() {
    const std::uint8_t kind = byte();
    if (kind < 200) return (static_cast<int>(byte()) - 128) * 0.125 + kind * 1e-3;
    return raw(0.0);
  }
};

template <class Fit>
void check(const Fit& fit, bool ok, const quib::FitInfo& info) {
  // The result says what the members hold.
  if (ok != fit.is()) std::abort();
  if (!ok && (info.is() || info.get_count() != 0)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Reader in(data, size);
  const double k = in.number();
  const std::size_t count = in.byte() % 48;
  std::vector<Eigen::Vector2d> p2;
  std::vector<Eigen::Vector3d> p3;
  std::vector<double> weights;
  for (std::size_t i = 0; i < count && in.remaining() > 0; ++i) {
    const double x = in.number(), y = in.number(), z = in.number();
    p2.emplace_back(x, y);
    p3.emplace_back(x, y, z);
    weights.push_back(in.byte() % 4 == 0 ? 0.0 : in.number());
  }

  quib::FitInfo info;
  std::vector<double> d;
  quib::GeometricCircle circle;
  check(circle, circle.calculate(p2, info), info);
  check(circle, circle.calculate(p2, weights, info), info);
  static_cast<void>(circle.get_d(d, p2));
  quib::GeometricSphere sphere;
  check(sphere, sphere.calculate(p3, info), info);
  check(sphere, sphere.calculate(p3, weights, info), info);
  const auto robust = quib::GeometricCircle::create(p2, k, info);
  static_cast<void>(robust.get_d(d, p2));
  static_cast<void>(quib::GeometricSphere::create(p3, k, info));

  quib::LeastSquaresLine line;
  check(line, line.calculate(p2, weights, info), info);
  quib::LeastSquaresCircle algebraic;
  check(algebraic, algebraic.calculate(p2, info), info);
  quib::LeastSquaresPlane plane;
  check(plane, plane.calculate(p3, weights, info), info);
  quib::LeastSquaresSphere ball;
  check(ball, ball.calculate(p3, info), info);
  quib::LeastSquaresCurve3 cubic;
  check(cubic, cubic.calculate(p2, info), info);
  quib::LeastSquaresDimension poly(in.number());
  static_cast<void>(poly.calculate(in.byte() % 9, p2, weights, info));
  return 0;
}
