// The moment kernel for processors with AVX2 (this file is compiled with -mavx2).
#define QUIB_MOMENTS_NS moments_avx2
#include "numeric/moments_kernel.hpp"
