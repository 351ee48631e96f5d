// The option and property tables: every global option and every per-variable property as one
// row of data {name, type, direction, default, description}. These rows drive registration in
// the store, DBS reading and writing, options.json and docs/options.md.
#pragma once

#include <optional>
#include <span>
#include <string_view>

namespace kx::dbs {

// One row of an option or property table.
struct OptionDef {
  std::string_view name;         // upper-case key, e.g. "IMODE", "DCOST", "PRED["
  char type;                     // 'I' integer (truncated on read) or 'D' real
  int direction;                 // 1 input, 2 output, 3 both
  double default_value;          // value of a fresh record
  std::string_view description;  // text written to full DBS files and reports
};

// The documented range of an integer global option. A DBS value outside it is refused with a
// warning and the value before it kept. Options with a stop of their own for a bad value
// (IMODE, NODES, CV_TYPE, EV_TYPE, SOLVER, MAX_MEMORY) have no row here.
struct OptionRange {
  std::string_view name;
  int lowest;
  int highest;
};

// The range of global option `key`, or null when it has none.
const OptionRange* FindGlobalRange(std::string_view key);

// Classes of model variables that carry properties.
enum class VarClass { kFV, kMV, kSV, kCV };

// The global options (class ZPM, also reachable as NLC), in registration order.
std::span<const OptionDef> GlobalOptionTable();

// The per-variable properties, one row per property name (no indices), alphabetical.
std::span<const OptionDef> PropertyTable();

// The properties registered for a class, in registration order. "PRED[" and "DPRED[" are
// arrays over the horizon; "OSTATUS[1]" style names are two fixed scalar entries.
std::span<const std::string_view> ClassProperties(VarClass cls);

// The outcome keys written again as NLC.KEY after the globals of a DBS file.
std::span<const std::string_view> OutcomeKeys();

// Row of the global table with this upper-case key, or null.
const OptionDef* FindGlobalDef(std::string_view key);

// Row of the property table for a registration name ("OSTATUS[1]" and "PRED[" resolve to
// "OSTATUS" and "PRED"), or null.
const OptionDef* FindPropertyDef(std::string_view registered_name);

// "FV", "MV", "SV", "CV".
std::string_view ClassName(VarClass cls);
// Class for a name in any case, or nothing.
std::optional<VarClass> ParseClass(std::string_view text);

}  // namespace kx::dbs
