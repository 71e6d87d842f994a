// DICOM pixels: the image pixel module of a loaded file, its frames as images, display values,
// and series of slices as 3-D volumes.
#pragma once

#include <quib/dicom.hpp>
#include <quib/export.hpp>
#include <quib/image.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace quib {

/// The image pixel module of a DICOM file read with the standard reading
/// (Dicom::READ_STANDARD): the attributes that describe its pixels, and the decoding of any one
/// frame without touching the others. Native data in either byte order with 1, 8, 16 or 32 bits
/// allocated (planar data made interleaved, uncompressed YBR_FULL_422 expanded to three
/// samples per pixel), and encapsulated RLE Lossless (1-bit data too), JPEG (baseline, extended
/// 12-bit, lossless), JPEG-LS and JPEG 2000 frames, located through the Extended or Basic Offset
/// Table, one fragment per frame, or the codec's end marker.
///
/// Decoded samples are as stored, not rescaled: one sample per Bits Allocated container
/// (1-bit data as one byte 0 or 1), unsigned or two's complement by Pixel Representation, the
/// bits above Bits Stored cleared or sign-filled, interleaved by pixel, rows top-down.
/// Colour comes as the codec gives it; get_frame_photometric() says what that is ("RGB" for a
/// YBR_FULL_422 JPEG frame, "YBR_FULL" for expanded native YBR_FULL_422).
///
/// Memory: the object refers to the Pixel Data value inside the Dicom it was loaded from,
/// which must outlive it unchanged; it copies only its lookup tables (modality, VOI, palette:
/// at most 65536 entries each). Frames are decoded into a new owned image or into caller
/// memory. Failure: load and decode return false and keep a one-line reason (get_error); a
/// failed load leaves the object empty. No buffer is sized before the
/// codec's own header agrees with the attributes, and no frame larger than the frame limit
/// (FRAME_LIMIT bytes unless given) is accepted. Only allocation failure throws.
/// Threads: one object belongs to one thread at a time (decode records its error).
///
///     quib::Dicom file;
///     file.load(L"ct.dcm", quib::Dicom::READ_STANDARD);
///     quib::DicomPixels pixels(file);
///     quib::Image frame;
///     if (!pixels.decode(0, frame)) std::puts(pixels.get_error().c_str());
class QUIB_API DicomPixels {
 public:
  /// The default largest decoded frame, in bytes (1 GiB).
  static constexpr std::uint64_t FRAME_LIMIT = std::uint64_t{1} << 30;

  DicomPixels() = default;
  /// Calls load(file).
  explicit DicomPixels(const Dicom& file, std::uint64_t frame_limit = FRAME_LIMIT);
  /// A loaded object; empty (with its error) when the file has no usable pixel module.
  static DicomPixels create(const Dicom& file, std::uint64_t frame_limit = FRAME_LIMIT);

  /// Reads the pixel module and locates every frame. False, with a reason and the object
  /// emptied, when an attribute is missing or out of range, Pixel Data is absent, a frame
  /// would exceed `frame_limit` bytes, native data is shorter than its frames, or the
  /// fragments and offset tables do not locate every frame inside the data.
  bool load(const Dicom& file, std::uint64_t frame_limit = FRAME_LIMIT);

  bool is() const { return value_ != nullptr; }
  bool empty() const { return value_ == nullptr; }
  /// Back to the state of DicomPixels() (the error is kept).
  void clear();
  void swap(DicomPixels& other) noexcept;

  int get_rows() const { return rows_; }
  int get_columns() const { return columns_; }
  int get_samples() const { return samples_; }
  int get_bits_allocated() const { return bits_allocated_; }
  int get_bits_stored() const { return bits_stored_; }
  int get_high_bit() const { return high_bit_; }
  /// 0 unsigned, 1 two's complement.
  int get_pixel_representation() const { return pixel_representation_; }
  int get_planar_configuration() const { return planar_configuration_; }
  int get_frames() const { return frames_; }
  /// The Photometric Interpretation the file gives ("MONOCHROME2", "YBR_FULL_422", ...).
  const std::string& get_photometric() const { return photometric_; }
  /// The photometric interpretation of decoded frames.
  const std::string& get_frame_photometric() const { return frame_photometric_; }
  const std::string& get_transfer_syntax() const { return transfer_syntax_; }
  /// True when Pixel Data is encapsulated (compressed).
  bool is_encapsulated() const { return !fragments_.empty(); }

  /// Pixel Spacing: distance between rows, then between columns (mm); NaN when absent.
  std::array<double, 2> get_pixel_spacing() const { return pixel_spacing_; }
  /// Image Position (Patient) of the first frame; NaN when absent.
  std::array<double, 3> get_position() const { return position_; }
  /// Image Orientation (Patient): the row direction, then the column direction; NaN when absent.
  std::array<double, 6> get_orientation() const { return orientation_; }
  /// Image Position (Patient) of each frame of a multi-frame file that gives them (per-frame
  /// functional groups); empty otherwise.
  const std::vector<std::array<double, 3>>& get_frame_positions() const { return frame_positions_; }
  /// Slice Thickness (mm); NaN when absent.
  double get_slice_thickness() const { return slice_thickness_; }

