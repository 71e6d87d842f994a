#include "numeric/moments.hpp"

namespace quib {
namespace detail {

std::size_t moment_terms(moment_request const& r) {
  std::size_t k = 0;
  switch (r.model) {
    case moment_t::line:
      k = 5;
      break;
    case moment_t::circle:
    case moment_t::plane:
      k = 9;
      break;
    case moment_t::sphere:
      k = 14;
      break;
    case moment_t::polynomial:
      k = 3 * static_cast<std::size_t>(r.degree) + 2;
      break;
  }
  return k + (r.residual ? 1 : 0);
}

namespace {

using kernel_type = void (*)(moments&, moment_request const&);

kernel_type pick_kernel() {
#if QUIB_HAVE_AVX2_KERNEL
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return &moments_avx2::sum;
#endif
  return &moments_base::sum;
}

}  // namespace

void sum_moments(moments& out, moment_request const& request) {
  static const kernel_type kernel = pick_kernel();  // decided once, thread-safe
  kernel(out, request);
}

}  // namespace detail
}  // namespace quib
