#include "driver/cycle.h"

#include <filesystem>
#include <vector>

#include "analysis/sensitivity.h"
#include "base/file_writer.h"
#include "base/report.h"
#include "base/text.h"
#include "base/timers.h"
#include "driver/model_stage.h"
#include "files/dumps.h"
#include "files/replay.h"
#include "files/report_page.h"
#include "files/restart.h"
#include "files/results.h"
#include "horizon/classes.h"

namespace kx::driver {
namespace {

constexpr const char* kTotalTimer = "Total";

// Keeps the file routine installed for the length of the cycle.
class FileRoutineScope {
 public:
  explicit FileRoutineScope(files::FileRoutine* routine) { files::InstallFileRoutine(routine); }
  ~FileRoutineScope() { files::InstallFileRoutine(nullptr); }
};

void PrintBanner() {
  Say("Kestrix Optimization Suite");
  Say("--------------------------");
  Say("Kestrix, Version 0.8.2");
}

void CheckModelFile(const CycleState& state) {
  if (state.app.empty()) Fatal({"Usage: kestrix APP [switches]", "  (runs APP.zpm)"});
  if (!std::filesystem::is_regular_file(state.model_file))
    Fatal({"Model file does not exist: " + state.model_file});
}

// Defaults, the application's file, measurements, overrides: a later file wins.
void ReadDbsFiles(const CycleState& state) {
  for (const std::string& name :
       {std::string("defaults"), state.app, std::string("measurements"), std::string("overrides")})
    files::zpm_files(55, name);
}

// Row REPLAY of replay.csv becomes measurements.dbs, read again with overrides after it.
void ReplayMeasurements(CycleState& state) {
  int replay = state.store.Int("REPLAY");
  if (replay <= 0) return;
  Sayf("Replay Cycle: {}", replay);
  files::ReplayRow(replay, files::kReplayFile, files::DbsPath("measurements"));
  files::zpm_files(55, "measurements");
  files::zpm_files(55, "overrides");
}

void ReadRunOptions(CycleState& state) {
  const dbs::OptionStore& s = state.store;
  state.ctrl_units = s.Int("CTRL_UNITS");
  state.diaglevel = s.Int("DIAGLEVEL");
  state.web = s.Int("WEB");
  state.max_time = s.Real("MAX_TIME");
  state.max_memory = s.Int("MAX_MEMORY");
  state.solver = s.Int("SOLVER");
  state.stream_level = s.Int("STREAM_LEVEL");
  state.icd_calc = s.Int("ICD_CALC");
}

void Prologue(CycleState& state, int argc, char** argv) {
  ReadDbsFiles(state);
  ReplayMeasurements(state);
  ReadRunOptions(state);
  std::vector<std::string> args(argv, argv + argc);
  state.flags = ParseCommandLine(args, state.store);
  EchoCommandLine(state.app, state.flags);
  state.mode_word = std::string(ModeWord(state.flags.imode));
  state.diaglevel = state.store.Int("DIAGLEVEL");
  state.solver = state.store.Int("SOLVER");
}

// DBS file on good (52) or bad (53) solution, then options.json.
void WriteDatabase(const CycleState& state, int solve_status) {
  if (state.flags.dbs_write == 0) {
    Say("main: skip dbs write");
    return;
  }
  files::zpm_files(solve_status == 0 ? 52 : 53, state.app);
  files::zpm_files(56, "options.json");
}

// The solution table of the cycle: one row in steady state, one per step boundary otherwise.
files::ResultsTable ResultsOf(const CycleModel& m) {
  return m.horizon ? files::DynamicResults(*m.horizon, m.base) : files::SteadyResults(m.base);
}

// If WEB > 0, the report page "APP_report.html" and its history file.
void WriteReport(const CycleState& state, int solve_status) {
  if (state.web <= 0 || !state.model) return;
  ScopedTimer timer("Web report");
  files::WriteReportPage(state.app, state.store, state.flags.imode, solve_status,
                         ResultsOf(*state.model));
}

// "results.csv" (unless CSV_WRITE is 0) and "results.json" from the model of the cycle.
void WriteResults(const CycleState& state) {
  if (!state.model) return;
  files::ResultsTable table = ResultsOf(*state.model);
  if (state.store.Int("CSV_WRITE") != 0) files::WriteResultsCsv("results.csv", table);
  files::WriteResultsJson("results.json", table);
}

// The diagnostic files of DIAGLEVEL >= 2: the warm-start files and the model listings.
void WriteDiagnosticFiles(const CycleState& state) {
  if (!state.model) return;
  model::ModelStore& store = state.model->solved();
  files::WriteRestart("warm.t0", store, /*calculated_only=*/true);
  files::WriteMultipliers("lam.t0", *state.model->access);
  for (int imsg = 21; imsg <= 28; ++imsg)
    files::WriteDump(imsg, std::string(files::DumpFileName(imsg)), store);
}

// Derivatives of the solution with respect to every FV and MV (each copy over a horizon).
void WriteSensitivity(const CycleState& state) {
  if (!state.model) return;
  CycleModel& m = *state.model;
  std::vector<analysis::SensitivityInput> inputs;
  for (const horizon::ClassedVariable& c :
       horizon::ClassifyVariables(state.store, m.base, state.flags.imode, 1)) {
    if (!c.IsInput()) continue;
    analysis::SensitivityInput in{c.name, {}};
    if (!m.horizon) {
      in.numbers.push_back(c.number);
    } else {
      for (int p = 0; p < m.horizon->grid.num_points(); ++p)
        in.numbers.push_back(m.horizon->Number(p, c.number));
    }
    inputs.push_back(std::move(in));
  }
  ScopedTimer timer("Sensitivity analysis");
  analysis::WriteSensitivityFiles(*m.access, m.horizon != nullptr && !m.horizon->data_sets,
                                  inputs, ".");
}

// Results, then (after a good cycle or at DIAGLEVEL >= 2) sensitivity and the diagnostic
// files, then the timer table at DIAGLEVEL >= 1.
void Epilogue(const CycleState& state, int solve_status) {
  WriteResults(state);
  Timers().Stop(Timers().Id(kTotalTimer));
  const int diaglevel = state.store.Int("DIAGLEVEL");
  if (solve_status == 0 || diaglevel >= 2) {
    if (state.store.Int("SENSITIVITY") > 0) WriteSensitivity(state);
    if (diaglevel >= 2) WriteDiagnosticFiles(state);
  }
  if (diaglevel >= 1) Timers().Print();
}

}  // namespace

int RunCycle(int argc, char** argv, const ModelStage& stage) {
  PrintBanner();
  Timers().Reset();
  ScopedTimer total(kTotalTimer);
  // The stage's files are synced one by one as written; their directory once at the end.
  SyncBatch directory_syncs;
  // Temporaries of an earlier cycle killed while writing would otherwise pile up.
  RemoveStaleTemporaries(".");
  CycleState state;
  state.app = ApplicationName(argc > 1 ? argv[1] : "");
  state.model_file = state.app + ".zpm";
  CheckModelFile(state);
  files::FileRoutine routine(state.store, state.app);
  FileRoutineScope installed(&routine);
  state.files = &routine;
  Prologue(state, argc, argv);
  int solve_status = stage(state);
  {
    // Nothing reads the last files back in this cycle: their data is synced together.
    SyncBatch last_files(SyncBatch::Renames::kAtClose);
    WriteReport(state, solve_status);
    WriteDatabase(state, solve_status);
    Epilogue(state, solve_status);
  }
  FlushOutput();
  return solve_status == 0 ? 1 : 0;
}

int RunCycle(int argc, char** argv) { return RunCycle(argc, argv, RunModelStage); }

}  // namespace kx::driver
