// solvers/asopt_qp: the QP subproblem of ASOPT, a primal active-set method on the sparse KKT
// system of the working set.
//
//   minimize  1/2 x'(H + delta I)x + c'x   subject to  rl <= A x <= ru,  xl <= x <= xu
//
// Rows violated at the starting point get an elastic variable e >= 0 with the linear cost
// `elastic_weight` (an l1 penalty), so the QP always has a feasible starting point; a QP
// whose constraints are inconsistent ends with the least-violation point and kInfeasible.
// Every working-set change refactorises the KKT matrix [H_FF + delta I, A_WF'; A_WF, -eps I]
// of the free variables F and working rows W (kept at full size, see SolveEqp); its inertia
// tells whether the Hessian is positive definite on the null space of the working set
// (otherwise kNonconvex, and the caller raises delta). Start-up passes guess the working set;
// a step that cannot move takes every constraint it runs into (and every unreleased one on its
// bound) into the working set at once, one factorisation for the lot. Runs of degenerate
// steps switch to the smallest-index rule, and an iteration limit ends every solve.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "linalg/symmetric_ldl.h"

namespace kx::solvers {

// Where a variable or a row stands in the working set.
enum class Activity : signed char { kFree = 0, kLower = 1, kUpper = 2 };

struct QpProblem {
  int num_vars = 0;
  int num_rows = 0;
  std::vector<int> h_rows, h_cols;  // Hessian lower-triangle triplets; may repeat positions
  std::vector<double> h_vals;
  std::vector<double> grad;         // linear term c; size num_vars
  std::vector<int> a_rows, a_cols;  // constraint matrix triplets
  std::vector<double> a_vals;
  std::vector<double> xl, xu;       // variable bounds; |bound| >= infinity means none
  std::vector<double> rl, ru;       // row bounds; rl == ru for an equality
  double delta = 0.0;               // added to the Hessian diagonal
  double elastic_weight = 1e6;      // cost of one unit of row violation
  double infinity = 1e20;           // bound magnitude treated as absent
  double tolerance = 1e-9;          // relative feasibility and multiplier tolerance
  // Multipliers are compared with tolerance * max(multiplier_scale, largest gradient entry):
  // below 1 for an objective whose gradient is small everywhere.
  double multiplier_scale = 1.0;
  int max_iterations = 1000;
  // The solve stops with kTimeLimit at the first iteration that begins past this point.
  std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();
  // Trace: print_level >= 1 writes one line per iteration (working-set size, step, the
  // constraint added or dropped) and per start-up pass; factor_print_level >= 1 one line per
  // factorisation (size, non-zeros, inertia, time). Lines go to `log` when it is set.
  int print_level = 0;
  int factor_print_level = 0;
  std::function<void(const std::string&)> log;
};

enum class QpStatus { kOptimal, kInfeasible, kNonconvex, kIterationLimit, kFactorFailed, kTimeLimit };

struct QpWorkingSet {
  std::vector<Activity> vars;  // size num_vars; empty means no guess
  std::vector<Activity> rows;  // size num_rows
};

struct QpResult {
  QpStatus status = QpStatus::kFactorFailed;
  std::vector<double> x;       // solution (or last feasible point)
  std::vector<double> lambda;  // row multipliers, convention c + H x + A' lambda - z = 0
  std::vector<double> z;       // bound multipliers, >= 0 at a lower, <= 0 at an upper bound
  QpWorkingSet active;         // final working set
  double violation = 0.0;      // sum of the elastic variables (row violation left)
  int iterations = 0;
  int factorizations = 0;
};

// The factorisation of the KKT matrices, kept across QPs of one structure (the subproblems of
// successive SQP iterations share one symbolic analysis): dense up to kDenseLimit, null
// pivots reported, one refinement step. The built-in QP decides how to correct the inertia.
struct KktFactor {
  static constexpr int kDenseLimit = 250;  // largest dimension factored densely
  linalg::SymmetricLdl ldl{linalg::LdlSettings{
      .dense_limit = kDenseLimit, .detect_null_pivots = true, .refinement_rounds = 1}};
  int factorizations = 0;  // factorisations so far
};

// Solves the QP, starting from the working set `guess` when it has the right sizes (a warm
// start: its equality-constrained minimiser is the starting point when that is feasible).
// `factor`, when given, is a factorisation kept across calls: QPs of the same structure (the
// subproblems of successive SQP iterations) then share one symbolic analysis.
QpResult SolveQp(const QpProblem& qp, const QpWorkingSet& guess, KktFactor* factor = nullptr);

}  // namespace kx::solvers
