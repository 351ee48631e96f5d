// solvers/ipopt_call: the call routine of the interior-point library Ipopt (SOLVER 3 and 4).
// Hands a Problem to the library's problem interface with a fixed option set, writes the
// library's log to "ipopt.out", and returns the library's own status code unchanged
// (0 success; positive and negative codes are the library's other outcomes).
#pragma once

#include "solvers/problem.h"

namespace kx::solvers {

// Prints the solver banner and the outcome lines; never throws on a numerical failure.
// Options taken from `settings`: diaglevel (derivative test), max_iter, constraint_tol
// ("tol"), max_time (checked once per iteration), warm (start multipliers), imode (banner).
SolverResult SolveIpopt(Problem& problem, const SolverSettings& settings);

// True when a library with the HSL linear solvers can be loaded at run time; without one the
// call routine uses MUMPS instead of MA27.
bool HslAvailable();

}  // namespace kx::solvers
