#include "solvers/problem_view.h"

#include <algorithm>
#include <cmath>

#include "base/timers.h"

namespace kx::solvers {
namespace {

constexpr double kMaxSeconds = 1e9;  // MAX_TIME beyond this is no limit

bool AllFinite(std::span<const double> v) {
  return std::all_of(v.begin(), v.end(), [](double e) { return std::isfinite(e); });
}

bool AnyNan(const std::vector<double>& v) {
  return std::any_of(v.begin(), v.end(), [](double e) { return std::isnan(e); });
}

bool AnyCrossed(const std::vector<double>& lower, const std::vector<double>& upper) {
  for (size_t i = 0; i < lower.size(); ++i) {
    if (lower[i] > upper[i]) return true;
  }
  return false;
}

bool InRange(const std::vector<int>& v, int size) {
  return std::all_of(v.begin(), v.end(), [size](int i) { return i >= 0 && i < size; });
}

}  // namespace

ProblemView::ProblemView(Problem& problem, double max_time, Reads reads)
    : problem_(problem),
      n_(problem.num_vars()),
      m_(problem.num_cons()),
      nnz_jac_(problem.nnz_jac()),
      has_hessian_(problem.has_hessian()),
      start_(std::chrono::steady_clock::now()) {
  nnz_hess_ = has_hessian_ ? problem.nnz_hess() : 0;
  const double seconds = std::clamp(max_time, 0.0, kMaxSeconds);
  deadline_ = start_ + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                           std::chrono::duration<double>(seconds));
  if (reads == Reads::kSizes) return;
  xl_.assign(n_, 0.0);
  xu_.assign(n_, 0.0);
  cl_.assign(m_, 0.0);
  cu_.assign(m_, 0.0);
  problem.Bounds(xl_, xu_);
  problem.ConstraintBounds(cl_, cu_);
  free_index_.assign(n_, -1);
  int fixed = 0;
  for (int j = 0; j < n_; ++j) fixed += xl_[j] == xu_[j];
  free_.reserve(n_ - fixed);
  for (int j = 0; j < n_; ++j) {
    if (xl_[j] == xu_[j]) continue;
    free_index_[j] = static_cast<int>(free_.size());
    free_.push_back(j);
  }
  ReadStructures();
}

void ProblemView::ReadStructures() {
  ScopedTimer timer("Sparsity: zpm_s");
  jac_rows_.assign(nnz_jac_, 0);
  jac_cols_.assign(jac_rows_.size(), 0);
  problem_.JacobianStructure(jac_rows_, jac_cols_);
  if (!has_hessian_) return;
  hess_rows_.assign(nnz_hess_, 0);
  hess_cols_.assign(hess_rows_.size(), 0);
  if (!hess_rows_.empty()) problem_.HessianStructure(hess_rows_, hess_cols_);
}

std::vector<double> ProblemView::Start() {
  std::vector<double> x(n_);
  problem_.Start(x);
  return x;
}

InputFault ProblemView::CheckInputs() const {
  if (AnyNan(xl_) || AnyNan(xu_) || AnyNan(cl_) || AnyNan(cu_)) return InputFault::kNotANumber;
  if (!InRange(jac_rows_, m_) || !InRange(jac_cols_, n_) || !InRange(hess_rows_, n_) ||
      !InRange(hess_cols_, n_)) {
    return InputFault::kBadStructure;
  }
  if (AnyCrossed(xl_, xu_) || AnyCrossed(cl_, cu_)) return InputFault::kCrossedBounds;
  return InputFault::kNone;
}

bool ProblemView::Objective(std::span<const double> x, double& f) {
  ScopedTimer timer("Objective Calc: zpm_p");
  return problem_.Objective(x, f) && std::isfinite(f);
}

bool ProblemView::Gradient(std::span<const double> x, std::span<double> g) {
  ScopedTimer timer("Objective Grad: zpm_g");
  return problem_.Gradient(x, g) && AllFinite(g);
}

bool ProblemView::Constraints(std::span<const double> x, std::span<double> c) {
  ScopedTimer timer("Constraint Calc: zpm_c");
  ++residual_evals_;
  if (m_ == 0) return true;
  return problem_.Constraints(x, c) && AllFinite(c);
}

bool ProblemView::Jacobian(std::span<const double> x, std::span<double> values) {
  ScopedTimer timer("1st Deriv #1: zpm_a1");
  ++jacobian_evals_;
  if (values.empty()) return true;
  return problem_.JacobianValues(x, values) && AllFinite(values);
}

bool ProblemView::Hessian(std::span<const double> x, double obj_factor,
                          std::span<const double> lambda, std::span<double> values) {
  ScopedTimer timer("2nd Deriv: zpm_h");
  if (values.empty()) return true;
  return problem_.HessianValues(x, obj_factor, lambda, values) && AllFinite(values);
}

double ProblemView::SecondsUsed() const { return SecondsSince(start_); }

std::vector<double> LargestRowEntries(std::span<const int> rows, std::span<const double> values,
                                      int num_rows) {
  std::vector<double> largest(num_rows, 1.0);
  for (size_t k = 0; k < values.size(); ++k) {
    largest[rows[k]] = std::max(largest[rows[k]], std::abs(values[k]));
  }
  return largest;
}

}  // namespace kx::solvers
