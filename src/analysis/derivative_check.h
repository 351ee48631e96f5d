// analysis/derivative_check: the exact derivatives of a problem against finite differences,
// for the diagnostic levels that ask for it (DIAGLEVEL 5: first derivatives, 6: second too).
// Works on the solvers' callback set at a point, so the same checks serve the steady-state
// and the horizon model; names for the reports come from the caller.
//
//   objective gradient  "verify_obj_grad.txt"  step 1e-6, "**" where |analytic - numeric| > 1e-4
//   Jacobian            "verify_jacobian.txt"  step 1e-6, "(==)" where |num - an| / max(|num|, 1)
//                       (plus "sparsity.txt",  >= 0.05, "(xx)" where |num| >= 0.05 with no
//                        "jacobian.txt")       analytic element; one report block per error
//   Hessian             "verify_hessian.txt"   step 1e-8 on the analytic first derivatives,
//                                              "*" where |num - an| >= 0.05, "x" where
//                                              |num| >= 0.05 with no analytic element
// Each check prints its error count ("zpm_verify_jacobian: located N errors (see ...)"); errors
// never stop the run. One evaluation per variable: meant for small models and diagnostics.
#pragma once

#include <functional>
#include <span>
#include <string>

#include "solvers/problem.h"

namespace kx::analysis {

// Names of a problem's variables (0-based index) and rows, and the text of a row.
struct ProblemNames {
  std::function<std::string(int)> variable;   // "x", or "d( x )/dt" for a time derivative
  std::function<bool(int)> is_derivative;     // the variable is a time derivative
  std::function<std::string(int)> row;        // row name
  std::function<std::string(int)> expression; // row text
};

inline constexpr double kGradientStep = 1e-6;
inline constexpr double kGradientTolerance = 1e-4;
inline constexpr double kJacobianStep = 1e-6;
inline constexpr double kJacobianTolerance = 0.05;
inline constexpr double kHessianStep = 1e-8;
inline constexpr double kHessianTolerance = 0.05;
inline constexpr double kLargeObjective = 1e8;

// Each returns the number of errors found; files go to `dir`.
int VerifyObjectiveGradient(solvers::Problem& p, std::span<const double> x,
                            const ProblemNames& names, const std::string& dir);
int VerifyJacobian(solvers::Problem& p, std::span<const double> x, const ProblemNames& names,
                   int num_states, const std::string& dir);
int VerifyHessian(solvers::Problem& p, std::span<const double> x, const ProblemNames& names,
                  const std::string& dir);

// The checks of a cycle by DIAGLEVEL, with their console lines; `imode` outside 1..9 stops
// with "zpm_verify_jacobian: imode invalid N".
void RunDerivativeChecks(solvers::Problem& p, const ProblemNames& names, int num_states,
                         int imode, int diaglevel, const std::string& dir);

}  // namespace kx::analysis
