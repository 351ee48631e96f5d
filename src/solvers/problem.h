// solvers/problem: the nonlinear program as every solver sees it, and what a solver hands back.
//
//   minimize f(x)   subject to   cl <= c(x) <= cu,   xl <= x <= xu
//
// Conventions shared by every solver and every problem:
//   - Indices are 0-based. A bound whose magnitude is kInfinity (1e20) or more is absent;
//     cl[i] == cu[i] makes row i an equality, xl[j] == xu[j] fixes variable j.
//   - The Jacobian is given as triplets (row, col) fixed for the life of the problem; the
//     Hessian as triplets of its lower triangle (row >= col) of
//         obj_factor * d2f(x) + sum_i lambda[i] * d2c_i(x),
//     i.e. of the Lagrangian L = f + lambda^T c. A structure may repeat a position; the
//     values of repeated positions add.
//   - Value calls return false when the evaluation failed (a domain error): the solver must
//     not use the result and should cut its step back. A result that is not finite counts as
//     failed as well; solvers read a problem only through solvers/problem_view, which checks.
//   - Structures are asked for once; value calls may come in any order, each given the point.
#pragma once

#include <span>
#include <string>
#include <vector>

namespace kx::solvers {

inline constexpr double kInfinity = 1e20;

inline bool IsFinite(double bound) { return bound > -kInfinity && bound < kInfinity; }

class Problem {
 public:
  virtual ~Problem() = default;

  virtual std::string name() const { return "problem"; }
  virtual int num_vars() = 0;
  virtual int num_cons() = 0;
  virtual int nnz_jac() = 0;
  virtual int nnz_hess() = 0;
  // False when no exact second derivatives are supplied (HessianValues must not be called).
  virtual bool has_hessian() { return true; }

  virtual void Bounds(std::span<double> xl, std::span<double> xu) = 0;
  virtual void ConstraintBounds(std::span<double> cl, std::span<double> cu) = 0;
  virtual void Start(std::span<double> x) = 0;
  // Multipliers of the rows to warm-start from; false when there are none.
  virtual bool StartMultipliers(std::span<double> lambda) { return false; }
  // Variables that must take integer values (branch and bound); empty for an NLP.
  virtual std::vector<int> IntegerVariables() { return {}; }

  virtual void JacobianStructure(std::span<int> rows, std::span<int> cols) = 0;
  virtual void HessianStructure(std::span<int> rows, std::span<int> cols) = 0;

  virtual bool Objective(std::span<const double> x, double& f) = 0;
  virtual bool Gradient(std::span<const double> x, std::span<double> g) = 0;
  virtual bool Constraints(std::span<const double> x, std::span<double> c) = 0;
  virtual bool JacobianValues(std::span<const double> x, std::span<double> values) = 0;
  virtual bool HessianValues(std::span<const double> x, double obj_factor,
                             std::span<const double> lambda, std::span<double> values) = 0;
};

// What the solve routine hands every solver.
struct SolverSettings {
  double objective_tol = 1e-6;   // OTOL: objective (optimality) convergence tolerance
  double constraint_tol = 1e-6;  // RTOL: equation residual convergence tolerance
  int max_iter = 250;            // MAX_ITER
  double max_time = 1e20;        // MAX_TIME, seconds of wall time for this solve
  int diaglevel = 0;             // DIAGLEVEL: 0 quiet ... 10 everything
  int imode = 3;                 // IMODE of the cycle (console mode name)
  bool warm = false;             // the start is a previous solution; StartMultipliers may
                                 // offer its multipliers
};

// What every solver hands back. Codes follow the built-in solver's table (solvers/status.h):
// 0 success, negative failure.
struct SolverResult {
  int status = -13;
  int iterations = 0;
  double objective = 0.0;
  std::vector<double> x;        // the solution, or the last iterate on failure
  std::vector<double> lambda;   // row multipliers (Lagrangian f + lambda^T c)
  std::vector<double> z_lower;  // lower-bound multipliers, >= 0
  std::vector<double> z_upper;  // upper-bound multipliers, >= 0
  int residual_evals = 0;       // Constraints() calls
  int jacobian_evals = 0;       // JacobianValues() calls
};

}  // namespace kx::solvers
