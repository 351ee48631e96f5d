// Selector-coded routines of the sparse derivatives: non-zero counts, condensed and coordinate
// Jacobians, the Hessian of the Lagrangian and the block-triangular order.
#include <algorithm>

#include "base/check.h"
#include "base/report.h"
#include "model/help_texts.h"
#include "model/routines.h"

namespace kx::model {

namespace {

// Selectors 1..6 (and 11..16): 1,2 full, 3,4 reduced, 5,6 steady state; odd = scaled.
Shape JacobianShape(int base) {
  return base <= 2 ? Shape::kFull : (base <= 4 ? Shape::kReduced : Shape::kSteady);
}

bool IsJacobianSelector(int imsg, bool allow_columns) {
  int base = imsg > 10 && allow_columns ? imsg - 10 : imsg;
  return base >= 1 && base <= 6;
}

// Writes the condensed index vector; see routines.h.
void FillCondensedIndex(ModelAccess& m, Shape shape, bool by_column, std::span<int> ia) {
  const JacobianPattern& p = m.Jacobian(shape);
  int nnz = p.nnz();
  int nlines = by_column ? p.num_cols : p.num_rows;
  KX_CHECK(static_cast<int>(ia.size()) >= nnz + nlines + 2);
  ia[0] = nnz;
  const ColumnOrder* c = by_column ? &m.JacobianColumns(shape) : nullptr;
  if (c == nullptr) {
    std::copy(p.cols.begin(), p.cols.end(), ia.begin() + 1);
  } else {
    for (int k = 0; k < nnz; ++k) ia[1 + k] = p.rows[c->order[k]];
  }
  const std::vector<int>& start = c ? c->start : p.row_start;
  for (int j = 0; j <= nlines; ++j) ia[1 + nnz + j] = start[j] + 1;
}

}  // namespace

int zpm_nnz(ModelAccess& m, int imsg) {
  if (imsg == 0) {
    PrintHelp("zpm_nnz");
    return 0;
  }
  if (imsg != 1 && imsg != 2) InvalidOption("zpm_nnz", imsg);
  return m.Jacobian(imsg == 1 ? Shape::kSteady : Shape::kReduced).nnz();
}

int zpm_nnzh(ModelAccess& m, int imsg) {
  if (imsg == 0) {
    PrintHelp("zpm_nnzh");
    return 0;
  }
  if (imsg != 1 && imsg != 2) InvalidOption("zpm_nnzh", imsg);
  return m.Hessian(imsg == 1 ? Shape::kSteady : Shape::kReduced).nnz();
}

void zpm_condensed_sparsity(ModelAccess& m, int imsg, std::span<int> ia) {
  if (imsg == 0) return PrintHelp("zpm_condensed_sparsity");
  if (!IsJacobianSelector(imsg, true)) InvalidOption("zpm_condensed_sparsity", imsg);
  FillCondensedIndex(m, JacobianShape(imsg % 10), imsg > 10, ia);
  m.jacobian_structure = imsg;
}

void zpm_condensed_jacobian(ModelAccess& m, int imsg, std::span<int> ia, std::span<double> a) {
  if (imsg == 0) return PrintHelp("zpm_condensed_jacobian");
  if (!IsJacobianSelector(imsg, true)) InvalidOption("zpm_condensed_jacobian", imsg);
  int base = imsg % 10;
  const JacobianPattern& p = m.Jacobian(JacobianShape(base));
  if (!ia.empty()) FillCondensedIndex(m, p.shape, imsg > 10, ia);
  m.jacobian_structure = imsg;
  KX_CHECK(static_cast<int>(a.size()) >= p.nnz());
  if (imsg < 10) return m.JacobianValues(p.shape, base % 2 == 1, a);
  std::span<double> coord = m.Buffer(p.nnz());
  m.JacobianValues(p.shape, base % 2 == 1, coord);
  const std::vector<int>& order = m.JacobianColumns(p.shape).order;
  for (int k = 0; k < p.nnz(); ++k) a[k] = coord[order[k]];
}

void zpm_jacobian(ModelAccess& m, int imsg, int nz, std::span<int> ir, std::span<int> ic,
                  std::span<double> pd) {
  if (imsg == 0) return PrintHelp("zpm_jacobian");
  if (!IsJacobianSelector(imsg, false)) InvalidOption("zpm_jacobian", imsg);
  const JacobianPattern& p = m.Jacobian(JacobianShape(imsg));
  m.jacobian_structure = imsg;
  // The pattern is counted in full before any entry is written, so a short vector is always
  // caught here and the fill below can never run past the caller's length.
  if (nz < p.nnz()) {
    Fatal({"zpm_jacobian: insufficient vector size for ir, ic, and pd",
           fmt::format("zpm_jacobian_structure: {}", m.jacobian_structure),
           fmt::format("size of vectors ir,ic,pd: {}", nz),
           fmt::format("required size           : {}", p.nnz())},
          "STOPPING");
  }
  KX_CHECK(static_cast<int>(std::min(ir.size(), ic.size())) >= p.nnz());
  std::copy(p.rows.begin(), p.rows.end(), ir.begin());
  std::copy(p.cols.begin(), p.cols.end(), ic.begin());
  if (!pd.empty()) m.JacobianValues(p.shape, imsg % 2 == 1, pd);
}

void zpm_hessian(ModelAccess& m, int imsg, int nz, std::span<int> ir, std::span<int> ic,
                 std::span<double> h) {
  if (imsg == 0) return PrintHelp("zpm_hessian");
  if (imsg < 1 || imsg > 8) InvalidOption("zpm_hessian", imsg);
  // 1=SS, 3=DYN scaled; 2=SS, 4=DYN unscaled; 5=SS, 6=DYN and 7=SS, 8=DYN objective only.
  bool dynamic = imsg == 3 || imsg == 4 || imsg == 6 || imsg == 8;
  bool scaled = imsg == 1 || imsg == 3 || imsg == 7 || imsg == 8;
  const HessianPattern& p = m.Hessian(dynamic ? Shape::kReduced : Shape::kSteady);
  if (nz < p.nnz()) {
    Fatal({"zpm_hessian: insufficient vector size for ir, ic, and h",
           fmt::format("imsg {}", imsg), fmt::format("size of vectors ir,ic,h: {}", nz),
           fmt::format("required size          : {}", p.nnz())},
          "STOPPING");
  }
  KX_CHECK(static_cast<int>(std::min(ir.size(), ic.size())) >= p.nnz());
  std::copy(p.rows.begin(), p.rows.end(), ir.begin());
  std::copy(p.cols.begin(), p.cols.end(), ic.begin());
  if (h.empty()) return;
  HessianWeights weights{.obj_factor = m.obj_factor, .constraints = imsg <= 4};
  m.HessianValues(p.shape, scaled, weights, h);
}

namespace {

// Square system of the current structure: constraint rows x calculated-variable columns (and
// differential columns in the dynamic shapes), renumbered 1..; padded to n = max(rows, cols).
BlockOrder OrderCurrentStructure(ModelAccess& m) {
  const JacobianPattern& p = m.Jacobian(JacobianShape(m.jacobian_structure % 10));
  const ModelStore& store = m.store();
  std::vector<int> renumber(p.num_cols + 1, 0);
  int ncols = 0;
  for (int c = 1; c <= p.num_cols; ++c) {
    bool keep = c <= store.nvar ? !store.Var(c).fixed
                                : p.shape != Shape::kFull || store.Var(c - store.nvar).idiff > 0;
    if (keep) renumber[c] = ++ncols;
  }
  std::vector<int> rows, cols;
  for (int k = 0; k < p.nnz(); ++k) {
    if (renumber[p.cols[k]] == 0) continue;
    rows.push_back(p.rows[k]);
    cols.push_back(renumber[p.cols[k]]);
  }
  return OrderBlockTriangular(std::max(p.num_rows, ncols), rows, cols);
}

void PrintBlocks(const BlockOrder& order) {
  Sayf("Number of blocks: {}", order.num_blocks);
  for (int b = 0; b < order.num_blocks; ++b) {
    Sayf("Block {:>6}: first row {:>8}, size {:>8}", b + 1, order.block_start[b],
         order.block_size[b]);
  }
}

}  // namespace

BlockOrder zpm_jac_order(ModelAccess& m, int imsg) {
  if (imsg == 0) {
    PrintHelp("zpm_jac_order");
    return {};
  }
  if (imsg != 1 && imsg != 2) Fatal({fmt::format("zpm_jac_order ERROR: invalid imsg={}", imsg)});
  if (m.jacobian_structure == 0) {
    Fatal({"Error: Need to define Jacobian structure type prior ",
           "  to calling zpm_jac_order (zpm_jacobian_structure=0)"});
  }
  BlockOrder order = OrderCurrentStructure(m);
  if (imsg == 2 && order.ordered) PrintBlocks(order);
  return order;
}

}  // namespace kx::model
