#include "linalg/symmetric_ldl.h"

#include <algorithm>
#include <cmath>

#include "linalg/lapack_ldl.h"
#include "linalg/mumps_ldl.h"

namespace kx::linalg {
namespace {

double MaxAbs(std::span<const double> v) {
  double m = 0.0;
  for (double e : v) m = std::max(m, std::abs(e));
  return m;
}

bool AllFinite(std::span<const double> v) {
  return std::all_of(v.begin(), v.end(), [](double e) { return std::isfinite(e); });
}

}  // namespace

SymmetricLdl::SymmetricLdl(const LdlSettings& settings) : settings_(settings) {}

SymmetricLdl::~SymmetricLdl() = default;

bool SymmetricLdl::Analyse(int dim, std::span<const int> rows, std::span<const int> cols) {
  return AnalyseWithValues(dim, rows, cols, {});
}

// The sparse analysis may order by the values (the transversal permutation): given them when
// they are known, zeros otherwise.
bool SymmetricLdl::AnalyseWithValues(int dim, std::span<const int> rows,
                                     std::span<const int> cols, std::span<const double> values) {
  dim_ = dim;
  rows_.resize(rows.size());
  cols_.resize(cols.size());
  for (size_t k = 0; k < rows.size(); ++k) {
    // Either triangle may be given; keep the lower one.
    rows_[k] = std::max(rows[k], cols[k]);
    cols_[k] = std::min(rows[k], cols[k]);
  }
  values_.assign(rows.size(), 0.0);
  if (values.size() == values_.size()) std::copy(values.begin(), values.end(), values_.begin());
  dense_ = dim <= settings_.dense_limit;
  analysed_ = true;
  if (dense_ || dim == 0) return true;
  if (!sparse_) sparse_ = std::make_unique<MumpsLdl>(settings_);
  analysed_ = sparse_->Analyse(dim, rows_, cols_, values_);
  return analysed_;
}

FactorOutcome SymmetricLdl::Factorise(std::span<const double> values) {
  num_negative_ = num_null_ = 0;
  if (!analysed_ || values.size() != values_.size()) return FactorOutcome::kFailed;
  std::copy(values.begin(), values.end(), values_.begin());
  if (dim_ == 0) return FactorOutcome::kOk;
  FactorOutcome outcome;
  if (dense_) {
    if (!dense_factor_) dense_factor_ = std::make_unique<LapackLdl>();
    outcome = dense_factor_->Factorise(dim_, rows_, cols_, values_);
    num_negative_ = dense_factor_->num_negative();
    num_null_ = dense_factor_->num_null();
  } else {
    outcome = sparse_->Factorise(values_);
    num_negative_ = sparse_->num_negative();
    num_null_ = sparse_->num_null();
  }
  return outcome;
}

bool SymmetricLdl::SamePattern(int dim, std::span<const int> rows,
                               std::span<const int> cols) const {
  if (!analysed_ || dim != dim_ || rows.size() != rows_.size()) return false;
  for (size_t k = 0; k < rows.size(); ++k) {
    if (rows_[k] != std::max(rows[k], cols[k]) || cols_[k] != std::min(rows[k], cols[k])) {
      return false;
    }
  }
  return true;
}

FactorOutcome SymmetricLdl::Factor(int dim, std::span<const int> rows,
                                   std::span<const int> cols, std::span<const double> values) {
  if (!SamePattern(dim, rows, cols) && !AnalyseWithValues(dim, rows, cols, values)) {
    num_negative_ = num_null_ = 0;
    return FactorOutcome::kFailed;
  }
  return Factorise(values);
}

bool SymmetricLdl::Solve(std::span<double> rhs) {
  if (static_cast<int>(rhs.size()) != dim_) return false;
  if (dim_ == 0) return true;
  if (dense_) return dense_factor_->Solve(rhs) && AllFinite(rhs);
  const std::vector<double> b(rhs.begin(), rhs.end());
  if (!sparse_->Solve(rhs) || !Refine(b, rhs)) return false;
  return AllFinite(rhs);
}

// r = b - K x, subtracting each stored entry in turn.
void SymmetricLdl::Residual(std::span<const double> b, std::span<const double> x,
                            std::span<double> r) const {
  std::copy(b.begin(), b.end(), r.begin());
  for (size_t k = 0; k < values_.size(); ++k) {
    const int i = rows_[k], j = cols_[k];
    r[i] -= values_[k] * x[j];
    if (i != j) r[j] -= values_[k] * x[i];
  }
}

// Iterative refinement against the stored matrix: KKT matrices of badly scaled problems
// leave residuals far above rounding after one solve. The dense factorisation is not refined.
bool SymmetricLdl::Refine(std::span<const double> b, std::span<double> x) {
  if (settings_.refinement_rounds <= 0) return true;
  const double b_norm = MaxAbs(b);
  std::vector<double> r(dim_);
  for (int round = 0; round < settings_.refinement_rounds; ++round) {
    Residual(b, x, r);
    if (settings_.refinement_tol > 0.0) {
      const double r_norm = MaxAbs(r);
      if (!std::isfinite(r_norm)) return false;
      if (r_norm <= settings_.refinement_tol * (1.0 + b_norm)) break;
    }
    if (!sparse_->Solve(r)) return false;
    for (int i = 0; i < dim_; ++i) x[i] += r[i];
  }
  return true;
}

}  // namespace kx::linalg
