// Model predictive control as a user meets it: whole `kestrix` processes.
//
//   bench_mpc [--cycles C] [--repeat R] [--keep-slowest DIR] [--skip-small] [--skip-large]
//   bench_mpc --hand-coded-only              (solves the chain of chain_start.txt)
//   bench_mpc --write-chain DIR              (writes the chain's input files into DIR)
//
// (a) Cycle latency of a small nonlinear controller: one stirred tank (cstr_model.h), the
//     coolant temperature tc an MV, the tank temperature t a CV held in a band (CV_TYPE 1),
//     10 steps of 0.2 min, NODES 3. The plant is the same tank with a 10% larger
//     heat-transfer coefficient, simulated here; after one cold cycle, C warm cycles (default
//     50) each write t.MEAS to measurements.dbs, run `kestrix cstr` from start to exit (all
//     files written) and implement tc.NEWVAL. Median and worst wall and processor time, once
//     with the default solver (SOLVER 1) and once with SOLVER 3; the timer table of one more
//     warm cycle at DIAGLEVEL 1; and the floors: starting a process that exits at once
//     (/bin/true) and `kestrix` stopping on a missing model file. A cycle still running after
//     kCycleLimit is stopped (the plant keeps its coolant); cycles over five times the median
//     are listed, and --keep-slowest DIR keeps the files from before each solver's slowest
//     cycle, so that it can be run again by hand.
// (b) A large controller: 25 tanks in series (50 states), 10 coolant MVs each cooling a group
//     of two or three tanks, the temperature of each group's last tank a CV with CV_TYPE 2,
//     100 steps of 0.2 min, NODES 2. `kestrix chain -ipopt` against this program's
//     --hand-coded-only process, which solves the same implicit Euler problem through the
//     library's C++ interface under the engine's options (best of R runs, default 3).
#include <coin/IpIpoptApplication.hpp>
#include <coin/IpTNLP.hpp>
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/report.h"
#include "cstr_model.h"
#include "process_bench.h"
#include "testing/scratch_dir.h"

