#include "horizon/time_grid.h"

#include <cmath>

#include "base/report.h"
#include "dbs/option_store.h"
#include "horizon/collocation.h"

namespace kx::horizon {

namespace {

// Step lengths from the data file's time column, after its checks.
std::vector<double> StepsFromData(const DataFile& data) {
  int tc = data.Column("time");
  if (tc < 0) {
    Fatal({"zpm_dyn_model_init_a error: time unspecified in csv file",
           "  action: add a column with header \"time\" to csv file",
           "          or turn OFF csv_read in configuration"});
  }
  if (data.num_rows < 1 || data.At(0, tc) != 0.0) {
    double first = data.num_rows < 1 || DataFile::IsNoValue(data.At(0, tc)) ? std::nan("")
                                                                              : data.At(0, tc);
    Fatal({"First row of CSV data must be at Time=0", fmt::format("Current value = {}", first)});
  }
  std::vector<double> dt;
  for (int r = 1; r < data.num_rows; ++r) {
    double t = data.At(r, tc), before = data.At(r - 1, tc);
    // A missing time or one that does not pass the one before cannot start a step.
    if (DataFile::IsNoValue(t) || !(t > before)) {
      Fatal({"Error: non-incremental time sequence", fmt::format(" time in data row {}", r + 1)});
    }
    dt.push_back(t - before);
  }
  if (dt.empty()) {
    Fatal({"Error: the data file has a single time row: a horizon needs at least two",
           "  action: add rows to the csv file or turn OFF csv_read in configuration"});
  }
  return dt;
}

// Step lengths from CTRL_HOR/CTRL_TIME and PRED_HOR/PRED_TIME.
std::vector<double> StepsFromOptions(const HorizonSettings& s, int* ctrl_hor) {
  if (s.pred_hor < 1 || !(s.ctrl_time > 0) || !(s.pred_time > 0)) {
    Fatal({"Error: the horizon needs PRED_HOR >= 1 and positive CTRL_TIME and PRED_TIME",
           fmt::format("PRED_HOR = {}, CTRL_TIME = {}, PRED_TIME = {}", s.pred_hor, s.ctrl_time,
                       s.pred_time)});
  }
  *ctrl_hor = std::max(s.ctrl_hor, 0);
  if (*ctrl_hor > s.pred_hor) {
    Say("WARNING: Adjusting control horizon (must be <= predict horizon)");
    *ctrl_hor = s.pred_hor;
  }
  std::vector<double> dt(s.pred_hor, s.pred_time);
  for (int k = 0; k < *ctrl_hor; ++k) dt[k] = s.ctrl_time;
  return dt;
}

}  // namespace

HorizonSettings ReadHorizonSettings(const dbs::OptionStore& options) {
  HorizonSettings s;
  s.imode = options.Int("IMODE");
  s.csv_read = options.Int("CSV_READ");
  s.coldstart = options.Int("COLDSTART");
  s.ctrl_time = options.Real("CTRL_TIME");
  s.pred_time = options.Real("PRED_TIME");
  s.ctrl_hor = options.Int("CTRL_HOR");
  s.pred_hor = options.Int("PRED_HOR");
  s.nodes = options.Int("NODES");
  s.icd_calc = options.Int("ICD_CALC");
  s.time_shift = options.Int("TIME_SHIFT");
  return s;
}

TimeGrid BuildTimeGrid(const HorizonSettings& settings, const DataFile* data) {
  TimeGrid grid;
  grid.nodes = settings.nodes;
  grid.positions = LobattoPositions(settings.nodes);
  grid.from_data = data != nullptr && settings.csv_read > 0;
  if (grid.from_data) {
    grid.dt = StepsFromData(*data);
    // The data rows set both horizons: every data step is a control step.
    grid.ctrl_hor = grid.num_steps();
  } else {
    grid.dt = StepsFromOptions(settings, &grid.ctrl_hor);
  }
  Sayf("Prediction Horizon: {}", grid.num_steps());
  int np = grid.num_steps() * (grid.nodes - 1) + 1;
  grid.times.assign(np, 0.0);
  double start = 0.0;
  for (int k = 1; k <= grid.num_steps(); ++k) {
    double h = grid.dt[k - 1];
    for (int j = 2; j <= grid.nodes; ++j) {
      grid.times[grid.Point(k, j)] = start + h * grid.positions[j - 1];
    }
    start += h;
    // The step end is kept exactly at the accumulated start of the next step.
    grid.times[grid.Point(k, grid.nodes)] = start;
  }
  if (grid.from_data) {
    int tc = data->Column("time");
    for (int r = 0; r < data->num_rows; ++r) grid.times[r * (grid.nodes - 1)] = data->At(r, tc);
  }
  return grid;
}

}  // namespace kx::horizon
