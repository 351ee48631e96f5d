// model/sparsity: the structure of the model's first derivatives, computed once per cycle.
//
// EquationLayout flattens every equation's program inputs into "slots" (one per local input,
// equations back to back) and says where each slot reads its value. JacobianPattern is the
// coordinate pattern of the constraint Jacobian in one shape, with a scatter index from every
// slot to its non-zero, and the condensed row and column orders. Value calls (model/jacobian)
// only walk these arrays.
//
// Rows: the constraint rows are the active equations that are not objective rows, in equation
// order; objective rows (obj_eqn) never appear in the Jacobian. Columns by shape:
//   kFull     neqn x 2*nvar       x columns 1..nvar, then dx/dt of every variable
//   kReduced  neqn x (nvar+ndiff) x columns, then dx/dt of differential variables (idiff order)
//   kSteady   neqn x nvar         x columns only; derivative inputs are dropped
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "model/records.h"

namespace kx::model {

enum class Shape { kFull = 0, kReduced = 1, kSteady = 2 };
inline constexpr int kNumShapes = 3;

// Number of Jacobian columns of a shape.
int NumColumns(const ModelStore& store, Shape shape);

// The value each model column reads (1..nvar values, nvar+n the time derivative of variable n;
// index 0 unused), laid out once so that rows read one array, not the variable records. Size
// 2*nvar+1 holds every column; a shorter array takes the columns that fit.
void ColumnValues(const ModelStore& store, std::span<double> values);

// Column of model column `model_col` (1..2*nvar) in `shape`; 0 when the shape drops it.
int ShapeColumn(const ModelStore& store, Shape shape, int model_col);

// Flattened program inputs of every equation (active or not).
struct EquationLayout {
  std::vector<int> constraint_eqns;        // equation index of each Jacobian row
  std::vector<int> objective_eqns;         // equation index of each active objective row
  std::vector<int> row_of_eqn;             // 1-based Jacobian row per equation, 0 if none
  std::vector<int> slot_begin;             // first slot of each equation; size neqn+1
  std::vector<int> slot_column;            // model column read by each slot; size nslots
  std::vector<uint32_t> slot_offset;      // byte offset of the value read by each slot from
                                          // the first variable record (vars_at_build)
  std::vector<int> program_at_build;       // eqn.program when the layout was built
  std::vector<int> diff_var;               // variable number of each idiff; size ndiff+1
  std::vector<int> objective_vars;         // numbers of the obj_def variables
  int max_inputs = 0;                      // largest program input count
  int max_work = 0;                        // largest program work size
  int max_pairs = 0;                       // largest program Hessian pair count
  const Variable* vars_at_build = nullptr; // store.vars.data() when built (pointer validity)
  int nvar_at_build = 0;                   // store.nvar when built
  int ndiff_at_build = 0;                  // store.ndiff when built

  // The slots of the equations `eqns` together.
  size_t SlotsOf(const std::vector<int>& eqns) const {
    size_t slots = 0;
    for (int e : eqns) slots += slot_begin[e + 1] - slot_begin[e];
    return slots;
  }

  // True when the store has grown or moved since the build: the layout must be rebuilt.
  // Changes that keep the counts (active flags, an equation's columns) are not seen here.
  bool OutOfDate(const ModelStore& store) const {
    return vars_at_build != store.vars.data() || nvar_at_build != store.nvar ||
           ndiff_at_build != store.ndiff || program_at_build.size() != store.eqns.size();
  }
};

// Builds the layout of every equation with a program. Stops with "Problem with internal
// sparsity for objective" when an objective row reads a column outside the model.
EquationLayout BuildLayout(const ModelStore& store);

// Coordinate pattern of the constraint Jacobian in one shape.
struct JacobianPattern {
  Shape shape = Shape::kFull;
  int num_rows = 0;                // constraint rows
  int num_cols = 0;                // columns of the shape
  std::vector<int> rows;           // 1-based row of each non-zero; size nnz, row order
  std::vector<int> cols;           // 1-based column of each non-zero; size nnz
  std::vector<int> scatter;        // non-zero fed by each slot, -1 when dropped; size nslots
  bool has_duplicates = false;     // some row reads one column through several slots
  std::vector<int> row_start;      // condensed row form: first non-zero of each row; size m+1
  int nnz() const { return static_cast<int>(rows.size()); }
};

// Scaling factor of every column of `shape` (a time-derivative column takes its variable's);
// `scales` gets size num_cols+1, index 0 unused.
void ColumnScales(const ModelStore& store, const EquationLayout& layout, Shape shape,
                  std::vector<double>* scales);

// The condensed column form of a pattern, made when asked for (few callers want it): the
// non-zero at each position, column by column, and the first position of each column (size
// num_cols+1).
struct ColumnOrder {
  std::vector<int> order;
  std::vector<int> start;
};
ColumnOrder BuildColumnOrder(const JacobianPattern& p);

// Builds the pattern of `shape` over the constraint rows of `layout`, with its row starts.
JacobianPattern BuildJacobianPattern(const ModelStore& store, const EquationLayout& layout,
                                     Shape shape);

// Pattern of the objective gradient: the free obj_def variables and the x columns of the
// objective rows, each variable once, in increasing order. Stops with "differentials not
// permitted in the objective function" when an objective row reads a time derivative.
std::vector<int> BuildObjectivePattern(const ModelStore& store, const EquationLayout& layout);

// Rewrites equation `eqn` (0-based) so that it reads variable `new_number` wherever it read
// `old_number` (and the time derivatives likewise), after a connection forwarded one onto the
// other. Stops with "Update sparsity error" when the equation does not read `old_number`.
void UpdateSparsity(ModelStore& store, int eqn, int old_number, int new_number);

}  // namespace kx::model
