// Streams a bitmap of any size band by band and reports the mean of each sample plane,
// holding only one band of rows in memory. Usage: image_bands FILE.bmp
#include <quib/dib.hpp>
#include <quib/image.hpp>

#include <cstdio>
#include <vector>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s FILE.bmp\n", argv[0]);
    return 2;
  }
  quib::Dib in(argv[1]);
  if (!in) {
    std::fprintf(stderr, "%s: not an uncompressed bitmap\n", argv[1]);
    return 1;
  }
  if (in.getBits() < 8) {
    std::fprintf(stderr, "%s: samples of %d bits are not averaged here\n", argv[1], in.getBits());
    return 1;
  }
  const int band = 64;
  std::vector<unsigned char> rows(static_cast<std::size_t>(band) * in.getLineBytes());
  std::vector<double> sums(in.getColorCount(), 0.0);
  while (const int bytes = in.read(rows.data(), static_cast<int>(rows.size()))) {
    const int count = bytes / in.getLineBytes();
    // Borrow the band as an image and hand it to OpenCV without copying.
    const quib::Image view(in.getWidth(), count, in.getLineBytes(), rows.data(),
                           in.getBits() * in.getColorCount(), 4, quib::color_type::undetermined);
    const cv::Scalar s = cv::sum(view.makeMat(in.getColorCount(), in.getBits()));
    for (int c = 0; c < in.getColorCount(); ++c)
      sums[c] += s[c];
  }
  const double pixels = double(in.getWidth()) * in.getHeight();
  for (int c = 0; c < in.getColorCount(); ++c)
    std::printf("plane %d: mean %.2f\n", c, sums[c] / pixels);
  return 0;
}
