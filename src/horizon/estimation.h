// horizon/estimation: the measurement error models of estimation (IMODE 2 and 5). Every CV
// that is measured (FSTATUS > 0, good instrument) gets members and rows in the base model,
// chosen by EV_TYPE, before the model is copied over the horizon or the data sets:
//
//   EV_TYPE 1 (linear, dead band MEAS_GAP): members fstatus, err_hi, err_lo, chg_hi, chg_lo;
//     rows meas_err_hi, meas_err_lo, model_chg_hi, model_chg_lo (residual >= 0) and obj_contrib
//     fstatus*(wmeas*(err_hi + err_lo) + wmodel*(chg_hi + chg_lo)).
//   EV_TYPE 2 (squared): member fstatus; row obj_eqn
//     fstatus*(wmeas*(ev - meas)^2 + wmodel*(ev - model)^2).
//   EV_TYPE 3 (smooth absolute value): members fstatus, err, chg, wmeas, wmodel; rows error,
//     change (equalities) and obj_eqn fstatus*(wmeas*tanh(err)*err + wmodel*tanh(chg)*chg).
//
// The measurement, its dead band, the previous prediction ("model") and the weights are
// further fixed members, so one compiled program serves every CV, point and data set. After
// replication each copy receives its point's values: rows exist only at the step boundaries
// (every data set in IMODE 2); a point without a measurement has fstatus 0, its rows are
// switched off and its error members held at 0, which is the same objective.
#pragma once

#include <string>
#include <vector>

#include "dbs/option_store.h"
#include "horizon/classes.h"
#include "horizon/replicate.h"
#include "model/records.h"

namespace kx::horizon {

// The error model of one measured variable: base-model member numbers and rows.
struct EvTerms {
  std::string name;          // the CV
  int ev = 0;                // base number of the CV
  int ev_type = 1;           // EV_TYPE
  double fstatus = 1.0;      // FSTATUS
  double wmeas = 20.0;       // WMEAS
  double wmodel = 2.0;       // WMODEL
  double meas_gap = 0.0;     // MEAS_GAP (type 1)
  int fstatus_m = 0;         // member numbers: fstatus and the fixed inputs
  int meas_hi_m = 0, meas_lo_m = 0, meas_m = 0, model_m = 0, wmeas_m = 0, wmodel_m = 0;
  std::vector<int> errors;   // error members (err_hi, ... / err, chg), held at 0 where unused
  std::vector<int> rows;     // base equation index of each row
};

struct EstimationSettings {
  int ev_type = 1;            // ZPM.EV_TYPE
  double ev_wgt_slope = 0.0;  // ZPM.EV_WGT_SLOPE
  bool exact_hessian = true;  // second derivatives are available
};

EstimationSettings ReadEstimationSettings(const dbs::OptionStore& options, bool exact_hessian);

// Adds the members and rows of every measured CV of `classes` to `base` (checks EV_TYPE,
// second derivatives for type 3, and warns when WMEAS < WMODEL).
std::vector<EvTerms> AddEstimationTerms(model::ModelStore& base,
                                        const std::vector<ClassedVariable>& classes,
                                        const dbs::OptionStore& options,
                                        const EstimationSettings& settings);

// Per measured variable and point of the replicated model: the measurement, kNoValue for none.
using MeasurementTable = std::vector<std::vector<double>>;

// Gives every copy its point's values: measurement, previous prediction (the copy's value
// now), weights with the EV_WGT_SLOPE factor 1 + (max(k,1) - 1)*slope for the step k that ends
// at the point; switches rows off where there is no measurement.
void ApplyMeasurements(Horizon& h, const std::vector<EvTerms>& evs, const MeasurementTable& meas,
                       const EstimationSettings& settings);

// Whether point p of the horizon carries estimation rows (a step boundary, or any data set).
inline bool IsMeasurementPoint(const Horizon& h, int p) {
  return h.data_sets || p % (h.grid.nodes - 1) == 0;
}

}  // namespace kx::horizon
