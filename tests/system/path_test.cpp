#include <quib/path.hpp>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace std::string_literals;

TEST(Path, MatchesExtensionsCaseInsensitivelyOnThePathOnly) {
  EXPECT_TRUE(quib::is_ext_path("scan.png"s, ".png"s));
  EXPECT_TRUE(quib::is_ext_path("A.PNG"s, ".png"s));
  EXPECT_FALSE(quib::is_ext_path("A.PNG"s, ".PNG"s));      // the extension is not lowered
  EXPECT_FALSE(quib::is_ext_path("a.png.png"s, ".png"s));  // only the first occurrence counts
  EXPECT_FALSE(quib::is_ext_path(".png"s, ".png"s));       // must be longer than the extension
  EXPECT_FALSE(quib::is_ext_path("scan.png"s, ""s));
  EXPECT_TRUE(quib::is_ext_path(L"SCAN.PNG"s, L".png"s));
}

TEST(Path, SplitsAndJoinsExtensions) {
  EXPECT_EQ(quib::add_extension("a"s, "png"s), "a.png");
  EXPECT_EQ(quib::add_extension("a"s, ".png"s), "a.png");
  EXPECT_EQ(quib::add_extension("a"s, ""s), "a");
  EXPECT_EQ(quib::sub_extension("dir.v2/scan"s), "dir");  // a dot in a folder counts
  EXPECT_EQ(quib::sub_extension("scan"s), "scan");
  EXPECT_EQ(quib::get_extension("a.tar.gz"s), ".gz");
  EXPECT_EQ(quib::get_extension("scan"s), "");
  EXPECT_EQ(quib::get_extension(L"x."s), L".");
}

TEST(Path, PrintsNumbersAsUnsigned64Bit) {
  EXPECT_EQ(quib::add_suffix_number("f"s, -1), "f18446744073709551615");
  EXPECT_EQ(quib::add_suffix_number(L"f"s, 0), L"f0");
  EXPECT_EQ(quib::add_sharp_number("f"s, 2147483647), "f#2147483647");
  EXPECT_EQ(quib::add_sharp_number(L""s, -2), L"#18446744073709551614");
}

TEST(Path, RemovesSuffixNumbersWithTheirSeparator) {
  EXPECT_EQ(quib::sub_suffix_number("name_12"s), "name");
  EXPECT_EQ(quib::sub_suffix_number("abc12"s), "ab");
  EXPECT_EQ(quib::sub_suffix_number("a_7"s), "a");
  EXPECT_EQ(quib::sub_suffix_number("12345"s), "12345");  // all digits
  EXPECT_EQ(quib::sub_suffix_number("ab"s), "ab");
  EXPECT_EQ(quib::sub_suffix_number("a7"s), "a7");  // too short
  EXPECT_EQ(quib::sub_suffix_number("abc"s), "abc");
  EXPECT_EQ(quib::sub_suffix_number(""s), "");

  EXPECT_EQ(quib::get_suffix_number("name_12"s), "12");
  EXPECT_EQ(quib::get_suffix_number("12345"s), "");
  EXPECT_EQ(quib::get_suffix_number("a7"s), "");
  EXPECT_EQ(quib::get_suffix_number("x\xd9"
                                    "5"s),
            "5");  // any non-digit separates
}

TEST(Path, TakesSharpNumbersOnlyDirectlyAfterTheSharp) {
  EXPECT_EQ(quib::get_sharp_number("x#"s), "");
  EXPECT_EQ(quib::get_sharp_number("x#12"s), "12");
  EXPECT_EQ(quib::get_sharp_number("x12"s), "");
  EXPECT_EQ(quib::get_sharp_number("#12"s), "12");
  EXPECT_EQ(quib::get_sharp_number("#1"s), "");  // too short
  EXPECT_EQ(quib::get_sharp_number("a#1b"s), "");
  EXPECT_EQ(quib::get_sharp_number("###"s), "");

  EXPECT_EQ(quib::sub_sharp_number("x12"s), "x12");
  EXPECT_EQ(quib::sub_sharp_number("x#12"s), "x");
  EXPECT_EQ(quib::sub_sharp_number("a#b#3"s), "a#b");
  EXPECT_EQ(quib::sub_sharp_number("x##"s), "x##");
  EXPECT_EQ(quib::sub_sharp_number(L"#12"s), L"");
}

