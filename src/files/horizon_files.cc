#include "files/horizon_files.h"

#include <fmt/format.h>

#include <cmath>
#include <fstream>
#include <iterator>

#include "base/file_writer.h"
#include "base/sentinels.h"
#include "base/text.h"

namespace kx::files {

bool WriteInitialConditions(const std::string& path, const horizon::Horizon& horizon,
                            const model::ModelStore& base) {
  std::string text = fmt::format("! initial conditions: model {} at time {:.17g}\n", base.name,
                                 horizon.grid.times.empty() ? 0.0 : horizon.grid.times[0]);
  for (int b = 1; b <= base.nvar; ++b) {
    const model::Variable& v = horizon.store.Var(horizon.Number(0, b));
    fmt::format_to(std::back_inserter(text), "{} = {:.17g}{}\n", base.Var(b).name,
                   WritableValue(v.val), v.fixed ? "" : " *");
  }
  return WriteFileAtomically(path, text);
}

bool WriteDerivatives(const std::string& path, const horizon::Horizon& horizon) {
  const model::ModelStore& store = horizon.store;
  std::string text = fmt::format("! time derivatives: {} differential copies\n", store.ndiff);
  for (int n = 1; n <= store.nvar; ++n) {
    const model::Variable& v = store.Var(n);
    if (v.idiff > 0)
      fmt::format_to(std::back_inserter(text), "{} = {:.17g}\n", v.name, WritableValue(v.d_val));
  }
  return WriteFileAtomically(path, text);
}

bool WriteMeasurementHistory(const std::string& path, const MeasurementHistory& history) {
  std::string text =
      "! measurements of the estimation horizon: NAME, POINT (0 = horizon start), VALUE\n";
  for (const auto& [name, values] : history) {
    for (size_t i = 0; i < values.size(); ++i) {
      text += values[i] == kNoValue ? fmt::format("{}, {},\n", name, i)
                                    : fmt::format("{}, {}, {}\n", name, i, values[i]);
    }
  }
  return WriteFileAtomically(path, text);
}

MeasurementHistory ReadMeasurementHistory(const std::string& path) {
  MeasurementHistory history;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    const std::string_view t = Trim(line);
    if (t.empty() || t[0] == '!' || t[0] == '#') continue;
    const std::vector<std::string> cells = Split(t, ',');
    if (cells.size() < 2) continue;
    const std::optional<double> point = ParseNumber(cells[1]);
    if (!point || *point < 0 || *point > 1e7) continue;
    std::optional<double> value;
    if (cells.size() > 2 && !Trim(cells[2]).empty()) value = ParseNumber(cells[2]);
    std::vector<double>& values = history[ToLower(Trim(cells[0]))];
    const size_t i = static_cast<size_t>(*point);
    if (values.size() <= i) values.resize(i + 1, kNoValue);
    values[i] = value && std::isfinite(*value) ? *value : kNoValue;
  }
  return history;
}

bool WriteTransfer(const std::string& path, const horizon::Horizon& horizon,
                   const model::ModelStore& base, int point, const std::vector<int>& numbers) {
  std::string text = fmt::format("! transfer from estimation: model {} at time {:.17g}\n",
                                 base.name, horizon.grid.times[point]);
  for (int b : numbers) {
    const model::Variable& v = horizon.store.Var(horizon.Number(point, b));
    fmt::format_to(std::back_inserter(text), "{} = {:.17g}\n", base.Var(b).name, v.val);
  }
  return WriteFileAtomically(path, text);
}

bool WriteInitialConditionReport(const std::string& path, const horizon::Horizon& horizon,
                                 const model::ModelStore& base) {
  const std::string stars(59, '*');
  std::string text = stars + "\n";
  text += "Report on initial condition differential variables\n";
  text += " These variables are calculated for MHE problems when the\n";
  text += "   DBS parameter ICD_CALC is set to 1\n";
  text += stars + "\n";
  for (int b = 1; b <= base.nvar; ++b) {
    if (!base.Var(b).diff) continue;
    const model::Variable& v = horizon.store.Var(horizon.Number(0, b));
    fmt::format_to(std::back_inserter(text), "{:<30} {:.17g}\n", base.Var(b).name, v.val);
  }
  return WriteFileAtomically(path, text);
}

}  // namespace kx::files
