// Feeds arbitrary bytes to the camera-file reader, once as a YAML name and once as an XML name.
#include <quib/projection.hpp>

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

// Never destroyed, so that the exit handler below can still use it.
std::filesystem::path const& scratch() {
  static auto const* dir = [] {
    // In memory where the system has such a folder: every input is written to a file.
    std::error_code ec;
    const auto base = std::filesystem::is_directory("/dev/shm", ec)
                          ? std::filesystem::path("/dev/shm")
                          : std::filesystem::temp_directory_path();
    auto* d = new std::filesystem::path(base / ("quib-fuzz-camera-" + std::to_string(::getpid())));
    std::filesystem::create_directories(*d);
    return d;
  }();
  return *dir;
}

void cleanup() {
  std::error_code ec;
  std::filesystem::remove_all(scratch(), ec);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool registered = (std::atexit(cleanup), true);
  (void)registered;
  for (char const* name : {"camera.yml", "camera.xml"}) {
    const std::string path = (scratch() / name).string();
    {
      std::ofstream out(path, std::ios::binary | std::ios::trunc);
      out.write(reinterpret_cast<char const*>(data), static_cast<std::streamsize>(size));
    }
    quib::Projection camera({640, 480}, 2.0, 2.0);
    if (!camera.load_setup(path)) {
      // A failed load must leave the default camera behind.
      if (!camera.empty() || camera.is_distortion() || camera.get_focal_x() != 1.0) std::abort();
      continue;
    }
    // What was read is written again and must read back the same (NaN aside, whose payload the
    // writer does not keep; the writer prints -0 as 0).
    const std::string again =
        (scratch() / (std::string("again.") + (name[7] == 'y' ? "xml" : "yml"))).string();
    quib::Projection reread;
    if (!camera.save_setup(again) || !reread.load_setup(again)) std::abort();
    const double* a = camera.get_matrix_array();
    const double* b = reread.get_matrix_array();
    for (int i = 0; i < 9; ++i) {
      if (!(a[i] == b[i] || (a[i] != a[i] && b[i] != b[i]))) std::abort();
    }
  }
  return 0;
}
