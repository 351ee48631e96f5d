// solvers/dispatch: maps the solver number to a solver call routine. 1 ASOPT, 2 BIOPT (only
// with exact second derivatives, else status -4), 3 and 4 Ipopt; any other number is reported
// and solved with ASOPT.
#pragma once

#include <string>

#include "solvers/problem.h"

namespace kx::solvers {

// The 12-character display name of a solver number ("ASOPT (v1.0)"); "" outside 1..6.
std::string SolverDisplayName(int solver);

SolverResult DispatchSolver(int solver, Problem& problem, const SolverSettings& settings);

}  // namespace kx::solvers
