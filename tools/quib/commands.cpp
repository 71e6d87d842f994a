#include "commands.hpp"

namespace quib::tool {

std::vector<Command> const& commands() {
  static const std::vector<Command> table = {
      {"bmp", "describe uncompressed bitmap files", bmpHelp, runBmp},
      {"hash", "fingerprint files (64-bit hash or SHA-256)", hashHelp, runHash},
      {"name", "next, number and plain names of a numbered file series", nameHelp, runName},
      {"fit", "fit lines, circles, planes, spheres and polynomials to points", fitHelp, runFit},
      {"stl", "describe, convert and merge STL meshes", stlHelp, runStl},
      {"dicom", "list the elements of a DICOM file", dicomHelp, runDicom},
      {"calibrate", "calibrate a camera from chessboard pictures", calibrateHelp, runCalibrate},
      {"undistort", "remove lens distortion from pictures", undistortHelp, runUndistort},
      {"contours", "trace the regions of a mask", contoursHelp, runContours},
      {"register", "map one picture onto another by features", registerHelp, runRegister},
      {"demo", "calibrate and measure on synthetic views, end to end", demoHelp, runDemo},
  };
  return table;
}

}  // namespace quib::tool
