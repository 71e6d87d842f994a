// Uses an installed QUIB the way an outside project would.
#include <quib/quib.hpp>

#include <cstdio>

int main() {
  quib::Image image(5, 3, 24, 4, quib::color_type::undetermined);
  cv::Mat view = image.makeMat();
  const bool ok =
      image.getLineBytes() == 16 && view.rows == 3 && view.cols == 5 && view.channels() == 3;
  std::printf("consumer: %s\n", ok ? "ok" : "wrong");
  return ok ? 0 : 1;
}
