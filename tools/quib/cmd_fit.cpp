// quib fit line|circle|plane|sphere|poly:N POINTS.csv: least-squares, robust and RANSAC fits.
#include <quib/curve.hpp>
#include <quib/fit.hpp>
#include <quib/ransac.hpp>

#include "commands.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <fstream>
#include <ostream>

namespace quib::tool {

char const* const fitHelp =
    "usage: quib fit MODEL [--robust K] [--ransac THRESHOLD] [--json] POINTS.csv\n"
    "\n"
    "Fits a model to the points of a text file and prints its coefficients, the derived\n"
    "values and statistics of the residuals.\n"
    "\n"
    "Models:\n"
    "  line      y = a*x + b                           (2-D points, vertical residuals)\n"
    "  circle    x^2 + y^2 + a*x + b*y + c = 0         (2-D; centre and radius)\n"
    "  plane     z = a*x + b*y + c                     (3-D; unit normal and offset)\n"
    "  sphere    x^2+y^2+z^2 + a*x + b*y + c*z + d = 0  (3-D; centre and radius)\n"
    "  poly:N    y = c0*x^N + ... + cN                 (2-D, degree N from 1 to 12)\n"
    "\n"
    "The file holds one point per line, its coordinates separated by commas, semicolons or\n"
    "blanks; further columns are ignored. Blank lines, lines starting with '#' and a header\n"
    "line at the top are skipped. Points with a coordinate that is not finite are ignored.\n"
    "Residuals are vertical (y or z) for line, plane and poly, and radial distances from\n"
    "the surface for circle and sphere.\n"
    "\n"
    "Options:\n"
    "  --robust K          refit once with Tukey weights, cutting at median + K * MAD/0.6745\n"
    "  --ransac THRESHOLD  plane only: search a plane by random sampling, keep the points\n"
    "                      closer to it than THRESHOLD, then fit the plane to those\n"
    "  --probability P     wanted RANSAC success probability (default 0.99)\n"
    "  --json              print one JSON object\n";

namespace {

using P2 = Eigen::Matrix<double, 2, 1>;
using P3 = Eigen::Matrix<double, 3, 1>;

// A field as a number; "nan" and "inf" are accepted, so that such points reach the fit and are
// skipped there.
bool field(std::string const& text, double& v) {
  const char* first = text.data();
  const char* last = first + text.size();
  if (first != last && *first == '+') ++first;
  const auto r = std::from_chars(first, last, v);
  return r.ec == std::errc() && r.ptr == last;
}

// Reads rows of at least `columns` numbers.
std::vector<std::vector<double>> readPoints(std::string const& path, std::size_t columns) {
  if (std::string reason = unreadableReason(path); !reason.empty()) throw Failure(path, reason);
  std::ifstream in(path, std::ios::binary);
  if (!in) throw Failure(path, "cannot be opened");
  std::vector<std::vector<double>> rows;
  std::string line;
  std::size_t number = 0;
  bool seenData = false;
  while (std::getline(in, line)) {
    ++number;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::vector<std::string> fields;
    std::string cur;
    for (char c : line + ' ') {
      if (c == ',' || c == ';' || c == ' ' || c == '\t') {
        if (!cur.empty()) fields.push_back(cur);
        cur.clear();
      } else {
        cur += c;
      }
    }
    if (fields.empty() || fields[0][0] == '#') continue;
    std::vector<double> row;
    bool numeric = true;
    for (std::size_t i = 0; i < fields.size() && i < columns; ++i) {
      double v = 0;
      if (!field(fields[i], v)) {
        numeric = false;
        if (!seenData) break;
        throw Failure(path, "line " + std::to_string(number) + ": '" + fields[i].substr(0, 40) +
                                "' is not a number");
      }
      row.push_back(v);
    }
    if (!numeric) {
      seenData = true;  // only the first line may be a header
      continue;
    }
    seenData = true;
    if (row.size() < columns)
      throw Failure(path, "line " + std::to_string(number) + ": wants " + std::to_string(columns) +
                              " coordinates, has " + std::to_string(row.size()));
    rows.push_back(std::move(row));
  }
  if (in.bad()) throw Failure(path, "read error");
  return rows;
}

struct Stats {
  std::size_t count = 0;
  double rms = NAN;
  double meanAbs = NAN;
  double medianAbs = NAN;
  double maxAbs = NAN;
};

Stats statistics(std::vector<double> const& d) {
  std::vector<double> a;
  for (double v : d)
    if (std::isfinite(v)) a.push_back(std::fabs(v));
  Stats s;
  s.count = a.size();
  if (a.empty()) return s;
  double sq = 0, sum = 0;
  for (double v : a) {
    sq += v * v;
    sum += v;
  }
  s.rms = std::sqrt(sq / double(a.size()));
  s.meanAbs = sum / double(a.size());
  s.maxAbs = *std::max_element(a.begin(), a.end());
  std::nth_element(a.begin(), a.begin() + a.size() / 2, a.end());
  s.medianAbs = a[a.size() / 2];
  if (a.size() % 2 == 0) {
    const double lower = *std::max_element(a.begin(), a.begin() + a.size() / 2);
    s.medianAbs = 0.5 * (s.medianAbs + lower);
  }
  return s;
}

// What a fit reports, in the order it is printed.
struct Report {
  std::string model;
  std::string equation;
  std::vector<std::pair<std::string, double>> coefficients;
  std::vector<std::pair<std::string, std::vector<double>>> derived;
  std::vector<double> residuals;
  std::size_t points = 0;
  std::size_t used = 0;
  // RANSAC search (plane only): how many points it kept, and its plane.
  bool ransac = false;
  double threshold = 0;
  std::size_t inliers = 0;
  std::vector<double> ransacPoint, ransacNormal;
};

bool allFinite(Report const& r) {
  for (auto const& c : r.coefficients)
    if (!std::isfinite(c.second)) return false;
  return true;
}

template <class Point>
std::vector<Point> toPoints(std::vector<std::vector<double>> const& rows, std::size_t& finite) {
  std::vector<Point> pts;
  pts.reserve(rows.size());
  finite = 0;
  for (auto const& r : rows) {
    Point p;
    bool ok = true;
    for (int i = 0; i < p.size(); ++i) {
      p[i] = r[static_cast<std::size_t>(i)];
      ok = ok && std::isfinite(p[i]);
    }
    finite += ok;
    pts.push_back(p);
  }
  return pts;
}

template <class Fit>
Fit fitWith(typename Fit::points_type const& pts, bool robust, double k) {
  return robust ? Fit::create(pts, k) : Fit::create(pts);
}

void output(Context& ctx, std::string const& path, Report const& r) {
  const Stats s = statistics(r.residuals);
  if (ctx.json) {
    Json j = Json::object();
    j.set("file", path).set("model", r.model).set("equation", r.equation);
    j.set("points", r.points).set("used", r.used);
    Json c = Json::object();
    for (auto const& [name, v] : r.coefficients)
      c.set(name, v);
    j.set("coefficients", c);
    for (auto const& [name, v] : r.derived)
      j.set(name, v.size() == 1 ? Json(v[0]) : Json::numbers(v));
    Json res = Json::object();
    res.set("count", s.count)
        .set("rms", s.rms)
        .set("mean_abs", s.meanAbs)
        .set("median_abs", s.medianAbs)
        .set("max_abs", s.maxAbs);
    j.set("residuals", res);
    if (r.ransac) {
      Json search = Json::object();
      search.set("threshold", r.threshold)
          .set("inliers", r.inliers)
          .set("point", Json::numbers(r.ransacPoint))
          .set("normal", Json::numbers(r.ransacNormal));
      j.set("ransac", search);
    }
    j.write(ctx.out);
    return;
  }
  std::ostream& o = ctx.out;
  o << r.model << " fit of " << path << ": " << r.used << " of " << r.points << " points used\n";
  if (r.ransac) {
    o << "  RANSAC: " << r.inliers << " points within " << formatShort(r.threshold)
      << " of the plane through";
    for (double v : r.ransacPoint)
      o << ' ' << formatShort(v, 10);
    o << " with normal";
    for (double v : r.ransacNormal)
      o << ' ' << formatShort(v, 10);
    o << '\n';
  }
  o << "  " << r.equation << '\n';
  for (auto const& [name, v] : r.coefficients)
    o << "  " << name << " = " << formatShort(v, 10) << '\n';
  for (auto const& [name, v] : r.derived) {
    o << "  " << name << ' ';
    for (std::size_t i = 0; i < v.size(); ++i)
      o << (i ? ", " : "") << formatShort(v[i], 10);
    o << '\n';
  }
  o << "  residuals: rms " << formatShort(s.rms) << ", mean |r| " << formatShort(s.meanAbs)
    << ", median |r| " << formatShort(s.medianAbs) << ", max |r| " << formatShort(s.maxAbs) << '\n';
}

}  // namespace

int runFit(Context& ctx, std::vector<std::string> const& argv) {
  const Args args(argv, {{"--robust", true}, {"--ransac", true}, {"--probability", true}});
  auto const& pos = args.positional();
  if (pos.empty()) throw UsageError("missing MODEL (line, circle, plane, sphere or poly:N)");
  const std::string model = pos[0];
  int degree = 0;
  if (model.rfind("poly:", 0) == 0) {
    long long n = 0;
    if (!parseInteger(model.substr(5), n) || n < 1 || n > 12)
      throw UsageError("'" + model + "': the degree of poly:N must be from 1 to 12");
    degree = static_cast<int>(n);
  } else if (model != "line" && model != "circle" && model != "plane" && model != "sphere") {
    throw UsageError("unknown model '" + model + "'");
  }
  if (pos.size() != 2) throw UsageError("wants exactly one POINTS file");
  const bool robust = args.has("--robust");
  const double k = args.number("--robust", 0, 0, 1e6);
  const bool ransac = args.has("--ransac");
  if (ransac && model != "plane") throw UsageError("--ransac works with the plane model only");
  const double threshold = args.number("--ransac", 0, 0, 1e300);
  if (ransac && !(threshold > 0)) throw UsageError("the RANSAC threshold must be positive");
  const double probability = args.number("--probability", 0.99, 0, 1);

  std::string const& path = pos[1];
  ctx.subject = path;
  const bool threeD = model == "plane" || model == "sphere";
  const auto rows = readPoints(path, threeD ? 3 : 2);

  Report r;
  r.model = model;
  r.points = rows.size();
  if (model == "line") {
    const auto pts = toPoints<P2>(rows, r.used);
    const auto f = fitWith<quib::LeastSquaresLine>(pts, robust, k);
    r.equation = "y = a*x + b";
    r.coefficients = {{"a", f.a()}, {"b", f.b()}};
    f.get_d(r.residuals, pts);
  } else if (model == "circle") {
    const auto pts = toPoints<P2>(rows, r.used);
    const auto f = fitWith<quib::LeastSquaresCircle>(pts, robust, k);
    r.equation = "x^2 + y^2 + a*x + b*y + c = 0";
    r.coefficients = {{"a", f.a()}, {"b", f.b()}, {"c", f.c()}};
    r.derived = {{"centre", {f.x(), f.y()}}, {"radius", {f.r()}}};
    for (P2 const& p : pts)
      r.residuals.push_back((p - P2(f.x(), f.y())).norm() - f.r());
  } else if (model == "sphere") {
    const auto pts = toPoints<P3>(rows, r.used);
    const auto f = fitWith<quib::LeastSquaresSphere>(pts, robust, k);
    r.equation = "x^2 + y^2 + z^2 + a*x + b*y + c*z + d = 0";
    r.coefficients = {{"a", f.a()}, {"b", f.b()}, {"c", f.c()}, {"d", f.d()}};
    r.derived = {{"centre", {f.x(), f.y(), f.z()}}, {"radius", {f.r()}}};
    for (P3 const& p : pts)
      r.residuals.push_back((p - P3(f.x(), f.y(), f.z())).norm() - f.r());
  } else if (model == "plane") {
    auto pts = toPoints<P3>(rows, r.used);
    if (ransac) {
      quib::RANSAC_Plane<P3, double> search;
      std::vector<P3> finite;
      for (P3 const& p : pts)
        if (p.allFinite()) finite.push_back(p);
      if (!search.compute(finite, threshold, probability, 20000))
        throw Failure(
            path, "RANSAC found no plane (" + std::to_string(finite.size()) + " usable points)");
      auto const& m = search.result();
      r.ransac = true;
      r.threshold = threshold;
      r.inliers = search.indices().size();
      r.ransacPoint = {m[0].x(), m[0].y(), m[0].z()};
      r.ransacNormal = {m[3].x(), m[3].y(), m[3].z()};
      std::vector<P3> inliers;
      for (int i : search.indices())
        inliers.push_back(finite[static_cast<std::size_t>(i)]);
      pts.swap(inliers);
      r.used = pts.size();
    }
    const auto f = fitWith<quib::LeastSquaresPlane>(pts, robust, k);
    r.equation = "z = a*x + b*y + c";
    r.coefficients = {{"a", f.a()}, {"b", f.b()}, {"c", f.c()}};
    r.derived = {{"normal", {f.x(), f.y(), f.z()}}, {"offset", {f.d()}}};
    f.get_d(r.residuals, pts);
  } else {
    const auto pts = toPoints<P2>(rows, r.used);
    const auto f = robust ? quib::LeastSquaresDimension::create(1.0, degree, pts, k)
                          : quib::LeastSquaresDimension::create(1.0, degree, pts);
    r.equation = "y = c0*x^" + std::to_string(degree) + " + ... + c" + std::to_string(degree);
    for (int i = 0; i < f.size(); ++i)
      r.coefficients.push_back({"c" + std::to_string(i), f[i]});
    f.get_d(r.residuals, pts);
  }
  if (r.coefficients.empty() || !allFinite(r))
    throw Failure(path, "the points do not determine a " + model + " (" + std::to_string(r.used) +
                            " usable points)");
  output(ctx, path, r);
  return exit_code::ok;
}

}  // namespace quib::tool
