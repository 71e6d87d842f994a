// quib bmp info FILES...: the geometry and layout of uncompressed bitmap files.
#include <quib/dib.hpp>

#include "commands.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <ostream>

namespace quib::tool {

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

Json info(Context& ctx, std::string const& name) {
  ctx.subject = name;
  const InputFile input(name);
  quib::Dib dib(input.path());
  if (!dib) throw Failure(name, refusal(input.path()));

  const int bitsPerPixel = dib.getBits() * dib.getColorCount();
  Json j = {{"file", name},
            {"width", dib.getWidth()},
            {"height", dib.getHeight()},
            {"bits_per_pixel", bitsPerPixel},
            {"bits_per_sample", dib.getBits()},
            {"samples_per_pixel", dib.getColorCount()},
            {"line_bytes", dib.getLineBytes()},
            {"planes", dib.getPlaneCount()},
            {"x_dpi", dib.getXDpi()},
            {"y_dpi", dib.getYDpi()},
            {"top_down", dib.isTopDown()},
            {"data_offset", dib.getDataOffset()},
            {"image_bytes", dib.getImageSize()},
            {"palette_entries", dib.getPalette().size()}};
  if (ctx.json) return j;
  std::ostream& o = ctx.out;
  o << name << '\n'
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
  return j;
}

}  // namespace

void add_bmp_command(CLI::App& quib, Context& ctx) {
  CLI::App& bmp = commandGroup(quib, "bmp", "describe uncompressed bitmap files");
  auto files = std::make_shared<std::vector<std::string>>();
  CLI::App& cmd = addCommand(bmp, "info", paragraphs(R"(
      size, depth and layout of uncompressed bitmap files

      Describes each bitmap file: size, depth, samples per pixel, row length, resolution, row
      order, where the pixel rows start and the colour table size. A 24- or 32-bit file is
      described as 8-bit samples, 3 or 4 per pixel. With --json, an array with one object per
      file.
)"));
  cmd.add_option("FILES", *files, "bitmap files; '-' reads standard input")->required();
  addJsonFlag(cmd, ctx);
  onRun(cmd, ctx, [files, &ctx] {
    Json all = Json::array();
    for (std::string const& name : *files) {
      try {
        all.push_back(info(ctx, name));
      } catch (Failure const& f) {
        ctx.fail(f.file(), f.what());
      }
    }
    if (ctx.json) writeJson(ctx.out, all);
  });
}

}  // namespace quib::tool
