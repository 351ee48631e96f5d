// The model stage of the run cycle: builds the model for the mode, checks the info file
// against it, builds the solver-facing structures once and reports what a solve would start
// from. Solving comes with the solver interface; until then the stage says so and the cycle
// ends as a failed cycle, never reporting a solve it did not do.
#pragma once

#include "driver/cycle.h"

namespace kx::driver {

// Builds and checks the model; returns the solve status (non-zero: nothing was solved).
int RunModelStage(CycleState& state);

}  // namespace kx::driver
