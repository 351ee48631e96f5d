#include "analysis/reduction.h"

#include <algorithm>
#include <cmath>
#include <deque>

#include "base/report.h"
#include "base/text.h"

namespace kx::analysis {
namespace {

constexpr double kResidualTolerance = 1e-8;  // an equation without unknowns "holds" below this

class Reducer {
 public:
  Reducer(model::ModelAccess& access, bool verbose)
      : store_(access.store()), verbose_(verbose), nvar_(access.store().nvar) {}

  ReductionRecord Run() {
    Index();
    while (!rows_.empty() || !vars_.empty()) {
      if (!rows_.empty()) {
        const int e = rows_.front();
        rows_.pop_front();
        ExamineRow(e);
      } else {
        const int v = vars_.front();
        vars_.pop_front();
        ExamineVariable(v);
      }
    }
    Say("Reduction analysis complete");
    Sayf("Eliminated {} of {} variables", record_.num_vars_eliminated(), total_vars_);
    Sayf("Eliminated {} of {} equations", record_.removed_rows.size(), total_rows_);
    return std::move(record_);
  }

 private:
  bool Calculated(int col) const { return col <= nvar_ && !store_.Var(col).fixed; }
  // A calculated time derivative (a column of the solver) blocks the row's reduction.
  bool CalculatedDerivative(int col) const {
    return col > nvar_ && store_.Var(col - nvar_).idiff > 0;
  }
  double ColumnValue(int col) const {
    return col <= nvar_ ? store_.Var(col).val : store_.Var(col - nvar_).d_val;
  }

  void Index() {
    eqns_of_.assign(nvar_ + 1, {});
    uses_.assign(nvar_ + 1, 0);
    remaining_.assign(store_.eqns.size(), 0);
    blocked_.assign(store_.eqns.size(), 0);
    for (size_t e = 0; e < store_.eqns.size(); ++e) {
      const model::Equation& q = store_.eqns[e];
      if (!q.active || q.program < 0) continue;
      if (!q.obj_eqn) ++total_rows_;
      for (int c : q.columns) {
        if (CalculatedDerivative(c)) blocked_[e] = 1;
        if (!Calculated(c)) continue;
        eqns_of_[c].push_back(static_cast<int>(e));
        ++uses_[c];
        ++remaining_[e];
      }
      rows_.push_back(static_cast<int>(e));
    }
    for (int v = 1; v <= nvar_; ++v) {
      if (store_.Var(v).fixed || store_.Var(v).vtype == model::kVarStepLength) continue;
      ++total_vars_;
      vars_.push_back(v);
    }
  }

  // Residual and gradient of equation e at the current values (its own column list).
  double Evaluate(int e, std::vector<double>* grad) {
    const model::Equation& q = store_.eqns[e];
    const lang::Program& p = store_.programs[q.program];
    in_.resize(q.columns.size());
    work_.resize(p.work_size() + 1);
    grad->assign(q.columns.size() + 1, 0.0);
    for (size_t k = 0; k < q.columns.size(); ++k) in_[k] = ColumnValue(q.columns[k]);
    return p.Gradient(in_.data(), work_.data(), grad->data(), &errors_);
  }

  bool Reducible(int e) const {
    const model::Equation& q = store_.eqns[e];
    return q.active && q.program >= 0 && !q.obj_eqn && q.lower == q.upper && !blocked_[e];
  }
  // Linear in the calculated variables: no second derivative between two of them (a
  // parameter times a variable is linear in the variable).
  bool Linear(int e) const {
    const model::Equation& q = store_.eqns[e];
    for (const lang::HessPair& pair : store_.programs[q.program].hess_pairs())
      if (Calculated(q.columns[pair.i]) && Calculated(q.columns[pair.j])) return false;
    return true;
  }

  void ExamineRow(int e) {
    if (!Reducible(e)) return;
    if (remaining_[e] == 0) return RemoveEmpty(e);
    if (!Linear(e)) return;
    std::vector<double> g;
    const double r = Evaluate(e, &g);
    // Coefficients of the calculated variables (an input may repeat a column).
    std::vector<std::pair<int, double>> terms;
    for (size_t k = 0; k < store_.eqns[e].columns.size(); ++k) {
      const int c = store_.eqns[e].columns[k];
      if (!Calculated(c)) continue;
      bool found = false;
      for (auto& t : terms)
        if (t.first == c) t.second += g[k], found = true;
      if (!found) terms.push_back({c, g[k]});
    }
    bool all_zero = true;
    for (const auto& t : terms) all_zero = all_zero && t.second == 0.0;
    if (all_zero) return RemoveZero(e, r);
    if (terms.size() == 1) return SolveLinear(e, terms[0].first, terms[0].second, r);
    if (terms.size() == 2 && terms[0].second == -terms[1].second) {
      const double x0 = store_.Var(terms[0].first).val, x1 = store_.Var(terms[1].first).val;
      // r = a (x0 - x1) + b: a connection when the constant b is 0.
      if (std::abs(r - terms[0].second * (x0 - x1)) <= kResidualTolerance)
        Connect(e, terms[0].first, terms[1].first);
    }
  }

  void ExamineVariable(int v) {
    model::Variable& var = store_.Var(v);
    if (var.fixed || uses_[v] > 0) return;
    if (verbose_) {
      Say("Reduce (Orphan): remove variable not in equations");
      Say("  Variable: " + var.name);
    }
    Fix(v);
  }

