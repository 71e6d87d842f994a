// Feeds arbitrary bytes to frame decoding. The first 12 bytes choose the transfer syntax and the
// pixel module's attributes (small sizes, so that runs stay fast); the rest is the Pixel Data
// value. They are written as a DICOM file and read back with the standard reading. Encapsulated
// data that does not start with an item is wrapped as one fragment after an empty offset table, so
// that every codec sees the bytes. The same bytes may also serve as palettes (plain or
// segmented) and as modality and VOI lookup tables. Every frame is decoded, raw, for display
// and as real values.
#include <quib/dicom_image.hpp>

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

namespace {

// A DICOM file written element by element, in the byte order of its transfer syntax.
struct Writer {
  std::string bytes = std::string(128, '\0') + "DICM";
  bool little = true;

  void u16(unsigned v) {
    const char lo = char(v & 0xFF), hi = char((v >> 8) & 0xFF);
    bytes += little ? std::string{lo, hi} : std::string{hi, lo};
  }
  void u32(std::uint32_t v) {
    u16(little ? v & 0xFFFF : v >> 16);
    u16(little ? v >> 16 : v & 0xFFFF);
  }
  void put(unsigned group, unsigned number, const std::string& vr, std::string value) {
    if (value.size() % 2) value += vr == "UI" ? '\0' : ' ';
    u16(group), u16(number);
    bytes += vr;
    if (vr == "OB" || vr == "OW" || vr == "OV" || vr == "SQ") {
      u16(0), u32(std::uint32_t(value.size()));
    } else {
      u16(unsigned(value.size()));
    }
    bytes += value;
  }
  std::string us(unsigned v) {
    const char lo = char(v & 0xFF), hi = char((v >> 8) & 0xFF);
    return little ? std::string{lo, hi} : std::string{hi, lo};
  }
  // A sequence item holding a LUT Descriptor (the first 6 bytes of `from`) and LUT Data (the
  // rest).
  std::string lut_item(std::string const& from) const {
    Writer item;
    item.little = little, item.bytes.clear();
    std::string descriptor = from.substr(0, 6);
    descriptor.resize(6, '\0');
    item.put(0x0028, 0x3002, "US", descriptor);
    item.put(0x0028, 0x3006, "OW", from.size() > 6 ? from.substr(6) : std::string());
    Writer header;
    header.little = little, header.bytes.clear();
    header.u16(0xFFFE), header.u16(0xE000), header.u32(std::uint32_t(item.bytes.size()));
    return header.bytes + item.bytes;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 12) return 0;
  static const char* const kSyntaxes[] = {"1.2.840.10008.1.2.1",    "1.2.840.10008.1.2.2",
                                          "1.2.840.10008.1.2.5",    "1.2.840.10008.1.2.4.50",
                                          "1.2.840.10008.1.2.4.51", "1.2.840.10008.1.2.4.70",
                                          "1.2.840.10008.1.2.4.80", "1.2.840.10008.1.2.4.90"};
  static const char* const kPhotometric[] = {"MONOCHROME2", "MONOCHROME1",  "RGB",
                                             "YBR_FULL",    "YBR_FULL_422", "PALETTE COLOR"};
  static const int kBits[] = {1, 8, 16, 32};
  const std::string syntax = kSyntaxes[data[0] % 8];
  const bool encapsulated = data[0] % 8 >= 2;
  const std::string rest(reinterpret_cast<const char*>(data) + 12, size - 12);
  Writer w;
  w.put(0x0002, 0x0010, "UI", syntax);
  w.little = syntax != "1.2.840.10008.1.2.2";
  const int bits = kBits[data[4] % 4];
  w.put(0x0028, 0x0002, "US", w.us(data[3] & 1 ? 3 : 1));
  w.put(0x0028, 0x0004, "CS", kPhotometric[data[8] % 6]);
  w.put(0x0028, 0x0006, "US", w.us((data[6] >> 1) & 1));
  w.put(0x0028, 0x0008, "IS", std::to_string(1 + data[7] % 4));
  w.put(0x0028, 0x0010, "US", w.us(1 + data[1] % 64));
  w.put(0x0028, 0x0011, "US", w.us(1 + data[2] % 64));
  w.put(0x0028, 0x0100, "US", w.us(unsigned(bits)));
  w.put(0x0028, 0x0101, "US", w.us(1u + data[5] % unsigned(bits)));
  w.put(0x0028, 0x0103, "US", w.us(data[6] & 1));
  if (data[9] & 1) w.put(0x0028, 0x1050, "DS", "40\\400");
  if (data[9] & 2) w.put(0x0028, 0x1051, "DS", "400\\2000");
  if (data[9] & 4) {
    w.put(0x0028, 0x1101, "US", w.us(256) + w.us(0) + w.us(16));
    w.put(0x0028, 0x1102, "US", w.us(256) + w.us(0) + w.us(8));
    w.put(0x0028, 0x1103, "US", w.us(16) + w.us(0) + w.us(16));
    w.put(0x0028, 0x1201, "OW", rest);
    w.put(0x0028, 0x1202, "OW", rest);
    w.put(0x0028, 0x1203, "OW", rest);
  }
  if (data[9] & 8) {  // segmented palettes: the same bytes as segments of each table
    if (!(data[9] & 4)) {
      const unsigned entries = data[11] & 1 ? 0 : 1u + data[10];
      w.put(0x0028, 0x1101, "US", w.us(entries) + w.us(0) + w.us(16));
      w.put(0x0028, 0x1102, "US", w.us(entries) + w.us(0) + w.us(8));
      w.put(0x0028, 0x1103, "US", w.us(entries) + w.us(0) + w.us(16));
    }
    w.put(0x0028, 0x1221, "OW", rest);
    w.put(0x0028, 0x1222, "OW", rest.substr(rest.size() / 2));
    w.put(0x0028, 0x1223, "OW", rest);
  }
  if (data[9] & 16) w.put(0x0028, 0x3000, "SQ", w.lut_item(rest));  // a modality LUT
  if (data[9] & 32)                                                 // two VOI LUTs
    w.put(0x0028, 0x3010, "SQ", w.lut_item(rest) + w.lut_item(rest.substr(rest.size() / 2)));
  if (data[10] & 1) {  // an Extended Offset Table from the next bytes
    w.put(0x7FE0, 0x0001, "OV", rest.substr(0, 16));
    if (data[10] & 2) w.put(0x7FE0, 0x0002, "OV", rest.substr(0, 16));
  }
  if (encapsulated) {  // items as given, or the bytes as one fragment after an empty table
    w.u16(0x7FE0), w.u16(0x0010), w.bytes += "OB", w.u16(0), w.u32(0xFFFFFFFFu);
    if (rest.compare(0, 4, "\xFE\xFF\x00\xE0") != 0) {
      w.u16(0xFFFE), w.u16(0xE000), w.u32(0);
      w.u16(0xFFFE), w.u16(0xE000), w.u32(std::uint32_t(rest.size()));
    }
    w.bytes += rest;
    w.u16(0xFFFE), w.u16(0xE0DD), w.u32(0);
  } else {
    w.put(0x7FE0, 0x0010, bits > 8 ? "OW" : "OB", rest);
  }
  std::istringstream in(w.bytes);
  quib::Dicom file;
  if (file.load(in, quib::Dicom::READ_STANDARD) < 0) return 0;

  quib::DicomPixels module;
  if (!module.load(file, std::uint64_t{1} << 20)) {
    if (module.is() || module.get_error().empty()) __builtin_trap();  // failures say why
    return 0;
  }
  std::vector<unsigned char> frame(module.get_frame_bytes());
  for (int k = 0; k < module.get_frames(); ++k) {
    const bool ok = module.decode(k, frame.data(), frame.size());
    if (!ok && module.get_error().empty()) __builtin_trap();
    quib::Image display;
    if (ok && k == 0) {
      module.decode_display(0, display, data[11] % 4 - 1);
      module.decode_values(0, display);
    }
  }
  return 0;
}
