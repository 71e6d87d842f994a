#include "commands.hpp"

namespace quib::tool {

std::vector<Command> const& commands() {
  static const std::vector<Command> table = {
      {"bmp", "describe uncompressed bitmap files", bmpHelp, runBmp},
  };
  return table;
}

}  // namespace quib::tool
