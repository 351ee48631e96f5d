// One run of the program is one cycle of one application in the working directory. The
// prologue fills the option store (defaults, DBS files, replay, command line); the model
// stage builds and solves the problem and returns a solve status; the epilogue writes the
// application's DBS file and options.json and prints the timer table. Exit status: 1 after a
// good cycle, 0 otherwise.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "dbs/option_store.h"
#include "driver/command_line.h"
#include "files/file_routine.h"
#include "horizon/replicate.h"
#include "model/access.h"

namespace kx::driver {

// The model of the cycle, kept by the cycle so the epilogue can write its files.
struct CycleModel {
  model::ModelStore base;                      // the model as built: one copy of everything
  std::unique_ptr<horizon::Horizon> horizon;   // dynamic modes: the model over the horizon
  std::unique_ptr<model::ModelAccess> access;  // over solved()

  // The store the solver works on: the replicated one in the dynamic modes.
  model::ModelStore& solved() { return horizon ? horizon->store : base; }
};

// What the prologue hands to the model stage.
struct CycleState {
  std::string app;                      // application name: lower case, no ".zpm"
  std::string model_file;               // app + ".zpm"
  dbs::OptionStore store;               // filled by the prologue
  CommandLineFlags flags;               // from the command line
  std::string mode_word;                // "ss", "rto", ... for IMODE
  files::FileRoutine* files = nullptr;  // the installed file routine (zpm_files)
  // Options read once the DBS files are in (before the command line).
  int ctrl_units = 3, diaglevel = 0, web = 1, max_memory = 4, solver = 1;
  int stream_level = 0, icd_calc = 0;
  double max_time = 1.0e+20;
  std::unique_ptr<CycleModel> model;    // set by the model stage once the model is built
};

// Builds the model for the mode, solves it and returns the solve status (0 = success).
using ModelStage = std::function<int(CycleState&)>;

// Runs one cycle with `stage` between prologue and epilogue; returns the exit status.
// A fatal stop propagates as kx::Stop (main turns it into exit status 0).
int RunCycle(int argc, char** argv, const ModelStage& stage);
// Runs one cycle with the model stage of driver/model_stage.h.
int RunCycle(int argc, char** argv);

}  // namespace kx::driver
