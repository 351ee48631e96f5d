// model/block_newton: damped Newton steps on a square block of a model: given equations (rows)
// and as many unknown columns (1..nvar a variable's value, nvar + n the time derivative of
// variable n), everything else held, it drives the rows' residuals below a tolerance. The block
// Jacobian comes from the rows' exact first derivatives through the cached layout; each step is
// solved by a sparse LU (KLU), cut back until the largest residual falls, and kept within the
// variables' bounds. Used by the step-by-step simulation and the block presolve.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "linalg/sparse_lu.h"
#include "model/access.h"
#include "model/jacobian.h"

namespace kx::model {

struct NewtonSettings {
  double tolerance = 1e-6;  // largest residual of a solved block
  int max_iter = 50;        // Newton iterations
};

struct NewtonResult {
  bool ok = false;
  int iterations = 0;
  double residual = 0;      // largest residual at the end
  std::string why;          // what stopped a failed solve
};

class BlockNewton {
 public:
  explicit BlockNewton(ModelAccess& access);

  NewtonResult Solve(std::span<const int> rows, std::span<const int> cols,
                     const NewtonSettings& settings);
  // Residual of equation e at the current values (false when it cannot be evaluated).
  bool Residual(int e, double* r);

 private:
  double& Value(int col);
  bool Evaluate(std::span<const int> rows, bool with_jacobian);
  void Move(std::span<const int> cols, const std::vector<double>& from, double alpha);

  ModelStore& store_;
  const EquationLayout& layout_;
  EvalScratch scratch_;
  linalg::SparseLu lu_;
  std::vector<int> unknown_;          // unknown index of each column, -1 for none
  std::vector<double> res_, dx_;      // residuals, Newton step
  std::vector<int> jr_, jc_;          // block Jacobian triplets
  std::vector<double> jv_;
};

}  // namespace kx::model
