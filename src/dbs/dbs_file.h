// DBS files: one option or property per line. Read forms, accepted in every file:
//   NAME = VALUE, STATUS, UNITS      NAME = VALUE      NAME VALUE
// where NAME is ZPM.KEY or NLC.KEY (the same global), or VARIABLE.PROPERTY with PRED[k]
// style indices, in any case. Blank lines and lines starting with ! or # are skipped. A bad
// line prints one warning naming the file and line and is skipped; reading goes on.
// Write forms (DBS_WRITE): 1 = "NAME VALUE", 2 = "NAME = VALUE, STATUS, UNITS"; DBS_LEVEL 1
// writes every record, 0 only outputs (direction 2 or 3) and inputs that differ from their
// defaults.
#pragma once

#include <string>
#include <string_view>

#include "dbs/option_store.h"

namespace kx::dbs {

struct DbsReadResult {
  bool found = false;  // the file exists (a missing DBS file is not an error)
  int applied = 0;     // lines whose value went into the store
  int warnings = 0;    // lines skipped with a warning
};

// Reads the DBS file at `path` into the store.
DbsReadResult ReadDbsFile(const std::string& path, OptionStore& store);
// Reads DBS text; `file_label` names the source in warnings.
DbsReadResult ReadDbsText(std::string_view text, std::string_view file_label, OptionStore& store);

// The text of a DBS file in write form `form` (1 or 2) at `level` (0 or 1): globals as
// ZPM.KEY in table order, the outcome keys again as NLC.KEY, then each variable in
// registration order with its properties in registration order.
std::string FormatDbs(const OptionStore& store, int form, int level);

// Writes FormatDbs() to `path` atomically; false (after a warning) on failure.
bool WriteDbsFile(const std::string& path, const OptionStore& store, int form, int level);

// The value written for element k: one every reader accepts. An infinite UPPER (LOWER) is the
// unset bound sentinel, any other infinity the unlimited value, NaN the never-set value; an
// integer record past the int range is written at its end, NaN there as the default.
double WrittenValue(const Record& record, size_t k);

// A record element in DBS value form: integers without a decimal point, reals in the
// shortest text that reads back to the same double.
std::string FormatValue(const Record& record, size_t k);

}  // namespace kx::dbs
