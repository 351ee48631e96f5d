// The dynamic branch of the model stage: lays the model over the time horizon, starts it from
// the previous cycle (shifted one step on when TIME_SHIFT is on) or from a steady-state
// solution, applies the DBS values to every copy, solves, and writes the mode's restart file,
// "ic.t0", the derivative file and the outputs of the classified variables: simulation
// (IMODE 4, step by step with SEQUENTIAL = 1, and 7), moving-horizon estimation (5, with
// "est.meas", "est.xfer" and "icd_calc.txt") and control (6, with the tiers and "est.xfer"
// read). The data-set branch (IMODE 2) copies the steady-state model once per row of APP.csv
// and fits it the same way.
#pragma once

#include "driver/cycle.h"

namespace kx::driver {

// Returns the solve status (0 = success).
int SolveDynamic(CycleState& state, CycleModel& m);
int SolveDataSets(CycleState& state, CycleModel& m);

}  // namespace kx::driver
