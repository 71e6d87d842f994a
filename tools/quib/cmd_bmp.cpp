// quib bmp info FILE: the geometry and layout of an uncompressed bitmap file.
#include <quib/dib.hpp>

#include "commands.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <ostream>

namespace quib::tool {

char const* const bmpHelp =
    "usage: quib bmp info [--json] FILE\n"
    "\n"
    "Describes an uncompressed bitmap file: size, depth, samples per pixel, row length,\n"
    "resolution, row order, where the pixel rows start and the colour table size.\n"
    "A 24- or 32-bit file is described as 8-bit samples, 3 or 4 per pixel.\n"
    "\n"
    "Options:\n"
    "  --json   print one JSON object\n";

namespace {

// Why quib::Dib refused a file that exists: the first bytes tell a foreign file from a bitmap
// whose headers do not hold together.
std::string refusal(std::string const& path) {
  if (std::string reason = unreadableReason(path); !reason.empty()) return reason;
  // The reader opens files for reading and updating.
  if (::access(path.c_str(), W_OK) != 0)
    return "cannot be opened for reading and updating: " + std::string(std::strerror(errno));
  std::ifstream in(path, std::ios::binary);
  char magic[2] = {0, 0};
  in.read(magic, 2);
  if (in.gcount() < 2 || magic[0] != 'B' || magic[1] != 'M') return "not a bitmap file";
  return "not an uncompressed bitmap, or its headers do not fit the file";
}

int info(Context& ctx, std::string const& path) {
  ctx.subject = path;
  quib::Dib dib(path);
  if (!dib) throw Failure(path, refusal(path));

  const int bitsPerPixel = dib.getBits() * dib.getColorCount();
  Json j = Json::object();
  j.set("file", path)
      .set("width", dib.getWidth())
      .set("height", dib.getHeight())
      .set("bits_per_pixel", bitsPerPixel)
      .set("bits_per_sample", dib.getBits())
      .set("samples_per_pixel", dib.getColorCount())
      .set("line_bytes", dib.getLineBytes())
      .set("planes", dib.getPlaneCount())
      .set("x_dpi", dib.getXDpi())
      .set("y_dpi", dib.getYDpi())
      .set("top_down", dib.isTopDown())
      .set("data_offset", dib.getDataOffset())
      .set("image_bytes", dib.getImageSize())
      .set("palette_entries", dib.getPalette().size());
  if (ctx.json) {
    j.write(ctx.out);
    return exit_code::ok;
  }
  std::ostream& o = ctx.out;
  o << path << '\n'
    << "  size          " << dib.getWidth() << " x " << dib.getHeight() << " pixels\n"
    << "  depth         " << bitsPerPixel << " bits per pixel (" << dib.getColorCount()
    << (dib.getColorCount() == 1 ? " sample" : " samples") << " of " << dib.getBits() << " bits)\n"
    << "  row length    " << dib.getLineBytes() << " bytes\n"
    << "  row order     " << (dib.isTopDown() ? "top-down" : "bottom-up") << '\n'
    << "  resolution    " << dib.getXDpi() << " x " << dib.getYDpi() << " dpi\n"
    << "  planes        " << dib.getPlaneCount() << '\n'
    << "  pixel data    " << dib.getImageSize() << " bytes at offset " << dib.getDataOffset()
    << '\n'
    << "  colour table  " << dib.getPalette().size() << " entries\n";
  return exit_code::ok;
}

}  // namespace

int runBmp(Context& ctx, std::vector<std::string> const& argv) {
  const Args args(argv, {});
  auto const& pos = args.positional();
  if (pos.empty()) throw UsageError("missing action (info)");
  if (pos[0] != "info") throw UsageError("unknown action '" + pos[0] + "'");
  if (pos.size() != 2) throw UsageError("'info' takes exactly one FILE");
  return info(ctx, pos[1]);
}

}  // namespace quib::tool
