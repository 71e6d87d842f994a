// The quib commands. Each one lives in its own cmd_<name>.cpp and adds itself to the command
// tree with one function, called once from addCommands (commands.cpp).
#pragma once

#include "cli.hpp"

namespace quib::tool {

/// Adds every command to the quib app, in the order `quib --help` lists them.
void addCommands(CLI::App& quib, Context& ctx);

void add_bmp_command(CLI::App& quib, Context& ctx);
void add_hash_command(CLI::App& quib, Context& ctx);
void add_name_command(CLI::App& quib, Context& ctx);
void add_fit_command(CLI::App& quib, Context& ctx);
void add_stl_command(CLI::App& quib, Context& ctx);
void add_dicom_command(CLI::App& quib, Context& ctx);
void add_dicom_pixels_command(CLI::App& quib, Context& ctx);
void add_calibrate_command(CLI::App& quib, Context& ctx);
void add_undistort_command(CLI::App& quib, Context& ctx);
void add_contours_command(CLI::App& quib, Context& ctx);
void add_register_command(CLI::App& quib, Context& ctx);
void add_demo_command(CLI::App& quib, Context& ctx);

/// The "dicom" group, to which cmd_dicom*.cpp files add their actions.
CLI::App& dicomGroup(CLI::App& quib);

}  // namespace quib::tool
