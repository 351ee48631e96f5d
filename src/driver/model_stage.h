// The model stage of the run cycle: builds the model for the mode, checks the info file
// against it, initialises it from the restart file and the DBS values, solves it and writes
// the restart file of the mode. Steady-state modes (IMODE 1 and 3) are solved here; the
// data-set mode (2) and the horizon modes (4 to 7) go to driver/dynamic_stage; sequential
// estimation and control (8, 9) say they are not available and end as a failed cycle.
#pragma once

#include "driver/cycle.h"

namespace kx::driver {

// Builds, initialises and solves; returns the solve status (0 = success).
int RunModelStage(CycleState& state);

}  // namespace kx::driver
