// A nonlinear moving-horizon estimator solved in one cycle, against a hand-coded problem.
//
//   bench_mhe [--repeat R] [N ...]          (default R = 3, windows N = 20 200 2000)
//   bench_mhe --hand-coded-only             (solves cstr.csv of the current directory)
//
// The plant is a stirred tank with an exothermic first-order reaction: states concentration
// ca and temperature t, the rate k0 exp(-ear/t) ca, a coolant temperature tc that varies over
// time (a column of the data file) and a heat-transfer coefficient hx that the estimator does
// not know (an FV with STATUS 1). The temperature is measured (a CV, EV_TYPE 2, WMEAS 1,
// WMODEL 0: the objective is the plain sum of squared errors). The data come from simulating
// the tank with the true hx (fine RK4 steps, the coolant held within each step at the value of
// the row that ends it, as the engine reads it) plus Gaussian noise, and are written into
// cstr.csv, so one cycle (IMODE 5, NODES 2, CSV_READ 1) fits the whole window.
//
// Per window: the wall time of `kestrix cstr -ipopt` as a whole process with its timer table
// (DIAGLEVEL 1), the wall time of this program's --hand-coded-only process, which reads the
// same data file and solves the same implicit Euler least-squares problem (unknowns: hx and the
// states after the fixed first point) through the library's C++ interface under the engine's
// options, their ratio, both estimates and objectives, and the growth of each phase per decade.
#include <coin/IpIpoptApplication.hpp>
#include <coin/IpSolveStatistics.hpp>
#include <coin/IpTNLP.hpp>
#include <cmath>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "base/report.h"
#include "cstr_model.h"
#include "process_bench.h"
#include "testing/scratch_dir.h"

namespace kx::bench {
namespace {

using namespace cstr;

// The estimator's data; the tank's are in cstr_model.h.
constexpr double kCa0 = 0.877, kT0 = 324.5;  // declared values: the fixed first point
constexpr double kHxStart = 1.5, kHxLower = 0.1, kHxUpper = 10.0;
constexpr double kHxTrue = kHx;       // what generates the data
constexpr double kStep = 0.1;         // min, one step of the window
constexpr double kNoise = 0.3;        // K, standard deviation of the temperature measurement
constexpr int kSubsteps = 10;         // RK4 steps per window step in the data simulation
constexpr double kTol = 1e-6;         // RTOL and the library's tol
constexpr double kWmeas = 1.0;

const std::string kModel = cstr::ModelText("300", "1.5, >= 0.1, <= 10");

constexpr const char* kInfo = "FV, hx\nCV, t\n";

constexpr const char* kSettings = R"(ZPM.IMODE = 5
ZPM.NODES = 2
ZPM.CSV_READ = 1
ZPM.EV_TYPE = 2
ZPM.ICD_CALC = 0
ZPM.SOLVER = 3
ZPM.RTOL = 1e-6
ZPM.DIAGLEVEL = 1
hx.STATUS = 1
t.FSTATUS = 1
t.WMEAS = 1
t.WMODEL = 0
)";

double Coolant(double time) {
  return 300.0 + 2.5 * std::sin(0.3 * time) + 1.5 * std::sin(1.1 * time);
}

// The data file of a window of `steps` steps: time, coolant, measured temperature.
std::string DataFile(int steps) {
  std::mt19937 rng(3);
  std::normal_distribution<double> noise(0.0, kNoise);
  std::string text = "time,tc,t\n";
  double ca = kCa0, t = kT0;
  for (int k = 0; k <= steps; ++k) {
    const double tc = Coolant(k * kStep);
    if (k > 0) PlantStep(kStep, kSubsteps, tc, kHxTrue, &ca, &t);
    text += fmt::format("{:.10g},{:.10g},{:.10g}\n", k * kStep, tc, t + noise(rng));
  }
  return text;
}

// The data file read back: step lengths, coolant and measurement per point.
struct Window {
  std::vector<double> dt, tc, meas;  // point 0 .. N (dt[0] unused)
  int steps() const { return static_cast<int>(tc.size()) - 1; }
};

Window ReadWindow(const std::string& path) {
  Window w;
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  double last = 0;
  while (std::getline(in, line)) {
    double time = 0, tc = 0, meas = 0;
    if (std::sscanf(line.c_str(), "%lf,%lf,%lf", &time, &tc, &meas) != 3) continue;
    w.dt.push_back(time - last);
    w.tc.push_back(tc);
    w.meas.push_back(meas);
    last = time;
  }
  return w;
}

// min sum_{p=0..N} wmeas (t_p - meas_p)^2 over hx and the states of points 1..N, with the
// first point fixed at the declared values, subject to the implicit Euler rows
//   ca_p - ca_{p-1} - dt (qv (caf - ca_p) - r_p) = 0
//   t_p - t_{p-1} - dt (qv (tf - t_p) + dhr r_p + hx (tc_p - t_p)) = 0
// Variables: hx (0), then ca_p (2p - 1) and t_p (2p).
class MheTnlp : public Ipopt::TNLP {
 public:
  using Index = Ipopt::Index;
  using Number = Ipopt::Number;
  explicit MheTnlp(Window w) : w_(std::move(w)), n_(w_.steps()) {}
  double objective = 0, hx = 0;  // at the solution
  int status = -1;                // the library's return code

