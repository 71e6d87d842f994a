// Conventions every quib command shares: usage errors, suggestions, help and standard input.
#include "tool_runner.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>
#include <string>
#include <vector>

namespace {

using quib::test::failsWith;
using quib::test::runTool;

class Conventions : public quib::test::ToolFiles {};

TEST_F(Conventions, RefusesUnknownOptionsLongAndShort) {
  const std::string abc = writeFile("abc", "abc");
  // A short option nobody declared is an error, not a file name...
  EXPECT_TRUE(failsWith(runTool({"hash", "-x", abc}), 2, "quib hash: unknown option '-x'"));
  EXPECT_TRUE(failsWith(runTool({"stl", "info", "-x", abc}), 2, "quib stl info: unknown option"));
  EXPECT_TRUE(failsWith(runTool({"fit", "line", abc, "--robustt", "2"}), 2, "'--robustt'"));
  // ...while "--" makes the words after it names.
  EXPECT_TRUE(failsWith(runTool({"hash", "--", "-x"}), 1, "quib: -x: no such file or directory"));
}

TEST(Suggestions, NameTheCommandThatWasMeant) {
  EXPECT_TRUE(failsWith(runTool({"hsah", "x"}), 2, "unknown command 'hsah'; did you mean 'hash'?"));
  EXPECT_TRUE(failsWith(runTool({"calib"}), 2, "did you mean 'calibrate'?"));
  EXPECT_TRUE(failsWith(runTool({"stl", "infp", "x"}), 2,
                        "quib stl: unknown action 'infp'; did you mean 'info'?"));
  EXPECT_TRUE(failsWith(runTool({"frobnicate"}), 2, "unknown command 'frobnicate' (see"));
  EXPECT_TRUE(failsWith(runTool({"name"}), 2, "missing action (next, number or strip)"));
}

TEST_F(Conventions, ReadsStandardInputForDash) {
  const auto sha = runTool({"hash", "--sha256", "-"}, "abc");
  ASSERT_EQ(sha.code, 0) << sha.err;
  EXPECT_EQ(sha.out, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad  -\n");

  const auto line = runTool({"fit", "line", "--json", "-"}, "0,1\n1,3\n2,5\n");
  ASSERT_EQ(line.code, 0) << line.err;
  const auto fit = nlohmann::json::parse(line.out);
  EXPECT_EQ(fit["file"], "-");
  EXPECT_DOUBLE_EQ(fit["coefficients"]["a"].get<double>(), 2);

  // Readers that want a file to seek in get a copy of standard input.
  std::string stl =
      "solid s\n facet normal 0 0 1\n  outer loop\n   vertex 0 0 0\n"
      "   vertex 1 0 0\n   vertex 0 1 0\n  endloop\n endfacet\nendsolid s\n";
  const auto mesh = runTool({"stl", "info", "--json", "-"}, stl);
  ASSERT_EQ(mesh.code, 0) << mesh.err;
  EXPECT_EQ(nlohmann::json::parse(mesh.out)[0]["triangles"], 1);
  EXPECT_TRUE(failsWith(runTool({"bmp", "info", "-"}, "not a bitmap"), 1, "-: not a bitmap file"));
}

TEST(Help, EveryCommandHasItsOwnHelp) {
  // The reference lists every command; each one's --help starts with its usage.
  const auto reference = runTool({"help", "--markdown"});
  ASSERT_EQ(reference.code, 0) << reference.err;
  std::istringstream lines(reference.out);
  std::string line;
  int commands = 0;
  while (std::getline(lines, line)) {
    if (line.rfind("### `quib ", 0) != 0) continue;
    const std::string name = line.substr(5, line.size() - 6);
    std::vector<std::string> words;
    std::istringstream split(name.substr(5));
    for (std::string w; split >> w;)
      words.push_back(w);
    words.push_back("--help");
    const auto r = runTool(words);
    EXPECT_EQ(r.code, 0) << name;
    EXPECT_EQ(r.out.rfind("usage: " + name, 0), 0u) << r.out;
    ++commands;
  }
  EXPECT_GE(commands, 11);
  EXPECT_EQ(runTool({"help", "stl", "merge"}).out, runTool({"stl", "merge", "-h"}).out);
}

}  // namespace
