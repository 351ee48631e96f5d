#include "model/hessian.h"

#include <algorithm>
#include <cstdint>

#include "base/check.h"
#include "base/report.h"

namespace kx::model {

namespace {

// Shape columns of local pair p of equation e; either is 0 when the shape drops it.
void PairColumns(const ModelStore& store, const EquationLayout& layout, Shape shape, int e,
                 const lang::HessPair& pair, int* a, int* b) {
  int begin = layout.slot_begin[e];
  *a = ShapeColumn(store, shape, layout.slot_column[begin + pair.i]);
  *b = ShapeColumn(store, shape, layout.slot_column[begin + pair.j]);
}

std::vector<int> ActiveRows(const EquationLayout& layout) {
  std::vector<int> active(layout.constraint_eqns);
  active.insert(active.end(), layout.objective_eqns.begin(), layout.objective_eqns.end());
  return active;
}

// One kept pair: its lower-triangle position (1-based, row >= col) and the scatter slot that
// receives the index of that position.
struct PairPosition {
  int row, col;
  int slot;    // index into pattern.scatter
  bool twice;  // an off-diagonal local pair on the diagonal
};

// The kept pairs of the active rows, in row order. Shape columns come from one table built by
// a pass over the variables, not from the records pair by pair.
std::vector<PairPosition> KeptPairs(const ModelStore& store, const EquationLayout& layout,
                                    const HessianPattern& p) {
  std::vector<int> shape_col(2 * static_cast<size_t>(store.nvar) + 1, 0);
  for (size_t c = 1; c < shape_col.size(); ++c)
    shape_col[c] = ShapeColumn(store, p.shape, static_cast<int>(c));
  std::vector<PairPosition> kept;
  for (int e : ActiveRows(layout)) {
    auto pairs = store.programs[layout.program_at_build[e]].hess_pairs();
    const int* cols = layout.slot_column.data() + layout.slot_begin[e];
    for (size_t q = 0; q < pairs.size(); ++q) {
      const int a = shape_col[cols[pairs[q].i]], b = shape_col[cols[pairs[q].j]];
      if (a == 0 || b == 0) continue;
      kept.push_back({std::max(a, b), std::min(a, b), p.pair_begin[e] + static_cast<int>(q),
                      a == b && pairs[q].i != pairs[q].j});
    }
  }
  return kept;
}

void CountPairs(const ModelStore& store, const EquationLayout& layout, HessianPattern* p) {
  int neqn = static_cast<int>(store.eqns.size());
  p->pair_begin.assign(neqn + 1, 0);
  for (int e = 0; e < neqn; ++e) {
    int prog = layout.program_at_build[e];
    int npairs = prog >= 0 ? static_cast<int>(store.programs[prog].hess_pairs().size()) : 0;
    p->pair_begin[e + 1] = p->pair_begin[e] + npairs;
  }
}

// The distinct positions, row by row: each row's columns are bucketed, then sorted and made
// unique within the row (rows are short), so no sort runs over the whole matrix. Then each
// kept pair gets the index of its position.
void PlacePairs(const std::vector<PairPosition>& kept, HessianPattern* p) {
  std::vector<int> start(p->dim + 2, 0);
  for (const PairPosition& k : kept) ++start[k.row + 1];
  for (int r = 1; r <= p->dim; ++r) start[r + 1] += start[r];
  std::vector<int> cols(kept.size()), fill(start.begin(), start.end() - 1);
  for (const PairPosition& k : kept) cols[fill[k.row]++] = k.col;
  p->rows.reserve(cols.size());
  p->cols.reserve(cols.size());
  p->row_start.assign(p->dim + 2, 0);
  for (int r = 1; r <= p->dim; ++r) {
    auto first = cols.begin() + start[r], last = cols.begin() + start[r + 1];
    std::sort(first, last);
    last = std::unique(first, last);
    p->row_start[r] = p->nnz();
    for (auto c = first; c != last; ++c) {
      p->rows.push_back(r);
      p->cols.push_back(*c);
    }
  }
  p->row_start[p->dim + 1] = p->nnz();
  // Room was made for every kept pair; pairs that share a position give theirs back.
  p->rows.shrink_to_fit();
  p->cols.shrink_to_fit();
  p->scatter.assign(p->pair_begin.back(), -1);
  for (const PairPosition& k : kept) {
    auto first = p->cols.begin() + p->row_start[k.row];
    auto last = p->cols.begin() + p->row_start[k.row + 1];
    const int idx = static_cast<int>(std::lower_bound(first, last, k.col) - p->cols.begin());
    p->scatter[k.slot] = k.twice ? -2 - idx : idx;
  }
}

// Adds weight * hess into the pattern for a row whose program changed after the pattern was
// built: each pair is looked up by its position.
void PlaceBySearch(const ModelStore& store, const EquationLayout& layout,
                   const HessianPattern& p, int e, const lang::Program& program, double weight,
                   const double* hess, std::span<double> values) {
  auto pairs = program.hess_pairs();
  for (size_t q = 0; q < pairs.size(); ++q) {
    int a, b;
    PairColumns(store, layout, p.shape, e, pairs[q], &a, &b);
    if (a == 0 || b == 0) continue;
    int i = std::max(a, b), j = std::min(a, b);
    int found = -1;
    for (int k = 0; k < p.nnz() && found < 0; ++k) {
      if (p.rows[k] == i && p.cols[k] == j) found = k;
    }
    if (found < 0) {
      std::string ia = "ia(1:na): ", ja = "ja(1:na): ";
      for (int k = 0; k < p.nnz(); ++k) {
        ia += fmt::format(" {}", p.rows[k]);
        ja += fmt::format(" {}", p.cols[k]);
      }
      Fatal({"did not find a match in setting sparse matrix element", fmt::format("i: {}", i),
             fmt::format("j: {}", j), ia, ja});
    }
    double twice = (a == b && pairs[q].i != pairs[q].j) ? 2.0 : 1.0;
    values[found] += twice * weight * hess[q];
  }
}

// Evaluates row e and adds weight * its second derivatives.
void AddRow(const ModelStore& store, const EquationLayout& layout, const HessianPattern& p,
            int e, double weight, EvalScratch* s, std::span<double> values) {
  const Equation& eqn = store.eqns[e];
  if (eqn.program < 0) return;
  const lang::Program& program = store.programs[eqn.program];
  if (program.hess_pairs().empty()) return;
  GatherInputs(layout, e, s->in.data());
  if (eqn.program != layout.program_at_build[e]) {
    // The record changed after the pattern was built: same inputs, other byte code.
    KX_CHECK(program.num_inputs() == layout.slot_begin[e + 1] - layout.slot_begin[e]);
    s->hess.resize(std::max(s->hess.size(), program.hess_pairs().size()));
    s->work.resize(std::max<size_t>(s->work.size(), program.work_size()));
  }
  program.Hessian(s->in.data(), s->work.data(), s->grad.data(), s->hess.data(), &s->errors);
  const double* h = s->hess.data();
  if (eqn.program != layout.program_at_build[e]) {
    PlaceBySearch(store, layout, p, e, program, weight, h, values);
    return;
  }
  const int* scatter = p.scatter.data() + p.pair_begin[e];
  int npairs = p.pair_begin[e + 1] - p.pair_begin[e];
  for (int q = 0; q < npairs; ++q) {
    int k = scatter[q];
    if (k >= 0) {
      values[k] += weight * h[q];
    } else if (k <= -2) {
      values[-2 - k] += 2.0 * weight * h[q];
    }
  }
}

}  // namespace

HessianPattern BuildHessianPattern(const ModelStore& store, const EquationLayout& layout,
                                   Shape shape) {
  HessianPattern p;
  p.shape = shape;
  p.dim = NumColumns(store, shape);
  CountPairs(store, layout, &p);
  PlacePairs(KeptPairs(store, layout, p), &p);
  return p;
}

void FillHessian(const ModelStore& store, const EquationLayout& layout,
                 const HessianPattern& pattern, const HessianWeights& weights,
                 EvalScratch* scratch, std::span<double> values) {
  std::fill(values.begin(), values.begin() + pattern.nnz(), 0.0);
  if (weights.constraints) {
    for (int e : layout.constraint_eqns) {
      double lambda = store.eqns[e].lambda;
      if (lambda != 0.0) AddRow(store, layout, pattern, e, lambda, scratch, values);
    }
  }
  if (weights.obj_factor != 0.0) {
    for (int e : layout.objective_eqns) {
      AddRow(store, layout, pattern, e, weights.obj_factor, scratch, values);
    }
  }
}

void ScaleHessian(const ModelStore& store, const EquationLayout& layout,
                  const HessianPattern& pattern, EvalScratch* scratch, std::span<double> values) {
  ColumnScales(store, layout, pattern.shape, &scratch->col_scale);
  const double* s = scratch->col_scale.data();
  for (int k = 0; k < pattern.nnz(); ++k) values[k] *= s[pattern.rows[k]] * s[pattern.cols[k]];
}

}  // namespace kx::model
