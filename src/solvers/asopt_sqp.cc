#include "solvers/asopt_sqp.h"

#include <algorithm>
#include <optional>
#include <cmath>

#include "base/base.h"
#include "solvers/iteration_log.h"
#include "solvers/status.h"

namespace kx::solvers {

void AsoptLog::Line(const std::string& text, bool console) {
  if (file_.is_open()) file_ << text << '\n';
  if (console) Say(text);
}

namespace {

constexpr int kMaxLineSearchFailures = 3;  // consecutive failed searches before MAXACCY
constexpr double kPenaltyGrowth = 1e3;     // elastic weight growth when the QP is infeasible
constexpr double kLeastDualScale = 1e-6;   // floor of the dual error's scale
constexpr double kQpToleranceShare = 0.1;  // QP feasibility tolerance / largest violation
constexpr double kQpToleranceFactor = 1e3; // QP feasibility tolerance / qp_tolerance
constexpr double kQpToleranceFloor = 0.1;  // ... not below this times the constraint tolerance
constexpr double kLeastQpTolerance = 1e-12;
constexpr double kElasticWeight = 1e4;     // first elastic weight / largest gradient entry
constexpr double kElasticPenaltyShare = 10.0;  // ... and at least this times the penalty nu
constexpr double kMaxElasticWeight = 1e10; // largest elastic weight / largest gradient entry
constexpr double kViolationSlack = 1e-4;   // violation a trial may add per row
constexpr int kStallWindow = 15;           // iterations over which progress is judged
constexpr double kStallMerit = 1e-8;       // least relative merit decrease over a window
constexpr double kStallMove = 1e-6;        // least relative move of the iterate over a window
constexpr double kStallSlack = 10.0;       // tolerance factor a stalled point may still meet
constexpr int kMaxCorrections = 10;        // second-order corrections while they keep paying
constexpr double kCorrectionGain = 0.1;    // violation cut a further correction must make
constexpr int kHeaderEvery = 20;           // iteration lines between two headers
constexpr double kDualRounding = 10.0;     // stationarity rounding / (eps * sum |J_ij lambda_i|)
constexpr double kLeastFeasibilityGain = 1e-8;  // relative violation cut feasibility mode needs
constexpr double kShiftGrowth = 100.0;     // Hessian shift growth after a rejected step
constexpr double kShiftFloor = 1e-2;       // ... and its least value relative to max |H_ij|
constexpr double kShiftDecrease = 4.0;     // Hessian shift decrease after an accepted step
// A variable within this relative distance of a bound is on it: its stationarity may have
// the bound's sign, and the bound's multiplier is reported.
constexpr double kAtBoundTol = 1e-10;

double MaxAbs(const std::vector<double>& v) {
  double m = 0.0;
  for (double e : v) m = std::max(m, std::abs(e));
  return m;
}

// The functions at one point; rows are scaled by the row scale factors.
struct Point {
  std::vector<double> x;
  double f = 0.0;
  std::vector<double> c;    // scaled row values
  std::vector<double> g;    // objective gradient
  std::vector<double> jac;  // scaled Jacobian values
  double theta = 0.0;       // l1 row violation
  double max_violation = 0.0;
  // Rounding level of theta: machine precision times the sum of the rows' linear terms
  // |J_ij x_j|, the size of what each row value sums before it cancels to its residual.
  double theta_rounding = 0.0;
};

class SqpSolver {
 public:
  SqpSolver(ProblemView& nlp, std::span<const double> xl, std::span<const double> xu,
            SqpState& state, const SqpControl& control);
  SqpOutcome Run(std::vector<double> x);

 private:
  bool Prepare(Point& p);
  std::optional<SqpOutcome> Iterate(Point& p);
  bool Converged(const Point& p, const QpResult& qp, double dual) const;
  bool FeasibilityExhausted(const Point& p, const QpResult& qp);
  void UpdatePenalty(const QpResult& qp, bool feasibility_ended);
  std::optional<SqpOutcome> HandleRejectedStep(const Point& p);
  void AcceptStep(Point& p, Point trial, const QpResult& qp, double alpha);
  bool Unbounded(const Point& p) const;
  double Opt(AsoptOption o) const { return (*control_.options)[o]; }
  std::vector<double> LagrangianGradient(const std::vector<double>& g,
                                         const std::vector<double>& jac) const;
  void EstimateHessian(const Point& p);
  bool HasBound(double b) const { return std::abs(b) < infinity_; }
  bool AtLower(double x, double lower) const {
    return HasBound(lower) && x <= lower + kAtBoundTol * (1 + std::abs(lower));
  }
  bool AtUpper(double x, double upper) const {
    return HasBound(upper) && x >= upper - kAtBoundTol * (1 + std::abs(upper));
  }
  bool EvalFunctions(Point& p);
  bool EvalDerivatives(Point& p);
  bool EvalHessian(const Point& p);
  void SetRowScaling(const Point& p);
  void Violation(Point& p) const;
  double LinearViolation(const Point& p, const std::vector<double>& d) const;
  double DualError(const Point& p, const std::vector<double>& lambda) const;
  double QpTolerance(const Point& p) const;
  QpProblem BuildQp(const Point& p, const std::vector<double>* row_shift) const;
  bool SolveSubproblem(const Point& p, QpResult& qp);
  bool SolveNewton(const Point& p, QpResult& qp);
  bool IsSquare() const;
  double RelativeStep(const Point& p, const std::vector<double>& d) const;
  // A Newton step is judged by the row violation alone: the rows fix the point.
  double Merit(const Point& p) const { return newton_ ? p.theta : p.f + nu_ * p.theta; }
  double Predicted(const Point& p, const QpResult& qp) const;
  bool AcceptableTrial(const Point& p, const Point& t, double alpha, double pred) const;
  bool TrySecondOrder(const Point& p, const QpResult& qp, double pred, Point& trial);
  bool LineSearch(const Point& p, const QpResult& qp, Point& trial, double& alpha);
  void LogIteration(int k, const Point& p, double dual, double step, double alpha, int qp_its);
  SqpOutcome Finish(int status, const Point& p, int iterations);
  bool Stalled(const Point& p);
  void OpenWindow(const Point& p);
  double LargestFreeEntry(const std::vector<double>& g) const;
  int StallStatus(const Point& p) const;
  // True once the MAX_TIME deadline has passed; remembered so that the loop can tell a
  // failed step from an interrupted one.
  bool PastDeadline() {
    timed_out_ = timed_out_ || nlp_.TimeUp();
    return timed_out_;
  }

