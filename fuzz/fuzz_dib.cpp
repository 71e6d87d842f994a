// Arbitrary bytes as a bitmap file: opening and every kind of row transfer must fail cleanly.
#include <quib/dib.hpp>

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string path = "/tmp/quib-fuzz-dib-" + std::to_string(::getpid()) + ".bmp";
  if (std::FILE* f = std::fopen(path.c_str(), "wb")) {
    std::fwrite(data, 1, size, f);
    std::fclose(f);
  }
  quib::Dib dib(path);
  if (dib.fail()) return 0;

  // Bands bounded by the file size: an honest file has at most that many row bytes.
  const int line = dib.getLineBytes();
  const std::size_t bandBytes = std::min<std::size_t>(size + 64, 1 << 20);
  std::vector<unsigned char> band(bandBytes);
  while (dib.read(band.data(), int(band.size())) > 0) {
  }
  for (int plane = 0; plane < 4; ++plane) {
    dib.seek(plane, 0);
    dib.read(plane, band.data(), int(band.size()));
  }
  dib.seek(0, 0);
  if (line > 0 && std::size_t(line) <= band.size()) dib.write(band.data(), line);
  dib.seek(1, 1);
  dib.write(1, band.data(), int(band.size()));
  return 0;
}
