// Replay: an outer program (or a user testing an application offline) keeps recorded
// measurements in replay.csv, a header of DBS names ("tank.level.MEAS", "ZPM.FILTER") and one
// row of numbers per cycle. The replay step writes row REPLAY (1-based, below the header) to
// measurements.dbs as "NAME = VALUE" lines; an empty or non-numeric cell is left out.
#pragma once

#include <string>

namespace kx::files {

inline constexpr const char* kReplayFile = "replay.csv";

// Writes data row `row` of `csv_path` to `measurements_path` (atomically). Returns false after
// a warning when the replay file or the row is missing; the measurements file is then left
// as it was.
bool ReplayRow(int row, const std::string& csv_path, const std::string& measurements_path);

}  // namespace kx::files
