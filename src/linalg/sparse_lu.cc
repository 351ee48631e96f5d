#include "linalg/sparse_lu.h"

#include <klu.h>

#include <algorithm>
#include <numeric>

namespace kx::linalg {

struct SparseLu::Impl {
  klu_common common;
  klu_symbolic* symbolic = nullptr;
  klu_numeric* numeric = nullptr;
  int n = 0;
  std::vector<int> col_start, row_index;  // compressed columns of the analysed pattern
  std::vector<int> position;              // CSC slot of each triplet
  std::vector<double> values;             // CSC values
};

SparseLu::SparseLu() : impl_(new Impl) { klu_defaults(&impl_->common); }

SparseLu::~SparseLu() {
  Release();
  delete impl_;
}

void SparseLu::Release() {
  if (impl_->numeric) klu_free_numeric(&impl_->numeric, &impl_->common);
  if (impl_->symbolic) klu_free_symbolic(&impl_->symbolic, &impl_->common);
}

bool SparseLu::Factor(int n, std::span<const int> rows, std::span<const int> cols,
                      std::span<const double> values) {
  Impl& m = *impl_;
  // Compressed columns; duplicates keep one slot and add.
  std::vector<int> order(rows.size());
  std::iota(order.begin(), order.end(), 0);
  std::sort(order.begin(), order.end(), [&](int a, int b) {
    return cols[a] != cols[b] ? cols[a] < cols[b] : rows[a] < rows[b];
  });
  std::vector<int> start(n + 1, 0), index;
  std::vector<int> position(rows.size());
  for (size_t k = 0; k < order.size(); ++k) {
    const int t = order[k];
    const bool repeat = k > 0 && cols[order[k - 1]] == cols[t] && rows[order[k - 1]] == rows[t];
    if (!repeat) {
      index.push_back(rows[t]);
      ++start[cols[t] + 1];
    }
    position[t] = static_cast<int>(index.size()) - 1;
  }
  for (int j = 0; j < n; ++j) start[j + 1] += start[j];
  const bool same = m.symbolic && n == m.n && start == m.col_start && index == m.row_index;
  if (m.numeric) klu_free_numeric(&m.numeric, &m.common);
  if (!same) {
    if (m.symbolic) klu_free_symbolic(&m.symbolic, &m.common);
    m.n = n;
    m.col_start = std::move(start);
    m.row_index = std::move(index);
    m.symbolic = klu_analyze(n, m.col_start.data(), m.row_index.data(), &m.common);
    if (!m.symbolic) return false;
  }
  m.position = std::move(position);
  m.values.assign(m.row_index.size(), 0.0);
  for (size_t t = 0; t < values.size(); ++t) m.values[m.position[t]] += values[t];
  m.numeric = klu_factor(m.col_start.data(), m.row_index.data(), m.values.data(), m.symbolic,
                         &m.common);
  return m.numeric != nullptr && m.common.status == KLU_OK;
}

bool SparseLu::Solve(std::span<double> b) {
  Impl& m = *impl_;
  if (!m.numeric || static_cast<int>(b.size()) != m.n) return false;
  return klu_solve(m.symbolic, m.numeric, m.n, 1, b.data(), &m.common) == 1;
}

}  // namespace kx::linalg
