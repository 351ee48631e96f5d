// analysis/reduction: model reduction before the solve (REDUCE > 0). Settles what needs no
// solver by switching records off in the model store; the model text and the compiled programs
// are not touched, and the structures are rebuilt once afterwards.
//
// Sweeps, repeated until nothing changes (each driven by work lists, so the whole reduction is
// linear in the model's size):
//   Orphan  a calculated variable in no active equation is held at its value;
//   LinEq   an active linear equality with one calculated variable left, a x + b = 0, fixes
//           x = -b/a (beyond a bound by more than 1e-10 in single precision it stops the run);
//   Zero    a linear equation whose remaining coefficients are all 0: removed when its
//           constant is 0, else the run stops (0*x = 1);
//   Empty   an equation with no calculated variable left: removed when it holds, else the run
//           stops;
//   Connect an equality stating that two calculated variables are equal (x - y = 0) removes
//           one of them, the other taking its place in every equation.
// A row that reads a time derivative that the solver calculates is never reduced. After the
// solve, Restore() switches everything back on and gives the removed variables their values,
// so the results and restart files read as if the solver had found them.
#pragma once

#include <vector>

#include "model/access.h"

namespace kx::analysis {

// The reduction tolerance: 1e-10 as a single-precision constant, held in double precision.
inline constexpr double kReduceTolerance = static_cast<double>(1e-10f);

struct ReductionRecord {
  std::vector<int> fixed_vars;                      // variables held by the reduction
  std::vector<int> removed_rows;                    // equations switched off
  std::vector<std::pair<int, int>> connected;       // (removed, kept) variable numbers
  std::vector<std::pair<int, std::vector<int>>> remapped;  // equation, its original columns
  int num_vars_eliminated() const {
    return static_cast<int>(fixed_vars.size() + connected.size());
  }
};

// Reduces the model behind `access`; `verbose` prints a line per action. Prints the summary
// ("Reduction analysis complete", "Eliminated N of M variables", the same for equations).
ReductionRecord ReduceModel(model::ModelAccess& access, bool verbose);

// Undoes the switches after the solve and sets the removed variables' values.
void RestoreReduction(model::ModelAccess& access, const ReductionRecord& record);

}  // namespace kx::analysis
