// quib fit on generated point files.
#include "tool_runner.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <sstream>
#include <string>

namespace {

using quib::test::failsWith;
using quib::test::runTool;

class FitTool : public quib::test::ToolFiles {};

// The number printed after `key` in JSON output, or NaN.
double jsonNumber(std::string const& out, std::string const& key) {
  const auto at = out.find("\"" + key + "\": ");
  if (at == std::string::npos) return NAN;
  return std::strtod(out.c_str() + at + key.size() + 4, nullptr);
}

// The first number of the array printed after `key`.
double jsonFirst(std::string const& out, std::string const& key) {
  const auto at = out.find("\"" + key + "\": [");
  if (at == std::string::npos) return NAN;
  return std::strtod(out.c_str() + at + key.size() + 5, nullptr);
}

TEST_F(FitTool, FitsEachModelToItsPoints) {
  std::mt19937 rng(7);
  std::normal_distribution<double> noise(0, 0.01);
  std::ostringstream line, circle, plane, sphere, poly;
  for (auto* s : {&line, &circle, &plane, &sphere, &poly})
    s->precision(17);
  line << "x,y\n# a comment line\n\n";
  for (int i = 0; i < 40; ++i) {
    const double t = i * 0.25, a = i * 0.157;
    line << t << ", " << 2 * t + 1 << '\n';
    circle << 3 + 5 * std::cos(a) + noise(rng) << ';' << -2 + 5 * std::sin(a) + noise(rng) << '\n';
    plane << t << '\t' << (i % 7) << '\t' << 0.5 * t - 0.25 * (i % 7) + 4 << "\textra\n";
    sphere << 1 + 2 * std::sin(a) * std::cos(3 * a) << ' ' << 2 * std::sin(a) * std::sin(3 * a)
           << ' ' << -1 + 2 * std::cos(a) << '\n';
    poly << t << ',' << t * t * t - 2 * t + 0.5 << '\n';
  }
  line << "nan,3\n";  // skipped by the fit

  const auto l = runTool({"fit", "line", "--json", writeFile("line.csv", line.str())});
  ASSERT_EQ(l.code, 0) << l.err;
  EXPECT_NEAR(jsonNumber(l.out, "a"), 2, 1e-12);
  EXPECT_NEAR(jsonNumber(l.out, "b"), 1, 1e-12);
  EXPECT_EQ(jsonNumber(l.out, "points"), 41);
  EXPECT_EQ(jsonNumber(l.out, "used"), 40);

  const auto c = runTool({"fit", "circle", "--json", writeFile("circle.csv", circle.str())});
  ASSERT_EQ(c.code, 0) << c.err;
  EXPECT_NEAR(jsonFirst(c.out, "centre"), 3, 0.01);
  EXPECT_NEAR(jsonNumber(c.out, "radius"), 5, 0.01);
  EXPECT_NEAR(jsonNumber(c.out, "rms"), 0.01, 0.005);  // radial residuals: the noise itself

  const auto p = runTool({"fit", "plane", writeFile("plane.csv", plane.str())});
  ASSERT_EQ(p.code, 0) << p.err;
  EXPECT_NE(p.out.find("a = 0.5\n"), std::string::npos) << p.out;
  EXPECT_NE(p.out.find("c = 4\n"), std::string::npos) << p.out;

  const auto s = runTool({"fit", "sphere", "--json", writeFile("sphere.csv", sphere.str())});
  ASSERT_EQ(s.code, 0) << s.err;
  EXPECT_NEAR(jsonNumber(s.out, "radius"), 2, 1e-9);
  EXPECT_NEAR(jsonFirst(s.out, "centre"), 1, 1e-9);

  const auto q = runTool({"fit", "poly:3", "--json", writeFile("poly.csv", poly.str())});
  ASSERT_EQ(q.code, 0) << q.err;
  EXPECT_NEAR(jsonNumber(q.out, "c0"), 1, 1e-6);
  EXPECT_NEAR(jsonNumber(q.out, "c2"), -2, 1e-6);
}

TEST_F(FitTool, RobustAndRansacFitsIgnoreOutliers) {
  // Every sixth point lies 20 above or below the plane, in turn.
  std::ostringstream pts;
  for (int i = 0; i < 60; ++i) {
    const double x = i % 10, y = i / 10;
    const double off = i % 6 != 0 ? 0 : (i / 6) % 2 ? -20 : 20;
    pts << x << ',' << y << ',' << 0.2 * x - 0.1 * y + 3 + off << '\n';
  }
  const std::string path = writeFile("outliers.csv", pts.str());
  const auto plain = runTool({"fit", "plane", "--json", path});
  ASSERT_EQ(plain.code, 0);
  EXPECT_GT(jsonNumber(plain.out, "rms"), 1);

  const auto ransac = runTool({"fit", "plane", "--ransac", "0.01", "--json", path});
  ASSERT_EQ(ransac.code, 0) << ransac.err;
  EXPECT_NEAR(jsonNumber(ransac.out, "a"), 0.2, 1e-9);
  EXPECT_NEAR(jsonNumber(ransac.out, "c"), 3, 1e-9);
  EXPECT_EQ(jsonNumber(ransac.out, "inliers"), 50);

  const auto robust = runTool({"fit", "plane", "--robust", "2", "--json", path});
  ASSERT_EQ(robust.code, 0) << robust.err;
  EXPECT_NEAR(jsonNumber(robust.out, "c"), 3, 1e-6);
}

TEST_F(FitTool, FailsOnUnusablePointFiles) {
  EXPECT_TRUE(failsWith(runTool({"fit", "line", writeFile("same.csv", "1,1\n1,2\n1,3\n")}), 1,
                        "do not determine a line"));
  EXPECT_TRUE(failsWith(runTool({"fit", "circle", writeFile("empty.csv", "")}), 1,
                        "empty.csv: the points do not determine a circle (0 usable points)"));
  EXPECT_TRUE(failsWith(runTool({"fit", "line", writeFile("bad.csv", "x,y\n1,2\n3,oops\n")}), 1,
                        "bad.csv: line 3: 'oops' is not a number"));
  EXPECT_TRUE(failsWith(runTool({"fit", "plane", writeFile("flat.csv", "1,2\n3,4\n5,6\n")}), 1,
                        "line 1: wants 3 coordinates, has 2"));
  EXPECT_TRUE(failsWith(runTool({"fit", "line", file("none.csv")}), 1, "no such file"));
  EXPECT_TRUE(
      failsWith(runTool({"fit", "plane", "--ransac", "1", writeFile("two.csv", "0,0,0\n1,1,1\n")}),
                1, "RANSAC found no plane"));
}

TEST_F(FitTool, RefusesBadArguments) {
  EXPECT_TRUE(failsWith(runTool({"fit"}), 2, "MODEL is required"));
  EXPECT_TRUE(failsWith(runTool({"fit", "ellipse", "p.csv"}), 2, "unknown model 'ellipse'"));
  EXPECT_TRUE(failsWith(runTool({"fit", "poly:0", "p.csv"}), 2, "from 1 to 12"));
  EXPECT_TRUE(failsWith(runTool({"fit", "poly:x", "p.csv"}), 2, "from 1 to 12"));
  EXPECT_TRUE(
      failsWith(runTool({"fit", "circle", "--ransac", "1", "p.csv"}), 2, "plane model only"));
  EXPECT_TRUE(failsWith(runTool({"fit", "plane", "--ransac", "0", "p.csv"}), 2, "--ransac"));
  EXPECT_TRUE(failsWith(runTool({"fit", "line", "--robust", "-1", "p.csv"}), 2, "--robust"));
  EXPECT_TRUE(failsWith(runTool({"fit", "line", "a.csv", "b.csv"}), 2, "unexpected argument"));
}

TEST_F(FitTool, PrintsUncertaintyAndFitsArcsGeometrically) {
  std::mt19937 rng(3);
  std::normal_distribution<double> noise(0, 0.02);
  std::ostringstream arc;
  arc.precision(17);
  for (int i = 0; i < 60; ++i) {
    const double a = 0.5236 * i / 59, r = 10 + noise(rng);
    arc << 1 + r * std::cos(a) << ',' << 2 + r * std::sin(a) << '\n';
  }
  const std::string file = writeFile("arc.csv", arc.str());
  const auto g = runTool({"fit", "circle", "--geometric", "--json", file});
  ASSERT_EQ(g.code, 0) << g.err;
  const std::string errors = g.out.substr(g.out.find("\"standard_errors\""));
  const double se = jsonNumber(errors, "r");
  EXPECT_GT(se, 0.0);
  EXPECT_LT(se, 1.0);
  EXPECT_NEAR(jsonNumber(g.out, "radius"), 10, 4 * se);
  EXPECT_EQ(jsonNumber(g.out, "points_used"), 60);
  EXPECT_NEAR(jsonNumber(g.out, "sigma"), 0.02, 0.006);
  EXPECT_NE(g.out.find("\"covariance\": ["), std::string::npos);

  const auto t = runTool({"fit", "circle", "--geometric", file});
  ASSERT_EQ(t.code, 0) << t.err;
  EXPECT_NE(t.out.find("r = "), std::string::npos);
  EXPECT_NE(t.out.find("standard errors: cx "), std::string::npos);
  EXPECT_NE(t.out.find("60 points used, rms"), std::string::npos);

  EXPECT_TRUE(failsWith(runTool({"fit", "line", "--geometric", file}), 2, "--geometric"));
}

}  // namespace
