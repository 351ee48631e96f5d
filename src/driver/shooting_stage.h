// The solve of the sequential estimation and control modes (IMODE 8 and 9): single shooting
// over the free inputs (horizon/shooting) handed to the selected solver as a reduced program
// with exact first and second derivatives. A model without exact second derivatives gives a
// reduced program without them too: Ipopt then uses its limited-memory update, and another
// SOLVER choice (BIOPT needs them, ASOPT converges too slowly without them) is solved with
// Ipopt after a line that says so.
#pragma once

#include "driver/cycle.h"
#include "driver/solve_stage.h"

namespace kx::driver {

// Solves the horizon of `m` as it stands (classes, measurements and control rows applied) and
// leaves the solution (or the last trajectory that solved) in the store.
SolveOutcome SolveShooting(CycleState& state, CycleModel& m, bool warm);

}  // namespace kx::driver
