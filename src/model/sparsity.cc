#include "model/sparsity.h"

#include <algorithm>
#include <numeric>

#include "base/check.h"
#include "base/report.h"

namespace kx::model {

int NumColumns(const ModelStore& store, Shape shape) {
  switch (shape) {
    case Shape::kFull:
      return 2 * store.nvar;
    case Shape::kReduced:
      return store.nvar + store.ndiff;
    case Shape::kSteady:
      return store.nvar;
  }
  return 0;
}

int ShapeColumn(const ModelStore& store, Shape shape, int model_col) {
  if (model_col <= store.nvar) return model_col;
  switch (shape) {
    case Shape::kFull:
      return model_col;
    case Shape::kReduced: {
      int idiff = store.Var(model_col - store.nvar).idiff;
      return idiff > 0 ? store.nvar + idiff : 0;
    }
    case Shape::kSteady:
      return 0;
  }
  return 0;
}

void ColumnValues(const ModelStore& store, std::span<double> values) {
  const int nvar = std::min(store.nvar, static_cast<int>(values.size()) - 1);
  const int nderiv = std::min(nvar, static_cast<int>(values.size()) - 1 - store.nvar);
  for (int n = 1; n <= nvar; ++n) {
    const Variable& var = store.Var(n);
    values[n] = var.val;
    if (n <= nderiv) values[store.nvar + n] = var.d_val;
  }
}

namespace {

// Byte offset, from the first variable record, of the value a slot reading model column `col`
// reads.
uint32_t SlotOffset(const ModelStore& store, int col) {
  const double* value =
      col <= store.nvar ? &store.Var(col).val : &store.Var(col - store.nvar).d_val;
  return static_cast<uint32_t>(reinterpret_cast<const char*>(value) -
                               reinterpret_cast<const char*>(store.vars.data()));
}

void AddEquationSlots(const ModelStore& store, const Equation& eqn, EquationLayout* layout) {
  const lang::Program& program = store.programs[eqn.program];
  KX_CHECK(program.num_inputs() == static_cast<int>(eqn.columns.size()));
  for (int col : eqn.columns) {
    if (eqn.obj_eqn && (col < 1 || col > 2 * store.nvar)) {
      // An objective term that no variable position can take.
      Fatal({"Problem with internal sparsity for objective", fmt::format("a%number: {}", col)});
    }
    KX_CHECK(col >= 1 && col <= 2 * store.nvar);
    layout->slot_column.push_back(col);
    layout->slot_offset.push_back(SlotOffset(store, col));
  }
  layout->max_inputs = std::max(layout->max_inputs, program.num_inputs());
  layout->max_work = std::max(layout->max_work, program.work_size());
  layout->max_pairs =
      std::max(layout->max_pairs, static_cast<int>(program.hess_pairs().size()));
}

}  // namespace

EquationLayout BuildLayout(const ModelStore& store) {
  EquationLayout layout;
  int neqn = static_cast<int>(store.eqns.size());
  // Offsets are 32-bit: the records must fit in 4 GB.
  KX_CHECK(store.vars.size() < (size_t{1} << 32) / sizeof(Variable));
  // Every list is sized up front: at this size growth by doubling would waste a third.
  size_t slots = 0, constraints = 0, objectives = 0;
  for (const Equation& eqn : store.eqns) {
    if (eqn.program < 0) continue;
    slots += eqn.columns.size();
    if (eqn.active) ++(eqn.obj_eqn ? objectives : constraints);
  }
  layout.slot_column.reserve(slots);
  layout.slot_offset.reserve(slots);
  layout.constraint_eqns.reserve(constraints);
  layout.objective_eqns.reserve(objectives);
  layout.row_of_eqn.assign(neqn, 0);
  layout.slot_begin.reserve(neqn + 1);
  layout.program_at_build.reserve(neqn);
  for (int e = 0; e < neqn; ++e) {
    const Equation& eqn = store.eqns[e];
    layout.slot_begin.push_back(static_cast<int>(layout.slot_column.size()));
    layout.program_at_build.push_back(eqn.program);
    if (eqn.program >= 0) AddEquationSlots(store, eqn, &layout);
    if (!eqn.active || eqn.program < 0) continue;
    if (eqn.obj_eqn) {
      layout.objective_eqns.push_back(e);
    } else {
      layout.constraint_eqns.push_back(e);
      layout.row_of_eqn[e] = static_cast<int>(layout.constraint_eqns.size());
    }
  }
  layout.slot_begin.push_back(static_cast<int>(layout.slot_column.size()));
  layout.vars_at_build = store.vars.data();
  layout.nvar_at_build = store.nvar;
  layout.ndiff_at_build = store.ndiff;
  layout.diff_var.assign(store.ndiff + 1, 0);
  for (int n = 1; n <= store.nvar; ++n) {
    const Variable& v = store.Var(n);
    if (v.idiff > 0 && v.idiff <= store.ndiff) layout.diff_var[v.idiff] = n;
    if (v.obj_def) layout.objective_vars.push_back(n);
  }
  return layout;
}

namespace {

// Fills pattern->rows/cols/scatter for one row; `last_slot_of_col` is a per-column marker
// (reset after the row) that finds a column read twice by the same row.
void AddPatternRow(const ModelStore& store, const EquationLayout& layout, int e, int row,
                   std::vector<int>* entry_of_col, JacobianPattern* pattern) {
  int begin = layout.slot_begin[e], end = layout.slot_begin[e + 1];
  for (int s = begin; s < end; ++s) {
    int col = ShapeColumn(store, pattern->shape, layout.slot_column[s]);
    if (col == 0) continue;
    int& entry = (*entry_of_col)[col];
    if (entry >= 0) {
      pattern->scatter[s] = entry;
      pattern->has_duplicates = true;
      continue;
    }
    entry = pattern->nnz();
    pattern->scatter[s] = entry;
    pattern->rows.push_back(row);
    pattern->cols.push_back(col);
  }
  for (int s = begin; s < end; ++s) {
    int col = ShapeColumn(store, pattern->shape, layout.slot_column[s]);
    if (col != 0) (*entry_of_col)[col] = -1;
  }
}

// Condensed row starts: entries are already grouped by row.
void BuildRowStarts(JacobianPattern* p) {
  p->row_start.assign(p->num_rows + 1, 0);
  for (int k = 0; k < p->nnz(); ++k) ++p->row_start[p->rows[k]];
  // Counts sit at index j (1-based row); the inclusive running sum turns index j-1 into the
  // 0-based start of row j and the last index into nnz.
  std::partial_sum(p->row_start.begin(), p->row_start.end(), p->row_start.begin());
}

}  // namespace

void ColumnScales(const ModelStore& store, const EquationLayout& layout, Shape shape,
                  std::vector<double>* scales) {
  int nvar = store.nvar;
  scales->resize(NumColumns(store, shape) + 1);
  (*scales)[0] = 1.0;
  for (int n = 1; n <= nvar; ++n) (*scales)[n] = store.Var(n).scale;
  if (shape == Shape::kFull) {
    for (int n = 1; n <= nvar; ++n) (*scales)[nvar + n] = store.Var(n).scale;
  } else if (shape == Shape::kReduced) {
    for (int d = 1; d <= store.ndiff; ++d) {
      int n = layout.diff_var[d];
      (*scales)[nvar + d] = n > 0 ? store.Var(n).scale : 1.0;
    }
  }
}

JacobianPattern BuildJacobianPattern(const ModelStore& store, const EquationLayout& layout,
                                     Shape shape) {
  JacobianPattern pattern;
  pattern.shape = shape;
  pattern.num_rows = static_cast<int>(layout.constraint_eqns.size());
  pattern.num_cols = NumColumns(store, shape);
  pattern.scatter.assign(layout.slot_column.size(), -1);
  std::vector<int> entry_of_col(pattern.num_cols + 1, -1);
  // Room for every slot of the rows; a shape that drops columns gives the spare room back.
  const size_t slots = layout.SlotsOf(layout.constraint_eqns);
  pattern.rows.reserve(slots);
  pattern.cols.reserve(slots);
  for (int r = 0; r < pattern.num_rows; ++r) {
    AddPatternRow(store, layout, layout.constraint_eqns[r], r + 1, &entry_of_col, &pattern);
  }
  pattern.rows.shrink_to_fit();
  pattern.cols.shrink_to_fit();
  BuildRowStarts(&pattern);
  return pattern;
}

// A stable counting sort on the column.
ColumnOrder BuildColumnOrder(const JacobianPattern& p) {
  ColumnOrder c;
  c.start.assign(p.num_cols + 1, 0);
  for (int k = 0; k < p.nnz(); ++k) ++c.start[p.cols[k]];
  std::partial_sum(c.start.begin(), c.start.end(), c.start.begin());
  c.order.assign(p.nnz(), 0);
  std::vector<int> next(c.start.begin(), c.start.end() - 1);
  for (int k = 0; k < p.nnz(); ++k) c.order[next[p.cols[k] - 1]++] = k;
  return c;
}

std::vector<int> BuildObjectivePattern(const ModelStore& store, const EquationLayout& layout) {
  std::vector<char> used(store.nvar + 1, 0);
  for (int n = 1; n <= store.nvar; ++n) {
    const Variable& v = store.Var(n);
    if (v.obj_def && !v.fixed) used[n] = 1;
  }
  for (int e : layout.objective_eqns) {
    for (int s = layout.slot_begin[e]; s < layout.slot_begin[e + 1]; ++s) {
      int col = layout.slot_column[s];
      if (col > store.nvar) Fatal({"differentials not permitted in the objective function"});
      used[col] = 1;
    }
  }
  std::vector<int> pattern;
  for (int n = 1; n <= store.nvar; ++n) {
    if (used[n]) pattern.push_back(n);
  }
  return pattern;
}

void UpdateSparsity(ModelStore& store, int eqn, int old_number, int new_number) {
  Equation& e = store.eqns[eqn];
  bool found = false;
  for (int& col : e.columns) {
    if (col == old_number) {
      col = new_number;
      found = true;
    } else if (col == store.nvar + old_number) {
      col = store.nvar + new_number;
      found = true;
    }
  }
  if (!found) {
    Fatal({"Update sparsity error",
           fmt::format("Variable {} in equation {} was not found.", store.Var(old_number).name,
                       e.name)},
          "Stopping...");
  }
}

}  // namespace kx::model
