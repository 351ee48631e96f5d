// solvers/problem_view: the one layer between a Problem and every solver (ASOPT, BIOPT and
// the Ipopt adapter). It asks the problem for its sizes, bounds, start and structures once,
// tells which variables are fixed (xl == xu) and which are free, checks the inputs, and runs
// every evaluation: a result that is not finite makes the evaluation fail, row and Jacobian
// evaluations are counted, each kind of call is timed under its own run timer, and the
// MAX_TIME deadline of the solve is kept here.
//
// Call protocol: construct once per solve; the vectors below are fixed from then on. Value
// calls take a full point (size n), may come in any order and return false on a failed or
// non-finite evaluation.
#pragma once

#include <chrono>
#include <span>
#include <vector>

#include "solvers/problem.h"

namespace kx::solvers {

// What is wrong with a problem's inputs, in the order they are checked.
enum class InputFault {
  kNone,
  kNotANumber,     // a bound is NaN
  kBadStructure,   // a Jacobian or Hessian position outside the problem
  kCrossedBounds,  // xl > xu or cl > cu
};

class ProblemView {
 public:
  // What the view reads up front: everything, or only the sizes when the solver hands the
  // bounds and structures from the problem straight to a library that keeps its own copies
  // (the bound, structure and free-variable lists are then empty).
  enum class Reads { kEverything, kSizes };

  ProblemView(Problem& problem, double max_time, Reads reads = Reads::kEverything);

  Problem& problem() { return problem_; }
  int n() const { return n_; }
  int m() const { return m_; }
  int nnz_jac() const { return nnz_jac_; }
  int nnz_hess() const { return nnz_hess_; }  // 0 without a Hessian
  bool has_hessian() const { return has_hessian_; }

  const std::vector<double>& xl() const { return xl_; }
  const std::vector<double>& xu() const { return xu_; }
  const std::vector<double>& cl() const { return cl_; }
  const std::vector<double>& cu() const { return cu_; }
  const std::vector<int>& jac_rows() const { return jac_rows_; }  // 0-based
  const std::vector<int>& jac_cols() const { return jac_cols_; }
  const std::vector<int>& hess_rows() const { return hess_rows_; }  // lower triangle
  const std::vector<int>& hess_cols() const { return hess_cols_; }
  // Variables that are not fixed, in order, and the free index of each variable (-1 fixed).
  const std::vector<int>& free_vars() const { return free_; }
  const std::vector<int>& free_index() const { return free_index_; }
  bool IsFixed(int j) const { return free_index_[j] < 0; }

  // The problem's start point (asked for at each call: the caller may have changed it).
  std::vector<double> Start();
  InputFault CheckInputs() const;

  bool Objective(std::span<const double> x, double& f);
  bool Gradient(std::span<const double> x, std::span<double> g);
  bool Constraints(std::span<const double> x, std::span<double> c);
  bool Jacobian(std::span<const double> x, std::span<double> values);
  bool Hessian(std::span<const double> x, double obj_factor, std::span<const double> lambda,
               std::span<double> values);

  int residual_evals() const { return residual_evals_; }  // Constraints calls
  int jacobian_evals() const { return jacobian_evals_; }  // Jacobian calls

  std::chrono::steady_clock::time_point deadline() const { return deadline_; }
  // True once the solve has run past MAX_TIME.
  bool TimeUp() const { return std::chrono::steady_clock::now() > deadline_; }
  double SecondsUsed() const;

 private:
  void ReadStructures();

  Problem& problem_;
  int n_ = 0;                              // variables
  int m_ = 0;                              // rows
  int nnz_jac_ = 0;                        // Jacobian positions
  int nnz_hess_ = 0;                       // Hessian positions; 0 without a Hessian
  bool has_hessian_ = false;               // exact second derivatives supplied
  std::vector<double> xl_, xu_;            // variable bounds; size n_
  std::vector<double> cl_, cu_;            // row bounds; size m_
  std::vector<int> jac_rows_, jac_cols_;   // Jacobian positions; size nnz_jac
  std::vector<int> hess_rows_, hess_cols_; // Hessian positions; size nnz_hess
  std::vector<int> free_;                  // free variables in order
  std::vector<int> free_index_;            // free index of each variable, -1 if fixed; size n_
  int residual_evals_ = 0;
  int jacobian_evals_ = 0;
  std::chrono::steady_clock::time_point start_;     // when the view was made
  std::chrono::steady_clock::time_point deadline_;  // start_ + MAX_TIME
};

// The largest |value| of each of num_rows rows, at least 1, from Jacobian triplets (the row
// scaling rules of both built-in solvers start from it).
std::vector<double> LargestRowEntries(std::span<const int> rows, std::span<const double> values,
                                      int num_rows);

}  // namespace kx::solvers
