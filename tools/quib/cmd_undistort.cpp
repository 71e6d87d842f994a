// quib undistort --camera FILE IMAGES... --out DIR: pictures with the lens distortion removed.
#include <quib/projection.hpp>

#include "camera_util.hpp"
#include "commands.hpp"
#include "image_io.hpp"

#include <filesystem>
#include <memory>
#include <ostream>

namespace quib::tool {

namespace {

struct UndistortOptions {
  std::vector<std::string> images;
  std::string camera;
  std::string out;
};

void undistort(Context& ctx, UndistortOptions const& o) {
  for (std::string const& path : o.images)
    if (path == "-") throw UsageError("a picture from standard input has no name to write under");
  std::string const& cameraFile = o.camera;
  std::string const& dir = o.out;

  ctx.subject = cameraFile;
  const quib::Projection camera = loadCamera(cameraFile);
  makeDirectory(dir);

  Json all = Json::array();
  Progress progress(ctx, o.images.size());
  for (std::string const& path : o.images) {
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
      all.push_back({{"file", path}, {"output", target}});
    } else {
      progress.done();
      ctx.out << path << " -> " << target << '\n';
    }
  }
  progress.done();
  if (ctx.json) writeJson(ctx.out, all);
}

}  // namespace

void add_undistort_command(CLI::App& quib, Context& ctx) {
  auto o = std::make_shared<UndistortOptions>();
  CLI::App& cmd = addCommand(quib, "undistort", paragraphs(R"(
      remove lens distortion from pictures

      Removes the lens distortion described by a camera file (written by quib calibrate) from
      each picture and writes the result under the same file name into the --out directory, in
      the same format. Any picture that OpenCV reads is accepted; uncompressed bitmaps are
      read and written through the library's bitmap streamer. A picture whose size differs
      from the camera's is handled with the camera scaled to it.
)"));
  cmd.add_option("IMAGES", o->images, "the pictures to correct")->required();
  cmd.add_option("--camera", o->camera, "the camera file (.yml or .xml); '-' reads standard input")
      ->type_name("FILE")
      ->required();
  cmd.add_option("--out", o->out, "where to write the corrected pictures (created when missing)")
      ->type_name("DIR")
      ->required();
  addJsonFlag(cmd, ctx);
  onRun(cmd, ctx, [o, &ctx] { undistort(ctx, *o); });
}

}  // namespace quib::tool
