#include "solvers/biopt_nlp.h"

#include <algorithm>
#include <cmath>

#include "solvers/status.h"

namespace kx::solvers::biopt {
namespace {

constexpr double kBoundRelax = 1e-8;     // relative relaxation of every bound
constexpr double kMaxGradient = 100.0;   // scale so that no gradient entry exceeds this
constexpr double kMinScale = 1e-8;       // smallest scale factor

double Relaxed(double bound, double direction) {
  return bound + direction * kBoundRelax * std::max(1.0, std::fabs(bound));
}


}  // namespace

int ScaledNlp::Prepare() {
  if (view_.CheckInputs() != InputFault::kNone) return kInvalidBounds;
  n_ = view_.n();
  m_ = view_.m();
  free_ = view_.free_vars();
  x_fixed_.assign(n_, 0.0);
  for (int j = 0; j < n_; ++j) {
    if (view_.IsFixed(j)) x_fixed_[j] = view_.xl()[j];
  }
  ClassifyRows();
  ReadStructures();
  row_scale_.assign(m_, 1.0);
  RelaxBounds();
  grad_full_.assign(n_, 0.0);
  lambda_full_.assign(m_, 0.0);
  return kSuccess;
}

void ScaledNlp::ClassifyRows() {
  row_slack_.assign(m_, -1);
  slack_row_.clear();
  for (int i = 0; i < m_; ++i) {
    if (view_.cl()[i] == view_.cu()[i]) continue;
    row_slack_[i] = static_cast<int>(slack_row_.size());
    slack_row_.push_back(i);
  }
}

// The Jacobian and Hessian entries of free variables, in the view's order.
void ScaledNlp::ReadStructures() {
  const std::vector<int>& free_index = view_.free_index();
  jac_keep_.clear();
  jac_rows_.clear();
  jac_cols_.clear();
  for (int k = 0; k < view_.nnz_jac(); ++k) {
    const int col = free_index[view_.jac_cols()[k]];
    if (col < 0) continue;
    jac_keep_.push_back(k);
    jac_rows_.push_back(view_.jac_rows()[k]);
    jac_cols_.push_back(col);
  }
  jac_full_.assign(view_.nnz_jac(), 0.0);
  hess_keep_.clear();
  hess_rows_.clear();
  hess_cols_.clear();
  for (int k = 0; k < view_.nnz_hess(); ++k) {
    const int r = free_index[view_.hess_rows()[k]], c = free_index[view_.hess_cols()[k]];
    if (r < 0 || c < 0) continue;
    hess_keep_.push_back(k);
    hess_rows_.push_back(std::max(r, c));
    hess_cols_.push_back(std::min(r, c));
  }
  hess_full_.assign(view_.nnz_hess(), 0.0);
}

// Bounds of w in scaled units, relaxed outward so that the interior is never empty.
void ScaledNlp::RelaxBounds() {
  lower_.assign(nw(), -kInfinity);
  upper_.assign(nw(), kInfinity);
  for (int k = 0; k < nx(); ++k) {
    const int j = free_[k];
    if (IsFinite(view_.xl()[j])) lower_[k] = Relaxed(view_.xl()[j], -1.0);
    if (IsFinite(view_.xu()[j])) upper_[k] = Relaxed(view_.xu()[j], 1.0);
  }
  rhs_.assign(m_, 0.0);
  for (int i = 0; i < m_; ++i) {
    const double scale = row_scale_[i], cl = view_.cl()[i], cu = view_.cu()[i];
    const int k = row_slack_[i];
    if (k < 0) {
      rhs_[i] = cl * scale;
      continue;
    }
    if (IsFinite(cl)) lower_[nx() + k] = Relaxed(cl * scale, -1.0);
    if (IsFinite(cu)) upper_[nx() + k] = Relaxed(cu * scale, 1.0);
  }
}

void ScaledNlp::StartPoint(std::span<double> x) const {
  const std::vector<double> full = view_.Start();
  for (int k = 0; k < nx(); ++k) x[k] = full[free_[k]];
}

bool ScaledNlp::ComputeScaling(std::span<const double> x) {
  obj_scale_ = 1.0;
  row_scale_.assign(m_, 1.0);
  std::vector<double> g(nx());
  if (!Gradient(x, g)) return false;
  double gmax = 0.0;
  for (double v : g) gmax = std::max(gmax, std::fabs(v));
  if (gmax > kMaxGradient) obj_scale_ = std::max(kMinScale, kMaxGradient / gmax);
  std::vector<double> jv(nnz_jac());
  if (!Jacobian(x, jv)) return false;
  const std::vector<double> rmax = LargestRowEntries(jac_rows_, jv, m_);
  for (int i = 0; i < m_; ++i) {
    if (rmax[i] > kMaxGradient) row_scale_[i] = std::max(kMinScale, kMaxGradient / rmax[i]);
  }
  RelaxBounds();
  return true;
}

void ScaledNlp::Expand(std::span<const double> x) {
  for (int k = 0; k < nx(); ++k) x_fixed_[free_[k]] = x[k];
}

void ScaledNlp::FullPoint(std::span<const double> x, std::span<double> full) const {
  std::copy(x_fixed_.begin(), x_fixed_.end(), full.begin());
  for (int k = 0; k < nx(); ++k) full[free_[k]] = x[k];
}

bool ScaledNlp::Objective(std::span<const double> x, double& f) {
  Expand(x);
  if (!view_.Objective(x_fixed_, f)) return false;
  f *= obj_scale_;
  return true;
}

bool ScaledNlp::Gradient(std::span<const double> x, std::span<double> g) {
  Expand(x);
  if (!view_.Gradient(x_fixed_, grad_full_)) return false;
  for (int k = 0; k < nx(); ++k) g[k] = grad_full_[free_[k]] * obj_scale_;
  return true;
}

bool ScaledNlp::Constraints(std::span<const double> x, std::span<double> c) {
  Expand(x);
  if (!view_.Constraints(x_fixed_, c)) return false;
  for (int i = 0; i < m_; ++i) c[i] *= row_scale_[i];
  return true;
}

bool ScaledNlp::Jacobian(std::span<const double> x, std::span<double> values) {
  Expand(x);
  if (!view_.Jacobian(x_fixed_, jac_full_)) return false;
  for (int k = 0; k < nnz_jac(); ++k) {
    values[k] = jac_full_[jac_keep_[k]] * row_scale_[jac_rows_[k]];
  }
  return true;
}

bool ScaledNlp::Hessian(std::span<const double> x, double obj_factor, std::span<const double> y,
                        std::span<double> values) {
  Expand(x);
  if (hess_full_.empty()) return true;
  for (int i = 0; i < m_; ++i) lambda_full_[i] = y[i] * row_scale_[i];
  if (!view_.Hessian(x_fixed_, obj_factor * obj_scale_, lambda_full_, hess_full_)) return false;
  for (int k = 0; k < nnz_hess(); ++k) values[k] = hess_full_[hess_keep_[k]];
  return true;
}

void ScaledNlp::UnscaleMultipliers(std::span<const double> y, std::span<double> lambda) const {
  for (int i = 0; i < m_; ++i) lambda[i] = y[i] * row_scale_[i] / obj_scale_;
}

}  // namespace kx::solvers::biopt
