#include "horizon/estimation.h"

#include <algorithm>
#include <span>

#include "base/report.h"
#include "base/text.h"
#include "horizon/terms.h"
#include "model/builder.h"

namespace kx::horizon {
namespace {


constexpr RowDef kLinearRows[] = {
    {"meas_err_hi", R"(0 < err_{hi} - \left( ev - meas_{hi} \right))", "err_hi - (ev - meas_hi)",
     RowKind::kNonNegative},
    {"meas_err_lo", R"(0 < err_{lo} + \left( ev - meas_{lo} \right))", "err_lo + (ev - meas_lo)",
     RowKind::kNonNegative},
    {"model_chg_hi", R"(0 < chg_{hi} - \left( ev - model \right))", "chg_hi - (ev - model)",
     RowKind::kNonNegative},
    {"model_chg_lo", R"(0 < chg_{lo} + \left( ev - model \right))", "chg_lo + (ev - model)",
     RowKind::kNonNegative},
    {"obj_contrib",
     R"(minimize \left( w_{meas} err_{hi} + w_{meas} err_{lo} + w_{model} chg_{hi} + w_{model} chg_{lo} \right) fstatus)",
     "(wmeas*err_hi + wmeas*err_lo + wmodel*chg_hi + wmodel*chg_lo)*fstatus",
     RowKind::kObjective},
};

// The stored text has no closing parenthesis; the residual multiplies the whole row by fstatus.
constexpr RowDef kSquaredRows[] = {
    {"obj_eqn", "minimize (wmeas * (model-meas)^2 + wmodel * (model-model_0)^2 * fstatus",
     "(wmeas*(ev - meas)^2 + wmodel*(ev - model)^2)*fstatus", RowKind::kObjective},
};

constexpr RowDef kSmoothRows[] = {
    {"error", R"(0 = err - \left( ev - meas \right))", "err - (ev - meas)", RowKind::kEquality},
    {"change", R"(0 = chg - \left( ev - model \right))", "chg - (ev - model)",
     RowKind::kEquality},
    {"obj_eqn",
     R"(minimize \left(wmeas * tanh \left( err \right) * err + wmodel * tanh \left( chg \right) * chg\right))",
     "(wmeas*tanh(err)*err + wmodel*tanh(chg)*chg)*fstatus", RowKind::kObjective},
};

void CheckEvType(int ev_type, bool exact_hessian) {
  if (ev_type < 1 || ev_type > 3) {
    Fatal({fmt::format("zpm_node: EV_TYPE {} is not supported.", ev_type)},
          "1-3 are valid.  Stopping . . .");
  }
  if (ev_type == 3 && !exact_hessian) Fatal({"ctl_meas_aL1 needs 2nd derivative information"});
}

void WarnWeights(const EvTerms& t) {
  if (t.wmeas >= t.wmodel) return;
  Say(fmt::format("ctl_meas_{} warning: wmeas < wmodel for CV({})", t.ev_type == 2 ? "L2" : "L1",
                  t.name));
  Say("  wmeas: " + FormatReal(t.wmeas));
  Say("  wmodel: " + FormatReal(t.wmodel));
}

// Queues the members of one error model; the placeholder list of its rows comes back.
RowList AddMembers(TermBuilder& b, EvTerms& t, const model::Variable& ev) {
  const std::string& n = t.name;
  const double v = ev.val;
  RowList in = {{"ev", t.ev}};
  auto param = [&](const char* member, double value, int* number) {
    *number = b.AddMember(n + "." + member, value, -kUnlimited, kUnlimited, /*fixed=*/true);
    in.push_back({member, *number});
  };
  auto error = [&](const char* member, double lower) {
    const int number = b.AddMember(n + "." + member, 0.0, lower, kUnlimited, /*fixed=*/false);
    t.errors.push_back(number);
    in.push_back({member, number});
  };
  param("fstatus", t.fstatus, &t.fstatus_m);
  param("wmeas", t.wmeas, &t.wmeas_m);
  param("wmodel", t.wmodel, &t.wmodel_m);
  param("model", v, &t.model_m);
  if (t.ev_type == 1) {
    param("meas_hi", v, &t.meas_hi_m);
    param("meas_lo", v, &t.meas_lo_m);
    for (const char* e : {"err_hi", "err_lo", "chg_hi", "chg_lo"}) error(e, 0.0);
  } else {
    param("meas", v, &t.meas_m);
    if (t.ev_type == 3)
      for (const char* e : {"err", "chg"}) error(e, -kUnlimited);
  }
  return in;
}

std::span<const RowDef> RowsOf(int ev_type) {
  if (ev_type == 1) return kLinearRows;
  if (ev_type == 2) return kSquaredRows;
  return kSmoothRows;
}

}  // namespace

EstimationSettings ReadEstimationSettings(const dbs::OptionStore& o, bool exact_hessian) {
  EstimationSettings s;
  s.ev_type = o.Int("EV_TYPE");
  s.ev_wgt_slope = o.Real("EV_WGT_SLOPE");
  s.exact_hessian = exact_hessian;
  return s;
}

std::vector<EvTerms> AddEstimationTerms(model::ModelStore& base,
                                        const std::vector<ClassedVariable>& classes,
                                        const dbs::OptionStore& o,
                                        const EstimationSettings& settings) {
  std::vector<EvTerms> evs;
  std::vector<RowList> inputs;
  TermBuilder b(base);
  for (const ClassedVariable& c : classes) {
    if (c.role != Role::kMeasured) continue;
    CheckEvType(settings.ev_type, settings.exact_hessian);
    EvTerms t;
    t.name = c.name;
    t.ev = c.number;
    t.ev_type = settings.ev_type;
    t.fstatus = c.fstatus;
    t.wmeas = o.GetReal(c.name, "WMEAS");
    t.wmodel = o.GetReal(c.name, "WMODEL");
    t.meas_gap = o.GetReal(c.name, "MEAS_GAP");
    WarnWeights(t);
    inputs.push_back(AddMembers(b, t, base.Var(c.number)));
    evs.push_back(std::move(t));
  }
  b.Seal();
  for (size_t i = 0; i < evs.size(); ++i) {
    for (const RowDef& r : RowsOf(evs[i].ev_type)) {
      evs[i].rows.push_back(
          b.AddRow(evs[i].name + "." + r.name, r.text, r.expr, inputs[i], r.kind));
    }
  }
  b.Finish();
  return evs;
}

void ApplyMeasurements(Horizon& h, const std::vector<EvTerms>& evs, const MeasurementTable& meas,
                       const EstimationSettings& settings) {
  model::ModelStore& s = h.store;
  const int points = h.grid.num_points();
  // measured[i][p]: variable i has a measurement at point p.
  std::vector<std::vector<char>> measured(evs.size(), std::vector<char>(points, 0));
  for (size_t i = 0; i < evs.size(); ++i) {
    const EvTerms& t = evs[i];
    for (int p = 0; p < points; ++p) {
      const double m = IsMeasurementPoint(h, p) ? meas[i][p] : kNoValue;
      const bool has = m != kNoValue;
      measured[i][p] = has;
      const int k = h.data_sets ? 1 : p / (h.grid.nodes - 1);  // step that ends at p
      const double f = 1.0 + (std::max(k, 1) - 1) * settings.ev_wgt_slope;
      const double model = s.Var(h.Number(p, t.ev)).val;
      auto set = [&](int member, double value) {
        if (member > 0) s.Var(h.Number(p, member)).val = value;
      };
      set(t.fstatus_m, has ? t.fstatus : 0.0);
      set(t.wmeas_m, t.wmeas * f);
      set(t.wmodel_m, t.wmodel * f);
      set(t.model_m, model);
      const double value = has ? m : model;
      set(t.meas_m, value);
      set(t.meas_hi_m, value + t.meas_gap / 2.0);
      set(t.meas_lo_m, value - t.meas_gap / 2.0);
      for (int e : t.errors) {
        model::Variable& v = s.Var(h.Number(p, e));
        v.fixed = !has;
        if (!has) v.val = 0.0;
      }
    }
  }
  // Rows follow their point's measurement.
  std::vector<int> owner(h.eqn_origin.empty() ? 0 : *std::max_element(h.eqn_origin.begin(),
                                                                       h.eqn_origin.end()) + 1,
                         -1);
  for (size_t i = 0; i < evs.size(); ++i)
    for (int r : evs[i].rows) owner[r] = static_cast<int>(i);
  for (size_t r = 0; r < s.eqns.size() && r < h.eqn_origin.size(); ++r) {
    const int e = h.eqn_origin[r];
    if (e >= 0 && owner[e] >= 0) s.eqns[r].active = measured[owner[e]][h.eqn_point[r]] != 0;
  }
  model::CountEquationKinds(&s);
}

}  // namespace kx::horizon
