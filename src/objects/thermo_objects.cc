// Thermodynamic objects: the property calculator of the model's compounds, feed streams and
// the stream measures (molar and mass flows, mass of a holdup).
#include "objects/thermo_objects.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "base/text.h"
#include "objects/thermo_mixture.h"
#include "objects/thermo_texts.h"

namespace kx::objects {
namespace {

using K = MemberKind;
constexpr const char* kFamily = kThermoFamily;

// The mixture enthalpy of an outlet at its temperature, liquid and vapour weighted by vfrac.
constexpr const char* kPhaseEnthalpy = "h = (1-vfrac)*{sum_x_hl} + vfrac*{sum_x_hv}";

std::vector<MemberSpec> FeedConditions() {
  return {{"temp", K::kParameter, "", "298.15", "", "", "K", "temperature"},
          {"pres", K::kParameter, "", "1.01325", "", "", "bar", "pressure"},
          {"vfrac", K::kParameter, "", "0", "", "", "-",
           "vapour share of the enthalpy: 0 liquid, 1 vapour"}};
}

ObjectType Thermo() {
  return {
      .keywords = {"thermo"},
      .family = kFamily,
      .summary = "pure-compound properties of every compound at temperature t",
      .arguments = {},
      .members = {{"t", K::kVariable, "", "298.15", "", "", "K", "temperature"},
                  {"mw", K::kParameter, "nc", "{mw[i]}", "", "", "kg/kmol", "molar mass"},
                  {"psat", K::kVariable, "nc", "1", "", "", "bar", "vapour pressure"},
                  {"hvap", K::kVariable, "nc", "30", "", "", "kJ/mol", "heat of vaporisation"},
                  {"rho", K::kVariable, "nc", "1e4", "", "", "mol/m^3", "liquid density"},
                  {"cp", K::kVariable, "nc", "30", "", "", "J/(mol K)", "ideal-gas heat capacity"},
                  {"hv", K::kVariable, "nc", "0", "", "", "kJ/mol", "vapour enthalpy"},
                  {"hl", K::kVariable, "nc", "-30", "", "", "kJ/mol", "liquid enthalpy"}},
      .equations = {{"psat[{i}] = {psat[i]}", "nc"},
                    {"hvap[{i}] = {hvap[i]}", "nc"},
                    {"rho[{i}] = {rho[i]}", "nc"},
                    {"cp[{i}] = {cp[i]}", "nc"},
                    {"hv[{i}] = {hv[i]}", "nc"},
                    {"hl[{i}] = {hl[i]}", "nc"}},
      .prepare = PrepareCompoundTexts};
}

ObjectType Feed() {
  return {.keywords = {"feed"},
          .family = kFamily,
          .summary = "feed stream of given molar flow, temperature, pressure and composition",
          .arguments = {},
          .members =
              JoinMembers({{{"flow", K::kParameter, "", "1", "", "", "mol/s", "molar flow"}},
                           FeedConditions(),
                           {{"comp", K::kParameter, "nc", "1/{nc}", "", "", "-", "mole fractions"}},
                           OutletMembers(),
                           EnthalpyMembers()}),
          .equations = {{"f = flow"},
                        {"t = temp"},
                        {"p = pres"},
                        {"x[{i}] = comp[{i}]", "nc"},
                        {kPhaseEnthalpy}},
          .prepare = PrepareCompoundTexts};
}

ObjectType FeedMass() {
  return {.keywords = {"feedm"},
          .family = kFamily,
          .summary = "feed stream of given mass flow and mass fractions",
          .arguments = {},
          .members = JoinMembers(
              {{{"mflow", K::kParameter, "", "1", "", "", "kg/s", "mass flow"}},
               FeedConditions(),
               {{"wcomp", K::kParameter, "nc", "1/{nc}", "", "", "-", "mass fractions"}},
               OutletMembers(),
               EnthalpyMembers(),
               VolumeMembers()}),
          .equations = {{"f*{sum_x_mw} = 1000*mflow"},
                        {"t = temp"},
                        {"p = pres"},
                        {"x[{i}]*{sum_w_mw} = wcomp[{i}]/mw[{i}]", "nc"},
                        {kPhaseEnthalpy}},
          .prepare = PrepareCompoundTexts};
}

// A measure of a stream f, x[1:nc] that the user connects to a stream of another object.
std::vector<MemberSpec> MeasuredStream() {
  return {{"f", K::kVariable, "", "1", "", "", "mol/s", "molar flow of the measured stream"},
          {"x", K::kVariable, "nc", "1/{nc}", "", "", "-", "its mole fractions"},
          {"mw", K::kIntermediate, "nc", "{mw[i]}", "", "", "kg/kmol", "molar masses"}};
}

ObjectType MolarFlows() {
  return {.keywords = {"molarflows"},
          .family = kFamily,
          .summary = "component molar flows of a stream",
          .arguments = {},
          .members = JoinMembers(
              {MeasuredStream(),
               {{"fc", K::kVariable, "nc", "", "", "", "mol/s", "component molar flows"}}}),
          .equations = {{"fc[{i}] = f*x[{i}]", "nc"}},
          .prepare = PrepareCompoundTexts};
}

ObjectType MassFlows() {
  return {.keywords = {"massflows"},
          .family = kFamily,
          .summary = "component mass flows of a stream",
          .arguments = {},
          .members = JoinMembers(
              {MeasuredStream(),
               {{"mc", K::kVariable, "nc", "", "", "", "kg/s", "component mass flows"}}}),
          .equations = {{"mc[{i}] = f*x[{i}]*mw[{i}]/1000", "nc"}},
          .prepare = PrepareCompoundTexts};
}

ObjectType MassFlow() {
  return {.keywords = {"massflow"},
          .family = kFamily,
          .summary = "total mass flow of a stream",
          .arguments = {},
          .members = JoinMembers(
              {MeasuredStream(), {{"m", K::kVariable, "", "", "", "", "kg/s", "mass flow"}}}),
          .equations = {{"m = f*{sum_x_mw}/1000"}},
          .prepare = PrepareCompoundTexts};
}

ObjectType Mass() {
  return {.keywords = {"mass"},
          .family = kFamily,
          .summary = "mass of a holdup of n mol with mole fractions x",
          .arguments = {},
          .members = {{"n", K::kVariable, "", "1", "", "", "mol", "moles held"},
                      {"x", K::kVariable, "nc", "1/{nc}", "", "", "-", "mole fractions"},
                      {"mw", K::kIntermediate, "nc", "{mw[i]}", "", "", "kg/kmol", "molar masses"},
                      {"m", K::kVariable, "", "", "", "", "kg", "mass"}},
          .equations = {{"m = n*{sum_x_mw}/1000"}},
          .prepare = PrepareCompoundTexts};
}

// Starting mole fractions of the two phases of an equilibrium object, "x0[i]" and "y0[i]":
// proportional to 1/K and K at the object's temperature and pressure (or 350 K and 1 atm).
// Equal starting compositions would make the phase flows indistinguishable and the Jacobian
// of the balances singular.
void AddStartingCompositions(const std::vector<const Compound*>& cs, ObjectInstance* o) {
  auto number = [o](const char* key, double fallback) {
    auto it = o->numbers.find(key);
    return it == o->numbers.end() ? fallback : it->second;
  };
  const double t = number("temp", 350), p = number("pres", 1.01325);
  std::vector<double> k;
  double sum_k = 0, sum_inv = 0;
  for (const Compound* c : cs) {
    k.push_back(std::clamp(VapourPressureBar(*c, t) / p, 1e-3, 1e3));
    sum_k += k.back();
    sum_inv += 1 / k.back();
  }
  for (size_t i = 0; i < cs.size(); ++i) {
    o->texts[fmt::format("x0[{}]", i + 1)] = FormatReal(1 / k[i] / sum_inv);
    o->texts[fmt::format("y0[{}]", i + 1)] = FormatReal(k[i] / sum_k);
  }
  o->texts["t0"] = FormatReal(t);
  // The enthalpy of a holdup's starting hold0 mol of equal mole fractions, liquid at temp0.
  const double hold0 = number("hold0", 10), temp0 = number("temp0", 300);
  double u0 = 0;
  for (const Compound* c : cs) u0 += hold0 / cs.size() * LiquidEnthalpy(*c, temp0) / 1000;
  o->texts["u0"] = FormatReal(u0);  // MJ
}

}  // namespace

std::vector<MemberSpec> JoinMembers(std::initializer_list<std::vector<MemberSpec>> parts) {
  std::vector<MemberSpec> out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

std::vector<MemberSpec> OutletMembers() {
  return {{"f", K::kVariable, "", "1", "", "", "mol/s", "outlet molar flow"},
          {"t", K::kVariable, "", "300", "", "", "K", "outlet temperature"},
          {"p", K::kVariable, "", "1", "", "", "bar", "outlet pressure"},
          {"x", K::kVariable, "nc", "1/{nc}", "", "", "-", "outlet mole fractions"},
          {"h", K::kVariable, "", "-30", "", "", "kJ/mol", "outlet molar enthalpy"}};
}

std::vector<MemberSpec> InletMembers() {
  return {{"fin", K::kVariable, "", "1", "", "", "mol/s", "inlet molar flow"},
          {"zin", K::kVariable, "nc", "1/{nc}", "", "", "-", "inlet mole fractions"},
          {"hin", K::kVariable, "", "-30", "", "", "kJ/mol", "inlet molar enthalpy"}};
}

std::vector<MemberSpec> EnthalpyMembers() {
  return {{"hli", K::kIntermediate, "nc", "{hl[i]}", "", "", "kJ/mol",
           "liquid enthalpy of each compound at t"},
          {"hvi", K::kIntermediate, "nc", "{hv[i]}", "", "", "kJ/mol",
           "vapour enthalpy of each compound at t"}};
}

std::vector<MemberSpec> VolumeMembers() {
  return {{"rho", K::kIntermediate, "nc", "{rho[i]}", "", "", "mol/m^3",
           "liquid density of each compound at t"},
          {"mw", K::kIntermediate, "nc", "{mw[i]}", "", "", "kg/kmol", "molar masses"}};
}

void PrepareCompoundTexts(ObjectInstance* o) {
  if (o->compounds.empty()) {
    FailObject(*o, "needs the compounds of the model: list them in a Compounds section");
  }
  std::string unknown;
  const std::vector<const Compound*> cs = ResolveCompounds(o->compounds, &unknown);
  if (!unknown.empty()) {
    FailObject(*o, fmt::format("compound '{}' is not in the data bank (docs/objects.md lists "
                               "the compounds)",
                               unknown));
  }
  // Every object of a model has the same compounds: their texts are written once.
  static std::vector<std::string> cached_names;
  static std::map<std::string, std::string> cached_texts;
  if (cached_names != o->compounds || cached_texts.empty()) {
    cached_texts = CompoundTexts(cs);
    cached_names = o->compounds;
  }
  o->texts.insert(cached_texts.begin(), cached_texts.end());
  AddStartingCompositions(cs, o);
}

const std::vector<ObjectType>& ThermoObjectTypes() {
  static const std::vector<ObjectType> kTypes = {Thermo(),    Feed(),     FeedMass(), MolarFlows(),
                                                 MassFlows(), MassFlow(), Mass()};
  return kTypes;
}

}  // namespace kx::objects
