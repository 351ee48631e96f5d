// horizon/data_file: the time-series data file (APP.csv). The first line names the columns,
// comma separated, in any case, with blanks and double quotes around a name ignored; every
// further non-blank line is one row of numbers (a time point in the dynamic modes). An empty
// cell, "NaN" (any case) or "-" is "no value" for that row. A cell that is not a number is read
// as no value after one warning per file.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/sentinels.h"

namespace kx::horizon {

struct DataFile {
  std::string path;                  // file as opened (messages)
  std::vector<std::string> columns;  // column names, lower case, quotes and blanks removed
  std::vector<double> cells;         // row-major values; kNoValue where a row has no value
  int num_rows = 0;                  // data rows (the header not counted)

  int num_columns() const { return static_cast<int>(columns.size()); }
  // Column index of `name` (lower case), -1 when the file has no such column.
  int Column(std::string_view name) const;
  // Value of row r (0-based) in column c; kNoValue when the cell holds none.
  double At(int r, int c) const { return cells[static_cast<size_t>(r) * columns.size() + c]; }
  static bool IsNoValue(double v) { return v == kNoValue; }
};

// Reads the data file at `path`; nothing when the file does not exist.
std::optional<DataFile> ReadDataFile(const std::string& path);

// The same from text in memory; `path` only names it in messages.
DataFile ParseDataFile(std::string_view text, const std::string& path);

}  // namespace kx::horizon
