// horizon: lays a steady-state model over a time horizon for the dynamic modes (IMODE 4-9) or
// over the data sets of IMODE 2, decides the roles of the classified variables (classes), and
// adds the rows of estimation (estimation) and control (control, inputs) through generated
// members and rows compiled once (terms); simulates a horizon step by step (sequential).
// Takes the built model store, the option store and the optional data file; gives a model
// store with every variable and equation replicated over the time points and the collocation
// rows that tie the differential variables together. Never sees the solvers.
//
//   data_file    the time-series data file (APP.csv)
//   time_grid    horizon settings from the options; steps, nodes and point times
//   collocation  Lobatto positions, collocation matrices, the collocation rows' byte code
//   replicate    the replicated model store and the successor links
//   checks       link check ("horizon.txt") and the counting report
//
// Typical use by the run cycle:
//   HorizonSettings s = ReadHorizonSettings(options);
//   std::optional<DataFile> data = s.csv_read > 0 ? ReadDataFile(app + ".csv") : std::nullopt;
//   Horizon h = SetUpDynamicModel(base, s, data ? &*data : nullptr, work_dir);
//   // write h.grid.num_steps() back as PRED_HOR (and h.grid.ctrl_hor as CTRL_HOR), then
//   // model::ModelAccess access(h.store); model::Nlp nlp(access, /*dynamic=*/true, scaled);
#pragma once

#include <string>

#include "horizon/checks.h"
#include "horizon/collocation.h"
#include "horizon/data_file.h"
#include "horizon/replicate.h"
#include "horizon/time_grid.h"

namespace kx::horizon {

// The dynamic model set-up: checks IMODE ("zpm_dyn_model ERROR: imode must be 4-9"), notes an
// ICD_CALC request, lays out the time grid, replicates `base`, checks the links (writing
// horizon.txt into `dir` when one is missing) and prints the counts.
Horizon SetUpDynamicModel(const model::ModelStore& base, const HorizonSettings& settings,
                          const DataFile* data, const std::string& dir);

}  // namespace kx::horizon
