// solvers/asopt_kkt: the factorisation behind the ASOPT QP subproblem, linalg::SymmetricLdl
// with the settings the active-set method needs (dense up to kDenseLimit, null pivots
// reported, one refinement step), counting factorisations and tracing each one.
#pragma once

#include <functional>
#include <span>
#include <string>

#include "linalg/symmetric_ldl.h"

namespace kx::solvers {

class KktFactor {
 public:
  static constexpr int kDenseLimit = 250;  // largest dimension factored densely

  KktFactor();
  // Factors the symmetric matrix of dimension dim given by triplets of its lower triangle
  // (repeated positions add). False when the factorisation failed outright.
  bool Factor(int dim, std::span<const int> rows, std::span<const int> cols,
              std::span<const double> values);
  int num_negative() const { return ldl_.num_negative(); }
  int num_null() const { return ldl_.num_null(); }
  bool Solve(std::span<double> rhs) { return ldl_.Solve(rhs); }
  int factorizations() const { return factorizations_; }
  // With level >= 1 every Factor call writes one line (dimension, non-zeros, kind, inertia,
  // time) to `log`; level 0 or an empty log writes nothing.
  void SetTrace(int level, std::function<void(const std::string&)> log);

 private:
  linalg::SymmetricLdl ldl_;
  int factorizations_ = 0;        // Factor calls so far
  int trace_level_ = 0;           // factorisation statistics wanted
  std::function<void(const std::string&)> trace_;  // where they go
};

}  // namespace kx::solvers
