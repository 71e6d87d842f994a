#include <quib/contour.hpp>

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
#error "the row scan reads eight pixels as a little-endian word"
#endif

namespace quib::ocv {

namespace {

// Steps of the eight directions, counter-clockwise on screen starting below left.
constexpr int kDx[8] = {-1, 0, 1, 1, 1, 0, -1, -1};
constexpr int kDy[8] = {1, 1, 1, 0, -1, -1, -1, 0};

bool is_gray8(cv::Mat const& m) {
  return m.dims == 2 && m.type() == CV_8UC1;
}

// The two matrices as plain pointers and sizes. Held in a local, the values stay in registers
// while the mask is written (a write through unsigned char may alias anything reachable).
struct grid {
  unsigned char const* base;
  unsigned char* mask;
  int cols;
  int rows;
};

// Linear indices of (x, y) in base and in mask, through the caller's accessor.
struct via_accessor {
  cv::Mat const& base;
  cv::Mat const& mask;
  std::ptrdiff_t (*at)(cv::Mat const&, int, int);
  std::ptrdiff_t in_base(int x, int y) const { return at(base, x, y); }
  std::ptrdiff_t in_mask(int x, int y) const { return at(mask, x, y); }
};

// The same indices computed directly (what the default accessor computes).
struct direct {
  std::ptrdiff_t base_step;
  std::ptrdiff_t mask_step;
  std::ptrdiff_t in_base(int x, int y) const { return y * base_step + x; }
  std::ptrdiff_t in_mask(int x, int y) const { return y * mask_step + x; }
};

// Whether the neighbour (nx, ny), reached by the step (dx, dy), keeps one pixel of margin on
// the side of the move.
inline bool within_margin(grid const& g, int dx, int dy, int nx, int ny) {
  return !((dx < 0 && nx < 1) || (dx > 0 && nx > g.cols - 2) || (dy < 0 && ny < 1) ||
           (dy > 0 && ny > g.rows - 2));
}

// One step of a trace: the body of trace_one, shared with trace so that it can be inlined.
// The trace's start pixel, contour.front(), may always be re-entered: a start in the top row
// or the left column could otherwise never be reached again, and the trace would not close.
template <class Index>
inline std::ptrdiff_t step(grid const& g, Index const& index, std::vector<cv::Point>& contour,
                           cv::Point& c, int d, unsigned char blank) {
  int const dx = kDx[d & 7];
  int const dy = kDy[d & 7];
  int const nx = c.x + dx;
  int const ny = c.y + dy;
  if (!within_margin(g, dx, dy, nx, ny)) {
    bool const start = !contour.empty() && contour.front().x == nx && contour.front().y == ny;
    if (!start || nx < 0 || ny < 0 || nx >= g.cols || ny >= g.rows) return -1;
  }
  const std::ptrdiff_t at = index.in_base(nx, ny);
  if (g.base[at] == blank) return -1;
  unsigned char& count = g.mask[index.in_mask(nx, ny)];
  if (count == 255) return -1;  // worn out, or marked by the caller
  if (count == 0) contour.emplace_back(nx, ny);
  ++count;
  c = cv::Point(nx, ny);
  return at;
}

// Starts fetching the pixels two rows above and two rows below `p`.
inline void prefetch_rows(unsigned char const* p, std::ptrdiff_t step) {
#if defined(__GNUC__)
  __builtin_prefetch(p + 2 * step);
  __builtin_prefetch(p - 2 * step);
#else
  (void)p, (void)step;
#endif
}

// A look at a neighbour without moving: (found, its index, or -1 when visited already).
template <class Index>
inline std::pair<bool, std::ptrdiff_t> look(grid const& g, Index const& index, cv::Point const& c,
                                            int d, unsigned char blank) {
  int const dx = kDx[d & 7];
  int const dy = kDy[d & 7];
  int const nx = c.x + dx;
  int const ny = c.y + dy;
  if (!within_margin(g, dx, dy, nx, ny)) return {false, -1};
  const std::ptrdiff_t at = index.in_base(nx, ny);
  if (g.base[at] == blank) return {false, -1};
  if (g.mask[index.in_mask(nx, ny)] != 0) return {true, -1};
  return {true, at};
}

// The left edges among the eight pixels row[x .. x + 7], as the high bit of each byte of the
// result: a pixel differing from blank whose left neighbour (none for x == 0) equals blank.
inline std::uint64_t left_edges(unsigned char const* row, int x, std::uint64_t blank_word,
                                unsigned char blank) {
  std::uint64_t word;
  std::memcpy(&word, row + x, sizeof word);
  // High bit of each byte set where the pixel differs from blank (exact per byte: the low
  // seven bits are summed without carry across bytes).
  const std::uint64_t v = word ^ blank_word;
  const std::uint64_t low = 0x7f7f7f7f7f7f7f7full;
  const std::uint64_t differs = (((v & low) + low) | v) & ~low;
  // Bytes are in memory order, so the left neighbour of byte k is byte k - 1 (little endian
  // shift by 8); the neighbour of byte 0 is row[x - 1].
  const std::uint64_t before = x > 0 && row[x - 1] != blank ? 0x80u : 0u;
  const std::uint64_t left_differs = (differs << 8) | before;
  return differs & ~left_differs;
}

// The index of the lowest byte whose high bit is set.
inline unsigned lowest_byte(std::uint64_t bits) {
  unsigned k = 0;
  while ((bits & 0x80u) == 0) {
    bits >>= 8;
    ++k;
  }
  return k;
}

// The first start candidate at or after x in a row: a pixel that differs from blank and whose
// left neighbour (none in column 0) equals blank. `cols` when there is none. Runs of pixels
// without a candidate are skipped sixty-four, sixteen or eight at a time.
inline int next_left_edge(unsigned char const* row, int x, int cols, unsigned char blank) {
#if defined(__SSE2__)
  const __m128i blanks = _mm_set1_epi8(static_cast<char>(blank));
  // Bit k set where pixel x + k differs from blank, for k < 16.
  auto const differs16 = [&](int at) {
    const __m128i pixels = _mm_loadu_si128(reinterpret_cast<__m128i const*>(row + at));
    return static_cast<std::uint64_t>(~_mm_movemask_epi8(_mm_cmpeq_epi8(pixels, blanks)) & 0xffff);
  };
  if (x + 64 <= cols) {
    std::uint64_t carry = x > 0 && row[x - 1] != blank ? 1u : 0u;  // the pixel before x
    for (; x + 64 <= cols; x += 64) {
      const std::uint64_t differs = differs16(x) | differs16(x + 16) << 16 |
                                    differs16(x + 32) << 32 | differs16(x + 48) << 48;
      const std::uint64_t edges = differs & ~((differs << 1) | carry);
      if (edges != 0) return x + __builtin_ctzll(edges);
      carry = differs >> 63;
    }
  }
  for (; x + 16 <= cols; x += 16) {
    const __m128i pixels = _mm_loadu_si128(reinterpret_cast<__m128i const*>(row + x));
    unsigned const same = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(pixels, blanks)));
    unsigned const differs = ~same & 0xffffu;  // bit k: pixel x + k differs from blank
    unsigned const before = x > 0 && row[x - 1] != blank ? 1u : 0u;
    unsigned const edges = differs & ~((differs << 1) | before);
    if (edges != 0) return x + __builtin_ctz(edges);
  }
#endif
  const std::uint64_t blank_word = 0x0101010101010101ull * blank;
  for (; x + 8 <= cols; x += 8) {
    const std::uint64_t edges = left_edges(row, x, blank_word, blank);
    if (edges != 0) return x + static_cast<int>(lowest_byte(edges));
  }
  for (; x < cols; ++x) {
    if (row[x] != blank && (x == 0 || row[x - 1] == blank)) return x;
  }
  return cols;
}

