#include "linalg/mumps_ldl.h"

#include <algorithm>

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
constexpr int kMaxWorkspacePercent = 2000;
constexpr int kNumericallySingular = -10;

// Errors that ask for more working memory: -8, -9 (work arrays) and -14..-20 (internal
// buffers). Raising the margin and repeating the job cures them.
bool IsMemoryShortage(int error) {
  return error == -8 || error == -9 || (error <= -14 && error >= -20);
}

}  // namespace

struct MumpsLdl::Instance {
  DMUMPS_STRUC_C id{};
};

MumpsLdl::MumpsLdl(const LdlSettings& settings) : instance_(new Instance) {
  DMUMPS_STRUC_C& id = instance_->id;
  id.job = kJobInit;
  id.par = 1;
  id.sym = 2;  // general symmetric (indefinite)
  id.comm_fortran = kUseCommWorld;
  dmumps_c(&id);
  for (int i = 0; i < 3; ++i) id.icntl[i] = -1;  // ICNTL(1..3): no output streams
  id.icntl[3] = 0;                               // ICNTL(4): no messages
  id.icntl[13] = settings.workspace_percent;     // ICNTL(14)
  if (settings.detect_null_pivots) id.icntl[23] = 1;   // ICNTL(24)
  if (settings.pivot_threshold >= 0) id.cntl[0] = settings.pivot_threshold;  // CNTL(1)
  // ICNTL(6) = 0: on interior-point KKT matrices (a regularised diagonal block beside the
  // Jacobian) the transversal permutation leads to two to three times the factor time.
  if (!settings.transversal_ordering) id.icntl[5] = 0;
}

MumpsLdl::~MumpsLdl() {
  instance_->id.job = kJobEnd;
  dmumps_c(&instance_->id);
  delete instance_;
}

bool MumpsLdl::Run(int job) {
  DMUMPS_STRUC_C& id = instance_->id;
  for (int attempt = 0; attempt <= kMaxMemoryRetries; ++attempt) {
    id.job = job;
    dmumps_c(&id);
    const int error = id.infog[0];
    if (error >= 0) return true;
    if (!IsMemoryShortage(error)) return false;
    id.icntl[13] = std::min(id.icntl[13] * 2 + 20, kMaxWorkspacePercent);
  }
  return false;
}

bool MumpsLdl::Analyse(int dim, std::span<const int> rows, std::span<const int> cols,
                       std::span<double> values) {
  dim_ = dim;
  irn_.resize(rows.size());
  jcn_.resize(cols.size());
  for (size_t k = 0; k < rows.size(); ++k) irn_[k] = rows[k] + 1, jcn_[k] = cols[k] + 1;
  DMUMPS_STRUC_C& id = instance_->id;
  id.n = dim;
  id.nnz = static_cast<MUMPS_INT8>(irn_.size());
  id.irn = irn_.data();
  id.jcn = jcn_.data();
  id.a = values.data();
  return Run(kJobAnalyse);
}

FactorOutcome MumpsLdl::Factorise(std::span<double> values) {
  DMUMPS_STRUC_C& id = instance_->id;
  id.a = values.data();
  num_negative_ = num_null_ = 0;
  if (!Run(kJobFactorise)) {
    return id.infog[0] == kNumericallySingular ? FactorOutcome::kSingular : FactorOutcome::kFailed;
  }
  num_negative_ = id.infog[11];  // INFOG(12): negative pivots
  num_null_ = id.infog[27];      // INFOG(28): null pivots detected
  return num_null_ > 0 ? FactorOutcome::kSingular : FactorOutcome::kOk;
}

bool MumpsLdl::Solve(std::span<double> rhs) {
  DMUMPS_STRUC_C& id = instance_->id;
  id.rhs = rhs.data();
  id.nrhs = 1;
  id.lrhs = dim_;
  return Run(kJobSolve);
}

}  // namespace kx::linalg
