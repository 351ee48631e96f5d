// objects/data_file: the tables of numbers that object declarations name (spline knots,
// lookup tables, matrices). One row a line, cells separated by commas, semicolons or blanks;
// blank lines and lines starting with '!', '#' or '%' are skipped; a first line that is not
// all numbers is a header and skipped too.
#pragma once

#include <string>

#include "objects/object_table.h"

namespace kx::objects {

// Reads the table in `path` (shown as `name` in messages). Returns false with `error` set
// when a cell is not a number, rows differ in length or the file holds no numbers; a missing
// file sets `missing`.
bool ReadTable(const std::string& path, const std::string& name, Table* table, bool* missing,
               std::string* error);

}  // namespace kx::objects
