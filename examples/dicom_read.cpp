// Reads a DICOM file and prints a few elements, looked up by tag and by dictionary name.
//   dicom_read scan.dcm
#include <quib/dicom.hpp>

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: dicom_read FILE.dcm\n");
    return 2;
  }
  const std::string narrow = argv[1];
  quib::Dicom file(std::wstring(narrow.begin(), narrow.end()));  // an ASCII path, for brevity
  if (file.empty()) {
    std::fprintf(stderr, "not a DICOM file: %s\n", argv[1]);
    return 1;
  }

  // By tag: (0010,0010) Patient's Name, a text value.
  auto name = file->find(quib::dicom::tag_key(0x0010, 0x0010));
  if (name != file->end()) {
    std::printf("patient: %.*s\n", int(name->second.size()),
                reinterpret_cast<const char*>(name->second.data()));
  }

  // By dictionary name: Rows is an unsigned 16-bit value in the file's byte order.
  auto rows = file->find(quib::dicom::tag_key(quib::dicom::Rows));
  if (rows != file->end() && rows->second.size() == 2) {
    std::printf("rows (little-endian file): %u\n", rows->second[0] | (rows->second[1] << 8));
  }

  // Every element with its dictionary name.
  for (const auto& [key, value] : *file) {
    quib::Dicom::Data element(std::uint16_t(key & 0xFFFF), std::uint16_t(key >> 16),
                              std::uint32_t(value.size()));
    std::printf("(%04X,%04X) %6zu bytes  %s\n", element.get_group(), element.get_number(),
                value.size(), element.get_name().c_str());
  }
  return 0;
}
