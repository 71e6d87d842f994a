// Names a series of frames, paces a short loop at 30 fps and fingerprints what it "wrote".
#include <quib/clock.hpp>
#include <quib/hash.hpp>
#include <quib/path.hpp>

#include <cstdio>
#include <string>
#include <vector>

int main() {
  // Frames of a series are named scan#0.png, scan#1.png, ...; the number reads back.
  std::string const first = quib::get_sharp_path("scan.png", ".png", 0);
  std::string const third = quib::get_sharp_path(first, ".png", 2);
  std::printf("%s -> %s (frame %d)\n", first.c_str(), third.c_str(),
              quib::get_sharp_path_number(third, ".png"));

  // A display loop paced at 30 frames per second.
  quib::Fps pacer(30);
  quib::Clock clock(0);
  std::vector<unsigned char> frame(640 * 480, 0);
  std::string digests;
  for (int f = 0; f < 5; ++f) {
    frame[static_cast<std::size_t>(f)] = 255;  // "draw"
    std::vector<unsigned char> digest;
    if (quib::sha256::compute(digest, frame)) digests.push_back(static_cast<char>(digest[0]));
    pacer.wait();
  }
  std::printf("5 frames in about %lld ms\n", static_cast<long long>(clock.get_delta_ms()));

  // Quick 64-bit fingerprints of names; SHA-256 where it must be collision-resistant.
  std::printf("hash(%s) = %s\n", third.c_str(), quib::hash::compute(third).c_str());
  std::printf("sha256(abc) = %s\n", quib::sha256::compute(std::string("abc")).c_str());
  return digests.size() == 5 ? 0 : 1;
}
