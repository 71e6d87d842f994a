// Internal: advice to the system about large buffers the library is about to fill.
#pragma once

#include <cstddef>

namespace quib::detail {

// Asks for huge pages under the whole 2 MiB pages inside [data, data + bytes) before the memory
// is first touched: filling a buffer of hundreds of megabytes then costs a few hundred page
// faults instead of tens of thousands. Only advice: nothing changes where the system does not
// take it, and buffers under 8 MiB are left alone.
void advise_huge_pages(void* data, std::size_t bytes);

}  // namespace quib::detail
