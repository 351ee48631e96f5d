// horizon/sequential: step-by-step simulation of a replicated model. The horizon start's
// algebraic block is solved first, then each step in turn: its unknowns are the model's
// calculated variables at the step's non-initial nodes and the time derivatives of the
// differential ones there; its rows are the model equations and collocation rows at those
// nodes. Each step starts from the end of the one before and is a small square system solved
// by damped Newton steps with a sparse LU, so the result is the simultaneous collocation
// solution to the tolerance, and a horizon that a simultaneous solve cannot start from a flat
// guess is still simulated. Parameters (FVs, MVs) and the members of the estimation and
// control rows hold their values.
//
// Used for IMODE 7 and SEQUENTIAL = 1 (the simulation itself), to start the simultaneous
// modes 4 to 6 on a cold start, and inside the single shooting of modes 8 and 9
// (horizon/shooting).
#pragma once

#include <span>
#include <string>
#include <vector>

#include "horizon/replicate.h"
#include "model/access.h"

namespace kx::horizon {

struct SequentialSettings {
  double tolerance = 1e-6;  // largest residual of a solved step (RTOL)
  int max_iter = 50;        // Newton iterations a step
  // A step whose Newton iterations stop short of `tolerance` (rounding error of the rows'
  // magnitudes) still counts as solved when its largest residual is at most this; 0: no.
  double accept = 0;
};

struct SequentialOutcome {
  bool ok = false;
  int steps_solved = 0;     // steps (the start block counting as step 0) solved
  int failed_step = -1;     // first step that did not solve, -1 when none
  int iterations = 0;       // Newton iterations of all steps
  std::string why;          // what stopped a failed step
};

// One square block of the simulation: rows (equation indices, 0-based) and unknown columns
// (1..nvar a variable's value, nvar + n the time derivative of variable n).
struct StepBlock {
  std::vector<int> rows;
  std::vector<int> cols;
};

// The blocks in the order they are solved: the horizon start (block 0), then steps 1..N.
std::vector<StepBlock> SequentialBlocks(const Horizon& h, const model::ModelStore& base);

// Solves `blocks` in turn from the values in the store.
SequentialOutcome SimulateBlocks(std::span<const StepBlock> blocks, model::ModelAccess& access,
                                 const SequentialSettings& settings);

SequentialOutcome SimulateStepByStep(Horizon& h, const model::ModelStore& base,
                                     model::ModelAccess& access,
                                     const SequentialSettings& settings);

}  // namespace kx::horizon
