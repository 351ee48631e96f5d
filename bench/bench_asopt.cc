// ASOPT against the interior-point library on the shared NLP suite, warm starts, and the
// MINLP suite. Runs once and prints tables:
//   (a) every problem of the suite (large ones included) and a few generated scalable ones,
//       solved by both solvers with the same tolerances: status, iterations, seconds; the
//       success counts, the median time ratio ASOPT / interior point over the problems under
//       100 variables and the total time ratio over the large ones;
//   (b) warm start: a solve, a model parameter (or, in a model without one, a bound) moved by
//       1%, the solve again cold and warm
//       (multipliers and working set of the first solve kept): iterations of both;
//   (c) the MINLP suite: status, objective error and leaves solved.
//
// Usage: bench_asopt [--quick]      (--quick leaves out problems of more than 20000 variables)
//        bench_asopt --one bvp|boxqp|discrosen N   (one generated problem, ASOPT only, log in
//                                                    the current directory)
// The solvers write their logs into a temporary directory.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "base/base.h"
#include "solvers/asopt.h"
#include "solvers/ipopt_call.h"
#include "testing/forwarding_problem.h"
#include "testing/nlp_suite.h"

namespace kx::bench {
namespace {

using solvers::SolverResult;
using solvers::SolverSettings;

constexpr double kTolerance = 1e-8;     // OTOL and RTOL of both solvers
constexpr double kSuccessError = 1e-6;  // relative objective error that counts as solved
constexpr int kSmallProblem = 100;      // variables below which a problem counts as small
constexpr int kQuickLimit = 20000;      // --quick leaves out problems with more variables

SolverSettings Settings() {
  return SolverSettings{.objective_tol = kTolerance, .constraint_tol = kTolerance,
                        .max_iter = 3000, .max_time = 120};
}

// A generated scalable problem: its model text and (for the success count) the objective the
// interior-point solve reaches, since no published optimum exists for these sizes.
struct Generated {
  std::string name;
  std::string text;
};

// Discretised boundary-value control: u'' + exp(u) = v on a grid of n points, u tracks 0.5,
// the control v is bounded and penalised. Equality dominated.
std::string BvpControl(int n) {
  return fmt::format(
      "Model bvp\n  Constants\n    n = {}\n    h2 = 1/(n-1)^2\n  End Constants\n"
      "  Parameters\n    target = 0.5\n  End Parameters\n"
      "  Variables\n    u[1:n] = 0\n    v[1:n] = 0, >= -2, <= 2\n  End Variables\n"
      "  Equations\n    u[1] = 0\n    u[n] = 0\n"
      "    u[1:n-2] - 2*u[2:n-1] + u[3:n] + h2*exp(u[2:n-1]) = h2*v[2:n-1]\n"
      "    minimize (u[1:n] - target)^2\n    minimize 1e-3*v[1:n]^2\n  End Equations\nEnd Model\n",
      n);
}

// A bound-constrained sparse QP whose unconstrained minimiser lies outside the box in every
// coordinate: about every bound ends active.
std::string BoxQp(int n) {
  return fmt::format(
      "Model boxqp\n  Constants\n    n = {}\n  End Constants\n"
      "  Variables\n    x[1:n] = 0, >= 0, <= 1\n  End Variables\n"
      "  Equations\n    minimize (x[1:n] - 2)^2\n    minimize (x[1:n-1] - x[2:n] - 0.1)^2\n"
      "  End Equations\nEnd Model\n",
      n);
}

// Chained Rosenbrock with a disc constraint on every neighbour pair (inequalities that
// partly end active).
std::string DiscRosenbrock(int n) {
  return fmt::format(
      "Model discrosen\n  Constants\n    n = {}\n  End Constants\n"
      "  Parameters\n    radius2 = 1.5\n  End Parameters\n"
      "  Variables\n    x[1:n] = 0.5\n  End Variables\n"
      "  Equations\n    x[1:n-1]^2 + x[2:n]^2 <= radius2\n"
      "    minimize 10*(x[2:n] - x[1:n-1]^2)^2\n    minimize (1 - x[1:n-1])^2\n"
      "  End Equations\nEnd Model\n",
      n);
}

std::vector<Generated> GeneratedProblems(bool quick) {
  std::vector<Generated> list;
  for (int n : {2000, 10000, 50000}) {
    if (quick && 2 * n > kQuickLimit) continue;
    list.push_back({fmt::format("gen_bvp_{}", n), BvpControl(n)});
    list.push_back({fmt::format("gen_boxqp_{}", n), BoxQp(n)});
    list.push_back({fmt::format("gen_discrosen_{}", n), DiscRosenbrock(n)});
  }
  return list;
}

using testing::MovedBound;

struct Timed {
  SolverResult result;
  double seconds = 0.0;
};

template <typename Solve>
Timed TimeSolve(Solve&& solve) {
  Timed t;
  OutputCapture quiet;
  const auto start = std::chrono::steady_clock::now();
  t.result = solve();
  t.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return t;
}

struct Row {
  std::string name;
  int n = 0;
  Timed asopt, ipopt;
  bool asopt_ok = false, ipopt_ok = false;
  bool large = false;
};

// Solves one problem with both solvers; `optimum` is NaN when unknown (the interior-point
// objective is then the reference).
Row Compare(const std::string& name, testing::LoadedModel& model, double optimum, bool large) {
  Row row;
  row.name = name;
  row.large = large;
  row.n = model.problem->num_vars();
  // Evaluations write the iterate into the model store, which is where the problem's start
  // comes from: both solvers get the start taken before the first solve.
  MovedBound fixed(*model.problem);
  fixed.start.resize(row.n);
  model.problem->Start(fixed.start);
  row.asopt = TimeSolve([&] { return solvers::SolveAsopt(fixed, Settings()); });
  row.ipopt = TimeSolve([&] { return solvers::SolveIpopt(fixed, Settings()); });
  const double ref = std::isnan(optimum) ? row.ipopt.result.objective : optimum;
  row.asopt_ok = row.asopt.result.status == 0 &&
                 testing::RelativeError(row.asopt.result.objective, ref) <= kSuccessError;
  row.ipopt_ok = row.ipopt.result.status == 0 &&
                 testing::RelativeError(row.ipopt.result.objective, ref) <= kSuccessError;
  return row;
}

double Median(std::vector<double> v) {
  if (v.empty()) return std::nan("");
  std::sort(v.begin(), v.end());
  const size_t h = v.size() / 2;
  return v.size() % 2 ? v[h] : 0.5 * (v[h - 1] + v[h]);
}

void PrintHeader() {
  Say("(a) ASOPT and the interior-point solver, tolerances 1e-8");
  Sayf("{:<22} {:>7} | {:>6} {:>5} {:>9} | {:>6} {:>5} {:>9} | {:>7}", "problem", "n", "ASOPT",
       "iter", "seconds", "IP", "iter", "seconds", "ratio");
}

void PrintRow(const Row& r) {
  const double ratio = r.asopt.seconds / std::max(r.ipopt.seconds, 1e-9);
  Sayf("{:<22} {:>7} | {:>6} {:>5} {:>9.4f} | {:>6} {:>5} {:>9.4f} | {:>7.3f}", r.name, r.n,
       r.asopt_ok ? "ok" : fmt::format("F{}", r.asopt.result.status), r.asopt.result.iterations,
       r.asopt.seconds, r.ipopt_ok ? "ok" : fmt::format("F{}", r.ipopt.result.status),
       r.ipopt.result.iterations, r.ipopt.seconds, ratio);
}

void PrintSummary(const std::vector<Row>& rows) {
  int asopt_ok = 0, ipopt_ok = 0;
  std::vector<double> small_ratios;
  double large_asopt = 0, large_ipopt = 0;
  for (const Row& r : rows) {
    asopt_ok += r.asopt_ok;
    ipopt_ok += r.ipopt_ok;
    if (r.n < kSmallProblem) small_ratios.push_back(r.asopt.seconds / std::max(r.ipopt.seconds, 1e-9));
    if (r.large) {
      large_asopt += r.asopt.seconds;
      large_ipopt += r.ipopt.seconds;
    }
  }
  Sayf("solved: ASOPT {} of {}, interior point {} of {}", asopt_ok, rows.size(), ipopt_ok,
       rows.size());
  Sayf("median time ratio ASOPT/IP, {} problems under {} variables: {:.3f} (target < 1)",
       small_ratios.size(), kSmallProblem, Median(small_ratios));
  Sayf("total time on the large problems: ASOPT {:.2f} s, IP {:.2f} s, ratio {:.3f} (target <= 3)",
       large_asopt, large_ipopt, large_asopt / std::max(large_ipopt, 1e-9));
}

// Picks what to move by 1%: a model parameter (a fixed variable) other than 0; without one, a
// variable bound other than 0 that is active at the solution x; without one, the first
// inequality row is tightened by 1% of max(1, |bound|).
bool ChooseBound(solvers::Problem& base, const std::vector<double>& x, MovedBound& moved) {
  const int n = base.num_vars(), m = base.num_cons();
  std::vector<double> xl(n), xu(n), cl(m), cu(m);
  base.Bounds(xl, xu);
  base.ConstraintBounds(cl, cu);
  for (int j = 0; j < n; ++j) {
    if (xl[j] != xu[j] || xl[j] == 0 || !solvers::IsFinite(xl[j])) continue;
    moved.var = j;
    moved.parameter = true;
    moved.value = 1.01 * xl[j];
    return true;
  }
  for (int j = 0; j < n; ++j) {
    for (const bool up : {false, true}) {
      const double b = up ? xu[j] : xl[j];
      if (!solvers::IsFinite(b) || b == 0 || xl[j] == xu[j]) continue;
      if (std::abs(x[j] - b) > 1e-7 * (1 + std::abs(b))) continue;
      moved.var = j;
      moved.upper = up;
      moved.value = b + (up ? -0.01 : 0.01) * std::abs(b);
      return true;
    }
  }
  for (int i = 0; i < m; ++i) {
    if (cl[i] == cu[i]) continue;
    moved.row = i;
    moved.upper = solvers::IsFinite(cu[i]);
    const double b = moved.upper ? cu[i] : cl[i];
    if (!solvers::IsFinite(b)) continue;
    moved.value = b + (moved.upper ? -0.01 : 0.01) * std::max(1.0, std::abs(b));
    return true;
  }
  return false;
}

// Solves, moves one bound by 1%, solves cold from the original start and warm from the first
// solution with the first solve's working set and multipliers (mode 3).
void WarmStart(const std::string& name, testing::LoadedModel& model) {
  solvers::Problem& base = *model.problem;
  MovedBound start(base);  // the model's own start, kept for the cold solve
  start.start.resize(base.num_vars());
  base.Start(start.start);
  solvers::SqpState state;
  const Timed first =
      TimeSolve([&] { return solvers::SolveAsopt(start, Settings(), state, solvers::WarmStart::kCold); });
  MovedBound moved(base);
  moved.start = start.start;
  if (first.result.status != 0 || !ChooseBound(base, first.result.x, moved)) {
    Sayf("{:<22} no bound to move (first solve status {})", name, first.result.status);
    return;
  }
  const Timed cold = TimeSolve([&] { return solvers::SolveAsopt(moved, Settings()); });
  moved.start = first.result.x;
  SolverSettings warm = Settings();
  warm.warm = true;
  const Timed hot = TimeSolve([&] { return solvers::SolveAsopt(moved, warm, state, solvers::WarmStart::kWorkingSet); });
  const bool agree = std::abs(cold.result.objective - hot.result.objective) <=
                     1e-6 * std::max(1.0, std::abs(cold.result.objective));
  Sayf("{:<22} {:>7} | {:>5} {:>4} {:>9.4f} | {:>5} {:>4} {:>9.4f} | {}", name,
       moved.var < 0 ? fmt::format("row{}", moved.row + 1)
                     : fmt::format("{}{}", moved.parameter ? "p" : "x", moved.var + 1),
       cold.result.iterations, cold.result.status, cold.seconds, hot.result.iterations,
       hot.result.status, hot.seconds, agree ? "same optimum" : "DIFFERENT optimum");
}

void MinlpTable() {
  const auto suite = testing::MinlpSuite();
  Say("(c) MINLP suite with ASOPT branch and bound");
  if (suite.empty()) {
    Say("no MINLP problems in tests/models/minlp");
    return;
  }
  Sayf("{:<22} {:>6} {:>12} {:>6} {:>9}", "problem", "status", "rel. error", "leaves", "seconds");
  int ok = 0, total_nodes = 0;
  for (const auto& entry : suite) {
    auto model = testing::LoadModelFile(entry.path);
    solvers::SqpState state;
    int nodes = 0;
    const Timed t = TimeSolve(
        [&] { return solvers::SolveAsopt(*model->problem, Settings(), state, solvers::WarmStart::kCold, &nodes); });
    const double err = testing::RelativeError(t.result.objective, entry.optimum);
    ok += t.result.status == 0 && err <= kSuccessError;
    total_nodes += nodes;
    Sayf("{:<22} {:>6} {:>12.3e} {:>6} {:>9.4f}", entry.name, t.result.status, err, nodes,
         t.seconds);
  }
  Sayf("solved {} of {}, {} leaves in all", ok, suite.size(), total_nodes);
}

// Solves one generated problem with ASOPT in the current directory (its log stays there).
int RunOne(const std::string& family, int n) {
  const std::string text = family == "bvp" ? BvpControl(n) : family == "boxqp" ? BoxQp(n)
                                                                               : DiscRosenbrock(n);
  auto model = testing::LoadModelText(text, family);
  const Timed t = TimeSolve([&] { return solvers::SolveAsopt(*model->problem, Settings()); });
  Sayf("{} n={}: status {} iterations {} objective {:.10e} seconds {:.3f}", family, n,
       t.result.status, t.result.iterations, t.result.objective, t.seconds);
  return 0;
}

int Run(bool quick) {
  const auto scratch = std::filesystem::temp_directory_path() / "kx_bench_asopt";
  std::filesystem::create_directories(scratch);
  std::filesystem::current_path(scratch);
  std::vector<Row> rows;
  PrintHeader();
  // Warm-start cases are loaded again so that they begin from the model's own start.
  std::vector<std::pair<std::string, std::unique_ptr<testing::LoadedModel>>> warm_cases;
  for (const auto& entry : testing::NlpSuite(true)) {
    auto model = testing::LoadModelFile(entry.path);
    if (quick && model->problem->num_vars() > kQuickLimit) continue;
    rows.push_back(Compare(entry.name, *model, entry.optimum, entry.large));
    PrintRow(rows.back());
    if (entry.name == "hs071" || entry.name == "hs106" || entry.name == "colville3") {
      warm_cases.emplace_back(entry.name, testing::LoadModelFile(entry.path));
    }
  }
  for (const auto& g : GeneratedProblems(quick)) {
    auto model = testing::LoadModelText(g.text, g.name);
    rows.push_back(Compare(g.name, *model, std::nan(""), true));
    PrintRow(rows.back());
    if (g.name == "gen_boxqp_2000" || g.name == "gen_discrosen_2000" ||
        g.name == "gen_bvp_2000") {
      warm_cases.emplace_back(g.name, testing::LoadModelText(g.text, g.name));
    }
  }
  PrintSummary(rows);
  Say("");
  Say("(b) warm start after a parameter (pN) or, without one, a bound (xN, rowN) moved by 1%:");
  Say("    ASOPT iterations cold and warm");
  Sayf("{:<22} {:>7} | {:>5} {:>4} {:>9} | {:>5} {:>4} {:>9} |", "problem", "bound", "cold",
       "stat", "seconds", "warm", "stat", "seconds");
  for (auto& [name, model] : warm_cases) WarmStart(name, *model);
  Say("");
  MinlpTable();
  return 0;
}

}  // namespace
}  // namespace kx::bench

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], "--one") == 0) {
    return kx::bench::RunOne(argv[2], std::atoi(argv[3]));
  }
  const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
  try {
    return kx::bench::Run(quick);
  } catch (const kx::Stop&) {
    return 1;
  }
}
