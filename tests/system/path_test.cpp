#include <quib/path.hpp>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace std::string_literals;

namespace {

std::wstring widen(std::string const& s) {
  return std::wstring(s.begin(), s.end());
}

}  // namespace

TEST(Path, MatchesExtensionsOnTheLoweredPathOnly) {
  EXPECT_TRUE(quib::is_ext_path("A.PNG"s, ".png"s));
  EXPECT_TRUE(quib::is_ext_path(L"\0A.PNG"s, L".png"s));
  EXPECT_FALSE(quib::is_ext_path("A.PNG"s, ".PNG"s));      // the extension is not lowered
  EXPECT_FALSE(quib::is_ext_path("a.png.png"s, ".png"s));  // only the first occurrence counts
  EXPECT_FALSE(quib::is_ext_path(".png"s, ".png"s));
  EXPECT_FALSE(quib::is_ext_path("scan.png"s, ""s));
  EXPECT_EQ(quib::add_extension("a"s, "png"s), "a.png");
  EXPECT_EQ(quib::sub_extension("dir.v2/scan"s), "dir");  // a dot in a folder counts
  EXPECT_EQ(quib::get_extension("a.tar.gz"s), ".gz");
}

TEST(Path, PrintsNumbersAsUnsigned64Bit) {
  EXPECT_EQ(quib::add_suffix_number("f"s, -1), "f18446744073709551615");
  EXPECT_EQ(quib::add_sharp_number(L""s, -2), L"#18446744073709551614");
}

TEST(Path, SplitsOffTrailingNumbers) {
  struct Case {
    std::string name, sub_suffix, suffix, sub_sharp, sharp;
  };
  std::vector<Case> const cases = {
      {"name_12", "name", "12", "name_12", ""},
      {"abc12", "ab", "12", "abc12", ""},
      {"12345", "12345", "", "12345", ""},
      {"a7", "a7", "", "a7", ""},
      {"x#", "x#", "", "x#", ""},
      {"x#12", "x", "12", "x", "12"},
      {"#12", "", "12", "", "12"},
      {"a#1b", "a#1b", "", "a#1b", ""},
      {"###", "###", "", "###", ""},
      {"a\0#12"s, "a\0"s, "12", "a\0"s, "12"},
      {"", "", "", "", ""},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(quib::sub_suffix_number(c.name), c.sub_suffix);
    EXPECT_EQ(quib::get_suffix_number(c.name), c.suffix);
    EXPECT_EQ(quib::sub_sharp_number(c.name), c.sub_sharp);
    EXPECT_EQ(quib::get_sharp_number(c.name), c.sharp);
  }
  EXPECT_EQ(quib::get_sharp_number(L"\U0001F600#42"s), L"42");
}

TEST(Path, RenumbersSeriesNames) {
  EXPECT_EQ(quib::get_sharp_path("scan#3.png"s, ".png"s, 7), "scan#7.png");
  EXPECT_EQ(quib::get_sharp_path("scan"s, ".png"s, 1), "scan#1.png");
  EXPECT_EQ(quib::get_sharp_path("SCAN#3.PNG"s, ".png"s, 4), "SCAN#4.png");
  EXPECT_EQ(quib::get_sharp_path("scan#3.png"s, ".png"s, "left"s), "scan#left.png");
  EXPECT_EQ(quib::get_sharp_path_number("scan#007"s, ".png"s), 7);
  EXPECT_EQ(quib::get_sharp_path_number("scan.png"s, ".png"s), -1);
  EXPECT_EQ(quib::get_sharp_path_number("s#99999999999999999999.png"s, ".png"s), 2147483647);

  std::string huge(1 << 20, '7');
  EXPECT_EQ(quib::sub_suffix_number(huge), huge);
  huge[0] = '#';
  EXPECT_EQ(quib::get_sharp_path_number(huge, ".png"s), 2147483647);
}

TEST(Path, WideAndNarrowAgreeOnAsciiNames) {
  // Every name of up to five characters over an alphabet that exercises each rule.
  std::vector<std::string> names{""};
  for (std::size_t begin = 0, length = 0; length < 5; ++length) {
    std::size_t const end = names.size();
    for (std::size_t i = begin; i < end; ++i) {
      for (char c : "aZ09#._"s)
        names.push_back(names[i] + c);
    }
    begin = end;
  }
  for (std::string const& name : names) {
    SCOPED_TRACE(name);
    std::wstring const wide = widen(name);
    ASSERT_EQ(quib::is_ext_path(wide, L".a"s), quib::is_ext_path(name, ".a"s));
    ASSERT_EQ(quib::is_ext_path(wide, L"z"s), quib::is_ext_path(name, "z"s));
    ASSERT_EQ(quib::sub_extension(wide), widen(quib::sub_extension(name)));
    ASSERT_EQ(quib::get_extension(wide), widen(quib::get_extension(name)));
    ASSERT_EQ(quib::sub_suffix_number(wide), widen(quib::sub_suffix_number(name)));
    ASSERT_EQ(quib::get_suffix_number(wide), widen(quib::get_suffix_number(name)));
    ASSERT_EQ(quib::sub_sharp_number(wide), widen(quib::sub_sharp_number(name)));
    ASSERT_EQ(quib::get_sharp_number(wide), widen(quib::get_sharp_number(name)));
    // Numbers survive a round trip through a series name.
    ASSERT_EQ(quib::get_sharp_path_number(quib::get_sharp_path(name, ".png", 305), ".png"), 305);
  }
}
