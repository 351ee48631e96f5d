#include "files/results.h"

#include <fmt/format.h>

#include <cmath>
#include <iterator>
#include <nlohmann/json.hpp>

#include "base/file_writer.h"
#include "model/checks.h"

namespace kx::files {
namespace {

// The record whose value a declared name reports: the end of its merge chain.
const model::Variable& Survivor(const model::ModelStore& store, const model::Variable& v) {
  return store.vars[model::ResolveForward(store, static_cast<int>(&v - store.vars.data()))];
}

// NaN and Inf have no JSON literal: they are written as null.
nlohmann::ordered_json Number(double v) {
  return std::isfinite(v) ? nlohmann::ordered_json(v) : nlohmann::ordered_json();
}

// Declared parameters and variables: no slacks, no generated members.
bool IsReported(const model::Variable& v) {
  return v.vtype != model::kVarSlack && v.vtype != model::kVarGenerated && !v.slack;
}

}  // namespace

ResultsTable SteadyResults(const model::ModelStore& store) {
  ResultsTable t;
  t.time.push_back(0.0);
  for (const model::Variable& v : store.vars) {
    if (!IsReported(v)) continue;
    t.names.push_back(v.name);
    t.values.push_back({Survivor(store, v).val});
  }
  return t;
}

ResultsTable DynamicResults(const horizon::Horizon& horizon, const model::ModelStore& base) {
  ResultsTable t;
  const horizon::TimeGrid& grid = horizon.grid;
  std::vector<int> points;
  for (int k = 0; k <= grid.num_steps(); ++k) points.push_back(k * (grid.nodes - 1));
  for (int p : points) t.time.push_back(grid.times[p]);
  for (const model::Variable& v : base.vars) {
    if (!IsReported(v)) continue;
    const int number = Survivor(base, v).number;
    std::vector<double> column;
    for (int p : points) column.push_back(horizon.store.Var(horizon.Number(p, number)).val);
    t.names.push_back(v.name);
    t.values.push_back(std::move(column));
  }
  return t;
}

bool WriteResultsCsv(const std::string& path, const ResultsTable& table) {
  std::string text = "time";
  for (const std::string& n : table.names) text.append(",").append(n);
  text += "\n";
  for (size_t row = 0; row < table.time.size(); ++row) {
    fmt::format_to(std::back_inserter(text), "{:.17g}", table.time[row]);
    // A value that is not finite is an empty cell: "no value" to the data reader.
    for (const auto& column : table.values)
      if (std::isfinite(column[row])) {
        fmt::format_to(std::back_inserter(text), ",{:.17g}", column[row]);
      } else {
        text += ',';
      }
    text += "\n";
  }
  return WriteFileAtomically(path, text);
}

bool WriteResultsJson(const std::string& path, const ResultsTable& table) {
  // The columns go straight onto the ordered object's list: keyed insertion searches the
  // keys already there, which is quadratic in the number of columns. Names are unique.
  nlohmann::ordered_json j = nlohmann::ordered_json::object();
  auto& members = j.get_ref<nlohmann::ordered_json::object_t&>();
  members.reserve(table.names.size() + 1);
  members.emplace_back("time", table.time);
  for (size_t c = 0; c < table.names.size(); ++c) {
    nlohmann::ordered_json column = nlohmann::ordered_json::array();
    for (double v : table.values[c]) column.push_back(Number(v));
    members.emplace_back(table.names[c], std::move(column));
  }
  return WriteFileAtomically(path, j.dump(1) + "\n");
}

}  // namespace kx::files
