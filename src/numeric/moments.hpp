// Compensated moment sums of the least-squares fits, in independent lanes.
//
// Every fit sums a few products of coordinates (its moments) over all usable points. A
// compensated (Kahan) sum is a chain of four dependent additions per term; one chain per moment
// leaves the processor waiting. The sums here run four or eight Kahan accumulators side by side
// per moment, each over every fourth (eighth) point, and join the lanes at the end with one more
// compensated sum. The same source is compiled for the baseline instruction set and for AVX2,
// and the first call picks the widest the processor has; both give bit-identical results
// because the lanes and their order are fixed in the source and contraction into fused
// multiply-adds is off.
#pragma once

#include <cstddef>
#include <vector>

namespace quib {
namespace detail {

/// The models whose moments are summed, with their terms in order. q = x² + y² (+ z²); the
/// term after the bar is the square of the model's target, summed only for residuals.
/// - line (2-D):    1, x, y, x², x·y | y²
/// - circle (2-D):  x², x·y, x, y², y, 1, x·q, y·q, q | q²
/// - plane (3-D):   x², x·y, x, y², y, 1, x·z, y·z, z | z²
/// - sphere (3-D):  x², x·y, x·z, x, y², y·z, y, z², z, 1, x·q, y·q, z·q, q | q²
/// - polynomial of degree n (2-D, Y = y·scale): x⁰ … x²ⁿ, x⁰·Y … xⁿ·Y | Y²
enum class moment_t { line, circle, plane, sphere, polynomial };

/// What to sum: `coords` holds `count` points of 2 or 3 doubles each (the layout of a vector of
/// Eigen fixed-size points). When `weighted`, point i counts with weights[i] for
/// i < weight_count and not at all beyond; a weight of 0 skips the point. Points with a
/// non-finite coordinate are skipped.
struct moment_request {
  moment_t model = moment_t::line;
  bool residual = false;  // also sum the square of the target
  double const* coords = nullptr;
  std::size_t count = 0;
  bool weighted = false;
  double const* weights = nullptr;  // may be null for an empty weight vector
  std::size_t weight_count = 0;
  int degree = 0;      // polynomial only
  double scale = 1.0;  // polynomial only
};

/// The sums of one request. sum[j] + correction[j] is term j's total to about twice the
/// working precision; sum[j] alone is what a single Kahan accumulator would report.
struct moments {
  std::vector<double> sum;
  std::vector<double> correction;
  double count = 0.0;  // points that contributed

  double operator[](std::size_t j) const { return sum[j]; }
  long double wide(std::size_t j) const {
    return static_cast<long double>(sum[j]) + static_cast<long double>(correction[j]);
  }
};

/// The number of terms a request sums.
std::size_t moment_terms(moment_request const& request);

/// Sums the request's terms with the widest lanes the processor supports.
void sum_moments(moments& out, moment_request const& request);

// The kernels, one per instruction set (moments_kernel.hpp compiled twice).
namespace moments_base {
void sum(moments& out, moment_request const& request);
}
namespace moments_avx2 {
void sum(moments& out, moment_request const& request);
}

}  // namespace detail
}  // namespace quib
