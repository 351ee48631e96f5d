#include "dbs/option_store.h"

#include <algorithm>
#include <climits>
#include <cmath>

#include "base/report.h"
#include "base/text.h"

namespace kx::dbs {
namespace {

Record MakeRecord(std::string_view name, const OptionDef* def, bool is_array, size_t size) {
  return Record{std::string(name), def, is_array, std::vector<double>(size, def->default_value)};
}

// True for the NLC/ZPM class names, in any case.
bool IsGlobalOwner(std::string_view owner) {
  std::string upper = ToUpper(owner);
  return upper == "ZPM" || upper == "NLC";
}

}  // namespace

double Record::Get(size_t k) const {
  double v = values[k];
  return type() == 'I' ? std::trunc(v) : v;
}

std::optional<std::pair<std::string, int>> SplitIndex(std::string_view key) {
  size_t open = key.find('[');
  if (open == std::string_view::npos) return std::make_pair(std::string(key), 0);
  if (key.back() != ']' || open == 0) return std::nullopt;
  std::string_view digits = key.substr(open + 1, key.size() - open - 2);
  if (digits.empty() || digits.size() > 9) return std::nullopt;
  int k = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') return std::nullopt;
    k = k * 10 + (c - '0');
  }
  if (k < 1) return std::nullopt;
  return std::make_pair(std::string(key.substr(0, open)), k);
}

OptionStore::OptionStore() {
  for (const OptionDef& def : GlobalOptionTable())
    globals_.push_back(MakeRecord(def.name, &def, false, 1));
}

bool OptionStore::AddVariable(std::string_view name, VarClass cls) {
  std::string lower = ToLower(Trim(name));
  if (auto it = var_index_.find(lower); it != var_index_.end())
    return variables_[it->second].cls == cls;
  Variable v{lower, cls, "", {}};
  for (std::string_view prop : ClassProperties(cls)) {
    const OptionDef* def = FindPropertyDef(prop);
    bool is_array = prop.back() == '[';
    std::string_view reg = is_array ? prop.substr(0, prop.size() - 1) : prop;
    v.records.push_back(MakeRecord(reg, def, is_array, is_array ? horizon_ : 1));
  }
  var_index_.emplace(lower, variables_.size());
  variables_.push_back(std::move(v));
  return true;
}

const Variable* OptionStore::FindVariable(std::string_view name) const {
  auto it = var_index_.find(ToLower(Trim(name)));
  return it == var_index_.end() ? nullptr : &variables_[it->second];
}

void OptionStore::SetUnits(std::string_view variable, std::string_view units) {
  auto it = var_index_.find(ToLower(Trim(variable)));
  if (it != var_index_.end()) variables_[it->second].units = std::string(units);
}

void OptionStore::SetHorizon(int num_steps) {
  horizon_ = std::max(1, num_steps);
  for (Variable& v : variables_)
    for (Record& r : v.records)
      if (r.is_array) r.values.resize(horizon_, r.default_value());
}

std::optional<Slot> OptionStore::LocateIn(std::vector<Record>& records, std::string_view key,
                                          bool grow) {
  std::string upper = ToUpper(Trim(key));
  for (Record& r : records)
    if (!r.is_array && r.name == upper) return Slot{&r, 0};
  auto split = SplitIndex(upper);
  if (!split || split->second == 0) return std::nullopt;
  auto [base, k] = *split;
  for (Record& r : records) {
    if (!r.is_array || r.name != base) continue;
    if (static_cast<size_t>(k) > r.values.size()) {
      if (!grow || k > kMaxArrayLength) return std::nullopt;
      r.values.resize(k, r.default_value());
    }
    return Slot{&r, static_cast<size_t>(k - 1)};
  }
  return std::nullopt;
}

std::optional<Slot> OptionStore::Locate(std::string_view owner, std::string_view key, bool grow) {
  if (IsGlobalOwner(owner)) return LocateIn(globals_, key, false);
  auto it = var_index_.find(ToLower(Trim(owner)));
  if (it == var_index_.end()) return std::nullopt;
  return LocateIn(variables_[it->second].records, key, grow);
}

std::optional<Slot> OptionStore::LocateName(std::string_view full_name, bool grow) {
  std::string_view name = Trim(full_name);
  // The index of PRED[k] holds no dot, so the last dot splits owner from key.
  size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0 || dot + 1 == name.size()) return std::nullopt;
  return Locate(name.substr(0, dot), name.substr(dot + 1), grow);
}

std::optional<Slot> OptionStore::LocateOrReport(std::string_view owner,
                                                std::string_view key) const {
  auto slot = const_cast<OptionStore*>(this)->Locate(owner, key, false);
  if (!slot) Say("zpm_dbs_add_property: not found " + ToUpper(owner) + "." + ToUpper(key));
  return slot;
}

int OptionStore::GetInt(std::string_view owner, std::string_view key) const {
  auto slot = LocateOrReport(owner, key);
  if (!slot) return 0;
  // Saturates: a value past the int range (set by the engine, never read from a file) would
  // otherwise be undefined behaviour to convert.
  const double v = slot->record->Get(slot->index);
  if (std::isnan(v)) return 0;
  constexpr double kLowest = INT_MIN, kHighest = INT_MAX;
  return static_cast<int>(std::clamp(v, kLowest, kHighest));
}

double OptionStore::GetReal(std::string_view owner, std::string_view key) const {
  auto slot = LocateOrReport(owner, key);
  return slot ? slot->record->Get(slot->index) : 0.0;
}

void OptionStore::Set(std::string_view owner, std::string_view key, double value) {
  auto slot = LocateOrReport(owner, key);
  if (slot) slot->record->values[slot->index] = value;
}

}  // namespace kx::dbs
