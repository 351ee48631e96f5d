// linalg/sparse_lu: square unsymmetric sparse systems A x = b through SuiteSparse's KLU (the
// step-by-step simulation's Newton steps). Call protocol: Factor() with the matrix as 0-based
// triplets (repeated positions add), then Solve() any number of times; Factor() again for the
// next matrix. A pattern equal to the previous call's reuses its symbolic analysis.
#pragma once

#include <span>
#include <vector>

namespace kx::linalg {

class SparseLu {
 public:
  SparseLu();
  ~SparseLu();
  SparseLu(const SparseLu&) = delete;
  SparseLu& operator=(const SparseLu&) = delete;

  // False when the matrix is singular (or the library failed).
  bool Factor(int n, std::span<const int> rows, std::span<const int> cols,
              std::span<const double> values);
  // Solves A x = b in place with the last factorisation.
  bool Solve(std::span<double> b);

 private:
  void Release();
  struct Impl;
  Impl* impl_;
};

}  // namespace kx::linalg