namespace kx::bench {
namespace {

using namespace cstr;

constexpr double kTol = 1e-6;  // RTOL and the library's tol

// The phases of the engine's timer table, with their labels.
constexpr std::pair<const char*, const char*> kPhases[] = {
    {"Model build", "model build"},
    {"Horizon set-up", "horizon set-up"},
    {"Structure and starting point", "structure and start"},
    {"Solver", "solver"},
    {"library", "  of which in the library"},
    {"callbacks", "  of which function evaluations"},
    {"zpm_files", "files"},
    {"Total", "total under the timers"}};

// The timer table of one run (wall and processor time) and the process around it.
void PrintPhases(const std::string& console, const ProcessRun& run) {
  const std::map<std::string, double> wall = TimersOf(console, false), cpu = TimersOf(console, true);
  Sayf("  {:<34} {:>9} {:>9}", "", "wall ms", "cpu ms");
  for (const auto& [name, label] : kPhases) {
    if (wall.count(name)) Sayf("  {:<34} {:>9.2f} {:>9.2f}", label, 1e3 * wall.at(name), 1e3 * cpu.at(name));
  }
  if (wall.count("Total")) {
    Sayf("  {:<34} {:>9.2f} {:>9.2f}", "process outside the timers",
         1e3 * (run.seconds - wall.at("Total")), 1e3 * (run.cpu - cpu.at("Total")));
  }
  Sayf("  {:<34} {:>9.2f} {:>9.2f}", "whole process", 1e3 * run.seconds, 1e3 * run.cpu);
}

// ----- (a) the small controller -----

const std::string kSmallModel = cstr::ModelText("300, >= 280, <= 320", "2.092");

constexpr const char* kSmallInfo = "MV, tc\nCV, t\n";

constexpr double kPeriod = 0.2;               // min, one controller step and plant period
constexpr double kPlantHx = 1.1 * kHx;        // the plant cools 10% better than the model says
constexpr double kBandLo = 327, kBandHi = 328;  // K, the temperature band

std::string SmallSettings(int solver) {
  return fmt::format(R"(ZPM.IMODE = 6
ZPM.NODES = 3
ZPM.CSV_READ = 0
ZPM.CTRL_HOR = 10
ZPM.PRED_HOR = 10
ZPM.CTRL_TIME = {0}
ZPM.PRED_TIME = {0}
ZPM.CV_TYPE = 1
ZPM.SOLVER = {1}
ZPM.RTOL = 1e-6
tc.STATUS = 1
tc.DCOST = 0.1
tc.DMAX = 5
tc.LOWER = 280
tc.UPPER = 320
t.STATUS = 1
t.SPHI = {2}
t.SPLO = {3}
t.TAU = 0.5
t.FSTATUS = 1
)",
                     kPeriod, solver, kBandHi, kBandLo);
}

constexpr double kCycleLimit = 20;  // s: a control cycle still running then is stopped

// The files of the working directory by name, as they were before a cycle.
using Snapshot = std::map<std::string, std::string>;

Snapshot TakeSnapshot() {
  Snapshot files;
  for (const fs::directory_entry& e : fs::directory_iterator("."))
    if (e.is_regular_file()) files[e.path().filename().string()] = ReadText(e.path().string());
  return files;
}

struct LatencyRun {
  std::vector<double> wall, cpu;  // per warm cycle, s
  std::vector<int> stopped;       // warm cycles stopped at kCycleLimit
  Snapshot slowest;               // the working directory before the slowest warm cycle
  int slowest_cycle = 0;
  double cold = 0;                // the first cycle, wall s
  double last_t = 0, last_tc = 0;  // plant temperature and coolant after the run
  int failed = 0;                 // cycles whose exit status was not success
  std::string timed_console;      // of one extra warm cycle at DIAGLEVEL 1
  ProcessRun timed;               // that cycle's process
};

// One control cycle: runs the engine on the measurements written before, stopped at
// kCycleLimit.
ProcessRun ControlCycle(std::string* console) {
  const ProcessRun r = RunProcess({KestrixPath(), "cstr"}, "console.txt", kCycleLimit);
  *console = ReadText("console.txt");
  return r;
}

LatencyRun MeasureLatency(int solver, int cycles) {
  testing::WorkingDir dir("kx_bench_mpc_small");
  WriteText("cstr.zpm", kSmallModel);
  WriteText("cstr.info", kSmallInfo);
  WriteText("cstr.dbs", SmallSettings(solver));
  LatencyRun run;
  double ca = 0.877, t = 324.5, tc = 300;
  std::string console;
  for (int k = 0; k <= cycles + 1; ++k) {
    const bool timed = k == cycles + 1;  // the extra cycle with the timer table
    WriteText("measurements.dbs",
              fmt::format("t.MEAS = {:.6f}\n{}", t, timed ? "ZPM.DIAGLEVEL = 1\n" : ""));
    Snapshot before;
    if (k > 0 && !timed) before = TakeSnapshot();
    const ProcessRun r = ControlCycle(&console);
    // A failed or stopped cycle leaves the coolant where it was, as a plant would.
    if (r.status != 1) ++run.failed;
    else tc = ReadDbsValue("cstr.dbs", "tc.NEWVAL");
    if (k == 0) {
      run.cold = r.seconds;
    } else if (timed) {
      run.timed_console = console, run.timed = r;
    } else {
      if (r.stopped) run.stopped.push_back(k);
      if (run.cpu.empty() || r.cpu > *std::max_element(run.cpu.begin(), run.cpu.end()))
        run.slowest = std::move(before), run.slowest_cycle = k;
      run.wall.push_back(r.seconds), run.cpu.push_back(r.cpu);
    }
    PlantStep(kPeriod, 20, tc, kPlantHx, &ca, &t);
  }
  run.last_t = t;
  run.last_tc = tc;
  return run;
}

// Median wall and processor time of `runs` starts of argv in an empty directory.
std::pair<double, double> Floor(const std::vector<std::string>& argv, int runs) {
  testing::WorkingDir dir("kx_bench_mpc_floor");
  std::vector<double> wall, cpu;
  for (int k = 0; k < runs; ++k) {
    const ProcessRun r = RunProcess(argv, "console.txt");
    wall.push_back(r.seconds);
    cpu.push_back(r.cpu);
  }
  return {Median(wall), Median(cpu)};
}

// Writes the snapshot before the slowest cycle of `solver` into keep/solver<N>.
void KeepSlowest(const std::string& keep, int solver, const LatencyRun& r) {
  if (keep.empty() || r.slowest.empty()) return;
  const fs::path dir = fs::path(keep) / fmt::format("solver{}", solver);
  fs::create_directories(dir);
  for (const auto& [name, text] : r.slowest) WriteText((dir / name).string(), text);
  Sayf("SOLVER {}: the files before cycle {} (the slowest) are in {}", solver, r.slowest_cycle,
       dir.string());
}

void RunSmall(int cycles, const std::string& keep) {
  Sayf("(a) Small controller: one tank, MV tc, CV t in [{}, {}] K, 10 steps of {} min, NODES 3;",
       kBandLo, kBandHi, kPeriod);
  Sayf("    plant heat-transfer coefficient {:.4g} (model {}); {} warm cycles, each a whole process",
       kPlantHx, kHx, cycles);
  const auto [true_wall, true_cpu] = Floor({"/bin/true"}, 20);
  const auto [stop_wall, stop_cpu] = Floor({KestrixPath(), "missing"}, 20);
  Sayf("{:<40} {:>9} {:>9} {:>9} {:>9}", "", "median ms", "worst ms", "cpu med", "cpu worst");
  Sayf("{:<40} {:>9.2f} {:>9} {:>9.2f} {:>9}", "floor: /bin/true", 1e3 * true_wall, "",
       1e3 * true_cpu, "");
  Sayf("{:<40} {:>9.2f} {:>9} {:>9.2f} {:>9}", "floor: kestrix, model file missing",
       1e3 * stop_wall, "", 1e3 * stop_cpu, "");
  std::vector<std::pair<int, LatencyRun>> runs;
  for (int solver : {1, 3}) runs.emplace_back(solver, MeasureLatency(solver, cycles));
  for (const auto& [solver, r] : runs) {
    Sayf("{:<40} {:>9.2f} {:>9.2f} {:>9.2f} {:>9.2f}",
         fmt::format("kestrix cstr, SOLVER {} (warm cycles)", solver), 1e3 * Median(r.wall),
         1e3 * *std::max_element(r.wall.begin(), r.wall.end()), 1e3 * Median(r.cpu),
         1e3 * *std::max_element(r.cpu.begin(), r.cpu.end()));
  }
  for (const auto& [solver, r] : runs) {
    Sayf("SOLVER {}: first (cold) cycle {:.2f} ms; {} failed cycles, {} of them stopped at {} s; "
         "plant t {:.3f} K, tc {:.3f} K at the end",
         solver, 1e3 * r.cold, r.failed, r.stopped.size(), kCycleLimit, r.last_t, r.last_tc);
    const double median = Median(r.cpu);
    std::string slow;
    for (size_t i = 0; i < r.cpu.size(); ++i) {
      if (r.cpu[i] > 5 * median)
        slow += fmt::format(" {}:{:.0f}/{:.0f}", i + 1, 1e3 * r.wall[i], 1e3 * r.cpu[i]);
    }
    Sayf("SOLVER {}: cycles over 5x the median processor time (cycle:wall ms/cpu ms):{}", solver,
         slow.empty() ? " none" : slow);
    KeepSlowest(keep, solver, r);
  }
  for (const auto& [solver, r] : runs) {
    Sayf("Where the time goes, one warm cycle at DIAGLEVEL 1, SOLVER {}:", solver);
    PrintPhases(r.timed_console, r.timed);
  }
}

// ----- (b) the chain of tanks -----

constexpr int kTanks = 25, kMvs = 10, kSteps = 100;
constexpr double kChainStep = 0.2;  // min
constexpr double kTcStart = 300, kTcLower = 280, kTcUpper = 320;
constexpr double kDcost = 0.1, kWsp = 20, kTau = 1.0, kSpOffset = 2.0;
constexpr int kPerPoint = 2 * kTanks + kMvs;  // hand-coded variables per point

// The MV that cools tank i, and the tank whose temperature is CV g (the last of its group).
int GroupOf(int i) { return i * kMvs / kTanks; }
int CvTank(int g) {
  int last = 0;
  for (int i = 0; i < kTanks; ++i)
    if (GroupOf(i) == g) last = i;
  return last;
}

// The chain's steady state at coolant kTcStart: long RK4 integration from the feed state.
std::vector<double> SteadyState() {
  std::vector<double> x(2 * kTanks), k1(2 * kTanks), k2(2 * kTanks), k3(2 * kTanks),
      k4(2 * kTanks), y(2 * kTanks);
  for (int i = 0; i < kTanks; ++i) x[2 * i] = 0.877, x[2 * i + 1] = 324.5;
  auto f = [](const std::vector<double>& s, std::vector<double>& d) {
    for (int i = 0; i < kTanks; ++i) {
      const double ca_in = i ? s[2 * i - 2] : kCaf, t_in = i ? s[2 * i - 1] : kTf;
      Derivatives(ca_in, t_in, s[2 * i], s[2 * i + 1], kTcStart, kHx, &d[2 * i], &d[2 * i + 1]);
    }
  };
  const double h = 0.02;
  for (int step = 0; step < 20000; ++step) {
    f(x, k1);
    for (size_t j = 0; j < x.size(); ++j) y[j] = x[j] + h / 2 * k1[j];
    f(y, k2);
    for (size_t j = 0; j < x.size(); ++j) y[j] = x[j] + h / 2 * k2[j];
    f(y, k3);
    for (size_t j = 0; j < x.size(); ++j) y[j] = x[j] + h * k3[j];
    f(y, k4);
    for (size_t j = 0; j < x.size(); ++j) x[j] += h / 6 * (k1[j] + 2 * k2[j] + 2 * k3[j] + k4[j]);
  }
  return x;
}

std::string ChainModel(const std::vector<double>& start) {
  std::string s = "! Stirred tanks in series, each cooled by the coolant of its group\nModel chain\n";
  s += "  Parameters\n";
  for (int g = 1; g <= kMvs; ++g)
    s += fmt::format("    tc{} = {}, >= {}, <= {}\n", g, kTcStart, kTcLower, kTcUpper);
  s += fmt::format("    hx = {}\n    qv = {}\n    caf = {}\n    tf = {}\n    k0 = {}\n"
                   "    ear = {}\n    dhr = {}\n  End Parameters\n",
                   kHx, kQv, kCaf, kTf, kK0, kEar, kDhr);
  s += "  Variables\n";
  for (int i = 1; i <= kTanks; ++i) {
    s += fmt::format("    ca{} = {:.12g}, >= 0\n    t{} = {:.12g}\n", i, start[2 * i - 2], i,
                     start[2 * i - 1]);
  }
  s += "  End Variables\n  Intermediates\n";
  for (int i = 1; i <= kTanks; ++i) s += fmt::format("    r{0} = k0 * exp(-ear / t{0}) * ca{0}\n", i);
  s += "  End Intermediates\n  Equations\n";
  for (int i = 1; i <= kTanks; ++i) {
    const std::string ca_in = i > 1 ? fmt::format("ca{}", i - 1) : "caf";
    const std::string t_in = i > 1 ? fmt::format("t{}", i - 1) : "tf";
    s += fmt::format("    $ca{0} = qv * ({1} - ca{0}) - r{0}\n", i, ca_in);
    s += fmt::format("    $t{0} = qv * ({1} - t{0}) + dhr * r{0} + hx * (tc{2} - t{0})\n", i, t_in,
                     GroupOf(i - 1) + 1);
  }
  s += "  End Equations\nEnd Model\n";
  return s;
}

std::string ChainInfo() {
  std::string s;
  for (int g = 1; g <= kMvs; ++g) s += fmt::format("MV, tc{}\n", g);
  for (int g = 0; g < kMvs; ++g) s += fmt::format("CV, t{}\n", CvTank(g) + 1);
  return s;
}

std::string ChainSettings(const std::vector<double>& start) {
  std::string s = fmt::format(R"(ZPM.IMODE = 6
ZPM.NODES = 2
ZPM.CSV_READ = 0
ZPM.CTRL_HOR = {0}
ZPM.PRED_HOR = {0}
ZPM.CTRL_TIME = {1}
ZPM.PRED_TIME = {1}
ZPM.CV_TYPE = 2
ZPM.MV_DCOST_SLOPE = 0
ZPM.SOLVER = 3
ZPM.RTOL = 1e-6
ZPM.DIAGLEVEL = 1
)",
                              kSteps, kChainStep);
  for (int g = 1; g <= kMvs; ++g) {
    s += fmt::format("tc{0}.STATUS = 1\ntc{0}.DCOST = {1}\ntc{0}.LOWER = {2}\ntc{0}.UPPER = {3}\n", g,
                     kDcost, kTcLower, kTcUpper);
  }
  for (int g = 0; g < kMvs; ++g) {
    const int i = CvTank(g);
    s += fmt::format("t{0}.STATUS = 1\nt{0}.SP = {1:.12g}\nt{0}.TAU = {2}\nt{0}.WSP = {3}\n"
                     "t{0}.TR_INIT = 2\nt{0}.FSTATUS = 0\n",
                     i + 1, start[2 * i + 1] + kSpOffset, kTau, kWsp);
  }
  return s;
}

