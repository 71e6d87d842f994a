// The DICOM data dictionary tables (generated into dicom_dictionary.cpp).
#pragma once

#include <quib/dicom.hpp>

#include <cstddef>

namespace quib {
namespace dicom {
namespace detail {

/// Exact-tag rows sorted by (group, number); element_t i + 1 is row i.
extern const data_set_t kSetEntries[];
extern const std::size_t kSetCount;
/// Masked rows in match order; element_t set_count + i + 1 is row i.
extern const data_map_t kMapEntries[];
extern const std::size_t kMapCount;
/// The keyword of element_t i + 1, and all identities sorted by keyword.
extern char const* const kKeywords[];
extern const element_t kKeywordOrder[];

}  // namespace detail
}  // namespace dicom
}  // namespace quib
