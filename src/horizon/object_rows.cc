#include "horizon/object_rows.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "base/report.h"
#include "base/text.h"

namespace kx::horizon {
namespace {

// Number of the variable that carries `name` (its own or, after a connection, an alias); 0
// when there is none.
int NumberOf(const model::ModelStore& base, const std::string& name) {
  for (const model::Variable& v : base.vars) {
    if (v.number == 0) continue;
    if (v.name == name) return v.number;
    const std::vector<std::string>& aliases = v.aliases();
    if (std::find(aliases.begin(), aliases.end(), name) != aliases.end()) return v.number;
  }
  return 0;
}

// Numbers of the vector member `name[1]`, `name[2]`, ... as far as they exist.
std::vector<int> VectorMember(const model::ModelStore& base, const std::string& name) {
  std::vector<int> out;
  for (int n; (n = NumberOf(base, fmt::format("{}[{}]", name, out.size() + 1))) > 0;)
    out.push_back(n);
  return out;
}

// Rows of the replicated store by model equation and point.
class CopyIndex {
 public:
  explicit CopyIndex(const Horizon& h) {
    for (size_t r = 0; r < h.eqn_origin.size(); ++r)
      if (h.eqn_origin[r] >= 0) rows_[{h.eqn_origin[r], h.eqn_point[r]}] = static_cast<int>(r);
  }
  // Row of model equation `eqn` at `point`, -1 when it has no copy there.
  int Row(int eqn, int point) const {
    auto it = rows_.find({eqn, point});
    return it == rows_.end() ? -1 : it->second;
  }

