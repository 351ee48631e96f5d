// files/results: "results.csv" and "results.json", the solution table of a cycle. Columns are
// "time" then every declared parameter and variable (declaration order, lower case, no
// generated slacks); rows are time points (one row at time 0 in steady state). Numbers carry
// 17 significant digits so a reader gets the exact doubles back.
#pragma once

#include <string>
#include <vector>

#include "horizon/replicate.h"
#include "model/records.h"

namespace kx::files {

struct ResultsTable {
  std::vector<std::string> names;           // column names after "time"
  std::vector<double> time;                 // one entry per row
  std::vector<std::vector<double>> values;  // values[column][row]
};

// One row at time 0 with the current values; a name absorbed by a connection reports the
// value of the variable it was merged into.
ResultsTable SteadyResults(const model::ModelStore& store);

// One row per step boundary of the horizon (the horizon start and the end of every step),
// the values taken from the replicated model.
ResultsTable DynamicResults(const horizon::Horizon& horizon, const model::ModelStore& base);

bool WriteResultsCsv(const std::string& path, const ResultsTable& table);
bool WriteResultsJson(const std::string& path, const ResultsTable& table);

}  // namespace kx::files
