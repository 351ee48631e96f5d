#include "files/restart.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <unordered_map>

#include "base/file_writer.h"
#include "base/report.h"
#include "base/sentinels.h"
#include "base/text.h"

namespace kx::files {
namespace {

constexpr std::string_view kSteadyPrefix = "ss.";

// "p(12)." or "n(3)." at the start of `s`: its length, else 0.
size_t NodePrefixLength(std::string_view s) {
  if (s.size() < 5 || (s[0] != 'p' && s[0] != 'n') || s[1] != '(') return 0;
  size_t i = 2;
  while (i < s.size() && s[i] >= '0' && s[i] <= '9') ++i;
  if (i == 2 || i + 1 >= s.size() || s[i] != ')' || s[i + 1] != '.') return 0;
  return i + 2;
}

// The name a variable has in a restart file: "ss.NAME" in steady state; copies over a horizon
// carry their "p(k).n(j)." names already.
std::string WrittenName(const model::Variable& v) {
  return v.number_h > 0 ? v.name : std::string(kSteadyPrefix) + v.name;
}

// Splits "NAME = VALUE [*]" into an entry; false for anything else. `bad_value` is set when
// the line has that form but its value is not a finite number.
bool ParseLine(std::string_view line, RestartEntry* e, bool* bad_value) {
  *bad_value = false;
  std::string_view t = Trim(line);
  if (t.empty() || t[0] == '!') return false;
  size_t eq = t.rfind('=');
  if (eq == std::string_view::npos) return false;
  std::string_view rhs = Trim(t.substr(eq + 1));
  e->calculated = !rhs.empty() && rhs.back() == '*';
  if (e->calculated) rhs = Trim(rhs.substr(0, rhs.size() - 1));
  std::optional<double> v = ParseNumber(rhs);
  AssignLower(Trim(t.substr(0, eq)), &e->name);
  if (e->name.empty()) return false;
  *bad_value = !v;
  e->value = v.value_or(0.0);
  return v.has_value();
}

// Model variables by name (aliases included) -> numbers. By root, every copy of a variable
// over a horizon answers to its root name.
std::unordered_map<std::string, std::vector<int>> NumbersByName(const model::ModelStore& store,
                                                                bool by_root) {
  std::unordered_map<std::string, std::vector<int>> map;
  for (int n = 1; n <= store.nvar; ++n) {
    const model::Variable& v = store.Var(n);
    if (v.vtype == model::kVarStepLength) continue;
    map[by_root ? RootName(v.name) : v.name].push_back(n);
    for (const std::string& a : v.aliases()) map[by_root ? RootName(a) : a].push_back(n);
  }
  return map;
}

void Apply(model::Variable& v, const RestartEntry& e, bool value, bool specs) {
  if (value) v.val = e.value;
  if (specs) v.fixed = !e.calculated;
}

// True when the file lists the model's variables in solver order.
// (Step lengths of a horizon come after every other variable and are never written.)
bool SameOrder(const std::vector<RestartEntry>& entries, const model::ModelStore& store) {
  if (static_cast<int>(entries.size()) > store.nvar) return false;
  for (int n = 1; n <= store.nvar; ++n) {
    const model::Variable& v = store.Var(n);
    if (v.vtype == model::kVarStepLength) return n - 1 == static_cast<int>(entries.size());
    if (n > static_cast<int>(entries.size()) || entries[n - 1].name != WrittenName(v))
      return false;
  }
  return static_cast<int>(entries.size()) == store.nvar;
}

void ReadByPosition(const std::vector<RestartEntry>& entries, model::ModelStore& store,
                    RestartStats* stats) {
  const int count = std::min<int>(store.nvar, static_cast<int>(entries.size()));
  for (int n = 1; n <= count; ++n) Apply(store.Var(n), entries[n - 1], true, true);
  stats->matched = count;
  stats->unmatched = static_cast<int>(entries.size()) - count;
}

void ReadByName(const std::vector<RestartEntry>& entries, RestartRead how,
                model::ModelStore& store, RestartStats* stats) {
  const auto numbers = NumbersByName(store, how != RestartRead::kByName);
  const bool specs = how == RestartRead::kSpecsOnly || how == RestartRead::kByRootWithSpecs ||
                     how == RestartRead::kSmart;
  const bool values = how != RestartRead::kSpecsOnly;
  for (const RestartEntry& e : entries) {
    std::string key = e.name;
    if (how != RestartRead::kByName) {
      key = RootName(e.name);
    } else if (StartsWith(e.name, kSteadyPrefix)) {
      key = e.name.substr(kSteadyPrefix.size());
    }
    auto it = numbers.find(key);
    if (it == numbers.end()) {
      ++stats->unmatched;
      continue;
    }
    bool applied = false;
    for (int n : it->second) {
      model::Variable& v = store.Var(n);
      if (how == RestartRead::kCalculatedOnly && v.fixed) continue;
      Apply(v, e, values, specs);
      applied = true;
    }
    stats->matched += applied;
  }
}

}  // namespace

std::string RootName(std::string_view name) {
  for (;;) {
    if (StartsWith(name, kSteadyPrefix)) {
      name.remove_prefix(kSteadyPrefix.size());
    } else if (size_t k = NodePrefixLength(name); k > 0) {
      name.remove_prefix(k);
    } else {
      return std::string(name);
    }
  }
}

bool ReadRestartEntries(const std::string& path, std::vector<RestartEntry>* entries) {
  std::string text;
  if (!ReadWholeFile(path, &text)) return false;
  entries->reserve(std::count(text.begin(), text.end(), '\n') + 1);
  RestartEntry e;
  bool bad_value = false;
  std::string_view rest = text;
  for (int number = 1; !rest.empty(); ++number) {
    const size_t end = std::min(rest.find('\n'), rest.size());
    if (ParseLine(rest.substr(0, end), &e, &bad_value)) {
      entries->push_back(e);
    } else if (bad_value) {
      Sayf("Warning: {} line {}: value of {} is not a number, read as no value", path, number,
           e.name);
    }
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return true;
}

bool ReadRestart(const std::string& path, RestartRead how, model::ModelStore& store,
                 RestartStats* stats) {
  std::vector<RestartEntry> entries;
  if (!ReadRestartEntries(path, &entries)) return false;
  RestartStats local;
  if (how == RestartRead::kByPosition ||
      (how == RestartRead::kSmart && SameOrder(entries, store))) {
    ReadByPosition(entries, store, &local);
  } else {
    ReadByName(entries, how, store, &local);
  }
  if (stats) *stats = local;
  return true;
}

bool WriteRestart(const std::string& path, const model::ModelStore& store, bool calculated_only) {
  std::string text = fmt::format("! restart file: model {}, {} variables{}\n", store.name,
                                 store.nvar, calculated_only ? " (calculated only)" : "");
  for (int n = 1; n <= store.nvar; ++n) {
    const model::Variable& v = store.Var(n);
    if ((calculated_only && v.fixed) || v.vtype == model::kVarStepLength) continue;
    fmt::format_to(std::back_inserter(text), "{} = {:.17g}{}\n", WrittenName(v),
                   WritableValue(v.val), v.fixed ? "" : " *");
  }
  return WriteFileAtomically(path, text);
}

bool WriteMultipliers(const std::string& path, model::ModelAccess& access) {
  std::string text = fmt::format("! multipliers: {} constraint rows\n", access.NumRows());
  for (int r = 1; r <= access.NumRows(); ++r) {
    const model::Equation& e = access.Row(r);
    fmt::format_to(std::back_inserter(text), "{} = {:.17g}\n", e.name, WritableValue(e.lambda));
  }
  return WriteFileAtomically(path, text);
}

bool ReadMultipliers(const std::string& path, model::ModelAccess& access) {
  std::vector<RestartEntry> entries;
  if (!ReadRestartEntries(path, &entries)) return false;
  if (static_cast<int>(entries.size()) != access.NumRows()) return false;
  for (int r = 1; r <= access.NumRows(); ++r) access.Row(r).lambda = entries[r - 1].value;
  return true;
}

}  // namespace kx::files
