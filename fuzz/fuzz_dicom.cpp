// Feeds arbitrary bytes to Dicom::load in both readings, then reads every element of a standard
// reading as typed values and every sequence into its items, recursively. The first byte picks:
// bit 0 puts a valid preamble and "DICM" in front of the rest (so that most runs get past the
// file header), bit 1 the standard reading.
#include <quib/dicom.hpp>

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Reads everything an element can be read as; returns the bytes the reads produced.
std::size_t read_values(const quib::Dicom& d, std::size_t& work) {
  std::size_t total = 0;
  for (const quib::Dicom::Entry& e : d.get_entries()) {
    const quib::Dicom::Tag tag(e.key);
    std::vector<double> numbers;
    std::vector<std::int64_t> integers;
    std::vector<std::uint32_t> tags;
    std::vector<std::string> strings;
    std::vector<quib::Dicom::Name> names;
    std::vector<quib::Dicom::DateTime> dates;
    std::vector<std::pair<std::size_t, std::size_t>> fragments;
    d.get_numbers(tag, numbers);
    d.get_integers(tag, integers);
    d.get_tags(tag, tags);
    d.get_strings(tag, strings);
    d.get_names(tag, names);
    d.get_dates(tag, dates);
    const std::size_t size = d.find(tag)->size();
    if (d.get_fragments(tag, fragments) > 0) {
      for (const auto& [at, n] : fragments)
        if (at + n > size) __builtin_trap();  // a fragment outside its value
    }
    for (const std::string& s : strings)
      total += s.size();
    if (numbers.size() > size || tags.size() > size / 4) __builtin_trap();
    // Sequences, as deep as the reader allows; the work is bounded by depth times input.
    std::vector<quib::Dicom> items;
    if (++work < 4096 && d.read_items(tag, items) > 0) {
      for (const quib::Dicom& item : items) {
        if (item.get_info().depth != d.get_info().depth + 1) __builtin_trap();
        total += read_values(item, work);
      }
    }
  }
  return total;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string bytes;
  const bool standard = size > 0 && (data[0] & 2) != 0;
  if (size > 0 && (data[0] & 1) != 0) {
    bytes.assign(128, '\0');
    bytes += "DICM";
    bytes.append(reinterpret_cast<const char*>(data) + 1, size - 1);
  } else {
    bytes.assign(reinterpret_cast<const char*>(data), size);
  }
  std::istringstream in(bytes);
  quib::Dicom file;
  int count = file.load(in, standard ? quib::Dicom::READ_STANDARD : quib::Dicom::READ_CLASSIC);
  if (count != (count < 0 ? -1 : static_cast<int>(file->size())) || (count < 0 && file.is())) {
    __builtin_trap();  // the count and the table disagree
  }
  if (file.get_entries().size() != file->size()) __builtin_trap();
  if (!file.get_info().deflated && file.get_stop_offset() > bytes.size()) __builtin_trap();
  std::size_t total = 0;
  for (const auto& [key, value] : *file) {
    quib::Dicom::Data element(static_cast<std::uint16_t>(key & 0xFFFF),
                              static_cast<std::uint16_t>(key >> 16),
                              static_cast<std::uint32_t>(value.size()));
    total += element.get_name().size() + value.size();
  }
  // An inflated data set may be larger than the file, within the stated bound.
  const std::size_t bound =
      file.get_info().deflated
          ? std::size_t(bytes.size() * quib::Dicom::kInflateRatio + quib::Dicom::kInflateSlack)
          : bytes.size();
  if (total > bound * 64 + 4096) __builtin_trap();
  if (standard) {
    std::size_t work = 0;
    read_values(file, work);
  }
  return 0;
}
