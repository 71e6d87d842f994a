// quib fit line|circle|plane|sphere|poly:N POINTS.csv: least-squares, robust and RANSAC fits.
#include <quib/curve.hpp>
#include <quib/fit.hpp>
#include <quib/ransac.hpp>

#include "commands.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <fstream>
#include <iostream>
#include <memory>
#include <ostream>

namespace quib::tool {

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
  std::ifstream file;
  if (path != "-") {
    if (std::string reason = openForReading(file, path); !reason.empty())
      throw Failure(path, reason);
  }
  std::istream& in = path == "-" ? std::cin : file;
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
  // How well the fit determined its coefficients, in the order of `coefficients`.
  quib::FitInfo info;
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
Fit fitWith(typename Fit::points_type const& pts, bool robust, double k, quib::FitInfo& info) {
  if (robust) return Fit::create(pts, k, info);
  Fit f;
  static_cast<void>(f.calculate(pts, info));
  return f;
}

void output(Context& ctx, std::string const& path, Report const& r) {
  const Stats s = statistics(r.residuals);
  if (ctx.json) {
    Json j = {{"file", path},
              {"model", r.model},
              {"equation", r.equation},
              {"points", r.points},
              {"used", r.used}};
    Json c = Json::object();
    for (auto const& [name, v] : r.coefficients)
      c[name] = v;
    j["coefficients"] = c;
    for (auto const& [name, v] : r.derived)
      j[name] = v.size() == 1 ? Json(v[0]) : Json(v);
    j["residuals"] = {{"count", s.count},
                      {"rms", s.rms},
                      {"mean_abs", s.meanAbs},
                      {"median_abs", s.medianAbs},
                      {"max_abs", s.maxAbs}};
    Json se = Json::object();
    for (std::size_t i = 0; i < r.coefficients.size(); ++i)
      se[r.coefficients[i].first] = r.info.get_standard_error(static_cast<int>(i));
    Json cov = Json::array();
    const Eigen::MatrixXd& m = r.info.get_covariance();
    for (Eigen::Index i = 0; i < m.rows(); ++i) {
      Json row = Json::array();
      for (Eigen::Index k = 0; k < m.cols(); ++k)
        row.push_back(m(i, k));
      cov.push_back(row);
    }
    j["uncertainty"] = {{"standard_errors", se},
                        {"covariance", cov},
                        {"rms", r.info.get_rms()},
                        {"sigma", r.info.get_sigma()},
                        {"points_used", r.info.get_count()}};
    if (r.ransac)
      j["ransac"] = {{"threshold", r.threshold},
                     {"inliers", r.inliers},
                     {"point", r.ransacPoint},
                     {"normal", r.ransacNormal}};
    writeJson(ctx.out, j);
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
  if (r.info.is()) {
    o << "  standard errors:";
    for (std::size_t i = 0; i < r.coefficients.size(); ++i)
      o << (i ? ", " : " ") << r.coefficients[i].first << ' '
        << formatShort(r.info.get_standard_error(static_cast<int>(i)));
    o << '\n';
  }
  for (auto const& [name, v] : r.derived) {
    o << "  " << name << ' ';
    for (std::size_t i = 0; i < v.size(); ++i)
      o << (i ? ", " : "") << formatShort(v[i], 10);
    o << '\n';
  }
  o << "  residuals: rms " << formatShort(s.rms) << ", mean |r| " << formatShort(s.meanAbs)
    << ", median |r| " << formatShort(s.medianAbs) << ", max |r| " << formatShort(s.maxAbs) << '\n';
  o << "  fit: " << r.info.get_count() << " points used, rms " << formatShort(r.info.get_rms())
    << ", sigma " << formatShort(r.info.get_sigma()) << " (of the fit's own residuals)\n";
}

struct FitOptions {
  std::string model;
  std::string points;
  double k = 0;
  double threshold = 0;
  double probability = 0.99;
  bool robust = false;
  bool ransac = false;
  bool geometric = false;
};

// "line", "circle", "plane", "sphere" or "poly:N" with N from 1 to 12; the degree, 0 for the
// others.
int degreeOf(std::string const& model) {
  if (model.rfind("poly:", 0) != 0) return 0;
  const std::string n = model.substr(5);
  if (n.empty() || n.size() > 2 || n.find_first_not_of("0123456789") != std::string::npos)
    return -1;
  const int d = std::stoi(n);
  return d >= 1 && d <= 12 ? d : -1;
}

const CLI::Validator modelName(
    [](std::string& model) -> std::string {
      if (model == "line" || model == "circle" || model == "plane" || model == "sphere") return {};
      if (model.rfind("poly:", 0) == 0 && degreeOf(model) < 0)
        return "'" + model + "': the degree of poly:N must be from 1 to 12";
      if (degreeOf(model) > 0) return {};
      return "unknown model '" + model + "' (line, circle, plane, sphere or poly:N)";
    },
    "");

void fit(Context& ctx, FitOptions const& o) {
  std::string const& model = o.model;
  const int degree = degreeOf(model);
  const bool robust = o.robust;
  const double k = o.k;
  const bool ransac = o.ransac;
  if (ransac && model != "plane") throw UsageError("--ransac works with the plane model only");
  if (o.geometric && model != "circle" && model != "sphere")
    throw UsageError("--geometric works with the circle and sphere models only");
  const double threshold = o.threshold;
  const double probability = o.probability;

  std::string const& path = o.points;
  ctx.subject = path;
  const bool threeD = model == "plane" || model == "sphere";
  const auto rows = readPoints(path, threeD ? 3 : 2);

  Report r;
  r.model = model;
  r.points = rows.size();
  if (model == "line") {
    const auto pts = toPoints<P2>(rows, r.used);
    const auto f = fitWith<quib::LeastSquaresLine>(pts, robust, k, r.info);
    r.equation = "y = a*x + b";
    r.coefficients = {{"a", f.a()}, {"b", f.b()}};
    static_cast<void>(f.get_d(r.residuals, pts));
  } else if (model == "circle" && o.geometric) {
    const auto pts = toPoints<P2>(rows, r.used);
    const auto f = fitWith<quib::GeometricCircle>(pts, robust, k, r.info);
    r.equation = "|(x, y) - (cx, cy)| = r  (orthogonal distances)";
    r.coefficients = {{"cx", f.x()}, {"cy", f.y()}, {"r", f.r()}};
    r.derived = {{"centre", {f.x(), f.y()}}, {"radius", {f.r()}}};
    static_cast<void>(f.get_d(r.residuals, pts));
  } else if (model == "sphere" && o.geometric) {
    const auto pts = toPoints<P3>(rows, r.used);
    const auto f = fitWith<quib::GeometricSphere>(pts, robust, k, r.info);
    r.equation = "|(x, y, z) - (cx, cy, cz)| = r  (orthogonal distances)";
    r.coefficients = {{"cx", f.x()}, {"cy", f.y()}, {"cz", f.z()}, {"r", f.r()}};
    r.derived = {{"centre", {f.x(), f.y(), f.z()}}, {"radius", {f.r()}}};
    static_cast<void>(f.get_d(r.residuals, pts));
  } else if (model == "circle") {
    const auto pts = toPoints<P2>(rows, r.used);
    const auto f = fitWith<quib::LeastSquaresCircle>(pts, robust, k, r.info);
    r.equation = "x^2 + y^2 + a*x + b*y + c = 0";
    r.coefficients = {{"a", f.a()}, {"b", f.b()}, {"c", f.c()}};
    r.derived = {{"centre", {f.x(), f.y()}}, {"radius", {f.r()}}};
    for (P2 const& p : pts)
      r.residuals.push_back((p - P2(f.x(), f.y())).norm() - f.r());
  } else if (model == "sphere") {
    const auto pts = toPoints<P3>(rows, r.used);
    const auto f = fitWith<quib::LeastSquaresSphere>(pts, robust, k, r.info);
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
    const auto f = fitWith<quib::LeastSquaresPlane>(pts, robust, k, r.info);
    r.equation = "z = a*x + b*y + c";
    r.coefficients = {{"a", f.a()}, {"b", f.b()}, {"c", f.c()}};
    r.derived = {{"normal", {f.x(), f.y(), f.z()}}, {"offset", {f.d()}}};
    static_cast<void>(f.get_d(r.residuals, pts));
  } else {
    const auto pts = toPoints<P2>(rows, r.used);
    quib::LeastSquaresDimension f;
    if (robust) {
      f = quib::LeastSquaresDimension::create(1.0, degree, pts, k, r.info);
    } else {
      static_cast<void>(f.calculate(degree, pts, r.info));
    }
    r.equation = "y = c0*x^" + std::to_string(degree) + " + ... + c" + std::to_string(degree);
    for (int i = 0; i < f.size(); ++i)
      r.coefficients.push_back({"c" + std::to_string(i), f[i]});
    static_cast<void>(f.get_d(r.residuals, pts));
  }
  if (r.coefficients.empty() || !allFinite(r))
    throw Failure(path, "the points do not determine a " + model + " (" + std::to_string(r.used) +
                            " usable points)");
  output(ctx, path, r);
}

}  // namespace

void add_fit_command(CLI::App& quib, Context& ctx) {
  auto o = std::make_shared<FitOptions>();
  CLI::App& cmd = addCommand(quib, "fit", paragraphs(R"(
      fit lines, circles, planes, spheres and polynomials to points

      Fits a model to the points of a text file and prints its coefficients, the derived
      values and statistics of the residuals.

      Models:
        line      y = a*x + b                            (2-D points, vertical residuals)
        circle    x^2 + y^2 + a*x + b*y + c = 0          (2-D; centre and radius)
        plane     z = a*x + b*y + c                      (3-D; unit normal and offset)
        sphere    x^2+y^2+z^2 + a*x + b*y + c*z + d = 0  (3-D; centre and radius)
        poly:N    y = c0*x^N + ... + cN                  (2-D, degree N from 1 to 12)

      The file holds one point per line, its coordinates separated by commas, semicolons or
      blanks; further columns are ignored. Blank lines, lines starting with '#' and a header
      line at the top are skipped. Points with a coordinate that is not finite are ignored.
      Residuals are vertical (y or z) for line, plane and poly, and radial distances from the
      surface for circle and sphere. Each coefficient is printed with its standard error (from
      the covariance sigma^2 (J^T J)^-1 of the fit), and the fit's own RMS residual, sigma and
      the number of points it used (after --robust or --ransac) follow; circle and sphere fits
      are algebraic unless --geometric asks for orthogonal distances.
)"));
  cmd.add_option("MODEL", o->model, "line, circle, plane, sphere or poly:N")
      ->required()
      ->check(modelName);
  cmd.add_option("POINTS", o->points, "the points file; '-' reads standard input")->required();
  cmd.add_option("--robust", o->k,
                 "refit once with Tukey weights, cutting at median + K * MAD/0.6745")
      ->type_name("K")
      ->check(CLI::Range(0.0, 1e6));
  cmd.add_option("--ransac", o->threshold,
                 "plane only: search a plane by random sampling, keep the points closer to it "
                 "than THRESHOLD, then fit the plane to those")
      ->type_name("THRESHOLD")
      ->check(CLI::PositiveNumber);
  cmd.add_flag("--geometric", o->geometric,
               "circle and sphere: fit centre and radius by orthogonal distances (unbiased on "
               "short arcs) instead of the algebraic fit");
  cmd.add_option("--probability", o->probability, "wanted RANSAC success probability")
      ->type_name("P")
      ->check(CLI::Range(0.0, 1.0))
      ->capture_default_str();
  addJsonFlag(cmd, ctx);
  onRun(cmd, ctx, [o, &cmd, &ctx] {
    o->robust = cmd.count("--robust") > 0;
    o->ransac = cmd.count("--ransac") > 0;
    fit(ctx, *o);
  });
}

}  // namespace quib::tool
