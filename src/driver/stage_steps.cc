#include "driver/stage_steps.h"

#include <filesystem>

#include "base/report.h"
#include "base/text.h"
#include "files/file_routine.h"
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

int NotSolved(CycleState& state, std::string_view what) {
  Sayf("The {} is not available yet: the model was built and checked, nothing was solved.",
       what);
  state.store.SetGlobal("APPSTATUS", 0);
  state.store.SetGlobal("SOLVESTATUS", 0);
  return -1;
}

// Derivative verification runs by DIAGLEVEL before the solve; it is not built yet.
void DerivativeChecks(int diaglevel) {
  if (diaglevel >= 5)
    Sayf("Derivative checks (DIAGLEVEL {}) are not available yet: no check was run", diaglevel);
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
