// The sequential forms against the simultaneous ones, each pair measured in the same run:
//
//   (1) Simulation of a stiff DAE (the cooled reactor of reactor_model.h) over 5 time units in
//       100, 1,000 and 10,000 steps with NODES 3: one simultaneous Ipopt solve of the whole
//       horizon against the step-by-step simulation (a Newton solve per step), both to 1e-9
//       (a step that rounding stops short of it is accepted within 1e-7).
//       Time of each, their ratio, and the largest difference of the concentration and of the
//       temperature over every time point.
//   (2) A small nonlinear MPC (the stirred tank of cstr_model.h, coolant an MV, temperature a
//       CV in a band, 10 steps, NODES 3) and the tank-level controller of examples/mpc, as
//       whole `kestrix` processes: IMODE 6 (simultaneous) against IMODE 9 (single shooting),
//       a cold cycle and a warm one after it, SOLVER 3. Iterations, solver and process time
//       (the best of five runs), the ratios, and the objective difference. The same for the
//       tank's valve estimated from a data window of 200 and 2,000 steps: IMODE 5 against 8.
//   (3) Sensitivity analysis (analysis/sensitivity: one factorisation, one solve per input) on
//       a square 1,000-variable steady-state model with 5 inputs, against central finite
//       differences of Newton re-solves: largest difference of the derivatives and the ratio
//       of the times (each the best of five).
//
//   bench_sequential [--quick]      (--quick: (1) stops at 1,000 steps)
#include <chrono>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "analysis/sensitivity.h"
#include "base/report.h"
#include "cstr_model.h"
#include "horizon/horizon.h"
#include "horizon/sequential.h"
#include "model/access.h"
#include "model/block_newton.h"
#include "model/builder.h"
#include "process_bench.h"
#include "reactor_model.h"
#include "solvers/dispatch.h"
#include "solvers/model_problem.h"