TEST(Path, RenumbersSeriesNames) {
  EXPECT_EQ(quib::get_sharp_path("scan#3.png"s, ".png"s, 7), "scan#7.png");
  EXPECT_EQ(quib::get_sharp_path("scan"s, ".png"s, 1), "scan#1.png");
  EXPECT_EQ(quib::get_sharp_path("scan#3"s, ".png"s, 4), "scan#4.png");
  EXPECT_EQ(quib::get_sharp_path("SCAN#3.PNG"s, ".png"s, 4), "SCAN#4.png");
  EXPECT_EQ(quib::get_sharp_path("scan#3.png"s, ".png"s, "left"s), "scan#left.png");
  EXPECT_EQ(quib::get_sharp_path("scan.png"s, ".bmp"s, -1), "scan.png#18446744073709551615.bmp");

  EXPECT_EQ(quib::get_sharp_path_suffix("scan#12.png"s, ".png"s), "12");
  EXPECT_EQ(quib::get_sharp_path_number("scan#12.png"s, ".png"s), 12);
  EXPECT_EQ(quib::get_sharp_path_number("scan#007"s, ".png"s), 7);
  EXPECT_EQ(quib::get_sharp_path_number("scan.png"s, ".png"s), -1);
  EXPECT_EQ(quib::get_sharp_path_number("s#99999999999999999999.png"s, ".png"s), 2147483647);
  EXPECT_EQ(quib::get_sharp_path_number(""s, ""s), -1);
}

TEST(Path, ToleratesOddStrings) {
  std::string const nul = "a\0#12"s;
  EXPECT_EQ(quib::get_sharp_number(nul), "12");
  EXPECT_EQ(quib::sub_sharp_number(nul), "a\0"s);
  EXPECT_EQ(quib::sub_suffix_number("\0\0"
                                    "1"s),
            "\0"s);
  EXPECT_EQ(quib::get_extension(L"a.\0b"s), L".\0b"s);
  EXPECT_TRUE(quib::is_ext_path(L"\0A.BIN"s, L".bin"s));
  EXPECT_EQ(quib::get_sharp_number(L"\U0001F600#42"s), L"42");
  EXPECT_TRUE(quib::is_ext_path(std::wstring(1, static_cast<wchar_t>(-1)) + L".x", L".x"s));

  std::string huge(1 << 20, '7');
  EXPECT_EQ(quib::sub_suffix_number(huge), huge);
  huge[0] = '#';
  EXPECT_EQ(quib::get_sharp_path_number(huge, ".png"s), 2147483647);
  EXPECT_EQ(quib::sub_sharp_number(huge), "");
}

TEST(Path, WideAndNarrowAgreeOnAsciiNames) {
  // Every name of up to five characters over an alphabet that exercises each rule.
  std::string const alphabet = "aZ09#._";
  std::vector<std::string> names{""};
  for (std::size_t begin = 0, length = 0; length < 5; ++length) {
    std::size_t const end = names.size();
    for (std::size_t i = begin; i < end; ++i) {
      for (char c : alphabet)
        names.push_back(names[i] + c);
    }
    begin = end;
  }
  auto widen = [](std::string const& s) { return std::wstring(s.begin(), s.end()); };
  for (std::string const& name : names) {
    SCOPED_TRACE(name);
    std::wstring const wide = widen(name);
    for (std::string ext : {".a", ".z", "a", "#"}) {
      ASSERT_EQ(quib::is_ext_path(wide, widen(ext)), quib::is_ext_path(name, ext));
      ASSERT_EQ(quib::add_extension(wide, widen(ext)), widen(quib::add_extension(name, ext)));
    }
    ASSERT_EQ(quib::sub_extension(wide), widen(quib::sub_extension(name)));
    ASSERT_EQ(quib::get_extension(wide), widen(quib::get_extension(name)));
    ASSERT_EQ(quib::sub_suffix_number(wide), widen(quib::sub_suffix_number(name)));
    ASSERT_EQ(quib::get_suffix_number(wide), widen(quib::get_suffix_number(name)));
    ASSERT_EQ(quib::sub_sharp_number(wide), widen(quib::sub_sharp_number(name)));
    ASSERT_EQ(quib::get_sharp_number(wide), widen(quib::get_sharp_number(name)));
    ASSERT_EQ(quib::add_sharp_number(wide, 42), widen(quib::add_sharp_number(name, 42)));
    // Numbers survive a round trip through a series name.
    ASSERT_EQ(quib::get_sharp_path_number(quib::get_sharp_path(name, ".png", 305), ".png"), 305);
  }
}
