// Series of DICOM slices, and multi-frame files, as 3-D volumes.
#include <quib/dicom_image.hpp>

#include "formats/dicom_pixels.hpp"
#include "system/native_path.hpp"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>

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

// Runs work(slot, i, reason) for every i in [0, count) on up to `threads` threads, the caller's
// among them; `slot` (0 .. threads - 1) names the thread, for state of its own. Indices are
// handed out one at a time in increasing order. work returns false, with a reason, to fail;
// the lowest failing index wins, and no index above it is started. Exceptions never leave a
// thread: the lowest failing index's exception is thrown again here, after every thread ended.
// Returns the lowest failing index (count when none failed) and its reason.
template <class Work>
std::size_t run_in_order(std::size_t count, int threads, std::string& reason, Work work) {
  std::atomic<std::size_t> next{0};
  std::atomic<std::size_t> failed{count};
  std::mutex guard;
  std::exception_ptr thrown;
  auto fail_at = [&](std::size_t i, std::string const& why, std::exception_ptr error) {
    std::lock_guard<std::mutex> lock(guard);
    if (i >= failed.load()) return;
    failed.store(i);
    reason = why;
    thrown = error;
  };
  auto run = [&](int slot) {
    std::string why;
    for (;;) {
      std::size_t const i = next.fetch_add(1);
      if (i >= count || i > failed.load()) return;
      try {
        if (!work(slot, i, why)) fail_at(i, why, nullptr);
      } catch (...) {
        fail_at(i, "out of memory", std::current_exception());
      }
    }
  };
  std::vector<std::thread> helpers;
  int const wanted = int(std::min<std::size_t>(std::size_t(std::max(threads, 1)), count));
  for (int slot = 1; slot < wanted; ++slot) {
    try {
      helpers.emplace_back(run, slot);
    } catch (std::system_error const&) {
      break;  // no more threads to be had: fewer do the work
    }
  }
  run(0);
  for (std::thread& helper : helpers)
    helper.join();
  if (thrown) std::rethrow_exception(thrown);
  return failed.load();
}

}  // namespace

void DicomVolume::clear() {
  std::string kept;
  kept.swap(error_);
  int const threads = threads_;
  *this = DicomVolume();
  error_.swap(kept);
  threads_ = threads;
}

void DicomVolume::set_threads(int threads) {
  threads_ = std::max(threads, 0);
}

int DicomVolume::get_threads() const {
  if (threads_ > 0) return threads_;
  return std::max(1, int(std::thread::hardware_concurrency()));
}

static_assert(std::is_nothrow_move_constructible_v<DicomVolume> &&
              std::is_nothrow_move_assignable_v<DicomVolume>);

void DicomVolume::swap(DicomVolume& other) noexcept {
  std::swap(*this, other);
}

