#include "driver/stage_steps.h"

#include <algorithm>

#include <filesystem>

#include "base/report.h"
#include "base/timers.h"
#include "base/text.h"
#include "files/file_routine.h"
#include "analysis/derivative_check.h"
#include "analysis/presolve.h"
#include "model/routines.h"

namespace kx::driver {

void ReportStartingPoint(model::ModelAccess& access, bool dynamic, int diaglevel) {
  const int shape = dynamic ? 2 : 1;  // steady or reduced-space selector of the routines
  Sayf("Number of variables   : {}", access.nvar() + (dynamic ? access.ndiff() : 0));
  Sayf("Number of constraints : {}", access.NumRows());
  Sayf("Jacobian non-zeros    : {}", model::zpm_nnz(access, shape));
  Sayf("Hessian non-zeros     : {}", model::zpm_nnzh(access, shape));
  Sayf("Objective at start    : {}", FormatReal(access.Objective(false)));
  if (diaglevel >= 1) model::zpm_dof(access, dynamic ? 12 : 2);
}

void CheckSimulationDof(model::ModelAccess& access, int imode) {
  if (imode == 1 || imode == 4) model::zpm_dof(access, imode == 4 ? 13 : 3);
  const lang::DomainErrors& errors = access.store().start_errors;
  if (errors.Total() > 0) errors.Report();
}

std::optional<analysis::ReductionRecord> ReduceBeforeSolve(const CycleState& state,
                                                           model::ModelAccess& access,
                                                           bool dynamic) {
  const int reduce = state.store.Int("REDUCE");
  if (reduce <= 0) return std::nullopt;
  std::optional<analysis::ReductionRecord> record;
  {
    ScopedTimer timer("Model reduction");
    record = analysis::ReduceModel(access, state.diaglevel >= 1);
  }
  if (reduce >= 2) {
    ScopedTimer timer("Presolve");
    analysis::PresolveSettings settings;
    settings.tolerance = state.store.Real("RTOL");
    settings.max_iter = std::max(1, state.store.Int("MAX_ITER"));
    settings.diaglevel = state.diaglevel;
    settings.dynamic = dynamic;
    analysis::BlockPresolve(access, settings);
  }
  return record;
}

void RestoreAfterSolve(model::ModelAccess& access,
                       const std::optional<analysis::ReductionRecord>& record) {
  if (!record) return;
  analysis::RestoreReduction(access, *record);
  access.EvaluateResiduals();
}

void DerivativeChecks(const CycleState& state, model::ModelAccess& access,
                      solvers::Problem& problem, bool dynamic) {
  if (state.diaglevel < 5) return;
  model::ModelStore& store = access.store();
  std::vector<int> by_idiff(store.ndiff + 1, 0);
  for (int n = 1; n <= store.nvar; ++n)
    if (store.Var(n).idiff > 0) by_idiff[store.Var(n).idiff] = n;
  const int nvar = store.nvar;
  analysis::ProblemNames names;
  names.is_derivative = [nvar](int j) { return j >= nvar; };
  names.variable = [&store, nvar, by_idiff](int j) {
    return j < nvar ? store.Var(j + 1).name : "d( " + store.Var(by_idiff[j - nvar + 1]).name + " )/dt";
  };
  names.row = [&access](int i) { return access.Row(i + 1).name; };
  names.expression = [&access](int i) { return access.Row(i + 1).Text(); };
  const int states = access.CountDof(dynamic).num_state;
  analysis::RunDerivativeChecks(problem, names, states, state.flags.imode, state.diaglevel, ".");
}

// Multipliers of a warm start from "lam.t0", when that file exists.
void ReadStartMultipliers(const CycleState& state, model::ModelAccess& access,
                          solvers::ModelProblem& problem) {
  if (state.store.Int("COLDSTART") > 0 || !std::filesystem::exists("lam.t0")) return;
  if (files::zpm_files(12, "lam.t0") != 0) return;
  problem.start_multipliers.resize(access.NumRows());
  for (int r = 1; r <= access.NumRows(); ++r)
    problem.start_multipliers[r - 1] = access.Row(r).lambda;
}

}  // namespace kx::driver
