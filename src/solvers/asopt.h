// solvers/asopt: the ASOPT call, the solver call routine of the built-in active-set SQP
// solver with branch and bound (SOLVER 1, and the fallback for solvers that are not
// available).
//
// Prints the banner, reads "asopt.opt" (OTOL, RTOL and MAX_ITER of the settings are the
// defaults of objective_convergence_tolerance, constraint_convergence_tolerance and
// nlp_maximum_iterations unless the file sets them), writes "asopt_current_options.opt" at
// DIAGLEVEL 1 and above, logs its iterations to "ASOPT.out", and returns the status codes of
// solvers/status.h. A setup that fails (a bound or start value that is not a number, inverted
// bounds, derivatives that cannot be evaluated at the start, too many degrees of freedom)
// prints the solver dump. With nlp_debug_level 1 or more in "asopt.opt" the residual
// evaluation dump of the start point goes to the console and the parameter tables to
// "ASOPT.out" before the solve.
#pragma once

#include "solvers/asopt_sqp.h"
#include "solvers/problem.h"

namespace kx::solvers {

SolverResult SolveAsopt(Problem& problem, const SolverSettings& settings);

// The same with a warm-start state that lives across calls and an explicit parametric mode.
// `nodes` (optional) receives the number of leaves solved.
SolverResult SolveAsopt(Problem& problem, const SolverSettings& settings, SqpState& state,
                        WarmStart mode, int* nodes = nullptr);

}  // namespace kx::solvers
