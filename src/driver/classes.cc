#include "driver/classes.h"

#include <unordered_map>

#include "base/sentinels.h"
#include "model/checks.h"

namespace kx::driver {
namespace {

// Model record of each name (aliases included), following merges to the survivor.
std::unordered_map<std::string, model::Variable*> RecordsByName(model::ModelStore& store) {
  std::unordered_map<std::string, model::Variable*> map;
  for (size_t i = 0; i < store.vars.size(); ++i) {
    const model::Variable& v = store.vars[i];
    model::Variable* r = &store.vars[model::ResolveForward(store, static_cast<int>(i))];
    map.emplace(v.name, r);
    for (const std::string& a : v.aliases) map.emplace(a, r);
  }
  return map;
}

bool IsInput(dbs::VarClass c) { return c == dbs::VarClass::kFV || c == dbs::VarClass::kMV; }

void ApplyOne(const dbs::OptionStore& o, const dbs::Variable& cv, int imode, model::Variable& v) {
  const std::string& n = cv.name;
  const double lower = o.GetReal(n, "LOWER"), upper = o.GetReal(n, "UPPER");
  if (lower != kUnsetLower) v.lower = lower;
  if (upper != kUnsetUpper) v.upper = upper;
  if (!IsInput(cv.cls)) return;
  const bool good = o.GetInt(n, "PSTATUS") != 0;
  const double meas = o.GetReal(n, "MEAS");
  if (good && meas != kNoValue) {
    const double f = o.GetReal(n, "FSTATUS");
    v.val = f * meas + (1.0 - f) * v.val;
  }
  v.fixed = !(good && imode == 3 && o.GetInt(n, "STATUS") == 1);
}

}  // namespace

void ApplyClassesToModel(const dbs::OptionStore& options, int imode, model::ModelStore& store) {
  if (options.variables().empty()) return;
  auto records = RecordsByName(store);
  for (const dbs::Variable& cv : options.variables()) {
    auto it = records.find(cv.name);
    if (it != records.end()) ApplyOne(options, cv, imode, *it->second);
  }
}

void WriteModelToClasses(const model::ModelStore& store, dbs::OptionStore& options) {
  if (options.variables().empty()) return;
  auto records = RecordsByName(const_cast<model::ModelStore&>(store));
  for (const dbs::Variable& cv : options.variables()) {
    auto it = records.find(cv.name);
    if (it == records.end()) continue;
    const double value = it->second->val;
    const std::string name = cv.name;
    if (!it->second->units.empty()) options.SetUnits(name, it->second->units);
    if (IsInput(cv.cls)) {
      options.Set(name, "LSTVAL", options.GetReal(name, "NEWVAL"));
      options.Set(name, "NEWVAL", value);
    } else {
      options.Set(name, "MODEL", value);
      options.Set(name, "PRED[1]", value);
    }
  }
}

}  // namespace kx::driver
