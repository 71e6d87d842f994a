// Arbitrary bytes as a command line and as text for the quib tool's frame: option parsing must
// only ever accept or refuse with UsageError, and every string must come out as valid JSON
// (printable ASCII or whole UTF-8 sequences inside the quotes, nothing raw below 0x20).
#include "cli.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace {

// True when `s` is one JSON string literal of the shape writeJsonString produces.
bool wellFormed(std::string const& s) {
  if (s.size() < 2 || s.front() != '"' || s.back() != '"') return false;
  std::wstring wide;
  if (!quib::tool::toWide(s, wide)) return false;
  for (std::size_t i = 1; i + 1 < s.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    if (c < 0x20) return false;
    if (c == '"') return false;
    if (c == '\\') {
      const char e = s[++i];
      if (e == 'u') {
        if (i + 4 >= s.size()) return false;
        i += 4;
      } else if (std::string("\"\\bfnrt").find(e) == std::string::npos) {
        return false;
      }
    }
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<char const*>(data), size);

  std::ostringstream out;
  quib::tool::writeJsonString(out, text);
  if (!wellFormed(out.str())) std::abort();

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
  try {
    const quib::tool::Args args(words, {{"--limit", true}, {"--all"}, {"--tag", true, true}});
    (void)args.number("--limit", 0, -1e9, 1e9);
    (void)args.integer("--limit", 0, -1000, 1000);
    quib::tool::Json j = quib::tool::Json::object();
    j.set("tags", quib::tool::Json::strings(args.values("--tag")))
        .set("rest", quib::tool::Json::strings(args.positional()));
    (void)j.dump();
  } catch (quib::tool::UsageError const&) {
  }
  return 0;
}
