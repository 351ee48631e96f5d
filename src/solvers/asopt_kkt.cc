#include "solvers/asopt_kkt.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include <fmt/format.h>

extern "C" {
void dsytrf_(const char* uplo, const int* n, double* a, const int* lda, int* ipiv,
             double* work, const int* lwork, int* info);
void dsytrs_(const char* uplo, const int* n, const int* nrhs, const double* a, const int* lda,
             const int* ipiv, double* b, const int* ldb, int* info);
}

namespace kx::solvers {

void KktFactor::SetTrace(int level, std::function<void(const std::string&)> log) {
  trace_level_ = level;
  trace_ = std::move(log);
}

bool KktFactor::Factor(int dim, std::span<const int> rows, std::span<const int> cols,
                       std::span<const double> values) {
  ++factorizations_;
  if (trace_level_ < 1 || !trace_) return FactorAny(dim, rows, cols, values);
  const auto start = std::chrono::steady_clock::now();
  const bool ok = FactorAny(dim, rows, cols, values);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  trace_(fmt::format("   factor {:6d}  {}  n {:8d}  nnz {:9d}  negative {:8d}  null {:6d}  "
                     "{:9.4f} s{}",
                     factorizations_, dense_ ? "dense " : "sparse", dim, rows.size(),
                     num_negative_, num_null_, took.count(), ok ? "" : "  FAILED"));
  return ok;
}

bool KktFactor::FactorAny(int dim, std::span<const int> rows, std::span<const int> cols,
                          std::span<const double> values) {
  dim_ = dim;
  dense_ = dim <= kDenseLimit;
  if (dense_) return FactorDense(dim, rows, cols, values);
  if (!sparse_.Factor(dim, rows, cols, values)) return false;
  num_negative_ = sparse_.num_negative();
  num_null_ = sparse_.num_null();
  return true;
}

bool KktFactor::FactorDense(int dim, std::span<const int> rows, std::span<const int> cols,
                            std::span<const double> values) {
  a_.assign(static_cast<size_t>(dim) * dim, 0.0);
  for (size_t k = 0; k < rows.size(); ++k) {
    const int r = std::max(rows[k], cols[k]);
    const int c = std::min(rows[k], cols[k]);
    a_[static_cast<size_t>(c) * dim + r] += values[k];
  }
  pivots_.assign(dim, 0);
  num_negative_ = num_null_ = 0;
  if (dim == 0) return true;
  const char uplo = 'L';
  int info = 0;
  int lwork = std::max(1, dim * 32);
  std::vector<double> work(lwork);
  dsytrf_(&uplo, &dim, a_.data(), &dim, pivots_.data(), work.data(), &lwork, &info);
  if (info < 0) return false;
  CountDenseInertia();
  return true;
}

// Inertia from the block diagonal D of the dense factor: a 1x1 block is one pivot, a 2x2
// block has one eigenvalue of each sign when its determinant is negative.
void KktFactor::CountDenseInertia() {
  const int n = dim_;
  double scale = 0.0;
  for (int k = 0; k < n; ++k) scale = std::max(scale, std::abs(a_[static_cast<size_t>(k) * n + k]));
  const double tiny = 1e-14 * std::max(scale, 1.0);
  auto at = [&](int r, int c) { return a_[static_cast<size_t>(c) * n + r]; };
  for (int k = 0; k < n; ++k) {
    if (pivots_[k] > 0) {
      const double d = at(k, k);
      if (std::abs(d) <= tiny) {
        ++num_null_;
      } else if (d < 0) {
        ++num_negative_;
      }
      continue;
    }
    const double a = at(k, k), b = at(k + 1, k), c = at(k + 1, k + 1);
    const double det = a * c - b * b;
    if (std::abs(det) <= tiny * tiny) {
      ++num_null_;
      if (a + c < 0) ++num_negative_;
    } else if (det < 0) {
      ++num_negative_;
    } else if (a + c < 0) {
      num_negative_ += 2;
    }
    ++k;
  }
}

bool KktFactor::Solve(std::span<double> rhs) {
  if (static_cast<int>(rhs.size()) != dim_) return false;
  if (!dense_) return sparse_.Solve(rhs);
  if (dim_ == 0) return true;
  const char uplo = 'L';
  const int nrhs = 1;
  int info = 0;
  dsytrs_(&uplo, &dim_, &nrhs, a_.data(), &dim_, pivots_.data(), rhs.data(), &dim_, &info);
  if (info != 0) return false;
  for (double v : rhs) {
    if (!std::isfinite(v)) return false;
  }
  return true;
}

}  // namespace kx::solvers
