#include "driver/dynamic_stage.h"

#include <algorithm>
#include <filesystem>
#include <unordered_map>

#include "base/report.h"
#include "base/sentinels.h"
#include "base/timers.h"
#include "driver/solve_stage.h"
#include "driver/stage_steps.h"
#include "files/restart.h"
#include "horizon/horizon.h"
#include "model/checks.h"

namespace kx::driver {
namespace {

// Base-model record number of each name (aliases included, merges followed); 0 when unknown.
std::unordered_map<std::string, int> BaseNumbers(const model::ModelStore& base) {
  std::unordered_map<std::string, int> map;
  for (size_t i = 0; i < base.vars.size(); ++i) {
    const model::Variable& v = base.vars[i];
    const int number = base.vars[model::ResolveForward(base, static_cast<int>(i))].number;
    map.emplace(v.name, number);
    for (const std::string& a : v.aliases) map.emplace(a, number);
  }
  return map;
}

// The horizon's time points at the step boundaries: the start, then the end of every step.
std::vector<int> StepEnds(const horizon::TimeGrid& grid) {
  std::vector<int> points;
  for (int k = 0; k <= grid.num_steps(); ++k) points.push_back(k * (grid.nodes - 1));
  return points;
}

void WriteHorizonBack(dbs::OptionStore& options, const horizon::TimeGrid& grid) {
  options.SetGlobal("PRED_HOR", grid.num_steps());
  options.SetGlobal("CTRL_HOR", grid.ctrl_hor);
  options.SetHorizon(grid.num_steps());
}

// Whether a restart value may replace the copy's value: calculated copies, and the initial
// condition of a differential variable (fixed at the horizon start).
bool Restartable(const CycleModel& m, int number) {
  const horizon::Horizon& h = *m.horizon;
  const model::Variable& v = h.store.Var(number);
  if (v.vtype == model::kVarStepLength) return false;
  if (!v.fixed) return true;
  const int b = (number - 1) % h.vars_per_point + 1;
  return number <= h.vars_per_point && m.base.Var(b).diff;
}

// The previous solution over the same horizon layout, by name; with `shift` each copy takes
// the value its variable had that many points later (the last points keep their own).
void ApplyOwnRestart(CycleModel& m, const std::vector<files::RestartEntry>& entries, int shift) {
  std::unordered_map<std::string, double> values;
  for (const files::RestartEntry& e : entries) values[e.name] = e.value;
  horizon::Horizon& h = *m.horizon;
  const int last = h.grid.num_points() - 1;
  for (int n = 1; n <= h.store.nvar; ++n) {
    if (!Restartable(m, n)) continue;
    const int point = (n - 1) / h.vars_per_point, b = (n - 1) % h.vars_per_point + 1;
    const int source = h.Number(std::min(point + shift, last), b);
    auto it = values.find(h.store.Var(source).name);
    if (it != values.end()) h.store.Var(n).val = it->second;
  }
}

// A steady-state solution as the starting point of every copy, the initial condition included.
void ApplySteadyRestart(CycleModel& m, const std::vector<files::RestartEntry>& entries) {
  std::unordered_map<std::string, double> values;
  for (const files::RestartEntry& e : entries) values[files::RootName(e.name)] = e.value;
  horizon::Horizon& h = *m.horizon;
  for (int n = 1; n <= h.store.nvar; ++n) {
    if (!Restartable(m, n)) continue;
    auto it = values.find(files::RootName(h.store.Var(n).name));
    if (it != values.end()) h.store.Var(n).val = it->second;
  }
}

// Warm: the mode's own file, shifted one step on with TIME_SHIFT. Otherwise (or when that
// file is missing) "rto.t0" or "ss.t0" as the initial condition. True for a warm start.
bool ReadDynamicRestart(const CycleState& state, CycleModel& m, int time_shift) {
  const bool cold = state.store.Int("COLDSTART") > 0;
  const std::string own = state.mode_word + ".t0";
  std::vector<files::RestartEntry> entries;
  if (!cold && files::ReadRestartEntries(own, &entries)) {
    ApplyOwnRestart(m, entries, time_shift > 0 ? m.horizon->grid.nodes - 1 : 0);
    return true;
  }
  if (!cold) Say("WARNING: restart file not found - " + own);
  const std::string steady = std::filesystem::exists("rto.t0") ? "rto.t0" : "ss.t0";
  if (files::ReadRestartEntries(steady, &entries)) ApplySteadyRestart(m, entries);
  return false;
}

// DBS values on every copy: hard bounds of any class; an FV or MV measurement (good
// instrument) moves every copy by FSTATUS. In simulation FVs and MVs stay fixed.
void ApplyClassesOverHorizon(const dbs::OptionStore& o, CycleModel& m) {
  const auto numbers = BaseNumbers(m.base);
  horizon::Horizon& h = *m.horizon;
  for (const dbs::Variable& cv : o.variables()) {
    auto it = numbers.find(cv.name);
    if (it == numbers.end() || it->second <= 0) continue;
    const std::string& n = cv.name;
    const double lower = o.GetReal(n, "LOWER"), upper = o.GetReal(n, "UPPER");
    const bool input = cv.cls == dbs::VarClass::kFV || cv.cls == dbs::VarClass::kMV;
    const double meas = input && o.GetInt(n, "PSTATUS") != 0 ? o.GetReal(n, "MEAS") : kNoValue;
    const double f = input ? o.GetReal(n, "FSTATUS") : 1.0;
    for (int p = 0; p < h.grid.num_points(); ++p) {
      model::Variable& v = h.store.Var(h.Number(p, it->second));
      if (lower != kUnsetLower) v.lower = lower;
      if (upper != kUnsetUpper) v.upper = upper;
      if (meas != kNoValue) v.val = f * meas + (1.0 - f) * v.val;
    }
  }
}

// Outputs: SV/CV MODEL (value at the start of the horizon, the current time of a simulation)
// and PRED[k] (end of step k); FV NEWVAL (current value), MV NEWVAL (value over the first
// step) with LSTVAL the previous NEWVAL, MV PRED[k] and DPRED[k] (change over step k).
void WriteOutputsOverHorizon(const CycleModel& m, dbs::OptionStore& o) {
  const auto numbers = BaseNumbers(m.base);
  const horizon::Horizon& h = *m.horizon;
  const std::vector<int> ends = StepEnds(h.grid);
  for (const dbs::Variable& cv : o.variables()) {
    auto it = numbers.find(cv.name);
    if (it == numbers.end() || it->second <= 0) continue;
    auto value = [&](int point) { return h.store.Var(h.Number(point, it->second)).val; };
    const std::string n = cv.name;
    if (cv.cls == dbs::VarClass::kFV || cv.cls == dbs::VarClass::kMV) {
      o.Set(n, "LSTVAL", o.GetReal(n, "NEWVAL"));
      o.Set(n, "NEWVAL", value(cv.cls == dbs::VarClass::kFV ? 0 : ends[1]));
    } else {
      o.Set(n, "MODEL", value(0));
    }
    if (cv.cls == dbs::VarClass::kFV) continue;
    for (size_t k = 1; k < ends.size(); ++k) {
      o.Set(n, fmt::format("PRED[{}]", k), value(ends[k]));
      if (cv.cls == dbs::VarClass::kMV)
        o.Set(n, fmt::format("DPRED[{}]", k), value(ends[k]) - value(ends[k - 1]));
    }
  }
}

}  // namespace

int SolveDynamic(CycleState& state, CycleModel& m) {
  const int imode = state.flags.imode;
  if (imode != 4)
    return NotSolved(state, "dynamic estimation and control (IMODE 5, 6, 8, 9) and the "
                            "sequential simulation (IMODE 7)");
  const horizon::HorizonSettings settings = horizon::ReadHorizonSettings(state.store);
  std::optional<horizon::DataFile> data;
  if (settings.csv_read > 0) data = horizon::ReadDataFile(state.app + ".csv");
  {
    ScopedTimer timer("Horizon set-up");
    m.horizon = std::make_unique<horizon::Horizon>(
        horizon::SetUpDynamicModel(m.base, settings, data ? &*data : nullptr, "."));
  }
  WriteHorizonBack(state.store, m.horizon->grid);
  m.access = std::make_unique<model::ModelAccess>(m.horizon->store);
  state.files->set_model(m.access.get());
  state.files->set_horizon(m.horizon.get(), &m.base);
  if (settings.time_shift <= 0) Say("Variable time shift OFF");

  const bool warm = ReadDynamicRestart(state, m, settings.time_shift);
  if (state.flags.dbs_read != 0) ApplyClassesOverHorizon(state.store, m);
  model::ModelAccess& access = *m.access;
  access.Invalidate();
  {
    ScopedTimer timer("Structure and starting point");
    access.EvaluateResiduals();
    ReportStartingPoint(access, /*dynamic=*/true, state.diaglevel);
  }
  CheckSimulationDof(access, imode);
  DerivativeChecks(state.diaglevel);
  solvers::ModelProblem problem(access, /*dynamic=*/true, state.app);
  ReadStartMultipliers(state, access, problem);
  const SolveOutcome out = SolveProblem(state.store, imode, warm, problem, access);
  WriteOutputsOverHorizon(m, state.store);
  if (out.status == 0 || state.diaglevel >= 2) files::zpm_files(2, state.mode_word + ".t0");
  files::zpm_files(66, "ic.t0");
  files::zpm_files(83, state.mode_word + ".dxdt");
  if (out.status == 0) files::WriteMultipliers("lam.t0", access);
  return out.status;
}

}  // namespace kx::driver