// out[i] = value wherever canvas[i] is not 2 (outside), for i < n.
inline void write_unless_outside(unsigned char* out, unsigned char const* canvas, int n,
                                 unsigned char value) {
  int i = 0;
#if defined(__SSE2__)
  const __m128i outside = _mm_set1_epi8(2);
  const __m128i values = _mm_set1_epi8(static_cast<char>(value));
  for (; i + 16 <= n; i += 16) {
    const __m128i keep =
        _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<__m128i const*>(canvas + i)), outside);
    const __m128i old = _mm_loadu_si128(reinterpret_cast<__m128i const*>(out + i));
    const __m128i merged = _mm_or_si128(_mm_and_si128(keep, old), _mm_andnot_si128(keep, values));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), merged);
  }
#endif
  for (; i < n; ++i) {
    if (canvas[i] != 2) out[i] = value;
  }
}

// What mark_traced works in, kept from one call to the next.
struct mark_buffers {
  std::vector<unsigned char> canvas;
  std::vector<int> first, last;
  std::vector<cv::Point> pending;
};

// Marks a traced boundary and everything it encloses with `value`. The boundary is a closed
// chain of pixels listed once each: consecutive points that are not neighbours are not joined,
// since the trace passed through listed pixels between them.
bool mark_traced(cv::Mat& target, std::vector<cv::Point> const& contour, unsigned char value,
                 mark_buffers& buffers) {
  const cv::Rect bounds(0, 0, target.cols, target.rows);
  int x0 = INT_MAX, y0 = INT_MAX, x1 = INT_MIN, y1 = INT_MIN;
  for (cv::Point const& p : contour) {
    if (!bounds.contains(p)) continue;
    x0 = std::min(x0, p.x);
    y0 = std::min(y0, p.y);
    x1 = std::max(x1, p.x);
    y1 = std::max(y1, p.y);
  }
  if (x0 > x1) return false;  // no point inside the target

  // A canvas over the bounding rectangle: 1 marks the outline, 2 the outside. A closed
  // 8-connected chain of pixels cannot be crossed by a 4-connected path, so what is not outside
  // is the outline and the pixels it encloses. On each row, everything left of the first
  // outline pixel and right of the last one is outside without looking (as are the rows
  // beyond the rectangle); only the zeros between them need telling apart. An outside one is
  // reached from there through a vertical step (a horizontal step meets the first or last
  // outline pixel), so those steps seed a span flood, which for a convex region never runs.
  int const w = x1 - x0 + 1;
  int const h = y1 - y0 + 1;
  const std::ptrdiff_t pitch = w;
  std::vector<unsigned char>& canvas = buffers.canvas;
  std::vector<int>& first = buffers.first;
  std::vector<int>& last = buffers.last;
  canvas.assign(static_cast<std::size_t>(pitch) * h, 0);
  first.assign(static_cast<std::size_t>(h), INT_MAX);
  last.assign(static_cast<std::size_t>(h), INT_MIN);
  for (cv::Point const& p : contour) {
    if (!bounds.contains(p)) continue;
    int const y = p.y - y0;
    int const x = p.x - x0;
    canvas[y * pitch + x] = 1;
    first[y] = std::min(first[y], x);
    last[y] = std::max(last[y], x);
  }
  unsigned char* const cells = canvas.data();
  // Whether (x, y) is a zero between the row's first and last outline pixels.
  auto open = [&](int x, int y) {
    return x > first[y] && x < last[y] && cells[y * pitch + x] == 0;
  };
  std::vector<cv::Point>& pending = buffers.pending;
  pending.clear();
  for (int y = 0; y < h; ++y) {
    if (first[y] >= last[y]) continue;
    for (int ny : {y - 1, y + 1}) {
      // The columns of this row's inner part that lie outside the neighbour row's outline.
      int lo1 = first[y] + 1, hi1 = last[y] - 1;  // all of them when there is no neighbour
      int lo2 = 1, hi2 = 0;
      if (ny >= 0 && ny < h && first[ny] <= last[ny]) {
        hi1 = std::min(hi1, first[ny] - 1);
        lo2 = std::max(first[y] + 1, last[ny] + 1);
        hi2 = last[y] - 1;
      }
      for (int x = lo1; x <= hi1; ++x)
        if (cells[y * pitch + x] == 0) pending.emplace_back(x, y);
      for (int x = lo2; x <= hi2; ++x)
        if (cells[y * pitch + x] == 0) pending.emplace_back(x, y);
    }
  }
  // A span flood over the inner zeros: fill the whole run around a seed, then seed the runs
  // above and below it.
  while (!pending.empty()) {
    const cv::Point seed = pending.back();
    pending.pop_back();
    if (!open(seed.x, seed.y)) continue;
    unsigned char* row = cells + seed.y * pitch;
    int left = seed.x;
    int right = seed.x;
    while (open(left - 1, seed.y))
      --left;
    while (open(right + 1, seed.y))
      ++right;
    std::memset(row + left, 2, static_cast<std::size_t>(right - left + 1));
    for (int ny : {seed.y - 1, seed.y + 1}) {
      if (ny < 0 || ny >= h) continue;
      int x = std::max(left, first[ny] + 1);
      int const end = std::min(right, last[ny] - 1);
      while (x <= end) {
        if (!open(x, ny)) {
          ++x;
          continue;
        }
        pending.emplace_back(x, ny);  // one seed per free run
        while (x <= end && open(x, ny))
          ++x;
      }
    }
  }
  for (int y = 0; y < h; ++y) {
    if (first[y] <= last[y]) {
      unsigned char* out = target.ptr<unsigned char>(y0 + y) + x0;
      write_unless_outside(out + first[y], cells + y * pitch + first[y], last[y] - first[y] + 1,
                           value);
    }
  }
  return true;
}

