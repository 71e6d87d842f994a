// Series of DICOM slices, and multi-frame files, as 3-D volumes.
#include <quib/dicom_image.hpp>

#include "formats/dicom_pixels.hpp"
#include "system/native_path.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

namespace quib {

namespace {

namespace fs = std::filesystem;

// What the first pass keeps of one file.
struct slice_t {
  std::wstring path;
  std::string series;
  int rows = 0, columns = 0, samples = 0, bits_allocated = 0, bits_stored = 0, representation = 0;
  int frames = 0;  // frames of the file
  int frame = -1;  // the frame this entry stands for; -1 for every frame of the file in order
  std::string photometric;
  std::array<double, 3> position{};
  std::array<double, 6> orientation{};
  std::array<double, 2> pixel_spacing{};
  double between = 0;  // Spacing Between Slices, or Slice Thickness, for multi-frame files
  double along = 0;    // position along the normal
};

bool load_file(Dicom& file, std::wstring const& path) {
  return file.load(path, Dicom::READ_STANDARD) > 0;
}

// The attributes of a file without its pixels: the elements in its first 64 KiB (reading ends
// inside Pixel Data), or the whole file when they do not reach Rows.
bool load_head(Dicom& file, std::wstring const& path) {
  auto const native = detail::native_path(path);
  if (!native) return false;
  std::ifstream in(*native, std::ios::binary);
  std::string head(std::size_t{64} << 10, '\0');
  in.read(head.data(), std::streamsize(head.size()));
  head.resize(std::size_t(in.gcount()));
  bool const whole = in.eof();
  std::istringstream prefix(head);
  if (file.load(prefix, Dicom::READ_STANDARD) > 0 &&
      file.find(Dicom::Tag(0x0028, 0x0010)) != nullptr)
    return true;
  return !whole && load_file(file, path);
}

bool same_format(slice_t const& a, slice_t const& b) {
  return a.rows == b.rows && a.columns == b.columns && a.samples == b.samples &&
         a.bits_allocated == b.bits_allocated && a.bits_stored == b.bits_stored &&
         a.representation == b.representation && a.photometric == b.photometric;
}

bool finite(double const* v, int n) {
  for (int i = 0; i < n; ++i)
    if (!std::isfinite(v[i])) return false;
  return true;
}

}  // namespace

void DicomVolume::clear() {
  std::string kept;
  kept.swap(error);
  *this = DicomVolume();
  error.swap(kept);
}

void DicomVolume::swap(DicomVolume& other) noexcept {
  data.swap(other.data);
  std::swap(size, other.size);
  std::swap(samples, other.samples);
  std::swap(sample_bytes, other.sample_bytes);
  std::swap(spacing, other.spacing);
  std::swap(origin, other.origin);
  std::swap(direction, other.direction);
  sample_type.swap(other.sample_type);
  series_uid.swap(other.series_uid);
  error.swap(other.error);
}

std::uint64_t DicomVolume::get_bytes() const {
  return data ? std::uint64_t(size[0]) * size[1] * size[2] * samples * sample_bytes : 0;
}

bool DicomVolume::load(std::wstring const& path, bool rescaled, std::string const& series) {
  auto const native = detail::native_path(path);
  std::error_code ec;
  if (native && fs::is_directory(*native, ec)) {
    std::vector<fs::path> names;
    for (auto const& entry : fs::directory_iterator(*native, ec))
      if (entry.is_regular_file(ec)) names.push_back(entry.path());
    std::sort(names.begin(), names.end());
    std::vector<std::wstring> files;
    for (auto const& name : names)
      files.push_back(name.wstring());
    if (files.empty()) {
      clear();
      error = "the folder holds no files";
      return false;
    }
    return load(files, rescaled, series);
  }
  return load(std::vector<std::wstring>{path}, rescaled, series);
}

bool DicomVolume::load(std::vector<std::wstring> const& files, bool rescaled,
                       std::string const& series) {
  clear();
  auto refuse = [&](std::string const& reason) {
    error = reason;
    return false;
  };

  // First pass: the attributes of every image, grouped by series.
  std::map<std::string, std::vector<slice_t>> groups;
  std::string last_reason;
  for (std::wstring const& path : files) {
    Dicom file;
    if (!load_head(file, path)) continue;
    DicomPixels pixels;
    if (!pixels.load(file, DicomPixels::FRAME_LIMIT, false)) {
      last_reason = pixels.get_error();
      continue;
    }
    slice_t s;
    s.path = path;
    std::vector<std::string> series;  // Series Instance UID
    if (file.get_strings(Dicom::Tag(0x0020, 0x000E), series) > 0) s.series = series[0];
    s.rows = pixels.get_rows(), s.columns = pixels.get_columns(), s.samples = pixels.get_samples();
    s.bits_allocated = pixels.get_bits_allocated(), s.bits_stored = pixels.get_bits_stored();
    s.representation = pixels.get_pixel_representation(), s.frames = pixels.get_frames();
    s.photometric = pixels.get_frame_photometric();
    s.position = pixels.get_position(), s.orientation = pixels.get_orientation();
    s.pixel_spacing = pixels.get_pixel_spacing();
    s.between = pixels.get_slice_thickness();
    std::vector<double> between;  // Spacing Between Slices
    if (file.get_numbers(Dicom::Tag(0x0018, 0x0088), between) > 0) s.between = between[0];
    auto const& positions = pixels.get_frame_positions();
    if (s.frames > 1 && int(positions.size()) == s.frames) {
      for (int f = 0; f < s.frames; ++f) {  // a multi-frame file with a position per frame
        slice_t one = s;
        one.frame = f, one.position = positions[std::size_t(f)];
        groups[s.series].push_back(std::move(one));
      }
      continue;
    }
    groups[s.series].push_back(std::move(s));
  }
  if (groups.empty())
    return refuse("no DICOM image among the files" +
                  (last_reason.empty() ? "" : " (" + last_reason + ")"));
  auto chosen = groups.end();
  if (!series.empty()) {
    chosen = groups.find(series);
    if (chosen == groups.end()) return refuse("no image of series " + series);
  } else {
    for (auto it = groups.begin(); it != groups.end(); ++it)
      if (chosen == groups.end() || it->second.size() > chosen->second.size()) chosen = it;
  }
  std::vector<slice_t>& slices = chosen->second;
  slice_t const& first = slices.front();

  // Checks: one format, one orientation, one multi-frame file or single frames.
  for (slice_t const& s : slices) {
    if (!same_format(s, first)) return refuse("the slices differ in size or pixel format");
    if (s.frames != 1 && s.frame < 0 && slices.size() > 1)
      return refuse("a series of several files holds a multi-frame file without frame positions");
  }
  if (rescaled && first.samples != 1) return refuse("rescaled values need grey images");
  std::array<double, 3> row{1, 0, 0}, column{0, 1, 0}, normal{0, 0, 1};
  bool const oriented = finite(first.orientation.data(), 6);
  if (oriented) {
    for (int i = 0; i < 3; ++i)
      row[i] = first.orientation[i], column[i] = first.orientation[3 + i];
    normal = {row[1] * column[2] - row[2] * column[1], row[2] * column[0] - row[0] * column[2],
              row[0] * column[1] - row[1] * column[0]};
    double const length =
        std::sqrt(normal[0] * normal[0] + normal[1] * normal[1] + normal[2] * normal[2]);
    if (!(length > 0.5)) return refuse("Image Orientation (Patient) is not two directions");
    for (double& v : normal)
      v /= length;
  }
  for (slice_t const& s : slices)
    for (int i = 0; i < 6; ++i)
      if (oriented && !(std::abs(s.orientation[i] - first.orientation[i]) < 1e-4))
        return refuse("the slices differ in orientation");

  double step = 1;
  if (slices.size() > 1) {
    for (slice_t& s : slices) {
      if (!oriented || !finite(s.position.data(), 3))
        return refuse("a slice lacks Image Position or Orientation (Patient)");
      s.along = s.position[0] * normal[0] + s.position[1] * normal[1] + s.position[2] * normal[2];
    }
    std::stable_sort(slices.begin(), slices.end(),
                     [](slice_t const& a, slice_t const& b) { return a.along < b.along; });
    step = (slices.back().along - slices.front().along) / double(slices.size() - 1);
    for (std::size_t k = 1; k < slices.size(); ++k)
      if (slices[k].along - slices[k - 1].along < 1e-6)
        return refuse("two slices lie at the same position");
    for (std::size_t k = 1; k < slices.size(); ++k) {
      double const gap = slices[k].along - slices[k - 1].along;
      if (std::abs(gap - step) > 1e-3 + 1e-2 * step)
        return refuse("uneven slice spacing: " + std::to_string(gap) +
                      " mm where the series averages " + std::to_string(step) + " mm");
    }
  } else if (std::isfinite(first.between) && first.between > 0) {
    step = first.between;
  }

  // One buffer for the whole volume.
  int const depth = slices.size() > 1 ? int(slices.size()) : first.frames;
  if (depth < 1) return refuse("the series has no frames");
  int const bytes = first.bits_allocated <= 8 ? 1 : first.bits_allocated / 8;
  int const out_bytes = rescaled ? 4 : bytes;
  const std::uint64_t slice_samples = std::uint64_t(first.rows) * first.columns * first.samples;
  const std::uint64_t total = slice_samples * std::uint64_t(depth) * std::uint64_t(out_bytes);
  std::shared_ptr<unsigned char[]> voxels(new unsigned char[total]);
  std::vector<unsigned char> scratch;

  // Second pass: decode each slice into its place (a multi-frame file is read once).
  int k = 0;
  Dicom file;
  DicomPixels pixels;
  std::wstring const* open = nullptr;
  for (slice_t const& s : slices) {
    if (!open || *open != s.path) {
      if (!load_file(file, s.path)) return refuse("a file of the series can no longer be read");
      if (!pixels.load(file)) return refuse(pixels.get_error());
      if (pixels.get_rows() != s.rows || pixels.get_columns() != s.columns ||
          pixels.get_frames() != s.frames || pixels.get_bits_allocated() != s.bits_allocated)
        return refuse("a file of the series changed while it was read");
      open = &s.path;
    }
    int const begin = s.frame < 0 ? 0 : s.frame, end = s.frame < 0 ? s.frames : s.frame + 1;
    for (int f = begin; f < end; ++f, ++k) {
      unsigned char* target = voxels.get() + std::uint64_t(k) * slice_samples * out_bytes;
      if (!rescaled) {
        if (!pixels.decode(f, target, slice_samples * out_bytes)) return refuse(pixels.get_error());
        continue;
      }
      scratch.resize(slice_samples * bytes);
      if (!pixels.decode(f, scratch.data(), scratch.size())) return refuse(pixels.get_error());
      detail::rescale_samples(scratch.data(), slice_samples, bytes, s.representation == 1,
                              pixels.get_rescale_slope(), pixels.get_rescale_intercept(), target);
    }
  }

  DicomVolume next;
  next.data = std::move(voxels);
  next.size = {first.columns, first.rows, depth};
  next.samples = first.samples;
  next.sample_bytes = out_bytes;
  next.sample_type =
      rescaled ? "float32"
               : std::string(first.representation ? "int" : "uint") + std::to_string(8 * bytes);
  auto const ps = first.pixel_spacing;
  bool const has_spacing = finite(ps.data(), 2) && ps[0] > 0 && ps[1] > 0;
  next.spacing = {has_spacing ? ps[1] : 1.0, has_spacing ? ps[0] : 1.0, step};
  auto const& start = slices.front().position;
  next.origin = finite(start.data(), 3) ? start : std::array<double, 3>{0, 0, 0};
  next.direction = {row[0],    row[1],    row[2],    column[0], column[1],
                    column[2], normal[0], normal[1], normal[2]};
  next.series_uid = chosen->first;
  swap(next);
  return true;
}

}  // namespace quib
