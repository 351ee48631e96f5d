#include "driver/model_stage.h"

#include <algorithm>
#include <filesystem>
#include <unordered_map>

#include "base/report.h"
#include "base/text.h"
#include "base/timers.h"
#include "driver/classes.h"
#include "driver/solve_stage.h"
#include "files/file_routine.h"
#include "files/restart.h"
#include "model/access.h"
#include "model/builder.h"
#include "model/diagnostics.h"
#include "model/routines.h"
#include "solvers/model_problem.h"

namespace kx::driver {
namespace {

// The run options the prologue read, and SCALING, for the model builder.
model::BuildOptions BuildOptionsOf(const CycleState& state) {
  model::BuildOptions opts;
  opts.diaglevel = state.diaglevel;
  // The storage level is an exponent of 10; outside 2..10 the nearer limit applies.
  const int requested = state.max_memory;
  opts.max_memory = std::clamp(requested, 2, 10);
  if (opts.max_memory != requested)
    Sayf("WARNING: MAX_MEMORY {} outside 2-10, using {}", requested, opts.max_memory);
  opts.stream_level = state.stream_level;
  opts.scaling = state.store.Int("SCALING");
  return opts;
}

// Kind of a model name for the info-file check: 0 unknown, 1 parameter, 2 variable.
files::ModelKindFn ModelKind(const model::ModelStore& store) {
  auto names = std::make_shared<std::unordered_map<std::string, int>>();
  for (const model::Variable& v : store.vars) {
    int kind = v.vtype == model::kVarParameter ? 1 : 2;
    names->emplace(v.name, kind);
    for (const std::string& alias : v.aliases) names->emplace(alias, kind);
  }
  return [names](std::string_view name) {
    auto it = names->find(std::string(name));
    return it == names->end() ? 0 : it->second;
  };
}

// Variable classes from APP.info, now checked against the model's names and kinds.
void ReadVariableClasses(CycleState& state, const model::ModelStore& store) {
  state.files->set_model_kind(ModelKind(store));
  std::string info = state.app + ".info";
  if (std::filesystem::exists(info)) files::zpm_files(35, info);
}

// Sizes and values a solver starts from. The builder has evaluated the residuals already.
void ReportStartingPoint(model::ModelAccess& access, int diaglevel) {
  Sayf("Number of variables   : {}", access.nvar());
  Sayf("Number of constraints : {}", access.NumRows());
  Sayf("Jacobian non-zeros    : {}", model::zpm_nnz(access, 1));
  Sayf("Hessian non-zeros     : {}", model::zpm_nnzh(access, 1));
  Sayf("Objective at start    : {}", FormatReal(access.Objective(false)));
  if (diaglevel >= 1) model::zpm_dof(access, 2);
  const lang::DomainErrors& errors = access.store().start_errors;
  if (errors.Total() > 0) errors.Report();
}

int NotSolved(CycleState& state, std::string_view what) {
  Sayf("The {} is not available yet: the model was built and checked, nothing was solved.",
       what);
  state.store.SetGlobal("APPSTATUS", 0);
  state.store.SetGlobal("SOLVESTATUS", 0);
  return -1;
}

// The steady-state initial condition: "rto.t0" when it exists, else "ss.t0". A warm start
// reads values and, with SPECS, the fixed/calculated marks (smart read); a cold start reads
// the values by root name only. True when a warm start read a file.
bool ReadRestartFile(const CycleState& state) {
  const bool cold = state.store.Int("COLDSTART") > 0;
  const std::string file = std::filesystem::exists("rto.t0") ? "rto.t0" : "ss.t0";
  if (!std::filesystem::exists(file)) {
    if (!cold) Say("WARNING: restart file not found - " + file);
    return false;
  }
  const bool specs = state.flags.specs != 0;
  return files::zpm_files(cold ? 4 : (specs ? 8 : 1), file) == 0 && !cold;
}

// Derivative verification runs by DIAGLEVEL before the solve; it is not built yet.
void DerivativeChecks(int diaglevel) {
  if (diaglevel >= 5)
    Sayf("Derivative checks (DIAGLEVEL {}) are not available yet: no check was run", diaglevel);
}

// Multipliers of a warm start from "lam.t0", when that file exists.
void ReadStartMultipliers(const CycleState& state, model::ModelAccess& access,
                          solvers::ModelProblem& problem) {
  if (state.store.Int("COLDSTART") > 0 || !std::filesystem::exists("lam.t0")) return;
  if (files::zpm_files(12, "lam.t0") != 0) return;
  problem.start_multipliers.resize(access.NumRows());
  for (int r = 1; r <= access.NumRows(); ++r)
    problem.start_multipliers[r - 1] = access.Row(r).lambda;
}

int SolveSteadyState(CycleState& state, CycleModel& m) {
  const int imode = state.flags.imode;
  const bool warm = ReadRestartFile(state);
  if (state.flags.dbs_read != 0) ApplyClassesToModel(state.store, imode, m.base);
  model::ModelAccess& access = *m.access;
  access.Invalidate();
  {
    ScopedTimer timer("Structure and starting point");
    model::EvaluateInitialState(&m.base);
    ReportStartingPoint(access, state.diaglevel);
  }
  if (state.diaglevel >= 2) model::WriteSparsityListing(access, "model_sparsity.txt");
  DerivativeChecks(state.diaglevel);
  solvers::ModelProblem problem(access, /*dynamic=*/false, state.app);
  ReadStartMultipliers(state, access, problem);
  const SolveOutcome out = SolveProblem(state.store, imode, warm, problem, access);
  WriteModelToClasses(m.base, state.store);
  // The restart file and the multipliers in "lam.t0" carry a good solution to the next
  // cycle's warm start; at DIAGLEVEL >= 2 the restart file is written after a failed solve
  // too, so the last iterate can be inspected.
  if (out.status == 0 || state.diaglevel >= 2) files::zpm_files(2, state.mode_word + ".t0");
  if (out.status == 0) files::WriteMultipliers("lam.t0", access);
  return out.status;
}

}  // namespace

int RunModelStage(CycleState& state) {
  auto m = std::make_unique<CycleModel>();
  {
    ScopedTimer timer("Model build");
    m->base = model::BuildModel(state.model_file, BuildOptionsOf(state));
  }
  ReadVariableClasses(state, m->base);
  if (state.diaglevel >= 2) model::WriteByteCodeListing(m->base, "model_bytecode.txt");
  m->access = std::make_unique<model::ModelAccess>(m->base);
  state.files->set_model(m->access.get());
  state.model = std::move(m);
  const int imode = state.flags.imode;
  if (imode == 2) return NotSolved(state, "data-set mode (IMODE 2, parameter estimation)");
  if (imode >= 4) return NotSolved(state, "time horizon for dynamic modes");
  return SolveSteadyState(state, *state.model);
}

}  // namespace kx::driver
