#include "solvers/biopt_kkt.h"

#include <algorithm>
#include <cmath>

namespace kx::solvers::biopt {
namespace {

constexpr double kDeltaWFirst = 1e-4;    // first trial delta_w
constexpr double kDeltaWMin = 1e-20;     // smallest delta_w kept from the last step
constexpr double kDeltaWMax = 1e40;      // give up beyond this
constexpr double kDeltaWDecrease = 1.0 / 3.0;
constexpr double kDeltaWIncreaseFirst = 100.0;
constexpr double kDeltaWIncrease = 8.0;
constexpr double kDeltaC = 1e-8;         // delta_c = kDeltaC * mu^kDeltaCExponent
constexpr double kDeltaCExponent = 0.25;
constexpr int kMaxRefinements = 3;
constexpr double kRefinementTol = 1e-12;  // relative residual that ends refinement
constexpr double kPivotThreshold = 1e-6;  // relative pivot threshold of the factorisation

// No null-pivot detection: relative to the matrix norm it would flag the badly scaled but
// regular matrices of late iterations; singularity is the library's own numerical test.
constexpr linalg::LdlSettings kLdlSettings{.pivot_threshold = kPivotThreshold,
                                          .transversal_ordering = false,
                                          .workspace_percent = 100,
                                          .refinement_rounds = kMaxRefinements,
                                          .refinement_tol = kRefinementTol};

}  // namespace

KktSystem::KktSystem(const ScaledNlp& nlp)
    : nlp_(nlp), ldl_(kLdlSettings) {}

// Pattern order: Hessian entries, diagonal of w, Jacobian entries, slack entries, diagonal
// of y. Assemble() writes values in the same order.
bool KktSystem::Analyse() {
  nw_ = nlp_.nw();
  m_ = nlp_.m();
  const int nx = nlp_.nx();
  rows_.clear();
  cols_.clear();
  hess_begin_ = 0;
  rows_.insert(rows_.end(), nlp_.hess_rows().begin(), nlp_.hess_rows().end());
  cols_.insert(cols_.end(), nlp_.hess_cols().begin(), nlp_.hess_cols().end());
  diag_w_begin_ = static_cast<int>(rows_.size());
  for (int k = 0; k < nw_; ++k) rows_.push_back(k), cols_.push_back(k);
  jac_begin_ = static_cast<int>(rows_.size());
  for (int k = 0; k < nlp_.nnz_jac(); ++k) {
    rows_.push_back(nw_ + nlp_.jac_rows()[k]);
    cols_.push_back(nlp_.jac_cols()[k]);
  }
  slack_begin_ = static_cast<int>(rows_.size());
  for (int k = 0; k < nlp_.ns(); ++k) {
    rows_.push_back(nw_ + nlp_.slack_row()[k]);
    cols_.push_back(nx + k);
  }
  diag_y_begin_ = static_cast<int>(rows_.size());
  for (int i = 0; i < m_; ++i) rows_.push_back(nw_ + i), cols_.push_back(nw_ + i);
  values_.assign(rows_.size(), 0.0);
  return ldl_.Analyse(dim(), rows_, cols_);
}

void KktSystem::Assemble(std::span<const double> hess, std::span<const double> jac,
                         std::span<const double> sigma, double delta_w, double delta_c) {
  for (int k = 0; k < diag_w_begin_; ++k) values_[k] = hess.empty() ? 0.0 : hess[k];
  for (int k = 0; k < nw_; ++k) values_[diag_w_begin_ + k] = sigma[k] + delta_w;
  std::copy(jac.begin(), jac.end(), values_.begin() + jac_begin_);
  std::fill(values_.begin() + slack_begin_, values_.begin() + diag_y_begin_, -1.0);
  std::fill(values_.begin() + diag_y_begin_, values_.end(), -delta_c);
  delta_w_ = delta_w;
  delta_c_ = delta_c;
}

linalg::FactorOutcome KktSystem::Factorise() { return ldl_.Factorise(values_); }

bool KktSystem::HasRightInertia(linalg::FactorOutcome outcome) const {
  return outcome == linalg::FactorOutcome::kOk && ldl_.num_negative() == m_;
}

bool KktSystem::FactoriseFixed(std::span<const double> hess, std::span<const double> jac,
                               std::span<const double> sigma, double delta_w, double delta_c) {
  Assemble(hess, jac, sigma, delta_w, delta_c);
  return Factorise() != linalg::FactorOutcome::kFailed;
}

// First without regularisation; a singular matrix or too few negative eigenvalues means a
// rank-deficient Jacobian (delta_c > 0), too many means W is not positive definite on the
// null space of A (raise delta_w, starting from a third of the last one that worked).
bool KktSystem::FactoriseCorrected(std::span<const double> hess, std::span<const double> jac,
                                   std::span<const double> sigma, double mu) {
  Assemble(hess, jac, sigma, 0.0, 0.0);
  linalg::FactorOutcome outcome = Factorise();
  if (HasRightInertia(outcome)) return true;
  if (outcome == linalg::FactorOutcome::kFailed) return false;
  double delta_c = 0.0;
  if (outcome == linalg::FactorOutcome::kSingular || ldl_.num_negative() < m_) {
    delta_c = kDeltaC * std::pow(mu, kDeltaCExponent);
  }
  double delta_w = last_delta_w_ == 0.0
                       ? kDeltaWFirst
                       : std::max(kDeltaWMin, kDeltaWDecrease * last_delta_w_);
  if (delta_c > 0.0) {
    // Try the constraint regularisation alone first: enough when only A is deficient.
    Assemble(hess, jac, sigma, 0.0, delta_c);
    outcome = Factorise();
    if (HasRightInertia(outcome)) return true;
  }
  while (delta_w <= kDeltaWMax) {
    Assemble(hess, jac, sigma, delta_w, delta_c);
    outcome = Factorise();
    if (outcome == linalg::FactorOutcome::kFailed) return false;
    if (HasRightInertia(outcome)) {
      last_delta_w_ = delta_w;
      return true;
    }
    if (ldl_.num_negative() < m_ && delta_c == 0.0) {
      delta_c = kDeltaC * std::pow(mu, kDeltaCExponent);
    }
    delta_w *= last_delta_w_ == 0.0 ? kDeltaWIncreaseFirst : kDeltaWIncrease;
  }
  return false;
}

bool KktSystem::Solve(std::span<const double> rhs, std::span<double> sol) {
  std::copy(rhs.begin(), rhs.end(), sol.begin());
  return ldl_.Solve(sol);
}

}  // namespace kx::solvers::biopt
