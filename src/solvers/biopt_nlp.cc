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
  n_ = problem_.num_vars();
  m_ = problem_.num_cons();
  xl_.assign(n_, 0.0);
  xu_.assign(n_, 0.0);
  problem_.Bounds(xl_, xu_);
  cl_.assign(m_, 0.0);
  cu_.assign(m_, 0.0);
  problem_.ConstraintBounds(cl_, cu_);
  if (!CheckBounds()) return kInvalidBounds;
  x_fixed_.assign(n_, 0.0);
  free_index_.assign(n_, -1);
  free_.clear();
  for (int j = 0; j < n_; ++j) {
    if (xl_[j] == xu_[j]) {
      x_fixed_[j] = xl_[j];
    } else {
      free_index_[j] = static_cast<int>(free_.size());
      free_.push_back(j);
    }
  }
  ClassifyRows(cl_, cu_);
  ReadStructures();
  row_scale_.assign(m_, 1.0);
  RelaxBounds();
  grad_full_.assign(n_, 0.0);
  lambda_full_.assign(m_, 0.0);
  return kSuccess;
}

bool ScaledNlp::CheckBounds() {
  for (int j = 0; j < n_; ++j) {
    if (std::isnan(xl_[j]) || std::isnan(xu_[j]) || xl_[j] > xu_[j]) return false;
  }
  for (int i = 0; i < m_; ++i) {
    if (std::isnan(cl_[i]) || std::isnan(cu_[i]) || cl_[i] > cu_[i]) return false;
  }
  return true;
}

void ScaledNlp::ClassifyRows(const std::vector<double>& cl, const std::vector<double>& cu) {
  row_slack_.assign(m_, -1);
  slack_row_.clear();
  for (int i = 0; i < m_; ++i) {
    if (cl[i] == cu[i]) continue;
    row_slack_[i] = static_cast<int>(slack_row_.size());
    slack_row_.push_back(i);
  }
}

void ScaledNlp::ReadStructures() {
  const int nnz_jac = problem_.nnz_jac();
  std::vector<int> rows(nnz_jac), cols(nnz_jac);
  problem_.JacobianStructure(rows, cols);
  jac_keep_.clear();
  jac_rows_.clear();
  jac_cols_.clear();
  for (int k = 0; k < nnz_jac; ++k) {
    const int col = free_index_[cols[k]];
    if (col < 0) continue;
    jac_keep_.push_back(k);
    jac_rows_.push_back(rows[k]);
    jac_cols_.push_back(col);
  }
  jac_full_.assign(nnz_jac, 0.0);
  const int nnz_hess = problem_.has_hessian() ? problem_.nnz_hess() : 0;
  rows.assign(nnz_hess, 0);
  cols.assign(nnz_hess, 0);
  if (nnz_hess > 0) problem_.HessianStructure(rows, cols);
  hess_keep_.clear();
  hess_rows_.clear();
  hess_cols_.clear();
  for (int k = 0; k < nnz_hess; ++k) {
    const int r = free_index_[rows[k]], c = free_index_[cols[k]];
    if (r < 0 || c < 0) continue;
    hess_keep_.push_back(k);
    hess_rows_.push_back(std::max(r, c));
    hess_cols_.push_back(std::min(r, c));
  }
  hess_full_.assign(nnz_hess, 0.0);
}

// Bounds of w in scaled units, relaxed outward so that the interior is never empty.
void ScaledNlp::RelaxBounds() {
  lower_.assign(nw(), -kInfinity);
  upper_.assign(nw(), kInfinity);
  for (int k = 0; k < nx(); ++k) {
    const int j = free_[k];
    if (IsFinite(xl_[j])) lower_[k] = Relaxed(xl_[j], -1.0);
    if (IsFinite(xu_[j])) upper_[k] = Relaxed(xu_[j], 1.0);
  }
  rhs_.assign(m_, 0.0);
  for (int i = 0; i < m_; ++i) {
    const double scale = row_scale_[i];
    const int k = row_slack_[i];
    if (k < 0) {
      rhs_[i] = cl_[i] * scale;
      continue;
    }
    if (IsFinite(cl_[i])) lower_[nx() + k] = Relaxed(cl_[i] * scale, -1.0);
    if (IsFinite(cu_[i])) upper_[nx() + k] = Relaxed(cu_[i] * scale, 1.0);
  }
}

void ScaledNlp::StartPoint(std::span<double> x) const {
  std::vector<double> full(n_, 0.0);
  problem_.Start(full);
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
  std::vector<double> rmax(m_, 0.0);
  for (int k = 0; k < nnz_jac(); ++k) {
    rmax[jac_rows_[k]] = std::max(rmax[jac_rows_[k]], std::fabs(jv[k]));
  }
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
  if (!problem_.Objective(x_fixed_, f) || !std::isfinite(f)) return false;
  f *= obj_scale_;
  return true;
}

bool ScaledNlp::Gradient(std::span<const double> x, std::span<double> g) {
  Expand(x);
  if (!problem_.Gradient(x_fixed_, grad_full_)) return false;
  for (int k = 0; k < nx(); ++k) {
    g[k] = grad_full_[free_[k]] * obj_scale_;
    if (!std::isfinite(g[k])) return false;
  }
  return true;
}

bool ScaledNlp::Constraints(std::span<const double> x, std::span<double> c) {
  Expand(x);
  ++residual_evals_;
  if (m_ == 0) return true;
  if (!problem_.Constraints(x_fixed_, c)) return false;
  for (int i = 0; i < m_; ++i) {
    c[i] *= row_scale_[i];
    if (!std::isfinite(c[i])) return false;
  }
  return true;
}

bool ScaledNlp::Jacobian(std::span<const double> x, std::span<double> values) {
  Expand(x);
  ++jacobian_evals_;
  if (jac_full_.empty()) return true;
  if (!problem_.JacobianValues(x_fixed_, jac_full_)) return false;
  for (int k = 0; k < nnz_jac(); ++k) {
    values[k] = jac_full_[jac_keep_[k]] * row_scale_[jac_rows_[k]];
    if (!std::isfinite(values[k])) return false;
  }
  return true;
}

bool ScaledNlp::Hessian(std::span<const double> x, double obj_factor, std::span<const double> y,
                        std::span<double> values) {
  Expand(x);
  if (hess_full_.empty()) return true;
  for (int i = 0; i < m_; ++i) lambda_full_[i] = y[i] * row_scale_[i];
  if (!problem_.HessianValues(x_fixed_, obj_factor * obj_scale_, lambda_full_, hess_full_)) {
    return false;
  }
  for (int k = 0; k < nnz_hess(); ++k) {
    values[k] = hess_full_[hess_keep_[k]];
    if (!std::isfinite(values[k])) return false;
  }
  return true;
}

void ScaledNlp::UnscaleMultipliers(std::span<const double> y, std::span<double> lambda) const {
  for (int i = 0; i < m_; ++i) lambda[i] = y[i] * row_scale_[i] / obj_scale_;
}

}  // namespace kx::solvers::biopt
