// Mathematical objects: complementarity forms of abs, max, min and sign, sum, piecewise-linear
// functions and lookup tables, cubic splines, linear systems and quadratic objectives.
#include <fmt/format.h>

#include <cmath>
#include <utility>

#include "base/text.h"
#include "objects/object_table.h"

namespace kx::objects {
namespace {

using K = MemberKind;
using Terms = std::vector<std::pair<double, std::string>>;  // coefficient, factor text

// c1*f1 + c2*f2 ... as model text; a factor "" is the constant 1. Empty: "0".
std::string Combine(const Terms& terms) {
  std::string out;
  for (const auto& [c, f] : terms) {
    if (c == 0) continue;
    std::string term = FormatReal(std::fabs(c));
    if (!f.empty()) term = std::fabs(c) == 1 ? f : term + "*" + f;
    if (out.empty()) {
      out = c < 0 ? "-" + term : term;
    } else {
      out += (c < 0 ? " - " : " + ") + term;
    }
  }
  return out.empty() ? "0" : out;
}

// `x - v` as text (v a number).
std::string Shift(const std::string& x, double v) {
  if (v == 0) return x;
  return x + (v < 0 ? " + " : " - ") + FormatReal(std::fabs(v));
}

// (x - v)_+ = max(x - v, 0), exact and continuous: ((x - v) + abs(x - v))/2.
std::string PositivePart(const std::string& x, double v) {
  const std::string d = Shift(x, v);
  return "((" + d + " + abs(" + d + "))/2)";
}

// The points (x, y) of a curve: two columns, or two rows, or column `col` of a wider table.
struct Curve {
  std::vector<double> x, y;
};

Curve CurveOf(const Table& t, int col) {
  Curve c;
  const bool rows = t.rows == 2 && t.cols > 2;
  const int n = rows ? t.cols : t.rows;
  for (int k = 0; k < n; ++k) {
    c.x.push_back(rows ? t.At(0, k) : t.At(k, 0));
    c.y.push_back(rows ? t.At(1, k) : t.At(k, col));
  }
  return c;
}

void CheckKnots(const ObjectInstance& o, const std::vector<double>& x, const std::string& file) {
  if (x.size() < 2) FailObject(o, "the data in " + file + " needs at least 2 points");
  for (size_t k = 1; k < x.size(); ++k) {
    if (x[k] <= x[k - 1]) {
      FailObject(o, fmt::format("the x values in {} must increase: point {} (x = {}) follows "
                                "x = {}",
                                file, k + 1, FormatReal(x[k]), FormatReal(x[k - 1])));
    }
  }
}

// y(x) through the points, linear between them and along the end slopes beyond them:
// y0 + m0 (x - x0) + sum over inner points of (m_k - m_(k-1)) (x - x_k)_+.
std::string PiecewiseLinearText(const Curve& c) {
  Terms t = {{c.y[0], ""}};
  double prev = 0;
  for (size_t k = 0; k + 1 < c.x.size(); ++k) {
    const double slope = (c.y[k + 1] - c.y[k]) / (c.x[k + 1] - c.x[k]);
    if (k == 0) {
      t.push_back({slope, "(" + Shift("x", c.x[0]) + ")"});
    } else {
      t.push_back({slope - prev, PositivePart("x", c.x[k])});
    }
    prev = slope;
  }
  return Combine(t);
}

// Second derivatives of the natural cubic spline through the points (tridiagonal solve).
std::vector<double> SplineCurvatures(const Curve& c) {
  const size_t n = c.x.size();
  std::vector<double> m(n, 0.0), diag(n, 1.0), upper(n, 0.0), rhs(n, 0.0);
  for (size_t k = 1; k + 1 < n; ++k) {
    const double h0 = c.x[k] - c.x[k - 1], h1 = c.x[k + 1] - c.x[k];
    const double lower = h0;
    diag[k] = 2 * (h0 + h1);
    upper[k] = h1;
    rhs[k] = 6 * ((c.y[k + 1] - c.y[k]) / h1 - (c.y[k] - c.y[k - 1]) / h0);
    // Eliminate the sub-diagonal entry against row k-1 (row 0 is m0 = 0).
    const double f = k == 1 ? 0.0 : lower / diag[k - 1];
    diag[k] -= f * upper[k - 1];
    rhs[k] -= f * rhs[k - 1];
  }
  for (size_t k = n - 2; k >= 1 && k < n; --k) m[k] = (rhs[k] - upper[k] * m[k + 1]) / diag[k];
  return m;
}

// The natural cubic spline as one expression: the first piece's cubic plus, at each inner
// knot, the jump of the third derivative times (x - x_k)_+^3. Continuous in value, slope and
// curvature; beyond the end knots the end pieces continue.
std::string CubicSplineText(const Curve& c) {
  const std::vector<double> m = SplineCurvatures(c);
  std::vector<double> d(c.x.size() - 1);
  for (size_t k = 0; k + 1 < c.x.size(); ++k)
    d[k] = (m[k + 1] - m[k]) / (6 * (c.x[k + 1] - c.x[k]));
  const double h0 = c.x[1] - c.x[0];
  const double b0 = (c.y[1] - c.y[0]) / h0 - h0 * (2 * m[0] + m[1]) / 6;
  const std::string t0 = "(" + Shift("x", c.x[0]) + ")";
  Terms t = {{c.y[0], ""}, {b0, t0}, {m[0] / 2, t0 + "^2"}, {d[0], t0 + "^3"}};
  for (size_t k = 1; k + 1 < c.x.size(); ++k)
    t.push_back({d[k] - d[k - 1], PositivePart("x", c.x[k]) + "^3"});
  return Combine(t);
}

void PreparePwl(ObjectInstance* o) {
  const Table& t = o->tables.at("data");
  if (t.cols < 2 && t.rows != 2) FailObject(*o, t.file + " needs two columns, x and y");
  const Curve c = CurveOf(t, 1);
  CheckKnots(*o, c.x, t.file);
  o->texts["curve"] = PiecewiseLinearText(c);
}

void PrepareLookup(ObjectInstance* o) {
  const Table& t = o->tables.at("data");
  if (t.cols < 2) FailObject(*o, t.file + " needs a column of x and at least one column of y");
  o->numbers["m"] = t.cols - 1;
  for (int j = 1; j < t.cols; ++j) {
    Curve c = CurveOf(t, j);
    if (j == 1) CheckKnots(*o, c.x, t.file);
    o->texts[fmt::format("curve[{}]", j)] = PiecewiseLinearText(c);
  }
}

// Values of a one-row or one-column table.
std::vector<double> VectorOf(const ObjectInstance& o, const Table& t) {
  if (t.rows != 1 && t.cols != 1) FailObject(o, t.file + " must hold one row or one column");
  return t.values;
}

void PrepareSpline(ObjectInstance* o) {
  const Table& t = o->tables.at("knots");
  Curve c;
  auto values = o->tables.find("values");
  if (values != o->tables.end()) {
    c.x = VectorOf(*o, t);
    c.y = VectorOf(*o, values->second);
    if (c.x.size() != c.y.size()) {
      FailObject(*o, fmt::format("{} holds {} knots but {} holds {} values", t.file, c.x.size(),
                                 values->second.file, c.y.size()));
    }
  } else {
    if (t.cols < 2 && t.rows != 2) FailObject(*o, t.file + " needs two columns, x and y");
    c = CurveOf(t, 1);
  }
  CheckKnots(*o, c.x, t.file);
  o->texts["curve"] = CubicSplineText(c);
}

void PrepareSum(ObjectInstance* o) {
  const int n = static_cast<int>(o->numbers.at("n"));  // a bad n stops where it is used
  Terms t;
  for (int i = 1; i <= n; ++i) t.push_back({1.0, fmt::format("x[{}]", i)});
  o->texts["total"] = Combine(t);
}

void PrepareAxb(ObjectInstance* o) {
  const Table& a = o->tables.at("a");
  const std::vector<double> b = VectorOf(*o, o->tables.at("b"));
  if (static_cast<int>(b.size()) != a.rows) {
    FailObject(*o, fmt::format("A ({}) has {} rows but b ({}) has {} values", a.file, a.rows,
                               o->tables.at("b").file, b.size()));
  }
  o->numbers["n"] = a.cols;
  o->numbers["m"] = a.rows;
}

// f = 1/2 x'Qx + c'x with each pair x_i x_j written once.
void PrepareQobj(ObjectInstance* o) {
  const Table& q = o->tables.at("q");
  if (q.rows != q.cols)
    FailObject(*o, fmt::format("Q ({}) is {} x {}, not square", q.file, q.rows, q.cols));
  const int n = q.rows;
  std::vector<double> c(n, 0.0);
  if (auto it = o->tables.find("c"); it != o->tables.end()) {
    c = VectorOf(*o, it->second);
    if (static_cast<int>(c.size()) != n)
      FailObject(*o,
                 fmt::format("c ({}) has {} values, Q has {} rows", it->second.file, c.size(), n));
  }
  Terms t;
  for (int i = 0; i < n; ++i) {
    t.push_back({0.5 * q.At(i, i), fmt::format("x[{}]^2", i + 1)});
    for (int j = i + 1; j < n; ++j)
      t.push_back({0.5 * (q.At(i, j) + q.At(j, i)), fmt::format("x[{}]*x[{}]", i + 1, j + 1)});
  }
  for (int i = 0; i < n; ++i) t.push_back({c[i], fmt::format("x[{}]", i + 1)});
  o->numbers["n"] = n;
  o->texts["quad"] = Combine(t);
}

// Members of the two forms of the complementarity objects: the integer form adds a binary
// switch `int_b` and the big-M parameter.
const MemberSpec kIntegerSwitch = {
    "int_b", K::kVariable, "", "0", "0", "1", "-", "binary switch of the integer form", "integer"};
const MemberSpec kBigM = {
    "big",    K::kParameter, "", "1e4", "", "", "", "bound on the slacks in the integer form",
    "integer"};
const ArgSpec kIntegerArg = {"integer", ArgKind::kInteger, "0",
                             "1: integer (big-M) form for branch and bound; 0: complementarity"};

}  // namespace

const std::vector<ObjectType>& MathObjectTypes() {
  static const std::vector<ObjectType> kTypes = {
      {.keywords = {"abs"},
       .family = "Mathematical",
       .summary = "y = |x|: x = xp - xn, y = xp + xn, xp and xn >= 0 and complementary",
       .arguments = {kIntegerArg},
       .members = {{"x", K::kVariable, "", "", "", "", "", "input"},
                   {"y", K::kVariable, "", "", "", "", "", "output |x|"},
                   {"xp", K::kVariable, "", "0", "0", "", "", "positive part of x"},
                   {"xn", K::kVariable, "", "0", "0", "", "", "negative part of x"},
                   kIntegerSwitch,
                   kBigM},
       .equations = {{"x = xp - xn"},
                     {"y = xp + xn"},
                     {"xp*xn <= 0", "", "!integer"},
                     {"xp <= big*int_b", "", "integer"},
                     {"xn <= big*(1 - int_b)", "", "integer"}}},
      {.keywords = {"max"},
       .family = "Mathematical",
       .summary = "y = max(x1, x2): y = x1 + s1 = x2 + s2, s1 and s2 >= 0 and complementary",
       .arguments = {kIntegerArg},
       .members = {{"x1", K::kVariable, "", "", "", "", "", "first input"},
                   {"x2", K::kVariable, "", "", "", "", "", "second input"},
                   {"y", K::kVariable, "", "", "", "", "", "output max(x1, x2)"},
                   {"s1", K::kVariable, "", "0", "0", "", "", "slack y - x1"},
                   {"s2", K::kVariable, "", "0", "0", "", "", "slack y - x2"},
                   kIntegerSwitch,
                   kBigM},
       .equations = {{"y = x1 + s1"},
                     {"y = x2 + s2"},
                     {"s1*s2 <= 0", "", "!integer"},
                     {"s1 <= big*int_b", "", "integer"},
                     {"s2 <= big*(1 - int_b)", "", "integer"}}},
      {.keywords = {"min"},
       .family = "Mathematical",
       .summary = "y = min(x1, x2): y = x1 - s1 = x2 - s2, s1 and s2 >= 0 and complementary",
       .arguments = {kIntegerArg},
       .members = {{"x1", K::kVariable, "", "", "", "", "", "first input"},
                   {"x2", K::kVariable, "", "", "", "", "", "second input"},
                   {"y", K::kVariable, "", "", "", "", "", "output min(x1, x2)"},
                   {"s1", K::kVariable, "", "0", "0", "", "", "slack x1 - y"},
                   {"s2", K::kVariable, "", "0", "0", "", "", "slack x2 - y"},
                   kIntegerSwitch,
                   kBigM},
       .equations = {{"y = x1 - s1"},
                     {"y = x2 - s2"},
                     {"s1*s2 <= 0", "", "!integer"},
                     {"s1 <= big*int_b", "", "integer"},
                     {"s2 <= big*(1 - int_b)", "", "integer"}}},
      {.keywords = {"sign"},
       .family = "Mathematical",
       .summary = "y = sign(x) in [-1, 1]: x = xp - xn, y (xp + xn) = xp - xn, xp and xn >= 0 "
                  "and complementary (at x = 0 any y in [-1, 1])",
       .arguments = {kIntegerArg},
       .members = {{"x", K::kVariable, "", "", "", "", "", "input"},
                   {"y", K::kVariable, "", "", "-1", "1", "", "output sign(x)"},
                   // Starting both parts at 1 keeps the first linearisation consistent.
                   {"xp", K::kVariable, "", "1", "0", "", "", "positive part of x"},
                   {"xn", K::kVariable, "", "1", "0", "", "", "negative part of x"},
                   kIntegerSwitch,
                   kBigM},
       .equations = {{"x = xp - xn"},
                     {"y*(xp + xn) = xp - xn", "", "!integer"},
                     {"xp*xn <= 0", "", "!integer"},
                     {"y = 2*int_b - 1", "", "integer"},
                     {"xp <= big*int_b", "", "integer"},
                     {"xn <= big*(1 - int_b)", "", "integer"}}},
      {.keywords = {"sum"},
       .family = "Mathematical",
       .summary = "y = x[1] + ... + x[n]",
       .arguments = {{"n", ArgKind::kInteger, nullptr, "number of terms"}},
       .members = {{"x", K::kVariable, "n", "", "", "", "", "terms"},
                   {"y", K::kVariable, "", "", "", "", "", "sum"}},
       .equations = {{"y = {total}"}},
       .prepare = PrepareSum},
      {.keywords = {"pwl"},
       .family = "Mathematical",
       .summary = "piecewise-linear y(x) through the points of a file (columns x, y); "
                  "the end slopes continue beyond the points",
       .arguments = {{"data", ArgKind::kFile, nullptr,
                      "file of points: columns x, y; x increasing"}},
       .members = {{"x", K::kVariable, "", "", "", "", "", "input"},
                   {"y", K::kVariable, "", "", "", "", "", "output"}},
       .equations = {{"y = {curve}"}},
       .prepare = PreparePwl},
      {.keywords = {"lookup", "table"},
       .family = "Mathematical",
       .summary = "lookup table: y[j](x) interpolated linearly in column j+1 of a file whose "
                  "first column is x",
       .arguments = {{"data", ArgKind::kFile, nullptr,
                      "file: column 1 x (increasing), columns 2..m+1 the outputs"}},
       .members = {{"x", K::kVariable, "", "", "", "", "", "input"},
                   {"y", K::kVariable, "m", "", "", "", "", "outputs, one per data column"}},
       .equations = {{"y[{i}] = {curve[i]}", "m"}},
       .prepare = PrepareLookup},
      {.keywords = {"cspline"},
       .family = "Mathematical",
       .summary = "natural cubic spline y(x) through knots: continuous value, slope and "
                  "curvature; the end pieces continue beyond the knots",
       .arguments = {{"knots", ArgKind::kFile, nullptr,
                      "file of knots: columns x, y (or only x when `values` is given)"},
                     {"values", ArgKind::kFile, "", "file of the y values at the knots"}},
       .members = {{"x", K::kVariable, "", "", "", "", "", "input"},
                   {"y", K::kVariable, "", "", "", "", "", "output"}},
       .equations = {{"y = {curve}"}},
       .prepare = PrepareSpline},
      {.keywords = {"axb"},
       .family = "Mathematical",
       .summary = "linear system A x = b (A m x n from a file, b m values)",
       .arguments = {{"a", ArgKind::kFile, nullptr, "file of A (m x n)"},
                     {"b", ArgKind::kFile, nullptr, "file of b (m values)"}},
       .members = {{"x", K::kVariable, "n", "0", "", "", "", "unknowns"}},
       .equations = {{"{a*x} = {b[i]}", "m"}},
       .prepare = PrepareAxb},
      {.keywords = {"qobj"},
       .family = "Mathematical",
       .summary = "quadratic objective: minimize f = 1/2 x'Qx + c'x",
       .arguments = {{"q", ArgKind::kFile, nullptr, "file of Q (n x n)"},
                     {"c", ArgKind::kFile, "", "file of c (n values); zero when not given"}},
       .members = {{"x", K::kVariable, "n", "0", "", "", "", "variables"},
                   {"f", K::kVariable, "", "0", "", "", "", "objective value"}},
       .equations = {{"f = {quad}"}, {"minimize f"}},
       .prepare = PrepareQobj},
  };
  return kTypes;
}

}  // namespace kx::objects
