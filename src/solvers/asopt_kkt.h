// solvers/asopt_kkt: the symmetric indefinite factorisation behind the ASOPT QP subproblem.
// Small systems go to a dense LDL' (LAPACK Bunch-Kaufman), larger ones to the sparse MUMPS
// factorisation of linalg/kkt_ldl; both report the inertia.
#pragma once

#include <functional>
#include <span>
#include <string>
#include <vector>

#include "linalg/kkt_ldl.h"

namespace kx::solvers {

class KktFactor {
 public:
  static constexpr int kDenseLimit = 250;  // largest dimension factored densely

  // Factors the symmetric matrix of dimension dim given by triplets of its lower triangle
  // (repeated positions add). False when the factorisation failed outright.
  bool Factor(int dim, std::span<const int> rows, std::span<const int> cols,
              std::span<const double> values);
  int num_negative() const { return num_negative_; }
  int num_null() const { return num_null_; }
  bool Solve(std::span<double> rhs);
  int factorizations() const { return factorizations_; }
  // With level >= 1 every Factor call writes one line (dimension, non-zeros, kind, inertia,
  // time) to `log`; level 0 or an empty log writes nothing.
  void SetTrace(int level, std::function<void(const std::string&)> log);

 private:
  bool FactorAny(int dim, std::span<const int> rows, std::span<const int> cols,
                 std::span<const double> values);
  bool FactorDense(int dim, std::span<const int> rows, std::span<const int> cols,
                   std::span<const double> values);
  void CountDenseInertia();

  int dim_ = 0;
  bool dense_ = true;             // which factorisation holds the last matrix
  std::vector<double> a_;         // dense factor, column-major dim_ x dim_
  std::vector<int> pivots_;       // Bunch-Kaufman pivot indices of the dense factor
  linalg::KktLdl sparse_;         // sparse factor
  int num_negative_ = 0;
  int num_null_ = 0;
  int factorizations_ = 0;        // Factor calls so far
  int trace_level_ = 0;           // factorisation statistics wanted
  std::function<void(const std::string&)> trace_;  // where they go
};

}  // namespace kx::solvers
