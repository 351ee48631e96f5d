// BIOPT's minimum-infeasibility phase. When the line search cannot progress, BIOPT minimises
//   psi(w) = 0.5 ||c(x) - t||^2 - mu_r sum ln(gaps)
// by damped Gauss-Newton steps inside the bounds, using the same factorised pattern:
//   [ Sigma_r + delta I   A^T ] [dw]   [ -grad barrier ]
//   [ A                   -I  ] [q ] = [ -(c(x) - t)   ],
// i.e. (Sigma_r + delta I + A^T A) dw = -(A^T r + grad barrier). The phase ends when the
// filter accepts a point with a tenth less violation. When the steps stall at a point that
// is still infeasible, mu_r is lowered; stalling at the smallest mu_r means the violation has
// reached a local minimum above the tolerance: the problem is locally infeasible.
#include <algorithm>
#include <cmath>

#include "solvers/biopt_solver.h"
#include "solvers/status.h"

namespace kx::solvers::biopt {
namespace {

constexpr double kRequiredReduction = 0.9;  // leave with at most this share of the violation
constexpr double kProximity = 1e-8;         // delta: keeps the step finite for singular A
constexpr double kMuRestorationMin = 1e-12;
constexpr double kStallStep = 1e-9;         // relative step size counted as no progress
constexpr double kStallDecrease = 1e-8;     // relative violation decrease counted as none
constexpr int kStallLimit = 4;              // stalled steps at the smallest mu_r: infeasible
constexpr int kMaxStalls = 5;               // unprogressing steps at a feasible point
constexpr double kArmijo = 1e-4;
constexpr double kMinAlpha = 1e-14;

}  // namespace

int Solver::Restore() {
  // At a feasible point the phase has nothing to improve: take the step the Newton direction
  // offers, start a new filter, and give up after repeated failures.
  if (theta_ <= settings_.constraint_tol || m_ == 0) {
    if (++stall_count_ > kMaxStalls) return kAccuracyUnachievable;
    const double alpha = PrimalStepToBoundary(w_, dw_, tau_);
    filter_.Clear();
    if (!TryPoint(alpha, dw_)) return kAccuracyUnachievable;
    AcceptTrial(alpha, true);
    return EvaluateDerivatives() ? kContinue : kBadDerivatives;
  }
  const double theta0 = theta_;
  double mu_r = std::max(kMuRestorationMin, std::min(mu_, 1e-2 * theta0));
  int stalls = 0;
  for (;;) {
    if (iterations_ >= settings_.max_iter) return kMaxIterations;
    if (TimeUp()) return kExternalAbort;
    const double theta_before = theta_;
    double step_norm = 0.0;
    const bool moved = RestorationStep(mu_r, step_norm);
    step_tag_ = 'r';
    if (moved) {
      if (!EvaluateDerivatives()) return kBadDerivatives;
      ++iterations_;
      LogIteration(ComputeErrors(), true);
      if (theta_ <= kRequiredReduction * theta0 && LeaveRestoration()) return kContinue;
    }
    double wmax = 0.0;
    for (double v : w_) wmax = std::max(wmax, std::fabs(v));
    const bool stalled = !moved || step_norm <= kStallStep * (1.0 + wmax) ||
                         theta_before - theta_ <= kStallDecrease * theta_before;
    if (!stalled) {
      stalls = 0;
      continue;
    }
    if (mu_r > kMuRestorationMin) {
      mu_r = std::max(kMuRestorationMin, 0.1 * mu_r);
    } else if (++stalls >= kStallLimit) {
      return theta_ <= settings_.constraint_tol ? kAccuracyUnachievable : kNoFeasibleSolution;
    }
  }
}

double Solver::RestorationMerit(std::span<const double> r, std::span<const double> w,
                                double mu_r) const {
  const std::vector<double>& lo = nlp_.lower();
  const std::vector<double>& up = nlp_.upper();
  double psi = 0.0;
  for (double v : r) psi += 0.5 * v * v;
  for (int i = 0; i < nw_; ++i) {
    if (IsFinite(lo[i])) psi -= mu_r * std::log(w[i] - lo[i]);
    if (IsFinite(up[i])) psi -= mu_r * std::log(up[i] - w[i]);
  }
  return psi;
}

// One damped Gauss-Newton step on psi. False when no step along the direction decreases it.
bool Solver::RestorationStep(double mu_r, double& step_norm) {
  const std::vector<double>& lo = nlp_.lower();
  const std::vector<double>& up = nlp_.upper();
  for (int i = 0; i < nw_; ++i) {
    double s = 0.0, gb = 0.0;
    if (IsFinite(lo[i])) {
      const double gap = w_[i] - lo[i];
      s += mu_r / (gap * gap), gb -= mu_r / gap;
    }
    if (IsFinite(up[i])) {
      const double gap = up[i] - w_[i];
      s += mu_r / (gap * gap), gb += mu_r / gap;
    }
    sigma_[i] = s;
    gb_[i] = gb;
  }
  if (!kkt_.FactoriseFixed({}, jac_, sigma_, kProximity, 1.0)) return false;
  for (int i = 0; i < nw_; ++i) rhs_[i] = -gb_[i];
  for (int i = 0; i < m_; ++i) rhs_[nw_ + i] = -r_[i];
  if (!kkt_.Solve(rhs_, sol_)) return false;
  std::copy(sol_.begin(), sol_.begin() + nw_, dw_.begin());
  AddAT(r_, gb_);  // gb_ becomes the gradient of psi
  double slope = 0.0;
  for (int i = 0; i < nw_; ++i) slope += gb_[i] * dw_[i];
  if (!(slope < 0.0)) return false;
  const double psi = RestorationMerit(r_, w_, mu_r);
  double alpha = PrimalStepToBoundary(w_, dw_, std::max(tau_, 0.99));
  trials_ = 0;
  for (; alpha >= kMinAlpha; alpha *= 0.5) {
    if (!TryPoint(alpha, dw_)) continue;
    if (RestorationMerit(r_trial_, w_trial_, mu_r) <= psi + kArmijo * alpha * slope) break;
  }
  if (alpha < kMinAlpha) return false;
  step_norm = 0.0;
  for (int i = 0; i < nw_; ++i) step_norm = std::max(step_norm, std::fabs(alpha * dw_[i]));
  std::swap(w_, w_trial_);
  std::swap(c_, c_trial_);
  std::swap(r_, r_trial_);
  f_ = f_trial_;
  theta_ = Theta(r_);
  alpha_primal_ = alpha;
  alpha_dual_ = 0.0;
  return true;
}

// Returns to the regular iterations when the filter accepts the restored point. The bound
// multipliers are kept, brought back within their band around mu / gap; the row multipliers
// of the last regular iterate belong to a point the line search could not leave, so they are
// estimated afresh by least squares at the restored point (0 when that estimate is large).
bool Solver::LeaveRestoration() {
  phi_ = BarrierValue(f_, w_);
  if (theta_ > theta_max_ || !filter_.Accepts(theta_, phi_)) return false;
  ResetBoundMultipliers();
  std::fill(y_.begin(), y_.end(), 0.0);
  LeastSquaresMultipliers();
  stall_count_ = 0;
  return true;
}

}  // namespace kx::solvers::biopt