// The polygon cut to the rectangle [x, x + width] x [y, y + height] (Sutherland-Hodgman, one
// side after another); a polygon of any shape keeps its part inside the rectangle.
std::vector<cv::Point2d> clip_polygon(std::vector<cv::Point> const& contour, cv::Rect2d const& r) {
  std::vector<cv::Point2d> polygon(contour.begin(), contour.end());
  std::vector<cv::Point2d> next;
  for (int side = 0; side < 4 && !polygon.empty(); ++side) {
    // Signed distance inside the side (>= 0 inside).
    auto inside = [&](cv::Point2d const& p) {
      switch (side) {
        case 0:
          return p.x - r.x;
        case 1:
          return r.x + r.width - p.x;
        case 2:
          return p.y - r.y;
        default:
          return r.y + r.height - p.y;
      }
    };
    next.clear();
    cv::Point2d previous = polygon.back();
    double dp = inside(previous);
    for (cv::Point2d const& p : polygon) {
      double const d = inside(p);
      if ((d >= 0) != (dp >= 0)) next.push_back(previous + (p - previous) * (dp / (dp - d)));
      if (d >= 0) next.push_back(p);
      previous = p;
      dp = d;
    }
    polygon.swap(next);
  }
  return polygon;
}

}  // namespace

// A mask the tracer starts itself is zeroed a few rows ahead of where search() reads or writes
// it, rather than all at once, so that the rows are still in the cache when they are traced.
// The buffers that marking a traced region needs are kept from one region to the next.
struct ContourTracer::Work {
  int zeroed_rows = 0;  // mask rows from here on are not zeroed yet
  mark_buffers buffers;
};

