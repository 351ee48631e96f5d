// linalg/symmetric_solver: sparse symmetric indefinite systems K x = b for the interior-point
// solvers. The call protocol is fixed:
//   1. Analyse(n, rows, cols) once per pattern (lower-triangle triplets, 0-based, row >= col;
//      a position may repeat, repeated values add);
//   2. Factorise(values) for each new set of values in the order of the pattern;
//   3. NegativeEigenvalues() / IsSingular() describe the last factorisation (the inertia);
//   4. Solve(rhs) any number of times, overwriting rhs with the solution.
// The interface is small so that another factorisation can stand behind it later.
#pragma once

#include <memory>
#include <span>

namespace kx::linalg {

enum class FactorOutcome {
  kOk,        // factorised; the inertia is known
  kSingular,  // factorised, but with zero pivots (the inertia counts only nonzero ones)
  kFailed,    // the factorisation did not complete (memory or an internal error)
};

class SymmetricSolver {
 public:
  virtual ~SymmetricSolver() = default;

  // Symbolic analysis of the pattern. False when the library refused it.
  virtual bool Analyse(int n, std::span<const int> rows, std::span<const int> cols) = 0;
  // Numeric factorisation of values given in pattern order (size = number of triplets).
  virtual FactorOutcome Factorise(std::span<const double> values) = 0;
  // Negative eigenvalues of the last factorised matrix.
  virtual int NegativeEigenvalues() const = 0;
  // Zero pivots found by the last factorisation.
  virtual int ZeroPivots() const = 0;
  // Solves in place with the last factorisation. False on a library error.
  virtual bool Solve(std::span<double> rhs) = 0;
};

// The multifrontal sequential solver (symmetric indefinite mode, silent).
std::unique_ptr<SymmetricSolver> MakeMultifrontalSolver();

}  // namespace kx::linalg
