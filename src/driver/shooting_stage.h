// The solve of the sequential estimation and control modes (IMODE 8 and 9): single shooting
// over the free inputs (horizon/shooting) handed to the selected solver as a reduced program
// without second derivatives, which Ipopt approximates by its limited-memory update. The
// built-in solvers need them (BIOPT) or converge too slowly without them (ASOPT), so another
// SOLVER choice is solved with Ipopt after a line that says so.
#pragma once

#include "driver/cycle.h"
#include "driver/solve_stage.h"

namespace kx::driver {

// Solves the horizon of `m` as it stands (classes, measurements and control rows applied) and
// leaves the solution (or the last trajectory that solved) in the store.
SolveOutcome SolveShooting(CycleState& state, CycleModel& m, bool warm);

}  // namespace kx::driver
