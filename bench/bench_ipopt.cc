// The interior-point call routine on the shared test problems, and the cost of going through
// the model compiler: one large steady-state problem (the controlled one-dimensional Bratu
// equation of tests/models/nlp/bratu1d_control.zpm) solved once as a model file through
// SolveIpopt and once as a hand-coded problem handed straight to the library's C++ interface.
//
//   bench_ipopt [--no-suite] [--repeat R]
//
// Prints the suite table (size, iterations, time, relative error per problem, then totals)
// and the comparison: wall time of both (best of R runs, default 3), their ratio, and each
// one's split between time inside the library and time in function evaluations. Then the same
// comparison as whole processes, as a user meets it: `kestrix app -ipopt` on the model file in
// a scratch directory (reading, compiling, solving and writing every file of a cycle) against
// a process that only solves the hand-coded problem (this program with --hand-coded-only).
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <coin/IpIpoptApplication.hpp>
#include <coin/IpSolveStatistics.hpp>
#include <coin/IpTNLP.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "base/report.h"
#include "base/timers.h"
#include "process_bench.h"
#include "solvers/ipopt_call.h"
#include "testing/nlp_suite.h"
#include "testing/scratch_dir.h"

namespace kx::bench {
namespace {

using Clock = std::chrono::steady_clock;

// The Bratu model's data, as written in bratu1d_control.zpm.
constexpr int kPoints = 20000;
constexpr double kLambda = 2.0, kTarget = 0.3, kAlpha = 0.01;
constexpr double kTol = 1e-8;

// min h sum (u_i - target)^2 + alpha f_i^2
// s.t. u_{i-1} - 2 u_i + u_{i+1} + h^2 (lambda exp(u_i) + f_i) = 0, u_0 = u_{n+1} = 0,
//      -10 <= f_i <= 10.   Variables: u_1..u_n (0..n-1), then f_1..f_n (n..2n-1).
class BratuTnlp : public HandCodedTnlp {
 public:
  double eval_seconds = 0;  // time spent in the callbacks

  bool get_nlp_info(Index& n, Index& m, Index& nnz_jac, Index& nnz_h,
                    IndexStyleEnum& style) override {
    n = 2 * kPoints;
    m = kPoints;
    nnz_jac = 3 * kPoints - 2 + kPoints;
    nnz_h = 2 * kPoints;
    style = C_STYLE;
    return true;
  }
  bool get_bounds_info(Index n, Number* xl, Number* xu, Index m, Number* gl,
                       Number* gu) override {
    for (int j = 0; j < kPoints; ++j) xl[j] = -1e20, xu[j] = 1e20;
    for (int j = kPoints; j < n; ++j) xl[j] = -10, xu[j] = 10;
    for (int i = 0; i < m; ++i) gl[i] = gu[i] = 0;
    return true;
  }
  bool get_starting_point(Index n, bool, Number* x, bool, Number*, Number*, Index, bool,
                          Number*) override {
    for (int j = 0; j < n; ++j) x[j] = 0;
    return true;
  }
  bool eval_f(Index, const Number* x, bool, Number& f) override {
    Timed t(this);
    f = 0;
    for (int i = 0; i < kPoints; ++i) {
      const double d = x[i] - kTarget, c = x[kPoints + i];
      f += h_ * (d * d + kAlpha * c * c);
    }
    return true;
  }
  bool eval_grad_f(Index, const Number* x, bool, Number* g) override {
    Timed t(this);
    for (int i = 0; i < kPoints; ++i) {
      g[i] = 2 * h_ * (x[i] - kTarget);
      g[kPoints + i] = 2 * h_ * kAlpha * x[kPoints + i];
    }
    return true;
  }
  bool eval_g(Index, const Number* x, bool, Index, Number* g) override {
    Timed t(this);
    for (int i = 0; i < kPoints; ++i) {
      const double left = i > 0 ? x[i - 1] : 0, right = i + 1 < kPoints ? x[i + 1] : 0;
      g[i] = left - 2 * x[i] + right + h_ * h_ * (kLambda * std::exp(x[i]) + x[kPoints + i]);
    }
    return true;
  }
  // Row i: u_{i-1}, u_i, u_{i+1}, f_i.
  bool eval_jac_g(Index, const Number* x, bool, Index, Index, Index* rows, Index* cols,
                  Number* v) override {
    Timed t(this);
    int k = 0;
    for (int i = 0; i < kPoints; ++i) {
      if (i > 0) Put(rows, cols, v, k, i, i - 1, 1.0);
      Put(rows, cols, v, k, i, i, x ? -2 + h_ * h_ * kLambda * std::exp(x[i]) : 0);
      if (i + 1 < kPoints) Put(rows, cols, v, k, i, i + 1, 1.0);
      Put(rows, cols, v, k, i, kPoints + i, h_ * h_);
    }
    return true;
  }
  bool eval_h(Index, const Number* x, bool, Number obj_factor, Index, const Number* lambda,
              bool, Index, Index* rows, Index* cols, Number* v) override {
    Timed t(this);
    for (int i = 0; i < kPoints; ++i) {
      if (v == nullptr) {
        rows[i] = cols[i] = i;
        rows[kPoints + i] = cols[kPoints + i] = kPoints + i;
      } else {
        v[i] = obj_factor * 2 * h_ + lambda[i] * h_ * h_ * kLambda * std::exp(x[i]);
        v[kPoints + i] = obj_factor * 2 * h_ * kAlpha;
      }
    }
    return true;
  }

