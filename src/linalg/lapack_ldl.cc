#include "linalg/lapack_ldl.h"

#include <algorithm>
#include <cmath>

extern "C" {
void dsytrf_(const char* uplo, const int* n, double* a, const int* lda, int* ipiv,
             double* work, const int* lwork, int* info);
void dsytrs_(const char* uplo, const int* n, const int* nrhs, const double* a, const int* lda,
             const int* ipiv, double* b, const int* ldb, int* info);
}

namespace kx::linalg {
namespace {

constexpr int kWorkPerColumn = 32;       // workspace of the blocked factorisation
constexpr double kNullPivotRatio = 1e-14;  // a pivot this far below the largest is null

}  // namespace

FactorOutcome LapackLdl::Factorise(int dim, std::span<const int> rows,
                                   std::span<const int> cols, std::span<const double> values) {
  dim_ = dim;
  a_.assign(static_cast<size_t>(dim) * dim, 0.0);
  for (size_t k = 0; k < rows.size(); ++k) {
    const int r = std::max(rows[k], cols[k]);
    const int c = std::min(rows[k], cols[k]);
    a_[static_cast<size_t>(c) * dim + r] += values[k];
  }
  pivots_.assign(dim, 0);
  num_negative_ = num_null_ = 0;
  if (dim == 0) return FactorOutcome::kOk;
  const char uplo = 'L';
  int info = 0;
  int lwork = std::max(1, dim * kWorkPerColumn);
  std::vector<double> work(lwork);
  dsytrf_(&uplo, &dim, a_.data(), &dim, pivots_.data(), work.data(), &lwork, &info);
  if (info < 0) return FactorOutcome::kFailed;
  CountInertia();
  return num_null_ > 0 ? FactorOutcome::kSingular : FactorOutcome::kOk;
}

// A 1x1 block is one pivot; a 2x2 block has one eigenvalue of each sign when its determinant
// is negative.
void LapackLdl::CountInertia() {
  const int n = dim_;
  double scale = 0.0;
  for (int k = 0; k < n; ++k) scale = std::max(scale, std::abs(a_[static_cast<size_t>(k) * n + k]));
  const double tiny = kNullPivotRatio * std::max(scale, 1.0);
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

bool LapackLdl::Solve(std::span<double> rhs) {
  if (dim_ == 0) return true;
  const char uplo = 'L';
  const int nrhs = 1;
  int info = 0;
  dsytrs_(&uplo, &dim_, &nrhs, a_.data(), &dim_, pivots_.data(), rhs.data(), &dim_, &info);
  return info == 0;
}

}  // namespace kx::linalg
