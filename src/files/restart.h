// files/restart: restart files (".t0"), the warm-start files "warm.t0" and "lam.t0".
//
// Layout: text; lines starting with "!" are comments, blank lines are skipped; one variable a
// line, "NAME = VALUE" followed by " *" when the variable is calculated (free) and nothing
// when it is fixed. Steady-state files name variables "ss.NAME". Variables are written in
// solver order (number 1..nvar), which is the order a positional read expects.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "model/access.h"

namespace kx::files {

// One value line of a restart file.
struct RestartEntry {
  std::string name;         // as written, lower case
  double value = 0;
  bool calculated = false;  // the line ends in "*"
};

// Parses a restart file; false when it cannot be opened. Lines that are not "NAME = VALUE"
// are skipped (headers and comments are allowed anywhere). A VALUE that is not a finite
// number prints a warning naming the file and line and is skipped as if it were missing.
bool ReadRestartEntries(const std::string& path, std::vector<RestartEntry>* entries);

// The root of a restart name: the mode and node prefixes ("ss.", "p(3).n(2).") removed.
std::string RootName(std::string_view name);

// How a read matches file lines to model variables.
enum class RestartRead {
  kByName,          // 1: full names (prefix of the file's own type), any order, no specs
  kByRoot,          // 4: root names, last occurrence wins, no specs
  kByPosition,      // 5: line k is variable k; specs too
  kSpecsOnly,       // 6: "*" = calculated, otherwise fixed; values untouched
  kByRootWithSpecs, // 7: 4 with the fixed/calculated marks
  kSmart,           // 8: position when the file matches the model's order, else 7
  kCalculatedOnly,  // 11: root names, values of calculated variables only
};

struct RestartStats {
  int matched = 0;    // lines applied to a variable
  int unmatched = 0;  // lines naming nothing in the model
};

// Applies a restart file to the model. Returns false when the file cannot be opened.
bool ReadRestart(const std::string& path, RestartRead how, model::ModelStore& store,
                 RestartStats* stats = nullptr);

// Writes every variable (request 2) or only the calculated ones (request 3).
bool WriteRestart(const std::string& path, const model::ModelStore& store, bool calculated_only);

// "lam.t0": one line per constraint row, "EQUATION NAME = MULTIPLIER", row order.
bool WriteMultipliers(const std::string& path, model::ModelAccess& access);
// Reads "lam.t0" into the rows' multipliers; false (and the rows untouched) when the file is
// missing or does not have one value per row.
bool ReadMultipliers(const std::string& path, model::ModelAccess& access);

}  // namespace kx::files
