#include "numeric/fit_core.hpp"

#include <Eigen/LU>

#if defined(__FAST_MATH__)
#error "The compensated sums need IEEE arithmetic: build QUIB without -ffast-math."
#endif

namespace quib {
namespace detail {

namespace {

std::size_t at(int i) {
  return static_cast<std::size_t>(i);
}

// T - 2·xᵀr + xᵀ·M·x: the quadratic form rather than T - xᵀr, so that the rounding of x
// enters only to second order; in extended precision from both halves of every moment.
long double residual_sum(moments const& s, system_layout const& l, Eigen::VectorXd const& x) {
  long double rss = s.wide(at(l.target));
  for (int i = 0; i < l.size; ++i) {
    long double const xi = x[i];
    rss -= 2.0L * xi * static_cast<long double>(l.sign) * s.wide(at(l.rhs[at(i)]));
    for (int j = 0; j < l.size; ++j)
      rss += xi * static_cast<long double>(x[j]) * s.wide(at(l.matrix[at(i * l.size + j)]));
  }
  return rss > 0.0L ? rss : 0.0L;
}

}  // namespace

bool solve_system(moments const& s, system_layout const& l, Eigen::VectorXd& x, FitInfo* info,
                  double unit) {
  Eigen::MatrixXd m(l.size, l.size);
  Eigen::VectorXd r(l.size);
  for (int i = 0; i < l.size; ++i) {
    for (int j = 0; j < l.size; ++j)
      m(i, j) = s[at(l.matrix[at(i * l.size + j)])];
    r[i] = l.sign * s[at(l.rhs[at(i)])];
  }
  if (info) info->clear();
  // A singular matrix would solve to finite zeros and pass for a fit.
  Eigen::FullPivLU<Eigen::MatrixXd> lu(m);
  if (!lu.isInvertible()) {
    x.setConstant(l.size, kNaN);
    return false;
  }
  x = lu.solve(r);
  if (info) fit_statistics(s, l, x, lu.inverse(), *info, unit);
  return true;
}

void fit_statistics(moments const& s, system_layout const& l, Eigen::VectorXd const& x,
                    Eigen::MatrixXd const& inverse, FitInfo& info, double unit) {
  info.clear();
  if (l.target < 0 || at(l.target) >= s.sum.size() || !x.allFinite()) return;
  double const rss = static_cast<double>(residual_sum(s, l, x)) / (unit * unit);
  double const weight = s[at(l.weight)];
  double const dof = s.count - l.size;
  double const sigma = dof > 0.0 ? std::sqrt(rss / dof) : kNaN;
  info = FitInfo(sigma * sigma * inverse, weight > 0.0 ? std::sqrt(rss / weight) : kNaN, sigma,
                 static_cast<std::size_t>(s.count));
}

system_layout polynomial_layout(int degree) {
  int const n = degree;
  int const powers = 2 * n + 1;  // x^0 .. x^2n, then x^0·y .. x^n·y, then y²
  system_layout l;
  l.size = n + 1;
  for (int i = 0; i <= n; ++i) {
    for (int j = 0; j <= n; ++j)
      l.matrix.push_back(2 * n - i - j);
    l.rhs.push_back(powers + n - i);
  }
  l.target = powers + n + 1;
  l.weight = 0;
  return l;
}

bool fit_polynomial(std::vector<double>& coef, int degree, double scale,
                    Eigen::Matrix<double, 2, 1> const* points, std::size_t count,
                    double const* weights, FitInfo* info) {
  coef.clear();
  if (info) info->clear();
  // More coefficients than points cannot be determined; refusing early also bounds the
  // size of the system by the input.
  if (degree < 0 || static_cast<std::size_t>(degree) >= count) return false;
  const moments s =
      sum_moments(moment_t::polynomial, points, count, weights, info != nullptr, degree, scale);
  Eigen::VectorXd x;
  if (!solve_system(s, polynomial_layout(degree), x, info, scale)) return false;
  // The residuals were divided by the scale, so the covariance is already that of the
  // coefficients as read (divided by the scale).
  coef.assign(x.data(), x.data() + x.size());
  return true;
}

}  // namespace detail
}  // namespace quib
