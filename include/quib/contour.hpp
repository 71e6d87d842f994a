// Contour tracing: the outer boundaries of the foreground regions of an 8-bit mask.
#pragma once

#include <quib/export.hpp>

#include <opencv2/core.hpp>

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

namespace quib::ocv {

/// Finds the outer boundaries of the foreground regions of an 8-bit single-channel image, one
/// region per call of search(). Foreground is every pixel whose value differs from the `blank`
/// value given to search(); regions are 8-connected. The scan runs in row order and starts a
/// trace at the left edge of each untraced foreground run; the boundary is followed through the
/// eight neighbours and returned as a list of pixels, each listed once, in order of first visit.
/// The region (boundary and everything it encloses) is then marked with F_MASK in the mask, so
/// that a later search never starts inside it.
///
/// A trace never steps onto an outermost row or column across the image border: a move with a
/// leftward component needs the neighbour's x >= 1, a rightward one x <= columns - 2, an upward
/// one y >= 1, a downward one y <= rows - 2. A region touching the border is therefore traced
/// along its inner side there. The one exception is the trace's own start pixel, which can
/// always be stepped back onto, so that every trace closes where it began. Each boundary pixel's
/// visit count is kept in the mask (1 to 254);
/// a pixel counted up to 255 is worn out and not entered again, which bounds every trace.
///
/// Memory: the tracer owns a private copy of the image (base) and a mask of the same size. The
/// two-argument constructor takes the caller's mask as it is (a shared cv::Mat header, not a
/// copy), so the caller sees the regions being marked. Copies of a tracer share both matrices,
/// as cv::Mat headers do; base() and mask() return shared headers as well.
///
/// Failures: an image that is not 8-bit single-channel (or a mask of another type or size)
/// leaves the tracer empty, and create() returns false leaving the object unchanged. search()
/// on an empty tracer returns false. Nothing throws except allocation.
///
/// Threads: one tracer belongs to one thread at a time; tracers over different images may run
/// in parallel. Copies share their mask, so they count as one tracer.
///
///     quib::ocv::ContourTracer tracer(mask);            // CV_8UC1, 0 is background
///     std::vector<cv::Point> contour;
///     cv::Point position(0, 0);
///     while (tracer.search(contour, position, 0)) regions.push_back(contour);
class QUIB_API ContourTracer {
 public:
  /// Mask value of an untouched pixel; also the background handed to fill() by search().
  static constexpr unsigned char F_BLANK = 0;
  /// Mask value written over a found region.
  static constexpr unsigned char F_MASK = 255;

  /// An empty tracer; create() gives it an image.
  ContourTracer() = default;
  /// Copies `image` into base and starts a zeroed mask; empty unless `image` is CV_8UC1.
  explicit ContourTracer(cv::Mat& image);
  /// Copies `image` into base and takes `mask` (shared) as the initial mask; empty unless both
  /// are CV_8UC1 and of the same size. Mask pixels of 255 are never entered.
  ContourTracer(cv::Mat& image, cv::Mat& mask);
  ContourTracer(ContourTracer const& other) = default;
  ContourTracer& operator=(ContourTracer const& other) = default;
  ~ContourTracer() = default;
  void swap(ContourTracer& other) noexcept;

  /// Builds a tracer as the constructor does; when the result has at least one pixel it
  /// replaces this object's matrices and the result is true, otherwise nothing changes.
  [[nodiscard]] bool create(cv::Mat& image);
  [[nodiscard]] bool create(cv::Mat& image, cv::Mat& mask);
  /// Releases both matrices; the tracer is empty afterwards.
  void release();

  /// Whether base holds pixels.
  bool is() const { return !base_.empty(); }
  bool empty() const { return base_.empty(); }
  /// The traced image and the mask (shared headers, not copies).
  cv::Mat base() const { return base_; }
  cv::Mat mask() const;

