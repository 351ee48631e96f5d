// Steps the steady-state and the dynamic branches of the model stage share.
#pragma once


#include <optional>

#include "analysis/reduction.h"
#include "driver/cycle.h"
#include "solvers/model_problem.h"

namespace kx::driver {

// Sizes and values a solver starts from (degrees of freedom at DIAGLEVEL >= 1). The residuals
// must be evaluated at the starting point.
void ReportStartingPoint(model::ModelAccess& access, bool dynamic, int diaglevel);

// A simulation (IMODE 1 or 4) must be square: otherwise the degrees of freedom are printed and
// the run stops with "* Error: DOF must be zero for this mode".
void CheckSimulationDof(model::ModelAccess& access, int imode);

// Derivative verification by DIAGLEVEL before the solve: first derivatives at 5, second
// derivatives too at 6 (files verify_obj_grad.txt, verify_jacobian.txt, verify_hessian.txt).
void DerivativeChecks(const CycleState& state, model::ModelAccess& access,
                      solvers::Problem& problem, bool dynamic);

// REDUCE > 0: model reduction before the solve (a line per action at DIAGLEVEL >= 1); REDUCE
// >= 2 then presolves a square system block by block. The record undoes the reduction after
// the solve (RestoreAfterSolve).
std::optional<analysis::ReductionRecord> ReduceBeforeSolve(const CycleState& state,
                                                           model::ModelAccess& access,
                                                           bool dynamic);
void RestoreAfterSolve(model::ModelAccess& access,
                       const std::optional<analysis::ReductionRecord>& record);

// Multipliers of a warm start from "lam.t0", when that file exists.
void ReadStartMultipliers(const CycleState& state, model::ModelAccess& access,
                          solvers::ModelProblem& problem);

}  // namespace kx::driver
