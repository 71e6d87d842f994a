#include "system/memory.hpp"

#include <cstdint>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace quib::detail {

void advise_huge_pages(void* data, std::size_t bytes) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  constexpr std::uintptr_t kHuge = std::uintptr_t{2} << 20;
  if (data == nullptr || bytes < 4 * kHuge) return;
  const std::uintptr_t first = reinterpret_cast<std::uintptr_t>(data);
  const std::uintptr_t begin = (first + kHuge - 1) & ~(kHuge - 1);
  const std::uintptr_t end = (first + bytes) & ~(kHuge - 1);
  if (end > begin) ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#else
  (void)data;
  (void)bytes;
#endif
}

}  // namespace quib::detail