  void RemoveEmpty(int e) {
    std::vector<double> g;
    const double r = Evaluate(e, &g);
    if (std::abs(r) > kResidualTolerance) {
      Fatal({"Reduce: infeasible equation with no remaining variables",
             "  Equation: " + store_.eqns[e].name},
            "Stopping...");
    }
    if (verbose_) {
      Say("Reduce (Empty): remove equation with no remaining variables");
      Say("  Equation: " + store_.eqns[e].name);
    }
    RemoveRow(e);
  }

  void RemoveZero(int e, double r) {
    if (std::abs(r) > kResidualTolerance) {
      Fatal({"Reduce (Error): infeasible equation (e.g. 0*x=1)",
             "  Equation: " + store_.eqns[e].name},
            "Stopping...");
    }
    if (verbose_) {
      Say("Reduce (Zero): remove linear equation (e.g. 0*x=0)");
      Say("  Equation: " + store_.eqns[e].name);
    }
    RemoveRow(e);
  }

  void SolveLinear(int e, int v, double a, double r) {
    model::Variable& var = store_.Var(v);
    const double x = var.val - r / a;
    if (x - kReduceTolerance > var.upper || x + kReduceTolerance < var.lower) {
      Fatal({"Reduce (Error): infeasible equation, bound violation",
             "  Upper Bound: " + FormatReal(var.upper), "  Value: " + FormatReal(x),
             "  Lower Bound: " + FormatReal(var.lower)},
            "Stopping...");
    }
    if (verbose_) {
      Say("Reduce (LinEq): remove equation and variable");
      Say("  Equation: " + store_.eqns[e].name);
      Say("  Variable remove: " + var.name);
    }
    var.val = x;
    RemoveRow(e);
    Fix(v);
  }

  // x_keep - x_remove = 0: every equation of x_remove reads x_keep instead. Skipped when an
  // equation already reads both (its inputs would repeat a column).
  void Connect(int e, int keep, int remove) {
    if (keep > remove) std::swap(keep, remove);  // the earlier declared variable stays
    for (int f : eqns_of_[remove]) {
      if (f == e || !store_.eqns[f].active) continue;
      for (int c : store_.eqns[f].columns)
        if (c == keep) return;
    }
    model::Variable& k = store_.Var(keep);
    model::Variable& r = store_.Var(remove);
    if (verbose_) {
      Say("Reduce (Connect): remove equation and variable");
      Say("  Equation: " + store_.eqns[e].name);
      Say("  Variable keep  : " + k.name);
      Say("  Variable remove: " + r.name);
    }
    k.lower = std::max(k.lower, r.lower);
    k.upper = std::min(k.upper, r.upper);
    RemoveRow(e);
    for (int f : eqns_of_[remove]) {
      model::Equation& q = store_.eqns[f];
      if (!q.active) continue;
      record_.remapped.push_back({f, q.columns});
      for (int& c : q.columns)
        if (c == remove) c = keep;
      eqns_of_[keep].push_back(f);
      ++uses_[keep];
      rows_.push_back(f);
    }
    uses_[remove] = 0;
    r.fixed = true;
    record_.connected.push_back({remove, keep});
  }

  void RemoveRow(int e) {
    store_.eqns[e].active = false;
    record_.removed_rows.push_back(e);
    for (int c : store_.eqns[e].columns) {
      if (!Calculated(c)) continue;
      --uses_[c];
      vars_.push_back(c);
    }
  }

  void Fix(int v) {
    store_.Var(v).fixed = true;
    record_.fixed_vars.push_back(v);
    for (int e : eqns_of_[v]) {
      if (!store_.eqns[e].active) continue;
      --remaining_[e];
      rows_.push_back(e);
    }
  }

  model::ModelStore& store_;
  bool verbose_;
  int nvar_;
  int total_vars_ = 0, total_rows_ = 0;
  std::vector<std::vector<int>> eqns_of_;  // equations that read each variable
  std::vector<int> uses_;                  // active equations that read each variable
  std::vector<int> remaining_;             // calculated variables each equation reads
  std::vector<char> blocked_;              // the equation reads a calculated derivative
  std::deque<int> rows_, vars_;            // work lists
  std::vector<double> in_, work_;
  lang::DomainErrors errors_;
  ReductionRecord record_;
};

}  // namespace

ReductionRecord ReduceModel(model::ModelAccess& access, bool verbose) {
  Reducer reducer(access, verbose);
  ReductionRecord record = reducer.Run();
  access.Invalidate();
  return record;
}

void RestoreReduction(model::ModelAccess& access, const ReductionRecord& record) {
  model::ModelStore& store = access.store();
  for (auto it = record.remapped.rbegin(); it != record.remapped.rend(); ++it)
    store.eqns[it->first].columns = it->second;
  // A kept variable may have been removed by a later connection: the latest goes first.
  for (auto it = record.connected.rbegin(); it != record.connected.rend(); ++it) {
    store.Var(it->first).val = store.Var(it->second).val;
    store.Var(it->first).fixed = false;
  }
  for (int v : record.fixed_vars) store.Var(v).fixed = false;
  for (int e : record.removed_rows) store.eqns[e].active = true;
  access.Invalidate();
}

}  // namespace kx::analysis
