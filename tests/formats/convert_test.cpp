#include <quib/convert.hpp>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using quib::convert::get_separator_wstring;
using quib::convert::to_string;
using quib::convert::to_wstring;

TEST(Convert, Utf8RoundTripsEveryPlane) {
  const std::wstring wide = L"A\u00E4\u20AC\U0001F600z";
  const std::string narrow = "A\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80z";
  EXPECT_EQ(to_string(wide), narrow);
  EXPECT_EQ(to_wstring(narrow), wide);
  EXPECT_EQ(to_wstring(std::string("a\0b", 3)), std::wstring(L"a\0b", 3));
}

TEST(Convert, MalformedTextBecomesReplacementCharacters) {
  // A stray continuation byte, an overlong '/', an encoded surrogate, a value above U+10FFFF,
  // a truncated sequence at the end: one U+FFFD per byte that starts no valid sequence.
  EXPECT_EQ(to_wstring("a\x80z"), L"a\uFFFDz");
  EXPECT_EQ(to_wstring("\xC0\xAF"), L"\uFFFD\uFFFD");
  EXPECT_EQ(to_wstring("\xED\xA0\x80"), L"\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(to_wstring("\xF4\x90\x80\x80"), L"\uFFFD\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(to_wstring("x\xE2\x82"), L"x\uFFFD\uFFFD");
  if constexpr (sizeof(wchar_t) == 4) {
    const std::wstring bad{wchar_t(0xD800), L'a', wchar_t(0x110000)};
    EXPECT_EQ(to_string(bad),
              "\xEF\xBF\xBD"
              "a\xEF\xBF\xBD");
  }
}

TEST(Convert, SplitsAtAnySeparatorOutsideQuotes) {
  using Fields = std::vector<std::wstring>;
  const auto split = [](wchar_t const* text) {
    return get_separator_wstring(text, L" \t", L'"', L'"');
  };
  EXPECT_EQ(split(L"solid \t\"my part\" x"), (Fields{L"solid", L"", L"my part", L"x"}));
  EXPECT_EQ(split(L""), (Fields{L""}));
  EXPECT_EQ(split(L" a "), (Fields{L"", L"a", L""}));
  EXPECT_EQ(split(L"ab\"c d\"e f"), (Fields{L"abc de", L"f"}));
  EXPECT_EQ(split(L"\"\" \"open to end"), (Fields{L"", L"open to end"}));
  // Distinct opening and closing quotes.
  EXPECT_EQ(get_separator_wstring(L"a,[b,c],d", L",", L'[', L']'), (Fields{L"a", L"b,c", L"d"}));
}

}  // namespace