  bool get_nlp_info(Index& n, Index& m, Index& nnz_jac, Index& nnz_h,
                    IndexStyleEnum& style) override {
    n = 1 + 2 * n_;
    m = 2 * n_;
    nnz_jac = 7 * n_ - 2;
    nnz_h = 3 * n_;
    style = C_STYLE;
    return true;
  }
  bool get_bounds_info(Index n, Number* xl, Number* xu, Index m, Number* gl,
                       Number* gu) override {
    xl[0] = kHxLower;
    xu[0] = kHxUpper;
    for (int p = 1; p <= n_; ++p) {
      xl[Ca(p)] = 0, xu[Ca(p)] = 1e20;
      xl[T(p)] = -1e20, xu[T(p)] = 1e20;
    }
    for (int i = 0; i < m; ++i) gl[i] = gu[i] = 0;
    (void)n;
    return true;
  }
  bool get_starting_point(Index, bool, Number* x, bool, Number*, Number*, Index, bool,
                          Number*) override {
    x[0] = kHxStart;
    for (int p = 1; p <= n_; ++p) x[Ca(p)] = kCa0, x[T(p)] = kT0;
    return true;
  }
  bool eval_f(Index, const Number* x, bool, Number& f) override {
    f = kWmeas * Sq(kT0 - w_.meas[0]);
    for (int p = 1; p <= n_; ++p) f += kWmeas * Sq(x[T(p)] - w_.meas[p]);
    return true;
  }
  bool eval_grad_f(Index n, const Number* x, bool, Number* g) override {
    std::fill(g, g + n, 0.0);
    for (int p = 1; p <= n_; ++p) g[T(p)] = 2 * kWmeas * (x[T(p)] - w_.meas[p]);
    return true;
  }
  bool eval_g(Index, const Number* x, bool, Index, Number* g) override {
    for (int p = 1; p <= n_; ++p) {
      const double ca = x[Ca(p)], t = x[T(p)], dt = w_.dt[p];
      const double r = Rate(ca, t);
      g[2 * p - 2] = ca - CaBefore(x, p) - dt * (kQv * (kCaf - ca) - r);
      g[2 * p - 1] =
          t - TBefore(x, p) - dt * (kQv * (kTf - t) + kDhr * r + x[0] * (w_.tc[p] - t));
    }
    return true;
  }
  // Row 2p-2: ca_{p-1}, ca_p, t_p. Row 2p-1: t_{p-1}, ca_p, t_p, hx.
  bool eval_jac_g(Index, const Number* x, bool, Index, Index, Index* rows, Index* cols,
                  Number* v) override {
    int k = 0;
    for (int p = 1; p <= n_; ++p) {
      const int r1 = 2 * p - 2, r2 = 2 * p - 1;
      double dt = w_.dt[p], rca = 0, rt = 0, t = 0, coef = 0, tc = w_.tc[p];
      if (v != nullptr) {
        t = x[T(p)];
        coef = x[0];
        const RateDerivatives d = RateSlopes(x[Ca(p)], t);
        rca = d.ca;
        rt = d.t;
      }
      if (p > 1) Put(rows, cols, v, k, r1, Ca(p - 1), -1.0);
      Put(rows, cols, v, k, r1, Ca(p), 1 + dt * kQv + dt * rca);
      Put(rows, cols, v, k, r1, T(p), dt * rt);
      if (p > 1) Put(rows, cols, v, k, r2, T(p - 1), -1.0);
      Put(rows, cols, v, k, r2, Ca(p), -dt * kDhr * rca);
      Put(rows, cols, v, k, r2, T(p), 1 + dt * kQv - dt * kDhr * rt + dt * coef);
      Put(rows, cols, v, k, r2, 0, -dt * (tc - t));
    }
    return true;
  }
  // Per point (lower triangle): (t_p, hx), (t_p, ca_p), (t_p, t_p).
  bool eval_h(Index, const Number* x, bool, Number obj_factor, Index, const Number* lambda,
              bool, Index, Index* rows, Index* cols, Number* v) override {
    int k = 0;
    for (int p = 1; p <= n_; ++p) {
      double h_hx = 0, h_cat = 0, h_tt = 0;
      if (v != nullptr) {
        const double dt = w_.dt[p];
        const RateDerivatives d = RateSlopes(x[Ca(p)], x[T(p)]);
        // g1 = ... + dt r,  g2 = ... - dt dhr r - dt hx (tc - t)
        const double l1 = lambda[2 * p - 2], l2 = lambda[2 * p - 1];
        h_hx = l2 * dt;
        h_cat = (l1 - l2 * kDhr) * dt * d.ca_t;
        h_tt = (l1 - l2 * kDhr) * dt * d.t_t + obj_factor * 2 * kWmeas;
      }
      Put(rows, cols, v, k, T(p), 0, h_hx);
      Put(rows, cols, v, k, T(p), Ca(p), h_cat);
      Put(rows, cols, v, k, T(p), T(p), h_tt);
    }
    return true;
  }
  void finalize_solution(Ipopt::SolverReturn s, Index, const Number* x, const Number*,
                         const Number*, Index, const Number*, const Number*, Number f,
                         const Ipopt::IpoptData*, Ipopt::IpoptCalculatedQuantities*) override {
    status = static_cast<int>(s);
    objective = f;
    hx = x[0];
  }

