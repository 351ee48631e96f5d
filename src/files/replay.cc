#include "files/replay.h"

#include <fmt/format.h>

#include <string_view>
#include <vector>

#include "base/report.h"
#include "base/text.h"
#include "base/file_writer.h"

namespace kx::files {
namespace {

// A header cell: blanks and double quotes around the name are ignored.
std::string CleanName(std::string_view cell) {
  std::string_view s = Trim(cell);
  if (s.size() >= 2 && s.front() == '"' && s.back() == '"') s = Trim(s.substr(1, s.size() - 2));
  return std::string(s);
}

// Lines of the file without blank lines (a trailing carriage return is dropped).
std::vector<std::string> NonBlankLines(std::string_view text) {
  std::vector<std::string> lines;
  for (std::string& l : Split(text, '\n'))
    if (!Trim(l).empty()) lines.push_back(std::string(Trim(l)));
  return lines;
}

}  // namespace

bool ReplayRow(int row, const std::string& csv_path, const std::string& measurements_path) {
  std::string text;
  if (!ReadWholeFile(csv_path, &text)) {
    Say("Warning: replay file not found: " + csv_path);
    return false;
  }
  std::vector<std::string> lines = NonBlankLines(text);
  if (lines.empty() || row < 1 || static_cast<size_t>(row) >= lines.size()) {
    Sayf("Warning: {} has no data row {}; measurements not replayed", csv_path, row);
    return false;
  }
  std::vector<std::string> names = Split(lines[0], ',');
  std::vector<std::string> cells = Split(lines[row], ',');
  std::string out = fmt::format("! replay of row {} of {}\n", row, csv_path);
  for (size_t i = 0; i < names.size() && i < cells.size(); ++i) {
    std::string name = CleanName(names[i]);
    auto value = ParseNumber(cells[i]);
    if (name.empty() || !value) continue;
    out += fmt::format("{} = {}\n", name, FormatReal(*value));
  }
  return WriteFileAtomically(measurements_path, out);
}

}  // namespace kx::files
