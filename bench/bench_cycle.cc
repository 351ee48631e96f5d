// The cost of a whole cycle against the bare solver, on a discretised optimal-control problem
// (a beam bent by a control; trapezoidal rule on n intervals, 3(n+1) variables, 2n equality
// rows and n objective rows) written two ways: with vector statements (`x[1:n] - x[0:n-1]
// ...`) and written out element by element. Every ratio below is measured in this run.
//
//   1. Whole processes: `kestrix app -rto -ipopt` in a scratch directory against a process that
//      solves the same problem hand-coded against the library's C++ interface (this program
//      with --hand-coded N), at n = 20,000 and 100,000: processor time (best of R runs), wall
//      time and peak resident size (ru_maxrss of the child), both forms; each form as a first
//      cycle (the model built) and as a later cycle (the model from the compile cache).
//   2. Per call at n = 20,000: objective, gradient, residuals, Jacobian and Hessian values
//      through the engine's callback set against the hand-coded callbacks, in this process.
//   3. Front end: reading, compiling and differentiating the model of n = 50,000 (100,000
//      equality rows) in both forms (model::BuildModelFromText, processor time, fastest of 3;
//      the teardown of the built model is included); then the same model file built with
//      model::BuildModelCached: a fresh build that writes the compile cache against a load
//      from it.
//   4. Small-cycle latency: a 2-state model simulated over 10 steps, `kestrix app -sim`,
//      process start to exit (every file written), median of the runs, the model loaded from
//      the compile cache against built (the cache removed before the run, which writes it
//      again), runs of the two kinds alternating.
//
//   bench_cycle [--quick] [--repeat R] [--only PART]
//   --quick: n = 20,000 only in part 1; --only: one part (processes, calls, front, small)
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <coin/IpIpoptApplication.hpp>
#include <coin/IpSolveStatistics.hpp>
#include <coin/IpTNLP.hpp>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "base/report.h"
#include "model/builder.h"
#include "model/compile_cache.h"
#include "process_bench.h"
#include "testing/nlp_suite.h"
#include "testing/scratch_dir.h"

namespace kx::bench {
namespace {

constexpr double kAlpha = 350.0;
constexpr double kTol = 1e-8;
constexpr double kStartAngle = 0, kStartPosition = 0, kStartControl = 0;
constexpr int kFrontEndIntervals = 50000;
constexpr int kLatencyRuns = 31;
constexpr double kProcessLimit = 300;  // seconds; a run stopped there shows its time as the limit

// The model text: vector statements when `vector`, else every element written out.
std::string BeamModel(int n, bool vector) {
  std::string text = fmt::format("Constants\n  h = 1/{}\n  alpha = {}\nEnd Constants\n", n, kAlpha);
  text += "Variables\n";
  const char* decl[] = {"t{} = {}, >= -1, <= 1\n", "x{} = {}, >= -0.05, <= 0.05\n", "u{} = {}\n"};
  const double start[] = {kStartAngle, kStartPosition, kStartControl};
  for (int k = 0; k < 3; ++k) {
    if (vector) {
      text += fmt::format(fmt::runtime(decl[k]), fmt::format("[0:{}]", n), start[k]);
    } else {
      for (int i = 0; i <= n; ++i)
        text += fmt::format(fmt::runtime(decl[k]), fmt::format("[{}]", i), start[k]);
    }
  }
  text += "End Variables\nEquations\n";
  const char* rows[] = {
      "x[{0}] - x[{1}] - 0.5*h*(sin(t[{0}]) + sin(t[{1}])) = 0\n",
      "t[{0}] - t[{1}] - 0.5*h*(u[{0}] + u[{1}]) = 0\n",
      "minimize 0.5*h*(u[{0}]^2 + u[{1}]^2) + 0.5*alpha*h*(cos(t[{0}]) + cos(t[{1}]))\n"};
  for (const char* row : rows) {
    if (vector) {
      text += fmt::format(fmt::runtime(row), fmt::format("1:{}", n), fmt::format("0:{}", n - 1));
    } else {
      for (int i = 1; i <= n; ++i) text += fmt::format(fmt::runtime(row), i, i - 1);
    }
  }
  return text + "End Equations\n";
}

// The same problem hand-coded. Variables t_0..t_n, x_0..x_n, u_0..u_n; rows 2(i-1) and
// 2(i-1)+1 are the x and t rows of interval i.
class BeamTnlp : public HandCodedTnlp {
 public:
  explicit BeamTnlp(int n) : n_(n), h_(1.0 / n) {}

