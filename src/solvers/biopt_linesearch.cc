// BIOPT's filter line search: backtracking from the fraction-to-the-boundary step, with
// second-order corrections when the first trial increases the constraint violation.
#include <algorithm>
#include <cmath>
#include <limits>

#include "solvers/biopt_solver.h"

namespace kx::solvers::biopt {
namespace {

constexpr double kGammaTheta = 1e-5;   // required share of violation decrease
constexpr double kGammaPhi = 1e-8;     // required barrier decrease relative to the violation
constexpr double kEtaPhi = 1e-4;       // Armijo factor
constexpr double kDelta = 1.0;         // switching condition factor
constexpr double kSPhi = 2.3;          // switching condition exponent of the slope
constexpr double kSTheta = 1.1;        // switching condition exponent of the violation
constexpr double kGammaAlpha = 0.05;   // safety factor of the smallest step
constexpr double kBacktrack = 0.5;     // step cut per trial
constexpr int kMaxCorrections = 4;     // second-order corrections per iteration
constexpr double kKappaSoc = 0.99;     // each correction must reduce the violation this much
constexpr double kPhiRelaxation = 10.0;  // barrier comparisons allow this many epsilons
constexpr int kFilterResetTrigger = 5;  // iterations in a row whose steps the filter cut back
constexpr int kMaxFilterResets = 5;     // filter resets per solve

// a <= b up to rounding in values of the size of reference.
bool LessOrEqual(double a, double b, double reference) {
  const double slack =
      kPhiRelaxation * std::numeric_limits<double>::epsilon() * std::max(1.0, std::fabs(reference));
  return a - b <= slack;
}

}  // namespace

// Evaluates w_ + alpha dw into the trial buffers. False when the evaluation failed.
bool Solver::TryPoint(double alpha, std::span<const double> dw) {
  ++trials_;
  for (int i = 0; i < nw_; ++i) w_trial_[i] = w_[i] + alpha * dw[i];
  const auto x = std::span<const double>(w_trial_).first(nx_);
  if (!nlp_.Objective(x, f_trial_) || !nlp_.Constraints(x, c_trial_)) return false;
  Residual(c_trial_, w_trial_, r_trial_);
  return true;
}

// Filter acceptance of the trial (theta_t, phi_t) for step alpha along the current
// direction. At a nearly feasible point where the switching condition holds (the step promises
// more barrier decrease than violation), the Armijo condition decides; otherwise sufficient
// decrease in one of the two measures. f_type: the switching and Armijo conditions both hold,
// so the step needs no filter entry, whichever test accepted it.
bool Solver::IsAcceptable(double alpha, double theta_t, double phi_t, bool& f_type) const {
  if (!std::isfinite(phi_t) || theta_t > theta_max_) return false;
  if (!filter_.Accepts(theta_t, phi_t)) return false;
  const bool switching =
      gd_ < 0.0 && alpha * std::pow(-gd_, kSPhi) > kDelta * std::pow(theta_, kSTheta);
  const bool armijo = LessOrEqual(phi_t, phi_ + kEtaPhi * alpha * gd_, phi_);
  f_type = switching && armijo;
  if (switching && theta_ <= theta_min_) return armijo;
  return theta_t <= (1.0 - kGammaTheta) * theta_ ||
         LessOrEqual(phi_t, phi_ - kGammaPhi * theta_, phi_);
}

// The step below which the line search gives up and the restoration phase takes over.
double Solver::MinimumStep(double gd) const {
  double alpha = kGammaTheta;
  if (gd < 0.0) {
    alpha = std::min(alpha, kGammaPhi * theta_ / -gd);
    if (theta_ <= theta_min_) {
      alpha = std::min(alpha, kDelta * std::pow(theta_, kSTheta) / std::pow(-gd, kSPhi));
    }
  }
  return kGammaAlpha * alpha;
}

Solver::StepOutcome Solver::LineSearch() {
  trials_ = 0;
  tiny_steps_ = 0;
  const double alpha_max = PrimalStepToBoundary(w_, dw_, tau_);
  const double alpha_min = MinimumStep(gd_);
  double alpha = alpha_max;
  bool first = true;
  bool blocked = false;  // a trial the filter alone refused
  while (alpha >= alpha_min || first) {
    bool f_type = false;
    if (!TryPoint(alpha, dw_)) {  // evaluation failed: cut the step back
      alpha *= kBacktrack;
      first = false;
      continue;
    }
    const double theta_t = Theta(r_trial_);
    const double phi_t = BarrierValue(f_trial_, w_trial_);
    if (IsAcceptable(alpha, theta_t, phi_t, f_type)) {
      AcceptTrial(alpha, f_type);
      CountFilterBlocks(blocked);
      return StepOutcome::kAccepted;
    }
    blocked = blocked || !filter_.Accepts(theta_t, phi_t);
    if (first && theta_t >= theta_ && m_ > 0 && TrySecondOrderCorrections(alpha, f_type)) {
      return StepOutcome::kAccepted;
    }
    first = false;
    alpha *= kBacktrack;
  }
  return StepOutcome::kFailed;
}

// A filter that keeps cutting the steps back holds on to entries of an earlier, worse region
// of the problem: after kFilterResetTrigger such iterations in a row it starts afresh (at most
// kMaxFilterResets times per solve).
void Solver::CountFilterBlocks(bool blocked) {
  filter_blocks_ = blocked ? filter_blocks_ + 1 : 0;
  if (filter_blocks_ >= kFilterResetTrigger && filter_resets_ < kMaxFilterResets) {
    filter_.Clear();
    filter_blocks_ = 0;
    ++filter_resets_;
  }
}

// Corrects the full step for the curvature of the rows: solve again with the y rows replaced
// by the accumulated violation alpha c(w) + c(w_trial), up to kMaxCorrections times while
// each correction reduces the violation by kKappaSoc. On success the corrected step becomes
// the step of this iteration.
bool Solver::TrySecondOrderCorrections(double alpha_max, bool& f_type) {
  for (int i = 0; i < m_; ++i) c_soc_[i] = alpha_max * r_[i] + r_trial_[i];
  double theta_old = Theta(r_trial_);
  for (int p = 0; p < kMaxCorrections; ++p) {
    // dy_soc_ carries the y rows in; SolveStep reads them before writing the step.
    for (int i = 0; i < m_; ++i) dy_soc_[i] = -c_soc_[i];
    if (!SolveStep(dy_soc_, dw_soc_, dy_soc_)) return false;
    const double alpha = PrimalStepToBoundary(w_, dw_soc_, tau_);
    if (!TryPoint(alpha, dw_soc_)) return false;
    const double theta_t = Theta(r_trial_);
    if (IsAcceptable(alpha_max, theta_t, BarrierValue(f_trial_, w_trial_), f_type)) {
      std::swap(dw_, dw_soc_);
      std::swap(dy_, dy_soc_);
      ComputeBoundSteps(mu_);
      step_tag_ = 's';
      AcceptTrial(alpha, f_type);
      return true;
    }
    if (theta_t > kKappaSoc * theta_old) return false;
    theta_old = theta_t;
    for (int i = 0; i < m_; ++i) c_soc_[i] = alpha * c_soc_[i] + r_trial_[i];
  }
  return false;
}

// Takes the trial point: primal and row multipliers by alpha, bound multipliers by their own
// fraction-to-the-boundary step; a step not decided by the Armijo test enters the filter.
void Solver::AcceptTrial(double alpha, bool f_type) {
  if (!f_type) filter_.Add((1.0 - kGammaTheta) * theta_, phi_ - kGammaPhi * theta_);
  alpha_primal_ = alpha;
  alpha_dual_ = DualStepToBoundary(tau_);
  std::swap(w_, w_trial_);
  std::swap(c_, c_trial_);
  std::swap(r_, r_trial_);
  f_ = f_trial_;
  for (int i = 0; i < m_; ++i) y_[i] += alpha * dy_[i];
  for (int i = 0; i < nw_; ++i) {
    zl_[i] += alpha_dual_ * dzl_[i];
    zu_[i] += alpha_dual_ * dzu_[i];
  }
  ResetBoundMultipliers();
  theta_ = Theta(r_);
  phi_ = BarrierValue(f_, w_);
  ++iterations_;
}

// A step that changes no component beyond rounding: the line search cannot judge it.
bool Solver::IsTinyStep() const {
  const double eps = 10.0 * std::numeric_limits<double>::epsilon();
  for (int i = 0; i < nw_; ++i) {
    if (std::fabs(dw_[i]) > eps * (1.0 + std::fabs(w_[i]))) return false;
  }
  return theta_ <= settings_.constraint_tol;
}

}  // namespace kx::solvers::biopt