// The start (steady state) as the hand-coded process reads it: 2 * kTanks numbers.
std::string StartFile(const std::vector<double>& start) {
  std::string s;
  for (double v : start) s += fmt::format("{:.17g}\n", v);
  return s;
}

// The engine's control rows, mirrored over the implicit Euler horizon (points k = 0..N,
// the first the fixed present):
//   min sum_{k=1..N} sum_cv wsp (t_cv,k - tr_cv,k)^2 + sum_{k=1..N} sum_g dcost (u_g,k - u_g,k-1)^2
//   tank rows  ca_i,k - ca_i,k-1 - dt (qv (ca_i-1,k - ca_i,k) - r_i,k) = 0
//              t_i,k - t_i,k-1 - dt (qv (t_i-1,k - t_i,k) + dhr r_i,k + hx (u_g(i),k - t_i,k)) = 0
// with u_g,0 = the current coolant. The trajectory tr (tau tr' + tr = sp, from the CV at the
// present: TR_INIT 2, bias 0) and err2 = bcv - tr do not depend on the unknowns, so tr is
// computed once: tr_k = (tau tr_k-1 + dt sp) / (tau + dt). Set-point weights are wsp at every
// step (CV_WGT_SLOPE 0, CV_WGT_START 0), move weights dcost (MV_DCOST_SLOPE 0).
// Variables per point k: ca_i (2i), t_i (2i + 1), then u_g (2 kTanks + g).
class ChainTnlp : public HandCodedTnlp {
 public:
  explicit ChainTnlp(std::vector<double> start) : x0_(std::move(start)) {
    for (int g = 0; g < kMvs; ++g) {
      const int i = CvTank(g);
      const double sp = x0_[2 * i + 1] + kSpOffset;
      double tr = x0_[2 * i + 1];
      for (int k = 1; k <= kSteps; ++k) {
        tr = (kTau * tr + kChainStep * sp) / (kTau + kChainStep);
        tr_.push_back(tr);  // tr_[g * kSteps + k - 1]
      }
    }
  }

