#include "image_io.hpp"

#include <quib/dib.hpp>

#include "cli.hpp"

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace quib::tool {

namespace fs = std::filesystem;

namespace {

bool startsWithBm(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  char magic[2] = {0, 0};
  return in.read(magic, 2) && magic[0] == 'B' && magic[1] == 'M';
}

// An 8-, 24- or 32-bit bitmap read row by row through quib::Dib; empty when Dib cannot open
// it or its depth is another one (OpenCV then gets its turn).
cv::Mat readBitmap(std::string const& path) {
  quib::Dib dib(path);
  if (!dib || dib.getBits() != 8 || dib.getWidth() <= 0 || dib.getHeight() <= 0) return {};
  const int samples = dib.getColorCount();
  const int width = dib.getWidth();
  const int height = dib.getHeight();
  const int line = dib.getLineBytes();
  // Dib has checked that the rows fit in the file, so this buffer is bounded by its size.
  std::vector<unsigned char> rows(static_cast<std::size_t>(line) * std::size_t(height));
  if (dib.read(rows.data(), static_cast<int>(rows.size())) != static_cast<int>(rows.size()))
    return {};
  cv::Mat stored(height, width, CV_8UC(samples), rows.data(), static_cast<std::size_t>(line));
  cv::Mat picture;
  if (samples == 1) {
    // Palette indices: look the colours up unless the table is a plain grey ramp.
    quib::Palette const table = dib.getPalette();
    bool grey = true;
    for (std::uint64_t i = 0; i < table.size() && grey; ++i)
      grey = (table[int(i)] & 0xFFFFFFu) == 0x010101u * (i & 0xFF) && i < 256;
    if (grey) {
      picture = stored.clone();
    } else {
      picture.create(height, width, CV_8UC3);
      for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
          const std::uint64_t index = stored.at<unsigned char>(y, x);
          const unsigned int c = index < table.size() ? table[int(index)] : 0u;
          picture.at<cv::Vec3b>(y, x) =
              cv::Vec3b(static_cast<unsigned char>(c), static_cast<unsigned char>(c >> 8),
                        static_cast<unsigned char>(c >> 16));
        }
      }
    }
  } else if (samples == 3) {
    picture = stored.clone();
  } else {
    cv::cvtColor(stored, picture, cv::COLOR_BGRA2BGR);
  }
  // Rows are stored bottom-up unless the header says otherwise.
  if (!dib.isTopDown()) cv::flip(picture, picture, 0);
  return picture;
}

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
  if (std::string reason = unreadableReason(path); !reason.empty()) throw Failure(name, reason);
  cv::Mat picture;
  if (startsWithBm(path)) picture = readBitmap(path);
  if (picture.empty())
    picture = cv::imread(path, mode == read_as::grey ? cv::IMREAD_GRAYSCALE : cv::IMREAD_COLOR);
  if (picture.empty()) throw Failure(name, "not a picture that can be read");
  if (mode == read_as::grey && picture.channels() == 3)
    cv::cvtColor(picture, picture, cv::COLOR_BGR2GRAY);
  if (mode == read_as::colour && picture.channels() == 1)
    cv::cvtColor(picture, picture, cv::COLOR_GRAY2BGR);
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