  bool get_nlp_info(Index& n, Index& m, Index& nnz_jac, Index& nnz_h,
                    IndexStyleEnum& style) override {
    n = 3 * (n_ + 1);
    m = 2 * n_;
    nnz_jac = 8 * n_;
    nnz_h = 3 * (n_ + 1);
    style = C_STYLE;
    return true;
  }
  bool get_bounds_info(Index n, Number* xl, Number* xu, Index m, Number* gl,
                       Number* gu) override {
    for (int j = 0; j < n; ++j) xl[j] = -1e20, xu[j] = 1e20;
    for (int i = 0; i <= n_; ++i) xl[T(i)] = -1, xu[T(i)] = 1, xl[X(i)] = -0.05, xu[X(i)] = 0.05;
    for (int i = 0; i < m; ++i) gl[i] = gu[i] = 0;
    return true;
  }
  bool get_starting_point(Index, bool, Number* x, bool, Number*, Number*, Index, bool,
                          Number*) override {
    for (int i = 0; i <= n_; ++i)
      x[T(i)] = kStartAngle, x[X(i)] = kStartPosition, x[U(i)] = kStartControl;
    return true;
  }
  bool eval_f(Index, const Number* x, bool, Number& f) override {
    f = 0;
    for (int i = 1; i <= n_; ++i) {
      f += 0.5 * h_ * (x[U(i)] * x[U(i)] + x[U(i - 1)] * x[U(i - 1)]) +
           0.5 * kAlpha * h_ * (std::cos(x[T(i)]) + std::cos(x[T(i - 1)]));
    }
    return true;
  }
  bool eval_grad_f(Index n, const Number* x, bool, Number* g) override {
    std::fill(g, g + n, 0.0);
    for (int i = 1; i <= n_; ++i) {
      for (int j : {i, i - 1}) {
        g[U(j)] += h_ * x[U(j)];
        g[T(j)] -= 0.5 * kAlpha * h_ * std::sin(x[T(j)]);
      }
    }
    return true;
  }
  bool eval_g(Index, const Number* x, bool, Index, Number* g) override {
    for (int i = 1; i <= n_; ++i) {
      g[2 * (i - 1)] = x[X(i)] - x[X(i - 1)] - 0.5 * h_ * (std::sin(x[T(i)]) + std::sin(x[T(i - 1)]));
      g[2 * (i - 1) + 1] = x[T(i)] - x[T(i - 1)] - 0.5 * h_ * (x[U(i)] + x[U(i - 1)]);
    }
    return true;
  }
  bool eval_jac_g(Index, const Number* x, bool, Index, Index, Index* rows, Index* cols,
                  Number* v) override {
    int k = 0;
    for (int i = 1; i <= n_; ++i) {
      const int r = 2 * (i - 1);
      Put(rows, cols, v, k, r, X(i), 1.0);
      Put(rows, cols, v, k, r, X(i - 1), -1.0);
      Put(rows, cols, v, k, r, T(i), x ? -0.5 * h_ * std::cos(x[T(i)]) : 0);
      Put(rows, cols, v, k, r, T(i - 1), x ? -0.5 * h_ * std::cos(x[T(i - 1)]) : 0);
      Put(rows, cols, v, k, r + 1, T(i), 1.0);
      Put(rows, cols, v, k, r + 1, T(i - 1), -1.0);
      Put(rows, cols, v, k, r + 1, U(i), -0.5 * h_);
      Put(rows, cols, v, k, r + 1, U(i - 1), -0.5 * h_);
    }
    return true;
  }
  // Diagonal: t_i (objective cosines, x-row sines), x_i (zero), u_i (objective squares).
  bool eval_h(Index, const Number* x, bool, Number obj_factor, Index, const Number* lambda,
              bool, Index, Index* rows, Index* cols, Number* v) override {
    if (v == nullptr) {
      for (int j = 0; j < 3 * (n_ + 1); ++j) rows[j] = cols[j] = j;
      return true;
    }
    std::fill(v, v + 3 * (n_ + 1), 0.0);
    for (int i = 1; i <= n_; ++i) {
      const double mu = lambda[2 * (i - 1)];
      for (int j : {i, i - 1}) {
        const double s = std::sin(x[T(j)]), c = std::cos(x[T(j)]);
        v[T(j)] += obj_factor * (-0.5 * kAlpha * h_ * c) + mu * 0.5 * h_ * s;
        v[U(j)] += obj_factor * h_;
      }
    }
    return true;
  }