void ContourTracer::copy_base(cv::Mat const& image) {
  work_ = std::make_shared<Work>();
  // Bottom row first: the rows a search reads first are then the ones most likely still in
  // the cache.
  base_.create(image.rows, image.cols, CV_8UC1);
  for (int y = image.rows - 1; y >= 0; --y)
    std::memcpy(base_.ptr<unsigned char>(y), image.ptr<unsigned char>(y),
                static_cast<std::size_t>(image.cols));
}

ContourTracer::ContourTracer(cv::Mat& image) {
  if (!is_gray8(image)) return;
  copy_base(image);
  mask_.create(image.rows, image.cols, CV_8UC1);  // zeroed as the search goes (zero_rows)
}

ContourTracer::ContourTracer(cv::Mat& image, cv::Mat& mask) {
  if (!is_gray8(image) || !is_gray8(mask) || image.size() != mask.size()) return;
  copy_base(image);
  mask_ = mask;
  work_->zeroed_rows = mask.rows;
}

void ContourTracer::swap(ContourTracer& other) noexcept {
  std::swap(base_, other.base_);
  std::swap(mask_, other.mask_);
  std::swap(work_, other.work_);
}

bool ContourTracer::create(cv::Mat& image) {
  ContourTracer made(image);
  if (made.base_.total() == 0) return false;
  swap(made);
  return true;
}

bool ContourTracer::create(cv::Mat& image, cv::Mat& mask) {
  ContourTracer made(image, mask);
  if (made.base_.total() == 0) return false;
  swap(made);
  return true;
}

void ContourTracer::release() {
  base_.release();
  mask_.release();
  work_.reset();
}

cv::Mat ContourTracer::mask() const {
  zero_rows(mask_.rows);
  return mask_;
}

