// model/builder: fills the model store from a model file. Runs the front-end phases with
// their timing lines: read (lang::ModelFileReader), constants, size (after the object library
// has expanded the Objects section into statements, objects::ExpandObjects), allocation,
// records and connections, error checks, compilation of intermediates and equations through
// lang::Compiler, and the evaluation of intermediates and initial residuals; then prints the
// model size report and, at DIAGLEVEL >= 2, writes "model_init_values.txt" and
// "model_init_res.txt".
#pragma once

#include <string>
#include <vector>

#include "lang/model_file.h"
#include "model/records.h"

namespace kx::model {

struct BuildOptions {
  int diaglevel = 0;     // ZPM.DIAGLEVEL
  int max_memory = 4;    // ZPM.MAX_MEMORY: storage limits 10^max_memory per equation
  int stream_level = 0;  // ZPM.STREAM_LEVEL (objects; unused until the object library)
  int scaling = 0;       // ZPM.SCALING
  std::string work_dir;  // working directory for written files; empty: the model file's folder
  long max_range = 10000000;  // longest vector index range accepted
  // Evaluate the intermediates and residuals at the declared values. A caller that applies
  // stored values and evaluates the starting point itself (EvaluateInitialState) turns it off;
  // the DIAGLEVEL >= 2 files need it.
  bool evaluate_start = true;
};

// Parses, checks and compiles the model file; stops the run with a message on the first error.
ModelStore BuildModel(const std::string& model_file, const BuildOptions& options);

// The same from model text held in memory (tests, tools). Files go to options.work_dir.
ModelStore BuildModelFromText(std::string_view text, const BuildOptions& options);

// Recomputes every intermediate value (declaration order) and every equation residual from
// the current variable values; domain errors met are kept in store->start_errors.
void EvaluateInitialState(ModelStore* store);

// Counts the differential, algebraic and objective equations into the store's counters.
void CountEquationKinds(ModelStore* store);

// Prints the model size report ("--------- ZPM Model Size ------------").
void PrintSizeReport(const ModelStore& store, const lang::ModelCounts& counts);

// Writes "model_init_values.txt" and "model_init_res.txt" into `dir`; `residuals` holds each
// equation's residual expression.
void WriteInitialFiles(const ModelStore& store, const std::vector<std::string>& residuals,
                       const std::string& dir);

}  // namespace kx::model
