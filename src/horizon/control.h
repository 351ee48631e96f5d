// horizon/control: the objective terms of control (IMODE 6). Every CV gets a bias and a
// biased value (bcv = cv + bias); a CV with STATUS = 1 under CTRLMODE 3 also gets the
// set-point rows of CV_TYPE:
//
//   1, 3, 4 (dead band): trajectories tr_hi, tr_lo with tau tr' + tr = sp (traj_hi, traj_lo),
//     slack rows traj_slk_hi/lo, errors err_hi, err_lo above/below them (error_hi/lo) and
//     obj_contrib wsp_hi err_hi + wsp_lo err_lo. Type 1 measures only the excursion outside the
//     band (errors >= 0, slack rows equalities); types 3 and 4 make the slack rows one-sided
//     limits on the rate of bcv (3) or of the trajectory (4) and the error rows equalities.
//     An unset SPHI (SPLO) leaves that side open: its rows are not built.
//   2 (squared): one trajectory tr with tau tr' + tr = sp (lag), err2 = bcv - tr (sq_error,
//     listed as err^2 = (bcv - tr)^2, the same objective without the fold at 0) and
//     obj_eqn wsp err2^2.
//   every type: cv_cost "minimize (cost * bcv)".
//
// A free MV gets, per step k that may move, du = u(end) - u(start) (.du), its rate (.dudt),
// the move penalty dcost_k (du_pos + du_neg) (.du_pos, .du_neg, .mv_dcost_L1) for CV_TYPE 1, 3,
// 4 or dcost_k du^2 (.mv_dcost_L2) for CV_TYPE 2, and .mv_cost "minimize cost * u". DMAX,
// DMAXHI, DMAXLO bound du; with MV_STEP_HOR = m it moves only at steps 1, 1+m, ...; beyond
// CTRL_HOR it holds.
//
// Weights along the horizon: the set-point weights of step k are 0 for k <= CV_WGT_START and
// 1 + (k - CV_WGT_START - 1) CV_WGT_SLOPE (never below 0) after it; the move penalty of step k
// is DCOST (1 + (k - 1) MV_DCOST_SLOPE). The rows start after the first point, the measured
// present.
#pragma once

#include <string>
#include <vector>

#include "dbs/option_store.h"
#include "horizon/classes.h"
#include "horizon/inputs.h"
#include "horizon/replicate.h"

namespace kx::horizon {

struct ControlSettings {
  int cv_type = 1;            // ZPM.CV_TYPE
  double cv_wgt_slope = 0.0;  // ZPM.CV_WGT_SLOPE
  int cv_wgt_start = 0;       // ZPM.CV_WGT_START
  double mv_dcost_slope = 0;  // ZPM.MV_DCOST_SLOPE
  int mv_step_hor = 1;        // ZPM.MV_STEP_HOR
  int mv_type = 1;            // ZPM.MV_TYPE
  int ctrlmode = 1;           // CTRLMODE after the REQONCTRL check
};

ControlSettings ReadControlSettings(const dbs::OptionStore& options, int ctrlmode);

struct CvTerms {
  std::string name;
  int cv = 0;                    // base number of the CV
  int cv_type = 1;
  int tier = 1;                  // TIER
  bool controlled = false;       // set-point rows built
  bool hi = false, lo = false;   // sides built (dead band)
  double sphi = kNoValue, splo = kNoValue, sp = kNoValue;
  double tau = 1, tr_open = 1, wsphi = 20, wsplo = 20, wsp = 20, cost = 0, bias = 0;
  int tr_init = 2;
  // Base member numbers (0 when not built).
  int bias_m = 0, bcv_m = 0, tau_m = 0, cost_m = 0;
  int sp_hi_m = 0, sp_lo_m = 0, sp_m = 0, wsp_hi_m = 0, wsp_lo_m = 0, wsp_m = 0;
  int tr_hi_m = 0, tr_lo_m = 0, tr_m = 0;
  std::vector<int> errors;        // members set only by the set-point rows
  std::vector<int> setpoint_rows; // base rows that hold after the first point
};

struct MvTerms {
  std::string name;
  int mv = 0;                     // base number of the MV
  int tier = 1;                   // TIER
  double current = 0;             // value it holds and moves from
  double dcost = 0, cost = 0, dmax = kUnlimited, dmaxhi = kUnlimited, dmaxlo = -kUnlimited;
  int step_hor = 1;               // MV_STEP_HOR in force
  bool linear_penalty = true;     // du_pos/du_neg rows, else dcost du^2
  int delta_m = 0, slope_m = 0, pos_m = 0, neg_m = 0, dcost_m = 0, cost_m = 0;
};

// Adds the CV members and rows (every CV: bias and bcv; controlled ones: the set-point rows)
// and the members of the free MVs to `base`. Stops on an unknown CV_TYPE of the dead-band
// family.
void AddControlTerms(model::ModelStore& base, const std::vector<ClassedVariable>& classes,
                     const dbs::OptionStore& options, const ControlSettings& settings,
                     std::vector<CvTerms>* cvs, std::vector<MvTerms>* mvs);

// After replication: the rows of the free MVs over the steps, the values of every member at
// every point (weights along the horizon, set points, bias), the trajectories' start, the
// first point's rows switched off, the MVs' first point at their current value.
void ApplyControl(HorizonRows& rows, const std::vector<CvTerms>& cvs,
                  const std::vector<MvTerms>& mvs, const ControlSettings& settings,
                  bool recentre);

// Tier t: CVs and MVs whose TIER is above t act as STATUS = 0 (set-point rows off, MV held).
void ApplyTier(Horizon& h, const std::vector<CvTerms>& cvs, const std::vector<MvTerms>& mvs,
               int tier);

// The distinct TIER values of the controlled CVs and free MVs, ascending (at least {1}).
std::vector<int> Tiers(const std::vector<CvTerms>& cvs, const std::vector<MvTerms>& mvs);

}  // namespace kx::horizon
