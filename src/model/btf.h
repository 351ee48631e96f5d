// model/btf: block lower-triangular ordering of a square sparse pattern: a maximum transversal
// (row permutation with as many non-zeros on the diagonal as possible), then the strongly
// connected components of the permuted pattern. Both steps are done by SuiteSparse's BTF.
#pragma once

#include <vector>

namespace kx::model {

struct BlockOrder {
  bool ordered = false;           // false: n or nz was 0, or no full transversal
  int n = 0;                      // order of the system
  int num_diagonal = 0;           // structural non-zeros on the diagonal after matching
  int num_blocks = 0;             // diagonal blocks
  std::vector<int> row_perm;      // 1-based original row at each position; size n
  std::vector<int> col_perm;      // 1-based original column at each position; size n
  std::vector<int> block_start;   // 1-based first position of each block; size num_blocks
  std::vector<int> block_size;    // size of each block
};

// Orders the n x n pattern given by 1-based coordinates (rows[k], cols[k]). When fewer than n
// diagonal positions can be filled it prints "non-zero transversal not acheived" with the counts
// and returns with ordered = false.
BlockOrder OrderBlockTriangular(int n, const std::vector<int>& rows, const std::vector<int>& cols);

}  // namespace kx::model
