// solvers/asopt_sqp: `Ace_CONVRG`, the line-search SQP loop of ASOPT.
//
// Each iteration solves the QP subproblem (solvers/asopt_qp) built from the exact Hessian of
// the Lagrangian, shifted by delta*I until the QP reports positive curvature on the null space
// of its working set (inertia control), and the linearised rows with an l1 elastic penalty.
// The step is accepted by a backtracking line search on the l1 exact-penalty merit function
// f + nu * sum(row violations), with second-order corrections when a full step makes the rows
// worse. When the linearised rows are inconsistent even under a large penalty the iteration is
// in feasibility mode (it minimises the violation); a point where the violation cannot be
// reduced any further ends with NOFEASLN.
#pragma once

#include <chrono>
#include <fstream>
#include <span>
#include <string>
#include <vector>

#include "solvers/asopt_options.h"
#include "solvers/asopt_qp.h"
#include "solvers/problem.h"
#include "solvers/problem_view.h"

namespace kx::solvers {

// The iteration log: every line goes to "ASOPT.out" (when open), and to the console as well
// when the caller's print level asks for it.
class AsoptLog {
 public:
  AsoptLog() = default;
  explicit AsoptLog(const std::string& path) : file_(path) {}
  void Line(const std::string& text, bool console);
  bool is_open() const { return file_.is_open(); }

 private:
  std::ofstream file_;
};

// The warm-start contract of the parametric modes: what a solve takes over from the previous
// call through SqpState. The Jacobian and Hessian are reused only when the start point is the
// previous final point.
enum class WarmStart : int {
  kCold = 0,              // nothing
  kEqualityRows = 1,      // nothing (the equality rows enter the first working set anyway)
  kGivenWorkingSet = 2,   // the working set in SqpState::active, as the caller gave it
  kWorkingSet = 3,        // the working set and multipliers of the previous call
  kKeepJacobian = 4,      // ... and its Jacobian
  kKeepHessian = 5,       // ... and its Hessian
  kKeepDerivatives = 6,   // ... and both
  kBoundsOnly = 7,        // only bounds of inactive rows changed: everything kept
};
inline bool KeepsWorkingSet(WarmStart m) { return m >= WarmStart::kGivenWorkingSet; }
inline bool KeepsMultipliers(WarmStart m) { return m >= WarmStart::kWorkingSet; }
inline bool KeepsJacobian(WarmStart m) {
  return m == WarmStart::kKeepJacobian || m >= WarmStart::kKeepDerivatives;
}
inline bool KeepsHessian(WarmStart m) { return m >= WarmStart::kKeepHessian; }

// What the loop keeps between calls.
struct SqpState {
  QpWorkingSet active;          // working set of the last QP
  std::vector<double> lambda;   // row multipliers at the last point
  std::vector<double> x;        // last point
  std::vector<double> jac;      // Jacobian values at x
  std::vector<double> hess;     // Hessian values at x with lambda
  double delta = 0.0;           // last Hessian shift
};

struct SqpOutcome {
  int status = -13;
  int iterations = 0;
  double objective = 0.0;
  double violation = 0.0;  // largest row violation at x
  std::vector<double> x, lambda, z_lower, z_upper;
};

struct SqpControl {
  const AsoptOptions* options = nullptr;
  WarmStart mode = WarmStart::kCold;               // parametric mode
  AsoptLog* log = nullptr;
};

// Solves the NLP within the bounds xl, xu (a leaf's bounds) from x. Never throws on a
// numerical failure: every outcome is a status code of solvers/status.h.
SqpOutcome Ace_CONVRG(ProblemView& nlp, std::span<const double> xl, std::span<const double> xu,
                      std::vector<double> x, SqpState& state, const SqpControl& control);

}  // namespace kx::solvers
