// Dynamic simulation of a stiff nonlinear DAE (the cooled stirred-tank reactor of
// reactor_model.h) as a cycle does it: replicate over the horizon, build the structures,
// solve the square system with Ipopt.
//
// Part 1, growth: the same 5 time units in 100, 1000 and 10000 steps with NODES = 3 from a
// start away from the steady state (every copy starts at the initial values). Time of each phase and growth of the peak resident memory, with their ratios
// per tenfold increase of the step count (linear growth gives ratios near 10). The solve is
// also given in processor time, which other work on the machine disturbs less.
// Part 2, accuracy: the same reactor over 2 time units in 20 equal steps for NODES 2 to 6,
// against an independent integrator (CVODE, BDF, tolerances 1e-12): the largest deviation of
// the concentration and of the temperature at the step ends, which must fall as NODES (the
// order of the collocation) rises.
//
// Usage: bench_simulation [--quick] [--solver N]
//   --quick stops the growth table at 1000 steps; --solver picks the growth table's solver
//   (1 ASOPT, 2 BIOPT, 3 Ipopt: the default); the accuracy table always uses Ipopt.
#include <cvode/cvode.h>
#include <nvector/nvector_serial.h>
#include <sunlinsol/sunlinsol_dense.h>
#include <sunmatrix/sunmatrix_dense.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <cmath>
#include <string>
#include <vector>

#include "base/report.h"
#include "horizon/horizon.h"
#include "model/builder.h"
#include "reactor_model.h"
#include "solvers/dispatch.h"
#include "solvers/ipopt_call.h"
#include "solvers/model_problem.h"

