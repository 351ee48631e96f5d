// solvers/biopt_nlp: the nonlinear program as BIOPT's iterations see it, built on the problem
// view (solvers/problem_view). Fixed variables (xl == xu) are taken out, the objective and the rows are scaled so that no gradient entry
// exceeds 100 at the start point, bounds are relaxed by a relative 1e-8, and every row that
// is not an equality gets a slack s with cl <= s <= cu, so that all rows read c(x) - t = 0
// with t = s (inequality) or t = cl (equality).
//
// Internal variables are w = (x_free, s): nx free variables followed by ns slacks.
#pragma once

#include <span>
#include <vector>

#include "solvers/problem_view.h"

namespace kx::solvers::biopt {

class ScaledNlp {
 public:
  explicit ScaledNlp(ProblemView& view) : view_(view) {}

  // Takes the free variables, rows and structures of the view. kSuccess, or kInvalidBounds
  // for inputs it cannot start from (a NaN or crossed bound, a structure position outside
  // the problem).
  int Prepare();
  // The free part of the problem's start point.
  void StartPoint(std::span<double> x) const;
  // Gradient-based scaling at x (free variables). False when an evaluation failed.
  bool ComputeScaling(std::span<const double> x);

  // Scaled evaluations at free variables x. False on a failed evaluation.
  bool Objective(std::span<const double> x, double& f);
  bool Gradient(std::span<const double> x, std::span<double> g);       // size nx
  bool Constraints(std::span<const double> x, std::span<double> c);    // size m
  bool Jacobian(std::span<const double> x, std::span<double> values);  // size nnz_jac
  // Lower triangle of obj_factor * f'' + sum y_i c_i'' (all scaled), size nnz_hess.
  bool Hessian(std::span<const double> x, double obj_factor, std::span<const double> y,
               std::span<double> values);

  // The full problem point (fixed variables at their value) of free variables x.
  void FullPoint(std::span<const double> x, std::span<double> full) const;
  // Unscaled row multipliers of scaled ones.
  void UnscaleMultipliers(std::span<const double> y, std::span<double> lambda) const;

  ProblemView& view() { return view_; }
  int nx() const { return static_cast<int>(free_.size()); }
  int n_full() const { return n_; }
  int m() const { return m_; }
  int ns() const { return static_cast<int>(slack_row_.size()); }
  int nw() const { return nx() + ns(); }
  int nnz_jac() const { return static_cast<int>(jac_keep_.size()); }
  int nnz_hess() const { return static_cast<int>(hess_keep_.size()); }
  const std::vector<int>& jac_rows() const { return jac_rows_; }
  const std::vector<int>& jac_cols() const { return jac_cols_; }
  const std::vector<int>& hess_rows() const { return hess_rows_; }
  const std::vector<int>& hess_cols() const { return hess_cols_; }
  const std::vector<int>& free_vars() const { return free_; }
  // Relaxed bounds of w (x_free then slacks); +-kInfinity where absent.
  const std::vector<double>& lower() const { return lower_; }
  const std::vector<double>& upper() const { return upper_; }
  // Slack of each row (-1 for an equality) and row of each slack.
  const std::vector<int>& row_slack() const { return row_slack_; }
  const std::vector<int>& slack_row() const { return slack_row_; }
  // Scaled right-hand side of each equality row (0 for inequality rows).
  const std::vector<double>& rhs() const { return rhs_; }
  double obj_scale() const { return obj_scale_; }
  const std::vector<double>& row_scale() const { return row_scale_; }

 private:
  void ClassifyRows();
  void ReadStructures();
  void RelaxBounds();
  void Expand(std::span<const double> x);

  ProblemView& view_;
  int n_ = 0;                       // variables of the problem
  int m_ = 0;                       // rows
  std::vector<double> x_fixed_;     // full point buffer, fixed variables at their value; size n_
  std::vector<int> free_;           // problem index of each free variable; size nx
  std::vector<double> lower_, upper_;  // relaxed scaled bounds of w; size nw
  std::vector<int> row_slack_;      // slack of each row, -1 for equality rows; size m_
  std::vector<int> slack_row_;      // row of each slack; size ns
  std::vector<double> rhs_;         // scaled equality right-hand side; size m_
  std::vector<int> jac_keep_;       // problem Jacobian entry of each kept entry; size nnz_jac
  std::vector<int> jac_rows_, jac_cols_;    // kept Jacobian entries (free columns)
  std::vector<int> hess_keep_;      // problem Hessian entry of each kept entry
  std::vector<int> hess_rows_, hess_cols_;  // kept Hessian entries (free indices)
  std::vector<double> jac_full_;    // problem Jacobian values; size problem nnz_jac
  std::vector<double> hess_full_;   // problem Hessian values; size problem nnz_hess
  std::vector<double> grad_full_;   // problem gradient; size n_
  std::vector<double> lambda_full_; // unscaled multipliers for Hessian calls; size m_
  double obj_scale_ = 1.0;          // objective factor
  std::vector<double> row_scale_;   // factor of each row; size m_
};

}  // namespace kx::solvers::biopt
