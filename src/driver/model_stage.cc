#include "driver/model_stage.h"

#include <algorithm>
#include <filesystem>
#include <unordered_map>

#include "base/report.h"
#include "base/text.h"
#include "base/timers.h"
#include "driver/classes.h"
#include "driver/solve_stage.h"
#include "driver/dynamic_stage.h"
#include "driver/stage_steps.h"
#include "files/file_routine.h"
#include "files/restart.h"
#include "horizon/data_file.h"
#include "model/access.h"
#include "model/builder.h"
#include "model/compile_cache.h"
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
  // The steady-state modes evaluate the starting point once the stored values are applied.
  const int imode = state.flags.imode;
  opts.evaluate_start = !(imode == 1 || imode == 3);
  return opts;
}

// Kind of a model name for the info-file check: 0 unknown, 1 parameter, 2 variable. The name
// table is made on the first question (a cycle without an info file asks none).
files::ModelKindFn ModelKind(const model::ModelStore& store) {
  auto names = std::make_shared<std::unordered_map<std::string, int>>();
  return [names, &store](std::string_view name) {
    if (names->empty()) {
      for (const model::Variable& v : store.vars) {
        int kind = v.vtype == model::kVarParameter ? 1 : 2;
        names->emplace(v.name, kind);
        for (const std::string& alias : v.aliases()) names->emplace(alias, kind);
      }
    }
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

// The data file in steady state: its first row gives the parameters (and, with CSV_READ = 2,
// the variables' starting values) that have a column. A column naming nothing in the model is
// reported once.
void ApplyDataRow(const CycleState& state, model::ModelStore& store) {
  const int csv_read = state.store.Int("CSV_READ");
  if (csv_read <= 0) return;
  std::optional<horizon::DataFile> data = horizon::ReadDataFile(state.app + ".csv");
  if (!data || data->num_rows == 0) return;
  std::unordered_map<std::string, model::Variable*> by_name;
  for (int n = 1; n <= store.nvar; ++n) by_name.emplace(store.Var(n).name, &store.Var(n));
  for (int c = 0; c < data->num_columns(); ++c) {
    const std::string& name = data->columns[c];
    if (name == "time") continue;
    auto it = by_name.find(name);
    if (it == by_name.end()) {
      Sayf("WARNING: data column \"{}\" is not a parameter or variable of the model: ignored",
           name);
      continue;
    }
    const double v = data->At(0, c);
    const bool parameter = it->second->vtype == model::kVarParameter;
    if (!horizon::DataFile::IsNoValue(v) && (parameter || csv_read >= 2)) it->second->val = v;
  }
}

int SolveSteadyState(CycleState& state, CycleModel& m) {
  const int imode = state.flags.imode;
  const bool warm = ReadRestartFile(state);
  ApplyDataRow(state, m.base);
  if (state.flags.dbs_read != 0) ApplyClassesToModel(state.store, imode, m.base);
  model::ModelAccess& access = *m.access;
  access.Invalidate();
  {
    ScopedTimer timer("Structure and starting point");
    model::EvaluateInitialState(&m.base);
    ReportStartingPoint(access, /*dynamic=*/false, state.diaglevel);
  }
  CheckSimulationDof(access, imode);
  const auto reduction = ReduceBeforeSolve(state, access, /*dynamic=*/false);
  if (state.diaglevel >= 2) model::WriteSparsityListing(access, "model_sparsity.txt");
  SolveOutcome out;
  {
    solvers::ModelProblem problem(access, /*dynamic=*/false, state.app);
    DerivativeChecks(state, access, problem, /*dynamic=*/false);
    ReadStartMultipliers(state, access, problem);
    out = SolveProblem(state.store, imode, warm, problem, access);
  }
  RestoreAfterSolve(access, reduction);
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
    m->base = model::BuildModelCached(state.model_file, BuildOptionsOf(state), state.app + ".zpc");
  }
  ReadVariableClasses(state, m->base);
  if (state.diaglevel >= 2) model::WriteByteCodeListing(m->base, "model_bytecode.txt");
  m->access = std::make_unique<model::ModelAccess>(m->base);
  state.files->set_model(m->access.get());
  state.model = std::move(m);
  const int imode = state.flags.imode;
  if (imode == 2) return SolveDataSets(state, *state.model);
  if (imode >= 4) return SolveDynamic(state, *state.model);
  return SolveSteadyState(state, *state.model);
}

}  // namespace kx::driver
