#include "driver/model_stage.h"

#include <algorithm>
#include <filesystem>
#include <unordered_map>

#include "base/report.h"
#include "base/text.h"
#include "base/timers.h"
#include "files/file_routine.h"
#include "model/access.h"
#include "model/builder.h"
#include "model/diagnostics.h"
#include "model/routines.h"

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

// Structures and values a solver would start from: sizes, objective, degrees of freedom. The
// builder has evaluated the residuals at the starting point already.
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

}  // namespace

int RunModelStage(CycleState& state) {
  const int diaglevel = state.diaglevel;
  model::ModelStore store = [&] {
    ScopedTimer timer("Model build");
    return model::BuildModel(state.model_file, BuildOptionsOf(state));
  }();
  ReadVariableClasses(state, store);
  if (diaglevel >= 2) model::WriteByteCodeListing(store, "model_bytecode.txt");
  if (state.flags.imode >= 4) return NotSolved(state, "time horizon for dynamic modes");
  model::ModelAccess access(store);
  {
    ScopedTimer timer("Structure and starting point");
    ReportStartingPoint(access, diaglevel);
  }
  if (diaglevel >= 2) model::WriteSparsityListing(access, "model_sparsity.txt");
  return NotSolved(state, "solver stage");
}

}  // namespace kx::driver
