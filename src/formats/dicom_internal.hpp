// Internal: what the DICOM units share (VR codes, header forms, value reading, the standard walk).
#pragma once

#include <quib/dicom.hpp>

#include <cstddef>
#include <cstdint>
#include <istream>
#include <string_view>
#include <vector>

namespace quib::detail {

constexpr std::uint32_t kUndefinedLength = 0xFFFFFFFFu;
constexpr std::uint16_t kItemGroup = 0xFFFE;
constexpr std::uint16_t kItem = 0xE000;
constexpr std::uint16_t kItemEnd = 0xE00D;
constexpr std::uint16_t kSequenceEnd = 0xE0DD;

// A VR as its two characters read as a little-endian 16-bit value ("OB" is 0x424F).
constexpr std::uint16_t vr(char a, char b) {
  return static_cast<std::uint16_t>(static_cast<unsigned char>(a) |
                                    (static_cast<unsigned char>(b) << 8));
}

// A set of VRs, given as their two-letter names separated by blanks and kept as a 26 x 26 bit
// table, so that a look-up is one shift whatever the set's size.
class vr_set {
 public:
  constexpr explicit vr_set(std::string_view names) {
    for (std::size_t i = 0; i + 1 < names.size(); i += 3)
      rows_[names[i] - 'A'] |= std::uint32_t(1) << (names[i + 1] - 'A');
  }
  constexpr bool has(std::uint16_t type) const {
    unsigned const first = (type & 0xFFu) - 'A';
    unsigned const second = (type >> 8) - 'A';
    return first < 26 && second < 26 && ((rows_[first] >> second) & 1) != 0;
  }

 private:
  std::uint32_t rows_[26] = {};
};

// VRs written with two reserved bytes and a 32-bit length in explicit-VR data.
inline constexpr vr_set kLongForm("OB OD OF OL OV OW SQ SV UC UN UR UT UV");
inline bool is_long_form(std::uint16_t type) {
  return kLongForm.has(type);
}

// The VRs with a 16-bit length that the classic walk accepts in the meta group.
inline constexpr vr_set kShortForm(
    "AE AS AT CS DA DS DT FD FL IS LO LT PN SH SL SS ST TM UI UL US");
inline bool is_short_form(std::uint16_t type) {
  return kShortForm.has(type);
}

// Two upper-case letters: what a VR looks like, known or not.
inline bool looks_like_vr(unsigned char const* p) {
  return p[0] >= 'A' && p[0] <= 'Z' && p[1] >= 'A' && p[1] <= 'Z';
}

// Blanks, control characters and NUL padding around a UID do not count.
inline std::string_view trim_uid(unsigned char const* data, std::size_t size) {
  std::size_t begin = 0;
  std::size_t end = size;
  while (begin < end && data[begin] <= 0x20)
    ++begin;
  while (end > begin && (data[end - 1] <= 0x20 || data[end - 1] == 0x7F))
    --end;
  return std::string_view(reinterpret_cast<char const*>(data) + begin, end - begin);
}
inline std::string_view trim_uid(std::vector<unsigned char> const& value) {
  return trim_uid(value.data(), value.size());
}

// The VR the dictionary gives a tag read without one: the exact row, else the family's row,
// else UL for a group length and LO for a private creator; 0 when nothing is known.
std::uint16_t dictionary_type(std::uint16_t group, std::uint16_t number);

// Appends exactly `size` bytes from the stream to `value`. Checks that the stream holds them
// before growing the vector (a stream that cannot tell is copied block by block as the bytes
// arrive). On a short stream the bytes taken are put back, `value` keeps its old size and the
// result is false.
bool append_value(std::istream& in, std::uint64_t size, std::vector<unsigned char>& value);

// The order of keys by (group, number).
constexpr std::uint32_t tag_order(std::uint32_t key) {
  return (key << 16) | (key >> 16);
}

// What a walk collects before it is swapped into a Dicom.
struct dicom_parts {
  Dicom::table_t table;
  std::vector<Dicom::Entry> entries;
  Dicom::Info info;
};

// Sorts entries into tag order and keeps one entry per key: the last one when `last_wins`,
// else the first (entries come in reading order).
void order_entries(std::vector<Dicom::Entry>& entries, bool last_wins);

// The standard reading of a whole file; false when the header is refused.
bool read_standard(std::istream& in, dicom_parts& parts);

// Reads the elements of one data set or item from memory in the given encoding, to the end of
// the bytes. `parts.info` gives the encoding and depth and receives completeness.
void read_data_set(unsigned char const* data, std::size_t size, dicom_parts& parts);

// For an undefined-length item whose content starts at `data`: the size of the content before
// its Item Delimitation Item, walking nested sequences; false when the item does not end.
bool find_item_end(unsigned char const* data, std::size_t size, bool implicit, bool little,
                   std::size_t& content);

}  // namespace quib::detail
