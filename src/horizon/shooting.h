// horizon/shooting: single shooting over the free inputs of an estimation or control horizon
// (IMODE 8 and 9). The model rows at the nodes are not constraints of the optimiser: for every
// trial point the step-by-step simulation (horizon/sequential) solves them, so the states
// follow from the inputs. What the optimiser sees is a reduced program
//
//   minimize f(x(z), z)   subject to   cl <= c(x(z), z) <= cu,   zl <= z <= zu
//
// whose unknowns z are the free columns the simulation does not solve (the free FV and MV
// copies and the generated members of the estimation and control rows: errors, trajectories,
// biased CVs, moves), copies tied by a row "u_a - u_b = 0" merged into one (so one per free FV
// and one per move block of a free MV), and whose rows c are every other constraint row the
// simulation does not solve (the generated rows, inequality rows of the model), followed by
// one row x_s(z) per bounded state, within its bounds (the simulation runs without them).
// The states x(z) depend only on the inputs u among z (the columns the model rows read).
//
// First derivatives: dx/du by forward sensitivities through the collocation steps, one sparse
// LU of each step's block Jacobian at the simulated trajectory, propagated from step to step:
// J_kk dx_k/du = -(J_ku + sum_{j<k} J_kj dx_j/du);  the reduced Jacobian and gradient follow
// by the chain rule. Second derivatives (when the model has exact ones): the Hessian of the
// reduced Lagrangian is P^T H P, with P = [dx/dz; I] and H the Hessian of the full Lagrangian
// whose model rows carry the adjoint multipliers  J_mx^T lambda_m = -(s grad_x f + J_gx^T
// lambda_g),  solved step by step backwards (one LU of each transposed step block). Without
// them a solver approximates (Ipopt by its limited-memory quasi-Newton update).
//
// Call protocol: as solvers::Problem (sizes and structures first, then value calls given z).
// A value call runs the simulation only when z changed; a failed simulation makes the call
// return false (the solver cuts its step back), and the next one starts again from the last
// trajectory that solved.
#pragma once

#include <span>
#include <unordered_map>
#include <utility>
#include <vector>

#include "horizon/replicate.h"
#include "horizon/sequential.h"
#include "linalg/sparse_lu.h"
#include "model/access.h"
#include "model/block_newton.h"
#include "model/nlp.h"

namespace kx::horizon {

class Shooting {
 public:
  // `h.store` is the store `access` reads; the store's values are the starting point.
  // The states' bounds leave the store for the life of the object (they are rows here).
  Shooting(Horizon& h, const model::ModelStore& base, model::ModelAccess& access,
           const SequentialSettings& settings);
  ~Shooting();
  Shooting(const Shooting&) = delete;
  Shooting& operator=(const Shooting&) = delete;

  int num_vars() const { return static_cast<int>(z_members_.size()); }
  int num_cons() const { return static_cast<int>(g_rows_.size() + bounded_.size()); }
  int nnz_jac() const { return static_cast<int>(jac_rows_.size()); }
  int nnz_hess() const { return static_cast<int>(hess_rows_.size()); }
  bool has_hessian() const { return exact_hessian_; }
  int num_inputs() const { return static_cast<int>(inputs_.size()); }    // free inputs u
  int num_states() const { return static_cast<int>(sim_cols_.size()); }  // eliminated columns
  int simulations() const { return simulations_; }                       // simulations run so far

  void Bounds(std::span<double> zl, std::span<double> zu);
  void ConstraintBounds(std::span<double> cl, std::span<double> cu);
  void Start(std::span<double> z);
  void JacobianStructure(std::span<int> rows, std::span<int> cols);  // 0-based

  bool Objective(std::span<const double> z, double& f);
  bool Gradient(std::span<const double> z, std::span<double> g);
  bool Constraints(std::span<const double> z, std::span<double> c);
  bool JacobianValues(std::span<const double> z, std::span<double> values);
  // Lower triangle (row >= col, 0-based) of obj_factor d2f + sum lambda_i d2c_i, reduced.
  void HessianStructure(std::span<int> rows, std::span<int> cols);
  bool HessianValues(std::span<const double> z, double obj_factor, std::span<const double> lambda,
                     std::span<double> values);

