// Lookup tables: modality and VOI LUTs, plain and segmented palettes.
#include <quib/dicom_image.hpp>

#include "formats/dicom_pixels.hpp"

#include <algorithm>
#include <cmath>

namespace quib::detail {

namespace {

using table_t = DicomPixels::LookupTable;

// The 16-bit words of an element (US, SS or OW, in the byte order the file was read in).
std::vector<std::uint16_t> words(Dicom const& item, std::uint16_t group, std::uint16_t number) {
  std::vector<double> values;
  item.get_numbers(Dicom::Tag(group, number), values);
  std::vector<std::uint16_t> out;
  out.reserve(values.size());
  for (double v : values)
    out.push_back(std::isfinite(v) ? std::uint16_t(std::int64_t(v) & 0xFFFF) : 0);
  return out;
}

// Appends the segments of data[at, end) to `out` until `segments` segments are read (all of
// them when `segments` is 0). An indirect segment copies segments before it, which must not
// be indirect themselves; nothing may make more than `entries` entries, and `budget` bounds
// the segments visited in all (copies of empty segments make no entries, but take time).
bool expand_segments(std::vector<std::uint16_t> const& data, std::size_t at, std::size_t end,
                     std::size_t segments, bool nested, std::size_t entries,
                     std::vector<std::uint16_t>& out, std::size_t& budget, std::string& error) {
  for (std::size_t done = 0; segments == 0 || done < segments; ++done) {
    if (at >= end) {
      if (segments == 0) return true;
      return error = "an indirect segment copies more segments than there are", false;
    }
    if (budget-- == 0) return error = "the segments copy one another too often", false;
    if (end - at < 2) return error = "a segment ends inside its header", false;
    std::uint16_t const opcode = data[at], length = data[at + 1];
    at += 2;
    if (opcode == 0) {  // discrete: `length` entries follow
      if (end - at < length) return error = "a discrete segment runs past the data", false;
      if (out.size() + length > entries) return error = "the segments make too many entries", false;
      out.insert(out.end(), data.begin() + std::ptrdiff_t(at),
                 data.begin() + std::ptrdiff_t(at + length));
      at += length;
    } else if (opcode == 1) {  // linear: from the last entry to the next word in `length` steps
      if (out.empty()) return error = "a linear segment has no entry to start from", false;
      if (at >= end) return error = "a linear segment runs past the data", false;
      if (out.size() + length > entries) return error = "the segments make too many entries", false;
      double const from = out.back(), to = data[at++];
      for (std::size_t i = 1; i <= length; ++i)
        out.push_back(std::uint16_t(std::lround(from + (to - from) * double(i) / length)));
    } else if (opcode == 2) {  // indirect: `length` segments copied from a byte offset
      if (nested) return error = "an indirect segment copies another indirect one", false;
      if (end - at < 2) return error = "an indirect segment runs past the data", false;
      std::uint32_t const offset = std::uint32_t(data[at]) | std::uint32_t(data[at + 1]) << 16;
      std::size_t const self = at - 2;
      at += 2;
      if (offset % 2 != 0 || offset / 2 >= self || length == 0)
        return error = "an indirect segment points outside the segments before it", false;
      if (!expand_segments(data, offset / 2, self, length, true, entries, out, budget, error))
        return false;
    } else {
      return error = "segment type " + std::to_string(opcode), false;
    }
  }
  return true;
}

}  // namespace

table_t read_lookup_table(Dicom const& item, std::uint16_t descriptor_number,
                          std::uint16_t data_number, std::uint16_t segmented_number,
                          bool signed_first, std::string const& name) {
  table_t table;
  std::vector<std::int64_t> descriptor;
  if (item.get_integers(Dicom::Tag(0x0028, descriptor_number), descriptor) < 0) return table;
  if (descriptor.size() != 3) {
    table.error = name + " descriptor holds " + std::to_string(descriptor.size()) + " values";
    return table;
  }
  std::size_t const entries = (descriptor[0] & 0xFFFF) == 0 ? 65536 : descriptor[0] & 0xFFFF;
  std::int64_t const first = descriptor[1] & 0xFFFF;
  table.first = signed_first ? std::int16_t(std::uint16_t(first)) : first;
  int const bits = int(descriptor[2] & 0xFFFF);
  if (bits != 8 && bits != 16) {
    table.error = name + " has " + std::to_string(bits) + " bits per entry";
    return table;
  }
  std::vector<std::uint16_t> data = words(item, 0x0028, data_number);
  if (data.empty() && segmented_number != 0) {
    std::vector<std::uint16_t> const segments = words(item, 0x0028, segmented_number);
    if (!segments.empty()) {
      std::string why;
      std::size_t budget = 4 * (segments.size() + entries);
      if (!expand_segments(segments, 0, segments.size(), 0, false, entries, data, budget, why)) {
        table.error = name + ": " + why;
        return table;
      }
      if (data.size() != entries) {
        table.error = name + " segments make " + std::to_string(data.size()) +
                      " entries, its descriptor " + std::to_string(entries);
        return table;
      }
    }
  }
  if (bits == 8 && data.size() < entries && data.size() * 2 >= entries) {
    std::vector<std::uint16_t> unpacked;  // two 8-bit entries to a word, the first low
    for (std::size_t i = 0; i < entries; ++i)
      unpacked.push_back(std::uint16_t((data[i / 2] >> (8 * (i % 2))) & 0xFF));
    data.swap(unpacked);
  }
  if (data.size() < entries) {
    table.error = name + " holds " + std::to_string(data.size()) + " entries, its descriptor " +
                  std::to_string(entries);
    return table;
  }
  data.resize(entries);
  if (bits == 8)
    for (std::uint16_t& v : data)  // some writers put 8-bit entries in the high byte
      if (v > 255) v = std::uint16_t(v >> 8);
  table.bits = bits;
  table.entries = std::move(data);
  return table;
}

}  // namespace quib::detail
