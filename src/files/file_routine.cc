#include "files/file_routine.h"

#include <fmt/format.h>

#include "base/report.h"
#include "base/text.h"
#include "base/timers.h"
#include "base/file_writer.h"
#include "dbs/cycle_outcome.h"
#include "dbs/dbs_file.h"
#include "dbs/options_json.h"
#include "files/dumps.h"
#include "files/files_help.h"
#include "files/horizon_files.h"
#include "files/restart.h"

namespace kx::files {
namespace {

constexpr const char* kSparsityFile = "sparsity.unt";

FileRoutine*& Installed() {
  static FileRoutine* routine = nullptr;
  return routine;
}

int WriteDummySparsity() {
  return WriteFileAtomically(kSparsityFile, "! sparsity.unt: dummy sparsity file\n") ? 0 : 1;
}

// Requests named in the help that have no implementation yet say so and do nothing.
int SayNotAvailable(int imsg) {
  if (imsg == 13 || imsg == 14) {
    Sayf("zpm_files: request {} is not supported (binary restart files)", imsg);
    return 1;
  }
  Sayf("zpm_files: request {} is not available yet, nothing done ({})", imsg,
       Trim(RequestText(imsg)));
  return 1;
}

}  // namespace

std::string DbsPath(std::string_view name) {
  std::string path(Trim(name));
  if (!EndsWith(ToLower(path), ".dbs")) path += ".dbs";
  return path;
}

FileRoutine::FileRoutine(dbs::OptionStore& store, std::string app)
    : store_(store), app_(std::move(app)) {}

int FileRoutine::Run(int imsg, std::string_view filename) {
  ScopedTimer timer("zpm_files");
  switch (imsg) {
    case 0:
      PrintFileRoutineHelp();
      return 0;
    case 31:
    case 35:
      return ReadInfo(filename);
    case 34:
      return WriteDummySparsity();
    case 51:
      return ReadDbs(filename, false);
    case 52:
      return WriteDbs(filename, true);
    case 53:
      return WriteDbs(filename, false);
    case 55:
      return ReadDbs(filename, true);
    case 56:
      return dbs::WriteOptionsJson(filename.empty() ? "options.json" : std::string(filename),
                                   store_)
                 ? 0
                 : 1;
    default:
      break;
  }
  if ((imsg == 66 || imsg == 83) && horizon_ != nullptr) {
    if (imsg == 66)
      return WriteInitialConditions(filename.empty() ? "ic.t0" : std::string(Trim(filename)),
                                    *horizon_, *base_)
                 ? 0
                 : 1;
    return WriteDerivatives(std::string(Trim(filename)), *horizon_) ? 0 : 1;
  }
  if ((imsg >= 1 && imsg <= 8) || imsg == 11 || imsg == 12 || (imsg >= 21 && imsg <= 28))
    return RunModelRequest(imsg, filename);
  if (RequestText(imsg).empty())
    Fatal({fmt::format("ERROR: invalid option {} for zpm_files", imsg)});
  return SayNotAvailable(imsg);
}

int FileRoutine::RunModelRequest(int imsg, std::string_view filename) {
  if (model_ == nullptr) {
    Sayf("zpm_files: request {} needs a model, none is built", imsg);
    return 1;
  }
  std::string path(Trim(filename));
  if (path.empty()) {
    if (imsg == 11) path = "warm.t0";
    if (imsg == 12) path = "lam.t0";
    if (imsg >= 21) path = std::string(DumpFileName(imsg));
  }
  model::ModelStore& store = model_->store();
  switch (imsg) {
    case 2:
    case 3:
      return WriteRestart(path, store, imsg == 3) ? 0 : 1;
    case 12:
      if (ReadMultipliers(path, *model_)) return 0;
      Say("Warning: lam.t0 file load was unsuccessful");
      return 1;
    default:
      break;
  }
  if (imsg >= 21) return WriteDump(imsg, path, store) ? 0 : 1;
  static constexpr RestartRead kReads[] = {
      RestartRead::kByName,           RestartRead::kByName,  RestartRead::kByName,
      RestartRead::kByRoot,           RestartRead::kByPosition, RestartRead::kSpecsOnly,
      RestartRead::kByRootWithSpecs,  RestartRead::kSmart};
  RestartRead how = imsg == 11 ? RestartRead::kCalculatedOnly : kReads[imsg - 1];
  RestartStats stats;
  if (!ReadRestart(path, how, store, &stats)) return 1;
  model_->Invalidate();
  if (store_.Int("DIAGLEVEL") >= 1)
    Sayf("Read restart file {}: {} values applied, {} names not in the model", path,
         stats.matched, stats.unmatched);
  return 0;
}

void FileRoutine::RegisterInfoOnce() {
  if (info_registered_) return;
  info_registered_ = true;
  ReadInfoFile(app_ + ".info", store_, model_kind_);
}

int FileRoutine::ReadInfo(std::string_view filename) {
  std::string path = filename.empty() ? app_ + ".info" : std::string(Trim(filename));
  std::vector<int> counts = ReadInfoFile(path, store_, model_kind_);
  if (store_.Int("DIAGLEVEL") >= 1)
    Sayf("Info file {}: FV {}, MV {}, SV {}, CV {}", path, counts[0], counts[1], counts[2],
         counts[3]);
  return 0;
}

int FileRoutine::ReadDbs(std::string_view filename, bool initialize) {
  if (initialize) RegisterInfoOnce();
  std::string path = DbsPath(filename);
  dbs::DbsReadResult result = dbs::ReadDbsFile(path, store_);
  if (initialize) {
    int imode = store_.Int("IMODE");
    if (imode < 1 || imode > 9)
      Fatal({fmt::format("Error: DBS not initialized because imode out of bounds: {}", imode)},
            "STOPPING");
  }
  if (store_.Int("DIAGLEVEL") >= 1 && result.found)
    Sayf("Read DBS file {}: {} values, {} lines skipped", path, result.applied, result.warnings);
  return result.found ? 0 : 1;
}

int FileRoutine::WriteDbs(std::string_view filename, bool good_solution) {
  dbs::RecordCycleOutcome(store_, good_solution);
  int form = store_.Int("DBS_WRITE");
  if (form <= 0) return 1;
  int level = store_.Int("DBS_LEVEL") >= 1 ? 1 : 0;
  std::string path = DbsPath(filename.empty() ? std::string_view(app_) : filename);
  return dbs::WriteDbsFile(path, store_, form == 1 ? 1 : 2, level) ? 0 : 1;
}

void InstallFileRoutine(FileRoutine* routine) { Installed() = routine; }

int zpm_files(int imsg, std::string_view filename) {
  if (FileRoutine* routine = Installed()) return routine->Run(imsg, filename);
  ScopedTimer timer("zpm_files");
  if (imsg == 0) {
    PrintFileRoutineHelp();
    return 0;
  }
  if (imsg == 34) return WriteDummySparsity();
  Fatal({fmt::format("zpm_files: request {} needs the option store, which is not set up", imsg)});
}

}  // namespace kx::files
