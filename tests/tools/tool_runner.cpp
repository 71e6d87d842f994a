#include "tool_runner.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>

extern char** environ;

namespace quib::test {

namespace fs = std::filesystem;

namespace {

std::string slurp(fs::path const& p) {
  std::ifstream in(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

namespace {

Run runWith(std::vector<std::string> const& args, std::string const* input) {
  const fs::path scratch =
      fs::temp_directory_path() /
      ("quib-run-" + std::to_string(::getpid()) + "-" + std::to_string(std::random_device{}()));
  fs::create_directories(scratch);
  const std::string outPath = (scratch / "out").string();
  const std::string errPath = (scratch / "err").string();
  const std::string inPath = input ? (scratch / "in").string() : std::string("/dev/null");
  if (input)
    std::ofstream(inPath, std::ios::binary).write(input->data(), std::streamsize(input->size()));

  std::vector<std::string> words{QUIB_TOOL_PATH};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& w : words)
    argv.push_back(w.data());
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, inPath.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  Run r;
  pid_t pid = 0;
  if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0) {
    int status = 0;
    struct rusage usage {};
    while (wait4(pid, &status, 0, &usage) < 0) {
    }
    r.peakKiB = usage.ru_maxrss;
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  posix_spawn_file_actions_destroy(&actions);
  r.out = slurp(outPath);
  r.err = slurp(errPath);
  fs::remove_all(scratch);
  return r;
}

}  // namespace

Run runTool(std::vector<std::string> const& args) {
  return runWith(args, nullptr);
}

Run runTool(std::vector<std::string> const& args, std::string const& input) {
  return runWith(args, &input);
}

::testing::AssertionResult failsWith(Run const& r, int code, std::string const& mention) {
  const auto lines = std::count(r.err.begin(), r.err.end(), '\n');
  if (r.code != code || lines != 1 || r.err.back() != '\n' ||
      r.err.find(mention) == std::string::npos)
    return ::testing::AssertionFailure()
           << "exit " << r.code << " (wanted " << code << "), stderr: [" << r.err
           << "], wanted one line naming '" << mention << "'";
  return ::testing::AssertionSuccess();
}

void ToolFiles::SetUp() {
  dir =
      fs::temp_directory_path() / ("quib-tool-" + std::to_string(std::random_device{}()) + "-" +
                                   ::testing::UnitTest::GetInstance()->current_test_info()->name());
  fs::create_directories(dir);
}

void ToolFiles::TearDown() {
  std::error_code ec;
  fs::remove_all(dir, ec);
}

std::string ToolFiles::writeFile(std::string const& name, std::string const& bytes) const {
  const std::string path = file(name);
  std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));
  return path;
}

}  // namespace quib::test
