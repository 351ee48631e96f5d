// solvers/biopt_solver: BIOPT's primal-dual interior-point iterations on the scaled problem
// of biopt_nlp. One object runs one solve:
//   - start point pushed into the bounds, slacks from c(x0), bound multipliers 1, row
//     multipliers by least squares (or from the warm start);
//   - each iteration: convergence test, barrier update, Newton step on the primal-dual system
//     with inertia correction (biopt_kkt), fraction-to-the-boundary, filter line search with
//     second-order corrections (biopt_linesearch.cc);
//   - a line search that cannot progress switches to a minimum-infeasibility phase
//     (biopt_restoration.cc), which also detects local infeasibility.
#pragma once

#include <array>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "solvers/biopt_filter.h"
#include "solvers/biopt_kkt.h"
#include "solvers/biopt_nlp.h"
#include "solvers/problem.h"

namespace kx::solvers::biopt {

enum class BarrierRule {
  kMonotone,  // Fiacco-McCormick: mu falls once the barrier problem is solved well enough
  kAdaptive,  // mu follows the average complementarity while the optimality error falls
              // fast enough, the monotone rule otherwise
};

// How the adaptive rule's free mode picks mu from the complementarity products.
enum class MuOracle {
  kProbing,    // centring factor from the products an affine-scaling step (mu = 0) would reach
  kSpread,     // centring factor from the spread of the current products (min / average)
};

struct Options {
  BarrierRule barrier_rule = BarrierRule::kAdaptive;
  MuOracle mu_oracle = MuOracle::kSpread;
  double mu_init = 0.1;          // first barrier parameter of a cold start
  double mu_init_warm = 1e-5;    // first barrier parameter of a warm start
  int acceptable_iter = 15;      // consecutive "acceptable" iterations that end the solve
  double acceptable_factor = 100.0;  // acceptable level = this times each tolerance
  std::string log_file = "biopt.out";  // "" writes no log
};

// Scaled optimality measures of one iterate.
struct Errors {
  double primal = 0;    // max |c(x) - t| (scaled)
  double dual = 0;      // max |grad L| / s_d
  double compl_ = 0;    // max |(w - l) z| / s_c, complementarity for mu = 0
  double barrier = 0;   // max(primal, dual, complementarity for the current mu)
  double gap = 0;       // sum of (w - l) z over all bounds in objective units: how far the
                        // objective may still be from its value at the solution
  double primal_unscaled = 0;  // max |c(x) - t| in problem units
};

class Solver {
 public:
  Solver(Problem& problem, const SolverSettings& settings, const Options& options);
  ~Solver();
  Solver(const Solver&) = delete;
  Solver& operator=(const Solver&) = delete;

  // Runs the solve and fills `result`; returns the status code.
  int Run(SolverResult& result);

 private:
  enum class StepOutcome { kAccepted, kFailed };

  // Setup and start (biopt_solver.cc).
  int Initialise();
  void Allocate();
  void PushIntoBounds(std::vector<double>& v, int begin, int end, double push);
  bool InitialMultipliers();
  bool LeastSquaresMultipliers();
  bool EvaluateDerivatives();
  int Iterate();
  int CheckTermination(const Errors& e);
  double GapTolerance() const;

  // Barrier parameter (biopt_barrier.cc).
  bool IsAdaptive() const;
  void UpdateBarrier(Errors& e);
  double MuFloor(const Errors& e) const;
  bool UpdateBarrierMonotone(Errors& e);
  void UpdateBarrierAdaptive(const Errors& e);
  double ProbeAffineProducts(double& average);
  bool FactoriseStepMatrix();
  bool AdaptiveProgress(const Errors& e);
  bool LeaveFreeMode();
  double AverageComplementarity(double& smallest) const;
  int ComputeDirection();
  bool SolveStep(std::span<const double> r_y, std::span<double> dw, std::span<double> dy);
  void ComputeBoundSteps(double mu);
  void ResetBoundMultipliers();
  void FillResult(int status, SolverResult& result);

  // Measures (biopt_solver.cc).
  Errors ComputeErrors() const;
  void Residual(std::span<const double> c, std::span<const double> w, std::span<double> r) const;
  double Theta(std::span<const double> r) const;
  double BarrierValue(double f, std::span<const double> w) const;
  void BarrierGradient(std::span<const double> w, double mu, std::span<double> gb) const;
  void AddAT(std::span<const double> y, std::span<double> out) const;
  void ComputeSigma(std::span<double> sigma) const;
  double PrimalStepToBoundary(std::span<const double> w, std::span<const double> dw,
                              double tau) const;
  double DualStepToBoundary(double tau) const;

