#include "image_io.hpp"

#include <quib/dib.hpp>

#include "cli.hpp"

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

namespace quib::tool {

namespace fs = std::filesystem;

namespace {

void writeBitmap(std::string const& path, cv::Mat const& image) {
  const bool grey = image.channels() == 1;
  quib::Palette table(grey ? 256 : 0);
  for (int i = 0; grey && i < 256; ++i)
    table[i] = 0x010101u * static_cast<unsigned>(i);
  std::error_code ec;
  fs::remove(path, ec);  // Dib reopens an existing bitmap; a new file is wanted
  // A bottom-up file: the first row written is the bottom of the picture.
  quib::Dib dib(path, image.cols, image.rows, 96, 96, 8, 4, grey ? 1 : 3, table);
  if (!dib) throw Failure(path, "cannot be written");
  std::vector<unsigned char> row(static_cast<std::size_t>(dib.getLineBytes()), 0);
  const std::size_t bytes = std::size_t(image.cols) * std::size_t(image.channels());
  for (int y = image.rows - 1; y >= 0; --y) {
    std::memcpy(row.data(), image.ptr(y), bytes);
    if (dib.write(row.data(), static_cast<int>(row.size())) != static_cast<int>(row.size()))
      throw Failure(path, "write error");
  }
}

}  // namespace

cv::Mat readImage(std::string const& name, read_as mode) {
  const InputFile input(name);
  std::string const& path = input.path();
  // The bitmap reader opens the file first. Anything it refuses is read whole and decoded by
  // OpenCV; why a file cannot be read at all is looked for only after both have failed.
  const quib::Image bitmap = quib::Dib::read_image(path);
  cv::Mat picture = bitmap.empty() ? cv::Mat() : bitmap.makeMat();
  std::error_code ec;
  if (picture.empty() && !fs::is_directory(path, ec)) {
    std::ifstream in(path, std::ios::binary);
    std::vector<unsigned char> bytes;
    if (in) bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (!bytes.empty())
      picture =
          cv::imdecode(bytes, mode == read_as::grey ? cv::IMREAD_GRAYSCALE : cv::IMREAD_COLOR);
  }
  if (picture.empty()) {
    const std::string reason = unreadableReason(path);
    throw Failure(name, reason.empty() ? "not a picture that can be read" : reason);
  }
  static constexpr int toGrey[] = {-1, -1, cv::COLOR_BGR2GRAY, cv::COLOR_BGRA2GRAY};
  static constexpr int toColour[] = {cv::COLOR_GRAY2BGR, -1, -1, cv::COLOR_BGRA2BGR};
  const int code = (mode == read_as::grey ? toGrey : toColour)[picture.channels() - 1];
  if (code >= 0)
    cv::cvtColor(picture, picture, code);
  else if (!bitmap.empty())
    picture = picture.clone();  // the bitmap's pixels go when `bitmap` does
  return picture;
}

void writeImage(std::string const& path, cv::Mat const& image) {
  const std::string ext = fs::path(path).extension().string();
  std::string lower;
  for (char c : ext)
    lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (lower == ".bmp") {
    writeBitmap(path, image);
    return;
  }
  bool written = false;
  try {
    written = cv::imwrite(path, image);
  } catch (cv::Exception const& e) {
    throw Failure(path, "cannot be written: " + e.err);
  }
  if (!written) throw Failure(path, "cannot be written (unknown extension or no access)");
}

std::string outputPath(std::string const& dir, std::string const& input, std::string const& ext) {
  fs::path name = fs::path(input).filename();
  if (!ext.empty()) name.replace_extension(ext);
  return (fs::path(dir) / name).string();
}

void makeDirectory(std::string const& dir) {
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (!fs::is_directory(dir, ec)) throw Failure(dir, "cannot be created as a directory");
}

}  // namespace quib::tool
