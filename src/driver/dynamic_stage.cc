#include "driver/dynamic_stage.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <unordered_map>

#include "base/report.h"
#include "base/sentinels.h"
#include "base/text.h"
#include "base/timers.h"
#include "driver/shooting_stage.h"
#include "driver/solve_stage.h"
#include "driver/stage_steps.h"
#include "files/restart.h"
#include "files/horizon_files.h"
#include "horizon/classes.h"
#include "horizon/control.h"
#include "horizon/estimation.h"
#include "horizon/horizon.h"
#include "horizon/inputs.h"
#include "horizon/object_rows.h"
#include "horizon/sequential.h"
#include "model/builder.h"
#include "model/checks.h"

namespace kx::driver {
namespace {

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
// `history` marks the base variables whose fixed copies carry a history (measured inputs of
// an estimation horizon) and come back from the mode's own restart file too.
bool Restartable(const CycleModel& m, int number, const std::vector<char>* history) {
  const horizon::Horizon& h = *m.horizon;
  const model::Variable& v = h.store.Var(number);
  if (v.vtype == model::kVarStepLength) return false;
  if (!v.fixed) return true;
  const int b = (number - 1) % h.vars_per_point + 1;
  if (history && b < static_cast<int>(history->size()) && (*history)[b]) return true;
  return number <= h.vars_per_point && m.base.Var(b).diff;
}

// The previous solution over the same horizon layout, by name; with `shift` each copy takes
// the value its variable had that many points later (the last points keep their own).
void ApplyOwnRestart(CycleModel& m, const std::vector<files::RestartEntry>& entries, int shift,
                     const std::vector<char>& history) {
  std::unordered_map<std::string, double> values;
  for (const files::RestartEntry& e : entries) values[e.name] = e.value;
  horizon::Horizon& h = *m.horizon;
  const int last = h.grid.num_points() - 1;
  for (int n = 1; n <= h.store.nvar; ++n) {
    if (!Restartable(m, n, &history)) continue;
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
    if (!Restartable(m, n, nullptr)) continue;
    auto it = values.find(files::RootName(h.store.Var(n).name));
    if (it != values.end()) h.store.Var(n).val = it->second;
  }
}

// Warm: the mode's own file, shifted one step on with TIME_SHIFT. Otherwise (or when that
// file is missing) "rto.t0" or "ss.t0" as the initial condition. True for a warm start;
// `own` (when given) keeps the mode's own file's entries.
bool ReadDynamicRestart(const CycleState& state, CycleModel& m, int time_shift,
                        const std::vector<char>& history = {},
                        std::vector<files::RestartEntry>* own = nullptr) {
  const bool cold = state.store.Int("COLDSTART") > 0;
  const std::string own_file = state.mode_word + ".t0";
  std::vector<files::RestartEntry> entries;
  if (!cold && files::ReadRestartEntries(own_file, &entries)) {
    ApplyOwnRestart(m, entries, time_shift > 0 ? m.horizon->grid.nodes - 1 : 0, history);
    if (own) *own = std::move(entries);
    return true;
  }
  if (!cold) Say("WARNING: restart file not found - " + own_file);
  const std::string steady = std::filesystem::exists("rto.t0") ? "rto.t0" : "ss.t0";
  if (files::ReadRestartEntries(steady, &entries)) ApplySteadyRestart(m, entries);
  return false;
}

// Moving-horizon estimation and control, simultaneous (5, 6) or by shooting (8, 9).
bool IsMovingEstimation(int imode) { return imode == 5 || imode == 8; }
bool IsMovingControl(int imode) { return imode == 6 || imode == 9; }

// A fixed MV of a moving-horizon estimator is a measured input with a history: its MEAS is
// the newest value, its earlier values come from the previous cycle.
bool CarriesHistory(const horizon::ClassedVariable& c, int imode) {
  return IsMovingEstimation(imode) && c.cls == dbs::VarClass::kMV &&
         c.role == horizon::Role::kFixed;
}

// The base variables whose fixed copies come back from the mode's own restart file: the
// measured inputs of an estimator and the outputs of arx objects that start from a value.
std::vector<char> HistoryInputs(const std::vector<horizon::ClassedVariable>& classes,
                                const model::ModelStore& base, int imode) {
  std::vector<char> history(base.nvar + 1, 0);
  for (const horizon::ClassedVariable& c : classes)
    if (CarriesHistory(c, imode)) history[c.number] = 1;
  for (int n : horizon::HeldStarts(base)) history[n] = 1;
  return history;
}

// The newest input values: the last step of a warm horizon, every point of a cold one.
void ApplyInputMeasurements(const std::vector<horizon::ClassedVariable>& classes, CycleModel& m,
                            int imode, bool warm) {
  horizon::Horizon& h = *m.horizon;
  const int first = warm ? h.grid.num_points() - h.grid.nodes + 1 : 0;
  for (const horizon::ClassedVariable& c : classes) {
    if (!CarriesHistory(c, imode)) continue;
    for (int p = std::max(first, 0); p < h.grid.num_points(); ++p) {
      model::Variable& v = h.store.Var(h.Number(p, c.number));
      v.val = c.Filtered(v.val);
    }
  }
}

// A free FV moves at most DMAX from its last implemented value (the NEWVAL it starts with).
void LimitMove(const dbs::OptionStore& o, const horizon::ClassedVariable& c, horizon::Horizon& h) {
  const double dmax = o.GetReal(c.name, "DMAX");
  const double last = c.last;
  if (dmax >= kUnlimited || last == kNoValue) return;
  for (int p = 0; p < h.grid.num_points(); ++p) {
    model::Variable& v = h.store.Var(h.Number(p, c.number));
    v.lower = std::max(v.lower, last - std::abs(dmax));
    v.upper = std::min(v.upper, last + std::abs(dmax));
  }
}

// The class rules on every copy: hard bounds of any class; FVs and MVs start from their MEAS
// (FSTATUS filter); a free FV is one value for the horizon, within DMAX of its last NEWVAL; a
// free MV is one value per step. In simulation FVs and MVs stay fixed.
void ApplyClassesOverHorizon(const dbs::OptionStore& o,
                             const std::vector<horizon::ClassedVariable>& classes, CycleModel& m,
                             int imode) {
  horizon::Horizon& h = *m.horizon;
  horizon::HorizonRows rows(h);
  for (const horizon::ClassedVariable& c : classes) {
    for (int p = 0; p < h.grid.num_points(); ++p) {
      model::Variable& v = h.store.Var(h.Number(p, c.number));
      if (c.lower != kUnsetLower) v.lower = c.lower;
      if (c.upper != kUnsetUpper) v.upper = c.upper;
      if (!CarriesHistory(c, imode)) v.val = c.Filtered(v.val);
    }
    if (c.role == horizon::Role::kShared) {
      horizon::ShareOverHorizon(rows, c.number, c.name);
      LimitMove(o, c, h);
    } else if (c.role == horizon::Role::kPerStep) {
      horizon::FreePerStep(rows, c.number, o.Int("MV_TYPE"),
                           /*first_fixed=*/IsMovingControl(imode));
    }
  }
  rows.Finish();
}

// Where the present is: the newest measurement in estimation, the horizon start otherwise.
int CurrentPoint(const horizon::Horizon& h, int imode) {
  return horizon::IsEstimationMode(imode) ? h.grid.num_points() - 1 : 0;
}

// Outputs: SV/CV MODEL (value at the present) and PRED[k] (end of step k); FV NEWVAL (its
// value), MV NEWVAL (value at the end of step 1 when controlling, else at the present) with
// LSTVAL the previous NEWVAL, MV PRED[k] and DPRED[k] (change over step k).
void WriteOutputsOverHorizon(const CycleModel& m, int imode, dbs::OptionStore& o,
                             const std::vector<horizon::CvTerms>& cvs) {
  const horizon::Horizon& h = *m.horizon;
  const std::vector<int> ends = StepEnds(h.grid);
  const int now = CurrentPoint(h, imode);
  for (const horizon::ClassedVariable& c :
       horizon::ClassifyVariables(o, m.base, imode, o.Int("CTRLMODE"))) {
    auto value = [&](int point) { return h.store.Var(h.Number(point, c.number)).val; };
    const std::string& n = c.name;
    // A CV's predictions are biased in control.
    int predicted = c.number;
    for (const horizon::CvTerms& t : cvs)
      if (t.name == n) predicted = t.bcv_m;
    auto prediction = [&](int point) { return h.store.Var(h.Number(point, predicted)).val; };
    if (c.IsInput()) {
      o.Set(n, "LSTVAL", o.GetReal(n, "NEWVAL"));
      const bool moves = c.cls == dbs::VarClass::kMV && c.role == horizon::Role::kPerStep &&
                         horizon::IsControlMode(imode);
      o.Set(n, "NEWVAL", value(moves ? ends[1] : now));
      if (c.cls == dbs::VarClass::kMV && ends.size() > 1) o.Set(n, "NXTVAL", value(ends[1]));
    } else {
      o.Set(n, "MODEL", value(now));
    }
    if (c.cls == dbs::VarClass::kFV) continue;
    for (size_t k = 1; k < ends.size(); ++k) {
      o.Set(n, fmt::format("PRED[{}]", k), prediction(ends[k]));
      if (c.cls == dbs::VarClass::kMV)
        o.Set(n, fmt::format("DPRED[{}]", k), value(ends[k]) - value(ends[k - 1]));
    }
  }
}

// ----- estimation -----

// The measured variables' values at each point, first found wins: MEAS (the newest point), the
// shifted history of "est.meas" (warm start), the variable's column of the data file.
horizon::MeasurementTable GatherMeasurements(const CycleState& state, const CycleModel& m,
                                             const std::vector<horizon::EvTerms>& evs,
                                             const std::vector<horizon::ClassedVariable>& classes,
                                             const horizon::DataFile* data, int shift) {
  const horizon::Horizon& h = *m.horizon;
  const int points = h.grid.num_points();
  const int per_step = h.data_sets ? 1 : h.grid.nodes - 1;
  // Data sets have no history: each row is its own set.
  const files::MeasurementHistory history =
      h.data_sets ? files::MeasurementHistory{} : files::ReadMeasurementHistory("est.meas");
  horizon::MeasurementTable table;
  for (const horizon::EvTerms& t : evs) {
    std::vector<double> values(points, kNoValue);
    const int column = data && h.grid.from_data ? data->Column(t.name) : -1;
    for (int p = 0; p < points; p += per_step) {
      const int row = p / per_step;
      if (column >= 0 && row < data->num_rows) values[p] = data->At(row, column);
    }
    if (auto it = history.find(t.name); it != history.end()) {
      for (size_t i = shift; i < it->second.size(); ++i) {
        const int p = static_cast<int>(i - shift) * per_step;
        if (p < points && it->second[i] != kNoValue) values[p] = it->second[i];
      }
    }
    for (const horizon::ClassedVariable& c : classes)
      if (c.name == t.name && c.meas != kNoValue && !h.data_sets) values[points - 1] = c.meas;
    table.push_back(std::move(values));
  }
  return table;
}

void WriteMeasurementFile(const CycleModel& m, const std::vector<horizon::EvTerms>& evs,
                          const horizon::MeasurementTable& table) {
  const horizon::Horizon& h = *m.horizon;
  files::MeasurementHistory history;
  for (size_t i = 0; i < evs.size(); ++i) {
    std::vector<double>& values = history[evs[i].name];
    for (int p = 0; p < h.grid.num_points(); p += h.grid.nodes - 1) values.push_back(table[i][p]);
  }
  files::WriteMeasurementHistory("est.meas", history);
}

// ICD_CALC = 1: the differential variables at the horizon start are unknowns of the fit.
void FreeInitialConditions(CycleModel& m) {
  horizon::Horizon& h = *m.horizon;
  for (int b = 1; b <= m.base.nvar; ++b)
    if (m.base.Var(b).diff) h.store.Var(h.Number(0, b)).fixed = false;
}

// "est.xfer": the FVs and the differential state at the newest point.
void WriteTransferFile(const CycleState& state, const CycleModel& m) {
  std::vector<int> numbers;
  for (const horizon::ClassedVariable& c :
       horizon::ClassifyVariables(state.store, m.base, 5, 1))
    if (c.cls == dbs::VarClass::kFV) numbers.push_back(c.number);
  for (int b = 1; b <= m.base.nvar; ++b)
    if (m.base.Var(b).diff && m.base.Var(b).vtype != model::kVarGenerated) numbers.push_back(b);
  files::WriteTransfer("est.xfer", *m.horizon, m.base, m.horizon->grid.num_points() - 1, numbers);
}

void WriteEstimationFiles(const CycleState& state, const CycleModel& m, int status) {
  if (status == 0) WriteTransferFile(state, m);
  if (state.flags.imode == 5 && state.store.Int("ICD_CALC") == 1)
    files::WriteInitialConditionReport("icd_calc.txt", *m.horizon, m.base);
}

// The control terms of a cycle: CVs, free MVs and their settings.
struct ControlTerms {
  horizon::ControlSettings settings;
  std::vector<horizon::CvTerms> cvs;
  std::vector<horizon::MvTerms> mvs;
};

// One solve of the problem as it stands.
SolveOutcome SolveOnce(CycleState& state, model::ModelAccess& access, bool warm, bool dynamic) {
  access.Invalidate();
  {
    ScopedTimer timer("Structure and starting point");
    access.EvaluateResiduals();
    ReportStartingPoint(access, dynamic, state.diaglevel);
  }
  CheckSimulationDof(access, state.flags.imode);
  const auto reduction = ReduceBeforeSolve(state, access, dynamic);
  SolveOutcome out;
  {
    solvers::ModelProblem problem(access, dynamic, state.app);
    DerivativeChecks(state, access, problem, dynamic);
    ReadStartMultipliers(state, access, problem);
    out = SolveProblem(state.store, state.flags.imode, warm, problem, access);
  }
  RestoreAfterSolve(access, reduction);
  return out;
}

// Single shooting: modes 8 and 9, and 5 and 6 with SEQUENTIAL = 1 and degrees of freedom
// (without them the simultaneous solve says it switches back).
bool Shoots(const CycleState& state, model::ModelAccess& access) {
  const int imode = state.flags.imode;
  if (imode >= 8) return true;
  if (imode != 5 && imode != 6) return false;
  return state.store.Int("SEQUENTIAL") == 1 && access.CountDof(/*dynamic=*/true).ndof > 0;
}

// The tiers of a controller, each from the solution of the one before; or one solve.
SolveOutcome SolveTiers(CycleState& state, CycleModel& m, bool warm, bool dynamic,
                        const ControlTerms* control) {
  const bool shooting = Shoots(state, *m.access);
  auto solve = [&](bool warm_tier) {
    return shooting ? SolveShooting(state, m, warm_tier)
                    : SolveOnce(state, *m.access, warm_tier, dynamic);
  };
  if (control == nullptr) return solve(warm);
  const std::vector<int> tiers = horizon::Tiers(control->cvs, control->mvs);
  SolveOutcome out;
  for (int tier : tiers) {
    if (tiers.size() > 1) Sayf("Tiered Optimization Cycle: {}", tier);
    horizon::ApplyTier(*m.horizon, control->cvs, control->mvs, tier);
    out = solve(warm || tier != tiers.front());
    if (out.status != 0) break;
  }
  return out;
}

// The solve and the files every replicated mode writes.
int SolveReplicated(CycleState& state, CycleModel& m, bool warm, bool dynamic,
                    const ControlTerms* control = nullptr) {
  const int imode = state.flags.imode;
  const SolveOutcome out = SolveTiers(state, m, warm, dynamic, control);
  WriteOutputsOverHorizon(m, imode, state.store,
                          control ? control->cvs : std::vector<horizon::CvTerms>{});
  if (control)
    for (const horizon::CvTerms& t : control->cvs) state.store.Set(t.name, "BIAS", t.bias);
  if (out.status == 0 || state.diaglevel >= 2) files::zpm_files(2, state.mode_word + ".t0");
  if (out.status == 0) files::WriteMultipliers("lam.t0", *m.access);
  return out.status;
}

// ----- step by step -----

horizon::SequentialOutcome SimulateSteps(const CycleState& state, CycleModel& m) {
  horizon::SequentialSettings settings;
  settings.tolerance = state.store.Real("RTOL");
  m.access->Invalidate();
  ScopedTimer timer("Step-by-step simulation");
  return horizon::SimulateStepByStep(*m.horizon, m.base, *m.access, settings);
}

// The sequential simulation (IMODE 7, or 4 with SEQUENTIAL = 1) is the solve itself.
int SolveSequential(CycleState& state, CycleModel& m) {
  const auto t0 = std::chrono::steady_clock::now();
  const horizon::SequentialOutcome seq = SimulateSteps(state, m);
  SolveOutcome out;
  out.status = seq.ok ? 0 : -1;
  out.iterations = seq.iterations;
  out.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  Sayf("Sequential simulation: {} of {} steps solved, {} Newton iterations",
       std::max(0, seq.steps_solved - 1), m.horizon->grid.num_steps(), seq.iterations);
  if (!seq.ok) Sayf("Step {} did not solve: {}", seq.failed_step, seq.why);
  ReportOutcome(state.store, *m.access, "Sequential (step by step)", out);
  WriteOutputsOverHorizon(m, state.flags.imode, state.store, {});
  if (out.status == 0 || state.diaglevel >= 2) files::zpm_files(2, state.mode_word + ".t0");
  return out.status;
}

// A cold start of the simultaneous modes simulates the horizon step by step first, so that
// the solve starts from a trajectory of the model instead of a flat guess.
void InitialiseStepByStep(const CycleState& state, CycleModel& m) {
  const horizon::SequentialOutcome seq = SimulateSteps(state, m);
  if (seq.ok) {
    Sayf("Horizon initialised step by step ({} steps, {} Newton iterations)",
         m.horizon->grid.num_steps(), seq.iterations);
  } else {
    Sayf("Step-by-step initialisation stopped at step {} ({}); the solve starts from there",
         seq.failed_step, seq.why);
  }
}

// ----- control -----

// CTRLMODE of a control cycle: REQCTRLMODE (1..3), lowered to 2 when an MV that control
// requires (REQONCTRL = 1) is off. Written back.
int DecideControlMode(dbs::OptionStore& o) {
  int mode = o.Int("REQCTRLMODE");
  if (mode < 1 || mode > 3) mode = 1;
  for (const dbs::Variable& v : o.variables()) {
    if (mode != 3 || v.cls != dbs::VarClass::kMV || o.GetInt(v.name, "REQONCTRL") != 1) continue;
    if (o.GetInt(v.name, "STATUS") == 0 || o.GetInt(v.name, "PSTATUS") == 0) {
      Say("CTRLMODE lowered to 2 (predict): MV " + v.name +
          " is required for control (REQONCTRL = 1) and is off; the MVs stay where they are");
      mode = 2;
    }
  }
  o.SetGlobal("CTRLMODE", mode);
  return mode;
}

void CheckTiers(const dbs::OptionStore& o) {
  for (const dbs::Variable& v : o.variables()) {
    if (v.cls != dbs::VarClass::kMV && v.cls != dbs::VarClass::kCV) continue;
    const int tier = o.GetInt(v.name, "TIER");
    if (tier < 1 || tier > 100)
      Fatal({"(" + v.name + ").TIER must be between 1 and 100"}, "Stopping...");
  }
}

// An MV the controller does not move holds its current value over the whole horizon.
void HoldInputs(const std::vector<horizon::ClassedVariable>& classes, CycleModel& m) {
  horizon::Horizon& h = *m.horizon;
  for (const horizon::ClassedVariable& c : classes) {
    if (c.cls != dbs::VarClass::kMV || c.role != horizon::Role::kFixed) continue;
    const double current = c.Current(m.base.Var(c.number).val);
    for (int p = 0; p < h.grid.num_points(); ++p) h.store.Var(h.Number(p, c.number)).val = current;
  }
}

// "est.xfer" of an estimation cycle in the same folder: FV values and the state at the newest
// point become the FVs and the initial condition of the controller.
void ReadTransferFile(CycleModel& m) {
  std::vector<files::RestartEntry> entries;
  if (!std::filesystem::exists("est.xfer") || !files::ReadRestartEntries("est.xfer", &entries))
    return;
  horizon::Horizon& h = *m.horizon;
  std::unordered_map<std::string, int> numbers;
  for (int b = 1; b <= m.base.nvar; ++b) numbers.emplace(m.base.Var(b).name, b);
  for (const files::RestartEntry& e : entries) {
    auto it = numbers.find(files::RootName(e.name));
    if (it == numbers.end()) continue;
    const int b = it->second;
    const bool state = m.base.Var(b).diff;
    for (int p = 0; p < (state ? 1 : h.grid.num_points()); ++p)
      h.store.Var(h.Number(p, b)).val = e.value;
  }
}

// Bias of each measured CV from the FSTATUS rule against the CV at the present.
void UpdateBias(const std::vector<horizon::ClassedVariable>& classes, CycleModel& m,
                ControlTerms& control) {
  const horizon::Horizon& h = *m.horizon;
  for (horizon::CvTerms& t : control.cvs) {
    for (const horizon::ClassedVariable& c : classes) {
      if (c.name != t.name || c.meas == kNoValue) continue;
      if (c.fstatus < -1e-10 || c.fstatus > 1.0000000001) {
        Fatal({"Controlled Variable " + c.name + " FSTATUS out of range",
               "  0.0 <= FSTATUS <= 1.0,  Current value: " + FormatReal(c.fstatus)},
              "Stopping...");
      }
      if (c.fstatus < 1e-10) continue;
      const double model = h.store.Var(h.Number(0, t.cv)).val;
      t.bias = c.fstatus * (c.meas - model) + (1.0 - c.fstatus) * t.bias;
    }
  }
}

// TR_INIT 1 re-centres when the previous cycle left no trajectory (cold, or the CV was off):
// `entries` are those of the mode's own restart file, empty on a cold start.
bool RestartHasTrajectories(const std::vector<files::RestartEntry>& entries,
                            const ControlTerms& control) {
  if (entries.empty()) return false;
  std::unordered_map<std::string, int> names;
  for (const files::RestartEntry& e : entries) names.emplace(e.name, 0);
  for (const horizon::CvTerms& t : control.cvs) {
    if (!t.controlled || t.cv_type == 2) continue;
    if (!names.count("p(1).n(2)." + t.name + (t.hi ? ".tr_hi" : ".tr_lo"))) return false;
  }
  return true;
}

void InstallHorizon(CycleState& state, CycleModel& m) {
  m.access = std::make_unique<model::ModelAccess>(m.horizon->store);
  state.files->set_model(m.access.get());
  state.files->set_horizon(m.horizon.get(), &m.base);
}

}  // namespace

int SolveDataSets(CycleState& state, CycleModel& m) {
  const int imode = state.flags.imode;
  std::optional<horizon::DataFile> data = horizon::ReadDataFile(state.app + ".csv");
  if (!data || data->num_rows == 0) {
    Fatal({"Error: parameter estimation (IMODE 2) needs a data file " + state.app + ".csv",
           "  one row of measurements per data set"});
  }
  std::vector<horizon::ClassedVariable> classes;
  if (state.flags.dbs_read != 0) classes = horizon::ClassifyVariables(state.store, m.base, imode, 1);
  const horizon::EstimationSettings est =
      horizon::ReadEstimationSettings(state.store, m.base.exact_hessian);
  std::vector<horizon::EvTerms> evs = horizon::AddEstimationTerms(m.base, classes, state.store, est);
  {
    ScopedTimer timer("Horizon set-up");
    m.horizon = std::make_unique<horizon::Horizon>(
        horizon::ReplicateDataSets(m.base, *data, std::max(1, state.store.Int("CSV_READ"))));
  }
  Sayf("Data sets: {}", m.horizon->grid.num_points());
  state.store.SetHorizon(std::max(1, m.horizon->grid.num_steps()));
  InstallHorizon(state, m);
  ApplyClassesOverHorizon(state.store, classes, m, imode);
  const bool warm = ReadDynamicRestart(state, m, /*time_shift=*/0);
  const horizon::MeasurementTable measurements =
      GatherMeasurements(state, m, evs, classes, &*data, 0);
  horizon::ApplyMeasurements(*m.horizon, evs, measurements, est);
  return SolveReplicated(state, m, warm, /*dynamic=*/false);
}

int SolveDynamic(CycleState& state, CycleModel& m) {
  const int imode = state.flags.imode;
  const horizon::HorizonSettings settings = horizon::ReadHorizonSettings(state.store);
  std::optional<horizon::DataFile> data;
  if (settings.csv_read > 0) data = horizon::ReadDataFile(state.app + ".csv");
  if (imode == 7 && !data) Fatal({"Error: Sequential simulation must have a data (CSV) file"});
  const bool sequential = imode == 7 || (imode == 4 && state.store.Int("SEQUENTIAL") == 1);
  const bool estimating = IsMovingEstimation(imode), controlling = IsMovingControl(imode);
  const int ctrlmode = controlling ? DecideControlMode(state.store) : 1;
  if (controlling) CheckTiers(state.store);
  std::vector<horizon::ClassedVariable> classes;
  if (state.flags.dbs_read != 0)
    classes = horizon::ClassifyVariables(state.store, m.base, imode, ctrlmode);
  const horizon::EstimationSettings est =
      horizon::ReadEstimationSettings(state.store, m.base.exact_hessian);
  std::vector<horizon::EvTerms> evs;
  if (estimating) evs = horizon::AddEstimationTerms(m.base, classes, state.store, est);
  std::optional<ControlTerms> control;
  if (controlling) {
    control.emplace();
    control->settings = horizon::ReadControlSettings(state.store, ctrlmode);
    horizon::AddControlTerms(m.base, classes, state.store, control->settings, &control->cvs,
                             &control->mvs);
  }
  {
    ScopedTimer timer("Horizon set-up");
    m.horizon = std::make_unique<horizon::Horizon>(
        horizon::SetUpDynamicModel(m.base, settings, data ? &*data : nullptr, "."));
  }
  WriteHorizonBack(state.store, m.horizon->grid);
  InstallHorizon(state, m);
  if (settings.time_shift <= 0) Say("Variable time shift OFF");

  ApplyClassesOverHorizon(state.store, classes, m, imode);
  {
    horizon::HorizonRows rows(*m.horizon);
    horizon::ApplyObjectsOverHorizon(rows, m.base, sequential);
    rows.Finish();
  }
  // Mode 8 keeps the initial conditions fixed (SetUpDynamicModel said so).
  if (imode == 5 && settings.icd_calc == 1) FreeInitialConditions(m);
  std::vector<files::RestartEntry> restart;  // the mode's own file on a warm start
  const bool warm = ReadDynamicRestart(state, m, settings.time_shift,
                                       HistoryInputs(classes, m.base, imode), &restart);
  ApplyInputMeasurements(classes, m, imode, warm);
  horizon::MeasurementTable measurements;
  if (estimating) {
    const int shift = warm && settings.time_shift > 0 ? 1 : 0;
    measurements = GatherMeasurements(state, m, evs, classes, data ? &*data : nullptr, shift);
    horizon::ApplyMeasurements(*m.horizon, evs, measurements, est);
  }
  if (control) {
    HoldInputs(classes, m);
    ReadTransferFile(m);
    UpdateBias(classes, m, *control);
    horizon::HorizonRows rows(*m.horizon);
    horizon::ApplyControl(rows, control->cvs, control->mvs, control->settings,
                          !RestartHasTrajectories(restart, *control));
  }
  // An estimator's parameters are unknown: a trajectory simulated with their first guesses
  // drifts from the measurements and starts the fit further off than the declared values do
  // (a 2000-step estimator took 60 iterations instead of 7), so estimation starts without it.
  if (!warm && !sequential && !estimating && imode < 8) InitialiseStepByStep(state, m);
  const int status = sequential ? SolveSequential(state, m)
                                : SolveReplicated(state, m, warm, /*dynamic=*/true,
                                                  control ? &*control : nullptr);
  files::zpm_files(66, "ic.t0");
  files::zpm_files(83, state.mode_word + ".dxdt");
  if (estimating) {
    WriteMeasurementFile(m, evs, measurements);
    WriteEstimationFiles(state, m, status);
  }
  return status;
}

}  // namespace kx::driver
