// quib: the command-line front end of the library.
#include "cli.hpp"
#include "commands.hpp"

#include <unistd.h>

#include <opencv2/core.hpp>

#include <algorithm>
#include <cstring>
#include <exception>
#include <iostream>
#include <new>
#include <string>
#include <vector>

namespace quib::tool {
namespace {

void printUsage(std::ostream& out) {
  out << "usage: quib <command> [options] [arguments]\n"
         "       quib <command> --help\n"
         "\n"
         "Commands:\n";
  for (Command const& c : commands()) {
    std::string name = c.name;
    name.resize(std::max<std::size_t>(name.size() + 2, 12), ' ');
    out << "  " << name << c.summary << '\n';
  }
  out << "\n"
         "Every command takes --json for output that scripts can read.\n"
         "Exit status: 0 on success, 1 when an operation failed, 2 on bad usage.\n";
}

int usageError(Context& ctx, std::string const& where, std::string const& message) {
  ctx.out.flush();
  ctx.err << where << ": " << message << " (see '" << where << " --help')" << std::endl;
  return exit_code::bad_usage;
}

int dispatch(Context& ctx, std::vector<std::string> args) {
  if (args.empty()) {
    printUsage(ctx.err);
    return exit_code::bad_usage;
  }
  const std::string name = args.front();
  args.erase(args.begin());
  if (name == "--help" || name == "-h" || (name == "help" && args.empty())) {
    printUsage(ctx.out);
    return exit_code::ok;
  }
  if (name == "--version") {
    ctx.out << "quib " << QUIB_VERSION << '\n';
    return exit_code::ok;
  }
  std::string target = name;
  bool helpOnly = false;
  if (name == "help") {
    target = args.front();
    helpOnly = true;
  }
  Command const* command = nullptr;
  for (Command const& c : commands())
    if (target == c.name) command = &c;
  if (!command) return usageError(ctx, "quib", "unknown command '" + target + "'");

  // --help and --json mean the same to every command; they are taken out here (before any "--").
  std::vector<std::string> rest;
  bool optionsEnded = false;
  for (std::string const& a : args) {
    if (!optionsEnded && (a == "--help" || a == "-h")) {
      helpOnly = true;
    } else if (!optionsEnded && a == "--json") {
      ctx.json = true;
    } else {
      if (a == "--") optionsEnded = true;
      rest.push_back(a);
    }
  }
  if (helpOnly) {
    ctx.out << command->help;
    return exit_code::ok;
  }

  const std::string where = std::string("quib ") + command->name;
  try {
    const int code = command->run(ctx, rest);
    return code > ctx.status ? code : ctx.status;
  } catch (UsageError const& e) {
    return usageError(ctx, where, e.what());
  } catch (Failure const& e) {
    ctx.fail(e.file(), e.what());
  } catch (cv::Exception const& e) {
    ctx.fail(ctx.subject.empty() ? where : ctx.subject, "OpenCV: " + e.err);
  } catch (std::bad_alloc const&) {
    ctx.fail(ctx.subject.empty() ? where : ctx.subject, "out of memory");
  } catch (std::exception const& e) {
    ctx.fail(ctx.subject.empty() ? where : ctx.subject, e.what());
  } catch (...) {
    ctx.fail(ctx.subject.empty() ? where : ctx.subject, "unexpected error");
  }
  return exit_code::failed;
}

}  // namespace
}  // namespace quib::tool

int main(int argc, char** argv) {
  using namespace quib::tool;
  Context ctx{std::cout, std::cerr};
  ctx.terminal = isatty(STDERR_FILENO) == 1;
  int code = exit_code::failed;
  try {
    code = dispatch(ctx, std::vector<std::string>(argv + 1, argv + argc));
  } catch (...) {
    // Only printing the error itself can get here.
    return exit_code::failed;
  }
  std::cout.flush();
  if (!std::cout) {
    std::cerr << "quib: standard output: write error" << std::endl;
    return exit_code::failed;
  }
  return code;
}