  bool get_nlp_info(Index& n, Index& m, Index& nnz_jac, Index& nnz_h,
                    IndexStyleEnum& style) override {
    n = kPerPoint * kSteps;
    m = 2 * kTanks * kSteps;
    nnz_jac = 0;
    for (int k = 1; k <= kSteps; ++k)
      for (int i = 0; i < kTanks; ++i) nnz_jac += 2 + 3 + (k > 1 ? 2 : 0) + (i > 0 ? 2 : 0);
    nnz_h = 2 * kTanks * kSteps + kMvs * kSteps + kMvs * (kSteps - 1);
    style = C_STYLE;
    return true;
  }
  bool get_bounds_info(Index, Number* xl, Number* xu, Index m, Number* gl, Number* gu) override {
    for (int k = 1; k <= kSteps; ++k) {
      for (int i = 0; i < kTanks; ++i) {
        xl[Ca(i, k)] = 0, xu[Ca(i, k)] = 1e20;
        xl[T(i, k)] = -1e20, xu[T(i, k)] = 1e20;
      }
      for (int g = 0; g < kMvs; ++g) xl[U(g, k)] = kTcLower, xu[U(g, k)] = kTcUpper;
    }
    for (int i = 0; i < m; ++i) gl[i] = gu[i] = 0;
    return true;
  }
  bool get_starting_point(Index, bool, Number* x, bool, Number*, Number*, Index, bool,
                          Number*) override {
    for (int k = 1; k <= kSteps; ++k) {
      for (int i = 0; i < kTanks; ++i) x[Ca(i, k)] = x0_[2 * i], x[T(i, k)] = x0_[2 * i + 1];
      for (int g = 0; g < kMvs; ++g) x[U(g, k)] = kTcStart;
    }
    return true;
  }
  bool eval_f(Index, const Number* x, bool, Number& f) override {
    f = 0;
    for (int k = 1; k <= kSteps; ++k) {
      for (int g = 0; g < kMvs; ++g) {
        const double e = x[T(CvTank(g), k)] - tr_[g * kSteps + k - 1];
        const double du = x[U(g, k)] - UBefore(x, g, k);
        f += kWsp * e * e + kDcost * du * du;
      }
    }
    return true;
  }
  bool eval_grad_f(Index n, const Number* x, bool, Number* grad) override {
    std::fill(grad, grad + n, 0.0);
    for (int k = 1; k <= kSteps; ++k) {
      for (int g = 0; g < kMvs; ++g) {
        grad[T(CvTank(g), k)] += 2 * kWsp * (x[T(CvTank(g), k)] - tr_[g * kSteps + k - 1]);
        const double du = x[U(g, k)] - UBefore(x, g, k);
        grad[U(g, k)] += 2 * kDcost * du;
        if (k > 1) grad[U(g, k - 1)] -= 2 * kDcost * du;
      }
    }
    return true;
  }
  bool eval_g(Index, const Number* x, bool, Index, Number* g) override {
    const double dt = kChainStep;
    for (int k = 1; k <= kSteps; ++k) {
      for (int i = 0; i < kTanks; ++i) {
        const double ca = x[Ca(i, k)], t = x[T(i, k)], r = Rate(ca, t);
        const double ca_in = i ? x[Ca(i - 1, k)] : kCaf, t_in = i ? x[T(i - 1, k)] : kTf;
        const double ca_before = k > 1 ? x[Ca(i, k - 1)] : x0_[2 * i];
        const double t_before = k > 1 ? x[T(i, k - 1)] : x0_[2 * i + 1];
        g[Row(i, k)] = ca - ca_before - dt * (kQv * (ca_in - ca) - r);
        g[Row(i, k) + 1] =
            t - t_before - dt * (kQv * (t_in - t) + kDhr * r + kHx * (x[U(GroupOf(i), k)] - t));
      }
    }
    return true;
  }
  bool eval_jac_g(Index, const Number* x, bool, Index, Index, Index* rows, Index* cols,
                  Number* v) override {
    const double dt = kChainStep;
    int n = 0;
    for (int k = 1; k <= kSteps; ++k) {
      for (int i = 0; i < kTanks; ++i) {
        RateDerivatives d{};
        if (v != nullptr) d = RateSlopes(x[Ca(i, k)], x[T(i, k)]);
        const int r1 = Row(i, k), r2 = r1 + 1;
        if (k > 1) Put(rows, cols, v, n, r1, Ca(i, k - 1), -1.0);
        if (i > 0) Put(rows, cols, v, n, r1, Ca(i - 1, k), -dt * kQv);
        Put(rows, cols, v, n, r1, Ca(i, k), 1 + dt * kQv + dt * d.ca);
        Put(rows, cols, v, n, r1, T(i, k), dt * d.t);
        if (k > 1) Put(rows, cols, v, n, r2, T(i, k - 1), -1.0);
        if (i > 0) Put(rows, cols, v, n, r2, T(i - 1, k), -dt * kQv);
        Put(rows, cols, v, n, r2, Ca(i, k), -dt * kDhr * d.ca);
        Put(rows, cols, v, n, r2, T(i, k), 1 + dt * kQv - dt * kDhr * d.t + dt * kHx);
        Put(rows, cols, v, n, r2, U(GroupOf(i), k), -dt * kHx);
      }
    }
    return true;
  }
  // Lower triangle: per tank and point (t, ca), (t, t); per MV and point (u_k, u_k) and
  // (u_k, u_k-1).
  bool eval_h(Index, const Number* x, bool, Number obj_factor, Index, const Number* lambda,
              bool, Index, Index* rows, Index* cols, Number* v) override {
    const double dt = kChainStep;
    int n = 0;
    for (int k = 1; k <= kSteps; ++k) {
      for (int i = 0; i < kTanks; ++i) {
        double h_cat = 0, h_tt = 0;
        if (v != nullptr) {
          const RateDerivatives d = RateSlopes(x[Ca(i, k)], x[T(i, k)]);
          const double w = (lambda[Row(i, k)] - kDhr * lambda[Row(i, k) + 1]) * dt;
          h_cat = w * d.ca_t;
          h_tt = w * d.t_t;
          if (IsCv(i)) h_tt += obj_factor * 2 * kWsp;
        }
        Put(rows, cols, v, n, T(i, k), Ca(i, k), h_cat);
        Put(rows, cols, v, n, T(i, k), T(i, k), h_tt);
      }
      for (int g = 0; g < kMvs; ++g) {
        const double diag = (k < kSteps ? 4 : 2) * kDcost * obj_factor;
        Put(rows, cols, v, n, U(g, k), U(g, k), diag);
        if (k > 1) Put(rows, cols, v, n, U(g, k), U(g, k - 1), -2 * kDcost * obj_factor);
      }
    }
    return true;
  }

