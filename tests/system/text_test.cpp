// One behaviour for text that holds no character: text and hashing put U+FFFD in its place,
// paths refuse it. A surrogate pair is the character it stands for, whatever the width of wchar_t.
#include <quib/convert.hpp>
#include <quib/hash.hpp>

#include "system/native_path.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using quib::convert::to_string;

constexpr wchar_t kHigh = static_cast<wchar_t>(0xD83D);
constexpr wchar_t kLow = static_cast<wchar_t>(0xDE00);

std::wstring widen(std::string const& s) {
  return std::wstring(s.begin(), s.end());
}

struct Case {
  char const* name;
  std::wstring wide;
  std::string utf8;   // what text and hashing make of it
  bool path_refused;  // what native_path makes of it
};

std::vector<Case> cases() {
  return {
      {"ascii", L"part.stl", "part.stl", false},
      {"pair", std::wstring{kHigh, kLow, L'.'}, "\xF0\x9F\x98\x80.", false},
      {"one character above U+FFFF", L"\U0001F600.", "\xF0\x9F\x98\x80.", false},
      {"lone high", std::wstring{kHigh, L'.'}, "\xEF\xBF\xBD.", true},
      {"lone low", std::wstring{L'x', kLow}, "x\xEF\xBF\xBD", true},
      {"high at the end", std::wstring{kHigh, kLow, kHigh}, "\xF0\x9F\x98\x80\xEF\xBF\xBD", true},
      {"low before high", std::wstring{kLow, kHigh}, "\xEF\xBF\xBD\xEF\xBF\xBD", true},
      {"past U+10FFFF", std::wstring{L'a', static_cast<wchar_t>(0x110000)}, "a\xEF\xBF\xBD", true},
      {"negative", std::wstring{static_cast<wchar_t>(-1)}, "\xEF\xBF\xBD", true},
  };
}

TEST(Text, TextHashingAndPathsAgreeOnEverySurrogate) {
  for (Case const& c : cases()) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(to_string(c.wide), c.utf8);
    // The digest of wide text is the digest of exactly the bytes to_string gives.
    EXPECT_EQ(quib::sha256::compute(c.wide), widen(quib::sha256::compute(c.utf8)));
    auto const path = quib::detail::native_path(c.wide);
    EXPECT_EQ(!path, c.path_refused);
    if (path) {
      EXPECT_EQ(path->native(), c.utf8);
    }
  }
}

TEST(Text, DecodingReplacesOrFailsAsTheCallerNames) {
  using quib::detail::on_invalid_t;
  using quib::detail::wide_from_utf8;
  // Well-formed text round-trips under either policy.
  const std::string good = "A\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80";
  EXPECT_EQ(wide_from_utf8(good, on_invalid_t::fail), std::wstring(L"A\u00E4\u20AC\U0001F600"));
  EXPECT_EQ(to_string(*wide_from_utf8(good, on_invalid_t::fail)), good);
  // An encoded surrogate, a truncated sequence, a lead byte with nothing after it.
  for (std::string bad : {"a\xED\xA0\x80", "x\xE2\x82", "\xF0"}) {
    SCOPED_TRACE(bad);
    EXPECT_FALSE(wide_from_utf8(bad, on_invalid_t::fail));
    EXPECT_EQ(quib::convert::to_wstring(bad).back(), L'\uFFFD');
  }
}

}  // namespace
