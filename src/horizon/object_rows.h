// horizon/object_rows: the objects whose relations tie values at different time points of a
// dynamic horizon. The object library writes them as steady-state model rows (objects/
// control_objects.cc); over a horizon their copies are turned into relations between points:
//
//   arx       y = sum a_i yl[i] + sum b_j ul[j] + c with the lag rows yl[i] = y, ul[j] = u.
//             One sample is one horizon step: the copy of a lag row at a point reads y (u) at
//             the step boundary i (j) samples back, so the output row at the end of step k is
//             y(k) = sum a_i y(k-i) + sum b_j u(k-j) + c. A sample before the horizon start
//             reads the start, so the values before the start are the start values held
//             constant. With the member rest = 1 (default) the start itself satisfies the
//             steady-state relation (the system is at rest when the horizon begins); with
//             rest = 0 y(0) is fixed at its starting value like an initial condition and the
//             output row at the start is inactive. A point inside step k (NODES > 2) reads the
//             lags of the step's start, so y holds y(k-1) through the step (zero-order hold of
//             the sampled output). Only column maps change: no row is added or removed, and the
//             rows stay model rows of their points, so the step-by-step simulation solves them
//             in order.
//   periodic  one row x(end) - x(start) = 0; when x is a differential variable its initial
//             condition is freed, so a simulation stays square and finds the periodic orbit.
//             Not enforced in a sequential simulation, which cannot look ahead (a warning).
//
// Nothing is done for the data sets of IMODE 2: those are steady-state copies.
#pragma once

#include <vector>

#include "horizon/inputs.h"
#include "model/records.h"

namespace kx::horizon {

// Applies the cross-time relations of the arx and periodic objects of `base` to the
// replicated store of `rows`. Call once, after replication and before the first solve.
void ApplyObjectsOverHorizon(HorizonRows& rows, const model::ModelStore& base, bool sequential);

// Base numbers of the outputs whose start value is held fixed (arx with rest = 0): like the
// initial condition of a differential variable, their start comes from the restart file.
std::vector<int> HeldStarts(const model::ModelStore& base);

}  // namespace kx::horizon
