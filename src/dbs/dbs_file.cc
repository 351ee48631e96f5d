#include "dbs/dbs_file.h"

#include <fmt/format.h>

#include <climits>
#include <algorithm>
#include <cmath>
#include <optional>

#include "base/report.h"
#include "base/sentinels.h"
#include "base/text.h"
#include "base/file_writer.h"

namespace kx::dbs {
namespace {

// A DBS line split into its name and value texts.
struct DbsLine {
  std::string_view name;
  std::string_view value;
};

// line -> name '=' value [',' status [',' units]] | name blanks value
std::optional<DbsLine> SplitLine(std::string_view line) {
  std::string_view name, rest;
  size_t eq = line.find('=');
  if (eq != std::string_view::npos) {
    name = Trim(line.substr(0, eq));
    rest = line.substr(eq + 1);
  } else {
    size_t blank = line.find_first_of(" \t");
    if (blank == std::string_view::npos) return std::nullopt;
    name = line.substr(0, blank);
    rest = line.substr(blank);
  }
  if (name.empty() || name.find_first_of(" \t") != std::string_view::npos) return std::nullopt;
  return DbsLine{name, Trim(rest.substr(0, rest.find(',')))};
}

// The documented range of a global integer record, or null.
const OptionRange* RangeOf(const Record& r) {
  return FindGlobalDef(r.name) == r.def ? FindGlobalRange(r.name) : nullptr;
}

// True when the value, truncated as integer records are read, is an int.
bool FitsInteger(double v) {
  const double t = std::trunc(v);
  return t >= -static_cast<double>(INT_MAX) && t <= static_cast<double>(INT_MAX);
}

// Applies one non-comment line; returns the warning text for a bad line, or "".
std::string ApplyLine(std::string_view line, OptionStore& store) {
  auto parts = SplitLine(line);
  if (!parts) return fmt::format("cannot read \"{}\"", line);
  auto slot = store.LocateName(parts->name, /*grow=*/true);
  if (!slot) return fmt::format("unknown name {}", parts->name);
  auto value = ParseNumber(parts->value);
  if (!value) return fmt::format("value of {} is not a number: \"{}\"", parts->name, parts->value);
  if (slot->record->type() == 'I' && !FitsInteger(*value)) {
    return fmt::format("value of {} is out of the integer range: \"{}\", {} kept", parts->name,
                       parts->value, FormatValue(*slot->record, slot->index));
  }
  const Record& r = *slot->record;
  if (const OptionRange* range = RangeOf(r);
      range && (std::trunc(*value) < range->lowest || std::trunc(*value) > range->highest)) {
    return fmt::format("value of {} is outside its range {} to {}: \"{}\", {} kept", parts->name,
                       range->lowest, range->highest, parts->value, FormatValue(r, slot->index));
  }
  slot->record->values[slot->index] = *value;
  return "";
}

bool WrittenAtLevel(const Record& r, int level) {
  if (level >= 1 || r.direction() != 1) return true;
  for (double v : r.values)
    if (v != r.default_value()) return true;
  return false;
}

void AppendRecord(std::string& out, const std::string& owner, const Record& r,
                  std::string_view units, int form) {
  for (size_t k = 0; k < r.values.size(); ++k) {
    std::string name = owner + "." + r.name;
    if (r.is_array) name += fmt::format("[{}]", k + 1);
    std::string value = FormatValue(r, k);
    if (form == 2)
      out += std::string(Trim(fmt::format("{} = {}, {}, {}", name, value, r.direction(), units)));
    else
      out += name + " " + value;
    out += '\n';
  }
}

}  // namespace

double WrittenValue(const Record& record, size_t k) {
  double v = record.Get(k);
  if (record.type() == 'I' && !FitsInteger(v)) {
    // Integer records hold what GetInt reads: the int range, NaN as the default.
    if (std::isnan(v)) return record.default_value();
    v = v > 0 ? INT_MAX : -static_cast<double>(INT_MAX);
  }
  if (const OptionRange* range = RangeOf(record))  // written within what is read back
    return std::clamp(v, static_cast<double>(range->lowest), static_cast<double>(range->highest));
  if (record.type() == 'I') return v;
  if (std::isinf(v) && record.name == "UPPER" && v > 0) return kUnsetUpper;
  if (std::isinf(v) && record.name == "LOWER" && v < 0) return kUnsetLower;
  return WritableValue(v);
}

std::string FormatValue(const Record& record, size_t k) {
  const double v = WrittenValue(record, k);
  if (record.type() == 'I' && std::fabs(v) < 9.0e15)
    return fmt::format("{}", static_cast<long long>(v));
  return FormatReal(v);
}

DbsReadResult ReadDbsText(std::string_view text, std::string_view file_label, OptionStore& store) {
  DbsReadResult result;
  result.found = true;
  int line_number = 0;
  for (const std::string& raw : Split(text, '\n')) {
    ++line_number;
    std::string_view line = Trim(raw);
    if (line.empty() || line[0] == '!' || line[0] == '#') continue;
    std::string problem = ApplyLine(line, store);
    if (problem.empty()) {
      ++result.applied;
    } else {
      ++result.warnings;
      Sayf("Warning: {} line {}: {}; line skipped", file_label, line_number, problem);
    }
  }
  return result;
}

DbsReadResult ReadDbsFile(const std::string& path, OptionStore& store) {
  std::string text;
  if (!ReadWholeFile(path, &text)) return DbsReadResult{};
  return ReadDbsText(text, path, store);
}

std::string FormatDbs(const OptionStore& store, int form, int level) {
  std::string out;
  for (const Record& r : store.globals())
    if (WrittenAtLevel(r, level)) AppendRecord(out, "ZPM", r, "", form);
  for (std::string_view key : OutcomeKeys())
    for (const Record& r : store.globals())
      if (r.name == key && WrittenAtLevel(r, level)) AppendRecord(out, "NLC", r, "", form);
  for (const Variable& v : store.variables())
    for (const Record& r : v.records)
      if (WrittenAtLevel(r, level)) AppendRecord(out, v.name, r, v.units, form);
  return out;
}

bool WriteDbsFile(const std::string& path, const OptionStore& store, int form, int level) {
  return WriteFileAtomically(path, FormatDbs(store, form, level));
}

}  // namespace kx::dbs