  /// Bytes of one decoded frame: rows * columns * samples * container bytes (1 for 1-bit data).
  std::uint64_t get_frame_bytes() const;
  /// The bytes per decoded sample: 1, 2 or 4.
  int get_sample_bytes() const { return bits_allocated_ <= 8 ? 1 : bits_allocated_ / 8; }

  /// Decodes frame `frame` (0-based) into a new owned image (8, 16 or 32 bits per sample,
  /// grey for one sample, rgb for RGB, ycc for YBR). False with a reason when the frame does
  /// not exist or cannot be decoded; `out` is then unchanged.
  bool decode(int frame, Image& out) const;
  /// The same into caller memory of `size` bytes, which must hold get_frame_bytes(). After a
  /// failure the memory may hold part of the frame.
  bool decode(int frame, void* out, std::uint64_t size) const;

  // Values for people.

  /// A lookup table of the file (modality, VOI or palette): entry k holds the output for
  /// stored value first + k; values below `first` take the first entry, values above the last
  /// take the last. `bits` per entry is 8 or 16. A table the file describes but that cannot be
  /// used (data shorter than its descriptor, a descriptor with other than 8 or 16 bits, a
  /// broken segmented palette) has no entries and says why in `error`.
  struct LookupTable {
    std::int64_t first = 0;
    int bits = 0;
    std::vector<std::uint16_t> entries;
    std::string error;
    bool is() const { return !entries.empty(); }
  };

  /// Rescale Slope and Intercept (1 and 0 when absent): real value = stored * slope + intercept
  /// (Hounsfield units for CT). Not used when the file has a modality LUT.
  double get_rescale_slope() const { return rescale_slope_; }
  double get_rescale_intercept() const { return rescale_intercept_; }
  /// The Modality LUT Sequence's table, which replaces slope and intercept when given (empty
  /// with no error when the file has none).
  const LookupTable& get_modality_lut() const { return modality_lut_; }
  /// The tables of the VOI LUT Sequence, in the file's order.
  const std::vector<LookupTable>& get_voi_luts() const { return voi_luts_; }
  /// The red, green and blue tables of a PALETTE COLOR file, plain or segmented (expanded).
  const LookupTable& get_palette(int channel) const { return palette_[std::size_t(channel % 3)]; }
  /// The Window Center / Width pairs the file offers, in its order (VOI LUT Function in
  /// get_voi_function: "LINEAR" unless the file says "LINEAR_EXACT" or "SIGMOID").
  const std::vector<std::array<double, 2>>& get_windows() const { return windows_; }
  const std::string& get_voi_function() const { return voi_function_; }

  /// Decodes a frame and makes real values of it through the modality LUT, or else slope and
  /// intercept: one channel of 32-bit floats. False for colour data, for a modality LUT the
  /// file describes but that cannot be used, and as decode.
  bool decode_values(int frame, Image& out) const;
  /// The same rounded to 16-bit two's complement; false when a value falls outside
  /// [-32768, 32767].
  bool decode_values16(int frame, Image& out) const;
  /// Decodes a frame for display, 8 bits per sample. Grey data is made real values as
  /// decode_values does, then goes through VOI transform `window`: the VOI LUTs come first
  /// (0 .. get_voi_luts().size() - 1), then the windows of get_windows(), so that the default
  /// 0 picks the file's first VOI LUT when it has one and its first window otherwise; -1, or
  /// a file with neither, windows the frame's own minimum to maximum. A VOI LUT's output
  /// spans 0 .. 2^bits - 1. MONOCHROME1 is inverted last. Colour data comes out as RGB
  /// (YBR_FULL converted, PALETTE COLOR through its tables, 16-bit colour scaled to 8 bits).
  /// False as decode and decode_values, or when the table to be used cannot be.
  bool decode_display(int frame, Image& out, int window = 0) const;
  /// The reason of the last failed load or decode; empty when none failed yet.
  const std::string& get_error() const { return error_; }

 private:
  friend class DicomVolume;
  // With `with_pixels` false, only the attributes are read (the object stays empty).
  bool load(const Dicom& file, std::uint64_t frame_limit, bool with_pixels);
  bool fail(const std::string& reason) const;
  // Writes the real values of `count` decoded samples to `out` as 32-bit floats (any
  // alignment): through the modality LUT, or slope and intercept. False when the file's
  // modality LUT cannot be used.
  bool make_values(const unsigned char* in, std::size_t count, unsigned char* out) const;

