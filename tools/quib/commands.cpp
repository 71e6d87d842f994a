#include "commands.hpp"

namespace quib::tool {

std::vector<Command> const& commands() {
  static const std::vector<Command> table = {
      {"bmp", "describe uncompressed bitmap files", bmpHelp, runBmp},
      {"hash", "fingerprint files (64-bit hash or SHA-256)", hashHelp, runHash},
      {"name", "next, number and plain names of a numbered file series", nameHelp, runName},
      {"dicom", "list the elements of a DICOM file", dicomHelp, runDicom},
  };
  return table;
}

}  // namespace quib::tool
