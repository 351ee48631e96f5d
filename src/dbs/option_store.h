// The option store: global options (class ZPM, also reachable as NLC) and the properties of
// classified model variables (FV, MV, SV, CV), every value held as a double. Records are
// created from the tables of option_table.h, in table order, so writing a DBS file walks the
// store in the order users expect.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "dbs/option_table.h"

namespace kx::dbs {

// One global option or one property of one variable.
struct Record {
  std::string name;            // registration name, upper case: "IMODE", "OSTATUS[1]", "PRED"
  const OptionDef* def;        // type, direction, default and description of this record
  bool is_array = false;       // PRED/DPRED: one element per horizon step, addressed NAME[k]
  std::vector<double> values;  // current value(s); size 1 unless is_array

  char type() const { return def->type; }
  int direction() const { return def->direction; }
  double default_value() const { return def->default_value; }
  std::string_view description() const { return def->description; }
  // Element k (0-based) as read: integer records are truncated toward zero.
  double Get(size_t k = 0) const;
};

// A classified model variable and its property records.
struct Variable {
  std::string name;             // lower case, as in the model
  VarClass cls;                 // class from the info file
  std::string units;            // written by DBS form 2; blank until the model supplies it
  std::vector<Record> records;  // class properties in registration order
};

// Where one DBS name points: a record and the element inside it.
struct Slot {
  Record* record = nullptr;
  size_t index = 0;  // 0-based element (always 0 for scalars)
};

class OptionStore {
 public:
  // Arrays never grow past this many elements when a DBS file names a large index.
  static constexpr int kMaxArrayLength = 1000000;

  // A fresh store holds every global option at its default and no variables.
  OptionStore();

  const std::vector<Record>& globals() const { return globals_; }
  const std::vector<Variable>& variables() const { return variables_; }

  // Registers `name` (folded to lower case) with the properties of `cls` at their defaults.
  // A name registered before keeps its records and class; returns false in that case when the
  // class differs. References into variables() are invalidated.
  bool AddVariable(std::string_view name, VarClass cls);
  const Variable* FindVariable(std::string_view name) const;
  void SetUnits(std::string_view variable, std::string_view units);

  // Sizes every PRED/DPRED array to `num_steps` (>= 1). Before a horizon is set each array
  // holds one element, and a DBS read of NAME[k] grows it to k elements so that values
  // written by an earlier cycle with a longer horizon are kept.
  void SetHorizon(int num_steps);
  int horizon() const { return horizon_; }

  // Finds a record without printing anything. `owner` is ZPM, NLC or a variable name and
  // `key` a key with an optional [k] index, both in any case. With `grow`, an array index past
  // the end enlarges the array (up to kMaxArrayLength).
  std::optional<Slot> Locate(std::string_view owner, std::string_view key, bool grow = false);
  // Same for a full DBS name, "ZPM.IMODE" or "tank.level.PRED[3]" (the last dot splits).
  std::optional<Slot> LocateName(std::string_view full_name, bool grow = false);

  // Typed access. An unknown name prints "zpm_dbs_add_property: not found " and the name; a
  // read then gives 0 and a write changes nothing. Integer records are truncated on read.
  int GetInt(std::string_view owner, std::string_view key) const;
  double GetReal(std::string_view owner, std::string_view key) const;
  void Set(std::string_view owner, std::string_view key, double value);
  // Shorthands for the global options.
  int Int(std::string_view key) const { return GetInt("ZPM", key); }
  double Real(std::string_view key) const { return GetReal("ZPM", key); }
  void SetGlobal(std::string_view key, double value) { Set("ZPM", key, value); }

 private:
  std::optional<Slot> LocateIn(std::vector<Record>& records, std::string_view key, bool grow);
  std::optional<Slot> LocateOrReport(std::string_view owner, std::string_view key) const;

  std::vector<Record> globals_;                        // one per global option, table order
  std::vector<Variable> variables_;                    // in registration (info file) order
  std::unordered_map<std::string, size_t> var_index_;  // lower-case name -> variables_ index
  int horizon_ = 1;                                    // elements of each array property
};

// Parses "NAME[k]" into ("NAME", k); a name without an index gives k = 0. Nothing for a
// malformed index.
std::optional<std::pair<std::string, int>> SplitIndex(std::string_view key);

}  // namespace kx::dbs
