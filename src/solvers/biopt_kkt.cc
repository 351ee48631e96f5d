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

}  // namespace

KktSystem::KktSystem(const ScaledNlp& nlp)
    : nlp_(nlp), solver_(linalg::MakeMultifrontalSolver()) {}

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
  residual_.assign(dim(), 0.0);
  correction_.assign(dim(), 0.0);
  return solver_->Analyse(dim(), rows_, cols_);
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

linalg::FactorOutcome KktSystem::Factorise() { return solver_->Factorise(values_); }

bool KktSystem::HasRightInertia(linalg::FactorOutcome outcome) const {
  return outcome == linalg::FactorOutcome::kOk && solver_->NegativeEigenvalues() == m_;
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
  if (outcome == linalg::FactorOutcome::kSingular || solver_->NegativeEigenvalues() < m_) {
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
    if (solver_->NegativeEigenvalues() < m_ && delta_c == 0.0) {
      delta_c = kDeltaC * std::pow(mu, kDeltaCExponent);
    }
    delta_w *= last_delta_w_ == 0.0 ? kDeltaWIncreaseFirst : kDeltaWIncrease;
  }
  return false;
}

void KktSystem::Multiply(std::span<const double> v, std::span<double> out) const {
  std::fill(out.begin(), out.end(), 0.0);
  for (size_t k = 0; k < values_.size(); ++k) {
    const int r = rows_[k], c = cols_[k];
    out[r] += values_[k] * v[c];
    if (r != c) out[c] += values_[k] * v[r];
  }
}

bool KktSystem::Solve(std::span<const double> rhs, std::span<double> sol) {
  std::copy(rhs.begin(), rhs.end(), sol.begin());
  if (!solver_->Solve(sol)) return false;
  double rhs_norm = 0.0;
  for (double v : rhs) rhs_norm = std::max(rhs_norm, std::fabs(v));
  for (int pass = 0; pass < kMaxRefinements; ++pass) {
    Multiply(sol, residual_);
    double res_norm = 0.0;
    for (int i = 0; i < dim(); ++i) {
      residual_[i] = rhs[i] - residual_[i];
      res_norm = std::max(res_norm, std::fabs(residual_[i]));
    }
    if (!std::isfinite(res_norm)) return false;
    if (res_norm <= kRefinementTol * (1.0 + rhs_norm)) break;
    std::copy(residual_.begin(), residual_.end(), correction_.begin());
    if (!solver_->Solve(correction_)) return false;
    for (int i = 0; i < dim(); ++i) sol[i] += correction_[i];
  }
  for (int i = 0; i < dim(); ++i) {
    if (!std::isfinite(sol[i])) return false;
  }
  return true;
}

}  // namespace kx::solvers::biopt
