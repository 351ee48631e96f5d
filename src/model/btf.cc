#include "model/btf.h"

#include <btf.h>

#include "base/report.h"

namespace kx::model {

namespace {

// Compressed-column form (0-based) of the 1-based coordinates (rows[k], cols[k]).
void BuildColumnForm(int n, const std::vector<int>& rows, const std::vector<int>& cols,
                     std::vector<int>* ap, std::vector<int>* ai) {
  ap->assign(n + 1, 0);
  for (int c : cols) ++(*ap)[c];
  for (int j = 0; j < n; ++j) (*ap)[j + 1] += (*ap)[j];
  ai->assign(rows.size(), 0);
  std::vector<int> next(ap->begin(), ap->end() - 1);
  for (size_t k = 0; k < rows.size(); ++k) (*ai)[next[cols[k] - 1]++] = rows[k] - 1;
}

void FillBlocks(int n, int num_blocks, const std::vector<int>& r, BlockOrder* order) {
  order->num_blocks = num_blocks;
  for (int b = 0; b < num_blocks; ++b) {
    order->block_start.push_back(r[b] + 1);
    // Last block: n + 1 minus its start.
    int next_start = b + 1 < num_blocks ? r[b + 1] + 1 : n + 1;
    order->block_size.push_back(next_start - (r[b] + 1));
  }
}

}  // namespace

BlockOrder OrderBlockTriangular(int n, const std::vector<int>& rows,
                                const std::vector<int>& cols) {
  BlockOrder order;
  order.n = n;
  if (n == 0 || rows.empty()) return order;
  // BTF returns P*B*Q upper block triangular. Given B = A' (the column form of A' is the row
  // form of A), its transpose Q'*A*P' is the lower block triangular form of A with the same
  // block boundaries: row k of the result is row Q[k] of A, column k is column P[k].
  std::vector<int> ap, ai;
  BuildColumnForm(n, cols, rows, &ap, &ai);
  std::vector<int> p(n), q(n), r(n + 1), work(5 * n);
  double work_done = 0;
  int nmatch = 0;
  int num_blocks = btf_order(n, ap.data(), ai.data(), 0.0, &work_done, p.data(), q.data(),
                             r.data(), &nmatch, work.data());
  order.num_diagonal = nmatch;
  if (nmatch < n) {
    Say("non-zero transversal not acheived");
    Sayf("number of non-zeros on diagonal: {}", nmatch);
    Sayf("total length of diagonal       : {}", n);
    return order;
  }
  order.ordered = true;
  for (int k = 0; k < n; ++k) {
    order.row_perm.push_back(BTF_UNFLIP(q[k]) + 1);
    order.col_perm.push_back(p[k] + 1);
  }
  FillBlocks(n, num_blocks, r, &order);
  return order;
}

}  // namespace kx::model