std::uint64_t DicomVolume::get_bytes() const {
  return data_ ? std::uint64_t(size_[0]) * size_[1] * size_[2] * samples_ * sample_bytes_ : 0;
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
      error_ = "the folder holds no files";
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
    error_ = reason;
    return false;
  };

  // The images of one file: one entry, or one per frame of a multi-frame file that gives each
  // frame's position (a lambda: it reads attributes only, a private load). Nothing, with `reason`
  // when the file is DICOM without a usable pixel module.
  auto read_slices = [](std::wstring const& path, std::vector<slice_t>& out, std::string& reason) {
    Dicom file;
    if (!load_head(file, path)) return;
    DicomPixels pixels;
    if (!pixels.load(file, DicomPixels::FRAME_LIMIT, false)) {
      reason = pixels.get_error();
      return;
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
        out.push_back(std::move(one));
      }
      return;
    }
    out.push_back(std::move(s));
  };

  // First pass: the attributes of every image, grouped by series (files in parallel, then
  // gathered in the order given).
  std::vector<std::vector<slice_t>> found(files.size());
  std::vector<std::string> reasons(files.size());
  std::string unused;
  run_in_order(files.size(), get_threads(), unused, [&](int, std::size_t i, std::string&) {
    read_slices(files[i], found[i], reasons[i]);
    return true;
  });
  std::map<std::string, std::vector<slice_t>> groups;
  std::string last_reason;
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (!reasons[i].empty()) last_reason = reasons[i];
    for (slice_t& s : found[i])
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

  // Second pass: each frame of the volume decoded straight into its place, frames shared out
  // between threads. Each thread keeps its file open while its next frame comes from it; one
  // file holding every frame is read once, here, and shared.
  struct unit_t {
    slice_t const* slice;
    int frame;
  };
  std::vector<unit_t> units;
  for (slice_t const& s : slices) {
    int const begin = s.frame < 0 ? 0 : s.frame, end = s.frame < 0 ? s.frames : s.frame + 1;
    for (int f = begin; f < end; ++f)
      units.push_back({&s, f});
  }
  struct reader_t {
    Dicom file;
    DicomPixels pixels;
    std::wstring const* open = nullptr;
    std::vector<unsigned char> scratch;
  };
  auto open_file = [](reader_t& reader, slice_t const& s, std::string& reason) {
    reader.open = nullptr;  // until the new file is loaded and checked
    if (!load_file(reader.file, s.path)) {
      reason = "a file of the series can no longer be read";
      return false;
    }
    DicomPixels& pixels = reader.pixels;
    if (!pixels.load(reader.file)) {
      reason = pixels.get_error();
      return false;
    }
    if (pixels.get_rows() != s.rows || pixels.get_columns() != s.columns ||
        pixels.get_frames() != s.frames || pixels.get_bits_allocated() != s.bits_allocated) {
      reason = "a file of the series changed while it was read";
      return false;
    }
    reader.open = &s.path;
    return true;
  };
  int const threads = int(std::min<std::size_t>(std::size_t(get_threads()), units.size()));
  std::vector<reader_t> readers(std::size_t(std::max(threads, 1)));
  bool const one_file = std::all_of(slices.begin(), slices.end(),
                                    [&](slice_t const& s) { return s.path == first.path; });
  std::string reason;
  if (one_file) {
    if (!open_file(readers[0], first, reason)) return refuse(reason);
    for (std::size_t r = 1; r < readers.size(); ++r)
      readers[r].pixels = readers[0].pixels, readers[r].open = readers[0].open;
  }
  auto decode_unit = [&](int slot, std::size_t k, std::string& why) {
    reader_t& reader = readers[std::size_t(slot)];
    slice_t const& s = *units[k].slice;
    if ((!reader.open || *reader.open != s.path) && !open_file(reader, s, why)) return false;
    DicomPixels const& pixels = reader.pixels;
    unsigned char* target = voxels.get() + std::uint64_t(k) * slice_samples * out_bytes;
    if (!rescaled) {
      if (pixels.decode(units[k].frame, target, slice_samples * out_bytes)) return true;
      why = pixels.get_error();
      return false;
    }
    reader.scratch.resize(slice_samples * bytes);
    if (!pixels.decode(units[k].frame, reader.scratch.data(), reader.scratch.size())) {
      why = pixels.get_error();
      return false;
    }
    if (pixels.make_values(reader.scratch.data(), slice_samples, target)) return true;
    why = pixels.get_error();
    return false;
  };
  if (run_in_order(units.size(), threads, reason, decode_unit) < units.size())
    return refuse(reason);

  DicomVolume next;
  next.data_ = std::move(voxels);
  next.size_ = {first.columns, first.rows, depth};
  next.samples_ = first.samples;
  next.sample_bytes_ = out_bytes;
  next.sample_type_ =
      rescaled ? "float32"
               : std::string(first.representation ? "int" : "uint") + std::to_string(8 * bytes);
  auto const ps = first.pixel_spacing;
  bool const has_spacing = finite(ps.data(), 2) && ps[0] > 0 && ps[1] > 0;
  next.spacing_ = {has_spacing ? ps[1] : 1.0, has_spacing ? ps[0] : 1.0, step};
  auto const& start = slices.front().position;
  next.origin_ = finite(start.data(), 3) ? start : std::array<double, 3>{0, 0, 0};
  next.direction_ = {row[0],    row[1],    row[2],    column[0], column[1],
                     column[2], normal[0], normal[1], normal[2]};
  next.series_uid_ = chosen->first;
  next.threads_ = threads_;
  swap(next);
  return true;
}

}  // namespace quib