 private:
  int T(int i) const { return i; }
  int X(int i) const { return n_ + 1 + i; }
  int U(int i) const { return 2 * (n_ + 1) + i; }
  int n_;
  double h_;
};

// Solves the hand-coded problem with the engine's library options; prints the objective.
int SolveHandCoded(int n) {
  Ipopt::SmartPtr<Ipopt::IpoptApplication> app = IpoptApplicationFactory();
  SetEngineOptions(*app, kTol);
  app->Initialize();
  Ipopt::SmartPtr<BeamTnlp> nlp = new BeamTnlp(n);
  app->OptimizeTNLP(GetRawPtr(nlp));
  std::printf("Objective      : %.12g\n", nlp->objective);
  return nlp->status == 0 ? 0 : 1;
}

struct Best {
  ProcessRun run;        // the run with the least processor time
  double objective = 0;  // printed by it
  int iterations = -1;   // from its library log
};

// Runs `argv` `repeat` times in the current directory; `prepare` runs before each.
template <typename Prepare>
Best BestOf(const std::vector<std::string>& argv, int repeat, Prepare prepare) {
  Best best;
  best.run.cpu = INFINITY;
  for (int k = 0; k < repeat; ++k) {
    prepare();
    const ProcessRun r = RunProcess(argv, "console.txt", kProcessLimit);
    if (r.cpu < best.run.cpu) {
      best.run = r;
      best.objective = ReadObjective(ReadText("console.txt"));
      best.iterations = LoggedIterations();
    }
  }
  return best;
}

void CompareProcesses(int n, int repeat) {
  Sayf("n = {} intervals: {} variables, {} equality rows, {} objective rows", n, 3 * (n + 1),
       2 * n, n);
  Sayf("  {:<26} {:>8} {:>8} {:>9} {:>6} {:>18} {:>9} {:>9}", "", "cpu s", "wall s", "peak MB",
       "iter", "objective", "cpu ratio", "mem ratio");
  testing::WorkingDir dir("kx_bench_cycle");
  const Best coded = BestOf({SelfPath(), "--hand-coded", std::to_string(n)}, repeat, [] {});
  auto row = [&](const char* label, const Best& b) {
    Sayf("  {:<26} {:>8.3f} {:>8.3f} {:>9.1f} {:>6} {:>18.10g} {:>9.2f} {:>9.2f}", label,
         b.run.cpu, b.run.seconds, b.run.peak_mb, b.iterations, b.objective,
         b.run.cpu / coded.run.cpu, b.run.peak_mb / coded.run.peak_mb);
  };
  row("hand-coded", coded);
  WriteText("overrides.dbs", fmt::format("ZPM.RTOL = {:g}\nZPM.COLDSTART = 1\n", kTol));
  for (bool vector : {true, false}) {
    WriteText("app.zpm", BeamModel(n, vector));
    const Best cycle = BestOf({KestrixPath(), "app", "-rto", "-ipopt"}, repeat, [] {
      fs::remove("rto.t0");  // every cycle solves from the declared start
      fs::remove("lam.t0");
      fs::remove("app.zpc");  // and builds its model (the compile cache is part 3's business)
    });
    if (cycle.run.status != 1) Sayf("  (kestrix exit status {})", cycle.run.status);
    row(vector ? "kestrix, vector statements" : "kestrix, element by element", cycle);
    // The next cycles of an outer program: the model comes from the compile cache that the
    // first cycle wrote.
    const Best cached = BestOf({KestrixPath(), "app", "-rto", "-ipopt"}, repeat, [] {
      fs::remove("rto.t0");
      fs::remove("lam.t0");
    });
    row(vector ? "  later cycle (cache)" : "  later cycle (cache) ", cached);
  }
}

using Clock = std::chrono::steady_clock;

// Fastest of `repeat` timings of `calls` calls of `f`, seconds per call.
template <typename F>
double PerCall(F f, int calls = 20, int repeat = 5) {
  double best = INFINITY;
  for (int r = 0; r < repeat; ++r) {
    const Clock::time_point start = Clock::now();
    for (int k = 0; k < calls; ++k) f();
    best = std::min(best, std::chrono::duration<double>(Clock::now() - start).count() / calls);
  }
  return best;
}

void ComparePerCall(int n) {
  std::unique_ptr<testing::LoadedModel> model = testing::LoadModelText(BeamModel(n, true));
  solvers::Problem& p = *model->problem;
  BeamTnlp hand(n);
  const int nv = p.num_vars(), nc = p.num_cons();
  std::vector<double> x(nv), g(nv), c(nc), lambda(nc, 0.5), jac(p.nnz_jac()), hess(p.nnz_hess());
  p.Start(x);
  std::vector<double> hx(nv), hg(nv), hc(nc), hlambda(2 * n, 0.5), hjac(8 * n), hhess(3 * (n + 1));
  hand.get_starting_point(nv, true, hx.data(), false, nullptr, nullptr, 0, false, nullptr);
  // Every call comes at a new point, as in a solve's line search (the engine reuses work done
  // at an unchanged point): both sides alternate between two points near the start.
  std::vector<double> x2(x), hx2(hx);
  for (int k = 0; k < nv; ++k) {
    x[k] += 0.001 * (k % 7), x2[k] += 0.002 * (k % 5);
    hx[k] += 0.001 * (k % 7), hx2[k] += 0.002 * (k % 5);
  }
  bool flip = false, hflip = false;
  auto at = [&] { return (flip = !flip) ? std::span<const double>(x) : x2; };
  auto hat = [&] { return (hflip = !hflip) ? hx.data() : hx2.data(); };
  double f = 0;
  struct Pair {
    const char* what;
    double engine, coded;
    long items;
  };
  const Pair pairs[] = {
      {"objective", PerCall([&] { p.Objective(at(), f); }),
       PerCall([&] { hand.eval_f(nv, hat(), true, f); }), n},
      {"gradient", PerCall([&] { p.Gradient(at(), g); }),
       PerCall([&] { hand.eval_grad_f(nv, hat(), true, hg.data()); }), nv},
      {"residuals", PerCall([&] { p.Constraints(at(), c); }),
       PerCall([&] { hand.eval_g(nv, hat(), true, nc, hc.data()); }), nc},
      {"Jacobian", PerCall([&] { p.JacobianValues(at(), jac); }),
       PerCall([&] {
         hand.eval_jac_g(nv, hat(), true, nc, 8 * n, nullptr, nullptr, hjac.data());
       }),
       static_cast<long>(jac.size())},
      {"Hessian", PerCall([&] { p.HessianValues(at(), 1.0, lambda, hess); }),
       PerCall([&] {
         hand.eval_h(nv, hat(), true, 1.0, nc, hlambda.data(), true, 3 * (n + 1), nullptr,
                     nullptr, hhess.data());
       }),
       static_cast<long>(hess.size())},
  };
  Sayf("Per call at n = {} (vector form; engine and hand-coded callbacks, each call at a new "
       "point, fastest of 5 x 20)", n);
  Sayf("  {:<10} {:>12} {:>12} {:>14} {:>14} {:>7}", "", "engine us", "hand us", "engine ns/item",
       "hand ns/item", "ratio");
  for (const Pair& q : pairs) {
    Sayf("  {:<10} {:>12.1f} {:>12.1f} {:>14.2f} {:>14.2f} {:>7.2f}", q.what, 1e6 * q.engine,
         1e6 * q.coded, 1e9 * q.engine / q.items, 1e9 * q.coded / q.items, q.engine / q.coded);
  }
  Say("  items: objective rows, variables, equality rows, Jacobian and Hessian nonzeros "
      "(the engine's counts).");
}

// Processor time of this process so far; steadier than wall time on a shared machine.
double CpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto sec = [](const timeval& t) { return static_cast<double>(t.tv_sec) + 1e-6 * t.tv_usec; };
  return sec(usage.ru_utime) + sec(usage.ru_stime);
}

// Processor seconds of one BuildModelCached of "app.zpm" (output captured).
double CachedBuildSeconds(const model::BuildOptions& options) {
  OutputCapture quiet;
  const double start = CpuSeconds();
  auto store = std::make_unique<model::ModelStore>(
      model::BuildModelCached("app.zpm", options, "app.zpc"));
  return CpuSeconds() - start;
}

// The model file built with the compile cache: fresh (the cache removed first; the build
// writes it) against loaded from the cache, fastest of 3 each.
void CompareCachedBuild(const std::string& text, const model::BuildOptions& options) {
  WriteText("app.zpm", text);
  double fresh = INFINITY, loaded = INFINITY;
  for (int k = 0; k < 3; ++k) {
    fs::remove("app.zpc");
    fresh = std::min(fresh, CachedBuildSeconds(options));
    loaded = std::min(loaded, CachedBuildSeconds(options));
  }
  Sayf("  {:<22} {:>8.3f} s fresh with cache write, {:.3f} s from cache ({:.1f} MB): {:.1f}x",
       "", fresh, loaded, fs::file_size("app.zpc") / 1048576.0, fresh / loaded);
}

void CompareFrontEnd(int n) {
  Sayf("Front end at n = {}: read, compile and differentiate ({} equality rows, processor "
       "time, fastest of 3)",
       n, 2 * n);
  model::BuildOptions options;
  testing::WorkingDir dir("kx_bench_cycle_front");
  options.work_dir = ".";
  for (bool vector : {true, false}) {
    const std::string text = BeamModel(n, vector);
    double best = INFINITY;
    for (int k = 0; k < 3; ++k) {
      OutputCapture quiet;
      const double start = CpuSeconds();
      auto store = std::make_unique<model::ModelStore>(model::BuildModelFromText(text, options));
      best = std::min(best, CpuSeconds() - start);
    }
    Sayf("  {:<22} {:>8.3f} s  ({:.1f} MB of text)", vector ? "vector statements" : "element by element",
         best, text.size() / 1048576.0);
    CompareCachedBuild(text, options);
  }
}

constexpr const char* kSmallModel =
    "Parameters\n  u = 1\nEnd Parameters\nVariables\n  x1 = 0\n  x2 = 0\nEnd Variables\n"
    "Equations\n  $x1 = -x1 + u\n  $x2 = x1 - 0.5*x2\nEnd Equations\n";

void SmallCycleLatency() {
  testing::WorkingDir dir("kx_bench_cycle_small");
  WriteText("app.zpm", kSmallModel);
  std::string csv = "time,u\n";
  for (int k = 0; k <= 10; ++k) csv += fmt::format("{},1\n", k);
  WriteText("app.csv", csv);
  std::vector<double> wall[2], cpu[2];  // [0] the cache missing (built, written), [1] loaded
  int status = -1;
  RunProcess({KestrixPath(), "app", "-sim"}, "console.txt");  // writes the cache
  for (int k = 0; k < 2 * kLatencyRuns; ++k) {
    const int cached = k % 2;
    if (!cached) fs::remove("app.zpc");  // this run builds and writes it again
    const ProcessRun r = RunProcess({KestrixPath(), "app", "-sim"}, "console.txt");
    wall[cached].push_back(r.seconds);
    cpu[cached].push_back(r.cpu);
    status = r.status;
  }
  Sayf("Small cycle: 2 states, 10 steps, `kestrix app -sim` (median of {} runs, exit status {})",
       kLatencyRuns, status);
  for (int cached : {0, 1})
    Sayf("  {:<26} wall {:.2f} ms, processor {:.2f} ms",
         cached ? "model from the cache" : "model built, cache written",
         1e3 * Median(wall[cached]), 1e3 * Median(cpu[cached]));
}

}  // namespace
}  // namespace kx::bench

int main(int argc, char** argv) {
  using namespace kx::bench;
  int repeat = 3;
  bool quick = false;
  std::string only;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--hand-coded" && i + 1 < argc) return SolveHandCoded(std::atoi(argv[i + 1]));
    if (arg == "--quick") {
      quick = true;
    } else if (arg == "--only" && i + 1 < argc) {
      only = argv[++i];
    } else if (arg == "--repeat" && i + 1 < argc) {
      repeat = std::max(1, std::atoi(argv[++i]));
    } else {
      kx::Sayf("usage: {} [--quick] [--repeat R] [--only PART]", argv[0]);
      return 1;
    }
  }
  auto part = [&](const char* name) { return only.empty() || only == name; };
  if (part("processes")) {
    kx::Say("Whole processes: kestrix against the hand-coded problem (cpu: best of the runs)");
    CompareProcesses(20000, repeat);
    if (!quick) CompareProcesses(100000, repeat);
  }
  if (part("calls")) ComparePerCall(20000);
  if (part("front")) CompareFrontEnd(kFrontEndIntervals);
  if (part("small")) SmallCycleLatency();
  return 0;
}
