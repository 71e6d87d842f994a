// The tool's frame on its own: JSON output and option parsing.
#include "cli.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <sstream>
#include <string>

namespace {

using quib::tool::Args;
using quib::tool::Json;
using quib::tool::UsageError;

std::string quoted(std::string const& s) {
  std::ostringstream o;
  quib::tool::writeJsonString(o, s);
  return o.str();
}

TEST(Json, EscapesQuotesBackslashesAndControlCharacters) {
  EXPECT_EQ(quoted("a\"b\\c"), R"("a\"b\\c")");
  EXPECT_EQ(quoted("tab\there\nnew\rret\b\f"), R"("tab\there\nnew\rret\b\f")");
  EXPECT_EQ(quoted(std::string("nul\0x\x1f\x7f", 7)), R"("nul\u0000x\u001f\u007f")");
}

TEST(Json, KeepsValidUtf8AndReplacesBrokenBytes) {
  EXPECT_EQ(quoted("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x99\x82"),
            "\"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x99\x82\"");
  // A lone continuation byte, a truncated sequence at the end, an overlong slash, a surrogate
  // and a code point past U+10FFFF.
  EXPECT_EQ(quoted("a\x80z"), R"("a\ufffdz")");
  EXPECT_EQ(quoted("end\xe2\x82"), R"("end\ufffd\ufffd")");
  EXPECT_EQ(quoted("\xc0\xaf"), R"("\ufffd\ufffd")");
  EXPECT_EQ(quoted("\xed\xa0\x80"), R"("\ufffd\ufffd\ufffd")");
  EXPECT_EQ(quoted("\xf4\x90\x80\x80"), R"("\ufffd\ufffd\ufffd\ufffd")");
}

TEST(Json, WritesNumbersExactlyAndNonFiniteAsNull) {
  Json a = Json::array();
  a.push(std::numeric_limits<std::int64_t>::min())
      .push(std::numeric_limits<std::uint64_t>::max())
      .push(0.1)
      .push(-2.5e-300)
      .push(std::nan(""))
      .push(-std::numeric_limits<double>::infinity())
      .push(true)
      .push(Json());
  EXPECT_EQ(a.dump(),
            "[-9223372036854775808, 18446744073709551615, 0.1, -2.5e-300, null, null, true, "
            "null]\n");
  for (double v : {1.0 / 3.0, 123456.789e10, 5e-324}) {
    double back = 0;
    ASSERT_TRUE(quib::tool::parseNumber(quib::tool::formatNumber(v), back));
    EXPECT_EQ(back, v);
  }
}

TEST(Json, NestsObjectsInKeyOrderAndReplacesRepeatedKeys) {
  Json inner = Json::object();
  inner.set("z", 1).set("a", "x");
  Json o = Json::object();
  o.set("list", Json::numbers({1, 2})).set("inner", inner).set("empty", Json::array());
  o.set("list", "replaced");
  EXPECT_EQ(o.dump(),
            "{\n"
            "  \"list\": \"replaced\",\n"
            "  \"inner\": {\n"
            "    \"z\": 1,\n"
            "    \"a\": \"x\"\n"
            "  },\n"
            "  \"empty\": []\n"
            "}\n");
  EXPECT_THROW(inner.push(1), std::logic_error);
}

TEST(Args, TakesValuesInBothFormsAndKeepsPositionalOrder) {
  const Args a({"in.csv", "--board=9x6", "-3", "--square", "24", "-", "--draw", "--", "--x"},
               {{"--board", true}, {"--square", true}, {"--draw", false}});
  EXPECT_EQ(a.value("--board"), "9x6");
  EXPECT_EQ(a.number("--square", 0, 0, 1e6), 24);
  EXPECT_TRUE(a.has("--draw"));
  EXPECT_FALSE(a.help());
  EXPECT_EQ(a.positional(), (std::vector<std::string>{"in.csv", "-3", "-", "--x"}));
  EXPECT_EQ(a.value("--missing", "fallback"), "fallback");
  EXPECT_EQ(a.integer("--missing", 7, 0, 10), 7);
}

TEST(Args, RefusesMalformedOptions) {
  const std::vector<quib::tool::OptionDef> defs = {
      {"--limit", true}, {"--all", false}, {"--tag", true, true}};
  EXPECT_THROW(Args({"--nope"}, defs), UsageError);
  EXPECT_THROW(Args({"--limit"}, defs), UsageError);
  EXPECT_THROW(Args({"--all=yes"}, defs), UsageError);
  EXPECT_THROW(Args({"--limit", "1", "--limit", "2"}, defs), UsageError);
  EXPECT_EQ(Args({"--tag=a", "--tag", "b"}, defs).values("--tag"),
            (std::vector<std::string>{"a", "b"}));
  EXPECT_TRUE(Args({"-h"}, defs).help());
  for (char const* bad : {"", "12px", "nan", "inf", "1e999", "0x10", " 3", "-1"}) {
    SCOPED_TRACE(bad);
    EXPECT_THROW(Args({"--limit", bad}, defs).number("--limit", 0, 0, 100), UsageError);
  }
  EXPECT_THROW(Args({"--limit=2.5"}, defs).integer("--limit", 0, 0, 10), UsageError);
  EXPECT_THROW(Args({"--limit=99999999999999999999"}, defs).integer("--limit", 0, 0, 10),
               UsageError);
  EXPECT_EQ(Args({"--limit=+8"}, defs).integer("--limit", 0, 0, 10), 8);
}

}  // namespace