void ContourTracer::zero_rows(int end) const {
  if (!work_ || work_->zeroed_rows >= end) return;
  // A few rows at a time, so that the test is rare and the rows are still cached when used.
  constexpr int kRowsAhead = 16;
  int const from = work_->zeroed_rows;
  end = std::min(mask_.rows, std::max(end, from + kRowsAhead));
  for (int y = from; y < end; ++y)
    std::memset(mask_.data + y * mask_.step[0], 0, static_cast<std::size_t>(mask_.cols));
  work_->zeroed_rows = end;
}

bool ContourTracer::is_end(cv::Point const& p) const {
  return p.x < 0 || p.y < 0 || p.x >= base_.cols || p.y >= base_.rows;
}

bool ContourTracer::search(std::vector<cv::Point>& contour, cv::Point& position,
                           unsigned char blank) {
  if (empty() || is_end(position)) return false;
  int const rows = base_.rows;
  int const cols = base_.cols;
  int x = position.x;
  for (int y = position.y; y < rows; ++y, x = 0) {
    zero_rows(y + 1);
    unsigned char const* row = base_.ptr<unsigned char>(y);
    unsigned char const* marks = mask_.ptr<unsigned char>(y);
    for (x = next_left_edge(row, x, cols, blank); x < cols;
         x = next_left_edge(row, x + 1, cols, blank)) {
      // A start inside a region found before is passed over without a call.
      if (marks[x] == 0 && trace(contour, cv::Point(x, y), blank)) {
        mark_traced(mask_, contour, F_MASK, work_->buffers);
        position = x + 1 < cols ? cv::Point(x + 1, y) : cv::Point(0, y + 1);
        return true;
      }
    }
  }
  position = cv::Point(0, rows);
  return false;
}

bool ContourTracer::trace(std::vector<cv::Point>& contour, cv::Point const& start,
                          unsigned char blank) {
  const grid g{base_.data, mask_.data, base_.cols, base_.rows};
  const direct index{static_cast<std::ptrdiff_t>(base_.step[0]),
                     static_cast<std::ptrdiff_t>(mask_.step[0])};
  // The mask rows that the neighbours of a pixel in row y lie in, up to y + 1, are zeroed
  // before that pixel is looked around; `ready` mirrors *zeroed_ in a register.
  int ready = work_ ? work_->zeroed_rows : INT_MAX;
  auto const reach = [&](int y) {
    if (y + 2 > ready && ready < g.rows) {
      zero_rows(y + 2);
      ready = work_->zeroed_rows;
    }
  };
  reach(start.y);
  unsigned char& first = g.mask[index.in_mask(start.x, start.y)];
  if (first != 0) return false;  // part of a region found before
  contour.clear();
  first = 1;
  contour.push_back(start);

  // Neighbour offsets of the eight directions in base and in mask.
  std::ptrdiff_t base_off[8];
  std::ptrdiff_t mask_off[8];
  for (int d = 0; d < 8; ++d) {
    base_off[d] = kDy[d] * index.base_step + kDx[d];
    mask_off[d] = kDy[d] * index.mask_step + kDx[d];
  }

  int s = 0;
  cv::Point q = start;
  for (;;) {
    reach(q.y);
    bool moved = false;
    if (q.x >= 2 && q.y >= 2 && q.x <= g.cols - 3 && q.y <= g.rows - 3) {
      // Two pixels from every border, each neighbour keeps the margin: the step of trace_one
      // without the border tests.
      const std::ptrdiff_t here_base = index.in_base(q.x, q.y);
      const std::ptrdiff_t here_mask = index.in_mask(q.x, q.y);
      for (int k = 0; k < 8; ++k) {
        int const d = (s + k) & 7;
        if (g.base[here_base + base_off[d]] == blank) continue;
        unsigned char& count = g.mask[here_mask + mask_off[d]];
        if (count == 255) continue;
        q.x += kDx[d];
        q.y += kDy[d];
        // The rows two above and two below (inside the image, as q was two pixels from every
        // border), which the next steps may reach, start to arrive from memory meanwhile.
        prefetch_rows(g.base + here_base, index.base_step);
        prefetch_rows(g.mask + here_mask, index.mask_step);
        if (count == 0) contour.push_back(q);
        ++count;
        s = (d + 6) & 7;  // two steps back from the direction of arrival
        moved = true;
        break;
      }
    } else {
      for (int k = 0; k < 8; ++k) {
        int const d = (s + k) & 7;
        if (step(g, index, contour, q, d, blank) >= 0) {
          s = (d + 6) & 7;
          moved = true;
          break;
        }
      }
    }
    if (!moved) break;  // isolated pixel, or every neighbour worn out
    if (q != start) continue;
    // Back at the start: go on only when the boundary passes through it again towards an
    // unvisited neighbour.
    bool again = false;
    for (int k = 0; k < 8; ++k) {
      auto const [found, at] = look(g, index, start, (s + k) & 7, blank);
      if (found) {
        again = at >= 0;
        break;
      }
    }
    if (!again) break;
  }
  return true;
}

