// Feeds arbitrary bytes to frame decoding. The first 12 bytes choose the transfer syntax and the
// pixel module's attributes (small sizes, so that runs stay fast); the rest is the Pixel Data
// value. Encapsulated data that does not start with an item is wrapped as one fragment after
// an empty offset table, so that every codec sees the bytes. Every frame is decoded, raw and
// for display.
#include <quib/dicom_image.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace {

std::vector<unsigned char> us(unsigned v) {
  return {static_cast<unsigned char>(v & 0xFF), static_cast<unsigned char>(v >> 8)};
}
std::vector<unsigned char> text(const std::string& s) {
  return {s.begin(), s.end()};
}

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
  quib::Dicom file;
  auto put = [&](std::uint16_t group, std::uint16_t number, std::vector<unsigned char> value) {
    (*file)[quib::dicom::tag_key(group, number)] = std::move(value);
  };
  put(0x0002, 0x0010, text(syntax));
  const int samples = data[3] & 1 ? 3 : 1;
  const int bits = kBits[data[4] % 4];
  put(0x0028, 0x0010, us(1 + data[1] % 64));
  put(0x0028, 0x0011, us(1 + data[2] % 64));
  put(0x0028, 0x0002, us(samples));
  put(0x0028, 0x0100, us(bits));
  put(0x0028, 0x0101, us(1 + data[5] % (bits == 0 ? 1 : bits)));
  put(0x0028, 0x0103, us(data[6] & 1));
  put(0x0028, 0x0006, us((data[6] >> 1) & 1));
  put(0x0028, 0x0008, text(std::to_string(1 + data[7] % 4)));
  put(0x0028, 0x0004, text(kPhotometric[data[8] % 6]));
  if (data[9] & 1) put(0x0028, 0x1050, text("40\\400"));
  if (data[9] & 2) put(0x0028, 0x1051, text("400\\2000"));
  if (data[9] & 4) {
    put(0x0028, 0x1101, {0, 1, 0, 0, 16, 0});
    put(0x0028, 0x1102, {0, 1, 0, 0, 8, 0});
    put(0x0028, 0x1103, {16, 0, 0, 0, 16, 0});
    put(0x0028, 0x1201, std::vector<unsigned char>(data + 12, data + size));
    put(0x0028, 0x1202, std::vector<unsigned char>(data + 12, data + size));
    put(0x0028, 0x1203, std::vector<unsigned char>(data + 12, data + size));
  }
  std::vector<unsigned char> pixels(data + 12, data + size);
  const bool items = pixels.size() >= 4 && pixels[0] == 0xFE && pixels[1] == 0xFF &&
                     pixels[2] == 0x00 && pixels[3] == 0xE0;
  if (encapsulated && !items) {
    std::vector<unsigned char> wrapped = {0xFE, 0xFF, 0x00, 0xE0, 0,    0,
                                          0,    0,    0xFE, 0xFF, 0x00, 0xE0};
    const std::size_t n = pixels.size();
    for (int b = 0; b < 4; ++b)
      wrapped.push_back(static_cast<unsigned char>(n >> (8 * b)));
    wrapped.insert(wrapped.end(), pixels.begin(), pixels.end());
    pixels.swap(wrapped);
  }
  if (data[10] & 1) {  // an Extended Offset Table from the next bytes
    put(0x7FE0, 0x0001, std::vector<unsigned char>(data + 12, data + (size < 28 ? 12 : 28)));
    if (data[10] & 2)
      put(0x7FE0, 0x0002, std::vector<unsigned char>(data + 12, data + (size < 28 ? 12 : 28)));
  }
  put(0x7FE0, 0x0010, std::move(pixels));

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
    if (ok && k == 0) module.decode_display(0, display, data[11] % 3 - 1);
  }
  return 0;
}
