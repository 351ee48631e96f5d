// The model stage of the run cycle: builds the model for the mode, checks the info file
// against it, initialises it from the restart file and the DBS values, solves it and writes
// the restart file of the mode. Steady-state modes (IMODE 1 and 3) are solved; the data-set
// and dynamic modes say they are not available and end the cycle as a failed cycle.
#pragma once

#include "driver/cycle.h"

namespace kx::driver {

// Builds, initialises and solves; returns the solve status (0 = success).
int RunModelStage(CycleState& state);

}  // namespace kx::driver
