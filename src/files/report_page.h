// files/report_page: "APP_report.html", the page a cycle leaves for people to look at, and
// "APP_history.csv", the rows of the last HIST_HOR cycles that the page plots.
//
// The page is one self-contained HTML file: the chart library, the page's own script and
// style and the cycle's data (one JSON block) are all inlined, so it opens from disk with no
// network. The engine writes only data; the inlined script draws the outcome, the table of
// FV/MV/SV/CV values and statuses, one plot per result column over the horizon, MV moves with
// their limits, CVs with their set-point band or set point, estimation measurements against
// the model and the history. Options: WEB_MENU (navigation bar with links to the other report
// pages of the folder), WEB_REFRESH (minutes between page reloads, 0 = never), WEB_PLOT_FREQ
// (seconds between plot updates when the page is served over http, 0 = never).
#pragma once

#include <string>
#include <vector>

#include "dbs/option_store.h"
#include "files/horizon_files.h"
#include "files/results.h"

namespace kx::files {

// The history file: a header line, then one row per cycle, oldest first.
struct ReportHistory {
  std::vector<std::string> columns;       // "cycle", "status", "objective", ..., then names
  std::vector<std::vector<double>> rows;  // rows[cycle][column]; NaN for no value
  bool complete = true;                   // read: the file ended with a whole line
};

// Everything a page shows, gathered from the cycle.
struct ReportInputs {
  std::string app;                            // application name, lower case
  int imode = 3;                              // IMODE of the cycle
  const dbs::OptionStore* options = nullptr;  // options, outcome keys and class properties
  const ResultsTable* results = nullptr;      // the cycle's results (results.json)
  MeasurementHistory measurements;            // estimation: measured values per results row
  ReportHistory history;                      // the last HIST_HOR cycles, this one included
  std::vector<std::string> sibling_pages;     // other "*_report.html" files of the folder
};

// The history row of this cycle: cycle number, solve status, objective, iterations, solve
// time, then one value per classified variable (FV/MV NEWVAL, SV/CV MODEL, CV MEAS).
ReportHistory HistoryRowOf(const dbs::OptionStore& options, int solve_status);

// Appends the rows of `row` (same columns) to `history`; a change of columns starts the
// history again. Keeps at most `keep` rows (at least 1).
void AppendHistory(ReportHistory& history, const ReportHistory& row, int keep);

// Reads a history file; empty when missing; a last line without its newline (a torn
// append) and a row with the wrong number of cells are skipped. Writes one (atomically).
ReportHistory ReadHistory(const std::string& path);
bool WriteHistory(const std::string& path, const ReportHistory& history);

// Stores this cycle's `row` after `on_disk` (the file as read). The row is appended to the
// file while the columns match and the file holds fewer than 2*`keep` rows; otherwise the
// file is rewritten atomically with the newest `keep` rows. Appending one line keeps the
// cost of a cycle low (a whole-file replace costs a flush); readers take the newest `keep`
// rows and skip a torn last line, so a cycle stopped mid-append loses only its own row.
bool SaveHistory(const std::string& path, const ReportHistory& on_disk, const ReportHistory& row,
                 int keep);

// The whole page as text.
std::string RenderReportPage(const ReportInputs& inputs);

// The cycle's step: appends to "APP_history.csv", gathers the estimation measurements
// ("est.meas") and the other report pages of the working directory, and writes
// "APP_report.html". Returns false when a file could not be written.
bool WriteReportPage(const std::string& app, const dbs::OptionStore& options, int imode,
                     int solve_status, const ResultsTable& results);

}  // namespace kx::files