 private:
  static int Ca(int i, int k) { return (k - 1) * kPerPoint + 2 * i; }
  static int T(int i, int k) { return (k - 1) * kPerPoint + 2 * i + 1; }
  static int U(int g, int k) { return (k - 1) * kPerPoint + 2 * kTanks + g; }
  static int Row(int i, int k) { return (k - 1) * 2 * kTanks + 2 * i; }
  static double UBefore(const Number* x, int g, int k) { return k > 1 ? x[U(g, k - 1)] : kTcStart; }
  static bool IsCv(int i) { return CvTank(GroupOf(i)) == i; }

  std::vector<double> x0_;  // the present: ca_i, t_i
  std::vector<double> tr_;  // reference trajectory per CV and point 1..N
};

int SolveHandCoded() {
  std::vector<double> start;
  std::ifstream in("chain_start.txt");
  for (double v; in >> v;) start.push_back(v);
  if (static_cast<int>(start.size()) != 2 * kTanks) {
    Say("chain_start.txt: expected 50 numbers");
    return 2;
  }
  Ipopt::SmartPtr<Ipopt::IpoptApplication> app = IpoptApplicationFactory();
  SetEngineOptions(*app, kTol);
  app->Initialize();
  Ipopt::SmartPtr<ChainTnlp> nlp = new ChainTnlp(start);
  app->OptimizeTNLP(GetRawPtr(nlp));
  Sayf("objective {:.12g}", nlp->objective);
  Sayf("status {}", nlp->status);
  return nlp->status == 0 ? 0 : 1;
}


