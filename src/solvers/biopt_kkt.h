// solvers/biopt_kkt: the primal-dual (augmented) system of one BIOPT step,
//
//   [ W + Sigma + delta_w I     A^T      ] [dw]   [r_w]
//   [ A                      -delta_c I  ] [dy] = [r_y]
//
// with w = (x_free, s), W the Hessian of the Lagrangian in x (zero for slacks), Sigma the
// diagonal of the bound terms, A = [J  -E] the Jacobian of c(x) - t (E picks each slack's
// row). The pattern is fixed: analysed once, factorised numerically for every step. The
// inertia correction raises delta_w (and delta_c for a singular or rank-deficient A) until the
// factorisation has exactly nw positive and m negative eigenvalues.
#pragma once

#include <span>
#include <vector>

#include "linalg/symmetric_ldl.h"
#include "solvers/biopt_nlp.h"

namespace kx::solvers::biopt {

class KktSystem {
 public:
  explicit KktSystem(const ScaledNlp& nlp);

  // Builds the pattern and analyses it. False when the library refused the pattern.
  bool Analyse();

  // Factorises with the smallest regularisation that gives the right inertia. hess may be
  // empty (zero Hessian block). False when no regularisation up to the limit works.
  bool FactoriseCorrected(std::span<const double> hess, std::span<const double> jac,
                          std::span<const double> sigma, double mu);
  // Factorises once with the given regularisation (no inertia check). False on failure.
  bool FactoriseFixed(std::span<const double> hess, std::span<const double> jac,
                      std::span<const double> sigma, double delta_w, double delta_c);

  // Solves with the last factorisation plus iterative refinement; rhs and sol of size
  // nw + m (they may not alias). False on a library failure or a solution that is not finite.
  bool Solve(std::span<const double> rhs, std::span<double> sol);

  int dim() const { return nw_ + m_; }
  double delta_w() const { return delta_w_; }
  double delta_c() const { return delta_c_; }

 private:
  void Assemble(std::span<const double> hess, std::span<const double> jac,
                std::span<const double> sigma, double delta_w, double delta_c);
  linalg::FactorOutcome Factorise();
  bool HasRightInertia(linalg::FactorOutcome outcome) const;

  const ScaledNlp& nlp_;
  linalg::SymmetricLdl ldl_;
  int nw_ = 0;                    // primal unknowns (free x and slacks)
  int m_ = 0;                     // rows
  int hess_begin_ = 0, diag_w_begin_ = 0, jac_begin_ = 0, slack_begin_ = 0, diag_y_begin_ = 0;
  std::vector<int> rows_, cols_;  // lower-triangle pattern; size nnz
  std::vector<double> values_;    // values of the assembled matrix; size nnz
  double delta_w_ = 0.0;          // Hessian regularisation of the last factorisation
  double delta_c_ = 0.0;          // constraint regularisation of the last factorisation
  double last_delta_w_ = 0.0;     // last nonzero delta_w that gave the right inertia
};

}  // namespace kx::solvers::biopt
