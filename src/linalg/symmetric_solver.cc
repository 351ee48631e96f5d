#include "linalg/symmetric_solver.h"

#include <algorithm>
#include <vector>

#include <dmumps_c.h>

namespace kx::linalg {
namespace {

constexpr int kJobInit = -1;
constexpr int kJobEnd = -2;
constexpr int kJobAnalyse = 1;
constexpr int kJobFactorise = 2;
constexpr int kJobSolve = 3;
constexpr int kUseCommWorld = -987654;
constexpr int kMaxMemoryRetries = 4;

// MUMPS in symmetric indefinite mode. The pattern is kept in 1-based arrays that MUMPS reads
// at every call; the values are copied into a buffer of the same length.
class MultifrontalSolver : public SymmetricSolver {
 public:
  MultifrontalSolver() {
    id_.job = kJobInit;
    id_.par = 1;
    id_.sym = 2;  // general symmetric (indefinite)
    id_.comm_fortran = kUseCommWorld;
    dmumps_c(&id_);
    Silence();
  }
  ~MultifrontalSolver() override {
    id_.job = kJobEnd;
    dmumps_c(&id_);
  }
  MultifrontalSolver(const MultifrontalSolver&) = delete;
  MultifrontalSolver& operator=(const MultifrontalSolver&) = delete;

  bool Analyse(int n, std::span<const int> rows, std::span<const int> cols) override {
    n_ = n;
    irn_.resize(rows.size());
    jcn_.resize(cols.size());
    for (size_t k = 0; k < rows.size(); ++k) {
      // MUMPS reads either triangle; keep the lower one whatever the caller gave.
      irn_[k] = std::max(rows[k], cols[k]) + 1;
      jcn_[k] = std::min(rows[k], cols[k]) + 1;
    }
    values_.assign(rows.size(), 0.0);
    if (n_ == 0) return true;
    id_.n = n_;
    id_.nnz = static_cast<MUMPS_INT8>(irn_.size());
    id_.irn = irn_.data();
    id_.jcn = jcn_.data();
    id_.a = values_.data();
    id_.job = kJobAnalyse;
    dmumps_c(&id_);
    analysed_ = id_.info[0] >= 0;
    return analysed_;
  }

  FactorOutcome Factorise(std::span<const double> values) override {
    negative_ = 0;
    zero_ = 0;
    if (n_ == 0) return FactorOutcome::kOk;
    if (!analysed_ || values.size() != values_.size()) return FactorOutcome::kFailed;
    std::copy(values.begin(), values.end(), values_.begin());
    id_.a = values_.data();
    for (int attempt = 0;; ++attempt) {
      id_.job = kJobFactorise;
      dmumps_c(&id_);
      const int info = id_.info[0];
      if (info >= 0) break;
      // -10: numerically singular without null-pivot detection; report it as singular.
      if (info == -10) return FactorOutcome::kSingular;
      const bool memory = info == -8 || info == -9 || info == -14 || info == -15;
      if (!memory || attempt == kMaxMemoryRetries) return FactorOutcome::kFailed;
      id_.icntl[13] *= 2;  // ICNTL(14): workspace increase in percent
    }
    negative_ = id_.infog[11];  // INFOG(12): negative pivots
    zero_ = id_.infog[27];      // INFOG(28): null pivots detected
    return zero_ > 0 ? FactorOutcome::kSingular : FactorOutcome::kOk;
  }

  int NegativeEigenvalues() const override { return negative_; }
  int ZeroPivots() const override { return zero_; }

  bool Solve(std::span<double> rhs) override {
    if (n_ == 0) return true;
    if (static_cast<int>(rhs.size()) != n_) return false;
    id_.rhs = rhs.data();
    id_.nrhs = 1;
    id_.lrhs = n_;
    id_.job = kJobSolve;
    dmumps_c(&id_);
    return id_.info[0] >= 0;
  }

 private:
  // No output from the library. Singularity is the library's numerically-singular error: its
  // null-pivot detection, relative to the matrix norm, would flag the badly scaled but regular
  // matrices of late interior-point iterations.
  void Silence() {
    id_.icntl[0] = -1;
    id_.icntl[1] = -1;
    id_.icntl[2] = -1;
    id_.icntl[3] = 0;
    id_.icntl[13] = 100;  // ICNTL(14): 100% workspace slack
    id_.cntl[0] = 1e-6;   // CNTL(1): relative pivot threshold
    // ICNTL(6): no maximum-transversal permutation. On interior-point KKT matrices (a
    // regularised diagonal block beside the Jacobian) the ordering it leads to gives two to
    // three times the factorisation and solve time, with no better pivots.
    id_.icntl[5] = 0;
  }

  DMUMPS_STRUC_C id_{};
  int n_ = 0;
  bool analysed_ = false;
  std::vector<MUMPS_INT> irn_;  // 1-based row of each entry; size nnz
  std::vector<MUMPS_INT> jcn_;  // 1-based column of each entry; size nnz
  std::vector<double> values_;  // values in pattern order; size nnz
  int negative_ = 0;            // negative pivots of the last factorisation
  int zero_ = 0;                // null pivots of the last factorisation
};

}  // namespace

std::unique_ptr<SymmetricSolver> MakeMultifrontalSolver() {
  return std::make_unique<MultifrontalSolver>();
}

}  // namespace kx::linalg