  /// True when `p` lies outside the image (x < 0, y < 0, x >= columns or y >= rows).
  bool is_end(cv::Point const& p) const;

  /// Scans in row order from `position` for the left edge of an untraced foreground run,
  /// traces that region's boundary into `contour`, marks the region in the mask and moves
  /// `position` one pixel past the region's start pixel. Returns false, with `position` at
  /// (0, rows), when the scan reaches the end of the image; `contour` is then left as it was.
  /// A `position` outside the image returns false at once and is left unchanged.
  [[nodiscard]] bool search(std::vector<cv::Point>& contour, cv::Point& position,
                            unsigned char blank);

  /// Fills the polygon whose corners are `contour`, in order and closed from the last point
  /// back to the first, into `target` with `value`: its inside as cv::fillPoly fills it and its
  /// outline as cv::polylines draws it (8-connected), so four corners of a square mark the
  /// whole square. All other pixels of `target` keep their value (untouched ones stay at
  /// `background`). Corners may lie outside `target`; only the part inside is written. Returns
  /// false, writing nothing, when `target` is not CV_8UC1, `contour` is empty or the polygon
  /// covers no pixel of `target`.
  ///
  /// search() marks a traced region its own way: a traced boundary lists each pixel once, so a
  /// boundary that passes through a pixel twice (a one-pixel-wide spur or neck) jumps from the
  /// spur's tip to where the boundary goes on. As a polygon, that jump is a straight edge; the
  /// mask marks exactly the region's pixels instead.
  [[nodiscard]] bool fill(cv::Mat& target, std::vector<cv::Point> const& contour,
                          unsigned char value, unsigned char background);

 protected:
  /// Maps (image, x, y) to the pixel's linear index: y * row stride + x, which is
  /// y * columns + x for a continuous matrix.
  using accessor = std::ptrdiff_t (*)(cv::Mat const& image, int x, int y);
  static std::ptrdiff_t pixel_index(cv::Mat const& image, int x, int y) {
    return static_cast<std::ptrdiff_t>(y) * static_cast<std::ptrdiff_t>(image.step[0]) + x;
  }

  /// Traces the region whose scan-first pixel is `start` into `contour` (cleared first).
  /// False when the mask already marks `start` (a region found before).
  bool trace(std::vector<cv::Point>& contour, cv::Point const& start, unsigned char blank);
  /// Tries to move `c` one step in direction `d` (0 below left, 1 below, 2 below right,
  /// 3 right, 4 above right, 5 above, 6 above left, 7 left). The neighbour must lie inside the
  /// image with the one-pixel margin on the side of the move (waived for the start pixel,
  /// contour.front()), be foreground and have a mask
  /// count below 255. On success `c` moves, its count goes up by one, a first visit appends it
  /// to `contour`, and the result is the neighbour's linear index (>= 0); otherwise -1 and
  /// nothing changes.
  std::ptrdiff_t trace_one(std::vector<cv::Point>& contour, cv::Point& c, int d, accessor at,
                           unsigned char blank);
  /// Looks, without moving, at the neighbour of `c` in direction `d`: found is false when it
  /// fails the inside or the foreground test of trace_one(); otherwise index is its linear
  /// index when unvisited (mask 0), or -1 when visited already.
  std::pair<bool, std::ptrdiff_t> check_one(cv::Point const& c, int d, accessor at,
                                            unsigned char blank) const;

 private:
  /// How far the tracer's own mask is zeroed, and buffers kept between searches; shared by
  /// copies, as the matrices are.
  struct Work;

  /// Copies `image` into base_ and starts work_.
  void copy_base(cv::Mat const& image);
  /// Makes sure that the rows of the mask before `end` are zeroed (see Work).
  void zero_rows(int end) const;

  cv::Mat base_;
  cv::Mat mask_;
  std::shared_ptr<Work> work_;
};

inline void swap(ContourTracer& a, ContourTracer& b) noexcept {
  a.swap(b);
}

}  // namespace quib::ocv
