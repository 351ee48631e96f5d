// linalg/kkt_ldl: sparse symmetric indefinite LDL' factorisation of a KKT matrix through
// sequential MUMPS, with the inertia (number of negative and of null pivots) that an
// inertia-controlled optimiser needs.
//
// Call protocol: Factor() with the lower triangle as 0-based triplets (repeated positions
// add), then any number of Solve() calls; Factor() again for the next matrix. A structure
// identical to the previous call reuses the symbolic analysis.
#pragma once

#include <span>
#include <vector>

namespace kx::linalg {

class KktLdl {
 public:
  KktLdl();
  ~KktLdl();
  KktLdl(const KktLdl&) = delete;
  KktLdl& operator=(const KktLdl&) = delete;

  // Factors the dim x dim symmetric matrix. False when the factorisation failed outright
  // (MUMPS error); a singular matrix factors and shows null pivots instead.
  bool Factor(int dim, std::span<const int> rows, std::span<const int> cols,
              std::span<const double> values);
  int num_negative() const { return num_negative_; }  // negative pivots of the last Factor
  int num_null() const { return num_null_; }          // null pivots detected
  // Solves K x = rhs in place with the last factorisation.
  bool Solve(std::span<double> rhs);

 private:
  bool Run(int job);
  bool SolveOnce(double* rhs);
  void Release();

  struct Handle;
  Handle* handle_;          // the MUMPS instance, created on the first Factor
  int dim_ = 0;             // dimension of the factored matrix
  std::vector<int> irn_;    // 1-based row of each entry
  std::vector<int> jcn_;    // 1-based column of each entry
  std::vector<double> a_;   // entry values
  bool analysed_ = false;   // the symbolic analysis matches irn_/jcn_
  int num_negative_ = 0;
  int num_null_ = 0;
};

}  // namespace kx::linalg
