// model/checks: the consistency rules of the variable records that other code calls by name:
// forward resolution with its loop guard, bound repair, active-constraint marks, the integer
// count check and the rule that a differential variable is fixed only at the first node.
#pragma once

#include "model/records.h"

namespace kx::model {

// Longest forwarding chain that resolves; the next step stops the run.
inline constexpr int kMaxForwardSteps = 9999;

// Tolerance of the active-constraint marks, 1e-5 held in single precision.
inline constexpr double kActiveTolerance = static_cast<double>(1.0e-5f);

// Record index reached by following `forward` links from record `index`. Stops the run with
// "zpm_check_forwarding: POSSIBLE INFINITE LOOP" when a chain reaches 10000 steps.
int ResolveForward(const ModelStore& store, int index);

// When lower > upper, warns and sets lower = upper. Returns true when it repaired.
bool RepairBounds(Variable* v);

// Active-constraint mark of a variable: 'C' when its bounds are equal within the tolerance,
// 'L' when its value is within the tolerance of the lower bound, 'U' of the upper bound,
// ' ' otherwise.
char ActiveMark(const Variable& v);

// Compares the solver's integer count with the variables flagged integer; stops on mismatch.
void CheckIntegerCount(const ModelStore& store, int ni);

// Sets the fixed flag of a variable copy. A differential variable may be fixed only in its
// copy at the first node of the first step (number_n = 1 and number_h = 1); any other copy
// stops the run with "Error in CONSTANT_SETUP: differential variable cannot be fixed: ".
void FixVariable(Variable* v);

}  // namespace kx::model
