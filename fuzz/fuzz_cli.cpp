// Arbitrary bytes as a command line for the quib tool's whole command tree, parsed and checked
// but not run: every command line must end in help (exit 0) or one usage line (exit 2), never
// a crash; and arbitrary bytes as a JSON string must come out as JSON that reads back.
#include "cli.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<char const*>(data), size);

  std::ostringstream json;
  quib::tool::writeJson(json, quib::tool::Json{{"file", text}});
  if (!quib::tool::Json::accept(json.str())) std::abort();

  // NUL separates the words of the command line.
  std::vector<std::string> words;
  std::string word;
  for (char c : text) {
    if (c == '\0') {
      words.push_back(word);
      word.clear();
    } else {
      word += c;
    }
  }
  words.push_back(word);

  std::ostringstream out, err;
  quib::tool::Context ctx(out, err);
  ctx.parseOnly = true;
  const auto app = quib::tool::makeApp(ctx, "0");
  const int code = quib::tool::run(*app, ctx, words);
  if (code != quib::tool::exit_code::ok && code != quib::tool::exit_code::bad_usage) std::abort();
  if (code == quib::tool::exit_code::bad_usage) {
    // One line, or the whole usage when no command was named.
    const std::string e = err.str();
    const auto lines = std::count(e.begin(), e.end(), '\n');
    if (e.empty() || e.back() != '\n' || (lines != 1 && e.rfind("usage: ", 0) != 0)) std::abort();
  }
  return 0;
}
