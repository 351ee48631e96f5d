// solvers/residual_dump: a diagnostic print of the program a solver is handed at a point:
// sizes, values and bounds, residuals, objective and gradient, and the Jacobian in its
// combined index form (column of each non-zero, then the row starts, 1-based). Every vector
// is clipped to its first 10 values.
#pragma once

#include <span>

#include "solvers/problem_view.h"

namespace kx::solvers {

void PrintResidualDump(ProblemView& view, std::span<const double> x);

}  // namespace kx::solvers
