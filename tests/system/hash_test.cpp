#include <quib/hash.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

using namespace std::string_literals;
using bytes = std::vector<unsigned char>;

namespace {

std::string hex(bytes const& b) {
  std::string text;
  for (unsigned char c : b) {
    text += "0123456789abcdef"[c >> 4];
    text += "0123456789abcdef"[c & 15];
  }
  return text;
}

std::string hex64(std::uint64_t value) {
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
  return text;
}

std::wstring widen(std::string const& s) {
  return std::wstring(s.begin(), s.end());
}

std::string hash_of(bytes const& in) {
  bytes out{1, 2, 3};
  EXPECT_TRUE(quib::hash::compute(out, in));
  return hex(out);
}

}  // namespace

TEST(Hash, MatchesHandComputedValuesInEachForm) {
  EXPECT_EQ(hash_of({}), "0000000000000000");
  EXPECT_EQ(hash_of({0x01}), "000000009e3779ba");  // 0 ^ (1 + 0x9e3779b9)
  EXPECT_EQ(quib::hash::compute("\x01"s), "000000009e3779ba");
  EXPECT_EQ(hash_of({0x01, 0x02}), "00000028cd94bf13");  // the shifts enter from here on
  EXPECT_EQ(quib::hash::compute(L"abc"s), L"00000a16fb515711");
  // Above seven bits the narrow form differs: its chars are sign-extended.
  EXPECT_EQ(hash_of({0x80}), "000000009e377a39");
  EXPECT_EQ(quib::hash::compute("\x80"s), "000000009e377939");
  EXPECT_EQ(quib::hash::compute(L"\u0080"s), L"000000009e377a39");
  // Wide text enters as UTF-16 code units; values that are no character as U+FFFD.
  EXPECT_EQ(quib::hash::compute(L"\U0001F600"s), L"00000028cde2b840");
  EXPECT_EQ(
      quib::hash::compute(std::wstring{static_cast<wchar_t>(0xD83D), static_cast<wchar_t>(0xDE00)}),
      L"00000028cde2b840");
  EXPECT_EQ(quib::hash::compute(std::wstring(1, static_cast<wchar_t>(-1))), L"000000009e3879b6");
}