std::ptrdiff_t ContourTracer::trace_one(std::vector<cv::Point>& contour, cv::Point& c, int d,
                                        accessor at, unsigned char blank) {
  zero_rows(mask_.rows);
  const grid g{base_.data, mask_.data, base_.cols, base_.rows};
  return step(g, via_accessor{base_, mask_, at}, contour, c, d, blank);
}

std::pair<bool, std::ptrdiff_t> ContourTracer::check_one(cv::Point const& c, int d, accessor at,
                                                         unsigned char blank) const {
  zero_rows(mask_.rows);
  const grid g{base_.data, mask_.data, base_.cols, base_.rows};
  return look(g, via_accessor{base_, mask_, at}, c, d, blank);
}

bool ContourTracer::fill(cv::Mat& target, std::vector<cv::Point> const& contour,
                         unsigned char value, unsigned char /*background*/) {
  if (!is_gray8(target) || target.empty() || contour.empty()) return false;
  std::int64_t x0 = INT64_MAX, y0 = INT64_MAX, x1 = INT64_MIN, y1 = INT64_MIN;
  for (cv::Point const& p : contour) {
    x0 = std::min<std::int64_t>(x0, p.x);
    y0 = std::min<std::int64_t>(y0, p.y);
    x1 = std::max<std::int64_t>(x1, p.x);
    y1 = std::max<std::int64_t>(y1, p.y);
  }
  // The part of the target that the polygon's bounding box covers.
  int const left = static_cast<int>(std::max<std::int64_t>(x0, 0));
  int const top = static_cast<int>(std::max<std::int64_t>(y0, 0));
  int const right = static_cast<int>(std::min<std::int64_t>(x1, target.cols - 1));
  int const bottom = static_cast<int>(std::min<std::int64_t>(y1, target.rows - 1));
  if (left > right || top > bottom) return false;
  const cv::Rect area(left, top, right - left + 1, bottom - top + 1);

  // OpenCV's polygon filler works in 16.16 fixed point, so a polygon reaching far outside is
  // first clipped to one pixel around the area; inside the area it is the same polygon.
  std::vector<cv::Point> polygon;
  polygon.reserve(contour.size());
  if (x0 >= left - 1 && y0 >= top - 1 && x1 <= right + 1 && y1 <= bottom + 1) {
    for (cv::Point const& p : contour)
      polygon.emplace_back(p.x - left, p.y - top);
  } else {
    std::vector<cv::Point2d> clipped = clip_polygon(
        contour, cv::Rect2d(left - 1.0, top - 1.0, area.width + 1.0, area.height + 1.0));
    for (cv::Point2d const& p : clipped)
      polygon.emplace_back(cvRound(p.x) - left, cvRound(p.y) - top);
  }
  if (polygon.empty()) return false;

  // Drawn on a canvas over the area, so that what was written can be told: the inside as
  // cv::fillPoly fills it, and the outline as cv::polylines draws it.
  cv::Mat canvas = cv::Mat::zeros(area.size(), CV_8UC1);
  std::vector<std::vector<cv::Point>> const polygons{polygon};
  cv::fillPoly(canvas, polygons, cv::Scalar(1), cv::LINE_8);
  cv::polylines(canvas, polygons, true, cv::Scalar(1), 1, cv::LINE_8);
  if (cv::countNonZero(canvas) == 0) return false;
  target(area).setTo(cv::Scalar(value), canvas);
  return true;
}

}  // namespace quib::ocv
