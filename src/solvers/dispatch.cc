#include "solvers/dispatch.h"

#include <array>
#include <string_view>

#include "base/report.h"
#include "solvers/asopt.h"
#include "solvers/biopt.h"
#include "solvers/ipopt_call.h"
#include "solvers/status.h"


namespace kx::solvers {
namespace {

// The display names are a first letter and eleven more characters, kept apart as the
// benchmark table expects.
struct DisplayName {
  char first;
  std::string_view rest;
};
constexpr std::array<DisplayName, 6> kNames = {{{'A', "SOPT (v1.0)"},
                                                  {'B', "IOPT (v1.0)"},
                                                  {'I', "POPT (v3.9)"},
                                                  {'I', "POPT (v2.3)"},
                                                  {'S', "NOPT (v6.1)"},
                                                  {'M', "INOS (v5.5)"}}};

// Only ASOPT branches on integer variables; the others solve the relaxation and say so.
void WarnRelaxation(Problem& problem, std::string_view solver) {
  const size_t count = problem.IntegerVariables().size();
  if (count > 0)
    Sayf("WARNING: {} solves the continuous relaxation: its {} integer variables may end "
         "between integers (only ASOPT branches on them)",
         solver, count);
}

SolverResult CallBiopt(Problem& problem, const SolverSettings& settings) {
  if (!problem.has_hessian()) {
    Say("BIOPT: l-BFGS not available");
    SolverResult r;
    r.status = kBadInputs;
    return r;
  }
  WarnRelaxation(problem, "BIOPT");
  return SolveBiopt(problem, settings);
}

}  // namespace

std::string SolverDisplayName(int solver) {
  if (solver < 1 || solver > 6) return "";
  const DisplayName& n = kNames[solver - 1];
  return std::string(1, n.first) + std::string(n.rest);
}

SolverResult DispatchSolver(int solver, Problem& problem, const SolverSettings& settings) {
  switch (solver) {
    case 1:
      return SolveAsopt(problem, settings);
    case 2:
      return CallBiopt(problem, settings);
    case 3:
    case 4:
      WarnRelaxation(problem, "IPOPT");
      return SolveIpopt(problem, settings);
    default:
      Sayf("solver {} not supported", solver);
      Say("using default solver: ASOPT");
      return SolveAsopt(problem, settings);
  }
}

}  // namespace kx::solvers
