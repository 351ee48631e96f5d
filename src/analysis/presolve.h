// analysis/presolve: block presolve of a square system before the main solve (REDUCE = 2),
// so that a large simulation starts from a consistent point. The decision variables (the
// parameters freed as FVs or MVs) are held, the remaining calculated variables and the
// equality rows must be as many, a zero-free diagonal is matched and the system is ordered
// into lower block-triangular form (SuiteSparse's BTF); the blocks are then solved one after
// the other by damped Newton steps, each with the blocks before it solved and held. A
// differential variable and its time derivative falling into different blocks is reported.
//
// A failed block is reported in "presolve.txt" with its equations (residuals) and variables
// (values); the main solve then goes on from the point the presolve reached, since a block
// that does not solve alone may still solve with the rest of the model. At DIAGLEVEL >= 2 the
// restart files "presolve_init_.t0" and "presolve_final_.t0" record the point before and after.
#pragma once

#include <string>

#include "model/access.h"

namespace kx::analysis {

struct PresolveSettings {
  double tolerance = 1e-6;  // RTOL
  int max_iter = 100;       // MAX_ITER
  int diaglevel = 0;
  bool dynamic = false;     // the time derivatives of differential variables are unknowns
  std::string dir = ".";
};

// 0 after a solved presolve; 1 when it was given up (not square, no zero-free diagonal);
// -1 when a block failed.
int BlockPresolve(model::ModelAccess& access, const PresolveSettings& settings);

}  // namespace kx::analysis
