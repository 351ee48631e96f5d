// horizon/replicate: lays a built steady-state model over a time grid. The result is an
// ordinary model store that model::ModelAccess, model::Nlp(dynamic = true) and the Jacobian and
// Hessian assembly work on unchanged.
//
// Layout of the replicated store (P time points, nb variables per point, S steps):
//   - variables: the nb variables of point p are numbers p*nb+1 .. p*nb+nb (point-major), named
//     "p(k).n(j).NAME" after the step k and node j the point is written under (TimeGrid::StepOf,
//     NodeOf), with number_h = k and number_n = j; then S fixed step lengths "p(k).dt"
//     (vtype kVarStepLength), read by the collocation rows.
//   - differential variables: the copies of a differential variable at points 1..P-1 are
//     differential, with idiff in variable order. At point 0, the horizon start, no equation
//     reads the time derivative, so that copy is not a column of the reduced space
//     (idiff = 0); its value is the initial condition and is fixed.
//   - equations, point by point: every model equation at every point, except the differential
//     equations at point 0 (the initial condition takes their place there, which keeps a
//     simulation square); then, at points 1..P-1, one collocation row per differential variable
//     (node i of step k ties x(node i) to x(node 1) and the derivatives at nodes 2..NODES).
//   Copies share their model equation's program and keep their own column map; the collocation
//   rows share one program per node. Nothing is compiled per copy.
//   - objective rows are replicated like the other equations, so their sum runs over every
//     time point.
//   - intermediates are kept once, reading the horizon start.
#pragma once

#include <string>
#include <vector>

#include "horizon/data_file.h"
#include "horizon/time_grid.h"
#include "model/records.h"

namespace kx::horizon {

// A copy of a differential variable at one node of one step, with its successor links. A step
// boundary point appears twice: as the last node of its step and as node 1 of the next.
struct HorizonElement {
  int number = 0;              // variable number of the copy
  int position = 0;            // step along the horizon, 1..num_positions
  int num_positions = 0;       // steps in the horizon
  int node = 0;                // node within the step, 1..NODES
  bool linked_onward = false;  // a later node of the same step follows this one
  int next_node = 0;           // copy at the next node of the step; 0 at the last node
  int next_horizon = 0;        // copy at node 1 of the next step; 0 in the last step
};

struct Horizon {
  TimeGrid grid;
  model::ModelStore store;               // the replicated model
  int vars_per_point = 0;                // nb: variables of the steady-state model
  std::vector<int> eqn_origin;           // model equation (0-based) of each row; -1 collocation,
                                         // -2 a generated row over several points
  std::vector<int> eqn_point;            // time point (data set) of each row
  std::vector<int> colloc_var;           // model variable of each collocation row, else 0
  bool data_sets = false;                // copies of a steady-state model, one per data set
  std::vector<HorizonElement> elements;  // differential copies, by variable, step, node

  // Number of the copy of model variable `base_number` at point `point`.
  int Number(int point, int base_number) const { return point * vars_per_point + base_number; }
  // Number of the fixed step length of step k (1-based).
  int StepLengthNumber(int step) const { return grid.num_points() * vars_per_point + step; }
};

// Replicates `base` over `grid`. When the grid came from `data`, parameter columns give the
// parameters' values at each time point, and with csv_read = 2 variable columns give the
// starting values too; a column naming nothing in the model is ignored after one warning.
// A time point inside a step takes the value of the step's end row; a row with no value keeps
// the value of the row before (the declared value before the first row).
Horizon Replicate(const model::ModelStore& base, const TimeGrid& grid, const DataFile* data,
                  int csv_read);

// Copies a steady-state model once per data set (IMODE 2): point p is data set p+1, named
// "p(k).n(1).NAME" with k = p+1. Every equation holds in every set, time derivatives stay at
// their (steady-state) values, and there are no collocation rows. `data` gives each set's
// parameter values (and with csv_read = 2 the variables' starting values), row by row.
Horizon ReplicateDataSets(const model::ModelStore& base, const DataFile& data, int csv_read);

}  // namespace kx::horizon
