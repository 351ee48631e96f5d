// Process units: mixer, splitter, flash drum, column trays, heater, holdup vessels, stirred-tank
// reactor, pump, recovery, stream lag, recycle closure and a polymerisation reactor. Phase
// equilibrium is Raoult's law with the vapour pressures of the data bank; mixtures are ideal
// (objects/thermo_mixture). Flows are in mol/s and enthalpies in kJ/mol, so f*h is a heat flow
// in kW, the unit of the duties.
#include "objects/thermo_objects.h"

namespace kx::objects {
namespace {

using K = MemberKind;
constexpr const char* kFamily = kProcessFamily;

constexpr const char* kPhaseEnthalpy = "h = (1-vfrac)*{sum_x_hl} + vfrac*{sum_x_hv}";

MemberSpec Param(const char* name, const char* value, const char* units, const char* what,
                 const char* when = "") {
  return {name, K::kParameter, "", value, "", "", units, what, when};
}
MemberSpec Var(const char* name, const char* value, const char* units, const char* what,
               const char* size = "") {
  return {name, K::kVariable, size, value, "", "", units, what};
}

const ArgSpec kSpecArgument = {
    "spec", ArgKind::kInteger, "0",
    "0: temperature temp given; 1: duty given; 2: neither, the duty q is tied by the user "
    "(one side of a heat exchanger)"};

// The compound texts, and the switches of `spec`: fix_t (temperature given) and fix_q (duty
// given).
void PrepareSpecified(ObjectInstance* o) {
  PrepareCompoundTexts(o);
  const double spec = o->numbers.at("spec");
  if (spec != 0 && spec != 1 && spec != 2) FailObject(*o, "spec must be 0, 1 or 2");
  o->numbers["fix_t"] = spec == 0;
  o->numbers["fix_q"] = spec == 1;
}

ObjectType Mixer() {
  return {.keywords = {"mixer"},
          .family = kFamily,
          .summary = "mixes two inlet streams; outlet at pressure pres, phase by vfrac",
          .arguments = {},
          .members = JoinMembers({{Var("f1", "1", "mol/s", "inlet 1 molar flow"),
                                   Var("z1", "1/{nc}", "-", "inlet 1 mole fractions", "nc"),
                                   Var("h1", "-30", "kJ/mol", "inlet 1 molar enthalpy"),
                                   Var("f2", "1", "mol/s", "inlet 2 molar flow"),
                                   Var("z2", "1/{nc}", "-", "inlet 2 mole fractions", "nc"),
                                   Var("h2", "-30", "kJ/mol", "inlet 2 molar enthalpy"),
                                   Param("pres", "1.01325", "bar", "outlet pressure"),
                                   Param("vfrac", "0", "-", "vapour share of the outlet enthalpy")},
                                  OutletMembers(),
                                  EnthalpyMembers()}),
          .equations = {{"f = f1 + f2"},
                        {"f*x[{i}] = f1*z1[{i}] + f2*z2[{i}]", "nc"},
                        {"f*h = f1*h1 + f2*h2"},
                        {"p = pres"},
                        {kPhaseEnthalpy}},
          .prepare = PrepareCompoundTexts};
}

ObjectType Splitter() {
  return {.keywords = {"splitter"},
          .family = kFamily,
          .summary = "splits one inlet into outlets f1 = frac*fin and f2 of the same state",
          .arguments = {},
          .members = JoinMembers(
              {InletMembers(),
               {Param("frac", "0.5", "-", "share of the inlet that leaves as f1"),
                Param("pres", "1.01325", "bar", "outlet pressure"),
                Param("vfrac", "0", "-", "vapour share of the outlet enthalpy"),
                Var("f1", "0.5", "mol/s", "outlet 1 molar flow"),
                Var("f2", "0.5", "mol/s", "outlet 2 molar flow"),
                Var("t", "300", "K", "outlet temperature"), Var("p", "1", "bar", "outlet pressure"),
                Var("x", "1/{nc}", "-", "outlet mole fractions", "nc"),
                Var("h", "-30", "kJ/mol", "outlet molar enthalpy")},
               EnthalpyMembers()}),
          .equations = {{"f1 = frac*fin"},
                        {"f2 = fin - f1"},
                        {"x[{i}] = zin[{i}]", "nc"},
                        {"h = hin"},
                        {"p = pres"},
                        {kPhaseEnthalpy}},
          .prepare = PrepareCompoundTexts};
}

// Members of an equilibrium stage: temperature, pressure, duty, the vapour (fv, y, hv) and
// liquid (fl, x, hl) outlets and the vapour pressures.
std::vector<MemberSpec> EquilibriumMembers() {
  return {Var("t", "{t0}", "K", "temperature of both outlets"),
          Var("p", "1.01325", "bar", "pressure of both outlets"),
          Var("q", "0", "kW", "heat duty added"),
          Var("fv", "0.5", "mol/s", "vapour outlet molar flow"),
          Var("y", "{y0[i]}", "-", "vapour mole fractions", "nc"),
          Var("hv", "0", "kJ/mol", "vapour molar enthalpy"),
          Var("fl", "0.5", "mol/s", "liquid outlet molar flow"),
          Var("x", "{x0[i]}", "-", "liquid mole fractions", "nc"),
          Var("hl", "-30", "kJ/mol", "liquid molar enthalpy"),
          {"psat", K::kIntermediate, "nc", "{psat[i]}", "", "", "bar",
           "vapour pressure of each compound at t"}};
}

// Raoult's law, the summation y = x (which with the component balances makes both sum to one)
// and the phase enthalpies.
std::vector<EquationSpec> EquilibriumEquations() {
  return {{"y[{i}]*p = x[{i}]*psat[{i}]", "nc"},
          {"{sum_y} = {sum_x}"},
          {"hv = {sum_y_hv}"},
          {"hl = {sum_x_hl}"}};
}

std::vector<EquationSpec> JoinEquations(std::initializer_list<std::vector<EquationSpec>> parts) {
  std::vector<EquationSpec> out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

ObjectType Flash() {
  return {.keywords = {"flash"},
          .family = kFamily,
          .summary = "equilibrium flash drum: one inlet, vapour and liquid outlets, Raoult's law",
          .arguments = {kSpecArgument},
          .members = JoinMembers({InletMembers(),
                                  {Param("temp", "350", "K", "flash temperature (spec 0)", "fix_t"),
                                   Param("duty", "0", "kW", "heat duty (spec 1)", "fix_q"),
                                   Param("pres", "1.01325", "bar", "flash pressure")},
                                  EquilibriumMembers(),
                                  EnthalpyMembers()}),
          .equations = JoinEquations({{{"t = temp", "", "fix_t"},
                                       {"q = duty", "", "fix_q"},
                                       {"p = pres"},
                                       {"fin = fv + fl"},
                                       {"fin*zin[{i}] = fv*y[{i}] + fl*x[{i}]", "nc"},
                                       {"fin*hin + q = fv*hv + fl*hl"}},
                                      EquilibriumEquations()}),
          .prepare = PrepareSpecified};
}

// The inlets of a column tray: liquid from the tray above, vapour from the tray below.
std::vector<MemberSpec> TrayInletMembers() {
  return {Var("lin", "1", "mol/s", "liquid inlet molar flow (from the tray above)"),
          Var("xin", "1/{nc}", "-", "liquid inlet mole fractions", "nc"),
          Var("hlin", "-30", "kJ/mol", "liquid inlet molar enthalpy"),
          Var("vin", "1", "mol/s", "vapour inlet molar flow (from the tray below)"),
          Var("yin", "1/{nc}", "-", "vapour inlet mole fractions", "nc"),
          Var("hvin", "0", "kJ/mol", "vapour inlet molar enthalpy"),
          Param("duty", "0", "kW", "heat duty"),
          Param("pres", "1.01325", "bar", "tray pressure")};
}

ObjectType Tray() {
  return {
      .keywords = {"stage_1"},
      .family = kFamily,
      .summary = "column tray: liquid from above, vapour from below, equilibrium outlets",
      .arguments = {},
      .members = JoinMembers({TrayInletMembers(), EquilibriumMembers(), EnthalpyMembers()}),
      .equations = JoinEquations({{{"q = duty"},
                                   {"p = pres"},
                                   {"lin + vin = fv + fl"},
                                   {"lin*xin[{i}] + vin*yin[{i}] = fv*y[{i}] + fl*x[{i}]", "nc"},
                                   {"lin*hlin + vin*hvin + q = fv*hv + fl*hl"}},
                                  EquilibriumEquations()}),
      .prepare = PrepareCompoundTexts};
}

ObjectType FeedTray() {
  return {.keywords = {"flash_column"},
          .family = kFamily,
          .summary = "feed tray of a column: a tray (stage_1) with a feed inlet fin, zin, hin",
          .arguments = {},
          .members = JoinMembers(
              {TrayInletMembers(), InletMembers(), EquilibriumMembers(), EnthalpyMembers()}),
          .equations = JoinEquations(
              {{{"q = duty"},
                {"p = pres"},
                {"lin + vin + fin = fv + fl"},
                {"lin*xin[{i}] + vin*yin[{i}] + fin*zin[{i}] = fv*y[{i}] + fl*x[{i}]", "nc"},
                {"lin*hlin + vin*hvin + fin*hin + q = fv*hv + fl*hl"}},
               EquilibriumEquations()}),
          .prepare = PrepareCompoundTexts};
}

ObjectType Heater() {
  return {
      .keywords = {"stage_2"},
      .family = kFamily,
      .summary = "heater or one side of an exchanger: a single-phase stage with a duty",
      .arguments = {kSpecArgument},
      .members = JoinMembers({InletMembers(),
                              {Param("temp", "350", "K", "outlet temperature (spec 0)", "fix_t"),
                               Param("duty", "0", "kW", "heat duty (spec 1)", "fix_q"),
                               Param("pres", "1.01325", "bar", "outlet pressure"),
                               Param("vfrac", "0", "-", "vapour share of the outlet enthalpy"),
                               Var("q", "0", "kW", "heat duty added")},
                              OutletMembers(),
                              EnthalpyMembers()}),
      .equations = {{"t = temp", "", "fix_t"},
                    {"q = duty", "", "fix_q"},
                    {"p = pres"},
                    {"f = fin"},
                    {"x[{i}] = zin[{i}]", "nc"},
                    {"f*h = fin*hin + q"},
                    {kPhaseEnthalpy}},
      .prepare = PrepareSpecified};
}

// Liquid holdup: component moles m, total n, energy u, volume; the outlet is the holdup.
std::vector<MemberSpec> HoldupMembers() {
  return {Param("duty", "0", "kW", "heat duty"),
          Param("pres", "1.01325", "bar", "pressure"),
          Param("hold0", "10", "mol", "starting holdup, equal mole fractions"),
          Param("temp0", "300", "K", "starting temperature of the holdup"),
          Var("m", "{hold0}/{nc}", "mol", "component holdups (states)", "nc"),
          Var("n", "{hold0}", "mol", "total holdup"),
          Var("u", "{u0}", "MJ", "enthalpy holdup (state)"),
          Var("vol", "0.001", "m^3", "liquid volume"),
          Var("q", "0", "kW", "heat duty added")};
}

std::vector<EquationSpec> HoldupEquations() {
  return {{"n = {sum_m}"},    {"x[{i}]*n = m[{i}]", "nc"}, {"1000*u = n*h"},
          {"h = {sum_x_hl}"}, {"vol = n*{sum_x_vl}"},      {"p = pres"},
          {"q = duty"}};
}

ObjectType Vessel() {
  return {.keywords = {"vessel"},
          .family = kFamily,
          .summary = "well-mixed liquid holdup; the outlet flow f is set by the user",
          .arguments = {},
          .members = JoinMembers({InletMembers(), HoldupMembers(), OutletMembers(),
                                  EnthalpyMembers(), VolumeMembers()}),
          .equations = JoinEquations(
              {{{"$m[{i}] = fin*zin[{i}] - f*x[{i}]", "nc"}, {"1000*$u = fin*hin - f*h + q"}},
               HoldupEquations()}),
          .prepare = PrepareCompoundTexts};
}

ObjectType VesselWithLevel() {
  return {.keywords = {"vesselm"},
          .family = kFamily,
          .summary = "vessel with its liquid level and mass; the outlet flow f is set by the user",
          .arguments = {},
          .members = JoinMembers(
              {InletMembers(),
               HoldupMembers(),
               {Param("area", "1", "m^2", "cross-section of the vessel"),
                Var("level", "0.001", "m", "liquid level"), Var("mass", "1", "kg", "liquid mass")},
               OutletMembers(),
               EnthalpyMembers(),
               VolumeMembers()}),
          .equations = JoinEquations({{{"$m[{i}] = fin*zin[{i}] - f*x[{i}]", "nc"},
                                       {"1000*$u = fin*hin - f*h + q"},
                                       {"level*area = vol"},
                                       {"mass = n*{sum_x_mw}/1000"}},
                                      HoldupEquations()}),
          .prepare = PrepareCompoundTexts};
}

ObjectType Reactor() {
  return {.keywords = {"reactor"},
          .family = kFamily,
          .summary = "stirred-tank reactor: a vessel with one reaction of user rate r",
          .arguments = {},
          .members = JoinMembers(
              {InletMembers(),
               HoldupMembers(),
               {{"nu", K::kParameter, "nc", "0", "", "", "-", "stoichiometric coefficients"},
                Param("dhr", "0", "kJ/mol", "heat of reaction at 298.15 K per mol of extent"),
                Var("r", "0", "mol/(m^3 s)", "reaction rate (set by a user equation)"),
                Var("c", "1000", "mol/m^3", "concentrations", "nc")},
               OutletMembers(),
               EnthalpyMembers(),
               VolumeMembers()}),
          .equations = JoinEquations({{{"$m[{i}] = fin*zin[{i}] - f*x[{i}] + nu[{i}]*r*vol", "nc"},
                                       {"1000*$u = fin*hin - f*h - dhr*r*vol + q"},
                                       {"c[{i}]*vol = m[{i}]", "nc"}},
                                      HoldupEquations()}),
          .prepare = PrepareCompoundTexts};
}

ObjectType Pump() {
  return {.keywords = {"pump"},
          .family = kFamily,
          .summary = "liquid pump: pressure rise dp, shaft power from the volumetric flow",
          .arguments = {},
          .members = JoinMembers(
              {InletMembers(),
               {Var("pin", "1.01325", "bar", "inlet pressure"),
                Param("dp", "1", "bar", "pressure rise"), Param("eff", "0.75", "-", "efficiency"),
                Var("w", "0", "kW", "shaft power")},
               OutletMembers(),
               EnthalpyMembers(),
               VolumeMembers()}),
          .equations = {{"f = fin"},
                        {"x[{i}] = zin[{i}]", "nc"},
                        {"p = pin + dp"},
                        {"eff*w = fin*dp*100*{sum_x_vl}"},
                        {"f*h = fin*hin + w"},
                        {"h = {sum_x_hl}"}},
          .prepare = PrepareCompoundTexts};
}

ObjectType Recovery() {
  return {.keywords = {"recovery"},
          .family = kFamily,
          .summary = "recovery of each compound: its flow in a product over its flow in a feed",
          .arguments = {},
          .members = JoinMembers({{Var("fin", "1", "mol/s", "feed molar flow"),
                                   Var("zin", "1/{nc}", "-", "feed mole fractions", "nc"),
                                   Var("f", "1", "mol/s", "product molar flow"),
                                   Var("x", "1/{nc}", "-", "product mole fractions", "nc"),
                                   Var("rec", "1", "-", "recoveries", "nc")}}),
          .equations = {{"rec[{i}]*fin*zin[{i}] = f*x[{i}]", "nc"}},
          .prepare = PrepareCompoundTexts};
}

ObjectType PolymerReactor() {
  return {
      .keywords = {"poly_reactor"},
      .family = kFamily,
      .summary =
          "free-radical polymerisation in an isothermal liquid CSTR of constant volume: "
          "initiator decay, propagation, termination by combination (quasi-steady "
          "radicals), moments of the dead polymer",
      .arguments = {},
      .members = {Param("vol", "1", "m^3", "reactor volume"),
                  Param("kd", "1e-4", "1/s", "initiator decomposition rate constant"),
                  Param("feff", "0.5", "-", "initiator efficiency"),
                  Param("kp", "0.1", "m^3/(mol s)", "propagation rate constant"),
                  Param("kt", "1e4", "m^3/(mol s)", "termination rate constant"),
                  Param("mw", "100", "kg/kmol", "monomer molar mass"),
                  Var("q", "0.001", "m^3/s", "volumetric flow through the reactor"),
                  Var("m_in", "5000", "mol/m^3", "monomer in the feed"),
                  Var("i_in", "10", "mol/m^3", "initiator in the feed"),
                  Var("m", "5000", "mol/m^3", "monomer (state)"),
                  Var("i", "10", "mol/m^3", "initiator (state)"),
                  Var("pr", "7e-6", "mol/m^3", "live radicals, quasi-steady"),
                  Var("lam0", "0.5", "mol/m^3", "dead polymer chains, moment 0 (state)"),
                  Var("lam1", "3.5", "mol/m^3", "monomer units in dead polymer, moment 1 (state)"),
                  Var("mn", "700", "kg/kmol", "number-average molar mass of the polymer"),
                  Var("conv", "0", "-", "monomer conversion")},
      .equations = {{"vol*$i = q*(i_in - i) - kd*i*vol"},
                    {"vol*$m = q*(m_in - m) - kp*m*pr*vol"},
                    {"pr = sqrt(feff*kd*i/kt)"},
                    {"vol*$lam0 = -q*lam0 + kt*pr^2*vol"},
                    {"vol*$lam1 = -q*lam1 + kp*m*pr*vol"},
                    {"mn*lam0 = mw*lam1"},
                    {"conv*m_in = m_in - m"}}};
}

ObjectType Feedback() {
  return {
      .keywords = {"feedback"},
      .family = kFamily,
      .summary =
          "the closing stream of a recycle loop: passes its inlet on unchanged and "
          "gives the loop its starting flow and temperature",
      .arguments = {},
      .members = JoinMembers(
          {InletMembers(),
           {Param("flow0", "1", "mol/s", "starting flow of the recycle"),
            Param("temp0", "350", "K", "starting temperature of the recycle"),
            Param("pres", "1.01325", "bar", "outlet pressure"),
            Param("vfrac", "0", "-", "vapour share of the outlet enthalpy"),
            Var("f", "{flow0}", "mol/s", "outlet molar flow"),
            Var("t", "{temp0}", "K", "outlet temperature"), Var("p", "1", "bar", "outlet pressure"),
            Var("x", "1/{nc}", "-", "outlet mole fractions", "nc"),
            Var("h", "-30", "kJ/mol", "outlet molar enthalpy")},
           EnthalpyMembers()}),
      .equations =
          {{"f = fin"}, {"x[{i}] = zin[{i}]", "nc"}, {"h = hin"}, {"p = pres"}, {kPhaseEnthalpy}},
      .prepare = PrepareCompoundTexts};
}

ObjectType StreamLag() {
  return {.keywords = {"stream_lag"},
          .family = kFamily,
          .summary = "first-order lag of flow, composition and enthalpy of a stream",
          .arguments = {},
          .members = JoinMembers({InletMembers(),
                                  {Param("tau", "1", "s", "time constant"),
                                   Param("pres", "1.01325", "bar", "outlet pressure"),
                                   Param("vfrac", "0", "-", "vapour share of the outlet enthalpy")},
                                  OutletMembers(),
                                  EnthalpyMembers()}),
          .equations = {{"tau*$f = fin - f"},
                        {"tau*$x[{i}] = zin[{i}] - x[{i}]", "nc"},
                        {"tau*$h = hin - h"},
                        {"p = pres"},
                        {kPhaseEnthalpy}},
          .prepare = PrepareCompoundTexts};
}

}  // namespace

const std::vector<ObjectType>& ProcessObjectTypes() {
  static const std::vector<ObjectType> kTypes = {
      Mixer(),    Splitter(),  Flash(),           Tray(),          FeedTray(),
      Heater(),   Vessel(),    VesselWithLevel(), Reactor(),       Pump(),
      Recovery(), StreamLag(), Feedback(),        PolymerReactor()};
  return kTypes;
}

}  // namespace kx::objects