  const std::vector<unsigned char>* value_ = nullptr;  // Pixel Data, owned by the Dicom
  int rows_ = 0, columns_ = 0, samples_ = 0, bits_allocated_ = 0, bits_stored_ = 0, high_bit_ = 0;
  int pixel_representation_ = 0, planar_configuration_ = 0, frames_ = 0;
  bool little_ = true;
  std::string photometric_, frame_photometric_, transfer_syntax_;
  std::array<double, 2> pixel_spacing_{};
  std::array<double, 3> position_{};
  std::array<double, 6> orientation_{};
  std::vector<std::array<double, 3>> frame_positions_;
  double slice_thickness_ = 0;
  double rescale_slope_ = 1, rescale_intercept_ = 0;
  std::vector<std::array<double, 2>> windows_;
  std::string voi_function_;
  LookupTable modality_lut_;
  std::vector<LookupTable> voi_luts_;
  std::array<LookupTable, 3> palette_;
  // Encapsulated data: fragments as (offset in the value, size); frame k is the run of
  // fragments from frame_first[k] to frame_first[k + 1].
  std::vector<std::array<std::uint64_t, 2>> fragments_;
  std::vector<std::uint32_t> frame_first_;
  mutable std::string error_;
};

inline void swap(DicomPixels& a, DicomPixels& b) noexcept {
  a.swap(b);
}

/// A 3-D volume read from a DICOM series: the slices of one Series Instance UID, ordered along
/// the normal of their Image Orientation (Patient) by Image Position (Patient), or the frames
/// of one multi-frame file. Samples run x fastest (along a row), then y (down the columns),
/// then slices; spacing, origin (the centre of the first voxel) and direction are in patient
/// millimetres. Values are the decoded samples (type by Bits Allocated and Pixel
/// Representation) or, rescaled, 32-bit floats of slope * stored + intercept, slice by slice.
///
/// Memory: the voxels are one buffer, allocated once when every slice has been checked;
/// copies share it. Each file is read twice: its first 64 KiB for the attributes, then whole
/// to decode its frames straight into their place in the buffer, so no slice is held twice
/// and no more files are held at once than there are threads. Failure: load returns false
/// with a reason (no image in the files, slices that differ in size, orientation or pixel
/// format, two slices at one position, uneven spacing, a frame that does not decode: the
/// first such frame in slice order, whatever the number of threads) and leaves the object
/// empty; only allocation failure throws, in the calling thread.
/// Threads: one object belongs to one thread at a time. load reads the files and decodes the
/// slices on get_threads() threads, the caller's among them (never more than there are
/// slices), and returns when all have ended; the result is the same byte for byte for any
/// number. A host that loads many series at once, each on a thread of its own, calls
/// set_threads(1) so that each load runs on its caller's thread alone.
///
///     quib::DicomVolume volume;
///     if (volume.load(L"/data/ct-series", true))
///       std::printf("%d x %d x %d\n", volume.get_width(), volume.get_height(),
///       volume.get_depth());
class QUIB_API DicomVolume {
 public:
  DicomVolume() = default;

  /// Reads a folder (every file in it, not its sub-folders) or one file. `series` picks a
  /// Series Instance UID; empty takes the series with the most images.
  bool load(const std::wstring& path, bool rescaled = false, const std::string& series = {});
  /// Reads the given files, as above.
  bool load(const std::vector<std::wstring>& files, bool rescaled = false,
            const std::string& series = {});

  /// The number of threads load uses: 0 (the default) for as many as the machine has cores
  /// (std::thread::hardware_concurrency), 1 for the calling thread alone. Negative counts as 0.
  /// Kept by clear and load.
  void set_threads(int threads);
  /// The number of threads load uses at most (the setting, or the cores when it is 0).
  int get_threads() const;

  bool is() const { return data_ != nullptr; }
  bool empty() const { return data_ == nullptr; }
  /// Back to the state of DicomVolume() (the error is kept).
  void clear();
  void swap(DicomVolume& other) noexcept;

  int get_width() const { return size_[0]; }
  int get_height() const { return size_[1]; }
  int get_depth() const { return size_[2]; }
  /// Samples per voxel (1, or 3 for colour).
  int get_samples() const { return samples_; }
  /// Voxel spacing along x, y and z (mm).
  std::array<double, 3> get_spacing() const { return spacing_; }
  /// The patient position of the first voxel (mm).
  std::array<double, 3> get_origin() const { return origin_; }
  /// The x, y and z axes as unit vectors in patient space, one after the other.
  std::array<double, 9> get_direction() const { return direction_; }
  /// "uint8", "int8", "uint16", "int16", "uint32", "int32" or "float32".
  const std::string& get_sample_type() const { return sample_type_; }
  int get_sample_bytes() const { return sample_bytes_; }
  /// The Series Instance UID read.
  const std::string& get_series() const { return series_uid_; }
  /// The voxels, and their number of bytes.
  const unsigned char* get_data() const { return data_.get(); }
  unsigned char* get_data() { return data_.get(); }
  std::uint64_t get_bytes() const;
  const std::string& get_error() const { return error_; }

 private:
  std::shared_ptr<unsigned char[]> data_;
  std::array<int, 3> size_{};
  int samples_ = 0, sample_bytes_ = 0;
  std::array<double, 3> spacing_{}, origin_{};
  std::array<double, 9> direction_{};
  std::string sample_type_, series_uid_, error_;
  int threads_ = 0;
};

inline void swap(DicomVolume& a, DicomVolume& b) noexcept {
  a.swap(b);
}

}  // namespace quib