TEST(Sha256, MatchesKnownDigests) {
  EXPECT_EQ(quib::sha256::compute(""s),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(quib::sha256::compute(L"abc"s),
            L"ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  bytes out{9};
  EXPECT_TRUE(quib::sha256::compute(out, bytes(1000000, 'a')));
  EXPECT_EQ(hex(out), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
  // Wide text is hashed as UTF-8.
  EXPECT_EQ(quib::sha256::compute(L"\u00e9\U0001F600"s),
            widen(quib::sha256::compute("\xc3\xa9\xf0\x9f\x98\x80"s)));
}

TEST(Sha256, AgreesWithSha256sumOnAFile) {
  namespace fs = std::filesystem;
  fs::path const dir = fs::temp_directory_path() / ("quib_sha256_" + std::to_string(::getpid()));
  fs::create_directories(dir);
  bytes data(196625);  // three 64 KiB blocks and a little
  std::mt19937 generator(7);
  for (auto& b : data)
    b = static_cast<unsigned char>(generator());
  std::ofstream(dir / "data.bin", std::ios::binary)
      .write(reinterpret_cast<char*>(data.data()), std::streamsize(data.size()));
  std::string reference;
  if (FILE* pipe = ::popen(("sha256sum '" + (dir / "data.bin").string() + "'").c_str(), "r")) {
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

// An engine that fails at one chosen step (1 to 4; 0 for none).
class FailingEngine : public quib::detail::digest_engine {
 public:
  explicit FailingEngine(int failing) : failing(failing) {}
  bool acquire() override { return failing != 1; }
  bool create() override { return failing != 2; }
  bool update(unsigned char const*, std::size_t) override { return failing != 3; }
  bool finish(unsigned char*) override { return failing != 4; }

 private:
  int failing;
};

}  // namespace

TEST(Sha256, ReportsEachFailedStepOnStandardError) {
  char const* const messages[] = {"", "error CryptAcquireContext()\n", "error CryptCreateHash()\n",
                                  "error CryptHashData()\n", "error CryptGetHashParam()\n"};
  unsigned char const data[] = {1, 2, 3};
  for (int step = 0; step <= 4; ++step) {
    SCOPED_TRACE(step);
    bytes out{7};
    testing::internal::CaptureStderr();
    EXPECT_EQ(
        quib::detail::run_sha256(std::make_unique<FailingEngine>(step), out, data, sizeof data),
        step == 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), messages[step]);
    EXPECT_EQ(out.size(), step == 0 || step == 4 ? 32u : 1u);
  }
}

TEST(Sha256, StreamingNamesTheFailedOpenSslStepOnceAndRecoversAtFinal) {
  char const* const messages[] = {
      "", "sha256: EVP_MD_CTX_new failed\n", "sha256: EVP_DigestInit_ex failed\n",
      "sha256: EVP_DigestUpdate failed\n", "sha256: EVP_DigestFinal_ex failed\n"};
  for (int step = 1; step <= 4; ++step) {
    SCOPED_TRACE(step);
    quib::sha256::Hasher sha(std::make_unique<FailingEngine>(step));
    bytes out{7};
    testing::internal::CaptureStderr();
    bool const fed = sha.update("ab", 2);
    EXPECT_EQ(sha.update("cd", 2), fed);  // a failure holds: one line, however many calls
    EXPECT_FALSE(sha.final(out));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), messages[step]);
    EXPECT_EQ(out.size(), step == 4 ? 32u : 1u);
  }
}

TEST(Hashing, StreamingInOddPiecesEqualsOneShot) {
  bytes data(100003);
  std::mt19937 generator(11);
  for (auto& b : data)
    b = static_cast<unsigned char>(generator());
  std::string const narrow(data.begin(), data.end());
  std::wstring wide;
  for (std::size_t i = 0; i < 5000; ++i)  // every plane, surrogates and non-characters too
    wide.push_back(static_cast<wchar_t>(generator() % 0x110010));
  bytes one_shot;
  ASSERT_TRUE(quib::sha256::compute(one_shot, data));
  std::vector<unsigned char> h8;
  quib::hash::compute(h8, data);

  quib::sha256::Hasher sha;  // reused: each final() begins a new digest
  for (std::size_t piece : {1u, 3u, 63u, 64u, 65u, 1000u, 4093u, 100003u}) {
    SCOPED_TRACE(piece);
    quib::hash::Hasher bytes_hash, narrow_hash, wide_hash;
    for (std::size_t at = 0; at < data.size(); at += piece) {
      std::size_t const n = std::min(piece, data.size() - at);
      EXPECT_TRUE(sha.update(data.data() + at, n));
      bytes_hash.update(data.data() + at, n);
      narrow_hash.update(std::string_view(narrow).substr(at, n));
    }
    for (std::size_t at = 0; at < wide.size(); at += piece)
      wide_hash.update(std::wstring_view(wide).substr(at, piece));
    bytes digest;
    ASSERT_TRUE(sha.final(digest));
    EXPECT_EQ(digest, one_shot);
    EXPECT_EQ(hex64(bytes_hash.final()), hex(h8));
    EXPECT_EQ(bytes_hash.final(), 0u);  // final() started over
    EXPECT_EQ(hex64(narrow_hash.final()), quib::hash::compute(narrow));
    EXPECT_EQ(widen(hex64(wide_hash.final())), quib::hash::compute(wide));
  }
  EXPECT_TRUE(sha.update("abc", 3));
  EXPECT_EQ(sha.final_hex(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(sha.final_hex(), quib::sha256::compute(std::string()));
}