  // Line search (biopt_linesearch.cc).
  StepOutcome LineSearch();
  bool TryPoint(double alpha, std::span<const double> dw);
  bool IsAcceptable(double alpha, double theta_t, double phi_t, bool& f_type) const;
  bool TrySecondOrderCorrections(double alpha_max, bool& f_type);
  double MinimumStep(double gd) const;
  void AcceptTrial(double alpha, bool f_type);
  bool IsTinyStep() const;
  void CountFilterBlocks(bool blocked);
  StepOutcome TakeTinyStep();

  // Minimum-infeasibility phase (biopt_restoration.cc).
  int Restore();
  bool RestorationStep(double mu_r, double& step_norm);
  double RestorationMerit(std::span<const double> r, std::span<const double> w,
                          double mu_r) const;
  bool LeaveRestoration();

  // Log and console (biopt_log.cc).
  void OpenLog();
  void LogHeader();
  void LogIteration(const Errors& e, bool restoration);
  void LogFinal(int status, const Errors& e);
  void PrintSummary(int status, const Errors& e);
  bool TimeUp() const;

  ProblemView view_;               // the problem, read once; evaluations, MAX_TIME
  ScaledNlp nlp_;
  const SolverSettings& settings_;
  Options options_;
  KktSystem kkt_;
  Filter filter_;
  std::FILE* log_ = nullptr;

  // Sizes.
  int nx_ = 0, ns_ = 0, nw_ = 0, m_ = 0;
  int num_bounds_ = 0;             // finite bounds of w
  // Current iterate.
  std::vector<double> w_;          // free x then slacks; size nw
  std::vector<double> y_;          // row multipliers; size m
  std::vector<double> zl_, zu_;    // bound multipliers of w (0 where absent); size nw
  double f_ = 0;                   // scaled objective at w_
  std::vector<double> c_;          // scaled rows at w_; size m
  std::vector<double> r_;          // c - t at w_; size m
  std::vector<double> g_;          // scaled gradient at w_; size nx
  std::vector<double> jac_;        // scaled Jacobian values at w_; size nnz_jac
  std::vector<double> hess_;       // Hessian of the Lagrangian at w_; size nnz_hess
  // Step.
  std::vector<double> dw_, dy_;    // primal and row-multiplier step; sizes nw, m
  std::vector<double> dzl_, dzu_;  // bound-multiplier steps; size nw
  std::vector<double> rhs_, sol_;  // KKT right-hand side and solution; size nw + m
  std::vector<double> sigma_;      // diagonal of the bound terms; size nw
  std::vector<double> gb_;         // barrier gradient at w_; size nw
  mutable std::vector<double> grad_lagrangian_;  // work vector of ComputeErrors; size nw
  // Trial point of the line search.
  std::vector<double> w_trial_;    // size nw
  std::vector<double> c_trial_;    // size m
  std::vector<double> r_trial_;    // size m
  double f_trial_ = 0;
  std::vector<double> dw_soc_, dy_soc_;  // second-order correction step
  std::vector<double> c_soc_;      // accumulated constraint term of the corrections; size m
  // Barrier and filter state.
  double mu_ = 0.1;
  double tau_ = 0.99;
  double mu_min_ = 1e-9;
  double theta_max_ = 1e4, theta_min_ = 1e-4;
  double theta_ = 0, phi_ = 0, gd_ = 0;  // at w_: violation, barrier value, slope along dw_
  // Per-iteration figures for the log.
  double alpha_primal_ = 0, alpha_dual_ = 0;
  int trials_ = 0;
  char step_tag_ = ' ';            // 's' after a second-order correction, 'r' in restoration
  // Counters.
  int iterations_ = 0;
  int logged_iteration_ = -1;      // iteration of the last log line
  int acceptable_count_ = 0;
  int tiny_steps_ = 0;
  int stall_count_ = 0;
  // Adaptive barrier rule.
  bool free_mode_ = true;          // mu follows the complementarity (else: monotone rule)
  double mu_max_ = 1e5;            // largest mu of the free mode
  std::array<double, 4> references_{};  // optimality errors of the last free-mode iterates
  int num_references_ = 0;
  double error_at_switch_ = 0;     // optimality error when the monotone rule took over
  int filter_blocks_ = 0;          // iterations in a row in which the filter refused a trial
  int filter_resets_ = 0;
  bool factorised_ = false;        // the step matrix of this iterate is already factorised
};

}  // namespace kx::solvers::biopt
