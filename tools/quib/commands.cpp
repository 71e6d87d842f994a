#include "commands.hpp"

namespace quib::tool {

void addCommands(CLI::App& quib, Context& ctx) {
  add_bmp_command(quib, ctx);
  add_hash_command(quib, ctx);
  add_name_command(quib, ctx);
  add_fit_command(quib, ctx);
  add_stl_command(quib, ctx);
  add_dicom_command(quib, ctx);
  add_dicom_pixels_command(quib, ctx);
  add_calibrate_command(quib, ctx);
  add_undistort_command(quib, ctx);
  add_contours_command(quib, ctx);
  add_register_command(quib, ctx);
  add_demo_command(quib, ctx);
}

}  // namespace quib::tool
