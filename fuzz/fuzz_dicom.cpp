// Feeds arbitrary bytes to Dicom::load. An odd first byte puts a valid preamble and "DICM" in
// front of the rest, so that most runs get past the file header and exercise the element walk.
#include <quib/dicom.hpp>

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string bytes;
  if (size > 0 && (data[0] & 1) != 0) {
    bytes.assign(128, '\0');
    bytes += "DICM";
    bytes.append(reinterpret_cast<const char*>(data) + 1, size - 1);
  } else {
    bytes.assign(reinterpret_cast<const char*>(data), size);
  }
  std::istringstream in(bytes);
  quib::Dicom file;
  int count = file.load(in);
  if (count != (count < 0 ? -1 : static_cast<int>(file->size())) || (count < 0 && file.is())) {
    __builtin_trap();  // the count and the table disagree
  }
  std::size_t total = 0;
  for (const auto& [key, value] : *file) {
    quib::Dicom::Data element(static_cast<std::uint16_t>(key & 0xFFFF),
                              static_cast<std::uint16_t>(key >> 16),
                              static_cast<std::uint32_t>(value.size()));
    total += element.get_name().size() + value.size();
  }
  if (total > bytes.size() * 64 + 4096) __builtin_trap();
  return 0;
}
