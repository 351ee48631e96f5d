// BIOPT's barrier parameter.
//
// Monotone rule: mu stays until the barrier problem is solved to kKappaEps * mu, then falls to
// max(mu_floor, min(kKappaMu mu, mu^kThetaMu)) and the filter starts afresh.
//
// Adaptive rule (for problems with bounds): in the free mode mu follows the average
// complementarity product times a centring factor sigma, and may rise as well as fall. The
// spread oracle makes sigma grow when the products are far apart (small xi = min / average):
//   sigma = 0.1 min(0.05 (1 - xi) / xi, 2)^3;
// the probing oracle measures how far an affine-scaling step (mu = 0) would bring the
// products down: sigma = (average after that step / average now)^3. The free mode lasts while
// the optimality error keeps falling: each iterate must come below kProgress times one of the
// errors of the last few free-mode iterates. Otherwise, and when the line search fails in the
// free mode, the monotone rule takes over from mu = kFallback * average; once it has solved a
// barrier problem to an optimality error below kProgress times the error at the switch, the
// free mode resumes.
//
// mu_floor is mu_min, or lower while the sum of all products exceeds its tolerance (MuFloor).
#include <algorithm>
#include <cmath>

#include "solvers/biopt_solver.h"

namespace kx::solvers::biopt {
namespace {

constexpr double kKappaEps = 10.0;      // barrier problem solved when its error <= this * mu
constexpr double kKappaMu = 0.2;        // linear decrease of mu
constexpr double kThetaMu = 1.5;        // superlinear decrease of mu
constexpr double kTauMin = 0.99;        // fraction-to-the-boundary parameter, lower limit
constexpr double kProgress = 0.9999;    // required decrease of the optimality error
constexpr double kFallback = 0.8;       // monotone start relative to the average products
constexpr double kMuMaxFactor = 1e3;    // mu_max relative to the first average product
constexpr double kMuFloor = 1e-16;      // mu never goes below this
constexpr double kGapShare = 0.5;       // share of the gap tolerance the products aim at

double OptimalityError(const Errors& e) { return std::max({e.primal, e.dual, e.compl_}); }

}  // namespace

// Without bounds there are no products for the adaptive rule to follow; mu then only sets the
// constraint regularisation and the filter's life, and the monotone rule governs it.
bool Solver::IsAdaptive() const {
  return options_.barrier_rule == BarrierRule::kAdaptive && num_bounds_ > 0;
}

void Solver::UpdateBarrier(Errors& e) {
  if (!IsAdaptive()) {
    UpdateBarrierMonotone(e);
    return;
  }
  if (iterations_ == 0 && num_references_ == 0) {
    double smallest = 0.0;
    const double avg = AverageComplementarity(smallest);
    if (avg > 0.0) mu_max_ = kMuMaxFactor * avg;
  }
  if (free_mode_ && AdaptiveProgress(e)) {
    UpdateBarrierAdaptive(e);
    e = ComputeErrors();
    return;
  }
  if (free_mode_) {
    LeaveFreeMode();
    e = ComputeErrors();
  }
  if (UpdateBarrierMonotone(e) && OptimalityError(e) <= kProgress * error_at_switch_) {
    free_mode_ = true;
    num_references_ = 0;
  }
}

// The smallest barrier parameter for the current iterate: mu_min, or lower while the products
// of all bounds together exceed the gap tolerance. Every product settles near mu, so the sum
// meets its share of the tolerance once mu is that share divided among the bounds.
double Solver::MuFloor(const Errors& e) const {
  const double target = kGapShare * GapTolerance();
  if (e.gap <= target || num_bounds_ == 0) return mu_min_;
  return std::clamp(target * nlp_.obj_scale() / num_bounds_, kMuFloor, mu_min_);
}

// True when mu was lowered.
bool Solver::UpdateBarrierMonotone(Errors& e) {
  bool lowered = false;
  while (e.barrier <= kKappaEps * mu_ && mu_ > MuFloor(e)) {
    mu_ = std::max(MuFloor(e), std::min(kKappaMu * mu_, std::pow(mu_, kThetaMu)));
    tau_ = std::max(kTauMin, 1.0 - mu_);
    filter_.Clear();
    e = ComputeErrors();
    lowered = true;
  }
  return lowered;
}

// Sufficient decrease of the optimality error against the recent free-mode iterates; the
// current error joins them (the oldest leaves).
bool Solver::AdaptiveProgress(const Errors& e) {
  const double error = OptimalityError(e);
  bool progress = num_references_ == 0;
  for (int k = 0; k < num_references_; ++k) {
    progress = progress || error <= kProgress * references_[k];
  }
  if (!progress) return false;
  const int size = static_cast<int>(references_.size());
  if (num_references_ < size) {
    references_[num_references_++] = error;
  } else {
    std::rotate(references_.begin(), references_.begin() + 1, references_.end());
    references_[size - 1] = error;
  }
  return true;
}

void Solver::UpdateBarrierAdaptive(const Errors& e) {
  double smallest = 0.0;
  double avg = AverageComplementarity(smallest);
  if (avg <= 0.0) return;
  double sigma = 0.0;
  if (options_.mu_oracle == MuOracle::kProbing) {
    const double affine = ProbeAffineProducts(avg);
    if (affine < 0.0) return;  // no step matrix: the caller's own factorisation decides
    sigma = std::min(1.0, std::pow(affine / avg, 3));
  } else {
    const double xi = std::max(1e-12, smallest / avg);
    sigma = 0.1 * std::pow(std::min(0.05 * (1.0 - xi) / xi, 2.0), 3);
  }
  const double floor = MuFloor(e);
  const double mu = std::clamp(sigma * avg, floor, std::max(floor, mu_max_));
  if (mu != mu_) filter_.Clear();  // a new barrier function: old entries do not compare
  mu_ = mu;
  tau_ = std::max(kTauMin, 1.0 - mu_);
}

// The average product an affine-scaling step (the Newton step for mu = 0, taken to the
// boundary) would reach; `average` receives the current one. Factorises the step matrix of
// this iterate, which the step that follows reuses. Negative when that fails.
double Solver::ProbeAffineProducts(double& average) {
  const auto x = std::span<const double>(w_).first(nx_);
  if (!nlp_.Hessian(x, 1.0, y_, hess_) || !FactoriseStepMatrix()) return -1.0;
  factorised_ = true;
  BarrierGradient(w_, 0.0, gb_);
  for (int i = 0; i < m_; ++i) c_soc_[i] = -r_[i];
  if (!SolveStep(c_soc_, dw_, dy_)) return -1.0;
  ComputeBoundSteps(0.0);
  const double alpha_p = PrimalStepToBoundary(w_, dw_, 1.0);
  const double alpha_d = DualStepToBoundary(1.0);
  const std::vector<double>& lo = nlp_.lower();
  const std::vector<double>& up = nlp_.upper();
  double sum = 0.0, now = 0.0;
  for (int i = 0; i < nw_; ++i) {
    if (IsFinite(lo[i])) {
      const double gap = w_[i] - lo[i];
      now += gap * zl_[i];
      sum += (gap + alpha_p * dw_[i]) * (zl_[i] + alpha_d * dzl_[i]);
    }
    if (IsFinite(up[i])) {
      const double gap = up[i] - w_[i];
      now += gap * zu_[i];
      sum += (gap - alpha_p * dw_[i]) * (zu_[i] + alpha_d * dzu_[i]);
    }
  }
  average = now / num_bounds_;
  return std::max(0.0, sum / num_bounds_);
}

// Switches the adaptive rule to its monotone mode. False when that was already the case (or
// the rule is monotone), so that the caller goes on to other remedies.
bool Solver::LeaveFreeMode() {
  if (!IsAdaptive() || !free_mode_) return false;
  free_mode_ = false;
  error_at_switch_ = OptimalityError(ComputeErrors());
  double smallest = 0.0;
  const double avg = AverageComplementarity(smallest);
  mu_ = std::clamp(kFallback * avg, mu_min_, std::max(mu_min_, mu_max_));
  tau_ = std::max(kTauMin, 1.0 - mu_);
  filter_.Clear();
  return true;
}

// Average of the complementarity products (gap * z) over all bounds; 0 without bounds.
double Solver::AverageComplementarity(double& smallest) const {
  double sum = 0.0;
  smallest = kInfinity;
  int count = 0;
  for (int i = 0; i < nw_; ++i) {
    if (IsFinite(nlp_.lower()[i])) {
      const double p = (w_[i] - nlp_.lower()[i]) * zl_[i];
      sum += p, smallest = std::min(smallest, p), ++count;
    }
    if (IsFinite(nlp_.upper()[i])) {
      const double p = (nlp_.upper()[i] - w_[i]) * zu_[i];
      sum += p, smallest = std::min(smallest, p), ++count;
    }
  }
  return count == 0 ? 0.0 : sum / count;
}

}  // namespace kx::solvers::biopt
