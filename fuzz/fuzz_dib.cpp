// Arbitrary bytes as a bitmap file: opening, reading the whole picture and every kind of row
// transfer must fail cleanly.
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
  for (auto palette : {quib::palette_t::index, quib::palette_t::grey_or_bgr}) {
    const quib::Image picture = quib::Dib::read_image(path, palette);
    // Whatever the depth, the picture takes at most 4 bytes per pixel of rows that are in the file.
    if (!picture.empty() && picture.getBufferSize() > 32 * (std::uint64_t(size) + 64) + 4096)
      __builtin_trap();
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
    static_cast<void>(dib.read(plane, band.data(), int(band.size())));
  }
  dib.seek(0, 0);
  if (line > 0 && std::size_t(line) <= band.size()) static_cast<void>(dib.write(band.data(), line));
  dib.seek(1, 1);
  static_cast<void>(dib.write(1, band.data(), int(band.size())));
  return 0;
}
