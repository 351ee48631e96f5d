// The model analysis steps on generated models, in process:
//   (1) model reduction of a 1e5-equation model whose linear chains and connections settle
//       half of it: time and counts, and the growth from 1e4 to 1e5 (linear: 10x);
//   (2) block presolve of a square flowsheet-like chain of 1e4 small nonlinear blocks against
//       one Newton solve of the whole system, and the main solve's iterations with and
//       without the presolve;
//   (3) the infeasibility diagnosis on generated 10,000-row models with 2 to 5 planted
//       conflicting rows: how often the reported set is exactly the planted one, and its time
//       against the failed solve.
//
//   bench_analysis [--quick]      (--quick: 1e4 and fewer diagnosis models)
#include <chrono>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "analysis/infeasibility.h"
#include "analysis/presolve.h"
#include "analysis/reduction.h"
#include "base/report.h"
#include "model/access.h"
#include "model/block_newton.h"
#include "model/builder.h"
#include "solvers/ipopt_call.h"
#include "solvers/model_problem.h"

namespace kx::bench {
namespace {

using Clock = std::chrono::steady_clock;

double Since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

model::ModelStore Build(const std::string& text) {
  OutputCapture quiet;
  model::BuildOptions o;
  o.max_memory = 6;
  return model::BuildModelFromText(text, o);
}

// n/2 linear rows that settle one variable each (a chain x[i] = x[i-1] + 1 and connections
// y[i] = x[i]), and n/2 nonlinear rows that stay: z[i]^2 + y[i] = w[i], w[i] = exp(z[i]) - 1.
std::string ReducibleModel(int n) {
  const int q = n / 4;
  std::string m = fmt::format(
      "Model red\n  Variables\n    x[1:{0}] = 0\n    y[1:{0}] = 0\n    z[1:{0}] = 1\n"
      "    w[1:{0}] = 1\n  End Variables\n  Equations\n    x[1] = 1\n"
      "    x[2:{0}] = x[1:{1}] + 1\n    y[1:{0}] = x[1:{0}]\n"
      "    z[1:{0}]^2 + y[1:{0}] = w[1:{0}]\n    w[1:{0}] = exp(z[1:{0}]) + 1\n"
      "  End Equations\nEnd Model\n",
      q, q - 1);
  return m;
}

void ReductionTable(bool quick) {
  Say("(1) Model reduction (REDUCE 1), in process");
  Say("  equations   variables  eliminated vars  eliminated eqns   seconds");
  double previous = 0;
  for (int n : quick ? std::vector<int>{10000} : std::vector<int>{10000, 100000}) {
    model::ModelStore store = Build(ReducibleModel(n));
    model::ModelAccess access(store);
    const int rows = access.NumRows();
    const auto t0 = Clock::now();
    analysis::ReductionRecord r;
    {
      OutputCapture quiet;
      r = analysis::ReduceModel(access, false);
    }
    const double s = Since(t0);
    Sayf("  {:>9} {:>11} {:>16} {:>16} {:>9.4f}{}", rows, store.nvar, r.num_vars_eliminated(),
         r.removed_rows.size(), s,
         previous > 0 ? fmt::format("   x{:.1f} for 10x the size", s / previous) : "");
    previous = s;
  }
}

// Block i: a[i] * b[i] = a[i-1]/2 + 1, a[i] + b[i]^2 = 4 (a[0] = 4): 2x2 nonlinear blocks in
// a chain, each solvable once the block before it is.
std::string BlockChain(int blocks) {
  return fmt::format(
      "Model chain\n  Parameters\n    a0 = 4\n  End Parameters\n  Variables\n"
      "    a[1:{0}] = 1\n    b[1:{0}] = 1\n  End Variables\n  Equations\n"
      "    a[1] * b[1] = a0/2 + 1\n    a[2:{0}] * b[2:{0}] = a[1:{1}]/2 + 1\n"
      "    a[1:{0}] + b[1:{0}]^2 = 4\n  End Equations\nEnd Model\n",
      blocks, blocks - 1);
}

int IpoptIterations(model::ModelAccess& access) {
  solvers::ModelProblem problem(access, false, "chain");
  solvers::SolverSettings s;
  s.constraint_tol = 1e-8;
  s.objective_tol = 1e-8;
  s.max_iter = 500;
  OutputCapture quiet;
  const solvers::SolverResult r = solvers::SolveIpopt(problem, s);
  return r.status == 0 ? r.iterations : -r.iterations;
}

void PresolveTable(bool quick) {
  const int blocks = quick ? 2000 : 10000;
  Sayf("(2) Block presolve of a chain of {} 2x2 nonlinear blocks", blocks);
  model::ModelStore store = Build(BlockChain(blocks));
  model::ModelAccess access(store);
  std::vector<double> start(store.nvar);
  for (int n = 1; n <= store.nvar; ++n) start[n - 1] = store.Var(n).val;
  auto reset = [&] {
    for (int n = 1; n <= store.nvar; ++n) store.Var(n).val = start[n - 1];
    access.Invalidate();
  };
  // One Newton solve of the whole system.
  std::vector<int> rows, cols;
  for (int r = 1; r <= access.NumRows(); ++r) rows.push_back(access.Layout().constraint_eqns[r - 1]);
  for (int n = 1; n <= store.nvar; ++n)
    if (!store.Var(n).fixed) cols.push_back(n);
  auto t0 = Clock::now();
  model::BlockNewton whole(access);
  const model::NewtonResult nr = whole.Solve(rows, cols, {1e-8, 100});
  const double newton = Since(t0);
  reset();
  const int plain = IpoptIterations(access);
  reset();
  t0 = Clock::now();
  int status;
  {
    OutputCapture quiet;
    analysis::PresolveSettings ps;
    ps.tolerance = 1e-8;
    status = analysis::BlockPresolve(access, ps);
  }
  const double presolve = Since(t0);
  const int after = IpoptIterations(access);
  Sayf("  one Newton solve of the whole system: {:.4f} s ({} iterations, {})", newton,
       nr.iterations, nr.ok ? "solved" : "failed: " + nr.why);
  Sayf("  block presolve:                       {:.4f} s (status {}), ratio {:.2f}", presolve,
       status, presolve / newton);
  Sayf("  main solve iterations: {} from the start, {} after the presolve", plain, after);
}

// A feasible chain of rows over x[1..n] (each x fixed by the one before), plus `k` planted
// rows over their own variables that cannot hold together.
std::string InfeasibleModel(int n, int k, std::mt19937& rng) {
  std::uniform_int_distribution<int> pick(1, n);
  std::string m = fmt::format("Model inf\n  Variables\n    x[1:{}] = 1\n    v[1:{}] = 0\n"
                              "  End Variables\n  Equations\n    x[1] = 0.5\n",
                              n, k);
  m += fmt::format("    x[2:{0}] = x[1:{1}] + 0.001*sin(x[1:{1}])\n", n, n - 1);
  // v[1] + ... + v[k-1] >= 10 and v[j] <= 1 for j < k with x terms that cancel: a conflict of
  // k rows whenever k - 1 < 10.
  std::string sum;
  for (int j = 1; j < k; ++j) sum += fmt::format("{}v[{}]", j > 1 ? " + " : "", j);
  const int a = pick(rng);
  m += fmt::format("    {} + x[{}] - x[{}] >= 10\n", sum, a, a);
  for (int j = 1; j < k; ++j) {
    const int b = pick(rng);
    m += fmt::format("    v[{}] + 0*x[{}] <= 1\n", j, b);
  }
  m += fmt::format("    v[{}] = 0\n", k);
  return m + "  End Equations\nEnd Model\n";
}

void DiagnosisTable(bool quick) {
  const int n = 10000, models = quick ? 4 : 12;
  Sayf("(3) Infeasibility diagnosis on {} generated models of {} rows, 2 to 5 planted rows", models,
       n + 1);
  std::mt19937 rng(11);
  int exact = 0;
  double solve_total = 0, diagnose_total = 0;
  for (int i = 0; i < models; ++i) {
    const int k = 2 + i % 4;
    model::ModelStore store = Build(InfeasibleModel(n, k, rng));
    model::ModelAccess access(store);
    const int first_planted = static_cast<int>(store.eqns.size()) - k - 1;
    auto t0 = Clock::now();
    {
      solvers::ModelProblem problem(access, false, "inf");
      solvers::SolverSettings s;
      s.max_iter = 100;
      OutputCapture quiet;
      const solvers::SolverResult r = solvers::SolveIpopt(problem, s);
      if (r.x.size() == static_cast<size_t>(problem.num_vars())) problem.Store(r.x, r.lambda);
    }
    const double solve = Since(t0);
    t0 = Clock::now();
    analysis::ConflictSettings cs;
    cs.seconds = 60;
    const std::optional<analysis::Conflict> c = analysis::FindConflict(access, cs);
    const double diagnose = Since(t0);
    std::set<int> found;
    if (c) found.insert(c->rows.begin(), c->rows.end());
    std::set<int> planted;
    for (int e = first_planted; e < first_planted + k; ++e) planted.insert(e);
    const bool same = c && found == planted;
    exact += same;
    solve_total += solve;
    diagnose_total += diagnose;
    Sayf("  model {:>2}: {} planted, reported {:>3} rows ({}), {} solves, failed solve {:.3f} s, "
         "diagnosis {:.3f} s",
         i + 1, k, c ? c->rows.size() : 0, same ? "exactly the planted ones" : "different",
         c ? c->solves : 0, solve, diagnose);
  }
  Sayf("  exactly the planted set: {} of {}; diagnosis / failed solve time: {:.1f}", exact, models,
       diagnose_total / solve_total);
}

}  // namespace
}  // namespace kx::bench

int main(int argc, char** argv) {
  const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
  kx::bench::ReductionTable(quick);
  kx::bench::PresolveTable(quick);
  kx::bench::DiagnosisTable(quick);
  return 0;
}
