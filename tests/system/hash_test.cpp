#include <quib/hash.hpp>

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

using namespace std::string_literals;
using bytes = std::vector<unsigned char>;

namespace {

std::string hex(bytes const& b) {
  std::string text;
  char pair[3];
  for (unsigned char c : b) {
    std::snprintf(pair, sizeof pair, "%02x", c);
    text += pair;
  }
  return text;
}

std::wstring widen(std::string const& s) {
  return std::wstring(s.begin(), s.end());
}

}  // namespace

TEST(Hash, MatchesHandComputedValues) {
  bytes out{1, 2, 3};
  EXPECT_TRUE(quib::hash::compute(out, bytes{}));
  EXPECT_EQ(out, bytes(8, 0));
  EXPECT_EQ(quib::hash::compute(""s), "0000000000000000");
  EXPECT_EQ(quib::hash::compute(L""s), L"0000000000000000");

  // h = 0 ^ (1 + 0x9e3779b9)
  EXPECT_TRUE(quib::hash::compute(out, bytes{0x01}));
  EXPECT_EQ(out, (bytes{0, 0, 0, 0, 0x9e, 0x37, 0x79, 0xba}));
  EXPECT_EQ(quib::hash::compute("\x01"s), "000000009e3779ba");
  // The shifts enter from the second element on.
  EXPECT_TRUE(quib::hash::compute(out, bytes{0x01, 0x02}));
  EXPECT_EQ(hex(out), "00000028cd94bf13");
  EXPECT_EQ(quib::hash::compute("abc"s), "00000a16fb515711");
  EXPECT_EQ(quib::hash::compute(L"abc"s), L"00000a16fb515711");
}

TEST(Hash, FormsDifferAboveSevenBits) {
  bytes out;
  quib::hash::compute(out, bytes{0x80});
  EXPECT_EQ(hex(out), "000000009e377a39");
  EXPECT_EQ(quib::hash::compute("\x80"s), "000000009e377939");  // the char is sign-extended
  EXPECT_EQ(quib::hash::compute(L"\u0080"s), L"000000009e377a39");

  // Below 0x80 all three agree.
  std::string const ascii = "frame#0042.png";
  quib::hash::compute(out, bytes(ascii.begin(), ascii.end()));
  EXPECT_EQ(quib::hash::compute(ascii), hex(out));
  EXPECT_EQ(quib::hash::compute(widen(ascii)), widen(hex(out)));
}

TEST(Hash, WideStringsHashAsUtf16) {
  std::wstring const pair{static_cast<wchar_t>(0xD83D), static_cast<wchar_t>(0xDE00)};
  EXPECT_EQ(quib::hash::compute(L"\U0001F600"s), L"00000028cde2b840");
  EXPECT_EQ(quib::hash::compute(pair), L"00000028cde2b840");
  // Values that are no character enter as U+FFFD.
  EXPECT_EQ(quib::hash::compute(std::wstring(1, static_cast<wchar_t>(0x110000))),
            L"000000009e3879b6");
  EXPECT_EQ(quib::hash::compute(std::wstring(1, static_cast<wchar_t>(-1))), L"000000009e3879b6");
}

TEST(Sha256, MatchesKnownDigests) {
  EXPECT_EQ(quib::sha256::compute(""s),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(quib::sha256::compute("abc"s),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(quib::sha256::compute(L"abc"s),
            L"ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  bytes out{9};
  EXPECT_TRUE(quib::sha256::compute(out, bytes(1000000, 'a')));
  EXPECT_EQ(hex(out), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
  EXPECT_TRUE(quib::sha256::compute(out, bytes{}));
  EXPECT_EQ(hex(out), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(Sha256, WideStringsHashTheirUtf8) {
  EXPECT_EQ(quib::sha256::compute(L"\u00e9\U0001F600"s),
            widen(quib::sha256::compute("\xc3\xa9\xf0\x9f\x98\x80"s)));
  std::wstring const pair{L'x', static_cast<wchar_t>(0xD83D), static_cast<wchar_t>(0xDE00)};
  EXPECT_EQ(quib::detail::to_utf8(pair), "x\xf0\x9f\x98\x80");
  std::wstring const lone{static_cast<wchar_t>(0xDE00), static_cast<wchar_t>(0xD83D), L'y',
                          static_cast<wchar_t>(0x7fffffff)};
  EXPECT_EQ(quib::detail::to_utf8(lone), "\xef\xbf\xbd\xef\xbf\xbdy\xef\xbf\xbd");
  EXPECT_EQ(quib::detail::to_utf8(L"\u07ff\u0800\uffff"s), "\xdf\xbf\xe0\xa0\x80\xef\xbf\xbf");
}

TEST(Sha256, AgreesWithSha256sumOnAFile) {
  namespace fs = std::filesystem;
  fs::path const dir = fs::temp_directory_path() / ("quib_sha256_" + std::to_string(::getpid()));
  fs::create_directories(dir);
  fs::path const file = dir / "data.bin";
  bytes data(3 * 65536 + 17);
  std::mt19937 generator(7);
  for (auto& b : data)
    b = static_cast<unsigned char>(generator());
  std::ofstream(file, std::ios::binary)
      .write(reinterpret_cast<char const*>(data.data()), static_cast<std::streamsize>(data.size()));

  std::string reference;
  if (FILE* pipe = ::popen(("sha256sum '" + file.string() + "'").c_str(), "r")) {
    char line[128] = {};
    if (std::fgets(line, sizeof line, pipe)) reference.assign(line, 64);
    ::pclose(pipe);
  }
  fs::remove_all(dir);
  ASSERT_EQ(reference.size(), 64u) << "sha256sum did not run";

  bytes out;
  ASSERT_TRUE(quib::sha256::compute(out, data));
  EXPECT_EQ(hex(out), reference);
}

namespace {

// An engine that fails at one chosen step (1 to 4) and otherwise produces a fixed digest.
class FailingEngine : public quib::detail::DigestEngine {
 public:
  explicit FailingEngine(int failing) : failing(failing) {}
  bool acquire() override { return failing != 1; }
  bool create() override { return failing != 2; }
  bool update(unsigned char const*, std::size_t) override { return failing != 3; }
  bool finish(unsigned char* out) override {
    for (int i = 0; i < 32; ++i)
      out[i] = static_cast<unsigned char>(i);
    return failing != 4;
  }

 private:
  int failing;
};

}  // namespace

TEST(Sha256, ReportsEachFailedStepOnStandardError) {
  char const* const messages[] = {"error CryptAcquireContext()\n", "error CryptCreateHash()\n",
                                  "error CryptHashData()\n", "error CryptGetHashParam()\n"};
  unsigned char const data[] = {1, 2, 3};
  for (int step = 1; step <= 4; ++step) {
    SCOPED_TRACE(step);
    FailingEngine engine(step);
    bytes out{7};
    testing::internal::CaptureStderr();
    EXPECT_FALSE(quib::detail::run_sha256(engine, out, data, sizeof data));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), messages[step - 1]);
    if (step < 4) {
      EXPECT_EQ(out, bytes{7});  // untouched before the digest is read
    }
  }
  FailingEngine working(0);
  bytes out;
  testing::internal::CaptureStderr();
  EXPECT_TRUE(quib::detail::run_sha256(working, out, data, sizeof data));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(out.size(), 32u);
}
