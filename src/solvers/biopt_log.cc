// BIOPT's output: the iteration log file, the console lines, the result handed back.
#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "base/report.h"
#include "base/timers.h"
#include "solvers/banner.h"
#include "solvers/biopt.h"
#include "solvers/iteration_log.h"
#include "solvers/status.h"

namespace kx::solvers {
namespace biopt {
namespace {

constexpr const char* kVersionLine = "BIOPT Solver v1.0.5";
constexpr int kConsoleDiagLevel = 1;  // DIAGLEVEL from which iterations go to the console

}  // namespace

void Solver::OpenLog() {
  if (!options_.log_file.empty()) log_ = std::fopen(options_.log_file.c_str(), "w");
  if (log_ != nullptr) {
    std::fprintf(log_, "%s\n", kVersionLine);
    std::fprintf(log_, "variables %d (free %d), rows %d (inequality %d), nonzeros: jacobian %d"
                 ", hessian %d\n", nlp_.n_full(), nx_, m_, ns_, nlp_.nnz_jac(),
                 nlp_.nnz_hess());
    std::fprintf(log_, "objective scale %.3e, tolerances: objective %.1e, rows %.1e\n\n",
                 nlp_.obj_scale(), settings_.objective_tol, settings_.constraint_tol);
  }
  LogHeader();
}

void Solver::LogHeader() {
  if (log_ != nullptr) std::fprintf(log_, "%s\n", kIterationHeader.c_str());
  if (settings_.diaglevel >= kConsoleDiagLevel) Say(kIterationHeader);
}

// One line per iteration; the step figures are those of the step that led to the iterate.
void Solver::LogIteration(const Errors& e, bool restoration) {
  double dx = 0.0;
  for (double v : dw_) dx = std::max(dx, std::fabs(v));
  const std::string line = FormatIterationLine({.iter = iterations_,
                                                 .tag = restoration ? 'r' : ' ',
                                                 .objective = f_ / nlp_.obj_scale(),
                                                 .inf_pr = e.primal,
                                                 .inf_du = e.dual,
                                                 .penalty = mu_,
                                                 .step = iterations_ == 0 ? 0.0 : dx,
                                                 .shift = kkt_.delta_w(),
                                                 .alpha_du = alpha_dual_,
                                                 .alpha_pr = alpha_primal_,
                                                 .correction = step_tag_ == 's' ? 's' : ' ',
                                                 .its = trials_});
  if (log_ != nullptr) std::fprintf(log_, "%s\n", line.c_str());
  if (settings_.diaglevel >= kConsoleDiagLevel) Say(line);
  logged_iteration_ = iterations_;
}

void Solver::LogFinal(int status, const Errors& e) {
  if (log_ == nullptr) return;
  std::fprintf(log_, "\nNumber of iterations: %d\n", iterations_);
  std::fprintf(log_, "Objective (unscaled): %.15e\n", f_ / nlp_.obj_scale());
  std::fprintf(log_, "Primal infeasibility: scaled %.6e, unscaled %.6e\n", e.primal,
               e.primal_unscaled);
  std::fprintf(log_, "Dual infeasibility (scaled): %.6e\n", e.dual);
  std::fprintf(log_, "Complementarity (scaled): %.6e\n", e.compl_);
  std::fprintf(log_, "Barrier parameter: %.6e\n", mu_);
  std::fprintf(log_, "Residual evaluations: %d, Jacobian evaluations: %d\n",
               view_.residual_evals(), view_.jacobian_evals());
  std::fprintf(log_, "Wall time: %.3f s\n", view_.SecondsUsed());
  std::fprintf(log_, "Outcome: %d %s\n", status, std::string(OutcomeText(status)).c_str());
}

void Solver::PrintSummary(int status, const Errors& e) {
  Sayf(" BIOPT iterations: {}", iterations_);
  if (status != kInvalidBounds) {
    Sayf(" Objective: {:.10e}", f_ / nlp_.obj_scale());
    Sayf(" Final infeasibility: {:.4e}", e.primal_unscaled);
  } else {
    Say(" BIOPT: a lower bound exceeds its upper bound");
  }
  Sayf(" {}", OutcomeText(status));
}

bool Solver::TimeUp() const { return view_.TimeUp(); }

// Unscaled point and multipliers of the problem. Fixed variables take the multiplier that
// balances their gradient row (positive: lower bound, negative: upper bound).
void Solver::FillResult(int status, SolverResult& result) {
  const int n = view_.n(), m = view_.m();
  result.status = status;
  result.iterations = iterations_;
  result.x.assign(n, 0.0);
  result.lambda.assign(m, 0.0);
  result.z_lower.assign(n, 0.0);
  result.z_upper.assign(n, 0.0);
  result.residual_evals = view_.residual_evals();
  result.jacobian_evals = view_.jacobian_evals();
  if (status == kInvalidBounds) {
    result.x = view_.Start();
    return;
  }
  nlp_.FullPoint(std::span<const double>(w_).first(nx_), result.x);
  for (int j = 0; j < n; ++j) result.x[j] = std::clamp(result.x[j], view_.xl()[j], view_.xu()[j]);
  double f = 0.0;
  result.objective = view_.Objective(result.x, f) ? f : f_ / nlp_.obj_scale();
  nlp_.UnscaleMultipliers(y_, result.lambda);
  for (int k = 0; k < nx_; ++k) {
    result.z_lower[nlp_.free_vars()[k]] = zl_[k] / nlp_.obj_scale();
    result.z_upper[nlp_.free_vars()[k]] = zu_[k] / nlp_.obj_scale();
  }
  if (nx_ == n) return;
  std::vector<double> g(n), jv(view_.nnz_jac());
  if (!view_.Gradient(result.x, g) || !view_.Jacobian(result.x, jv)) return;
  for (size_t k = 0; k < jv.size(); ++k) {
    g[view_.jac_cols()[k]] += jv[k] * result.lambda[view_.jac_rows()[k]];
  }
  for (int j = 0; j < n; ++j) {
    if (!view_.IsFixed(j)) continue;
    (g[j] > 0 ? result.z_lower[j] : result.z_upper[j]) = std::fabs(g[j]);
  }
}

}  // namespace biopt

SolverResult SolveBiopt(Problem& problem, const SolverSettings& settings) {
  return SolveBiopt(problem, settings, biopt::Options{});
}

SolverResult SolveBiopt(Problem& problem, const SolverSettings& settings,
                        const biopt::Options& options) {
  PrintSolverBanner('-', settings.imode, " with BIOPT Solver");
  Say(biopt::kVersionLine);
  SolverResult result;
  if (!problem.has_hessian()) {
    Say("BIOPT: l-BFGS not available");
    result.status = kBadInputs;
    result.x.assign(problem.num_vars(), 0.0);
    problem.Start(result.x);
    return result;
  }
  biopt::Solver solver(problem, settings, options);
  solver.Run(result);
  return result;
}

}  // namespace kx::solvers
