#include "solvers/banner.h"

#include <array>
#include <string>

#include "base/report.h"

namespace kx::solvers {

std::string_view ModeName(int imode) {
  static constexpr std::array<std::string_view, 9> kNames = {
      "Steady State Simulation", "Model Parameter Estimation", "Steady State Optimization",
      "Dynamic Simulation",      "Dynamic Estimation",         "Dynamic Control",
      "Sequential Simulation",   "Sequential Estimation",      "Sequential Control"};
  return imode >= 1 && imode <= 9 ? kNames[imode - 1] : "";
}

void PrintSolverBanner(char fill, int imode, std::string_view with_text) {
  const std::string rule(46, fill);
  Say(rule);
  Say(std::string(ModeName(imode)) + std::string(with_text));
  Say(rule);
}

}  // namespace kx::solvers
