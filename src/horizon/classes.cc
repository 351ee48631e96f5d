#include "horizon/classes.h"

#include <unordered_map>

#include "model/checks.h"

namespace kx::horizon {
namespace {

// Base-model number of each name (aliases included, merges followed).
std::unordered_map<std::string, int> NumbersByName(const model::ModelStore& base) {
  std::unordered_map<std::string, int> map;
  for (size_t i = 0; i < base.vars.size(); ++i) {
    const model::Variable& v = base.vars[i];
    const int number = base.vars[model::ResolveForward(base, static_cast<int>(i))].number;
    map.emplace(v.name, number);
    for (const std::string& a : v.aliases()) map.emplace(a, number);
  }
  return map;
}

Role RoleOf(const ClassedVariable& c, int imode, int ctrlmode) {
  const bool on = c.good && c.status == 1;
  // Steady-state optimisation always optimises; a controller only when CTRLMODE is 3.
  const bool controls = imode == 3 || (IsControlMode(imode) && ctrlmode == 3);
  switch (c.cls) {
    case dbs::VarClass::kFV:
      return on && (IsEstimationMode(imode) || controls) ? Role::kShared : Role::kFixed;
    case dbs::VarClass::kMV:
      return on && (IsEstimationMode(imode) || controls) ? Role::kPerStep : Role::kFixed;
    case dbs::VarClass::kSV:
      return Role::kReported;
    case dbs::VarClass::kCV:
      if (IsEstimationMode(imode) && c.good && c.fstatus > 0) return Role::kMeasured;
      if (imode != 3 && controls && on) return Role::kControlled;
      return Role::kReported;
  }
  return Role::kFixed;
}

}  // namespace

std::vector<ClassedVariable> ClassifyVariables(const dbs::OptionStore& o,
                                               const model::ModelStore& base, int imode,
                                               int ctrlmode) {
  std::vector<ClassedVariable> list;
  if (o.variables().empty()) return list;
  const auto numbers = NumbersByName(base);
  for (const dbs::Variable& dv : o.variables()) {
    auto it = numbers.find(dv.name);
    if (it == numbers.end() || it->second <= 0) continue;
    ClassedVariable c;
    c.name = dv.name;
    c.cls = dv.cls;
    c.number = it->second;
    const bool has_pstatus = dv.cls != dbs::VarClass::kSV;
    const bool has_status = dv.cls != dbs::VarClass::kSV;
    c.good = !has_pstatus || o.GetInt(dv.name, "PSTATUS") != 0;
    c.status = has_status ? o.GetInt(dv.name, "STATUS") : 0;
    c.lower = o.GetReal(dv.name, "LOWER");
    c.upper = o.GetReal(dv.name, "UPPER");
    c.fstatus = o.GetReal(dv.name, "FSTATUS");
    c.meas = c.good ? o.GetReal(dv.name, "MEAS") : kNoValue;
    if (c.IsInput()) c.last = o.GetReal(dv.name, "NEWVAL");
    c.role = RoleOf(c, imode, ctrlmode);
    list.push_back(std::move(c));
  }
  return list;
}

void ApplyRole(const ClassedVariable& c, model::Variable& v) {
  if (c.lower != kUnsetLower) v.lower = c.lower;
  if (c.upper != kUnsetUpper) v.upper = c.upper;
  if (!c.IsInput()) return;
  v.val = c.Filtered(v.val);
  v.fixed = !c.IsFree();
}

}  // namespace kx::horizon
