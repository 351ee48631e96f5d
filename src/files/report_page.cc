#include "files/report_page.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string_view>

#include "base/sentinels.h"
#include "base/text.h"
#include "base/file_writer.h"

namespace kx::files {
namespace assets {
// The inlined files of every page, compiled in from third_party/uplot and assets/report
// (generated source, see CMakeLists.txt).
extern const std::string_view kChartScript;
extern const std::string_view kChartStyle;
extern const std::string_view kPageScript;
extern const std::string_view kPageStyle;
}  // namespace assets

namespace {

using Json = nlohmann::ordered_json;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr std::string_view kHistoryLead[] = {"cycle", "status", "objective", "iterations",
                                             "solvetime"};

// An unset property (sentinel) and a non-finite number are both "no value" on the page.
bool IsSet(double v) {
  return std::isfinite(v) && v != kNoValue && v != kUnsetLower && v != kUnsetUpper &&
         std::fabs(v) < kUnlimited;
}

Json Number(double v) { return IsSet(v) ? Json(v) : Json(); }

Json Column(const std::vector<double>& values) {
  Json a = Json::array();
  for (double v : values) a.push_back(Number(v));
  return a;
}

// One property of a classified variable, or no value when the class has none.
double Property(const dbs::Variable& v, std::string_view key) {
  for (const dbs::Record& r : v.records)
    if (r.name == key) return r.Get();
  return kNoValue;
}

// The value a variable reports for the current time: NEWVAL of an input, MODEL of an output.
double CurrentValue(const dbs::Variable& v) {
  const bool input = v.cls == dbs::VarClass::kFV || v.cls == dbs::VarClass::kMV;
  return Property(v, input ? "NEWVAL" : "MODEL");
}

constexpr std::string_view kTableProperties[] = {"STATUS", "FSTATUS", "PSTATUS", "MEAS", "NEWVAL",
                                                 "MODEL",  "LOWER",   "UPPER",   "SP",   "SPHI",
                                                 "SPLO",   "DMAX",    "BIAS",    "COST"};

Json VariableJson(const dbs::Variable& v) {
  Json j = {{"name", v.name}, {"class", std::string(dbs::ClassName(v.cls))}, {"units", v.units}};
  Json props = Json::object();
  for (std::string_view key : kTableProperties) {
    const double value = Property(v, key);
    if (value != kNoValue) props[std::string(key)] = Number(value);
  }
  j["props"] = std::move(props);
  return j;
}

Json OutcomeJson(const dbs::OptionStore& o) {
  return {{"appstatus", o.Int("APPSTATUS")},          {"appinfo", o.Int("APPINFO")},
          {"objective", Number(o.Real("OBJFCNVAL"))}, {"iterations", o.Int("ITERATIONS")},
          {"solvetime", Number(o.Real("SOLVETIME"))}, {"cycle", o.Int("CYCLECOUNT") + 1}};
}

Json ResultsJson(const ResultsTable& t) {
  Json names = Json::array(), values = Json::array();
  for (size_t c = 0; c < t.names.size(); ++c) {
    names.push_back(t.names[c]);
    values.push_back(Column(t.values[c]));
  }
  return {{"time", Column(t.time)}, {"names", std::move(names)}, {"values", std::move(values)}};
}

Json HistoryJson(const ReportHistory& h) {
  Json rows = Json::array();
  for (const auto& row : h.rows) rows.push_back(Column(row));
  return {{"columns", h.columns}, {"rows", std::move(rows)}};
}

Json PageData(const ReportInputs& in) {
  const dbs::OptionStore& o = *in.options;
  Json variables = Json::array();
  for (const dbs::Variable& v : o.variables()) variables.push_back(VariableJson(v));
  Json measurements = Json::object();
  for (const auto& [name, values] : in.measurements) measurements[name] = Column(values);
  return {{"app", in.app},
          {"imode", in.imode},
          {"outcome", OutcomeJson(o)},
          {"cv_type", o.Int("CV_TYPE")},
          {"menu", o.Int("WEB_MENU") > 0},
          {"plot_seconds", o.Int("WEB_PLOT_FREQ")},
          {"pages", in.sibling_pages},
          {"variables", std::move(variables)},
          {"results", ResultsJson(*in.results)},
          {"measurements", std::move(measurements)},
          {"history", HistoryJson(in.history)}};
}

// JSON inside a script element: "</" would end the element early.
std::string ScriptSafe(std::string text) {
  for (size_t at = text.find("</"); at != std::string::npos; at = text.find("</", at + 3))
    text.replace(at, 2, "<\\/");
  return text;
}

std::string HtmlEscape(std::string_view s) {
  std::string out;
  for (char c : s) {
    switch (c) {
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '&':
        out += "&amp;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string RefreshTag(const dbs::OptionStore& o) {
  const int minutes = o.Int("WEB_REFRESH");
  return minutes > 0 ? fmt::format("<meta http-equiv=\"refresh\" content=\"{}\">\n", minutes * 60)
                     : std::string();
}

double ParseCell(std::string_view cell) {
  const std::optional<double> v = ParseNumber(Trim(cell));
  return v ? *v : kNaN;
}

std::string FormatCell(double v) { return std::isfinite(v) ? fmt::format("{:.10g}", v) : ""; }

std::string RowsText(const ReportHistory& h) {
  std::string text;
  for (const auto& row : h.rows) {
    for (size_t c = 0; c < row.size(); ++c) text += (c ? "," : "") + FormatCell(row[c]);
    text += "\n";
  }
  return text;
}

// The other report pages beside this one, sorted, for the navigation bar.
std::vector<std::string> SiblingPages(const std::string& own) {
  std::vector<std::string> pages;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(".", ec)) {
    const std::string name = entry.path().filename().string();
    if (name != own && name.ends_with("_report.html")) pages.push_back(name);
  }
  std::sort(pages.begin(), pages.end());
  return pages;
}

}  // namespace

ReportHistory HistoryRowOf(const dbs::OptionStore& o, int solve_status) {
  ReportHistory h;
  h.columns.assign(std::begin(kHistoryLead), std::end(kHistoryLead));
  std::vector<double> row = {static_cast<double>(o.Int("CYCLECOUNT") + 1),
                             solve_status == 0 ? 1.0 : 0.0, o.Real("OBJFCNVAL"),
                             static_cast<double>(o.Int("ITERATIONS")), o.Real("SOLVETIME")};
  for (const dbs::Variable& v : o.variables()) {
    h.columns.push_back(v.name);
    row.push_back(CurrentValue(v));
    if (v.cls != dbs::VarClass::kCV) continue;
    h.columns.push_back(v.name + ".meas");
    row.push_back(Property(v, "MEAS"));
  }
  for (double& v : row)
    if (!IsSet(v)) v = kNaN;
  h.rows.push_back(std::move(row));
  return h;
}

void AppendHistory(ReportHistory& history, const ReportHistory& row, int keep) {
  if (history.columns != row.columns) history = ReportHistory{row.columns, {}};
  history.rows.insert(history.rows.end(), row.rows.begin(), row.rows.end());
  const size_t limit = static_cast<size_t>(std::max(keep, 1));
  if (history.rows.size() > limit)
    history.rows.erase(history.rows.begin(), history.rows.end() - limit);
}

ReportHistory ReadHistory(const std::string& path) {
  ReportHistory h;
  std::string text;
  if (!ReadWholeFile(path, &text)) return h;
  // A last line without its newline is a torn append: it is not trusted.
  h.complete = text.empty() || text.back() == '\n';
  if (!h.complete) text.erase(text.rfind('\n') == std::string::npos ? 0 : text.rfind('\n') + 1);
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (Trim(line).empty()) continue;
    const std::vector<std::string> cells = Split(line, ',');
    if (h.columns.empty()) {
      for (const std::string& c : cells) h.columns.emplace_back(Trim(c));
      continue;
    }
    if (cells.size() != h.columns.size()) continue;
    std::vector<double> row;
    for (const std::string& c : cells) row.push_back(ParseCell(c));
    h.rows.push_back(std::move(row));
  }
  return h;
}

bool WriteHistory(const std::string& path, const ReportHistory& h) {
  std::string text;
  for (size_t c = 0; c < h.columns.size(); ++c) text += (c ? "," : "") + h.columns[c];
  text += "\n" + RowsText(h);
  return WriteFileAtomically(path, text);
}

bool SaveHistory(const std::string& path, const ReportHistory& on_disk, const ReportHistory& row,
                 int keep) {
  const size_t limit = 2 * static_cast<size_t>(std::max(keep, 1));
  if (on_disk.complete && !on_disk.columns.empty() && on_disk.columns == row.columns &&
      on_disk.rows.size() + row.rows.size() <= limit) {
    std::ofstream out(path, std::ios::binary | std::ios::app);
    out << RowsText(row);
    if (out.flush()) return true;
  }
  ReportHistory whole = on_disk;
  AppendHistory(whole, row, keep);
  return WriteHistory(path, whole);
}

std::string RenderReportPage(const ReportInputs& in) {
  const dbs::OptionStore& o = *in.options;
  std::string page;
  page.reserve(assets::kChartScript.size() + 64 * 1024);
  page += "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n";
  page += RefreshTag(o);
  page += "<title>" + HtmlEscape(in.app) + " - Kestrix report</title>\n<style>\n";
  page += assets::kChartStyle;
  page += "\n";
  page += assets::kPageStyle;
  page += "</style>\n</head>\n<body>\n<div id=\"page\"></div>\n";
  page += "<script id=\"kx-data\" type=\"application/json\">\n";
  page += ScriptSafe(PageData(in).dump());
  page += "\n</script>\n<script>\n";
  page += assets::kChartScript;
  page += "\n</script>\n<script>\n";
  page += assets::kPageScript;
  page += "</script>\n</body>\n</html>\n";
  return page;
}

bool WriteReportPage(const std::string& app, const dbs::OptionStore& options, int imode,
                     int solve_status, const ResultsTable& results) {
  const std::string history_path = app + "_history.csv";
  ReportInputs in;
  in.app = app;
  in.imode = imode;
  in.options = &options;
  in.results = &results;
  const int keep = options.Int("HIST_HOR");
  const ReportHistory on_disk = ReadHistory(history_path);
  const ReportHistory row = HistoryRowOf(options, solve_status);
  const bool history_ok = SaveHistory(history_path, on_disk, row, keep);
  in.history = on_disk;
  AppendHistory(in.history, row, keep);
  if (imode == 5 || imode == 8) in.measurements = ReadMeasurementHistory("est.meas");
  in.sibling_pages = SiblingPages(app + "_report.html");
  return WriteFileAtomically(app + "_report.html", RenderReportPage(in)) && history_ok;
}

}  // namespace kx::files
