#include "driver/solve_stage.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "analysis/infeasibility.h"
#include "base/report.h"
#include "base/timers.h"
#include "files/dumps.h"
#include "solvers/dispatch.h"
#include "solvers/status.h"

namespace kx::driver {
namespace {

constexpr const char* kInfeasibilityFile = "infeasibilities.txt";

struct BenchmarkRow {
  int solver = 0;
  int info = 0;
  int n = 0, m = 0;
  int residual_evals = 0, jacobian_evals = 0;
  int iterations = 0;
  double objective = 0, seconds = 0;
};

// The sequential solve of a problem with degrees of freedom is single shooting over a horizon
// (driver/shooting_stage), chosen before this point for modes 5 and 6; anywhere else it falls
// back to the simultaneous solve.
void CheckSequential(const dbs::OptionStore& o, model::ModelAccess& access, int imode) {
  if (o.Int("SEQUENTIAL") <= 0) return;
  if (access.CountDof(imode >= 4).ndof <= 0) {
    Say("Sequential solve ON but there are no degrees of freedom");
    Say("Switching back to simultaneous solve");
    return;
  }
  Say("Sequential solve (single shooting) is for dynamic estimation and control (IMODE 5, 6, "
      "8, 9): switching to simultaneous solve");
}

void PrintSummary(const std::string& solver, const SolveOutcome& out) {
  const std::string rule(51, '-');
  Say(rule);
  Say("Solver         :  " + solver);
  Sayf("Solution time  : {:12.5f} sec", out.seconds);
  Sayf("Objective      : {:16.8E}", out.objective);
  if (out.status == 0) {
    Say("Successful solution");
  } else {
    Sayf("Unsuccessful with error code {}", out.status);
  }
  Say(rule);
}

[[noreturn]] void PrintBenchmark(const std::string& problem_name,
                                 const std::vector<BenchmarkRow>& rows) {
  Say("Benchmark Summary for Problem " + problem_name);
  Say("Solver         Variables Equations Res Evals Jac Evals Iter Info   Objective  Solution "
      "Time  Status");
  Say("-------------- --------- --------- --------- --------- ---- ---- ------------ "
      "------------- --------");
  for (const BenchmarkRow& r : rows) {
    Say(fmt::format("{:<14} {:>9} {:>9} {:>9} {:>9} {:>4} {:>4} {:>12.5E} {:>13.4f} {:<20}",
                    solvers::SolverDisplayName(r.solver), r.n, r.m, r.residual_evals,
                    r.jacobian_evals, r.iterations, r.info, r.objective, r.seconds,
                    r.info == 0 ? "Success" : "Failure"));
  }
  Say(std::string(100, '-'));
  Fatal({"Do not write DBS or restart files in benchmark mode"});
}

// A small set of equations and bounds that cannot hold together, for the head of
// "infeasibilities.txt", with one line that points at it; empty when none was found.
std::string DiagnoseConflict(const dbs::OptionStore& o, model::ModelAccess& access, bool dynamic) {
  analysis::ConflictSettings settings;
  settings.dynamic = dynamic;
  settings.tolerance = o.Real("RTOL");
  settings.seconds = std::clamp(o.Real("MAX_TIME"), 1.0, 30.0);
  ScopedTimer timer("Infeasibility diagnosis");
  const std::optional<analysis::Conflict> c = analysis::FindConflict(access, settings);
  if (!c) return "";
  Sayf("Conflicting equations: {} equations and {} bounds cannot hold together (listed first "
       "in {}; {} feasibility solves)",
       c->rows.size(), c->bounds.size(), kInfeasibilityFile, c->solves);
  return analysis::DescribeConflict(access.store(), *c);
}

void WriteOutcomeKeys(dbs::OptionStore& o, const SolveOutcome& out) {
  const int previous = o.Int("APPINFO");
  o.SetGlobal("APPINFO", out.status);
  o.SetGlobal("APPINFOCHG", out.status - previous);
  o.SetGlobal("APPSTATUS", out.status == 0 ? 1 : 0);
  o.SetGlobal("ITERATIONS", out.iterations);
  o.SetGlobal("OBJFCNVAL", out.objective);
  o.SetGlobal("SOLVESTATUS", out.status == 0 ? 1 : 0);
  o.SetGlobal("SOLVETIME", out.seconds);
}

}  // namespace

solvers::SolverSettings ReadSolverSettings(const dbs::OptionStore& o, int imode, bool warm) {
  solvers::SolverSettings s;
  s.objective_tol = o.Real("OTOL");
  s.constraint_tol = o.Real("RTOL");
  s.max_iter = o.Int("MAX_ITER");
  s.max_time = o.Real("MAX_TIME");
  s.diaglevel = o.Int("DIAGLEVEL");
  s.imode = imode;
  s.warm = warm;
  return s;
}

SolveOutcome SolveProblem(dbs::OptionStore& options, int imode, bool warm,
                          solvers::ModelProblem& problem, model::ModelAccess& access) {
  CheckSequential(options, access, imode);
  const solvers::SolverSettings settings = ReadSolverSettings(options, imode, warm);
  const int solver = options.Int("SOLVER");
  const bool benchmark = solver == 0;
  const int first = benchmark ? 1 : solver, last = benchmark ? 6 : solver;

  std::vector<double> start(problem.num_vars());
  problem.Start(start);
  std::vector<BenchmarkRow> rows;
  SolveOutcome out;
  for (int s = first; s <= last; ++s) {
    problem.Store(start, {});
    const auto t0 = std::chrono::steady_clock::now();
    solvers::SolverResult r = [&] {
      ScopedTimer timer("Solver");
      return solvers::DispatchSolver(s, problem, settings);
    }();
    out.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    out.status = r.status;
    out.iterations = r.iterations;
    if (static_cast<int>(r.x.size()) == problem.num_vars()) problem.Store(r.x, r.lambda);
    out.objective = access.Objective(false);
    if (benchmark) {
      rows.push_back({s, r.status, problem.num_vars(), problem.num_cons(),
                      r.residual_evals, r.jacobian_evals,
                      r.iterations, out.objective, out.seconds});
    }
  }
  if (benchmark) PrintBenchmark(problem.name(), rows);
  if (out.status != 0) {
    Say("Creating file: " + std::string(kInfeasibilityFile));
    Say("Use command zpm_get(server,app,'infeasibilities.txt') to retrieve file");
    files::WriteInfeasibilities(kInfeasibilityFile, access.store(), settings.constraint_tol,
                                DiagnoseConflict(options, access, imode >= 4));
  }
  PrintSummary(solvers::SolverDisplayName(solver), out);
  WriteOutcomeKeys(options, out);
  return out;
}

void ReportOutcome(dbs::OptionStore& options, model::ModelAccess& access, const std::string& how,
                   SolveOutcome& out) {
  access.EvaluateResiduals();
  out.objective = access.Objective(false);
  if (out.status != 0) {
    Say("Creating file: " + std::string(kInfeasibilityFile));
    files::WriteInfeasibilities(kInfeasibilityFile, access.store(), options.Real("RTOL"));
  }
  PrintSummary(how, out);
  WriteOutcomeKeys(options, out);
}

}  // namespace kx::driver