 private:
  std::map<std::pair<int, int>, int> rows_;  // (model equation, point) -> row
};

[[noreturn]] void FailRows(const model::ObjectDecl& o, const char* what) {
  Fatal({"Problem with object input:",
         fmt::format("Object {} ({}, line {}): its {} are not in the model (are its members "
                     "connected to other variables?)",
                     o.name, o.type, o.line, what)},
        "STOPPING. . .");
}

// The model row of object `o` that reads exactly the variables `a` and `b` (a lag row
// `yl[i] = y`); stops when there is none.
int LagRow(const model::ModelStore& base, const model::ObjectDecl& o, int a, int b) {
  for (size_t e = 0; e < base.eqns.size(); ++e) {
    const model::Equation& q = base.eqns[e];
    if (q.line != o.line || q.columns.size() != 2) continue;
    const int reads[] = {a, b};
    if (std::is_permutation(q.columns.begin(), q.columns.end(), reads)) return static_cast<int>(e);
  }
  FailRows(o, "lag rows");
}

// The copy of lag row `eqn` at each point reads `source` `lag` samples (steps) back, the
// horizon start at the earliest; a point inside a step counts as its step's start.
void ShiftLag(Horizon& h, const CopyIndex& copies, int eqn, int source, int lag) {
  const int per_step = h.grid.nodes - 1;
  for (int p = 0; p < h.grid.num_points(); ++p) {
    const int row = copies.Row(eqn, p);
    if (row < 0) continue;
    const int sample = std::max(p / per_step - lag, 0);
    const int from = h.Number(p, source), to = h.Number(sample * per_step, source);
    for (int& c : h.store.eqns[row].columns)
      if (c == from) c = to;
  }
}

// The output row of object `o`: the one that reads y and c; stops when there is none.
int OutputRow(const model::ModelStore& base, const model::ObjectDecl& o, int y, int c) {
  for (size_t e = 0; e < base.eqns.size(); ++e) {
    const std::vector<int>& cols = base.eqns[e].columns;
    if (base.eqns[e].line == o.line && std::find(cols.begin(), cols.end(), y) != cols.end() &&
        std::find(cols.begin(), cols.end(), c) != cols.end()) {
      return static_cast<int>(e);
    }
  }
  FailRows(o, "output row");
}

// y(0) starts from its value instead of from rest: y(0) is fixed and its output row at the
// start gives way. The points inside the first step would read the lags of a start that is
// not at rest, so their output rows become the hold y(q) - y(0) = 0, written with the
// program of the lag row `hold_like` (yl[1] = y) over a column map of their own.
void HoldStart(Horizon& h, const CopyIndex& copies, const model::Equation& hold_like,
               int output_row, int lag, int y) {
  const int start = h.Number(0, y);
  h.store.Var(start).fixed = true;
  if (int row = copies.Row(output_row, 0); row >= 0) h.store.eqns[row].active = false;
  for (int q = 1; q < h.grid.nodes - 1; ++q) {
    const int row = copies.Row(output_row, q);
    if (row < 0) continue;
    model::Equation& e = h.store.eqns[row];
    e.program = hold_like.program;
    e.copy = 0;
    e.copied = nullptr;
    e.text = h.store.Var(h.Number(q, y)).name + " = " + h.store.Var(start).name;
    e.columns.clear();
    for (int c : hold_like.columns) e.columns.push_back(c == lag ? h.Number(q, y) : start);
  }
}

// Value of the parameter member `name` of object `o`.
double MemberValue(const model::ModelStore& base, const model::ObjectDecl& o, const char* name) {
  const int n = NumberOf(base, o.name + "." + name);
  return n > 0 ? base.Var(n).val : 0.0;
}

// The samples are the steps: steps of different lengths are worth a warning.
void WarnUnevenSteps(const TimeGrid& grid, const model::ObjectDecl& o) {
  const auto [shortest, longest] = std::minmax_element(grid.dt.begin(), grid.dt.end());
  if (shortest == grid.dt.end() || *longest - *shortest <= 1e-9 * *longest) return;
  Sayf(
      "WARNING: arx object {}: the horizon's steps differ in length ({} to {}); each step is "
      "one sample",
      o.name, FormatReal(*shortest), FormatReal(*longest));
}

void ApplyArx(Horizon& h, const CopyIndex& copies, const model::ModelStore& base,
              const model::ObjectDecl& o) {
  WarnUnevenSteps(h.grid, o);
  const int y = NumberOf(base, o.name + ".y"), u = NumberOf(base, o.name + ".u");
  const std::vector<int> yl = VectorMember(base, o.name + ".yl");
  const std::vector<int> ul = VectorMember(base, o.name + ".ul");
  if (MemberValue(base, o, "rest") == 0 && !yl.empty()) {
    const int output = OutputRow(base, o, y, NumberOf(base, o.name + ".c"));
    HoldStart(h, copies, base.eqns[LagRow(base, o, yl[0], y)], output, yl[0], y);
  }
  for (size_t i = 0; i < yl.size(); ++i)
    ShiftLag(h, copies, LagRow(base, o, yl[i], y), y, static_cast<int>(i) + 1);
  for (size_t j = 0; j < ul.size(); ++j)
    ShiftLag(h, copies, LagRow(base, o, ul[j], u), u, static_cast<int>(j) + 1);
}

// True when some model row reads variable `number` (its value or its time derivative).
bool IsRead(const model::ModelStore& base, int number) {
  for (const model::Equation& q : base.eqns)
    for (int c : q.columns)
      if (c == number || c == base.nvar + number) return true;
  return false;
}

void ApplyPeriodic(HorizonRows& rows, const model::ModelStore& base, const model::ObjectDecl& o) {
  Horizon& h = rows.horizon();
  const int x = NumberOf(base, o.name + ".x");
  const int last = h.grid.num_points() - 1;
  if (x == 0 || last == 0) return;
  if (!IsRead(base, x)) {
    Fatal({"Problem with object input:",
           fmt::format("Object {} ({}, line {}): {}.x is not tied to the model; connect it to a "
                       "variable (Connections: {}.x = name)",
                       o.name, o.type, o.line, o.name, o.name)},
          "STOPPING. . .");
  }
  const int start = h.Number(0, x), end = h.Number(last, x);
  if (base.Var(x).diff) h.store.Var(start).fixed = false;
  const std::string& name = h.store.Var(end).name;
  rows.Add(last, o.name + ".periodic", "0 = " + name + " - " + h.store.Var(start).name, "a - b",
           {end, start}, RowKind::kEquality);
}

}  // namespace

std::vector<int> HeldStarts(const model::ModelStore& base) {
  std::vector<int> out;
  for (const model::ObjectDecl& o : base.objects) {
    if (ToLower(o.type) == "arx" && MemberValue(base, o, "rest") == 0)
      out.push_back(NumberOf(base, o.name + ".y"));
  }
  return out;
}

void ApplyObjectsOverHorizon(HorizonRows& rows, const model::ModelStore& base, bool sequential) {
  Horizon& h = rows.horizon();
  if (h.data_sets || base.objects.empty()) return;
  const CopyIndex copies(h);
  for (const model::ObjectDecl& o : base.objects) {
    const std::string type = ToLower(o.type);
    if (type == "arx") ApplyArx(h, copies, base, o);
    if (type == "periodic" && sequential) {
      Sayf("WARNING: periodic object {} is not enforced in a sequential simulation", o.name);
    } else if (type == "periodic") {
      ApplyPeriodic(rows, base, o);
    }
  }
}

}  // namespace kx::horizon
