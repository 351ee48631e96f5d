#include "analysis/infeasibility.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <optional>

#include "base/report.h"
#include "solvers/ipopt_call.h"
#include "solvers/model_problem.h"

namespace kx::analysis {
namespace {

using Clock = std::chrono::steady_clock;

class ConflictSearch {
 public:
  ConflictSearch(model::ModelAccess& access, const ConflictSettings& s)
      : access_(access), store_(access.store()), s_(s), start_(Clock::now()) {
    for (size_t e = 0; e < store_.eqns.size(); ++e) {
      const model::Equation& q = store_.eqns[e];
      was_active_.push_back(q.active);
      if (q.active && !q.obj_eqn) rows_.push_back(static_cast<int>(e));
    }
    for (int n = 1; n <= store_.nvar; ++n) {
      values_.push_back(store_.Var(n).val);
      d_values_.push_back(store_.Var(n).d_val);
      if (!store_.Var(n).fixed) calculated_.push_back(n);
    }
  }

  ~ConflictSearch() {
    for (size_t e = 0; e < store_.eqns.size(); ++e) store_.eqns[e].active = was_active_[e];
    for (int n : calculated_) store_.Var(n).fixed = false;
    RestoreValues();
    access_.Invalidate();
    access_.EvaluateResiduals();
  }

  std::optional<Conflict> Run() {
    std::vector<int> candidates = rows_;
    // The most violated rows first: the conflict is searched among them first.
    std::stable_sort(candidates.begin(), candidates.end(), [&](int a, int b) {
      return store_.eqns[a].Violation() > store_.eqns[b].Violation();
    });
    if (candidates.empty() || store_.eqns[candidates[0]].Violation() <= s_.tolerance)
      return std::nullopt;
    if (Feasible(candidates)) return std::nullopt;
    Conflict c;
    c.rows = Explain({}, false, candidates);
    std::sort(c.rows.begin(), c.rows.end());
    c.bounds = Bounds(c.rows);
    c.solves = solves_;
    c.complete = !out_of_time_;
    return c;
  }

 private:
  bool OutOfTime() {
    out_of_time_ = out_of_time_ ||
                   std::chrono::duration<double>(Clock::now() - start_).count() > s_.seconds;
    return out_of_time_;
  }

  void RestoreValues() {
    for (int n = 1; n <= store_.nvar; ++n) {
      store_.Var(n).val = values_[n - 1];
      store_.Var(n).d_val = d_values_[n - 1];
    }
  }

  // Whether the rows `subset` (and every bound) can hold together, by a quiet solve with no
  // objective from the failed point. Past the time budget every set counts as feasible, so the
  // search keeps every row it has not ruled out and ends quickly.
  bool Feasible(const std::vector<int>& subset) {
    if (OutOfTime()) return true;
    for (size_t e = 0; e < store_.eqns.size(); ++e) store_.eqns[e].active = false;
    for (int e : subset) store_.eqns[e].active = true;
    // Only the variables the chosen rows read are unknowns: the problem stays small.
    for (int n : calculated_) store_.Var(n).fixed = true;
    for (int e : subset)
      for (int c : store_.eqns[e].columns)
        if (c <= store_.nvar) store_.Var(c).fixed = false;
    for (int n : calculated_)
      if (store_.Var(n).diff && store_.Var(n).fixed && s_.dynamic) store_.Var(n).fixed = false;
    RestoreValues();
    access_.Invalidate();
    solvers::ModelProblem problem(access_, s_.dynamic, "diagnosis");
    solvers::SolverSettings settings;
    settings.constraint_tol = s_.tolerance;
    settings.objective_tol = s_.tolerance;
    settings.max_iter = 300;
    settings.max_time = std::max(1.0, s_.seconds);
    ++solves_;
    OutputCapture quiet;
    return solvers::SolveIpopt(problem, settings).status == 0;
  }

  std::vector<int> Union(std::vector<int> a, const std::vector<int>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  }

  // The minimal subset of `candidates` that with `background` cannot hold (divide and
  // conquer); `delta` says the background grew since the last test.
  std::vector<int> Explain(const std::vector<int>& background, bool delta,
                           const std::vector<int>& candidates) {
    if (delta && !Feasible(background)) return {};
    if (candidates.size() <= 1) return candidates;
    const auto mid = candidates.begin() + candidates.size() / 2;
    const std::vector<int> first(candidates.begin(), mid), second(mid, candidates.end());
    const std::vector<int> d2 = Explain(Union(background, first), !first.empty(), second);
    const std::vector<int> d1 = Explain(Union(background, d2), !d2.empty(), first);
    return Union(d1, d2);
  }

  // Bounds of the conflict's variables without which its rows hold.
  std::vector<ConflictBound> Bounds(const std::vector<int>& rows) {
    std::vector<ConflictBound> found;
    std::vector<int> seen;
    for (int e : rows) {
      for (int c : store_.eqns[e].columns) {
        if (c > store_.nvar || !std::binary_search(calculated_.begin(), calculated_.end(), c))
          continue;
        if (std::find(seen.begin(), seen.end(), c) != seen.end()) continue;
        seen.push_back(c);
        model::Variable& v = store_.Var(c);
        for (bool upper : {false, true}) {
          double& bound = upper ? v.upper : v.lower;
          if (std::abs(bound) >= kUnlimited || OutOfTime()) continue;
          const double keep = bound;
          bound = upper ? kUnlimited : -kUnlimited;
          const bool relaxed_feasible = Feasible(rows);
          bound = keep;
          if (relaxed_feasible) found.push_back({c, upper, keep});
        }
      }
    }
    return found;
  }

  model::ModelAccess& access_;
  model::ModelStore& store_;
  ConflictSettings s_;
  Clock::time_point start_;
  std::vector<char> was_active_;
  std::vector<int> rows_;             // the constraint rows of the failed solve
  std::vector<double> values_, d_values_;  // the failed point
  std::vector<int> calculated_;       // the variables the failed solve calculated
  int solves_ = 0;
  bool out_of_time_ = false;
};

}  // namespace

std::optional<Conflict> FindConflict(model::ModelAccess& access, const ConflictSettings& s) {
  if (access.NumRows() > s.max_rows) return std::nullopt;
  ConflictSearch search(access, s);
  return search.Run();
}

std::string DescribeConflict(const model::ModelStore& store, const Conflict& c) {
  std::string text = fmt::format(
      "! conflict: {} equations and {} bounds that cannot hold together{}\n", c.rows.size(),
      c.bounds.size(), c.complete ? "" : " (search stopped at its time budget: not minimal)");
  constexpr size_t kListed = 50;  // rows listed at most (an interrupted search keeps many)
  for (size_t i = 0; i < c.rows.size() && i < kListed; ++i) {
    const model::Equation& q = store.eqns[c.rows[i]];
    text += fmt::format("!   equation {:<20} {}\n", q.name, q.Text());
  }
  if (c.rows.size() > kListed) text += fmt::format("!   ... {} more\n", c.rows.size() - kListed);
  for (const ConflictBound& b : c.bounds)
    text += fmt::format("!   bound    {:<20} {} {}\n", store.Var(b.number).name,
                        b.upper ? "<=" : ">=", b.value);
  return text;
}

}  // namespace kx::analysis
