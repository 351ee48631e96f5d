#include "horizon/control.h"

#include <algorithm>
#include <cmath>
#include <set>

#include "base/report.h"
#include "horizon/terms.h"
#include "model/builder.h"

namespace kx::horizon {
namespace {


constexpr RowDef kTrajHi = {"traj_hi", R"(0 = \tau \frac{\partial tr_{hi}}{\partial t} + tr_{hi} - sp_{hi})",
                            "tau*$tr_hi + tr_hi - sp_hi", RowKind::kEquality};
constexpr RowDef kTrajLo = {"traj_lo", R"(0 = \tau \frac{\partial tr_{lo}}{\partial t} + tr_{lo} - sp_{lo})",
                            "tau*$tr_lo + tr_lo - sp_lo", RowKind::kEquality};
constexpr RowDef kBias = {"cv_bias", R"(0 = bcv - \left( cv + bias \right))", "bcv - (cv + bias)",
                          RowKind::kEquality};
// Slack rows by CV_TYPE 1, 3, 4 (index type - 1; 2 unused). The slack member trs carries the
// row's value, so type 1's rows, which repeat the trajectory rows, stay independent of them.
constexpr RowDef kSlackHi[] = {
    {"traj_slk_hi", R"(0 = -\tau \frac{\partial tr_{hi}}{\partial t} - tr_{hi} + sp_{hi})",
     "trs_hi - (-tau*$tr_hi - tr_hi + sp_hi)", RowKind::kEquality},
    {},
    {"traj_slk_hi", R"(0 < -\tau \frac{\partial bcv}{\partial t} - tr_{hi} + sp_{hi})",
     "trs_hi - (-tau*$bcv - tr_hi + sp_hi)", RowKind::kEquality},
    {"traj_slk_hi", R"(0 < -\tau \frac{\partial tr_{hi}}{\partial t} - tr_{hi} + sp_{hi})",
     "trs_hi - (-tau*$tr_hi - tr_hi + sp_hi)", RowKind::kEquality},
};
constexpr RowDef kSlackLo[] = {
    {"traj_slk_lo", R"(0 = \tau \frac{\partial tr_{lo}}{\partial t} + tr_{lo} - sp_{lo})",
     "trs_lo - (tau*$tr_lo + tr_lo - sp_lo)", RowKind::kEquality},
    {},
    {"traj_slk_lo", R"(0 < \tau \frac{\partial bcv}{\partial t} + tr_{lo} - sp_{lo})",
     "trs_lo - (tau*$bcv + tr_lo - sp_lo)", RowKind::kEquality},
    {"traj_slk_lo", R"(0 < \tau \frac{\partial tr_{lo}}{\partial t} + tr_{lo} - sp_{lo})",
     "trs_lo - (tau*$tr_lo + tr_lo - sp_lo)", RowKind::kEquality},
};
constexpr RowDef kErrorHi[] = {
    {"error_hi", R"(0 < err_{hi} - \left( bcv - tr_{hi} \right))", "err_hi - (bcv - tr_hi)",
     RowKind::kNonNegative},
    {"error_hi", R"(0 = err_{hi} - \left( bcv - tr_{hi} \right))", "err_hi - (bcv - tr_hi)",
     RowKind::kEquality},
};
constexpr RowDef kErrorLo[] = {
    {"error_lo", R"(0 < err_{lo} + \left( bcv - tr_{lo} \right))", "err_lo + (bcv - tr_lo)",
     RowKind::kNonNegative},
    {"error_lo", R"(0 = err_{lo} + \left( bcv - tr_{lo} \right))", "err_lo + (bcv - tr_lo)",
     RowKind::kEquality},
};
constexpr const char* kObjText = "minimize (wsp_{hi} err_{hi} + wsp_{lo} err_{lo})";
constexpr RowDef kCost = {"cv_cost", "minimize (cost * bcv)", "cost*bcv", RowKind::kObjective};
constexpr RowDef kLag = {"lag", R"(0 = \tau \frac{\partial tr}{\partial t} + tr - sp)",
                         "tau*$tr + tr - sp", RowKind::kEquality};
constexpr RowDef kSquaredError = {"sq_error", R"(0 = err^2 - \left( bcv - tr \right)^2)",
                                  "err2 - (bcv - tr)", RowKind::kEquality};
constexpr RowDef kSquaredObj = {"obj_eqn", "minimize w_{sp} err^2", "wsp*err2^2",
                                RowKind::kObjective};

bool IsSet(double v) { return v != kNoValue; }

void CheckCvType(int cv_type) {
  if (cv_type >= 1 && cv_type <= 4) return;
  Fatal({"FIPPR_CTL_TRAJ_L1: option not available", fmt::format("cv_type = {}", cv_type)});
}

// Reads the CV's settings; a squared CV without SP or a dead band without either side gets no
// set-point rows.
CvTerms ReadCv(const ClassedVariable& c, const dbs::OptionStore& o, const ControlSettings& s) {
  CvTerms t;
  t.name = c.name;
  t.cv = c.number;
  t.cv_type = s.cv_type;
  t.tier = o.GetInt(c.name, "TIER");
  t.sphi = o.GetReal(c.name, "SPHI");
  t.splo = o.GetReal(c.name, "SPLO");
  t.sp = o.GetReal(c.name, "SP");
  t.tau = o.GetReal(c.name, "TAU");
  t.tr_open = o.GetReal(c.name, "TR_OPEN");
  t.tr_init = o.GetInt(c.name, "TR_INIT");
  t.wsphi = o.GetReal(c.name, "WSPHI");
  t.wsplo = o.GetReal(c.name, "WSPLO");
  t.wsp = o.GetReal(c.name, "WSP");
  t.cost = o.GetReal(c.name, "COST");
  t.bias = o.GetReal(c.name, "BIAS");
  t.controlled = c.role == Role::kControlled;
  if (t.controlled && t.cv_type == 2 && !IsSet(t.sp)) {
    Say("WARNING: " + c.name + ".SP is not set: no set-point rows for this CV");
    t.controlled = false;
  }
  if (t.controlled && t.cv_type != 2) {
    t.hi = IsSet(t.sphi);
    t.lo = IsSet(t.splo);
    t.controlled = t.hi || t.lo;
  }
  return t;
}

// Queues the members of one CV and returns its placeholder list.
RowList AddCvMembers(TermBuilder& b, CvTerms& t, const model::Variable& cv) {
  RowList in = {{"cv", t.cv}};
  auto add = [&](const char* member, double value, double lower, bool fixed, int* number,
                 bool differential = false) {
    *number = b.AddMember(t.name + "." + member, value, lower, kUnlimited, fixed, differential);
    in.push_back({member, *number});
  };
  auto error = [&](const char* member, double lower) {
    int number = 0;
    add(member, 0.0, lower, false, &number);
    t.errors.push_back(number);
  };
  const double c = cv.val + t.bias;
  add("bias", t.bias, -kUnlimited, true, &t.bias_m);
  add("bcv", c, -kUnlimited, false, &t.bcv_m, t.controlled && t.cv_type == 3);
  add("cost", t.cost, -kUnlimited, true, &t.cost_m);
  if (!t.controlled) return in;
  add("tau", t.tau, -kUnlimited, true, &t.tau_m);
  if (t.cv_type == 2) {
    add("sp", t.sp, -kUnlimited, true, &t.sp_m);
    add("wsp", t.wsp, -kUnlimited, true, &t.wsp_m);
    add("tr", c, -kUnlimited, false, &t.tr_m, true);
    error("err2", -kUnlimited);
    return in;
  }
  const double band = t.cv_type == 1 ? 0.0 : -kUnlimited;  // types 3, 4: signed errors
  const double slack = t.cv_type == 1 ? -kUnlimited : 0.0;  // types 3, 4: one-sided limits
  if (t.hi) {
    add("sp_hi", t.sphi, -kUnlimited, true, &t.sp_hi_m);
    add("wsp_hi", t.wsphi, -kUnlimited, true, &t.wsp_hi_m);
    add("tr_hi", c, -kUnlimited, false, &t.tr_hi_m, true);
    error("err_hi", band);
    error("trs_hi", slack);
  }
  if (t.lo) {
    add("sp_lo", t.splo, -kUnlimited, true, &t.sp_lo_m);
    add("wsp_lo", t.wsplo, -kUnlimited, true, &t.wsp_lo_m);
    add("tr_lo", c, -kUnlimited, false, &t.tr_lo_m, true);
    error("err_lo", band);
    error("trs_lo", slack);
  }
  return in;
}

void AddCvRows(TermBuilder& b, CvTerms& t, const RowList& in) {
  auto row = [&](const RowDef& r, bool setpoint) {
    const int e = b.AddRow(t.name + "." + r.name, r.text, r.expr, in, r.kind);
    if (setpoint) t.setpoint_rows.push_back(e);
    return e;
  };
  const int bias_row = row(kBias, false);
  // A type-3 bcv is differential: its value at the present is fixed, so the bias row starts
  // after it like the rows of the time derivatives.
  if (t.controlled && t.cv_type == 3) b.store().eqns[bias_row].differential = true;
  if (t.controlled && t.cv_type == 2) {
    row(kLag, false);
    row(kSquaredError, true);
    row(kSquaredObj, true);
  } else if (t.controlled) {
    const int family = t.cv_type == 1 ? 0 : 1;
    if (t.hi) row(kTrajHi, false);
    if (t.lo) row(kTrajLo, false);
    if (t.hi) row(kSlackHi[t.cv_type - 1], true);
    if (t.lo) row(kSlackLo[t.cv_type - 1], true);
    if (t.hi) row(kErrorHi[family], true);
    if (t.lo) row(kErrorLo[family], true);
    std::string expr = t.hi && t.lo ? "wsp_hi*err_hi + wsp_lo*err_lo"
                                     : (t.hi ? "wsp_hi*err_hi" : "wsp_lo*err_lo");
    const int obj = b.AddRow(t.name + ".obj_contrib", kObjText, expr, in, RowKind::kObjective);
    t.setpoint_rows.push_back(obj);
  }
  if (t.controlled || t.cost != 0.0) row(kCost, true);
}

MvTerms ReadMv(const ClassedVariable& c, const dbs::OptionStore& o, const ControlSettings& s,
               const model::Variable& v) {
  MvTerms t;
  t.name = c.name;
  t.mv = c.number;
  t.tier = o.GetInt(c.name, "TIER");
  t.current = c.Current(v.val);
  t.dcost = o.GetReal(c.name, "DCOST");
  t.cost = o.GetReal(c.name, "COST");
  t.dmax = std::abs(o.GetReal(c.name, "DMAX"));
  t.dmaxhi = o.GetReal(c.name, "DMAXHI");
  t.dmaxlo = o.GetReal(c.name, "DMAXLO");
  const int own = o.GetInt(c.name, "MV_STEP_HOR");
  t.step_hor = std::max(1, own > 0 ? own : s.mv_step_hor);
  t.linear_penalty = s.cv_type != 2;
  return t;
}

void AddMvMembers(TermBuilder& b, MvTerms& t) {
  auto add = [&](const char* member, double lower, bool fixed, int* number) {
    *number = b.AddMember(t.name + "." + member, 0.0, lower, kUnlimited, fixed);
  };
  add("delta", -kUnlimited, false, &t.delta_m);
  add("slope", -kUnlimited, false, &t.slope_m);
  add("delta_pos", 0.0, false, &t.pos_m);
  add("delta_neg", 0.0, false, &t.neg_m);
  add("dcost", -kUnlimited, true, &t.dcost_m);
  add("cost", -kUnlimited, true, &t.cost_m);
}

// Set-point weight factor of step k.
double CvWeight(int k, const ControlSettings& s) {
  if (k <= s.cv_wgt_start) return 0.0;
  return std::max(0.0, 1.0 + (k - s.cv_wgt_start - 1) * s.cv_wgt_slope);
}

void SetValue(Horizon& h, int point, int member, double value) {
  if (member > 0) h.store.Var(h.Number(point, member)).val = value;
}

void Hold(model::Variable& v, double value) {
  v.fixed = true;
  v.val = value;
}

// Values of one CV's members at every point; its trajectories start as TR_INIT says.
void ApplyCv(Horizon& h, const CvTerms& t, const ControlSettings& s, bool recentre) {
  const model::ModelStore& st = h.store;
  const double c = st.Var(h.Number(0, t.cv)).val + t.bias;
  for (int p = 0; p < h.grid.num_points(); ++p) {
    const double f = CvWeight(h.grid.StepOf(p), s);
    SetValue(h, p, t.bias_m, t.bias);
    SetValue(h, p, t.cost_m, t.cost);
    SetValue(h, p, t.tau_m, t.tau);
    SetValue(h, p, t.sp_hi_m, t.sphi);
    SetValue(h, p, t.sp_lo_m, t.splo);
    SetValue(h, p, t.sp_m, t.sp);
    SetValue(h, p, t.wsp_hi_m, t.wsphi * f);
    SetValue(h, p, t.wsp_lo_m, t.wsplo * f);
    SetValue(h, p, t.wsp_m, t.wsp * f);
  }
  if (t.bcv_m > 0 && t.cv_type == 3 && t.controlled) SetValue(h, 0, t.bcv_m, c);
  for (int e : t.errors) Hold(h.store.Var(h.Number(0, e)), 0.0);
  // Trajectory start: the set points (dead band), or re-centred on the biased CV.
  const bool centre = t.tr_init == 2 || (t.tr_init == 1 && recentre);
  const double w = t.tr_open * ((IsSet(t.sphi) ? t.sphi : c) - (IsSet(t.splo) ? t.splo : c)) / 2;
  if (t.tr_init == 0 || centre) {
    SetValue(h, 0, t.tr_hi_m, centre ? c + w : t.sphi);
    SetValue(h, 0, t.tr_lo_m, centre ? c - w : t.splo);
    SetValue(h, 0, t.tr_m, centre ? c : t.sp);
  }
}

void AddMvRows(HorizonRows& rows, const MvTerms& t) {
  Horizon& h = rows.horizon();
  const int nodes = h.grid.nodes;
  const std::string du_text = fmt::format("0= du  - (u_{} - u_1)", nodes);
  for (int k = 1; k <= h.grid.num_steps(); ++k) {
    const int p = h.grid.Point(k, nodes), p1 = h.grid.Point(k, 1);
    auto n = [&](int member, int point) { return h.Number(point, member); };
    const std::string prefix = h.store.Var(n(t.mv, p)).name;
    rows.Add(p, prefix + ".du", du_text, "a - (b - c)", {n(t.delta_m, p), n(t.mv, p), n(t.mv, p1)},
             RowKind::kEquality);
    rows.Add(p, prefix + ".dudt", "0= dudt * dt - du", "a*b - c",
             {n(t.slope_m, p), h.StepLengthNumber(k), n(t.delta_m, p)}, RowKind::kEquality);
    if (t.linear_penalty) {
      rows.Add(p, prefix + ".du_pos", "0 < du_{pos} - du", "a - b", {n(t.pos_m, p), n(t.delta_m, p)},
               RowKind::kNonNegative);
      rows.Add(p, prefix + ".du_neg", "0 < du_{neg} + du", "a + b", {n(t.neg_m, p), n(t.delta_m, p)},
               RowKind::kNonNegative);
      rows.Add(p, prefix + ".mv_dcost_L1", R"(minimize dcost * \left( du_{pos} + du_{neg} \right))",
               "a*(b + c)", {n(t.dcost_m, p), n(t.pos_m, p), n(t.neg_m, p)}, RowKind::kObjective);
    } else {
      rows.Add(p, prefix + ".mv_dcost_L2", "minimize dcost * du^2", "a*b^2",
               {n(t.dcost_m, p), n(t.delta_m, p)}, RowKind::kObjective);
    }
    if (t.cost != 0.0)
      rows.Add(p, prefix + ".mv_cost", "minimize cost * u", "a*b", {n(t.cost_m, p), n(t.mv, p)},
               RowKind::kObjective);
  }
}

// Values and limits of one free MV's members; steps that may not move hold du at 0.
void ApplyMv(Horizon& h, const MvTerms& t, const ControlSettings& s) {
  const int nodes = h.grid.nodes;
  Hold(h.store.Var(h.Number(0, t.mv)), t.current);
  for (int p = 0; p < h.grid.num_points(); ++p) {
    const bool end = p > 0 && p % (nodes - 1) == 0;
    const int k = h.grid.StepOf(p);
    for (int m : {t.delta_m, t.slope_m, t.pos_m, t.neg_m})
      if (!end) Hold(h.store.Var(h.Number(p, m)), 0.0);
    // The squared move penalty reads du itself: the split parts stay at 0, out of the solve.
    if (!t.linear_penalty)
      for (int m : {t.pos_m, t.neg_m}) Hold(h.store.Var(h.Number(p, m)), 0.0);
    SetValue(h, p, t.dcost_m, t.dcost * (1.0 + (k - 1) * s.mv_dcost_slope));
    SetValue(h, p, t.cost_m, t.cost);
    if (!end) continue;
    model::Variable& du = h.store.Var(h.Number(p, t.delta_m));
    const bool moves = k <= h.grid.ctrl_hor && (k - 1) % t.step_hor == 0;
    if (!moves) {
      Hold(du, 0.0);
      continue;
    }
    du.lower = std::max(-t.dmax, t.dmaxlo);
    du.upper = std::min(t.dmax, t.dmaxhi);
  }
}

}  // namespace

ControlSettings ReadControlSettings(const dbs::OptionStore& o, int ctrlmode) {
  ControlSettings s;
  s.cv_type = o.Int("CV_TYPE");
  s.cv_wgt_slope = o.Real("CV_WGT_SLOPE");
  s.cv_wgt_start = o.Int("CV_WGT_START");
  s.mv_dcost_slope = o.Real("MV_DCOST_SLOPE");
  s.mv_step_hor = o.Int("MV_STEP_HOR");
  s.mv_type = o.Int("MV_TYPE");
  s.ctrlmode = ctrlmode;
  return s;
}

void AddControlTerms(model::ModelStore& base, const std::vector<ClassedVariable>& classes,
                     const dbs::OptionStore& o, const ControlSettings& s,
                     std::vector<CvTerms>* cvs, std::vector<MvTerms>* mvs) {
  TermBuilder b(base);
  std::vector<RowList> inputs;
  for (const ClassedVariable& c : classes) {
    if (c.cls == dbs::VarClass::kCV) {
      if (c.role == Role::kControlled) CheckCvType(s.cv_type);
      CvTerms t = ReadCv(c, o, s);
      inputs.push_back(AddCvMembers(b, t, base.Var(c.number)));
      cvs->push_back(std::move(t));
    } else if (c.cls == dbs::VarClass::kMV && c.role == Role::kPerStep) {
      MvTerms t = ReadMv(c, o, s, base.Var(c.number));
      AddMvMembers(b, t);
      mvs->push_back(std::move(t));
    }
  }
  b.Seal();
  for (size_t i = 0; i < cvs->size(); ++i) AddCvRows(b, (*cvs)[i], inputs[i]);
  b.Finish();
}

void ApplyControl(HorizonRows& rows, const std::vector<CvTerms>& cvs,
                  const std::vector<MvTerms>& mvs, const ControlSettings& s, bool recentre) {
  Horizon& h = rows.horizon();
  for (const CvTerms& t : cvs) ApplyCv(h, t, s, recentre);
  for (const MvTerms& t : mvs) {
    AddMvRows(rows, t);
    ApplyMv(h, t, s);
  }
  // The first point is the measured present: no set-point rows there.
  std::set<int> setpoint;
  for (const CvTerms& t : cvs) setpoint.insert(t.setpoint_rows.begin(), t.setpoint_rows.end());
  for (size_t r = 0; r < h.eqn_origin.size(); ++r)
    if (h.eqn_point[r] == 0 && setpoint.count(h.eqn_origin[r])) h.store.eqns[r].active = false;
  rows.Finish();
}

std::vector<int> Tiers(const std::vector<CvTerms>& cvs, const std::vector<MvTerms>& mvs) {
  std::set<int> tiers;
  for (const CvTerms& t : cvs)
    if (t.controlled) tiers.insert(t.tier);
  for (const MvTerms& t : mvs) tiers.insert(t.tier);
  if (tiers.empty()) tiers.insert(1);
  return {tiers.begin(), tiers.end()};
}

void ApplyTier(Horizon& h, const std::vector<CvTerms>& cvs, const std::vector<MvTerms>& mvs,
               int tier) {
  std::vector<char> off(h.store.eqns.size(), 0);
  for (const CvTerms& t : cvs) {
    if (!t.controlled) continue;
    const bool on = t.tier <= tier;
    for (int p = 1; p < h.grid.num_points(); ++p)
      for (int e : t.errors) {
        model::Variable& v = h.store.Var(h.Number(p, e));
        v.fixed = !on;
        if (!on) v.val = 0.0;
      }
    if (on) continue;
    for (int r : t.setpoint_rows) off[r] = 1;
  }
  for (size_t r = 0; r < h.eqn_origin.size(); ++r) {
    const int e = h.eqn_origin[r];
    if (e >= 0 && h.eqn_point[r] > 0 && static_cast<size_t>(e) < off.size())
      h.store.eqns[r].active = !off[e];
  }
  for (const MvTerms& t : mvs) {
    for (int p = 1; p < h.grid.num_points(); ++p) {
      model::Variable& u = h.store.Var(h.Number(p, t.mv));
      if (t.tier > tier) Hold(u, t.current);
      else u.fixed = false;
    }
  }
  model::CountEquationKinds(&h.store);
}

}  // namespace kx::horizon
