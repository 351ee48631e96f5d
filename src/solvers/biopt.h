// solvers/biopt: BIOPT, the built-in primal-dual interior-point solver for
//   minimize f(x)  subject to  cl <= c(x) <= cu,  xl <= x <= xu
// with exact second derivatives, for large sparse problems. It prints the solver banner, its
// version line and a summary, writes the iteration log "biopt.out" in the current directory,
// and returns a status of the built-in table (solvers/status.h); numerical trouble ends in a
// status, never an exception.
#pragma once

#include "solvers/biopt_solver.h"
#include "solvers/problem.h"

namespace kx::solvers {

SolverResult SolveBiopt(Problem& problem, const SolverSettings& settings);
// The same with explicit algorithm options (barrier rule, log file name, ...).
SolverResult SolveBiopt(Problem& problem, const SolverSettings& settings,
                        const biopt::Options& options);

}  // namespace kx::solvers
