// quib: the command-line front end of the library.
#include "cli.hpp"

#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  using namespace quib::tool;
  Context ctx{std::cout, std::cerr};
  ctx.terminal = isatty(STDERR_FILENO) == 1;
  int code = exit_code::failed;
  try {
    const auto app = makeApp(ctx, QUIB_VERSION);
    code = run(*app, ctx, std::vector<std::string>(argv + 1, argv + argc));
  } catch (...) {
    // Only declaring the commands or printing an error can get here.
    return exit_code::failed;
  }
  std::cout.flush();
  if (!std::cout) {
    std::cerr << "quib: standard output: write error" << std::endl;
    return exit_code::failed;
  }
  return code;
}
