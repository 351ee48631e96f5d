// The main solve routine of a cycle: reads the solver options, runs one solver or, with
// SOLVER = 0, every solver from the same starting point (benchmark), writes the solution back
// to the model, reports the outcome and sets the outcome keys of the option store.
#pragma once

#include "dbs/option_store.h"
#include "solvers/model_problem.h"

namespace kx::driver {

struct SolveOutcome {
  int status = -1;          // 0 success
  int iterations = 0;
  double objective = 0.0;
  double seconds = 0.0;
};

// The solver settings of the option store (tolerances, limits, DIAGLEVEL) for mode `imode`.
solvers::SolverSettings ReadSolverSettings(const dbs::OptionStore& o, int imode, bool warm);

// Solves `problem` for the mode `imode`; `warm` says the start is a previous solution; the solution (or the last iterate) and the row
// multipliers are written into the model. A benchmark (SOLVER = 0) ends the run with a stop
// after its table: it never writes result, DBS or restart files.
SolveOutcome SolveProblem(dbs::OptionStore& options, int imode, bool warm,
                          solvers::ModelProblem& problem, model::ModelAccess& access);

// The outcome of a solve made some other way (`how` names it in the summary): objective,
// "infeasibilities.txt" on failure, the summary lines and the outcome keys.
void ReportOutcome(dbs::OptionStore& options, model::ModelAccess& access, const std::string& how,
                   SolveOutcome& out);

}  // namespace kx::driver