 private:
  static int Ca(int p) { return 2 * p - 1; }
  static int T(int p) { return 2 * p; }
  static double Sq(double a) { return a * a; }
  static double CaBefore(const Number* x, int p) { return p > 1 ? x[Ca(p - 1)] : kCa0; }
  static double TBefore(const Number* x, int p) { return p > 1 ? x[T(p - 1)] : kT0; }

  Window w_;
  int n_;  // steps
};

// The --hand-coded-only process: reads cstr.csv, solves, prints what the parent reads.
int SolveHandCoded() {
  Ipopt::SmartPtr<Ipopt::IpoptApplication> app = IpoptApplicationFactory();
  SetEngineOptions(*app, kTol);
  app->Initialize();
  Ipopt::SmartPtr<MheTnlp> nlp = new MheTnlp(ReadWindow("cstr.csv"));
  app->OptimizeTNLP(GetRawPtr(nlp));
  Sayf("hx {:.10g}", nlp->hx);
  Sayf("objective {:.12g}", nlp->objective);
  Sayf("status {}", nlp->status);
  return nlp->status == 0 ? 0 : 1;
}


// The phases of the timer table, in the order printed, with their labels.
constexpr std::pair<const char*, const char*> kPhases[] = {
    {"Model build", "build"},         {"Horizon set-up", "horizon"},
    {"Structure and starting point", "structure"}, {"Solver", "solver"},
    {"library", "library"},     {"callbacks", "callbacks"},
    {"zpm_files", "files"},           {"Total", "total"}};

struct WindowResult {
  int steps = 0;                                // window length
  double kestrix = INFINITY, coded = INFINITY;  // best process wall, s
  double cpu_k = INFINITY, cpu_c = INFINITY;      // best process processor time, s
  std::map<std::string, double> phases;         // best wall per timer, s
  std::map<std::string, double> cpu_phases;     // best processor time per timer, s
  double hx_engine = NAN, hx_coded = NAN, obj_engine = NAN, obj_coded = NAN;  // of the best runs
  int it_engine = -1, it_coded = -1;            // library iterations of the best runs
  double vars_engine = NAN, cons_engine = NAN, free_engine = NAN;  // as the engine reports
  bool ok = true;                               // every run solved
};

// Lowers each entry of `best` to the one of `timers` where that is smaller.
void KeepBest(const std::map<std::string, double>& timers, std::map<std::string, double>* best) {
  for (const auto& [name, seconds] : timers) {
    auto [it, added] = best->emplace(name, seconds);
    if (!added) it->second = std::min(it->second, seconds);
  }
}

// Runs one process in a fresh directory "run" under `data` with the inputs copied in.
ProcessRun RunFresh(const fs::path& data, const std::vector<std::string>& argv,
                    std::string* console) {
  const fs::path run = data / "run";
  fs::remove_all(run);
  fs::create_directories(run);
  fs::current_path(run);
  CopyInputs(data, {"cstr.zpm", "cstr.info", "cstr.dbs", "cstr.csv"});
  const ProcessRun r = RunProcess(argv, "console.txt");
  *console = ReadText("console.txt");
  return r;
}

WindowResult MeasureWindow(int steps, int repeat) {
  WindowResult w;
  w.steps = steps;
  testing::ScratchDir data("kx_bench_mhe");
  data.Write("cstr.zpm", kModel);
  data.Write("cstr.info", kInfo);
  data.Write("cstr.dbs", kSettings);
  data.Write("cstr.csv", DataFile(steps));
  const fs::path home = fs::current_path();
  for (int r = 0; r < repeat; ++r) {
    std::string console;
    const ProcessRun e = RunFresh(data.path(), {KestrixPath(), "cstr", "-ipopt"}, &console);
    w.ok = w.ok && e.status == 1;
    w.cpu_k = std::min(w.cpu_k, e.cpu);
    if (e.seconds < w.kestrix) {
      w.kestrix = e.seconds;
      w.hx_engine = ReadDbsValue("cstr.dbs", "hx.NEWVAL");
      w.obj_engine = ReadObjective(console);
      w.it_engine = LoggedIterations();
      w.vars_engine = ReadConsoleNumber(console, "Number of variables");
      w.cons_engine = ReadConsoleNumber(console, "Number of constraints");
      w.free_engine = ReadConsoleNumber(console, "Number of state variables");
    }
    KeepBest(TimersOf(console, false), &w.phases);
    KeepBest(TimersOf(console, true), &w.cpu_phases);
    const ProcessRun c = RunFresh(data.path(), {SelfPath(), "--hand-coded-only"}, &console);
    w.ok = w.ok && c.status == 0;
    w.cpu_c = std::min(w.cpu_c, c.cpu);
    if (c.seconds < w.coded) {
      w.coded = c.seconds;
      std::sscanf(console.c_str(), "hx %lf\nobjective %lf", &w.hx_coded, &w.obj_coded);
      w.it_coded = LoggedIterations();
    }
  }
  fs::current_path(home);
  return w;
}

double Phase(const std::map<std::string, double>& phases, const char* name) {
  const auto it = phases.find(name);
  return it == phases.end() ? NAN : it->second;
}

// The phase table of one kind (wall or processor time) and its growth per window.
void PrintPhaseTable(const std::vector<WindowResult>& results, bool cpu) {
  auto of = [cpu](const WindowResult& w) -> const std::map<std::string, double>& {
    return cpu ? w.cpu_phases : w.phases;
  };
  auto whole = [cpu](const WindowResult& w) { return cpu ? w.cpu_k : w.kestrix; };
  auto coded = [cpu](const WindowResult& w) { return cpu ? w.cpu_c : w.coded; };
  Sayf("{} (best of the runs), ms", cpu ? "Processor time (user + system)" : "Wall time");
  std::string head = fmt::format("{:>13} {:>9} {:>9} {:>6}", "steps", "kestrix", "hand", "ratio");
  for (const auto& [name, label] : kPhases) head += fmt::format(" {:>9}", label);
  Say(head);
  for (const WindowResult& w : results) {
    std::string line = fmt::format("{:>13} {:>9.1f} {:>9.1f} {:>6.2f}", w.steps, 1e3 * whole(w),
                                   1e3 * coded(w), whole(w) / coded(w));
    for (const auto& [name, label] : kPhases)
      line += fmt::format(" {:>9.1f}", 1e3 * Phase(of(w), name));
    Say(line);
  }
  for (size_t i = 1; i < results.size(); ++i) {
    const WindowResult &a = results[i - 1], &b = results[i];
    std::string line = fmt::format("{:>13} {:>9.1f} {:>9.1f} {:>6}",
                                   fmt::format("x {}->{}", a.steps, b.steps),
                                   whole(b) / whole(a), coded(b) / coded(a), "");
    // A phase under 0.05 ms is below the table's resolution: no factor.
    for (const auto& [name, label] : kPhases) {
      const double before = Phase(of(a), name), after = Phase(of(b), name);
      line += before < 5e-5 ? fmt::format(" {:>9}", "-") : fmt::format(" {:>9.1f}", after / before);
    }
    Say(line);
  }
}

void PrintResults(const std::vector<WindowResult>& results, int repeat) {
  Sayf("Moving-horizon estimation of a stirred tank's heat-transfer coefficient (true {}),",
       kHxTrue);
  Sayf("NODES 2 (implicit Euler), step {} min, one cycle per window; best of {} runs",
       kStep, repeat);
  Say("Rows \"x A->B\": growth factor from window A to window B (linear growth: B/A).");
  Say("");
  PrintPhaseTable(results, false);
  Say("");
  PrintPhaseTable(results, true);
  Say("");
  Say("Problem handed to the library: variables (free) and constraints");
  Sayf("{:>6} {:>10} {:>10} {:>10} {:>10} {:>10}", "steps", "kestrix n", "free", "m", "hand n",
       "hand m");
  for (const WindowResult& w : results) {
    Sayf("{:>6} {:>10} {:>10} {:>10} {:>10} {:>10}", w.steps, w.vars_engine, w.free_engine,
         w.cons_engine, 1 + 2 * w.steps, 2 * w.steps);
  }
  Say("");
  Say("Estimates and objectives (kestrix / hand-coded), library iterations");
  Sayf("{:>6} {:>12} {:>12} {:>16} {:>16} {:>5} {:>5}  {}", "steps", "hx kestrix", "hx hand",
       "obj kestrix", "obj hand", "it k", "it h", "status");
  for (const WindowResult& w : results) {
    Sayf("{:>6} {:>12.6f} {:>12.6f} {:>16.8g} {:>16.8g} {:>5} {:>5}  {}", w.steps, w.hx_engine,
         w.hx_coded, w.obj_engine, w.obj_coded, w.it_engine, w.it_coded,
         w.ok ? "both solved" : "A RUN FAILED");
  }
}

}  // namespace
}  // namespace kx::bench

int main(int argc, char** argv) {
  int repeat = 3;
  std::vector<int> windows;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--hand-coded-only") return kx::bench::SolveHandCoded();
    if (arg == "--repeat" && i + 1 < argc) {
      repeat = std::max(1, std::atoi(argv[++i]));
    } else if (std::atoi(arg.c_str()) > 0) {
      windows.push_back(std::atoi(arg.c_str()));
    } else {
      kx::Sayf("usage: {} [--repeat R] [N ...] | --hand-coded-only", argv[0]);
      return 2;
    }
  }
  if (windows.empty()) windows = {20, 200, 2000};
  std::vector<kx::bench::WindowResult> results;
  for (int n : windows) results.push_back(kx::bench::MeasureWindow(n, repeat));
  kx::bench::PrintResults(results, repeat);
  return 0;
}
