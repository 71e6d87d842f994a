// Shared by the DICOM tests: a byte-by-byte file builder, look-ups, a temporary folder.
#pragma once

#include <quib/dicom.hpp>

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace quib_test {

using quib::Dicom;
using quib::dicom::tag_key;
namespace fs = std::filesystem;

const std::string kImplicit = "1.2.840.10008.1.2", kExplicit = "1.2.840.10008.1.2.1",
                  kDeflated = "1.2.840.10008.1.2.1.99", kBig = "1.2.840.10008.1.2.2";
const std::uint32_t kUndefined = 0xFFFFFFFFu;

// Writes a DICOM file byte by byte: preamble, "DICM", then elements in the current encoding.
struct Builder {
  static bool is_long(const std::string& vr) {
    for (const char* v :
         {"OB", "OD", "OF", "OL", "OV", "OW", "SQ", "SV", "UC", "UN", "UR", "UT", "UV"})
      if (vr == v) return true;
    return false;
  }
  std::string bytes = std::string(128, '\0') + "DICM";
  bool little = true, implicit = false;

  void u16(unsigned v) {
    char b[2] = {char(v & 0xFF), char((v >> 8) & 0xFF)};
    bytes += little ? std::string{b[0], b[1]} : std::string{b[1], b[0]};
  }
  void u32(std::uint32_t v) {
    u16(little ? v & 0xFFFF : v >> 16);
    u16(little ? v >> 16 : v & 0xFFFF);
  }
  Builder& put(unsigned group, unsigned number, const std::string& vr, const std::string& value,
               std::uint32_t length = 0xFFFFFFFEu) {
    if (length == 0xFFFFFFFEu) length = std::uint32_t(value.size());
    u16(group), u16(number);
    if (implicit || group == 0xFFFE) {
      u32(length);
    } else if (is_long(vr)) {
      bytes += vr, u16(0), u32(length);
    } else {
      bytes += vr, u16(length);
    }
    bytes += value;
    return *this;
  }
  // An explicit little-endian meta group naming `uid`; what follows uses that encoding.
  Builder& meta(const std::string& uid) {
    put(0x0002, 0x0001, "OB", std::string("\0\1", 2));
    put(0x0002, 0x0010, "UI", uid.size() % 2 ? uid + '\0' : uid);
    implicit = uid == kImplicit;
    little = uid == kImplicit || uid == kExplicit;
    return *this;
  }
};

inline std::vector<unsigned char> bytes_of(const std::string& s) {
  return {s.begin(), s.end()};
}

inline std::vector<unsigned char> value_of(const Dicom& d, unsigned group, unsigned number) {
  auto it = d->find(tag_key(std::uint16_t(group), std::uint16_t(number)));
  return it == d->end() ? std::vector<unsigned char>{} : it->second;
}

inline bool has(const Dicom& d, unsigned group, unsigned number) {
  return d->count(tag_key(std::uint16_t(group), std::uint16_t(number))) != 0;
}

inline int load_bytes(Dicom& d, const std::string& bytes, Dicom::read_t how = Dicom::READ_CLASSIC) {
  std::istringstream in(bytes);
  return d.load(in, how);
}

// A fresh directory under the system's temporary directory, removed with the object.
struct TempDir {
  fs::path path = fs::temp_directory_path() / ("quib_dicom_" + std::to_string(::getpid()));
  TempDir() { fs::create_directories(path); }
  ~TempDir() {
    std::error_code ec;
    fs::remove_all(path, ec);
  }
  std::string write(const std::string& utf8_name, const std::string& bytes) const {
    std::ofstream(path / fs::u8path(utf8_name), std::ios::binary) << bytes;
    return path.string() + "/" + utf8_name;
  }
};

// The standard output of a shell command.
inline std::string run(const std::string& command) {
  std::string out;
  if (FILE* p = popen(command.c_str(), "r")) {
    char buf[4096];
    for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;)
      out.append(buf, n);
    pclose(p);
  }
  return out;
}

}  // namespace quib_test
