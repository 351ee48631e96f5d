#include "driver/shooting_stage.h"

#include <chrono>

#include "base/report.h"
#include "base/timers.h"
#include "horizon/shooting.h"
#include "solvers/dispatch.h"

namespace kx::driver {
namespace {

// The reduced program as the solvers see it.
class ShootingProblem : public solvers::Problem {
 public:
  explicit ShootingProblem(horizon::Shooting& s) : s_(s) {}

  std::string name() const override { return "shooting"; }
  int num_vars() override { return s_.num_vars(); }
  int num_cons() override { return s_.num_cons(); }
  int nnz_jac() override { return s_.nnz_jac(); }
  int nnz_hess() override { return s_.nnz_hess(); }
  bool has_hessian() override { return s_.has_hessian(); }
  void Bounds(std::span<double> xl, std::span<double> xu) override { s_.Bounds(xl, xu); }
  void ConstraintBounds(std::span<double> cl, std::span<double> cu) override {
    s_.ConstraintBounds(cl, cu);
  }
  void Start(std::span<double> x) override { s_.Start(x); }
  void JacobianStructure(std::span<int> rows, std::span<int> cols) override {
    s_.JacobianStructure(rows, cols);
  }
  void HessianStructure(std::span<int> rows, std::span<int> cols) override {
    s_.HessianStructure(rows, cols);
  }
  bool Objective(std::span<const double> x, double& f) override { return s_.Objective(x, f); }
  bool Gradient(std::span<const double> x, std::span<double> g) override {
    return s_.Gradient(x, g);
  }
  bool Constraints(std::span<const double> x, std::span<double> c) override {
    return s_.Constraints(x, c);
  }
  bool JacobianValues(std::span<const double> x, std::span<double> values) override {
    return s_.JacobianValues(x, values);
  }
  bool HessianValues(std::span<const double> x, double obj_factor, std::span<const double> lambda,
                     std::span<double> values) override {
    return s_.HessianValues(x, obj_factor, lambda, values);
  }

 private:
  horizon::Shooting& s_;
};

// The simulation inside the shooting solves its steps far below RTOL, so that the reduced rows
// and their derivatives are smooth functions of the inputs at the solver's tolerance (at 1e-9
// an estimator's line search failed near its optimum on the simulation's own error); a step
// whose rows are so large that rounding stops it short still counts within RTOL.
horizon::SequentialSettings SimulationSettings(const dbs::OptionStore& o) {
  horizon::SequentialSettings s;
  s.tolerance = std::min(1e-12, 1e-3 * o.Real("RTOL"));
  s.accept = o.Real("RTOL");
  return s;
}

// SOLVER 0 (every solver in turn) is not offered for the shooting: ASOPT solves.
// Without the model's second derivatives the reduced program has none either. Ipopt (3, 4)
// replaces them by its limited-memory update; ASOPT's diagonal estimate converges too slowly
// on the reduced program (a 10-step controller stopped at its iteration limit) and BIOPT needs
// them, so any other choice is then solved with Ipopt, and the run says so.
int ShootingSolver(int solver, bool has_hessian) {
  if (has_hessian || solver == 3 || solver == 4) return solver < 1 ? 1 : solver;
  Sayf(
      "Sequential estimation and control: SOLVER {} needs second derivatives, which this "
      "model does not supply; solving with IPOPT and its limited-memory Hessian",
      solver);
  return 3;
}

}  // namespace

SolveOutcome SolveShooting(CycleState& state, CycleModel& m, bool warm) {
  const int imode = state.flags.imode;
  model::ModelAccess& access = *m.access;
  access.Invalidate();
  std::optional<horizon::Shooting> shooting;
  {
    ScopedTimer timer("Structure and starting point");
    shooting.emplace(*m.horizon, m.base, access, SimulationSettings(state.store));
  }
  Sayf("Sequential (single shooting): {} inputs, {} unknowns, {} rows, {} states eliminated",
       shooting->num_inputs(), shooting->num_vars(), shooting->num_cons(), shooting->num_states());
  ShootingProblem problem(*shooting);
  const int solver = ShootingSolver(state.store.Int("SOLVER"), problem.has_hessian());
  const auto t0 = std::chrono::steady_clock::now();
  solvers::SolverResult r = [&] {
    ScopedTimer timer("Solver");
    return solvers::DispatchSolver(solver, problem, ReadSolverSettings(state.store, imode, warm));
  }();
  SolveOutcome out;
  out.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  out.status = r.status;
  out.iterations = r.iterations;
  std::vector<double> z = r.x;
  if (static_cast<int>(z.size()) != problem.num_vars()) {
    z.resize(problem.num_vars());
    problem.Start(z);
  }
  if (!shooting->Store(z, r.lambda) && out.status == 0) out.status = -1;
  Sayf("Sequential (single shooting): {} simulations", shooting->simulations());
  shooting.reset();  // the states' bounds back in the store
  ReportOutcome(state.store, access, solvers::SolverDisplayName(solver), out);
  return out;
}

}  // namespace kx::driver