namespace kx::bench {
namespace {

double Seconds(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

int VariableNumber(const model::ModelStore& base, const std::string& name) {
  for (int n = 1; n <= base.nvar; ++n)
    if (base.Var(n).name == name) return n;
  return 0;
}

// ----- (1) simulation -----

constexpr double kHorizon = 5.0;  // time units simulated

model::ModelStore Reactor() {
  std::string text = kReactorModel;
  auto set = [&](const std::string& from, const std::string& to) {
    text.replace(text.find(from), from.size(), to);
  };
  set("ca = 0.87", "ca = 0.8");  // start away from the steady state
  set("t = 324.5", "t = 335");
  OutputCapture quiet;
  return model::BuildModelFromText(text, {});
}

horizon::Horizon ReactorHorizon(const model::ModelStore& base, int steps) {
  horizon::HorizonSettings s;
  s.nodes = 3;
  s.ctrl_hor = s.pred_hor = steps;
  s.ctrl_time = s.pred_time = kHorizon / steps;
  OutputCapture quiet;
  return horizon::Replicate(base, horizon::BuildTimeGrid(s, nullptr), nullptr, 0);
}

struct Trajectory {
  double seconds = 0;
  bool ok = false;
  int iterations = 0;
  std::vector<double> ca, t;  // every time point
};

void ReadTrajectory(const model::ModelStore& base, const horizon::Horizon& h, Trajectory* r) {
  const int ca = VariableNumber(base, "ca"), t = VariableNumber(base, "t");
  for (int p = 0; p < h.grid.num_points(); ++p) {
    r->ca.push_back(h.store.Var(h.Number(p, ca)).val);
    r->t.push_back(h.store.Var(h.Number(p, t)).val);
  }
}

// Replication excluded from both timings; the structures are part of each solve.
Trajectory Simultaneous(const model::ModelStore& base, int steps) {
  horizon::Horizon h = ReactorHorizon(base, steps);
  Trajectory r;
  const Clock::time_point t0 = Clock::now();
  model::ModelAccess access(h.store);
  solvers::ModelProblem problem(access, /*dynamic=*/true, "cstr");
  solvers::SolverSettings settings{.constraint_tol = 1e-9, .max_iter = 200};
  {
    OutputCapture quiet;
    solvers::SolverResult s = solvers::DispatchSolver(3, problem, settings);
    r.ok = s.status == 0;
    r.iterations = s.iterations;
    problem.Store(s.x, s.lambda);
  }
  r.seconds = Seconds(t0);
  ReadTrajectory(base, h, &r);
  return r;
}

Trajectory StepByStep(const model::ModelStore& base, int steps) {
  horizon::Horizon h = ReactorHorizon(base, steps);
  Trajectory r;
  const Clock::time_point t0 = Clock::now();
  model::ModelAccess access(h.store);
  horizon::SequentialSettings settings{.tolerance = 1e-9, .max_iter = 50, .accept = 1e-7};
  const horizon::SequentialOutcome out = horizon::SimulateStepByStep(h, base, access, settings);
  r.seconds = Seconds(t0);
  r.ok = out.ok;
  r.iterations = out.iterations;
  if (!out.ok)
    Sayf("  step {} of the step-by-step simulation failed: {}", out.failed_step, out.why);
  ReadTrajectory(base, h, &r);
  return r;
}

double LargestDifference(const std::vector<double>& a, const std::vector<double>& b) {
  double d = 0;
  for (size_t i = 0; i < std::min(a.size(), b.size()); ++i) d = std::max(d, std::abs(a[i] - b[i]));
  return d;
}

void SimulationTable(bool quick) {
  const model::ModelStore base = Reactor();
  Say("(1) Reactor DAE over 5 time units, NODES 3, tolerance 1e-9: simultaneous (Ipopt) "
      "against step by step");
  Say("  steps  simult. ms  iter  sequential ms  Newton it  simult./seq.  max |d ca|  "
      "max |d T|");
  for (int steps : {100, 1000, 10000}) {
    if (quick && steps > 1000) break;
    const Trajectory sim = Simultaneous(base, steps), seq = StepByStep(base, steps);
    Sayf("  {:>5}  {:>10.1f}  {:>4}  {:>13.1f}  {:>9}  {:>12.2f}  {:>10.2e}  {:>9.2e}{}", steps,
         1e3 * sim.seconds, sim.iterations, 1e3 * seq.seconds, seq.iterations,
         sim.seconds / seq.seconds, LargestDifference(sim.ca, seq.ca),
         LargestDifference(sim.t, seq.t), sim.ok && seq.ok ? "" : "  (a solve failed)");
  }
}

// ----- (2) control -----

const std::string kTankModel =
    "Model mpc\n  Parameters\n    inflow = 1, >= 0, <= 3\n    valve = 0.5, >= 0.05, <= 5\n"
    "    area = 0.5\n  End Parameters\n  Variables\n    level = 4, >= 0\n    outflow = 1\n"
    "  End Variables\n  Equations\n    outflow = valve * sqrt(level)\n"
    "    area * $level = inflow - outflow\n  End Equations\nEnd Model\n";

const std::string kTankSettings =
    "ZPM.NODES = 3\nZPM.CSV_READ = 0\nZPM.CTRL_HOR = 10\nZPM.PRED_HOR = 10\n"
    "ZPM.CTRL_TIME = 0.5\nZPM.PRED_TIME = 0.5\nZPM.CV_TYPE = 1\ninflow.STATUS = 1\n"
    "inflow.DCOST = 0.05\ninflow.DMAX = 0.3\ninflow.LOWER = 0\ninflow.UPPER = 3\n"
    "level.STATUS = 1\nlevel.SPHI = 3.1\nlevel.SPLO = 2.9\nlevel.TAU = 0.5\nlevel.TR_INIT = 0\n";

const std::string kCstrSettings =
    "ZPM.NODES = 3\nZPM.CSV_READ = 0\nZPM.CTRL_HOR = 10\nZPM.PRED_HOR = 10\n"
    "ZPM.CTRL_TIME = 0.2\nZPM.PRED_TIME = 0.2\nZPM.CV_TYPE = 1\ntc.STATUS = 1\n"
    "tc.DCOST = 0.1\ntc.DMAX = 5\ntc.LOWER = 280\ntc.UPPER = 320\nt.STATUS = 1\n"
    "t.SPHI = 328\nt.SPLO = 327\nt.TAU = 0.5\n";

// One application of the comparison: `csv` (when not empty) is its data file.
struct Controller {
  std::string app, model, info, settings, csv;
  std::string label;  // as the table names it
};

struct Cycle {
  int iterations = 0;
  double objective = 0, solver = 0, process = 0;
  bool ok = false;
};

// One cycle of `c` in the current directory in IMODE `imode`.
Cycle RunCycle(const Controller& c) {
  const ProcessRun run = RunProcess({KestrixPath(), c.app}, "console.txt", 120);
  const std::string console = ReadText("console.txt");
  const std::map<std::string, double> timers = TimersOf(console, false);
  Cycle r;
  r.ok = run.status == 1;
  r.process = run.seconds;
  r.solver = timers.count("Solver") ? timers.at("Solver") : -1;
  r.iterations = static_cast<int>(ReadDbsValue(c.app + ".dbs", "ZPM.ITERATIONS"));
  r.objective = ReadDbsValue(c.app + ".dbs", "ZPM.OBJFCNVAL");
  return r;
}

// A cold and a warm cycle of `c` in a fresh folder.
std::vector<Cycle> RunCycles(const Controller& c, int imode, const fs::path& dir) {
  fs::remove_all(dir);
  fs::create_directories(dir);
  const fs::path back = fs::current_path();
  fs::current_path(dir);
  WriteText(c.app + ".zpm", c.model);
  WriteText(c.app + ".info", c.info);
  if (!c.csv.empty()) WriteText(c.app + ".csv", c.csv);
  WriteText(c.app + ".dbs", fmt::format("ZPM.IMODE = {}\nZPM.SOLVER = 3\nZPM.DIAGLEVEL = 1\n"
                                        "ZPM.RTOL = 1e-6\n{}",
                                        imode, c.settings));
  std::vector<Cycle> cycles = {RunCycle(c), RunCycle(c)};
  fs::current_path(back);
  return cycles;
}

// The fastest of kRepeats runs of the pair of cycles (the machine is shared): times are the
// smallest seen, iterations and objectives those of the first run.
constexpr int kRepeats = 5;

std::vector<Cycle> BestOf(const Controller& c, int imode, const fs::path& dir) {
  std::vector<Cycle> best = RunCycles(c, imode, dir);
  for (int r = 1; r < kRepeats; ++r) {
    const std::vector<Cycle> again = RunCycles(c, imode, dir);
    for (size_t k = 0; k < best.size(); ++k) {
      best[k].solver = std::min(best[k].solver, again[k].solver);
      best[k].process = std::min(best[k].process, again[k].process);
      best[k].ok = best[k].ok && again[k].ok;
    }
  }
  return best;
}

// Level measurements of a tank draining through a valve of coefficient 0.6 (the model's
// starts at 0.5) under a wandering inflow, one row every 0.5 h, with a deterministic noise.
std::string TankWindow(int steps) {
  std::string csv = "time,inflow,level\n";
  double level = 4.0;
  for (int i = 0; i <= steps; ++i) {
    const double inflow = 1.0 + 0.4 * std::sin(i / 3.0);
    if (i > 0)
      for (int k = 0; k < 10; ++k) level += 0.05 * (inflow - 0.6 * std::sqrt(level)) / 0.5;
    csv += fmt::format("{},{},{}\n", 0.5 * i, inflow, level + 0.01 * std::sin(7.0 * i));
  }
  return csv;
}

const std::string kWindowSettings =
    "ZPM.NODES = 3\nZPM.CSV_READ = 1\nZPM.EV_TYPE = 2\nvalve.STATUS = 1\nlevel.FSTATUS = 1\n";

// `simultaneous` against `shooting` (IMODE) on each application.
void ComparisonTable(const std::vector<Controller>& apps, int simultaneous, int shooting,
                     const fs::path& work) {
  Sayf(
      "  model       cycle  iter {0}  iter {1}  solver ms {0}  solver ms {1}  ratio {1}/{0}  "
      "process ms {0}  process ms {1}  |objective {1} - {0}|",
      simultaneous, shooting);
  for (const Controller& c : apps) {
    const std::vector<Cycle> a = BestOf(c, simultaneous, work / (c.app + "_a"));
    const std::vector<Cycle> b = BestOf(c, shooting, work / (c.app + "_b"));
    for (size_t k = 0; k < a.size(); ++k) {
      Sayf(
          "  {:<10}  {:<5}  {:>6}  {:>6}  {:>11.1f}  {:>11.1f}  {:>9.2f}  {:>12.1f}  "
          "{:>12.1f}  {:>16.2e}{}",
          c.label, k == 0 ? "cold" : "warm", a[k].iterations, b[k].iterations, 1e3 * a[k].solver,
          1e3 * b[k].solver, b[k].solver / a[k].solver, 1e3 * a[k].process, 1e3 * b[k].process,
          std::abs(b[k].objective - a[k].objective),
          a[k].ok && b[k].ok ? "" : "  (a cycle failed)");
    }
  }
}

void ControlTable(const fs::path& work) {
  const std::string tank_info = "FV, valve\nMV, inflow\nCV, level\nSV, outflow\n";
  const std::vector<Controller> controllers = {
      {"mpc", kTankModel, tank_info, kTankSettings, "", "tank"},
      {"cstr", cstr::ModelText("300, >= 280, <= 320", "2.092"), "MV, tc\nCV, t\n", kCstrSettings,
       "", "cstr"}};
  Say("");
  Sayf(
      "(2) Small MPC, 10 steps, NODES 3, Ipopt: simultaneous (IMODE 6) against single "
      "shooting (IMODE 9); times the best of {} runs",
      kRepeats);
  ComparisonTable(controllers, 6, 9, work);
  std::vector<Controller> estimators;
  for (int steps : {200, 2000})
    estimators.push_back({"mpc", kTankModel, tank_info, kWindowSettings, TankWindow(steps),
                          fmt::format("tank {}", steps)});
  Sayf(
      "    and the tank's valve estimated over a data window of 200 and 2000 steps (one free "
      "FV, EV_TYPE 2): IMODE 5 against IMODE 8");
  ComparisonTable(estimators, 5, 8, work);
}

// ----- (3) sensitivity analysis -----

constexpr int kChain = 1000, kInputs = 5;

// x[i] + 0.1 x[i]^3 = 0.5 x[i-1] + 0.2 p[k] sin(x[i-1]) + 0.1 p[k'] ... a nonlinear chain
// in which every input reaches most of the variables.
model::ModelStore SensitivityModel() {
  std::string text = "Model chain\n  Parameters\n";
  for (int k = 1; k <= kInputs; ++k) text += fmt::format("    p{} = {}\n", k, 0.5 + 0.1 * k);
  text += "  End Parameters\n  Variables\n";
  for (int i = 1; i <= kChain; ++i) text += fmt::format("    x{} = 1\n", i);
  text += "  End Variables\n  Equations\n    x1 + 0.1*x1^3 = p1\n";
  for (int i = 2; i <= kChain; ++i) {
    const int k = (i % kInputs) + 1;
    text += fmt::format("    x{0} + 0.1*x{0}^3 = 0.5*x{1} + 0.2*p{2}*sin(x{1}) + 0.1*p{2}\n", i,
                        i - 1, k);
  }
  text += "  End Equations\nEnd Model\n";
  OutputCapture quiet;
  return model::BuildModelFromText(text, {});
}

bool SolveChain(model::ModelAccess& access) {
  std::vector<int> rows, cols;
  for (int e = 0; e < access.num_eqns(); ++e) rows.push_back(e);
  for (int n = 1; n <= access.nvar(); ++n)
    if (!access.store().Var(n).fixed) cols.push_back(n);
  model::BlockNewton newton(access);
  return newton.Solve(rows, cols, {.tolerance = 1e-13, .max_iter = 50}).ok;
}

// Central differences: two Newton re-solves per input from the solution. `largest` gets the
// largest difference from the analytic derivatives, `scale` the largest of those.
void FiniteDifferences(model::ModelAccess& access,
                       const std::vector<analysis::SensitivityInput>& inputs,
                       const analysis::Sensitivities& s, double step,
                       const std::vector<double>& solution, double* largest, double* scale) {
  model::ModelStore& store = access.store();
  for (int j = 0; j < static_cast<int>(inputs.size()); ++j) {
    model::Variable& p = store.Var(inputs[j].numbers[0]);
    std::vector<double> plus, minus;
    for (double sign : {1.0, -1.0}) {
      for (int n = 1; n <= store.nvar; ++n) store.Var(n).val = solution[n - 1];
      p.val += sign * step;
      SolveChain(access);
      std::vector<double>& out = sign > 0 ? plus : minus;
      for (int n : s.numbers) out.push_back(store.Var(n).val);
    }
    p.val = solution[inputs[j].numbers[0] - 1];
    for (size_t i = 0; i < s.numbers.size(); ++i) {
      const double fd = (plus[i] - minus[i]) / (2 * step);
      *largest = std::max(*largest, std::abs(fd - s.values[j][i]));
      *scale = std::max(*scale, std::abs(s.values[j][i]));
    }
  }
}

void SensitivityTable() {
  model::ModelStore store = SensitivityModel();
  model::ModelAccess access(store);
  if (!SolveChain(access)) {
    Say("(3) the chain did not solve");
    return;
  }
  std::vector<analysis::SensitivityInput> inputs;
  for (int k = 1; k <= kInputs; ++k) {
    const std::string name = fmt::format("p{}", k);
    inputs.push_back({name, {VariableNumber(store, name)}});
  }
  // Both timings are the best of kRepeats (the machine is shared).
  std::optional<analysis::Sensitivities> s;
  double analytic = 1e30;
  for (int r = 0; r < kRepeats; ++r) {
    const Clock::time_point t0 = Clock::now();
    OutputCapture quiet;
    s = analysis::ComputeSensitivities(access, /*dynamic=*/false, inputs);
    analytic = std::min(analytic, Seconds(t0));
  }
  if (!s) {
    Say("(3) no sensitivities");
    return;
  }
  constexpr double kStep = 1e-6;
  std::vector<double> solution(store.nvar);
  for (int n = 1; n <= store.nvar; ++n) solution[n - 1] = store.Var(n).val;
  double largest = 0, scale = 0, differences = 1e30;
  for (int r = 0; r < kRepeats; ++r) {
    const Clock::time_point t0 = Clock::now();
    FiniteDifferences(access, inputs, *s, kStep, solution, &largest, &scale);
    differences = std::min(differences, Seconds(t0));
  }

  Say("");
  Sayf("(3) Sensitivities of a {}-variable square model to {} inputs", kChain, kInputs);
  Say("  analytic ms  finite-difference ms  ratio fd/analytic  largest |d|  largest |dx/dp|");
  Sayf("  {:>11.2f}  {:>20.2f}  {:>17.1f}  {:>11.2e}  {:>15.3f}", 1e3 * analytic, 1e3 * differences,
       differences / analytic, largest, scale);
}

}  // namespace
}  // namespace kx::bench

int main(int argc, char** argv) {
  bool quick = false;
  for (int i = 1; i < argc; ++i) quick = quick || std::strcmp(argv[i], "--quick") == 0;
  const kx::bench::fs::path work =
      kx::bench::fs::temp_directory_path() / fmt::format("kx_bench_sequential_{}", getpid());
  kx::bench::SimulationTable(quick);
  kx::bench::ControlTable(work);
  kx::bench::SensitivityTable();
  kx::bench::fs::remove_all(work);
  return 0;
}
