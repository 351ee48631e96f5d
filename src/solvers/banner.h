// solvers/banner: what every solver call routine prints before the solver's own output.
#pragma once

#include <string_view>

namespace kx::solvers {

// "Steady State Simulation", ... for IMODE 1..9; "" outside.
std::string_view ModeName(int imode);

// A line of 46 `fill` characters, the mode name followed by `with_text` (" with ASOPT Solver",
// " with BIOPT Solver", " with Interior Point Solver"), and the line again.
void PrintSolverBanner(char fill, int imode, std::string_view with_text);

}  // namespace kx::solvers