  ProblemView& nlp_;
  std::span<const double> xl_, xu_;     // the bounds of this solve
  SqpState& state_;
  const SqpControl& control_;
  double infinity_;                     // bound magnitude treated as absent
  bool timed_out_ = false;              // the deadline passed inside a subproblem or search
  std::vector<double> row_scale_;       // factor of each row (1 without dynamic scaling)
  std::vector<double> cl_, cu_;         // scaled row bounds
  std::vector<double> lambda_;          // scaled row multipliers
  std::vector<int> h_rows_, h_cols_;    // Hessian pattern: the problem's, or the diagonal
                                        // of the estimate without second derivatives
  std::vector<double> hess_;            // Hessian values at the current point
  double delta_ = 0.0;                  // current Hessian shift
  double nu_ = 0.0;                     // merit penalty
  double rho_ = 0.0;                    // QP elastic weight
  double dual_scale_ = 1.0;             // least size the dual error is measured against
  bool feasibility_mode_ = false;       // the last QP could not satisfy the rows
  bool square_ = false;                 // as many free variables as rows, all equalities
  bool newton_ = false;                 // this iteration takes a Newton step
  bool newton_blocked_ = false;         // the last Newton step failed its line search
  int iteration_ = 0;
  int max_iter_ = 0;                    // nlp_maximum_iterations
  int feasibility_limit_ = 0;           // feasibility_mode_iterations (0 no limit)
  int failures_ = 0;                    // consecutive rejected steps
  int feasibility_iterations_ = 0;      // consecutive feasibility-mode iterations
  double alpha_prev_ = 1.0;             // last accepted step length
  bool reuse_hessian_ = false;          // the first iteration takes the kept Hessian
  int qp_iterations_ = 0;
  bool used_second_order_ = false;
  int window_start_ = 0;                // iteration at which the progress window opened
  std::vector<double> window_x_;        // iterate then
  double window_f_ = 0.0, window_theta_ = 0.0;  // its objective and row violation
  KktFactor kkt_;                       // shared by every QP of this solve (one analysis)
  // The point of the last Hessian estimate (problems without second derivatives).
  std::vector<double> estimate_x_, estimate_g_, estimate_jac_;
  double estimate_scale_ = 1.0;         // scale of the identity estimate
};

SqpSolver::SqpSolver(ProblemView& nlp, std::span<const double> xl, std::span<const double> xu,
                     SqpState& state, const SqpControl& control)
    : nlp_(nlp), xl_(xl), xu_(xu), state_(state), control_(control) {
  infinity_ = std::min(Opt(kInfiniteBound), kInfinity);
  row_scale_.assign(nlp_.m(), 1.0);
  h_rows_ = nlp_.hess_rows();
  h_cols_ = nlp_.hess_cols();
  if (!nlp_.has_hessian()) {
    for (int j = 0; j < nlp_.n(); ++j) h_rows_.push_back(j), h_cols_.push_back(j);
  }
}

bool SqpSolver::EvalFunctions(Point& p) {
  p.c.resize(nlp_.m());
  if (!nlp_.Objective(p.x, p.f) || !nlp_.Constraints(p.x, p.c)) return false;
  for (int i = 0; i < nlp_.m(); ++i) p.c[i] *= row_scale_[i];
  Violation(p);
  return true;
}

bool SqpSolver::EvalDerivatives(Point& p) {
  p.g.resize(nlp_.n());
  p.jac.resize(nlp_.jac_rows().size());
  if (!nlp_.Gradient(p.x, p.g) || !nlp_.Jacobian(p.x, p.jac)) return false;
  p.theta_rounding = 0.0;
  for (size_t k = 0; k < p.jac.size(); ++k) {
    p.jac[k] *= row_scale_[nlp_.jac_rows()[k]];
    p.theta_rounding += std::abs(p.jac[k] * p.x[nlp_.jac_cols()[k]]);
  }
  p.theta_rounding *= Opt(kMachinePrecision);
  return true;
}

bool SqpSolver::EvalHessian(const Point& p) {
  hess_.assign(h_rows_.size(), 0.0);
  if (!nlp_.has_hessian()) {
    EstimateHessian(p);
    return true;
  }
  std::vector<double> lambda(nlp_.m());
  for (int i = 0; i < nlp_.m(); ++i) lambda[i] = lambda_[i] * row_scale_[i];
  return nlp_.Hessian(p.x, 1.0, lambda, hess_);
}

// Gradient of the Lagrangian at p with the current multipliers (both in row-scaled terms).
std::vector<double> SqpSolver::LagrangianGradient(const std::vector<double>& g,
                                                  const std::vector<double>& jac) const {
  std::vector<double> r(g);
  for (size_t k = 0; k < jac.size(); ++k) {
    r[nlp_.jac_cols()[k]] += jac[k] * lambda_[nlp_.jac_rows()[k]];
  }
  return r;
}

// The diagonal Hessian estimate of a problem without second derivatives, chosen by
// initial_hessian_estimate_option: 0 the identity; 1 the identity scaled by s'y / s's of the
// last step (s the step, y the change of the Lagrangian gradient; 1 before the first step
// and whenever s'y is not positive); 2 or more the diagonal of the Lagrangian gradient's
// finite differences (each entry kept within the Hessian eigenvalue limits, so the estimate is
// positive definite), one evaluation of the gradient and the Jacobian per variable.
void SqpSolver::EstimateHessian(const Point& p) {
  const int option = control_.options->Int(kInitialHessianEstimateOption);
  const double low = Opt(kMinimumHessianEigenvalue), high = Opt(kMaximumHessianEigenvalue);
  std::vector<double> gl = LagrangianGradient(p.g, p.jac);
  if (option == 1 && estimate_x_.size() == p.x.size()) {
    const std::vector<double> before = LagrangianGradient(estimate_g_, estimate_jac_);
    double sy = 0.0, ss = 0.0;
    for (int j = 0; j < nlp_.n(); ++j) {
      const double sj = p.x[j] - estimate_x_[j];
      sy += sj * (gl[j] - before[j]);
      ss += sj * sj;
    }
    if (sy > 0.0 && ss > 0.0) estimate_scale_ = std::clamp(sy / ss, low, high);
  }
  estimate_x_ = p.x;
  estimate_g_ = p.g;
  estimate_jac_ = p.jac;
  if (option <= 1) {
    hess_.assign(nlp_.n(), option == 0 ? 1.0 : estimate_scale_);
    return;
  }
  const double h0 = std::sqrt(Opt(kMachinePrecision));
  Point q;
  for (int j = 0; j < nlp_.n(); ++j) {
    q.x = p.x;
    const double h = h0 * std::max(1.0, std::abs(p.x[j]));
    q.x[j] += h;
    hess_[j] = 1.0;
    if (EvalDerivatives(q)) {
      hess_[j] = std::clamp((LagrangianGradient(q.g, q.jac)[j] - gl[j]) / h, low, high);
    }
  }
}

// Dynamic scaling divides each row by its largest Jacobian entry at the start (at least 1).
void SqpSolver::SetRowScaling(const Point& p) {
  row_scale_.assign(nlp_.m(), 1.0);
  if (control_.options->Int(kDynamicScaling) > 0) {
    const std::vector<double> big = LargestRowEntries(nlp_.jac_rows(), p.jac, nlp_.m());
    for (int i = 0; i < nlp_.m(); ++i) row_scale_[i] = 1.0 / big[i];
  }
  cl_.resize(nlp_.m());
  cu_.resize(nlp_.m());
  for (int i = 0; i < nlp_.m(); ++i) {
    cl_[i] = HasBound(nlp_.cl()[i]) ? nlp_.cl()[i] * row_scale_[i] : -kInfinity;
    cu_[i] = HasBound(nlp_.cu()[i]) ? nlp_.cu()[i] * row_scale_[i] : kInfinity;
  }
}

void SqpSolver::Violation(Point& p) const {
  p.theta = p.max_violation = 0.0;
  for (int i = 0; i < nlp_.m(); ++i) {
    double v = 0.0;
    if (HasBound(cl_[i]) && p.c[i] < cl_[i]) v = cl_[i] - p.c[i];
    if (HasBound(cu_[i]) && p.c[i] > cu_[i]) v = p.c[i] - cu_[i];
    p.theta += v;
    p.max_violation = std::max(p.max_violation, v);
  }
}

double SqpSolver::LinearViolation(const Point& p, const std::vector<double>& d) const {
  std::vector<double> lin(p.c);
  for (size_t k = 0; k < p.jac.size(); ++k) lin[nlp_.jac_rows()[k]] += p.jac[k] * d[nlp_.jac_cols()[k]];
  double theta = 0.0;
  for (int i = 0; i < nlp_.m(); ++i) {
    if (HasBound(cl_[i]) && lin[i] < cl_[i]) theta += cl_[i] - lin[i];
    if (HasBound(cu_[i]) && lin[i] > cu_[i]) theta += lin[i] - cu_[i];
  }
  return theta;
}

// Scaled first-order optimality error at p with the row multipliers: stationarity with the
// bound multipliers that the bounds allow, the sign of inequality multipliers and
// complementarity, divided by max(dual_scale_, largest gradient entry). dual_scale_ is the
// starting gradient's size within [1e-6, 1], so an objective whose gradient is small
// everywhere (a cost weighted by a mesh width, say) is judged relative to its own size
// instead of passing an absolute test far from its optimum.
double SqpSolver::DualError(const Point& p, const std::vector<double>& lambda) const {
  std::vector<double> r(p.g), rounding(nlp_.n(), 0.0);
  for (size_t k = 0; k < p.jac.size(); ++k) {
    const double term = p.jac[k] * lambda[nlp_.jac_rows()[k]];
    r[nlp_.jac_cols()[k]] += term;
    rounding[nlp_.jac_cols()[k]] += std::abs(term);
  }
  const double gmax = std::max(dual_scale_, LargestFreeEntry(p.g));
  double err = 0.0;
  for (int j = 0; j < nlp_.n(); ++j) {
    if (xl_[j] == xu_[j]) continue;
    const bool at_lower = AtLower(p.x[j], xl_[j]);
    const bool at_upper = AtUpper(p.x[j], xu_[j]);
    double e = std::abs(r[j]);
    if (at_lower) e = std::max(0.0, -r[j]);
    if (at_upper) e = at_lower ? 0.0 : std::max(0.0, r[j]);
    err = std::max(err, e - kDualRounding * Opt(kMachinePrecision) * rounding[j]);
  }
  for (int i = 0; i < nlp_.m(); ++i) {
    if (cl_[i] == cu_[i]) continue;
    const double l = lambda[i];
    double slack = 0.0;
    if (l < 0) slack = HasBound(cl_[i]) ? std::max(0.0, p.c[i] - cl_[i]) : 1.0;
    if (l > 0) slack = HasBound(cu_[i]) ? std::max(0.0, cu_[i] - p.c[i]) : 1.0;
    err = std::max(err, std::abs(l) * std::min(slack, 1.0));
  }
  return err / gmax;
}

// Feasibility tolerance of the QP. The QP must not call a row met that the convergence test
// calls violated, so once the point violates its rows the tolerance drops to a tenth of
// the largest violation (not below a tenth of the constraint tolerance): the step then
// corrects the rows that matter. A tighter tolerance throughout would make the QP chase
// rounding in rows that are far from met anyway.
double SqpSolver::QpTolerance(const Point& p) const {
  double tol = kQpToleranceFactor * Opt(kQpTolerance);
  if (p.max_violation > 0.0) {
    tol = std::min(tol, std::max(kQpToleranceShare * p.max_violation,
                                 kQpToleranceFloor * Opt(kConstraintConvergenceTolerance)));
  }
  return std::max(tol, kLeastQpTolerance);
}

// The QP in the step d; `row_shift`, for a second-order correction, replaces the row values.
QpProblem SqpSolver::BuildQp(const Point& p, const std::vector<double>* row_shift) const {
  QpProblem qp;
  qp.num_vars = nlp_.n();
  qp.num_rows = nlp_.m();
  qp.h_rows = h_rows_;
  qp.h_cols = h_cols_;
  qp.h_vals = hess_;
  qp.grad = p.g;
  qp.a_rows = nlp_.jac_rows();
  qp.a_cols = nlp_.jac_cols();
  qp.a_vals = p.jac;
  qp.xl.resize(nlp_.n());
  qp.xu.resize(nlp_.n());
  const bool trust = iteration_ < control_.options->Int(kTrustRegionIterations);
  for (int j = 0; j < nlp_.n(); ++j) {
    double step = Opt(kMaximumDeltaX);
    if (control_.options->Int(kStepBoundType) == 1) step *= std::max(1.0, std::abs(p.x[j]));
    if (trust) step = std::min(step, Opt(kTrustRegionRadius));
    qp.xl[j] = HasBound(xl_[j]) ? std::max(xl_[j] - p.x[j], -step) : -step;
    qp.xu[j] = HasBound(xu_[j]) ? std::min(xu_[j] - p.x[j], step) : step;
    if (xl_[j] == xu_[j]) qp.xl[j] = qp.xu[j] = 0.0;
  }
  const std::vector<double>& c = row_shift ? *row_shift : p.c;
  qp.rl.resize(nlp_.m());
  qp.ru.resize(nlp_.m());
  for (int i = 0; i < nlp_.m(); ++i) {
    qp.rl[i] = HasBound(cl_[i]) ? cl_[i] - c[i] : -kInfinity;
    qp.ru[i] = HasBound(cu_[i]) ? cu_[i] - c[i] : kInfinity;
  }
  qp.delta = delta_;
  qp.elastic_weight = rho_;
  qp.infinity = kInfinity;
  qp.tolerance = QpTolerance(p);
  qp.multiplier_scale = dual_scale_;
  const double limit = std::max(100.0, 10.0 * (nlp_.n() + nlp_.m()));
  qp.max_iterations = std::max(1, static_cast<int>(Opt(kFractionalSubproblemCompletion) * limit));
  qp.deadline = nlp_.deadline();
  qp.print_level = control_.options->Int(kQpPrintLevel);
  qp.factor_print_level = control_.options->Int(kLinearSolverPrintLevel);
  if (control_.log != nullptr) {
    qp.log = [log = control_.log](const std::string& line) { log->Line(line, false); };
  }
  return qp;
}

// Solves the QP, raising the Hessian shift until the curvature is positive on the working
// set's null space and the elastic weight until the rows are met (or it is large enough that
// the step is a feasibility step). False when no step can be had.
bool SqpSolver::SolveSubproblem(const Point& p, QpResult& qp) {
  newton_ = square_ && !newton_blocked_ && SolveNewton(p, qp);
  if (newton_ || timed_out_) return newton_;
  double gmax = 1.0;
  for (double v : p.g) gmax = std::max(gmax, std::abs(v));
  rho_ = std::max(kElasticWeight * gmax, kElasticPenaltyShare * nu_);
  const double rho_max = kMaxElasticWeight * gmax;
  QpWorkingSet guess = state_.active;
  while (true) {
    qp = SolveQp(BuildQp(p, nullptr), guess, &kkt_);
    qp_iterations_ += qp.iterations;
    if (qp.status == QpStatus::kTimeLimit) {
      timed_out_ = true;
      return false;
    }
    if (qp.status == QpStatus::kNonconvex || qp.status == QpStatus::kFactorFailed) {
      double hmax = 1.0;
      for (double v : hess_) hmax = std::max(hmax, std::abs(v));
      delta_ = delta_ < 1e-4 * hmax ? 1e-4 * hmax : 10.0 * delta_;
      if (delta_ > Opt(kMaximumHessianEigenvalue)) return false;
      continue;
    }
    guess = qp.active;
    if (qp.status == QpStatus::kInfeasible && rho_ < rho_max) {
      rho_ *= kPenaltyGrowth;
      continue;
    }
    feasibility_mode_ = qp.status == QpStatus::kInfeasible;
    state_.active = qp.active;
    return qp.status != QpStatus::kIterationLimit || !qp.x.empty();
  }
}

// True for a system of equations: every row an equality and as many free variables as rows.
bool SqpSolver::IsSquare() const {
  int free = 0;
  for (int j = 0; j < nlp_.n(); ++j) free += xl_[j] != xu_[j];
  if (free != nlp_.m()) return false;
  for (int i = 0; i < nlp_.m(); ++i) {
    if (cl_[i] != cu_[i] || !HasBound(cl_[i])) return false;
  }
  return true;
}

// Largest step component relative to its variable.
double SqpSolver::RelativeStep(const Point& p, const std::vector<double>& d) const {
  double rel = 0.0;
  for (int j = 0; j < nlp_.n(); ++j) rel = std::max(rel, std::abs(d[j]) / (1.0 + std::abs(p.x[j])));
  return rel;
}

// A square system of equations (simulation) is solved by damped Newton steps: the step of the
// linearised equations alone, without the variable bounds, which the line search enforces by
// projecting each trial point onto them. The bounded QP of such a system is infeasible as soon
// as the Newton step crosses a bound, and its elastic solve would cost one factorisation per
// row. False when the linearised equations have no exact solution (singular Jacobian).
bool SqpSolver::SolveNewton(const Point& p, QpResult& qp) {
  QpProblem newton = BuildQp(p, nullptr);
  for (int j = 0; j < nlp_.n(); ++j) {
    if (xl_[j] == xu_[j]) continue;
    newton.xl[j] = -kInfinity;
    newton.xu[j] = kInfinity;
  }
  newton.elastic_weight = 1.0;
  qp = SolveQp(newton, QpWorkingSet{}, &kkt_);
  qp_iterations_ += qp.iterations;
  if (qp.status == QpStatus::kTimeLimit) timed_out_ = true;
  if (qp.status != QpStatus::kOptimal) return false;
  feasibility_mode_ = false;
  return true;
}

// Decrease of the merit model that the QP step predicts (positive for a useful step).
double SqpSolver::Predicted(const Point& p, const QpResult& qp) const {
  const std::vector<double>& d = qp.x;
  if (newton_) return std::max(p.theta - LinearViolation(p, d), 0.0);
  double gd = 0.0, dhd = delta_ * 0.0;
  for (int j = 0; j < nlp_.n(); ++j) {
    gd += p.g[j] * d[j];
    dhd += delta_ * d[j] * d[j];
  }
  for (size_t k = 0; k < hess_.size(); ++k) {
    const int r = h_rows_[k], c = h_cols_[k];
    dhd += (r == c ? 1.0 : 2.0) * hess_[k] * d[r] * d[c];
  }
  const double pred = -(gd + 0.5 * dhd) + nu_ * (p.theta - LinearViolation(p, d));
  return pred > 0 ? pred : 0.5 * std::max(dhd, 0.0);
}

// Armijo test on the merit function, plus the caps on violation growth and objective rise.
bool SqpSolver::AcceptableTrial(const Point& p, const Point& t, double alpha,
                                double pred) const {
  if (t.theta > std::max(Opt(kMaximumConstraintNorm) * p.theta,
                                kViolationSlack * nlp_.m() + p.theta) &&
      t.theta > Opt(kConstraintConvergenceTolerance)) {
    return false;
  }
  if (t.f - p.f > Opt(kFeasiblePathObjectiveChange)) return false;
  // Rounding in f and in the row sums grows with the number of terms; a merit change below
  // that level is noise, not an increase. The violation's own rounding counts with the
  // penalty: large multipliers (a variable entering its rows with a tiny coefficient) make
  // nu times the rounding of theta far larger than the rounding of the merit value.
  const double terms = static_cast<double>(nlp_.n() + nlp_.m());
  const double slack = 10.0 * terms * Opt(kMachinePrecision) * std::max(1.0, std::abs(Merit(p))) +
                       (newton_ ? 1.0 : nu_) * p.theta_rounding;
  return Merit(t) <= Merit(p) - Opt(kLineSearchTolerance) * alpha * pred + slack;
}

// Second-order corrections: the QP again with the rows linearised from the values at the
// trial point, which bends the step back onto curved constraints. `backtrack_frequency`
// corrections are always allowed; further ones (up to kMaxCorrections) only while each cuts
// the violation at least tenfold, as on a long step across strongly curved rows where every
// correction gains a fixed factor.
bool SqpSolver::TrySecondOrder(const Point& p, const QpResult& qp, double pred, Point& trial) {
  std::vector<double> d = qp.x;
  const int attempts = control_.options->Int(kBacktrackFrequency);
  double before = kInfinity;  // violation before the last correction
  for (int attempt = 0; attempt < std::max(attempts, kMaxCorrections); ++attempt) {
    if (attempt >= attempts && (attempts == 0 || trial.theta > kCorrectionGain * before)) break;
    std::vector<double> shift(trial.c);
    for (size_t k = 0; k < p.jac.size(); ++k) {
      shift[nlp_.jac_rows()[k]] -= p.jac[k] * d[nlp_.jac_cols()[k]];
    }
    const QpResult soc = SolveQp(BuildQp(p, &shift), qp.active, &kkt_);
    qp_iterations_ += soc.iterations;
    if (soc.status != QpStatus::kOptimal) return false;
    Point t;
    t.x.resize(nlp_.n());
    for (int j = 0; j < nlp_.n(); ++j) t.x[j] = std::clamp(p.x[j] + soc.x[j], xl_[j], xu_[j]);
    if (!EvalFunctions(t)) return false;
    if (AcceptableTrial(p, t, 1.0, pred)) {
      trial = std::move(t);
      used_second_order_ = true;
      return true;
    }
    d = soc.x;
    before = trial.theta;
    trial = std::move(t);
  }
  return false;
}

bool SqpSolver::LineSearch(const Point& p, const QpResult& qp, Point& trial, double& alpha) {
  const double pred = Predicted(p, qp);
  const double mult = Opt(kLineSearchCutbackMultiplier);
  const double upper = std::min(Opt(kLineSearchCutbackParameter), 0.5);
  if (iteration_ < control_.options->Int(kDampedIterations)) alpha = std::min(alpha, 0.5);
  used_second_order_ = false;
  for (int cut = 0; cut <= control_.options->Int(kMoveSuppressionLevel); ++cut) {
    if (PastDeadline()) return false;
    trial.x.resize(nlp_.n());
    for (int j = 0; j < nlp_.n(); ++j) {
      trial.x[j] = std::clamp(p.x[j] + alpha * qp.x[j], xl_[j], xu_[j]);
    }
    const bool evaluated = EvalFunctions(trial);
    if (evaluated && AcceptableTrial(p, trial, alpha, pred)) return true;
    if (evaluated && !newton_ && cut == 0 && alpha == 1.0 && trial.theta > p.theta &&
        TrySecondOrder(p, qp, pred, trial)) {
      return true;
    }
    double next = mult * alpha;
    if (evaluated) {
      // Minimiser of the quadratic through the merit value, its slope and the trial value.
      const double curve = (Merit(trial) - Merit(p) + pred * alpha) / (alpha * alpha);
      if (curve > 0) next = pred / (2.0 * curve);
    }
    alpha = std::clamp(next, mult * alpha, upper * alpha);
  }
  return false;
}

// The iteration line; the multipliers take the QP's in full with an accepted step.
void SqpSolver::LogIteration(int k, const Point& p, double dual, double step, double alpha,
                             int qp_its) {
  if (control_.log == nullptr) return;
  const bool console = control_.options->Int(kNlpPrintLevel) >= 2;
  if (k % kHeaderEvery == 0) control_.log->Line(kIterationHeader, console);
  control_.log->Line(FormatIterationLine({.iter = k,
                                          .objective = p.f,
                                          .inf_pr = p.max_violation,
                                          .inf_du = dual,
                                          .penalty = nu_,
                                          .step = step,
                                          .shift = delta_,
                                          .alpha_du = alpha > 0.0 ? 1.0 : 0.0,
                                          .alpha_pr = alpha,
                                          .correction = used_second_order_ ? 's' : ' ',
                                          .its = qp_its}),
                     console);
}

SqpOutcome SqpSolver::Finish(int status, const Point& p, int iterations) {
  SqpOutcome out;
  out.status = status;
  out.iterations = iterations;
  out.objective = p.f;
  out.violation = p.max_violation;
  out.x = p.x;
  out.lambda.resize(nlp_.m());
  for (int i = 0; i < nlp_.m(); ++i) out.lambda[i] = lambda_[i] * row_scale_[i];
  out.z_lower.assign(nlp_.n(), 0.0);
  out.z_upper.assign(nlp_.n(), 0.0);
  if (!p.g.empty()) {
    const std::vector<double> r = LagrangianGradient(p.g, p.jac);
    for (int j = 0; j < nlp_.n(); ++j) {
      if (AtLower(p.x[j], xl_[j])) out.z_lower[j] = std::max(0.0, r[j]);
      if (AtUpper(p.x[j], xu_[j])) out.z_upper[j] = std::max(0.0, -r[j]);
    }
  }
  state_.x = p.x;
  state_.jac = p.jac;
  state_.hess = hess_;
  state_.lambda = lambda_;
  state_.delta = delta_;
  return out;
}

// True when the accepted steps of the last kStallWindow iterations have neither lowered the
// merit function (at the current penalty) nor moved the iterate measurably: the iteration is
// crawling with steps that change nothing. Each window is judged once, then a new one opens.
bool SqpSolver::Stalled(const Point& p) {
  if (window_x_.empty() || iteration_ < window_start_) {
    OpenWindow(p);
    return false;
  }
  if (iteration_ - window_start_ < kStallWindow) return false;
  const double then = newton_ ? window_theta_ : window_f_ + nu_ * window_theta_;
  bool stalled = then - Merit(p) <= kStallMerit * std::max(1.0, std::abs(then));
  for (int j = 0; j < nlp_.n() && stalled; ++j) {
    stalled = std::abs(p.x[j] - window_x_[j]) <= kStallMove * (1.0 + std::abs(window_x_[j]));
  }
  OpenWindow(p);
  return stalled;
}

void SqpSolver::OpenWindow(const Point& p) {
  window_start_ = iteration_;
  window_x_ = p.x;
  window_f_ = p.f;
  window_theta_ = p.theta;
}

// Largest gradient entry of a variable that is not fixed. Fixed variables (model parameters)
// do not count: the gradient on a parameter that enters every term of the objective is large
// and would make every point look stationary.
double SqpSolver::LargestFreeEntry(const std::vector<double>& g) const {
  double largest = 0.0;
  for (int j = 0; j < nlp_.n(); ++j) {
    if (xl_[j] != xu_[j]) largest = std::max(largest, std::abs(g[j]));
  }
  return largest;
}

// The status of a stalled solve: success when the point meets both convergence tolerances
// within the factor kStallSlack (rounding keeps the last digits out of reach), otherwise the
// requested accuracy is not achievable from here.
int SqpSolver::StallStatus(const Point& p) const {
  const bool feasible = p.max_violation <= kStallSlack * Opt(kConstraintConvergenceTolerance);
  const bool optimal =
      square_ || DualError(p, lambda_) <= kStallSlack * Opt(kObjectiveConvergenceTolerance);
  return feasible && optimal ? kSuccess : kAccuracyUnachievable;
}

// The start of a solve: the point inside the bounds, row scaling, first derivatives and
// functions (or those the previous call kept at this very point), and what the warm-start
// mode carries over. False when the start cannot be evaluated.
bool SqpSolver::Prepare(Point& p) {
  for (int j = 0; j < nlp_.n(); ++j) p.x[j] = std::clamp(p.x[j], xl_[j], xu_[j]);
  const WarmStart mode = control_.mode;
  const bool same_point = state_.x == p.x && state_.jac.size() == nlp_.jac_rows().size();
  lambda_.assign(nlp_.m(), 0.0);
  SetRowScaling(p);
  const bool dynamic = control_.options->Int(kDynamicScaling) > 0;
  if (same_point && !dynamic && KeepsJacobian(mode)) {
    // The previous call ended at this point: its Jacobian is still exact.
    p.g.resize(nlp_.n());
    p.jac = state_.jac;
    if (!nlp_.Gradient(p.x, p.g)) return false;
  } else if (!EvalDerivatives(p)) {
    return false;
  }
  if (dynamic) {
    SetRowScaling(p);
    if (!EvalDerivatives(p)) return false;
  }
  if (!EvalFunctions(p)) return false;
  const double g0 = LargestFreeEntry(p.g);
  // An objective flat at the start gives no scale: measure against 1 as for a large one.
  dual_scale_ = g0 > 0.0 ? std::clamp(g0, kLeastDualScale, 1.0) : 1.0;
  square_ = IsSquare();
  if (!KeepsWorkingSet(mode)) state_.active = {};
  if (KeepsMultipliers(mode) && state_.lambda.size() == static_cast<size_t>(nlp_.m())) {
    lambda_ = state_.lambda;
  }
  reuse_hessian_ = same_point && KeepsHessian(mode) && state_.hess.size() == h_rows_.size();
  delta_ = Opt(kMinimumHessianEigenvalue);
  nu_ = Opt(kInitialMuValue);
  max_iter_ = control_.options->Int(kNlpMaximumIterations);
  feasibility_limit_ = control_.options->Int(kFeasibilityModeIterations);
  return true;
}

SqpOutcome SqpSolver::Run(std::vector<double> x) {
  Point p;
  p.x = std::move(x);
  if (!Prepare(p)) return Finish(kBadInputs, p, 0);
  for (iteration_ = 0;; ++iteration_) {
    if (std::optional<SqpOutcome> done = Iterate(p)) return *std::move(done);
  }
}

// One iteration: limits, Hessian, QP step, convergence test, penalty, line search and the
// tests of the accepted point. An outcome ends the solve.
std::optional<SqpOutcome> SqpSolver::Iterate(Point& p) {
  if (PastDeadline()) return Finish(kExternalAbort, p, iteration_);
  if (iteration_ >= max_iter_) return Finish(kMaxIterations, p, iteration_);
  if (iteration_ == 0 && reuse_hessian_) {
    hess_ = state_.hess;
  } else if (!EvalHessian(p)) {
    return Finish(kBadDerivatives, p, iteration_);
  }
  qp_iterations_ = 0;
  QpResult qp;
  if (!SolveSubproblem(p, qp)) {
    return Finish(timed_out_ ? kExternalAbort : kAccuracyUnachievable, p, iteration_);
  }
  const double dual = DualError(p, qp.lambda);
  const double step = MaxAbs(qp.x);
  if (Converged(p, qp, dual)) {
    lambda_ = qp.lambda;
    LogIteration(iteration_, p, dual, step, 0.0, qp_iterations_);
    return Finish(kSuccess, p, iteration_);
  }
  const bool feasibility_ended = !feasibility_mode_ && feasibility_iterations_ > 0;
  if (FeasibilityExhausted(p, qp)) return Finish(kNoFeasibleSolution, p, iteration_);
  UpdatePenalty(qp, feasibility_ended);
  double alpha = control_.options->Int(kLineSearchStartMode) == 0
                     ? std::min(1.0, 2 * alpha_prev_)
                     : 1.0;
  Point trial;
  if (!LineSearch(p, qp, trial, alpha) || !EvalDerivatives(trial)) {
    LogIteration(iteration_, p, dual, step, 0.0, qp_iterations_);
    return HandleRejectedStep(p);
  }
  LogIteration(iteration_, p, dual, step, alpha, qp_iterations_);
  AcceptStep(p, std::move(trial), qp, alpha);
  if (Unbounded(p)) return Finish(kUnbounded, p, iteration_ + 1);
  if (Stalled(p)) return Finish(StallStatus(p), p, iteration_ + 1);
  return std::nullopt;
}

// A square system has no freedom left to optimise: the rows and the size of the Newton step
// (relative to the variables) decide convergence; otherwise the rows and the dual error.
bool SqpSolver::Converged(const Point& p, const QpResult& qp, double dual) const {
  if (feasibility_mode_ || p.max_violation > Opt(kConstraintConvergenceTolerance)) return false;
  const double measure = square_ ? RelativeStep(p, qp.x) : dual;
  return measure <= Opt(kObjectiveConvergenceTolerance);
}

// True when feasibility mode can no longer reduce the violation, or has run past its limit.
bool SqpSolver::FeasibilityExhausted(const Point& p, const QpResult& qp) {
  if (!feasibility_mode_) {
    feasibility_iterations_ = 0;
    return false;
  }
  ++feasibility_iterations_;
  const double reduction = p.theta - LinearViolation(p, qp.x);
  return reduction <= kLeastFeasibilityGain * std::max(1.0, p.theta) ||
         (feasibility_limit_ > 0 && feasibility_iterations_ > feasibility_limit_);
}

void SqpSolver::UpdatePenalty(const QpResult& qp, bool feasibility_ended) {
  const double lmax = MaxAbs(qp.lambda);
  if (feasibility_mode_) {
    // The elastic weight bounds the step's multipliers; with nu at least as large the step
    // predicts a decrease of the merit function.
    nu_ = std::max(nu_, rho_);
  } else if (feasibility_ended) {
    nu_ = std::max(Opt(kInitialMuValue), (1.0 + Opt(kPredictionParameter)) * lmax);
  } else {
    nu_ = std::max(nu_, (1.0 + Opt(kPredictionParameter)) * lmax);
  }
}

// No acceptable step along the QP direction: an outcome, or a retry with a Newton step
// replaced by a bounded QP step or with a larger Hessian shift.
std::optional<SqpOutcome> SqpSolver::HandleRejectedStep(const Point& p) {
  if (timed_out_) return Finish(kExternalAbort, p, iteration_);
  // No descent for the violation from a point where the rows cannot be met: infeasible.
  if (feasibility_mode_) return Finish(kNoFeasibleSolution, p, iteration_);
  // A square system that meets its rows but whose last correction cannot be taken has
  // converged as far as rounding allows.
  if (square_ && p.max_violation <= Opt(kConstraintConvergenceTolerance)) {
    return Finish(kSuccess, p, iteration_);
  }
  if (newton_) {
    // Projection onto the bounds spoilt the Newton step: take a bounded QP step instead.
    newton_blocked_ = true;
    return std::nullopt;
  }
  if (++failures_ > kMaxLineSearchFailures) return Finish(kAccuracyUnachievable, p, iteration_);
  delta_ = std::max(kShiftGrowth * delta_, kShiftFloor * std::max(1.0, MaxAbs(hess_)));
  return std::nullopt;
}

void SqpSolver::AcceptStep(Point& p, Point trial, const QpResult& qp, double alpha) {
  failures_ = 0;
  newton_blocked_ = false;
  alpha_prev_ = alpha;
  p = std::move(trial);
  // Multipliers of an infeasible QP are elastic weights, not estimates: keep the old ones.
  if (!feasibility_mode_) lambda_ = qp.lambda;
  delta_ = std::max(Opt(kMinimumHessianEigenvalue), delta_ / kShiftDecrease);
}

// Only a variable free to run off (not fixed, not bounded on both sides) can show an
// unbounded problem; a large constant held in a fixed variable does not.
bool SqpSolver::Unbounded(const Point& p) const {
  double xmax = 0.0;
  for (int j = 0; j < nlp_.n(); ++j) {
    if (!HasBound(xl_[j]) || !HasBound(xu_[j])) xmax = std::max(xmax, std::abs(p.x[j]));
  }
  return p.f < Opt(kObjectiveFunctionLowerLimit) ||
         (p.max_violation <= Opt(kConstraintConvergenceTolerance) &&
          (p.f < Opt(kObjectiveFunctionUnboundedLimit) || xmax >= Opt(kMaximumDeltaX)));
}

}  // namespace

SqpOutcome Ace_CONVRG(ProblemView& nlp, std::span<const double> xl, std::span<const double> xu,
                      std::vector<double> x, SqpState& state, const SqpControl& control) {
  SqpSolver solver(nlp, xl, xu, state, control);
  return solver.Run(std::move(x));
}

}  // namespace kx::solvers
