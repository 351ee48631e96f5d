// horizon/time_grid: the settings that lay out a horizon and the time grid they give: steps
// (possibly of unequal length) of NODES time points at the Lobatto positions, the last node of
// a step being the first node of the next. Time points are numbered 0..num_points()-1 along
// the horizon: point 0 is the start; step k (1-based) holds points (k-1)*(NODES-1) ..
// k*(NODES-1).
#pragma once

#include <vector>

#include "horizon/data_file.h"

namespace kx::dbs {
class OptionStore;
}

namespace kx::horizon {

// The global options the horizon reads when it is set up.
struct HorizonSettings {
  int imode = 4;           // IMODE
  int csv_read = 1;        // CSV_READ: 0 off, 1 fixed values only, 2 calculated ones too
  int coldstart = 0;       // COLDSTART
  double ctrl_time = 1.0;  // CTRL_TIME: length of a step in the control horizon
  double pred_time = 1.0;  // PRED_TIME: length of a step beyond it
  int ctrl_hor = 1;        // CTRL_HOR: steps in the control horizon
  int pred_hor = 1;        // PRED_HOR: steps in the whole horizon
  int nodes = 2;           // NODES: time points per step, the step's first point included
  int icd_calc = 0;        // ICD_CALC
  int time_shift = 1;      // TIME_SHIFT
};

HorizonSettings ReadHorizonSettings(const dbs::OptionStore& options);

struct TimeGrid {
  int nodes = 2;                  // time points per step
  std::vector<double> positions;  // node positions within a step, 0..1; size nodes
  std::vector<double> dt;         // length of each step; size num_steps
  std::vector<double> times;      // time of each point; size num_points
  int ctrl_hor = 0;               // steps in the control horizon (<= num_steps)
  bool from_data = false;         // the steps are the data file's row intervals

  int num_steps() const { return static_cast<int>(dt.size()); }
  int num_points() const { return static_cast<int>(times.size()); }
  // Point of node j (1..nodes) of step k (1..num_steps).
  int Point(int step, int node) const { return (step - 1) * (nodes - 1) + node - 1; }
  // Step and node under which a point is named: point 0 is node 1 of step 1; every other point
  // is a non-initial node (2..nodes) of its step, so a step boundary belongs to the earlier step.
  int StepOf(int point) const { return point == 0 ? 1 : (point - 1) / (nodes - 1) + 1; }
  int NodeOf(int point) const { return point == 0 ? 1 : (point - 1) % (nodes - 1) + 2; }
  // Data row (0-based) at point `point` when it is a step boundary, else -1.
  int RowOf(int point) const { return point % (nodes - 1) == 0 ? point / (nodes - 1) : -1; }
};

// Lays out the grid. With `data` and settings.csv_read > 0 the steps are the intervals of the
// data file's "time" column (which must exist, start at 0 and increase); otherwise ctrl_hor steps
// of ctrl_time, then pred_hor - ctrl_hor steps of pred_time. Prints "Prediction Horizon: ".
// Stops on a bad NODES, a bad time column or an empty horizon.
TimeGrid BuildTimeGrid(const HorizonSettings& settings, const DataFile* data);

}  // namespace kx::horizon
