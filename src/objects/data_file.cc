#include "objects/data_file.h"

#include <fmt/format.h>

#include <fstream>
#include <vector>

#include "base/text.h"

namespace kx::objects {
namespace {

std::vector<std::string> SplitCells(std::string_view line) {
  std::vector<std::string> cells;
  std::string cell;
  auto flush = [&] {
    std::string_view t = Trim(cell);
    if (!t.empty()) cells.emplace_back(t);
    cell.clear();
  };
  for (char c : line) {
    if (c == ',' || c == ';' || c == ' ' || c == '\t' || c == '\r') {
      flush();
    } else {
      cell += c;
    }
  }
  flush();
  return cells;
}

bool IsComment(std::string_view line) {
  line = Trim(line);
  return line.empty() || line[0] == '!' || line[0] == '#' || line[0] == '%';
}

}  // namespace

bool ReadTable(const std::string& path, const std::string& name, Table* table, bool* missing,
               std::string* error) {
  *missing = false;
  std::ifstream in(path);
  if (!in) {
    *missing = true;
    return false;
  }
  *table = Table{};
  table->file = name;
  std::string line;
  int number = 0;
  bool first = true;
  while (std::getline(in, line)) {
    ++number;
    if (IsComment(line)) continue;
    std::vector<std::string> cells = SplitCells(line);
    std::vector<double> row;
    for (const std::string& c : cells) {
      std::optional<double> v = ParseNumber(c);
      if (!v) {
        if (first) break;  // a header line
        *error = fmt::format("file {} line {}: \"{}\" is not a number", name, number, c);
        return false;
      }
      row.push_back(*v);
    }
    const bool header = first && row.size() != cells.size();
    first = false;
    if (header) continue;
    if (table->rows > 0 && static_cast<int>(row.size()) != table->cols) {
      *error = fmt::format("file {} line {}: {} numbers where the rows above have {}", name, number,
                           row.size(), table->cols);
      return false;
    }
    table->cols = static_cast<int>(row.size());
    table->values.insert(table->values.end(), row.begin(), row.end());
    ++table->rows;
  }
  if (table->rows == 0) {
    *error = "file " + name + " holds no numbers";
    return false;
  }
  return true;
}

}  // namespace kx::objects
