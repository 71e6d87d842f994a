// The moment kernel for the baseline instruction set.
#define QUIB_MOMENTS_NS moments_base
#include "numeric/moments_kernel.hpp"