// Writes the chain's input files (model, classes, settings, start) into `dir`.
void WriteChainInputs(const fs::path& dir) {
  const std::vector<double> start = SteadyState();
  WriteText((dir / "chain.zpm").string(), ChainModel(start));
  WriteText((dir / "chain.info").string(), ChainInfo());
  WriteText((dir / "chain.dbs").string(), ChainSettings(start));
  WriteText((dir / "chain_start.txt").string(), StartFile(start));
}

void RunLarge(int repeat) {
  testing::ScratchDir data("kx_bench_mpc_chain");
  WriteChainInputs(data.path());
  const fs::path home = fs::current_path();
  double k_wall = INFINITY, k_cpu = INFINITY, c_wall = INFINITY, c_cpu = INFINITY;
  double k_obj = NAN, c_obj = NAN, k_n = NAN, k_m = NAN, k_free = NAN;
  int k_it = -1, c_it = -1, failed = 0;
  std::string fastest_console;
  ProcessRun fastest;
  auto fresh = [&]() {
    const fs::path run = data.path() / "run";
    fs::remove_all(run);
    fs::create_directories(run);
    fs::current_path(run);
    CopyInputs(data.path(), {"chain.zpm", "chain.info", "chain.dbs", "chain_start.txt"});
  };
  for (int r = 0; r < repeat; ++r) {
    fresh();
    const ProcessRun e = RunProcess({KestrixPath(), "chain", "-ipopt"}, "console.txt");
    const std::string console = ReadText("console.txt");
    if (e.status != 1) ++failed;
    k_cpu = std::min(k_cpu, e.cpu);
    if (e.seconds < k_wall) {
      k_wall = e.seconds;
      k_obj = ReadObjective(console);
      k_it = LoggedIterations();
      k_n = ReadConsoleNumber(console, "Number of variables");
      k_m = ReadConsoleNumber(console, "Number of constraints");
      k_free = ReadConsoleNumber(console, "Number of state variables");
      fastest_console = console;
      fastest = e;
    }
    fresh();
    const ProcessRun c = RunProcess({SelfPath(), "--hand-coded-only"}, "console.txt");
    if (c.status != 0) ++failed;
    c_cpu = std::min(c_cpu, c.cpu);
    if (c.seconds < c_wall) {
      c_wall = c.seconds;
      std::sscanf(ReadText("console.txt").c_str(), "objective %lf", &c_obj);
      c_it = LoggedIterations();
    }
  }
  fs::current_path(home);
  Say("");
  Sayf("(b) Large controller: {} tanks in series ({} states), {} coolant MVs, {} CVs (CV_TYPE 2),",
       kTanks, 2 * kTanks, kMvs, kMvs);
  Sayf("    {} steps of {} min, NODES 2; set points {} K above the steady state; best of {} runs",
       kSteps, kChainStep, kSpOffset, repeat);
  Sayf("{:<34} {:>9} {:>9} {:>8} {:>8} {:>8} {:>5} {:>18}", "", "wall ms", "cpu ms", "n", "free",
       "m", "iter", "objective");
  Sayf("{:<34} {:>9.1f} {:>9.1f} {:>8} {:>8} {:>8} {:>5} {:>18.10g}", "kestrix chain -ipopt",
       1e3 * k_wall, 1e3 * k_cpu, k_n, k_free, k_m, k_it, k_obj);
  Sayf("{:<34} {:>9.1f} {:>9.1f} {:>8} {:>8} {:>8} {:>5} {:>18.10g}", "hand-coded problem",
       1e3 * c_wall, 1e3 * c_cpu, kPerPoint * kSteps, kPerPoint * kSteps,
       2 * kTanks * kSteps, c_it, c_obj);
  Sayf("ratio kestrix / hand-coded: wall {:.2f}, cpu {:.2f}; objectives differ by {:.2e} "
       "(relative); {} failed runs",
       k_wall / c_wall, k_cpu / c_cpu, std::abs(k_obj - c_obj) / std::max(1e-12, std::abs(c_obj)),
       failed);
  Say("Where the time goes in the fastest kestrix run:");
  PrintPhases(fastest_console, fastest);
}

}  // namespace
}  // namespace kx::bench

int main(int argc, char** argv) {
  int cycles = 50, repeat = 3;
  std::string keep;
  bool small = true, large = true;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--hand-coded-only") return kx::bench::SolveHandCoded();
    if (arg == "--write-chain" && i + 1 < argc) {
      kx::bench::WriteChainInputs(argv[i + 1]);
      return 0;
    }
    if (arg == "--cycles" && i + 1 < argc) {
      cycles = std::max(1, std::atoi(argv[++i]));
    } else if (arg == "--repeat" && i + 1 < argc) {
      repeat = std::max(1, std::atoi(argv[++i]));
    } else if (arg == "--keep-slowest" && i + 1 < argc) {
      keep = argv[++i];
    } else if (arg == "--skip-small") {
      small = false;
    } else if (arg == "--skip-large") {
      large = false;
    } else {
      kx::Sayf("usage: {} [--cycles C] [--repeat R] [--keep-slowest DIR] [--skip-small] [--skip-large] | "
               "--hand-coded-only",
               argv[0]);
      return 2;
    }
  }
  if (small) kx::bench::RunSmall(cycles, keep);
  if (large) kx::bench::RunLarge(repeat);
  return 0;
}
