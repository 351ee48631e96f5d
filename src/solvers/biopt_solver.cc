#include "solvers/biopt_solver.h"

#include <algorithm>
#include <cmath>

#include "solvers/status.h"

namespace kx::solvers::biopt {
namespace {

constexpr double kPush = 1e-2;           // relative push of the start point into the bounds
constexpr double kPushWarm = 1e-6;       // the same for a warm start
constexpr double kMaxInitialMultiplier = 1e3;  // larger least-squares multipliers are dropped
constexpr double kScaleMax = 100.0;      // s_max of the scaled dual and complementarity errors
constexpr double kKappaMu = 0.2;         // linear decrease of mu (tiny steps)
constexpr double kTauMin = 0.99;         // fraction-to-the-boundary parameter, lower limit
constexpr double kKappaSigma = 1e10;     // bound multipliers stay within this factor of mu/slack
constexpr double kDamping = 1e-5;        // linear damping of one-sided bounds in the barrier
constexpr double kHugeObjective = -1e20; // objective below this: unbounded
constexpr double kHugeIterate = 1e15;    // iterate beyond this: diverging
constexpr double kMuMinAdaptive = 1e-11; // smallest mu of the adaptive rule (at most)
constexpr int kMaxTinySteps = 3;         // tiny steps in a row at the smallest mu: stall

bool HasBound(double b) { return IsFinite(b); }

}  // namespace

Solver::Solver(Problem& problem, const SolverSettings& settings, const Options& options)
    : view_(problem, settings.max_time),
      nlp_(view_),
      settings_(settings),
      options_(options),
      kkt_(nlp_) {}

Solver::~Solver() {
  if (log_ != nullptr) std::fclose(log_);
}

int Solver::Run(SolverResult& result) {
  int status = Initialise();
  if (status == kContinue) {
    OpenLog();
    status = Iterate();
  }
  const Errors e = status == kInvalidBounds || w_.size() != static_cast<size_t>(nw_)
                       ? Errors{}
                       : ComputeErrors();
  if (status != kInvalidBounds) LogFinal(status, e);
  PrintSummary(status, e);
  FillResult(status, result);
  return status;
}

// Everything up to the first iteration. Returns kContinue, or the status that ends the solve.
int Solver::Initialise() {
  if (nlp_.Prepare() != kSuccess) return kInvalidBounds;
  nx_ = nlp_.nx(), ns_ = nlp_.ns(), nw_ = nlp_.nw(), m_ = nlp_.m();
  Allocate();
  for (int i = 0; i < nw_; ++i) {
    num_bounds_ += HasBound(nlp_.lower()[i]) + HasBound(nlp_.upper()[i]);
  }

  const bool warm = settings_.warm;
  nlp_.StartPoint(std::span(w_).first(nx_));
  const std::vector<double>& lo = nlp_.lower();
  const std::vector<double>& up = nlp_.upper();
  // The scaling uses the pushed start point; the slack bounds are only known after it.
  PushIntoBounds(w_, 0, nx_, warm ? kPushWarm : kPush);
  const auto x = std::span<const double>(w_).first(nx_);
  if (!nlp_.ComputeScaling(x)) return kBadDerivatives;
  if (!nlp_.Objective(x, f_) || !nlp_.Constraints(x, c_)) return kBadDerivatives;
  for (int k = 0; k < ns_; ++k) w_[nx_ + k] = c_[nlp_.slack_row()[k]];
  PushIntoBounds(w_, nx_, nw_, warm ? kPushWarm : kPush);
  Residual(c_, w_, r_);
  if (!kkt_.Analyse()) return kSystemError;
  if (!EvaluateDerivatives()) return kBadDerivatives;

  mu_ = warm ? options_.mu_init_warm : options_.mu_init;
  // The monotone rule's last barrier problem is solved to a tenth of the tolerance. The
  // adaptive rule may go below that: its mu follows the products, and with many bounds the
  // objective error is their sum, not their largest.
  mu_min_ = std::min(settings_.objective_tol, settings_.constraint_tol) / 10.0;
  if (options_.barrier_rule == BarrierRule::kAdaptive) mu_min_ = std::min(mu_min_, kMuMinAdaptive);
  mu_ = std::max(mu_, mu_min_);
  tau_ = std::max(kTauMin, 1.0 - mu_);
  for (int i = 0; i < nw_; ++i) {
    if (HasBound(lo[i])) zl_[i] = warm ? mu_ / (w_[i] - lo[i]) : 1.0;
    if (HasBound(up[i])) zu_[i] = warm ? mu_ / (up[i] - w_[i]) : 1.0;
  }
  if (!InitialMultipliers()) return kSystemError;
  theta_ = Theta(r_);
  phi_ = BarrierValue(f_, w_);
  theta_max_ = 1e4 * std::max(1.0, theta_);
  theta_min_ = 1e-4 * std::max(1.0, theta_);
  return kContinue;
}

// Sizes every work vector once; the iterations allocate nothing further.
void Solver::Allocate() {
  w_.assign(nw_, 0.0);
  y_.assign(m_, 0.0);
  zl_.assign(nw_, 0.0), zu_.assign(nw_, 0.0);
  c_.assign(m_, 0.0), r_.assign(m_, 0.0), g_.assign(nx_, 0.0);
  jac_.assign(nlp_.nnz_jac(), 0.0), hess_.assign(nlp_.nnz_hess(), 0.0);
  dw_.assign(nw_, 0.0), dy_.assign(m_, 0.0), dzl_.assign(nw_, 0.0), dzu_.assign(nw_, 0.0);
  rhs_.assign(nw_ + m_, 0.0), sol_.assign(nw_ + m_, 0.0);
  sigma_.assign(nw_, 0.0), gb_.assign(nw_, 0.0), grad_lagrangian_.assign(nw_, 0.0);
  w_trial_.assign(nw_, 0.0), c_trial_.assign(m_, 0.0), r_trial_.assign(m_, 0.0);
  dw_soc_.assign(nw_, 0.0), dy_soc_.assign(m_, 0.0), c_soc_.assign(m_, 0.0);
}

// Moves v[begin..end) inside its bounds by a relative distance, never more than a share of
// the gap between two bounds.
void Solver::PushIntoBounds(std::vector<double>& v, int begin, int end, double push) {
  const std::vector<double>& lo = nlp_.lower();
  const std::vector<double>& up = nlp_.upper();
  for (int i = begin; i < end; ++i) {
    const bool has_l = HasBound(lo[i]), has_u = HasBound(up[i]);
    double pl = push * std::max(1.0, std::fabs(lo[i]));
    double pu = push * std::max(1.0, std::fabs(up[i]));
    if (has_l && has_u) {
      pl = std::min(pl, push * (up[i] - lo[i]));
      pu = std::min(pu, push * (up[i] - lo[i]));
    }
    if (has_l) v[i] = std::max(v[i], lo[i] + pl);
    if (has_u) v[i] = std::min(v[i], up[i] - pu);
    if (has_l && has_u && v[i] <= lo[i]) v[i] = 0.5 * (lo[i] + up[i]);
  }
}

// Warm start: the offered multipliers (scaled). Otherwise the least-squares multipliers of
// grad f + A^T y - z = 0, from [I A^T; A 0] [p; y] = [z - grad f; 0]; dropped when large.
bool Solver::InitialMultipliers() {
  std::vector<double> lambda(m_, 0.0);
  if (settings_.warm && m_ > 0 && view_.problem().StartMultipliers(lambda)) {
    for (int i = 0; i < m_; ++i) {
      const double y = lambda[i] * nlp_.obj_scale() / nlp_.row_scale()[i];
      y_[i] = std::isfinite(y) ? y : 0.0;
    }
    return true;
  }
  return LeastSquaresMultipliers();
}

bool Solver::LeastSquaresMultipliers() {
  if (m_ == 0) return true;
  std::vector<double>& zero_sigma = sigma_;  // the w block is delta_w I alone
  std::fill(zero_sigma.begin(), zero_sigma.end(), 0.0);
  if (!kkt_.FactoriseFixed({}, jac_, zero_sigma, 1.0, 1e-8)) return false;
  std::fill(rhs_.begin(), rhs_.end(), 0.0);
  for (int k = 0; k < nx_; ++k) rhs_[k] = -g_[k];
  for (int k = 0; k < nw_; ++k) rhs_[k] += zl_[k] - zu_[k];
  if (!kkt_.Solve(rhs_, sol_)) return false;
  double ymax = 0.0;
  for (int i = 0; i < m_; ++i) ymax = std::max(ymax, std::fabs(sol_[nw_ + i]));
  if (ymax <= kMaxInitialMultiplier) std::copy(sol_.begin() + nw_, sol_.end(), y_.begin());
  return true;
}

bool Solver::EvaluateDerivatives() {
  const auto x = std::span<const double>(w_).first(nx_);
  return nlp_.Gradient(x, g_) && nlp_.Jacobian(x, jac_);
}

int Solver::Iterate() {
  for (;;) {
    Errors e = ComputeErrors();
    if (logged_iteration_ != iterations_) LogIteration(e, false);
    const int status = CheckTermination(e);
    if (status != kContinue) return status;
    UpdateBarrier(e);
    phi_ = BarrierValue(f_, w_);
    step_tag_ = ' ';
    const int direction = ComputeDirection();
    if (direction == kBadDerivatives) return kBadDerivatives;
    StepOutcome outcome = StepOutcome::kFailed;
    if (direction == kContinue && IsTinyStep()) {
      outcome = TakeTinyStep();
    } else if (direction == kContinue && (outcome = LineSearch()) == StepOutcome::kAccepted) {
      stall_count_ = 0;
    }
    if (outcome == StepOutcome::kAccepted) {
      if (!EvaluateDerivatives()) return kBadDerivatives;
      continue;
    }
    if (LeaveFreeMode()) continue;  // the adaptive rule retries with the monotone one first
    const int restored = Restore();
    if (restored != kContinue) return restored;
  }
}

// A step too small for the line search to judge: the primal point barely moves but the bound
// multipliers still follow mu, so the full step is taken and mu lowered. The termination test
// of the next iteration sees the new multipliers; only repeated tiny steps at the smallest mu
// that do not converge end the solve (CheckTermination).
Solver::StepOutcome Solver::TakeTinyStep() {
  trials_ = 0;
  const double alpha = PrimalStepToBoundary(w_, dw_, tau_);
  if (!TryPoint(alpha, dw_)) return StepOutcome::kFailed;
  AcceptTrial(alpha, true);
  ++tiny_steps_;
  const double floor = MuFloor(ComputeErrors());
  if (mu_ > floor) {
    mu_ = std::max(floor, kKappaMu * mu_);
    tau_ = std::max(kTauMin, 1.0 - mu_);
    filter_.Clear();
  }
  return StepOutcome::kAccepted;
}

// Success when the scaled errors meet the tolerances, or when they have stayed within the
// acceptable level for several iterations, or when the steps have become too small to change
// the point at an acceptable level. Then the failure tests.
int Solver::CheckTermination(const Errors& e) {
  // Complementarity decides both whether the bounds hold with their multipliers and how far
  // the objective is from its stationary value, so it meets the tighter of the tolerances.
  const double otol = settings_.objective_tol, rtol = settings_.constraint_tol;
  const double ctol = std::min(otol, rtol);
  const bool feasible = e.primal <= rtol && e.primal_unscaled <= std::max(rtol, 1e-4);
  const double gap_tol = GapTolerance();
  if (feasible && e.dual <= otol && e.compl_ <= ctol && e.gap <= gap_tol) return kSuccess;
  const double a = options_.acceptable_factor;
  const bool acceptable = e.primal <= a * rtol && e.primal_unscaled <= std::max(a * rtol, 1e-4) &&
                          e.dual <= a * otol && e.compl_ <= a * ctol && e.gap <= a * gap_tol;
  acceptable_count_ = acceptable ? acceptable_count_ + 1 : 0;
  if (acceptable_count_ >= options_.acceptable_iter) return kSuccess;
  if (tiny_steps_ > kMaxTinySteps && mu_ <= MuFloor(e)) {
    return acceptable ? kSuccess : kAccuracyUnachievable;
  }
  if (f_ / nlp_.obj_scale() < kHugeObjective) return kUnbounded;
  for (int k = 0; k < nx_; ++k) {
    if (std::fabs(w_[k]) > kHugeIterate) return kUnbounded;
  }
  if (iterations_ >= settings_.max_iter) return kMaxIterations;
  if (TimeUp()) return kExternalAbort;
  return kContinue;
}

// The largest sum of complementarity products (objective units) at a solution: the objective
// tolerance relative to the objective's size. Each product alone may meet the tolerance while
// thousands of active bounds together still hold the objective visibly off its optimum.
double Solver::GapTolerance() const {
  return settings_.objective_tol * std::max(1.0, std::fabs(f_ / nlp_.obj_scale()));
}

// The Newton step of the barrier problem. kContinue with a step, kBadDerivatives when the
// Hessian cannot be evaluated, kAccuracyUnachievable when no regularisation factorises.
int Solver::ComputeDirection() {
  if (!factorised_) {
    const auto x = std::span<const double>(w_).first(nx_);
    if (!nlp_.Hessian(x, 1.0, y_, hess_)) return kBadDerivatives;
    if (!FactoriseStepMatrix()) return kAccuracyUnachievable;
  }
  factorised_ = false;
  BarrierGradient(w_, mu_, gb_);
  for (int i = 0; i < m_; ++i) c_soc_[i] = -r_[i];
  if (!SolveStep(c_soc_, dw_, dy_)) return kAccuracyUnachievable;
  ComputeBoundSteps(mu_);
  gd_ = 0.0;
  for (int i = 0; i < nw_; ++i) gd_ += gb_[i] * dw_[i];
  return kContinue;
}

// Factorises the step matrix at the current iterate (Hessian in hess_) with inertia
// correction. The matrix does not depend on mu beyond the constraint regularisation.
bool Solver::FactoriseStepMatrix() {
  ComputeSigma(sigma_);
  return kkt_.FactoriseCorrected(hess_, jac_, sigma_, mu_);
}

// Solves for (dw, dy) with the w rows -(barrier gradient + A^T y) and the given y rows.
bool Solver::SolveStep(std::span<const double> r_y, std::span<double> dw, std::span<double> dy) {
  std::copy(gb_.begin(), gb_.end(), rhs_.begin());
  AddAT(y_, std::span(rhs_).first(nw_));
  for (int i = 0; i < nw_; ++i) rhs_[i] = -rhs_[i];
  std::copy(r_y.begin(), r_y.end(), rhs_.begin() + nw_);
  if (!kkt_.Solve(rhs_, sol_)) return false;
  std::copy(sol_.begin(), sol_.begin() + nw_, dw.begin());
  std::copy(sol_.begin() + nw_, sol_.end(), dy.begin());
  return true;
}

void Solver::ComputeBoundSteps(double mu) {
  const std::vector<double>& lo = nlp_.lower();
  const std::vector<double>& up = nlp_.upper();
  for (int i = 0; i < nw_; ++i) {
    dzl_[i] = dzu_[i] = 0.0;
    if (HasBound(lo[i])) {
      const double gap = w_[i] - lo[i];
      dzl_[i] = (mu - zl_[i] * gap - zl_[i] * dw_[i]) / gap;
    }
    if (HasBound(up[i])) {
      const double gap = up[i] - w_[i];
      dzu_[i] = (mu - zu_[i] * gap + zu_[i] * dw_[i]) / gap;
    }
  }
}

// Keeps every bound multiplier within a factor kKappaSigma of its central value mu / gap, so
// that Sigma cannot drift far from the primal barrier Hessian.
void Solver::ResetBoundMultipliers() {
  const std::vector<double>& lo = nlp_.lower();
  const std::vector<double>& up = nlp_.upper();
  for (int i = 0; i < nw_; ++i) {
    if (HasBound(lo[i])) {
      const double c = mu_ / (w_[i] - lo[i]);
      zl_[i] = std::max(std::min(zl_[i], kKappaSigma * c), c / kKappaSigma);
    }
    if (HasBound(up[i])) {
      const double c = mu_ / (up[i] - w_[i]);
      zu_[i] = std::max(std::min(zu_[i], kKappaSigma * c), c / kKappaSigma);
    }
  }
}

Errors Solver::ComputeErrors() const {
  Errors e;
  for (int i = 0; i < m_; ++i) {
    e.primal = std::max(e.primal, std::fabs(r_[i]));
    e.primal_unscaled = std::max(e.primal_unscaled, std::fabs(r_[i]) / nlp_.row_scale()[i]);
  }
  std::vector<double>& grad = grad_lagrangian_;
  std::fill(grad.begin(), grad.end(), 0.0);
  std::copy(g_.begin(), g_.end(), grad.begin());
  AddAT(y_, grad);
  double y1 = 0.0, z1 = 0.0, compl_mu = 0.0;
  int bounds = 0;
  for (double v : y_) y1 += std::fabs(v);
  const std::vector<double>& lo = nlp_.lower();
  const std::vector<double>& up = nlp_.upper();
  for (int i = 0; i < nw_; ++i) {
    e.dual = std::max(e.dual, std::fabs(grad[i] - zl_[i] + zu_[i]));
    if (HasBound(lo[i])) {
      const double p = (w_[i] - lo[i]) * zl_[i];
      e.compl_ = std::max(e.compl_, p), compl_mu = std::max(compl_mu, std::fabs(p - mu_));
      e.gap += p, z1 += zl_[i], ++bounds;
    }
    if (HasBound(up[i])) {
      const double p = (up[i] - w_[i]) * zu_[i];
      e.compl_ = std::max(e.compl_, p), compl_mu = std::max(compl_mu, std::fabs(p - mu_));
      e.gap += p, z1 += zu_[i], ++bounds;
    }
  }
  const double s_d = std::max(kScaleMax, (y1 + z1) / std::max(1, m_ + bounds)) / kScaleMax;
  const double s_c = std::max(kScaleMax, z1 / std::max(1, bounds)) / kScaleMax;
  e.dual /= s_d;
  e.compl_ /= s_c;
  e.gap /= nlp_.obj_scale();
  e.barrier = std::max({e.primal, e.dual, compl_mu / s_c});
  return e;
}

void Solver::Residual(std::span<const double> c, std::span<const double> w,
                      std::span<double> r) const {
  for (int i = 0; i < m_; ++i) {
    const int k = nlp_.row_slack()[i];
    r[i] = c[i] - (k < 0 ? nlp_.rhs()[i] : w[nx_ + k]);
  }
}

double Solver::Theta(std::span<const double> r) const {
  double sum = 0.0;
  for (double v : r) sum += std::fabs(v);
  return sum;
}

// f - mu sum ln(gap) plus a small linear term on one-sided bounds, which keeps a variable
// with a single bound from running off when the objective is flat.
double Solver::BarrierValue(double f, std::span<const double> w) const {
  const std::vector<double>& lo = nlp_.lower();
  const std::vector<double>& up = nlp_.upper();
  double phi = f;
  for (int i = 0; i < nw_; ++i) {
    const bool has_l = HasBound(lo[i]), has_u = HasBound(up[i]);
    if (has_l) phi -= mu_ * std::log(w[i] - lo[i]);
    if (has_u) phi -= mu_ * std::log(up[i] - w[i]);
    if (has_l && !has_u) phi += kDamping * mu_ * (w[i] - lo[i]);
    if (has_u && !has_l) phi += kDamping * mu_ * (up[i] - w[i]);
  }
  return phi;
}

// Gradient of BarrierValue over w (the gradient of f in the x part) for barrier weight mu.
void Solver::BarrierGradient(std::span<const double> w, double mu, std::span<double> gb) const {
  const std::vector<double>& lo = nlp_.lower();
  const std::vector<double>& up = nlp_.upper();
  for (int i = 0; i < nw_; ++i) {
    double v = i < nx_ ? g_[i] : 0.0;
    const bool has_l = HasBound(lo[i]), has_u = HasBound(up[i]);
    if (has_l) v -= mu / (w[i] - lo[i]);
    if (has_u) v += mu / (up[i] - w[i]);
    if (has_l && !has_u) v += kDamping * mu;
    if (has_u && !has_l) v -= kDamping * mu;
    gb[i] = v;
  }
}

// out += A^T y with A = [J  -E].
void Solver::AddAT(std::span<const double> y, std::span<double> out) const {
  const std::vector<int>& rows = nlp_.jac_rows();
  const std::vector<int>& cols = nlp_.jac_cols();
  for (size_t k = 0; k < jac_.size(); ++k) out[cols[k]] += jac_[k] * y[rows[k]];
  for (int k = 0; k < ns_; ++k) out[nx_ + k] -= y[nlp_.slack_row()[k]];
}

void Solver::ComputeSigma(std::span<double> sigma) const {
  const std::vector<double>& lo = nlp_.lower();
  const std::vector<double>& up = nlp_.upper();
  for (int i = 0; i < nw_; ++i) {
    double s = 0.0;
    if (HasBound(lo[i])) s += zl_[i] / (w_[i] - lo[i]);
    if (HasBound(up[i])) s += zu_[i] / (up[i] - w_[i]);
    sigma[i] = s;
  }
}

// Largest alpha in (0, 1] that keeps every gap at least (1 - tau) of its current value.
double Solver::PrimalStepToBoundary(std::span<const double> w, std::span<const double> dw,
                                    double tau) const {
  const std::vector<double>& lo = nlp_.lower();
  const std::vector<double>& up = nlp_.upper();
  double alpha = 1.0;
  for (int i = 0; i < nw_; ++i) {
    if (dw[i] < 0.0 && HasBound(lo[i])) alpha = std::min(alpha, -tau * (w[i] - lo[i]) / dw[i]);
    if (dw[i] > 0.0 && HasBound(up[i])) alpha = std::min(alpha, tau * (up[i] - w[i]) / dw[i]);
  }
  return alpha;
}

double Solver::DualStepToBoundary(double tau) const {
  double alpha = 1.0;
  for (int i = 0; i < nw_; ++i) {
    if (dzl_[i] < 0.0 && zl_[i] > 0.0) alpha = std::min(alpha, -tau * zl_[i] / dzl_[i]);
    if (dzu_[i] < 0.0 && zu_[i] > 0.0) alpha = std::min(alpha, -tau * zu_[i] / dzu_[i]);
  }
  return alpha;
}

}  // namespace kx::solvers::biopt
