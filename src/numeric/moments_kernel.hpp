// The moment kernel. Included once per instruction set by a source file that first defines
// QUIB_MOMENTS_NS (the namespace that keeps each compilation's templates apart) and is compiled
// with that instruction set's flags. Nothing here may be included anywhere else.
#ifndef QUIB_MOMENTS_NS
#error "define QUIB_MOMENTS_NS before including moments_kernel.hpp"
#endif

#include "numeric/moments.hpp"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <vector>

#if defined(__FMA__)
#include <immintrin.h>
#endif

// The lane vectors pass between inline functions of this file only, never across an interface
// whose ABI could change with the instruction set.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wpsabi"
#endif

#if defined(__FAST_MATH__)
#error "The compensated sums need IEEE arithmetic: build QUIB without -ffast-math."
#endif

namespace quib {
namespace detail {
namespace QUIB_MOMENTS_NS {

// Four lanes of doubles and the matching mask type; the compiler maps them onto one AVX
// register or two SSE2 registers.
typedef double v4d __attribute__((vector_size(32)));
typedef long long v4i __attribute__((vector_size(32)));

constexpr int kLanes = 4;

inline v4d splat(double v) {
  return v4d{v, v, v, v};
}
inline v4d keep(v4d value, v4i mask) {
  return reinterpret_cast<v4d>(reinterpret_cast<v4i>(value) & mask);
}
// True in lanes where v is finite: v - v is 0 there and NaN for infinities and NaN.
inline v4i finite(v4d v) {
  return reinterpret_cast<v4i>((v - v) == splat(0.0));
}

// a + b and a - b. Where the processor has fused multiply-adds they run as fma(b, ±1, a):
// that rounds exactly as the sum does, and some processors (AMD Zen) have separate units for
// sums and for multiply-adds, so half of the sums of a Kahan step no longer queue for the
// adders. The empty asm hides the ±1 from the compiler, which would otherwise turn the
// multiply-add back into a sum.
#if defined(__FMA__)
inline v4d opaque(v4d v) {
  asm("" : "+x"(v));
  return v;
}
inline v4d fused_add(v4d a, v4d b) {
  return reinterpret_cast<v4d>(_mm256_fmadd_pd(reinterpret_cast<__m256d>(b),
                                               reinterpret_cast<__m256d>(opaque(splat(1.0))),
                                               reinterpret_cast<__m256d>(a)));
}
inline v4d fused_sub(v4d a, v4d b) {
  return reinterpret_cast<v4d>(_mm256_fmadd_pd(reinterpret_cast<__m256d>(b),
                                               reinterpret_cast<__m256d>(opaque(splat(-1.0))),
                                               reinterpret_cast<__m256d>(a)));
}
#else
inline v4d fused_add(v4d a, v4d b) {
  return a + b;
}
inline v4d fused_sub(v4d a, v4d b) {
  return a - b;
}
#endif

// One Kahan step in every lane: y = t + c; s' = s + y; c = y - (s' - s); s = s'.
inline void kahan(v4d& s, v4d& c, v4d t) {
  const v4d y = fused_add(t, c);
  const v4d next = s + y;
  c = fused_sub(y, next - s);
  s = next;
}

// Joins the lanes of one term with a scalar compensated sum, lane by lane in a fixed order.
inline void join(double& sum, double& correction, v4d const* s, v4d const* c, int vectors) {
  double total = 0.0, lost = 0.0;
  auto const add = [&](double t) {
    const double y = t + lost;
    const double next = total + y;
    lost = y - (next - total);
    total = next;
  };
  for (int v = 0; v < vectors; ++v)
    for (int l = 0; l < kLanes; ++l)
      add(s[v][l]);
  for (int v = 0; v < vectors; ++v)
    for (int l = 0; l < kLanes; ++l)
      add(c[v][l]);
  sum = total;
  correction = lost;
}

// The terms of each fixed model from one group of four points (x, y, z in p[0..2]).
// Unweighted, the constant term kOne sums to the count of the points used: whole numbers,
// which a compensated sum would reproduce exactly, so it is not summed at all.
struct line_terms {
  static constexpr int kOne = 0;  // the term that is 1 before weighting
  static constexpr int kDims = 2, kTerms = 5;
  void operator()(v4d const* p, v4d* t) const {
    const v4d x = p[0], y = p[1];
    t[0] = splat(1.0), t[1] = x, t[2] = y, t[3] = x * x, t[4] = x * y;
    t[5] = y * y;
  }
};
struct circle_terms {
  static constexpr int kOne = 5;  // the term that is 1 before weighting
  static constexpr int kDims = 2, kTerms = 9;
  void operator()(v4d const* p, v4d* t) const {
    const v4d x = p[0], y = p[1], q = x * x + y * y;
    t[0] = x * x, t[1] = x * y, t[2] = x, t[3] = y * y, t[4] = y, t[5] = splat(1.0);
    t[6] = x * q, t[7] = y * q, t[8] = q;
    t[9] = q * q;
  }
};
struct plane_terms {
  static constexpr int kOne = 5;  // the term that is 1 before weighting
  static constexpr int kDims = 3, kTerms = 9;
  void operator()(v4d const* p, v4d* t) const {
    const v4d x = p[0], y = p[1], z = p[2];
    t[0] = x * x, t[1] = x * y, t[2] = x, t[3] = y * y, t[4] = y, t[5] = splat(1.0);
    t[6] = x * z, t[7] = y * z, t[8] = z;
    t[9] = z * z;
  }
};
struct sphere_terms {
  static constexpr int kOne = 9;  // the term that is 1 before weighting
  static constexpr int kDims = 3, kTerms = 14;
  void operator()(v4d const* p, v4d* t) const {
    const v4d x = p[0], y = p[1], z = p[2], q = x * x + y * y + z * z;
    t[0] = x * x, t[1] = x * y, t[2] = x * z, t[3] = x, t[4] = y * y, t[5] = y * z, t[6] = y;
    t[7] = z * z, t[8] = z, t[9] = splat(1.0);
    t[10] = x * q, t[11] = y * q, t[12] = z * q, t[13] = q;
    t[14] = q * q;
  }
};

// Loads four points of D coordinates into p[0..D-1]; returns the lanes that are usable.
template <int D>
inline v4i load(v4d* p, double const* c) {
  p[0] = v4d{c[0], c[D], c[2 * D], c[3 * D]};
  v4i ok = finite(p[0]);
  for (int d = 1; d < D; ++d) {
    p[d] = v4d{c[d], c[D + d], c[2 * D + d], c[3 * D + d]};
    ok &= finite(p[d]);
  }
  return ok;
}

// Runs the request over a model with K summed terms and V vectors of four lanes per term.
// Full groups are read in place; the last, partial group is copied into a buffer padded with
// NaN points (skipped like any non-finite point) and weights of 0.
template <class Terms, int K, int V, bool Weighted>
void run(moments& out, moment_request const& r) {
  constexpr int D = Terms::kDims;
  constexpr int kGroup = kLanes * V;
  v4d s[K][V], c[K][V], n[V];
  for (int j = 0; j < K; ++j)
    for (int v = 0; v < V; ++v)
      s[j][v] = c[j][v] = splat(0.0);
  for (int v = 0; v < V; ++v)
    n[v] = splat(0.0);

  const Terms terms;
  auto const group = [&](double const* coords, double const* w) {
    for (int v = 0; v < V; ++v) {
      // Lanes that do not count get the point (0, 0[, 0]) and weight 0: every term that is
      // summed is then +0, as if it were masked, at D masks instead of one per term.
      v4d p[D];
      v4i ok = load<D>(p, coords + v * kLanes * D);
      v4d wv;
      if (Weighted) {
        wv = v4d{w[v * kLanes], w[v * kLanes + 1], w[v * kLanes + 2], w[v * kLanes + 3]};
        ok &= reinterpret_cast<v4i>(wv != splat(0.0));
        wv = keep(wv, ok);
      }
      for (int d = 0; d < D; ++d)
        p[d] = keep(p[d], ok);
      v4d t[Terms::kTerms + 1];
      terms(p, t);
      if (Weighted)
        for (int j = 0; j < K; ++j)
          t[j] *= wv;
      for (int j = 0; j < K; ++j)
        if (Weighted || j != Terms::kOne) kahan(s[j][v], c[j][v], t[j]);
      n[v] += keep(splat(1.0), ok);
    }
  };

  const std::size_t count = Weighted ? std::min(r.count, r.weight_count) : r.count;
  const std::size_t full = count - count % kGroup;
  for (std::size_t i = 0; i < full; i += kGroup)
    group(r.coords + i * D, Weighted ? r.weights + i : nullptr);
  if (full < count) {
    double coords[kGroup * D];
    double w[kGroup];
    std::fill(coords, coords + kGroup * D, std::numeric_limits<double>::quiet_NaN());
    std::fill(w, w + kGroup, 0.0);
    const std::size_t rest = count - full;
    std::memcpy(coords, r.coords + full * D, rest * D * sizeof(double));
    if (Weighted) std::memcpy(w, r.weights + full, rest * sizeof(double));
    group(coords, Weighted ? w : nullptr);
  }

  out.sum.resize(K);
  out.correction.resize(K);
  for (int j = 0; j < K; ++j)
    join(out.sum[static_cast<std::size_t>(j)], out.correction[static_cast<std::size_t>(j)], s[j],
         c[j], V);
  out.count = 0.0;
  for (int v = 0; v < V; ++v)
    for (int l = 0; l < kLanes; ++l)
      out.count += n[v][l];  // whole numbers: exact
  if (!Weighted) {
    out.sum[Terms::kOne] = out.count;
    out.correction[Terms::kOne] = 0.0;
  }
}

template <class Terms, int K, bool Weighted>
void run_lanes(moments& out, moment_request const& r) {
  // Few terms leave the adders idle between the steps of one chain: give them eight lanes,
  // even where the accumulators then no longer all fit in the registers.
  run<Terms, K, Terms::kTerms <= 6 ? 2 : 1, Weighted>(out, r);
}

template <class Terms>
void run_model(moments& out, moment_request const& r) {
  if (r.residual) {
    if (r.weighted) return run_lanes<Terms, Terms::kTerms + 1, true>(out, r);
    return run_lanes<Terms, Terms::kTerms + 1, false>(out, r);
  }
  if (r.weighted) return run_lanes<Terms, Terms::kTerms, true>(out, r);
  return run_lanes<Terms, Terms::kTerms, false>(out, r);
}

// Any degree: the powers x⁰ … x²ⁿ, then x⁰·Y … xⁿ·Y, then Y², four lanes per term, the
// accumulators in memory.
inline void run_polynomial(moments& out, moment_request const& r) {
  struct lane {
    v4d s, c;
  };
  const std::size_t n = static_cast<std::size_t>(r.degree);
  const std::size_t powers = 2 * n + 1;
  const std::size_t k = powers + n + 1 + (r.residual ? 1 : 0);
  std::vector<lane> acc(k, lane{splat(0.0), splat(0.0)});
  std::vector<v4d> t(k + 1);  // the last slot is scratch
  v4d used = splat(0.0);
  const v4d scale = splat(r.scale);

  auto const group = [&](double const* p, double const* w) {
    const v4d x{p[0], p[2], p[4], p[6]};
    const v4d y = v4d{p[1], p[3], p[5], p[7]} * scale;
    v4i ok = finite(x) & finite(v4d{p[1], p[3], p[5], p[7]});
    v4d xp = splat(1.0);
    for (std::size_t j = 0; j < powers; ++j) {
      t[j] = xp;
      if (j <= n) t[powers + j] = xp * y;
      xp *= x;
    }
    if (r.residual) t[k - 1] = y * y;
    if (w) {
      const v4d wv{w[0], w[1], w[2], w[3]};
      ok &= reinterpret_cast<v4i>(wv != splat(0.0));
      for (std::size_t j = 0; j < k; ++j)
        t[j] *= wv;
    }
    for (std::size_t j = 0; j < k; ++j)
      kahan(acc[j].s, acc[j].c, keep(t[j], ok));
    used += keep(splat(1.0), ok);
  };

  const std::size_t count = r.weighted ? std::min(r.count, r.weight_count) : r.count;
  const std::size_t full = count - count % kLanes;
  for (std::size_t i = 0; i < full; i += kLanes)
    group(r.coords + i * 2, r.weighted ? r.weights + i : nullptr);
  if (full < count) {
    double coords[kLanes * 2];
    double w[kLanes] = {0.0, 0.0, 0.0, 0.0};
    std::fill(coords, coords + kLanes * 2, std::numeric_limits<double>::quiet_NaN());
    const std::size_t rest = count - full;
    std::memcpy(coords, r.coords + full * 2, rest * 2 * sizeof(double));
    if (r.weighted) std::memcpy(w, r.weights + full, rest * sizeof(double));
    group(coords, r.weighted ? w : nullptr);
  }

  out.sum.resize(k);
  out.correction.resize(k);
  for (std::size_t j = 0; j < k; ++j)
    join(out.sum[j], out.correction[j], &acc[j].s, &acc[j].c, 1);
  out.count = used[0] + used[1] + used[2] + used[3];
}

void sum(moments& out, moment_request const& r) {
  switch (r.model) {
    case moment_t::line:
      return run_model<line_terms>(out, r);
    case moment_t::circle:
      return run_model<circle_terms>(out, r);
    case moment_t::plane:
      return run_model<plane_terms>(out, r);
    case moment_t::sphere:
      return run_model<sphere_terms>(out, r);
    case moment_t::polynomial:
      return run_polynomial(out, r);
  }
}

}  // namespace QUIB_MOMENTS_NS
}  // namespace detail
}  // namespace quib