 private:
  // Adds the callback's wall time to eval_seconds.
  struct Timed {
    explicit Timed(BratuTnlp* p) : owner(p), start(Clock::now()) {}
    ~Timed() { owner->eval_seconds += std::chrono::duration<double>(Clock::now() - start).count(); }
    BratuTnlp* owner;
    Clock::time_point start;
  };
  const double h_ = 1.0 / (kPoints + 1);
};

struct Timing {
  double wall = 0;   // whole solve, seconds
  double evals = 0;  // inside the callbacks
  int iterations = 0;
  double objective = 0;
  int status = -1;
};

// The hand-coded problem with the options the call routine sets.
Timing SolveHandCoded() {
  Ipopt::SmartPtr<Ipopt::IpoptApplication> app = IpoptApplicationFactory();
  SetEngineOptions(*app, kTol);
  const Clock::time_point start = Clock::now();
  app->Initialize();
  Ipopt::SmartPtr<BratuTnlp> nlp = new BratuTnlp();
  app->OptimizeTNLP(GetRawPtr(nlp));
  Timing t;
  t.wall = std::chrono::duration<double>(Clock::now() - start).count();
  t.evals = nlp->eval_seconds;
  t.iterations = IsValid(app->Statistics()) ? app->Statistics()->IterationCount() : 0;
  t.objective = nlp->objective;
  t.status = nlp->status;
  return t;
}

// Seconds accumulated under the call routine's callback timers.
double CallbackSeconds() {
  double sum = 0;
  for (std::string_view name : {"Objective Calc: zpm_p", "Constraint Calc: zpm_c",
                                "Objective Grad: zpm_g", "Sparsity: zpm_s",
                                "1st Deriv #1: zpm_a1", "2nd Deriv: zpm_h"}) {
    sum += Timers().Seconds(Timers().Id(name));
  }
  return sum;
}

// The model file through the compiler and the call routine (the build is not timed: it
// happens once per model, not per solve).
Timing SolveThroughModel(testing::LoadedModel& model) {
  Timers().Reset();
  const Clock::time_point start = Clock::now();
  solvers::SolverResult r;
  {
    OutputCapture quiet;
    r = solvers::SolveIpopt(*model.problem, solvers::SolverSettings{.constraint_tol = kTol});
  }
  Timing t;
  t.wall = std::chrono::duration<double>(Clock::now() - start).count();
  t.evals = CallbackSeconds();
  t.iterations = r.iterations;
  t.objective = r.objective;
  t.status = r.status;
  return t;
}

void RunSuite() {
  Say("Interior-point call on the test problems (RTOL 1e-8)");
  Sayf("{:<24} {:>8} {:>8} {:>6} {:>10} {:>10}  {}", "problem", "n", "m", "iter", "time s",
       "rel err", "status");
  int solved = 0, total = 0, iterations = 0;
  double seconds = 0;
  for (const testing::SuiteEntry& e : testing::NlpSuite(true)) {
    testing::WorkingDir dir("kx_bench_ipopt");
    auto model = testing::LoadModelFile(e.path);
    const Timing t = SolveThroughModel(*model);
    const double err = testing::RelativeError(t.objective, e.optimum);
    ++total;
    if (t.status == 0 && err <= 1e-6) ++solved;
    iterations += t.iterations;
    seconds += t.wall;
    Sayf("{:<24} {:>8} {:>8} {:>6} {:>10.3f} {:>10.2e}  {}", e.name, model->problem->num_vars(),
         model->problem->num_cons(), t.iterations, t.wall, err, t.status);
  }
  Sayf("total: {} of {} problems to rel err <= 1e-6, {} iterations, {:.2f} s", solved, total,
       iterations, seconds);
}

void RunProcessComparison(const std::string& model_path, int repeat);

void RunComparison(int repeat) {
  testing::WorkingDir dir("kx_bench_ipopt");
  std::string path;
  for (const testing::SuiteEntry& e : testing::NlpSuite(true)) {
    if (e.name == "bratu1d_control") path = e.path;
  }
  if (path.empty()) {
    Say("bratu1d_control.zpm not found among the test problems");
    return;
  }
  auto model = testing::LoadModelFile(path);
  Timing coded, through;
  coded.wall = through.wall = INFINITY;
  for (int k = 0; k < repeat; ++k) {
    const Timing a = SolveHandCoded();
    if (a.wall < coded.wall) coded = a;
    const Timing b = SolveThroughModel(*model);
    if (b.wall < through.wall) through = b;
  }
  Sayf("Controlled Bratu problem, {} variables, {} equations (best of {} solves)",
       2 * kPoints, kPoints, repeat);
  Sayf("{:<22} {:>10} {:>12} {:>12} {:>6} {:>20}  {}", "", "wall s", "library s",
       "callbacks s", "iter", "objective", "status");
  for (const auto& [label, t] : {std::pair<const char*, const Timing&>{"hand-coded", coded},
                                 {"model file", through}}) {
    Sayf("{:<22} {:>10.3f} {:>12.3f} {:>12.3f} {:>6} {:>20.12g}  {}", label, t.wall,
         t.wall - t.evals, t.evals, t.iterations, t.objective, t.status);
  }
  Sayf("ratio model file / hand-coded: {:.2f}", through.wall / coded.wall);
  RunProcessComparison(path, repeat);
}

// Wall time of one shell command, seconds; negative when it could not be run.
double TimeCommand(const std::string& command) {
  const Clock::time_point start = Clock::now();
  const int rc = std::system(command.c_str());
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  return rc == -1 ? -1.0 : seconds;
}

void RunProcessComparison(const std::string& model_path, int repeat) {
  testing::WorkingDir dir("kx_bench_process");
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
  const std::filesystem::path kestrix = self.parent_path().parent_path() / "kestrix";
  std::filesystem::copy_file(model_path, "app.zpm");
  std::ofstream("overrides.dbs") << fmt::format("ZPM.RTOL = {:g}\nZPM.COLDSTART = 1\n", kTol);
  double coded = INFINITY, cycle = INFINITY;
  for (int k = 0; k < repeat; ++k) {
    coded = std::min(coded, TimeCommand(self.string() + " --hand-coded-only > /dev/null"));
    // Every cycle is cold: without restart and multiplier files it solves from scratch.
    std::filesystem::remove("rto.t0");
    std::filesystem::remove("lam.t0");
    cycle = std::min(cycle, TimeCommand(kestrix.string() + " app -ipopt > cycle.txt"));
  }
  Say("Whole processes (best of the runs, wall time)");
  Sayf("{:<34} {:>8.3f} s", "hand-coded problem, solve only", coded);
  Sayf("{:<34} {:>8.3f} s", "kestrix app -ipopt (whole cycle)", cycle);
  Sayf("ratio kestrix / hand-coded: {:.2f}", cycle / coded);
}

}  // namespace
}  // namespace kx::bench

int main(int argc, char** argv) {
  bool suite = true;
  int repeat = 3;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--hand-coded-only") {
      kx::bench::SolveHandCoded();
      return 0;
    } else if (arg == "--no-suite") {
      suite = false;
    } else if (arg == "--repeat" && i + 1 < argc) {
      repeat = std::max(1, std::atoi(argv[++i]));
    } else {
      kx::Sayf("usage: {} [--no-suite] [--repeat R]", argv[0]);
      return 1;
    }
  }
  if (suite) kx::bench::RunSuite();
  kx::bench::RunComparison(repeat);
  return 0;
}
