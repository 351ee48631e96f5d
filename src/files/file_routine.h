// The file routine: every file the engine reads or writes besides the model and the CSV data
// goes through one entry point with an integer request code and a file name (request 0 prints
// the help). Each call is timed under the "zpm_files" timer.
//
// Built requests: 0 help; 1-8 restart reads and writes, 11 "warm.t0", 12 "lam.t0", 21-28 the
// model listings (these need the model, see set_model); 66 "ic.t0" and 83 derivatives (these
// need a horizon, see set_horizon); 34 dummy sparsity.unt; 31 and 35 info
// file (variable classes into the store); 51 read a DBS file; 52/53 write the application's
// DBS file after a good/bad solution (with the cycle bookkeeping of dbs/cycle_outcome.h); 55
// register the header (variables of APP.info) and read a DBS file; 56 options.json. Codes 13
// and 14 are not supported; every other known code prints that it is not available yet and
// does nothing.
#pragma once

#include <string>
#include <string_view>

#include "dbs/option_store.h"
#include "files/info_file.h"
#include "horizon/replicate.h"
#include "model/access.h"

namespace kx::files {

class FileRoutine {
 public:
  // `store` must outlive the routine; `app` is the application name (lower case, no .zpm).
  FileRoutine(dbs::OptionStore& store, std::string app);

  // Validation of the info file against the model, installed once the model exists.
  void set_model_kind(ModelKindFn fn) { model_kind_ = std::move(fn); }
  // The model the restart and listing requests work on; null when there is none (yet).
  void set_model(model::ModelAccess* access) { model_ = access; }
  // The horizon of a dynamic solve and the model it replicates (requests 66 and 83).
  void set_horizon(const horizon::Horizon* horizon, const model::ModelStore* base) {
    horizon_ = horizon;
    base_ = base;
  }
  const std::string& app() const { return app_; }

  // Carries out request `imsg` on `filename`; returns 0 when done, 1 when the request did
  // nothing (missing file, not available). An unknown code stops the run.
  int Run(int imsg, std::string_view filename);

 private:
  int ReadDbs(std::string_view filename, bool initialize);
  int WriteDbs(std::string_view filename, bool good_solution);
  int ReadInfo(std::string_view filename);
  void RegisterInfoOnce();
  int RunModelRequest(int imsg, std::string_view filename);

  dbs::OptionStore& store_;
  std::string app_;
  ModelKindFn model_kind_;        // empty until the model stage provides it
  model::ModelAccess* model_ = nullptr;  // restart and listing requests; null: no model
  const horizon::Horizon* horizon_ = nullptr;  // requests 66 and 83; null: no horizon
  const model::ModelStore* base_ = nullptr;    // the model the horizon replicates
  bool info_registered_ = false;  // APP.info read into the store by request 55
};

// DBS file name for a request: "defaults" -> "defaults.dbs"; a name with ".dbs" is kept.
std::string DbsPath(std::string_view name);

// The routine that zpm_files() serves; the run cycle installs it (null uninstalls).
void InstallFileRoutine(FileRoutine* routine);

// Fixed-name entry point over the installed routine. Requests 0 and 34 need no routine.
int zpm_files(int imsg, std::string_view filename = "");

}  // namespace kx::files
