// Fits over points in caller memory (a pointer and a count) against the same points in a vector.
#include <quib/curve.hpp>
#include <quib/fit.hpp>
#include <quib/ransac.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

namespace {

using P2 = Eigen::Matrix<double, 2, 1>;
using P3 = Eigen::Matrix<double, 3, 1>;

// Noisy points near a circle (2-D) or sphere (3-D), a few of them non-finite.
template <class P>
std::vector<P> noisy(std::size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::normal_distribution<double> u(0.0, 1.0);
  std::vector<P> pts(n);
  for (P& p : pts) {
    for (int d = 0; d < p.size(); ++d)
      p[d] = u(gen);
    p = p.normalized() * 20.0 + P::Constant(300.0) + P::NullaryExpr([&] { return 0.1 * u(gen); });
  }
  pts[5][1] = std::nan("");
  return pts;
}

std::vector<double> ramp(std::size_t n) {
  std::vector<double> w(n);
  for (std::size_t i = 0; i < n; ++i)
    w[i] = 0.5 + static_cast<double>(i % 7) / 7.0;
  return w;
}

// Equal to the last bit, NaN where the other is NaN.
void expect_same(std::vector<double> const& a, std::vector<double> const& b) {
  ASSERT_EQ(a.size(), b.size());
  for (std::size_t i = 0; i < a.size(); ++i)
    if (!(std::isnan(a[i]) && std::isnan(b[i]))) {
      EXPECT_EQ(a[i], b[i]) << i;
    }
}

void expect_same(quib::FitInfo const& a, quib::FitInfo const& b) {
  auto const numbers = [](quib::FitInfo const& i) {
    std::vector<double> v(i.get_covariance().data(),
                          i.get_covariance().data() + i.get_covariance().size());
    v.push_back(i.get_rms());
    v.push_back(static_cast<double>(i.get_count()));
    return v;
  };
  expect_same(numbers(a), numbers(b));
}

// A window of `count` points in the middle of a larger buffer (different points on both
// sides, which must not be read) fitted in place and as a vector copy, plain, weighted, with
// statistics and robustly; the fits agree to the last bit, read through their residuals.
template <class Fit, class Calculate>
void check_window(Calculate calculate) {
  using P = typename Fit::point_type;
  const std::vector<P> buffer = noisy<P>(1000, 7);
  const std::vector<double> weights = ramp(buffer.size());
  // Odd offsets and counts exercise the kernels' partial groups.
  for (std::size_t from : {std::size_t{0}, std::size_t{3}, std::size_t{101}}) {
    for (std::size_t count : {std::size_t{6}, std::size_t{37}, std::size_t{613}}) {
      SCOPED_TRACE(::testing::Message() << "from " << from << " count " << count);
      P const* view = buffer.data() + from;
      const std::vector<P> copy(view, view + count);
      const std::vector<double> w(weights.data() + from, weights.data() + from + count);
      std::vector<double> d_view, d_copy;
      Fit a, b;
      quib::FitInfo ia, ib;
      for (int mode = 0; mode < 4; ++mode) {
        bool const weighted = mode & 1, with_info = mode & 2;
        bool const ok_a =
            calculate(a, view, count, weighted ? w.data() : nullptr, with_info ? &ia : nullptr);
        bool const ok_b = weighted ? (with_info ? b.calculate(copy, w, ib) : b.calculate(copy, w))
                                   : (with_info ? b.calculate(copy, ib) : b.calculate(copy));
        ASSERT_EQ(ok_a, ok_b);
        ASSERT_EQ(a.get_d(d_view, view, count), b.get_d(d_copy, copy));
        expect_same(d_view, d_copy);
        if (with_info) expect_same(ia, ib);
      }
      const Fit ra = Fit::create(view, count, 2.0, ia), rb = Fit::create(copy, 2.0, ib);
      ASSERT_EQ(ra.get_d(d_view, copy), rb.get_d(d_copy, copy));
      expect_same(d_view, d_copy);
      expect_same(ia, ib);
    }
  }
}

// The four pointer overloads as one call.
template <class Fit>
bool fixed(Fit& f, typename Fit::point_type const* p, std::size_t n, double const* w,
           quib::FitInfo* info) {
  if (w) return info ? f.calculate(p, n, w, *info) : f.calculate(p, n, w);
  return info ? f.calculate(p, n, *info) : f.calculate(p, n);
}

TEST(CallerMemory, FitsReadAWindowInPlaceAsTheyReadAVector) {
  check_window<quib::LeastSquaresLine>(fixed<quib::LeastSquaresLine>);
  check_window<quib::LeastSquaresCircle>(fixed<quib::LeastSquaresCircle>);
  check_window<quib::LeastSquaresPlane>(fixed<quib::LeastSquaresPlane>);
  check_window<quib::LeastSquaresSphere>(fixed<quib::LeastSquaresSphere>);
  check_window<quib::LeastSquaresCurve>(fixed<quib::LeastSquaresCurve>);
  check_window<quib::LeastSquaresCurve3>(fixed<quib::LeastSquaresCurve3>);
  check_window<quib::GeometricCircle>(fixed<quib::GeometricCircle>);
  check_window<quib::GeometricSphere>(fixed<quib::GeometricSphere>);
}

TEST(CallerMemory, PolynomialOfAnyDegree) {
  std::mt19937 gen(3);
  std::normal_distribution<double> noise(0.0, 0.01);
  std::vector<P2> buffer(500);
  for (std::size_t i = 0; i < buffer.size(); ++i) {
    const double x = static_cast<double>(i) / 250.0 - 1.0;
    buffer[i] = P2(x, ((x - 0.5) * x + 2.0) * x * x + noise(gen));
  }
  const std::vector<double> w = ramp(buffer.size());
  P2 const* view = buffer.data() + 9;
  const std::vector<P2> copy(view, view + 201);
  quib::LeastSquaresDimension a(4.0), b(4.0);
  quib::FitInfo ia, ib;
  ASSERT_TRUE(a.calculate(5, view, copy.size(), w.data(), ia));
  ASSERT_TRUE(b.calculate(5, copy, std::vector<double>(w.begin(), w.begin() + 201), ib));
  for (int i = 0; i < a.size(); ++i)
    EXPECT_EQ(a[i], b[i]);
  expect_same(ia, ib);
  // More coefficients than the window holds, though the buffer has plenty.
  EXPECT_FALSE(a.calculate(5, view, 5));
  const quib::LeastSquaresDimension ra =
      quib::LeastSquaresDimension::create(4.0, 3, view, copy.size(), 2.0, ia);
  const quib::LeastSquaresDimension rb = quib::LeastSquaresDimension::create(4.0, 3, copy, 2.0, ib);
  for (int i = 0; i < ra.size(); ++i)
    EXPECT_EQ(ra[i], rb[i]);
  expect_same(ia, ib);
}

// The pointer search runs the plane model without the virtual operations; it must draw the
// same samples and keep the same plane and inliers as the vector search.
TEST(CallerMemory, RansacPlaneChoosesTheSamePlane) {
  std::mt19937 gen(11);
  std::uniform_real_distribution<double> u(-10.0, 10.0);
  std::vector<P3> pts;
  for (int i = 0; i < 3000; ++i) {
    const double x = u(gen), y = u(gen);
    pts.emplace_back(x, y, i % 3 == 0 ? u(gen) : 0.2 * x - 0.1 * y + 3.0 + 0.001 * u(gen));
  }
  quib::RANSAC_Plane<P3, double> a, b;
  ASSERT_TRUE(a.compute_seeded(pts.data() + 1, pts.size() - 1, 0.02, 0.999, 500, 5));
  const std::vector<P3> copy(pts.begin() + 1, pts.end());
  ASSERT_TRUE(b.compute_seeded(copy, 0.02, 0.999, 500, 5));
  EXPECT_EQ(a.result(), b.result());
  EXPECT_EQ(a.indices(), b.indices());
  EXPECT_GT(a.indices().size(), 1900u);
  EXPECT_FALSE(a.compute_seeded(pts.data(), 0, 0.02, 0.999, 500, 5));
}

}  // namespace
