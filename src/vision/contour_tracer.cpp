#include <quib/contour.hpp>

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>

namespace quib::ocv {

namespace {

// Steps of the eight directions, counter-clockwise on screen starting below left.
constexpr int kDx[8] = {-1, 0, 1, 1, 1, 0, -1, -1};
constexpr int kDy[8] = {1, 1, 1, 0, -1, -1, -1, 0};

bool is_gray8(cv::Mat const& m) {
  return m.dims == 2 && m.type() == CV_8UC1;
}

}  // namespace

ContourTracer::ContourTracer(cv::Mat& image) {
  if (!is_gray8(image)) return;
  base_ = image.clone();
  mask_ = cv::Mat::zeros(image.rows, image.cols, CV_8UC1);
}

ContourTracer::ContourTracer(cv::Mat& image, cv::Mat& mask) {
  if (!is_gray8(image) || !is_gray8(mask) || image.size() != mask.size()) return;
  base_ = image.clone();
  mask_ = mask;
}

void ContourTracer::swap(ContourTracer& other) noexcept {
  std::swap(base_, other.base_);
  std::swap(mask_, other.mask_);
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
}

bool ContourTracer::is_end(cv::Point const& p) const {
  return p.x < 0 || p.y < 0 || p.x >= base_.cols || p.y >= base_.rows;
}

bool ContourTracer::search(std::vector<cv::Point>& contour, cv::Point& position,
                           unsigned char blank) {
  if (empty() || is_end(position)) return false;
  const int rows = base_.rows;
  const int cols = base_.cols;
  // Eight blank pixels as one word, to skip empty stretches of a row quickly.
  const std::uint64_t blank_word = 0x0101010101010101ull * blank;
  int x = position.x;
  for (int y = position.y; y < rows; ++y, x = 0) {
    const unsigned char* row = base_.ptr<unsigned char>(y);
    while (x < cols) {
      if (x + 8 <= cols) {
        std::uint64_t word;
        std::memcpy(&word, row + x, sizeof word);
        if (word == blank_word) {
          x += 8;
          continue;
        }
      }
      // A start candidate is the left edge of a foreground run.
      if (row[x] != blank && (x == 0 || row[x - 1] == blank) &&
          trace(contour, cv::Point(x, y), blank)) {
        fill(mask_, contour, F_MASK, F_BLANK);
        position = x + 1 < cols ? cv::Point(x + 1, y) : cv::Point(0, y + 1);
        return true;
      }
      ++x;
    }
  }
  position = cv::Point(0, rows);
  return false;
}

bool ContourTracer::trace(std::vector<cv::Point>& contour, cv::Point const& start,
                          unsigned char blank) {
  unsigned char& first = mask_.data[pixel_index(mask_, start.x, start.y)];
  if (first != 0) return false;  // part of a region found before
  contour.clear();
  first = 1;
  contour.push_back(start);

  int s = 0;
  cv::Point q = start;
  for (;;) {
    bool moved = false;
    for (int k = 0; k < 8; ++k) {
      const int d = (s + k) & 7;
      if (trace_one(contour, q, d, &pixel_index, blank) >= 0) {
        s = (d + 6) & 7;  // two steps back from the direction of arrival
        moved = true;
        break;
      }
    }
    if (!moved) break;  // isolated pixel, or every neighbour worn out
    if (q != start) continue;
    // Back at the start: go on only when the boundary passes through it again towards an
    // unvisited neighbour.
    bool again = false;
    for (int k = 0; k < 8; ++k) {
      const auto [found, index] = check_one(start, (s + k) & 7, &pixel_index, blank);
      if (found) {
        again = index >= 0;
        break;
      }
    }
    if (!again) break;
  }
  return true;
}

std::ptrdiff_t ContourTracer::trace_one(std::vector<cv::Point>& contour, cv::Point& c, int d,
                                        accessor at, unsigned char blank) {
  const int dx = kDx[d & 7];
  const int dy = kDy[d & 7];
  const int nx = c.x + dx;
  const int ny = c.y + dy;
  // One pixel of margin on the side of the move.
  if ((dx < 0 && nx < 1) || (dx > 0 && nx > base_.cols - 2) || (dy < 0 && ny < 1) ||
      (dy > 0 && ny > base_.rows - 2))
    return -1;
  if (base_.data[at(base_, nx, ny)] == blank) return -1;
  unsigned char& count = mask_.data[at(mask_, nx, ny)];
  if (count == 255) return -1;  // worn out, or marked by the caller
  if (count == 0) contour.emplace_back(nx, ny);
  ++count;
  c = cv::Point(nx, ny);
  return at(base_, nx, ny);
}

std::pair<bool, std::ptrdiff_t> ContourTracer::check_one(cv::Point const& c, int d, accessor at,
                                                         unsigned char blank) const {
  const int dx = kDx[d & 7];
  const int dy = kDy[d & 7];
  const int nx = c.x + dx;
  const int ny = c.y + dy;
  if ((dx < 0 && nx < 1) || (dx > 0 && nx > base_.cols - 2) || (dy < 0 && ny < 1) ||
      (dy > 0 && ny > base_.rows - 2))
    return {false, -1};
  if (base_.data[at(base_, nx, ny)] == blank) return {false, -1};
  if (mask_.data[at(mask_, nx, ny)] != 0) return {true, -1};
  return {true, at(base_, nx, ny)};
}

bool ContourTracer::fill(cv::Mat& target, std::vector<cv::Point> const& contour,
                         unsigned char value, unsigned char /*background*/) {
  if (!is_gray8(target) || target.empty()) return false;
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

  // A canvas over the bounding rectangle with one free pixel all round: 1 marks the outline,
  // and a 4-connected flood from the free frame marks the outside with 2. A closed 8-connected
  // chain of pixels cannot be crossed by a 4-connected flood, so what stays below 2 is the
  // outline and the pixels it encloses.
  const int w = x1 - x0 + 1;
  const int h = y1 - y0 + 1;
  cv::Mat canvas = cv::Mat::zeros(h + 2, w + 2, CV_8UC1);
  for (cv::Point const& p : contour) {
    if (bounds.contains(p)) canvas.at<unsigned char>(p.y - y0 + 1, p.x - x0 + 1) = 1;
  }
  cv::floodFill(canvas, cv::Point(0, 0), cv::Scalar(2), nullptr, cv::Scalar(0), cv::Scalar(0), 4);
  for (int y = 0; y < h; ++y) {
    const unsigned char* in = canvas.ptr<unsigned char>(y + 1) + 1;
    unsigned char* out = target.ptr<unsigned char>(y0 + y) + x0;
    for (int x = 0; x < w; ++x) {
      if (in[x] != 2) out[x] = value;
    }
  }
  return true;
}

}  // namespace quib::ocv
