// Reads a DICOM file as DICOM toolkits do and prints a few values, looked up by keyword, then
// every top-level element with its VR and dictionary name.
//   dicom_read scan.dcm
#include <quib/dicom.hpp>

#include <cstdio>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: dicom_read FILE.dcm\n");
    return 2;
  }
  const std::string narrow = argv[1];
  quib::Dicom file;
  // An ASCII path, for brevity.
  if (file.load(std::wstring(narrow.begin(), narrow.end()), quib::Dicom::READ_STANDARD) < 0) {
    std::fprintf(stderr, "not a DICOM file: %s\n", argv[1]);
    return 1;
  }

  // Text in UTF-8, whatever the file's character set.
  std::vector<quib::Dicom::Name> names;
  if (file.get_names("PatientName", names) > 0) {
    std::printf("patient: %s, %s\n", names[0].family.c_str(), names[0].given.c_str());
  }
  // Numbers in the file's byte order, decoded.
  std::vector<std::int64_t> rows;
  if (file.get_integers("Rows", rows) == 1) std::printf("rows: %lld\n", (long long)rows[0]);
  // Sequences as their items.
  std::vector<quib::Dicom> items;
  const int n = file.read_items("ReferencedImageSequence", items);
  if (n >= 0) std::printf("referenced images: %d\n", n);

  // Every element in tag order, with the VR it was read with.
  for (const quib::Dicom::Entry& e : file.get_entries()) {
    const quib::Dicom::Tag tag(e.key);
    const quib::Dicom::Data element(tag.get_group(), tag.get_number(), 0);
    const char vr[3] = {char(e.type & 0xFF), char(e.type >> 8), '\0'};
    std::printf("(%04X,%04X) %s %8zu bytes  %s\n", tag.get_group(), tag.get_number(),
                e.type != 0 ? vr : "UN", file.find(tag)->size(), element.get_name().c_str());
  }
  if (!file.is_complete()) {
    std::fprintf(stderr, "reading stopped early at byte %llu\n",
                 (unsigned long long)file.get_stop_offset());
    return 1;
  }
  return 0;
}