  // Simulates at z and writes the point, the rows' multipliers (`lambda` of the reduced rows,
  // the adjoint ones of the eliminated model rows for the Lagrangian f + lambda^T c) and the
  // residuals into the store. False when the simulation failed (the store then holds the last
  // trajectory that solved, and the model rows get multiplier 0).
  bool Store(std::span<const double> z, std::span<const double> lambda);

 private:
  void ClassifyColumns(const Horizon& h, const model::ModelStore& base);
  void CutBlocks(const Horizon& h, const model::ModelStore& base);
  void ChooseReducedUnknowns();
  void MoveStateBoundsToRows(const std::vector<double>& xl, const std::vector<double>& xu);
  void RestoreStateBounds();
  void ClassifyRows();
  void MergeTiedCopies();
  bool IsTie(int r, const std::vector<double>& jac, model::BlockNewton& probe, int* a, int* b);
  void BuildReducedPattern();
  bool Simulate(std::span<const double> z);
  bool Sensitivities();
  bool PropagateBlock(int b);
  void BuildHessianPattern();
  bool ModelRowMultipliers(double obj_factor, std::span<const double> lambda,
                           std::vector<double>* full_lambda);
  bool AdjointBlock(int b, std::vector<double>& rhs, std::vector<double>* full_lambda);
  // Row of P for full column c: (reduced unknown, weight) pairs.
  void Projection(int c, std::vector<std::pair<int, double>>* row) const;
  int HessianSlot(int a, int b) const;

  model::ModelAccess& access_;
  model::Nlp nlp_;
  SequentialSettings settings_;
  int num_full_ = 0;                          // columns of the full program (nvar + ndiff)
  std::vector<StepBlock> blocks_;             // the simulation's blocks in order
  std::vector<std::vector<int>> block_cols_;  // full columns (0-based) of each block
  std::vector<std::vector<int>> block_rows_;  // full rows (0-based) of each block
  std::vector<int> sim_cols_;                 // eliminated columns (0-based), block order
  std::vector<int> sim_pos_;                  // position in sim_cols_ of each column, else -1
  std::vector<std::vector<int>> z_members_;   // full columns of each reduced unknown (tied)
  std::vector<int> z_pos_;                    // reduced unknown of each column, else -1
  std::vector<int> inputs_;                   // reduced unknowns the model rows read (u)
  std::vector<int> input_pos_;                // position in inputs_ of each reduced unknown
  struct BoundedState {
    int pos;                          // position in sim_cols_
    double lower, upper;              // the bounds as rows of the reduced program
    double store_lower, store_upper;  // the record's own, put back at the end
  };
  std::vector<BoundedState> bounded_;            // states with a bound, rows after g_rows_
  std::vector<int> g_rows_;                      // full row (0-based) of each reduced row
  std::vector<char> depends_on_states_;          // reduced row reads an eliminated column
  std::vector<int> jac_rows_, jac_cols_;         // reduced Jacobian triplets (0-based)
  std::vector<int> jac_start_;                   // first triplet of each reduced row; size m+1
  std::vector<int> full_row_start_, full_cols_;  // full Jacobian by rows (0-based columns)
  std::vector<double> full_x_;                   // full point of the current trajectory
  std::vector<double> good_x_;                   // full point of the last trajectory that solved
  std::vector<double> last_z_;                   // the z of full_x_
  bool last_ok_ = false;                         // the simulation at last_z_ solved
  bool sens_ok_ = false;                         // sens_ and full_jac_ belong to last_z_
  std::vector<double> full_jac_;                 // full Jacobian values at full_x_
  std::vector<double> sens_;                     // dx/du: num_states x num_inputs, row-major
  std::vector<double> scratch_;                  // per-row accumulation of reduced values
  linalg::SparseLu lu_;
  linalg::SparseLu lu_t_;  // transposed step blocks (adjoint)
  int simulations_ = 0;
  bool exact_hessian_ = false;                        // the model supplies second derivatives
  std::vector<int> full_hess_rows_, full_hess_cols_;  // full Hessian lower triangle (0-based)
  std::vector<int> hess_rows_, hess_cols_;            // reduced Hessian lower triangle (0-based)
  std::unordered_map<long long, int> hess_slot_;      // reduced (row, col) -> triplet
};

}  // namespace kx::horizon
