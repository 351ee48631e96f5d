// Control objects: first-order lag, PID controller, linear state-space model.
#include <fmt/format.h>

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
  };
  return kTypes;
}

}  // namespace kx::objects
