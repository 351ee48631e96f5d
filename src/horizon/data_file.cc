#include "horizon/data_file.h"

#include <algorithm>
#include <fstream>
#include <iterator>

#include "base/report.h"
#include "base/text.h"

namespace kx::horizon {

namespace {

// A column name as users write it: any case, blanks and double quotes ignored.
std::string CleanName(std::string_view cell) {
  std::string name = RemoveBlanks(cell);
  name.erase(std::remove(name.begin(), name.end(), '"'), name.end());
  return ToLower(name);
}

bool IsNoValueCell(std::string_view cell) {
  return cell.empty() || cell == "-" || ToLower(cell) == "nan";
}

// Splits the text into lines, dropping a carriage return before each newline.
std::vector<std::string_view> Lines(std::string_view text) {
  std::vector<std::string_view> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    lines.push_back(line);
    start = end + 1;
  }
  return lines;
}

}  // namespace

int DataFile::Column(std::string_view name) const {
  auto it = std::find(columns.begin(), columns.end(), name);
  return it == columns.end() ? -1 : static_cast<int>(it - columns.begin());
}

DataFile ParseDataFile(std::string_view text, const std::string& path) {
  DataFile data;
  data.path = path;
  std::vector<std::string_view> lines = Lines(text);
  size_t k = 0;
  while (k < lines.size() && Trim(lines[k]).empty()) ++k;
  if (k == lines.size()) return data;
  for (const std::string& cell : Split(lines[k], ',')) data.columns.push_back(CleanName(cell));
  size_t ncol = data.columns.size();
  bool warned = false;
  for (++k; k < lines.size(); ++k) {
    if (Trim(lines[k]).empty()) continue;
    std::vector<std::string> cells = Split(lines[k], ',');
    ++data.num_rows;
    for (size_t c = 0; c < ncol; ++c) {
      std::string_view cell = c < cells.size() ? Trim(cells[c]) : std::string_view();
      std::optional<double> v = IsNoValueCell(cell) ? std::nullopt : ParseNumber(cell);
      if (!v && !IsNoValueCell(cell) && !warned) {
        Sayf("Warning: data file {}: \"{}\" in row {} is not a number, read as no value",
             path, cell, data.num_rows);
        warned = true;
      }
      data.cells.push_back(v ? *v : kNoValue);
    }
  }
  return data;
}

std::optional<DataFile> ReadDataFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string text(std::istreambuf_iterator<char>(in), {});
  return ParseDataFile(text, path);
}

}  // namespace kx::horizon
