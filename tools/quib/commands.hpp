// The table of quib subcommands. Each one lives in its own cmd_<name>.cpp.
#pragma once

#include "cli.hpp"

#include <string>
#include <vector>

namespace quib::tool {

/// One subcommand: its name, a one-line summary for `quib --help`, its full help text and the
/// function that runs it on the arguments after its name. The function returns the exit code,
/// throws UsageError for bad arguments and Failure for a failed operation on a file.
struct Command {
  char const* name;
  char const* summary;
  char const* help;
  int (*run)(Context& ctx, std::vector<std::string> const& argv);
};

/// All subcommands, in the order `quib --help` lists them.
std::vector<Command> const& commands();

// One entry point and one help text per subcommand.
int runBmp(Context& ctx, std::vector<std::string> const& argv);
int runHash(Context& ctx, std::vector<std::string> const& argv);
int runName(Context& ctx, std::vector<std::string> const& argv);
int runFit(Context& ctx, std::vector<std::string> const& argv);
int runStl(Context& ctx, std::vector<std::string> const& argv);
int runDicom(Context& ctx, std::vector<std::string> const& argv);
int runCalibrate(Context& ctx, std::vector<std::string> const& argv);
int runUndistort(Context& ctx, std::vector<std::string> const& argv);
int runContours(Context& ctx, std::vector<std::string> const& argv);
int runRegister(Context& ctx, std::vector<std::string> const& argv);
int runDemo(Context& ctx, std::vector<std::string> const& argv);
extern char const* const bmpHelp;
extern char const* const hashHelp;
extern char const* const nameHelp;
extern char const* const fitHelp;
extern char const* const stlHelp;
extern char const* const dicomHelp;
extern char const* const calibrateHelp;
extern char const* const undistortHelp;
extern char const* const contoursHelp;
extern char const* const registerHelp;
extern char const* const demoHelp;

}  // namespace quib::tool
