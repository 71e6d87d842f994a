#include "numeric/fit_core.hpp"

#include <Eigen/LU>

#if defined(__FAST_MATH__)
#error "The compensated sums need IEEE arithmetic: build QUIB without -ffast-math."
#endif

namespace quib {
namespace detail {

bool solve_normal(const Eigen::MatrixXd& m, const Eigen::VectorXd& r, Eigen::VectorXd& x) {
  // A singular matrix would solve to finite zeros and pass for a fit.
  Eigen::FullPivLU<Eigen::MatrixXd> lu(m);
  if (!lu.isInvertible()) {
    x.setConstant(m.cols(), kNaN);
    return false;
  }
  x = lu.solve(r);
  return true;
}

bool fit_polynomial(std::vector<double>& coef, int degree, double scale,
                    const std::vector<Eigen::Matrix<double, 2, 1>>& points,
                    const std::vector<double>* weights) {
  coef.clear();
  // More coefficients than points cannot be determined; refusing early also bounds the
  // size of the system by the input.
  if (degree < 0 || static_cast<std::size_t>(degree) >= points.size()) return false;
  const std::size_t n = static_cast<std::size_t>(degree);
  const std::size_t powers = 2 * n + 1;  // x^0 .. x^2n, then x^0·y .. x^n·y
  std::vector<Sum> sums(powers + n + 1);
  std::vector<double> t(sums.size());
  sum_moments(sums, t, points, weights, [&](const Eigen::Matrix<double, 2, 1>& p, double* out) {
    const double x = p[0];
    const double y = p[1] * scale;
    double xp = 1.0;
    for (std::size_t j = 0; j < powers; ++j) {
      out[j] = xp;
      if (j <= n) out[powers + j] = xp * y;
      xp *= x;
    }
  });
  Eigen::MatrixXd m(n + 1, n + 1);
  Eigen::VectorXd r(n + 1);
  for (std::size_t i = 0; i <= n; ++i) {
    for (std::size_t j = 0; j <= n; ++j)
      m(static_cast<Eigen::Index>(i), static_cast<Eigen::Index>(j)) = sums[2 * n - i - j].value();
    r[static_cast<Eigen::Index>(i)] = sums[powers + n - i].value();
  }
  Eigen::VectorXd x;
  if (!solve_normal(m, r, x)) return false;
  coef.assign(x.data(), x.data() + x.size());
  return true;
}

}  // namespace detail
}  // namespace quib
