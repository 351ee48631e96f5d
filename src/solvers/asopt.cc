#include "solvers/asopt.h"

#include <algorithm>
#include <cmath>

#include "base/base.h"
#include "solvers/asopt_minlp.h"
#include "solvers/banner.h"
#include "solvers/residual_dump.h"
#include "solvers/status.h"

namespace kx::solvers {
namespace {

constexpr int kDumpEntries = 10;  // entries of a vector listed when none failed

AsoptOptions LoadOptions(const SolverSettings& settings) {
  AsoptOptions options(settings.objective_tol, settings.constraint_tol, settings.max_iter);
  options.Read("asopt.opt");
  return options;
}

// Lists a vector under its title: only the entries that are not finite ("(errors only)") when
// there are some, otherwise the first few.
void DumpVector(const char* title, const char* name, const std::vector<double>& v) {
  const bool errors = std::any_of(v.begin(), v.end(), [](double e) { return !std::isfinite(e); });
  Say("index");
  Say(std::string(title) + (errors ? " (errors only)" : ""));
  int listed = 0;
  for (size_t i = 0; i < v.size() && (errors || listed < kDumpEntries); ++i) {
    if (errors && std::isfinite(v[i])) continue;
    Say(fmt::format("    {}({})  = {}", name, i + 1, FormatReal(v[i])));
    ++listed;
  }
}

// The solver dump of a failed setup: the sizes, the mode, the objective gradient and the
// Jacobian values at the start point, and the failure code.
void PrintSolverDump(const ProblemView& nlp, int info, WarmStart mode, const std::vector<double>& g,
                     const std::vector<double>& a) {
  Say("***** Solver Dump *****");
  Sayf("info : {}", info);
  Sayf("n    : {}", nlp.n());
  Sayf("m    : {}", nlp.m());
  Sayf("nz   : {}", nlp.nnz_jac());
  Sayf("p    : {}", nlp.has_hessian() ? nlp.nnz_hess() : nlp.n());  // else a diagonal estimate
  Sayf("mode : {}", static_cast<int>(mode));
  DumpVector("       g", "g", g);
  DumpVector("       a", "a", a);
  Sayf("Error: Problems with Setup.  info = {}", info);
}

bool AllFinite(const std::vector<double>& v) {
  return std::all_of(v.begin(), v.end(), [](double e) { return std::isfinite(e); });
}

// The inputs a solve cannot start from: a bound or start value that is not a number or a
// structure position outside the problem (kBadInputs), a lower bound above its upper bound
// (kInvalidBounds); 0 for none.
int InputStatus(const ProblemView& nlp, const std::vector<double>& x) {
  const InputFault fault = nlp.CheckInputs();
  if (fault == InputFault::kNotANumber || fault == InputFault::kBadStructure || !AllFinite(x)) {
    return kBadInputs;
  }
  return fault == InputFault::kCrossedBounds ? kInvalidBounds : kSuccess;
}

// Checks the inputs and the first derivatives at the start; prints the solver dump and
// returns the failure code, or 0.
int CheckSetup(ProblemView& nlp, const std::vector<double>& x, WarmStart mode) {
  int info = InputStatus(nlp, x);
  std::vector<double> g(nlp.n()), a(nlp.nnz_jac());
  const bool g_ok = nlp.Gradient(x, g);
  const bool a_ok = nlp.Jacobian(x, a);
  if (info == kSuccess && !(g_ok && a_ok)) info = kBadDerivatives;
  if (info != kSuccess) PrintSolverDump(nlp, info, mode, g, a);
  return info;
}

// The parameter tables in force, for the debug listing of the log.
void LogParameters(const AsoptOptions& options, AsoptLog& log) {
  const AsoptParameters p = MapParameters(options);
  log.Line("  Integer Parameters  ", false);
  for (int i = 0; i < AsoptParameters::kNumInteger; ++i) {
    log.Line(fmt::format("{:>4} {:<36} {}", i + 1, IntegerParameterLabel(i), p.integers[i]),
             false);
  }
  log.Line("  Real Parameters  ", false);
  for (int i = 0; i < AsoptParameters::kNumReal; ++i) {
    log.Line(fmt::format("{:>4} {:<36} {}", i + 1, RealParameterLabel(i), FormatReal(p.reals[i])),
             false);
  }
}

SolverResult FailedSetup(int info, const ProblemView& nlp, const std::vector<double>& x) {
  SolverResult failed;
  failed.status = info;
  failed.x = x;
  failed.lambda.assign(nlp.m(), 0.0);
  failed.z_lower.assign(nlp.n(), 0.0);
  failed.z_upper.assign(nlp.n(), 0.0);
  return failed;
}

// The problem's start point moved inside its bounds (where they are in order).
std::vector<double> StartPoint(ProblemView& nlp) {
  std::vector<double> x = nlp.Start();
  for (int j = 0; j < nlp.n(); ++j) {
    if (nlp.xl()[j] <= nlp.xu()[j]) x[j] = std::clamp(x[j], nlp.xl()[j], nlp.xu()[j]);
  }
  return x;
}

SolverResult ToResult(const MinlpOutcome& out, const ProblemView& nlp) {
  SolverResult result;
  result.status = out.best.status;
  result.iterations = out.nlp_iterations;
  result.objective = out.best.objective;
  result.x = out.best.x;
  result.lambda = out.best.lambda;
  result.z_lower = out.best.z_lower;
  result.z_upper = out.best.z_upper;
  result.residual_evals = nlp.residual_evals();
  result.jacobian_evals = nlp.jacobian_evals();
  return result;
}

}  // namespace

SolverResult SolveAsopt(Problem& problem, const SolverSettings& settings) {
  SqpState state;
  return SolveAsopt(problem, settings, state,
                    settings.warm ? WarmStart::kWorkingSet : WarmStart::kCold);
}

SolverResult SolveAsopt(Problem& problem, const SolverSettings& settings, SqpState& state,
                        WarmStart mode, int* nodes) {
  PrintSolverBanner('-', settings.imode, " with ASOPT Solver");
  const AsoptOptions options = LoadOptions(settings);
  if (settings.diaglevel >= 1) options.Write("asopt_current_options.opt");
  ProblemView nlp(problem, settings.max_time);
  const std::vector<double> x = StartPoint(nlp);
  if (settings.warm && KeepsMultipliers(mode) && state.lambda.size() != static_cast<size_t>(nlp.m())) {
    std::vector<double> lambda(nlp.m());
    if (problem.StartMultipliers(lambda)) state.lambda = lambda;
  }
  AsoptLog log("ASOPT.out");
  if (options.Int(kNlpDebugLevel) >= 1) {
    LogParameters(options, log);
    PrintResidualDump(nlp, x);
  }
  if (const int info = CheckSetup(nlp, x, mode); info != kSuccess) {
    log.Line(fmt::format(" ASOPT setup failed: status {} {}", info, StatusWord(info)), false);
    return FailedSetup(info, nlp, x);
  }
  SqpControl control;
  control.options = &options;
  control.mode = mode;
  control.log = &log;
  const MinlpOutcome out = Ace_MINLP_solve(nlp, x, control, state);
  if (nodes) *nodes = out.nodes;
  if (out.setup_failed) {
    std::vector<double> g(nlp.n()), a(nlp.nnz_jac());
    nlp.Gradient(x, g);
    nlp.Jacobian(x, a);
    PrintSolverDump(nlp, out.best.status, mode, g, a);
    return FailedSetup(out.best.status, nlp, x);
  }
  log.Line(fmt::format(" ASOPT status {} {}: {} after {} iterations", out.best.status,
                       StatusWord(out.best.status), OutcomeText(out.best.status),
                       out.nlp_iterations),
           options.Int(kNlpPrintLevel) >= 1 && settings.diaglevel >= 1);
  return ToResult(out, nlp);
}

}  // namespace kx::solvers
