// The image core at work on data it makes itself: a gradient image is written as an 8-bit
// palette bitmap and as a 24-bit bitmap row by row, read back band by band and wrapped for
// OpenCV.
#include <quib/quib.hpp>

#include <cstdio>
#include <filesystem>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

int main() {
  const int width = 640;
  const int height = 480;
  const auto dir = std::filesystem::temp_directory_path() / "quib-demo";
  std::filesystem::create_directories(dir);

  // A gradient: grey in the 8-bit image, a colour ramp in the 24-bit one.
  quib::Image grey(width, height, 8, 4, quib::color_type::grey);
  quib::Image colour(width, height, 24, 4, quib::color_type::bgr);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      *grey.getAddress({x, y}) = static_cast<unsigned char>((x + y) * 255 / (width + height - 2));
      unsigned char* bgr = colour.getAddress({x, y});
      bgr[0] = static_cast<unsigned char>(x * 255 / (width - 1));
      bgr[1] = static_cast<unsigned char>(y * 255 / (height - 1));
      bgr[2] = static_cast<unsigned char>(255 - bgr[0]);
    }
  }
  std::printf("made a %dx%d grey image (stride %d) and a colour one (stride %d)\n", width, height,
              grey.getLineBytes(), colour.getLineBytes());

  quib::Palette ramp(256);
  for (int i = 0; i < 256; ++i)
    ramp[i] = 0x010101u * static_cast<unsigned>(i);

  const std::string greyPath = (dir / "gradient8.bmp").string();
  const std::string colourPath = (dir / "gradient24.bmp").string();
  // Rows are written top-down into a top-down file (negative height), one row per call.
  for (auto [image, path, palette] :
       {std::tuple{&grey, greyPath, ramp}, std::tuple{&colour, colourPath, quib::Palette()}}) {
    const int samples = image->getChannel();
    quib::Dib out(path, width, -height, 96, 96, 8, 4, samples, palette);
    int written = 0;
    for (int y = height - 1; y >= 0; --y) {  // top-down files fill from the end backwards
      written += out.write(image->getAddress({0, y}), image->getLineBytes());
    }
    std::printf("wrote %s: %d bytes of rows, %d-bit, %llu palette entries\n", path.c_str(), written,
                8 * samples, static_cast<unsigned long long>(palette.size()));
  }

  // Read back band by band into one reused buffer and compare with the source images.
  for (auto [image, path] : {std::pair{&grey, greyPath}, std::pair{&colour, colourPath}}) {
    quib::Dib in(path);
    if (!in) {
      std::printf("could not open %s\n", path.c_str());
      return 1;
    }
    const int band = 64;
    std::vector<unsigned char> rows(static_cast<std::size_t>(band) * in.getLineBytes());
    long long differences = 0;
    int bands = 0;
    int first = 0;
    while (const int n = in.read(rows.data(), static_cast<int>(rows.size()))) {
      const int count = n / in.getLineBytes();
      // Blocks of a top-down file come from the end backwards, rows inside keep file order.
      const int top = height - first - count;
      for (int r = 0; r < count; ++r) {
        const unsigned char* expect = image->getAddress({0, top + r});
        const unsigned char* got = rows.data() + static_cast<std::size_t>(r) * in.getLineBytes();
        for (int b = 0; b < width * in.getColorCount(); ++b)
          differences += expect[b] != got[b];
      }
      first += count;
      ++bands;
    }
    // The last band, seen by OpenCV without a copy.
    quib::Image view(in.getWidth(), band, rows.data(), 8 * in.getColorCount(), 4,
                     quib::color_type::undetermined);
    cv::Mat mat = view.makeMat();
    std::printf(
        "read %s in %d bands of %d rows: %lld differing bytes; OpenCV view %dx%d, %d "
        "channel(s)\n",
        path.c_str(), bands, band, differences, mat.cols, mat.rows, mat.channels());
    if (differences != 0) return 1;
  }

  cv::Mat whole = colour.makeMat();
  const cv::Scalar mean = cv::mean(whole);
  std::printf("mean of the colour image through OpenCV: B %.1f G %.1f R %.1f\n", mean[0], mean[1],
              mean[2]);
  return 0;
}