namespace kx::bench {
namespace {

// The reactor's parameters, as in the model text.
constexpr double kQ = 100, kV = 100, kRho = 1000, kCp = 0.239, kMdelh = 5e4, kEr = 8750,
                 kK0 = 7.2e10, kUa = 5e4, kTf = 350, kCaf = 1, kTc = 300;
constexpr double kCa0 = 0.8, kT0 = 335;  // the start, away from the steady state
int g_solver = 3;  // solver number of the growth table (--solver N)
constexpr double kHorizon = 5.0;         // time units simulated in the growth table

double Seconds(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Processor time of this process: steadier than wall time on a shared machine.
double CpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return t.tv_sec + 1e-9 * t.tv_nsec;
}

long PeakKilobytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

model::ModelStore Reactor() {
  std::string text = kReactorModel;
  auto set = [&](const std::string& from, const std::string& to) {
    text.replace(text.find(from), from.size(), to);
  };
  set("ca = 0.87", "ca = " + std::to_string(kCa0));
  set("t = 324.5", "t = " + std::to_string(kT0));
  OutputCapture quiet;
  return model::BuildModelFromText(text, {});
}

horizon::TimeGrid Grid(int steps, double dt, int nodes) {
  horizon::HorizonSettings s;
  s.nodes = nodes;
  s.ctrl_hor = s.pred_hor = steps;
  s.ctrl_time = s.pred_time = dt;
  OutputCapture quiet;
  return horizon::BuildTimeGrid(s, nullptr);
}

struct Simulation {
  double replicate = 0, structure = 0, solve = 0, solve_cpu = 0;
  int status = -1, iterations = 0, unknowns = 0;
  std::vector<double> ca, t;  // at the step ends (the start first)
};

Simulation Simulate(const model::ModelStore& base, int steps, double dt, int nodes, int solver) {
  Simulation r;
  auto t0 = std::chrono::steady_clock::now();
  horizon::Horizon h = horizon::Replicate(base, Grid(steps, dt, nodes), nullptr, 0);
  r.replicate = Seconds(t0);
  t0 = std::chrono::steady_clock::now();
  model::ModelAccess access(h.store);
  access.Jacobian(model::Shape::kReduced);
  access.Hessian(model::Shape::kReduced);
  r.structure = Seconds(t0);
  solvers::ModelProblem problem(access, /*dynamic=*/true, "cstr");
  solvers::SolverSettings settings{.constraint_tol = 1e-9, .max_iter = 200};
  r.unknowns = problem.num_vars();
  t0 = std::chrono::steady_clock::now();
  const double cpu0 = CpuSeconds();
  {
    OutputCapture quiet;
    solvers::SolverResult s = solvers::DispatchSolver(solver, problem, settings);
    r.status = s.status;
    r.iterations = s.iterations;
    problem.Store(s.x, s.lambda);
  }
  r.solve = Seconds(t0);
  r.solve_cpu = CpuSeconds() - cpu0;
  auto number = [&](const char* name) {
    for (int n = 1; n <= base.nvar; ++n)
      if (base.Var(n).name == name) return n;
    return 0;
  };
  for (int k = 0; k <= steps; ++k) {
    const int point = k * (nodes - 1);
    r.ca.push_back(h.store.Var(h.Number(point, number("ca"))).val);
    r.t.push_back(h.store.Var(h.Number(point, number("t"))).val);
  }
  return r;
}

// The reactor as an explicit ODE for the reference integrator.
int ReactorRhs(sunrealtype, N_Vector y, N_Vector dy, void*) {
  const double ca = NV_Ith_S(y, 0), t = NV_Ith_S(y, 1);
  const double rate = kK0 * std::exp(-kEr / t) * ca;
  NV_Ith_S(dy, 0) = (kQ * (kCaf - ca) - kV * rate) / kV;
  NV_Ith_S(dy, 1) =
      (kQ * kRho * kCp * (kTf - t) + kMdelh * kV * rate + kUa * (kTc - t)) / (kRho * kCp * kV);
  return 0;
}

// CVODE (BDF, dense Newton) at the step ends.
void Reference(int steps, double dt, std::vector<double>* ca, std::vector<double>* t) {
  SUNContext ctx;
  SUNContext_Create(nullptr, &ctx);
  N_Vector y = N_VNew_Serial(2, ctx);
  NV_Ith_S(y, 0) = kCa0;
  NV_Ith_S(y, 1) = kT0;
  void* mem = CVodeCreate(CV_BDF, ctx);
  CVodeInit(mem, ReactorRhs, 0.0, y);
  CVodeSStolerances(mem, 1e-12, 1e-12);
  CVodeSetMaxNumSteps(mem, 1000000);
  SUNMatrix a = SUNDenseMatrix(2, 2, ctx);
  SUNLinearSolver ls = SUNLinSol_Dense(y, a, ctx);
  CVodeSetLinearSolver(mem, ls, a);
  ca->assign(1, kCa0);
  t->assign(1, kT0);
  for (int k = 1; k <= steps; ++k) {
    sunrealtype reached = 0;
    CVode(mem, k * dt, y, &reached, CV_NORMAL);
    ca->push_back(NV_Ith_S(y, 0));
    t->push_back(NV_Ith_S(y, 1));
  }
  SUNLinSolFree(ls);
  SUNMatDestroy(a);
  N_VDestroy(y);
  CVodeFree(&mem);
  SUNContext_Free(&ctx);
}

std::string Ratio(double now, double before) {
  return before > 0 ? fmt::format("{:6.2f}", now / before) : std::string("     -");
}

void GrowthTable(const model::ModelStore& base, bool quick) {
  Sayf("Growth: reactor DAE over {} time units, NODES 3, solved with {} (tol 1e-9)", kHorizon,
       solvers::SolverDisplayName(g_solver));
  Say("  steps   unknowns  replicate ms  ratio  structure ms  ratio   solve ms  ratio"
      "  solve cpu ms  ratio  iter  peak MB  ratio");
  Simulation previous;
  double previous_mb = 0;
  const long start = PeakKilobytes();
  for (int steps : {100, 1000, 10000}) {
    if (quick && steps > 1000) break;
    Simulation s = Simulate(base, steps, kHorizon / steps, 3, g_solver);
    const double mb = (PeakKilobytes() - start) / 1024.0;
    Sayf("  {:>5}  {:>9}  {:>12.2f} {}  {:>12.2f} {}  {:>9.1f} {}  {:>12.1f} {}  {:>4}  {:>7.1f} {}{}",
         steps, s.unknowns, 1e3 * s.replicate, Ratio(s.replicate, previous.replicate),
         1e3 * s.structure, Ratio(s.structure, previous.structure), 1e3 * s.solve,
         Ratio(s.solve, previous.solve), 1e3 * s.solve_cpu, Ratio(s.solve_cpu, previous.solve_cpu),
         s.iterations, mb, Ratio(mb, previous_mb),
         s.status == 0 ? "" : fmt::format("  (solve failed: {})", s.status));
    previous = s;
    previous_mb = mb;
  }
}

void AccuracyTable(const model::ModelStore& base) {
  constexpr int kSteps = 20;
  constexpr double kDt = 0.1;
  std::vector<double> ref_ca, ref_t;
  Reference(kSteps, kDt, &ref_ca, &ref_t);
  Sayf("Accuracy: {} steps of {} against CVODE (BDF, tolerances 1e-12)", kSteps, kDt);
  Say("  NODES   max |ca error|   max |T error|   ratio to NODES-1");
  double previous = 0;
  for (int nodes = 2; nodes <= 6; ++nodes) {
    Simulation s = Simulate(base, kSteps, kDt, nodes, /*solver=*/3);
    double err_ca = 0, err_t = 0;
    for (int k = 0; k <= kSteps; ++k) {
      err_ca = std::max(err_ca, std::abs(s.ca[k] - ref_ca[k]));
      err_t = std::max(err_t, std::abs(s.t[k] - ref_t[k]));
    }
    Sayf("  {:>5}   {:>14.3e}   {:>13.3e}   {}{}", nodes, err_ca, err_t,
         previous > 0 ? fmt::format("{:.2e}", err_t / previous) : std::string("-"),
         s.status == 0 ? "" : "  (solve failed)");
    previous = err_t;
  }
}

}  // namespace
}  // namespace kx::bench

int main(int argc, char** argv) {
  bool quick = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--quick") quick = true;
    if (arg == "--solver" && i + 1 < argc) kx::bench::g_solver = std::atoi(argv[++i]);
  }
  const kx::model::ModelStore base = kx::bench::Reactor();
  kx::bench::GrowthTable(base, quick);
  kx::bench::AccuracyTable(base);
  kx::FlushOutput();
  return 0;
}
