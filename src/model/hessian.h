// model/hessian: the Hessian of the Lagrangian, lower triangle, in the reduced space.
//
//   H = obj_factor * sum over objective rows of d2 r + sum over constraint rows of lambda * d2 r
//
// The pattern is built once per cycle from every active row's second-derivative pairs, row by
// row (no sort over the whole matrix); each
// (equation, pair) gets the index of its non-zero in advance, so a value call runs each row's
// second-derivative byte code and adds the weighted pair values in place. Pairs that land on
// one non-zero (several rows, or (i,j) and (j,i) after a merge) are summed. An off-diagonal local
// pair whose two inputs read the same column counts twice on the diagonal.
//
// Dimensions: steady state nvar (pairs with a time-derivative input are dropped); dynamic
// nvar+ndiff with the derivative columns of the reduced Jacobian. Scaled values are taken with
// respect to the scaled variables: H_ab * s_a * s_b. The multipliers in the records belong to
// the unscaled residuals, so equation scaling does not enter.
#pragma once

#include <span>
#include <vector>

#include "model/jacobian.h"
#include "model/records.h"
#include "model/sparsity.h"

namespace kx::model {

struct HessianPattern {
  Shape shape = Shape::kSteady;    // kSteady or kReduced
  int dim = 0;                     // order of the matrix
  std::vector<int> rows;           // 1-based row of each non-zero (row >= col); sorted
  std::vector<int> cols;           // 1-based column of each non-zero
  std::vector<int> row_start;      // first non-zero of each row (1-based rows); size dim+2
  std::vector<int> pair_begin;     // first scatter slot of each equation's pairs; size neqn+1
  std::vector<int> scatter;        // non-zero of each (equation, pair): >= 0 index, -1 dropped,
                                   // <= -2 index -2-p counted twice
  int nnz() const { return static_cast<int>(rows.size()); }
};

// Builds the pattern over the active rows (constraints and objective rows) of `layout`.
HessianPattern BuildHessianPattern(const ModelStore& store, const EquationLayout& layout,
                                   Shape shape);

// Weights of the two kinds of rows in one value call.
struct HessianWeights {
  double obj_factor = 1.0;         // weight of the objective rows
  bool constraints = true;         // false: objective terms only
};

// Unscaled values into `values` (size nnz). A row whose program is not the one the pattern was
// built for is placed by search; a pair that has no place stops the run with "did not find a
// match in setting sparse matrix element".
void FillHessian(const ModelStore& store, const EquationLayout& layout,
                 const HessianPattern& pattern, const HessianWeights& weights,
                 EvalScratch* scratch, std::span<double> values);

// Scales values in place by s_row * s_col.
void ScaleHessian(const ModelStore& store, const EquationLayout& layout,
                  const HessianPattern& pattern, EvalScratch* scratch, std::span<double> values);

}  // namespace kx::model
