// Runs the built quib executable and collects what it printed, for the tool tests.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace quib::test {

struct Run {
  int code = -1;     // exit status, or 128 + signal number when the tool was killed
  std::string out;   // standard output
  std::string err;   // standard error
  long peakKiB = 0;  // the most memory the tool held at once (resident, KiB)
};

/// Runs `quib args...` with standard input from /dev/null.
Run runTool(std::vector<std::string> const& args);
/// Runs `quib args...` with `input` as its standard input.
Run runTool(std::vector<std::string> const& args, std::string const& input);

/// Checks the error contract of a failed run: the wanted exit code and exactly one line on
/// standard error that contains `mention`.
::testing::AssertionResult failsWith(Run const& r, int code, std::string const& mention);

/// A fresh directory under the system's temporary directory, removed with the fixture.
class ToolFiles : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  std::string file(std::string const& name) const { return (dir / name).string(); }
  std::string writeFile(std::string const& name, std::string const& bytes) const;

  std::filesystem::path dir;
};

}  // namespace quib::test
