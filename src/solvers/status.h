// solvers/status: the built-in solvers' status codes, with the status word used in their own
// listings and the outcome text printed after a solve. BIOPT reports through the same table.
#pragma once

#include <string_view>

namespace kx::solvers {

enum Status : int {
  kSuccess = 0,
  kNoFeasibleSolution = -1,
  kUnbounded = -2,
  kInvalidBounds = -3,
  kBadInputs = -4,
  kUserAbort = -5,
  kWorkspace1 = -6,
  kWorkspace2 = -7,
  kWorkspace3 = -8,
  kMaxIterations = -9,
  kBadDerivatives = -10,
  kAccuracyUnachievable = -11,
  kExternalAbort = -12,
  kSystemError = -13,
};

// Internal: a step of a solver that lets the iterations go on (never handed back).
inline constexpr int kContinue = 1;

// "SUCCESS", "NOFEASLN", ...; "" for a code outside 0..-13.
std::string_view StatusWord(int code);
// "Successful solution", "No feasible solution", ...; "Unsuccessful" for any other code.
std::string_view OutcomeText(int code);

}  // namespace kx::solvers
