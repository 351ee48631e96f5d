// Control objects: first-order lag, PID controller, linear state-space model, ARX model and
// periodic condition. The last two tie values at different time points: their rows here are
// the steady-state form, and horizon/object_rows turns the copies over a dynamic horizon into
// the relations between time points.
#include <fmt/format.h>

#include <cmath>

#include "base/text.h"
#include "objects/object_table.h"

namespace kx::objects {
namespace {

using K = MemberKind;

// State-space sizes from the matrices: n states (A is n x n), m inputs (B is n x m), p outputs
// (C is p x n); D, when given, is p x m.
void PrepareStateSpace(ObjectInstance* o) {
  const Table& a = o->tables.at("a");
  const Table& b = o->tables.at("b");
  const Table& c = o->tables.at("c");
  if (a.rows != a.cols)
    FailObject(*o, fmt::format("A ({}) is {} x {}, not square", a.file, a.rows, a.cols));
  if (b.rows != a.rows) {
    FailObject(*o, fmt::format("B ({}) has {} rows, A has {}", b.file, b.rows, a.rows));
  }
  if (c.cols != a.rows) {
    FailObject(*o, fmt::format("C ({}) has {} columns, A has {} rows", c.file, c.cols, a.rows));
  }
  o->numbers["n"] = a.rows;
  o->numbers["m"] = b.cols;
  o->numbers["p"] = c.rows;
  auto d = o->tables.find("d");
  if (d == o->tables.end()) {
    o->tables["d"] = Table{c.rows, b.cols, std::vector<double>(c.rows * b.cols, 0.0), "(zero D)"};
  } else if (d->second.rows != c.rows || d->second.cols != b.cols) {
    FailObject(*o, fmt::format("D ({}) is {} x {}, expected {} x {}", d->second.file,
                               d->second.rows, d->second.cols, c.rows, b.cols));
  }
}

// Coefficients of one ARX polynomial as one row of numbers; the file may hold one row or one
// column. Returns the count.
int ArxCoefficients(ObjectInstance* o, const char* key, const char* what) {
  Table& t = o->tables.at(key);
  if (t.rows != 1 && t.cols != 1) {
    FailObject(*o, fmt::format("{} ({}) is {} x {}; give the {} coefficients as one row or one "
                               "column (one input, one output)",
                               key, t.file, t.rows, t.cols, what));
  }
  t.cols = static_cast<int>(t.values.size());
  t.rows = 1;
  return t.cols;
}

// Appends `+ c*name[k]` for every nonzero coefficient of table `key`.
void AppendLagTerms(const Table& t, const char* name, std::string* text) {
  for (int k = 0; k < t.cols; ++k) {
    const double c = t.At(0, k);
    if (c == 0) continue;
    const std::string term = fmt::format("{}*{}[{}]", FormatReal(std::abs(c)), name, k + 1);
    *text += (c < 0 ? " - " : " + ") + term;
  }
}

// ARX sizes na, nb from the coefficient vectors and the text {lags} of the output row:
// a_1*yl[1] + ... + b_1*ul[1] + ... (yl[i] is y i samples back, ul[j] is u j samples back).
void PrepareArx(ObjectInstance* o) {
  if (o->numbers.at("rest") != 0 && o->numbers.at("rest") != 1)
    FailObject(*o, "rest must be 0 or 1");
  o->numbers["na"] = ArxCoefficients(o, "a", "y lag");
  o->numbers["nb"] = ArxCoefficients(o, "b", "u lag");
  std::string lags;
  AppendLagTerms(o->tables.at("a"), "yl", &lags);
  AppendLagTerms(o->tables.at("b"), "ul", &lags);
  // Drop the sign joint in front of the first term: " + 0.5*yl[1]" -> "0.5*yl[1]".
  if (lags.empty()) {
    lags = "0";
  } else {
    lags = lags[1] == '-' ? "-" + lags.substr(3) : lags.substr(3);
  }
  o->texts["lags"] = lags;
}

void CheckPid(ObjectInstance* o) {
  if (o->numbers.at("kc") == 0) FailObject(*o, "kc must not be 0");
  if (o->numbers.at("taui") <= 0) FailObject(*o, "taui must be positive");
  if (o->numbers.at("taud") < 0) FailObject(*o, "taud must not be negative");
  if (o->numbers.at("n_d") <= 0) FailObject(*o, "n_d must be positive");
  if (o->numbers.at("op_lo") >= o->numbers.at("op_hi")) FailObject(*o, "op_lo must be below op_hi");
}

}  // namespace

const std::vector<ObjectType>& ControlObjectTypes() {
  static const std::vector<ObjectType> kTypes = {
      {.keywords = {"lag"},
       .family = "Control",
       .summary = "first-order lag: tau*dy/dt = k*u - y",
       .arguments = {},
       .members = {{"tau", K::kParameter, "", "1", "", "", "s", "time constant"},
                   {"k", K::kParameter, "", "1", "", "", "-", "gain"},
                   {"u", K::kVariable, "", "", "", "", "", "input"},
                   {"y", K::kVariable, "", "", "", "", "", "output"}},
       .equations = {{"tau*$y = k*u - y"}}},
      {.keywords = {"pid"},
       .family = "Control",
       .summary = "PID controller, position form, output clamped to [op_lo, op_hi], "
                  "derivative on the measurement through a first-order filter of time constant "
                  "taud/n_d, anti-windup by back-calculation",
       .arguments = {},
       .members = {{"kc", K::kParameter, "", "1", "", "", "op/pv", "controller gain"},
                   {"taui", K::kParameter, "", "1", "", "", "s", "integral time"},
                   {"taud", K::kParameter, "", "0", "", "", "s",
                    "derivative time (0: no derivative term and no filter state)"},
                   {"n_d", K::kParameter, "", "10", "", "", "-",
                    "derivative filter factor: the filter time constant is taud/n_d"},
                   {"bias", K::kParameter, "", "0", "", "", "op",
                    "output at zero error and integral"},
                   {"op_hi", K::kParameter, "", "100", "", "", "op", "upper output limit"},
                   {"op_lo", K::kParameter, "", "0", "", "", "op", "lower output limit"},
                   {"pv", K::kVariable, "", "", "", "", "", "process variable (measurement)"},
                   {"sp", K::kVariable, "", "", "", "", "", "set point"},
                   {"e", K::kVariable, "", "", "", "", "", "error sp - pv"},
                   {"ie", K::kVariable, "", "", "", "", "", "integral of the error (state)"},
                   {"pvf", K::kVariable, "", "", "", "", "",
                    "filtered pv (state); starts at its value, 0 unless connected", "taud"},
                   {"op_u", K::kVariable, "", "", "", "", "op", "unclamped output"},
                   {"op", K::kVariable, "", "", "", "", "op", "output, clamped"}},
       .equations = {{"e = sp - pv"},
                     {"taud/n_d*$pvf = pv - pvf", "", "taud"},
                     {"op_u = bias + kc*(e + ie/taui - n_d*(pv - pvf))", "", "taud"},
                     {"op_u = bias + kc*(e + ie/taui)", "", "!taud"},
                     {"op = ((op_u + op_lo + abs(op_u - op_lo))/2 + op_hi - "
                      "abs((op_u + op_lo + abs(op_u - op_lo))/2 - op_hi))/2"},
                     {"$ie = e + (op - op_u)/kc"}},
       .prepare = CheckPid},
      {.keywords = {"lti"},
       .family = "Control",
       .summary = "linear state-space model dx/dt = A x + B u, y = C x + D u",
       .arguments = {{"a", ArgKind::kFile, nullptr, "file of A (n x n)"},
                     {"b", ArgKind::kFile, nullptr, "file of B (n x m)"},
                     {"c", ArgKind::kFile, nullptr, "file of C (p x n)"},
                     {"d", ArgKind::kFile, "", "file of D (p x m); zero when not given"}},
       .members = {{"x", K::kVariable, "n", "0", "", "", "", "states"},
                   {"u", K::kVariable, "m", "0", "", "", "", "inputs"},
                   {"y", K::kVariable, "p", "0", "", "", "", "outputs"}},
       .equations = {{"$x[{i}] = {a*x} + {b*u}", "n"}, {"y[{i}] = {c*x} + {d*u}", "p"}},
       .prepare = PrepareStateSpace},
      {.keywords = {"arx"},
       .family = "Control",
       .summary = "discrete-time ARX model, one input and one output: "
                  "y(k) = sum_i a_i y(k-i) + sum_j b_j u(k-j) + c, one sample a horizon step "
                  "(samples before the horizon start are the start values; inside a step y "
                  "holds its value at the step's start: docs/horizon.md); "
                  "in a steady-state mode y (1 - sum a) = (sum b) u + c",
       .arguments = {{"a", ArgKind::kFile, nullptr,
                      "file of a_1..a_na (one row or one column; a single 0 for none)"},
                     {"b", ArgKind::kFile, nullptr, "file of b_1..b_nb (one row or one column)"}},
       .members = {{"c", K::kParameter, "", "0", "", "", "", "constant term"},
                   {"rest", K::kParameter, "", "1", "", "", "-",
                    "horizon start: 1 at rest (y from u by the steady-state relation); 0 y "
                    "starts from its starting value (declared, data or restart), like an "
                    "initial condition"},
                   {"u", K::kVariable, "", "", "", "", "", "input"},
                   {"y", K::kVariable, "", "", "", "", "", "output"},
                   {"yl", K::kVariable, "na", "0", "", "", "",
                    "y i samples back (the current y in a steady-state mode)"},
                   {"ul", K::kVariable, "nb", "0", "", "", "",
                    "u j samples back (the current u in a steady-state mode)"}},
       .equations = {{"y = {lags} + c"}, {"yl[{i}] = y", "na"}, {"ul[{i}] = u", "nb"}},
       .prepare = PrepareArx},
      {.keywords = {"periodic"},
       .family = "Control",
       .summary = "periodic condition of a dynamic horizon: x at the end of the horizon equals "
                  "x at its start, whose initial condition is then free; connect x to a "
                  "model variable; adds nothing in a steady-state mode",
       .arguments = {},
       .members = {{"x", K::kVariable, "", "", "", "", "",
                    "the periodic variable (Connections: p.x = name)"}},
       .equations = {}},
  };
  return kTypes;
}

}  // namespace kx::objects
