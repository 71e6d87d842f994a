// quib undistort --camera FILE IMAGES... --out DIR: pictures with the lens distortion removed.
#include <quib/projection.hpp>

#include "commands.hpp"
#include "image_io.hpp"

#include <filesystem>
#include <ostream>

namespace quib::tool {

char const* const undistortHelp =
    "usage: quib undistort --camera FILE --out DIR [--json] IMAGES...\n"
    "\n"
    "Removes the lens distortion described by a camera file (written by quib calibrate)\n"
    "from each picture and writes the result under the same file name into DIR, in the\n"
    "same format. Any picture that OpenCV reads is accepted; uncompressed bitmaps are read\n"
    "and written through the library's bitmap streamer. A picture whose size differs from\n"
    "the camera's is handled with the camera scaled to it.\n"
    "\n"
    "Options:\n"
    "  --camera FILE   the camera file (.yml or .xml)\n"
    "  --out DIR       where to write the corrected pictures (created when missing)\n"
    "  --json          print a JSON array of {file, output}\n";

int runUndistort(Context& ctx, std::vector<std::string> const& argv) {
  const Args args(argv, {{"--camera", true}, {"--out", true}});
  if (!args.has("--camera")) throw UsageError("--camera FILE is required");
  if (!args.has("--out")) throw UsageError("--out DIR is required");
  if (args.positional().empty()) throw UsageError("no IMAGES given");
  const std::string cameraFile = args.value("--camera");
  const std::string dir = args.value("--out");

  ctx.subject = cameraFile;
  if (std::string reason = unreadableReason(cameraFile); !reason.empty())
    throw Failure(cameraFile, reason);
  quib::Projection camera;
  if (!camera.load_setup(cameraFile) || camera.empty())
    throw Failure(cameraFile, "not a camera file");
  makeDirectory(dir);

  Json all = Json::array();
  Progress progress(ctx, args.positional().size());
  for (std::string const& path : args.positional()) {
    progress.step(path);
    ctx.subject = path;
    const std::string target = outputPath(dir, path, "");
    try {
      std::error_code ec;
      if (std::filesystem::equivalent(path, target, ec))
        throw Failure(path, "would be overwritten by its own result; choose another --out");
      const cv::Mat picture = readImage(path, read_as::colour);
      quib::Projection scaled = camera;
      scaled.resize({picture.cols, picture.rows});
      cv::Mat corrected;
      scaled.undistort(picture, corrected);
      ctx.subject = target;
      writeImage(target, corrected);
    } catch (Failure const& f) {
      progress.done();
      ctx.fail(f.file(), f.what());
      continue;
    }
    if (ctx.json) {
      Json j = Json::object();
      j.set("file", path).set("output", target);
      all.push(j);
    } else {
      progress.done();
      ctx.out << path << " -> " << target << '\n';
    }
  }
  progress.done();
  if (ctx.json) all.write(ctx.out);
  return ctx.status;
}

}  // namespace quib::tool
