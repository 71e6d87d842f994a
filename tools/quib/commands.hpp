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

int runBmp(Context& ctx, std::vector<std::string> const& argv);
extern char const* const bmpHelp;

}  // namespace quib::tool
