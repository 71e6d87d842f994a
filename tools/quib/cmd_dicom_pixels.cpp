// quib dicom pixels FILE [--frame K] [--out OUT.raw|OUT.png] [--raw-values]: one frame of a
// DICOM file; quib dicom volume DIR|FILES... --out VOL.raw [--png DIR]: a series as a volume.
#include <quib/dicom_image.hpp>

#include "cli.hpp"
#include "commands.hpp"
#include "image_io.hpp"
#include "system/bytes.hpp"

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace quib::tool {

namespace {

struct PixelsOptions {
  std::string file;
  int frame = 0;
  std::string out;
  bool raw_values = false;
};

bool endsWith(std::string const& s, std::string const& tail) {
  return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

// Copies `size` bytes of host-order samples of sizeof(T) bytes each to little-endian order.
template <class T>
void to_little(unsigned char const* in, std::size_t size, unsigned char* out) {
  for (std::size_t i = 0; i + sizeof(T) <= size; i += sizeof(T)) {
    T v;
    std::memcpy(&v, in + i, sizeof v);
    detail::store_le(out + i, v);
  }
}

// Writes samples of `sample_bytes` each (host order in memory) little-endian, whatever the host.
void write_samples(std::string const& path, unsigned char const* data, std::uint64_t size,
                   int sample_bytes) {
  std::ofstream out(path, std::ios::binary);
  if (detail::kHostLittle || sample_bytes == 1) {
    out.write(reinterpret_cast<char const*>(data), std::streamsize(size));
  } else {
    std::vector<unsigned char> chunk(std::size_t(1) << 16);
    for (std::uint64_t at = 0; at < size && out;) {
      std::size_t const n = std::size_t(std::min<std::uint64_t>(chunk.size(), size - at));
      if (sample_bytes == 2)
        to_little<std::uint16_t>(data + at, n, chunk.data());
      else
        to_little<std::uint32_t>(data + at, n, chunk.data());
      out.write(reinterpret_cast<char const*>(chunk.data()), std::streamsize(n));
      at += n;
    }
  }
  if (!out) throw Failure(path, "cannot be written");
}

void pixels(Context& ctx, PixelsOptions const& o) {
  ctx.subject = o.file;
  const InputFile input(o.file);
  if (std::string reason = unreadableReason(input.path()); !reason.empty())
    throw Failure(o.file, reason);
  quib::Dicom file;
  if (file.load(widePath(input.path()), quib::Dicom::READ_STANDARD) < 0)
    throw Failure(o.file, "not a DICOM file");
  quib::DicomPixels module(file);
  if (module.empty()) throw Failure(o.file, module.get_error());
  if (ctx.json) {
    writeJson(ctx.out, {{"rows", module.get_rows()},
                        {"columns", module.get_columns()},
                        {"samples", module.get_samples()},
                        {"bits_allocated", module.get_bits_allocated()},
                        {"bits_stored", module.get_bits_stored()},
                        {"pixel_representation", module.get_pixel_representation()},
                        {"photometric", module.get_frame_photometric()},
                        {"frames", module.get_frames()}});
  }
  if (o.out.empty()) {
    if (!ctx.json) {
      quib::Image frame;
      if (!module.decode(o.frame, frame)) throw Failure(o.file, module.get_error());
      ctx.out << module.get_columns() << " x " << module.get_rows() << ", " << module.get_samples()
              << " x " << module.get_bits_allocated() << " bits, " << module.get_frame_photometric()
              << ", " << module.get_frames() << " frame(s)\n";
    }
    return;
  }
  quib::Image frame;
  if (endsWith(o.out, ".png") && !o.raw_values) {
    if (!module.decode_display(o.frame, frame)) throw Failure(o.file, module.get_error());
    cv::Mat picture = frame.makeMat();
    if (picture.channels() == 3) cv::cvtColor(picture, picture, cv::COLOR_RGB2BGR);
    writeImage(o.out, picture);
    return;
  }
  if (!module.decode(o.frame, frame)) throw Failure(o.file, module.get_error());
  if (endsWith(o.out, ".png")) {  // 16-bit grey with the values as decoded
    if (module.get_samples() != 1 || module.get_sample_bytes() > 2)
      throw Failure(o.file, "--raw-values pictures need grey samples of at most 16 bits");
    cv::Mat values = frame.makeMat(1, 8 * module.get_sample_bytes());
    if (module.get_sample_bytes() == 1) values.convertTo(values, CV_16U);
    if (!cv::imwrite(o.out, values)) throw Failure(o.out, "cannot be written");
    return;
  }
  write_samples(o.out, frame.getBuffer(), frame.getBufferSize(), module.get_sample_bytes());
}

struct VolumeOptions {
  std::vector<std::string> paths;
  std::string out, png;
  bool rescaled = false;
};

void volume(Context& ctx, VolumeOptions const& o) {
  ctx.subject = o.paths.front();
  quib::DicomVolume v;
  bool ok;
  if (o.paths.size() == 1) {
    ok = v.load(widePath(o.paths.front()), o.rescaled);
  } else {
    std::vector<std::wstring> files;
    for (std::string const& p : o.paths)
      files.push_back(widePath(p));
    ok = v.load(files, o.rescaled);
  }
  if (!ok) throw Failure(o.paths.front(), v.get_error());
  if (!o.out.empty()) write_samples(o.out, v.get_data(), v.get_bytes(), v.get_sample_bytes());
  if (!o.png.empty()) {
    makeDirectory(o.png);
    const int w = v.get_width(), h = v.get_height(), channels = v.get_samples();
    const int type = v.get_sample_type() == "float32"                                    ? CV_32F
                     : v.get_sample_type() == "int16"                                    ? CV_16S
                     : v.get_sample_type() == "uint16"                                   ? CV_16U
                     : v.get_sample_type() == "int32" || v.get_sample_type() == "uint32" ? CV_32S
                     : v.get_sample_type() == "int8"                                     ? CV_8S
                                                                                         : CV_8U;
    const std::size_t slice = std::size_t(w) * h * channels * v.get_sample_bytes();
    for (int z = 0; z < v.get_depth(); ++z) {
      cv::Mat values(h, w, CV_MAKETYPE(type, channels), v.get_data() + z * slice), picture;
      cv::normalize(values, picture, 0, 255, cv::NORM_MINMAX, CV_8U);
      if (channels == 3) cv::cvtColor(picture, picture, cv::COLOR_RGB2BGR);
      char name[32];
      std::snprintf(name, sizeof name, "slice%04d.png", z);
      writeImage(o.png + "/" + name, picture);
    }
  }
  const auto s = v.get_spacing(), origin = v.get_origin();
  const auto d = v.get_direction();
  if (ctx.json) {
    writeJson(ctx.out, {{"size", {v.get_width(), v.get_height(), v.get_depth()}},
                        {"spacing", {s[0], s[1], s[2]}},
                        {"origin", {origin[0], origin[1], origin[2]}},
                        {"direction", {d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7], d[8]}},
                        {"sample_type", v.get_sample_type()},
                        {"samples", v.get_samples()},
                        {"series", v.get_series()}});
    return;
  }
  ctx.out << v.get_width() << " x " << v.get_height() << " x " << v.get_depth() << ' '
          << v.get_sample_type() << ", spacing " << formatShort(s[0]) << " x " << formatShort(s[1])
          << " x " << formatShort(s[2]) << " mm, origin " << formatShort(origin[0]) << ' '
          << formatShort(origin[1]) << ' ' << formatShort(origin[2]) << '\n';
}

}  // namespace

void add_dicom_pixels_command(CLI::App& quib, Context& ctx) {
  auto p = std::make_shared<PixelsOptions>();
  CLI::App& cmd = addCommand(dicomGroup(quib), "pixels", paragraphs(R"(
      decode one frame of a DICOM file

      Decodes frame K of a DICOM file in any transfer syntax the library reads (native, RLE,
      JPEG, JPEG-LS, JPEG 2000). --json prints the pixel module as decoded; --out OUT.raw
      writes the frame's samples interleaved per pixel, little-endian on every machine, one
      Bits Allocated container each (1-bit data as one byte 0 or 1), as stored (no rescale, no
      window); --out OUT.png writes a picture through the file's first VOI LUT, else its first
      window, else the frame's range (after the modality LUT or rescale), or with --raw-values
      the samples as 16-bit grey.
)"));
  cmd.add_option("FILE", p->file, "the DICOM file; '-' reads standard input")->required();
  cmd.add_option("--frame", p->frame, "the frame to decode, from 0")->check(CLI::NonNegativeNumber);
  cmd.add_option("--out", p->out, "where to write the frame: a .raw or a .png file");
  cmd.add_flag("--raw-values", p->raw_values, "write the .png as 16-bit grey samples as decoded");
  addJsonFlag(cmd, ctx);
  onRun(cmd, ctx, [p, &ctx] { pixels(ctx, *p); });

  auto v = std::make_shared<VolumeOptions>();
  CLI::App& vol = addCommand(dicomGroup(quib), "volume", paragraphs(R"(
      read a DICOM series into a 3-D volume

      Reads the images of a folder (or the files given), keeps the largest series, orders its
      slices along their normal and checks that they share size, orientation and pixel format
      and lie evenly spaced, decoding slices on every core. --out writes the samples (x
      fastest, then y, then slices, little-endian on every machine); the size, spacing,
      origin, direction and sample type are printed.
)"));
  vol.add_option("PATHS", v->paths, "a folder, or the files of the series")->required();
  vol.add_option("--out", v->out, "where to write the volume's samples (.raw)");
  vol.add_option("--png", v->png, "a folder for the slices as pictures (each slice's range)");
  vol.add_flag("--rescaled", v->rescaled, "real values (slope and intercept) as 32-bit floats");
  addJsonFlag(vol, ctx);
  onRun(vol, ctx, [v, &ctx] { volume(ctx, *v); });
}

}  // namespace quib::tool
