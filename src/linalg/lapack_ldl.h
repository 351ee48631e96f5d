// linalg/lapack_ldl: dense Bunch-Kaufman LDL' of a small symmetric matrix (LAPACK), with the
// inertia read from its block diagonal. Used only through linalg/symmetric_ldl.
#pragma once

#include <span>
#include <vector>

#include "linalg/symmetric_ldl.h"

namespace kx::linalg {

class LapackLdl {
 public:
  // Factors the dim x dim matrix given by lower-triangle triplets (repeated positions add).
  FactorOutcome Factorise(int dim, std::span<const int> rows, std::span<const int> cols,
                          std::span<const double> values);
  bool Solve(std::span<double> rhs);
  int num_negative() const { return num_negative_; }
  int num_null() const { return num_null_; }

 private:
  void CountInertia();

  int dim_ = 0;
  std::vector<double> a_;    // factor, column-major dim_ x dim_
  std::vector<int> pivots_;  // pivot indices of the factor; size dim_
  int num_negative_ = 0;
  int num_null_ = 0;
};

}  // namespace kx::linalg
