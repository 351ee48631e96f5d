#include "linalg/kkt_ldl.h"

#include <dmumps_c.h>

#include <algorithm>

namespace kx::linalg {
namespace {

constexpr int kUseCommWorld = -987654;
constexpr int kMaxMemoryRetries = 4;
constexpr int kRefinementRounds = 1;

}  // namespace

struct KktLdl::Handle {
  DMUMPS_STRUC_C id;
};

KktLdl::KktLdl() : handle_(nullptr) {}

KktLdl::~KktLdl() { Release(); }

void KktLdl::Release() {
  if (handle_ == nullptr) return;
  handle_->id.job = -2;
  dmumps_c(&handle_->id);
  delete handle_;
  handle_ = nullptr;
}

bool KktLdl::Run(int job) {
  DMUMPS_STRUC_C& id = handle_->id;
  for (int attempt = 0; attempt <= kMaxMemoryRetries; ++attempt) {
    id.job = job;
    dmumps_c(&id);
    // -8, -9 and -14..-20 ask for more working memory: raise the estimate and try again.
    const int err = id.infog[0];
    if (err >= 0) return true;
    if (err != -8 && err != -9 && !(err <= -14 && err >= -20)) return false;
    id.icntl[13] = std::min(id.icntl[13] * 2 + 20, 2000);
  }
  return false;
}

bool KktLdl::Factor(int dim, std::span<const int> rows, std::span<const int> cols,
                    std::span<const double> values) {
  if (handle_ == nullptr) {
    handle_ = new Handle{};
    DMUMPS_STRUC_C& id = handle_->id;
    id.job = -1;
    id.par = 1;
    id.sym = 2;
    id.comm_fortran = kUseCommWorld;
    dmumps_c(&id);
    for (int i = 0; i < 4; ++i) id.icntl[i] = -1;  // no output at all
    id.icntl[23] = 1;                              // detect null pivots
    id.icntl[13] = 50;                             // working memory margin, percent
  }
  const size_t nnz = rows.size();
  bool same = analysed_ && dim == dim_ && irn_.size() == nnz;
  if (same) {
    for (size_t k = 0; k < nnz && same; ++k) {
      same = irn_[k] == std::max(rows[k], cols[k]) + 1 &&
             jcn_[k] == std::min(rows[k], cols[k]) + 1;
    }
  }
  dim_ = dim;
  a_.assign(values.begin(), values.end());
  if (!same) {
    irn_.resize(nnz);
    jcn_.resize(nnz);
    for (size_t k = 0; k < nnz; ++k) {
      // MUMPS reads either triangle; keep the lower one.
      irn_[k] = std::max(rows[k], cols[k]) + 1;
      jcn_[k] = std::min(rows[k], cols[k]) + 1;
    }
  }
  DMUMPS_STRUC_C& id = handle_->id;
  id.n = dim;
  id.nnz = static_cast<MUMPS_INT8>(nnz);
  id.irn = irn_.data();
  id.jcn = jcn_.data();
  id.a = a_.data();
  if (!same) {
    analysed_ = false;
    if (!Run(1)) return false;
    analysed_ = true;
  }
  if (!Run(2)) return false;
  num_negative_ = id.infog[11];
  num_null_ = id.infog[27];
  return true;
}

bool KktLdl::Solve(std::span<double> rhs) {
  if (handle_ == nullptr || static_cast<int>(rhs.size()) != dim_) return false;
  const std::vector<double> b(rhs.begin(), rhs.end());
  if (!SolveOnce(rhs.data())) return false;
  // Iterative refinement against the stored matrix: KKT matrices of badly scaled problems
  // leave residuals far above rounding after one solve.
  std::vector<double> r(dim_);
  for (int round = 0; round < kRefinementRounds; ++round) {
    r = b;
    for (size_t k = 0; k < a_.size(); ++k) {
      const int i = irn_[k] - 1, j = jcn_[k] - 1;
      r[i] -= a_[k] * rhs[j];
      if (i != j) r[j] -= a_[k] * rhs[i];
    }
    if (!SolveOnce(r.data())) return false;
    for (int i = 0; i < dim_; ++i) rhs[i] += r[i];
  }
  return true;
}

bool KktLdl::SolveOnce(double* rhs) {
  DMUMPS_STRUC_C& id = handle_->id;
  id.rhs = rhs;
  id.nrhs = 1;
  id.lrhs = dim_;
  return Run(3);
}

}  // namespace kx::linalg
