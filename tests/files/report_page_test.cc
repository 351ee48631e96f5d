#include "files/report_page.h"

#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "base/report.h"
#include "base/sentinels.h"
#include "testing/scratch_dir.h"

namespace kx::files {
namespace {

using kx::testing::WorkingDir;

// A store with one variable of each class and the outcome of a good cycle.
dbs::OptionStore CycleStore() {
  dbs::OptionStore o;
  o.AddVariable("valve", dbs::VarClass::kFV);
  o.AddVariable("inflow", dbs::VarClass::kMV);
  o.AddVariable("outflow", dbs::VarClass::kSV);
  o.AddVariable("level", dbs::VarClass::kCV);
  o.Set("valve", "NEWVAL", 0.6);
  o.Set("inflow", "NEWVAL", 1.5);
  o.Set("inflow", "UPPER", 2.0);
  o.Set("outflow", "MODEL", 1.25);
  o.Set("level", "MODEL", 0.9);
  o.Set("level", "MEAS", 0.95);
  o.Set("level", "SPHI", 1.2);
  o.SetGlobal("OBJFCNVAL", 3.5);
  o.SetGlobal("ITERATIONS", 7);
  o.SetGlobal("APPSTATUS", 1);
  o.SetGlobal("CYCLECOUNT", 4);
  return o;
}

ResultsTable TwoPointResults() {
  return {{"valve", "inflow", "level"}, {0.0, 1.0}, {{0.6, 0.6}, {1.5, 1.5}, {0.9, 1.1}}};
}

// The JSON block the page script reads.
nlohmann::json PageData(const std::string& page) {
  const std::string open = "<script id=\"kx-data\" type=\"application/json\">\n";
  const size_t from = page.find(open) + open.size();
  return nlohmann::json::parse(page.substr(from, page.find("\n</script>", from) - from));
}

TEST(ReportHistory, RowHoldsOutcomeThenEachVariableByClass) {
  const ReportHistory h = HistoryRowOf(CycleStore(), 0);
  const std::vector<std::string> columns = {"cycle",     "status",    "objective", "iterations",
                                            "solvetime", "valve",     "inflow",    "outflow",
                                            "level",     "level.meas"};
  EXPECT_EQ(h.columns, columns);
  ASSERT_EQ(h.rows.size(), 1u);
  const std::vector<double>& r = h.rows[0];
  EXPECT_EQ(r[0], 5);  // the cycle this one becomes
  EXPECT_EQ(r[1], 1);  // good
  EXPECT_EQ(r[2], 3.5);
  EXPECT_EQ(r[3], 7);
  EXPECT_EQ(r[5], 0.6);   // FV NEWVAL
  EXPECT_EQ(r[6], 1.5);   // MV NEWVAL
  EXPECT_EQ(r[7], 1.25);  // SV MODEL
  EXPECT_EQ(r[8], 0.9);   // CV MODEL
  EXPECT_EQ(r[9], 0.95);  // CV MEAS
  EXPECT_EQ(HistoryRowOf(CycleStore(), 2).rows[0][1], 0);
}

TEST(ReportHistory, FileRoundTripKeepsMissingValuesMissing) {
  WorkingDir dir("kx_report_history");
  const double nan = std::nan("");
  ASSERT_TRUE(WriteHistory("h.csv", ReportHistory{{"cycle", "a"}, {{1, 0.125}, {2, nan}}}));
  EXPECT_EQ(dir.Read("h.csv"), "cycle,a\n1,0.125\n2,\n");
  dir.Write("h.csv", dir.Read("h.csv") + "3,4,5\n");  // a torn row is skipped
  const ReportHistory back = ReadHistory("h.csv");
  ASSERT_EQ(back.rows.size(), 2u);
  EXPECT_EQ(back.rows[0][1], 0.125);
  EXPECT_TRUE(std::isnan(back.rows[1][1]));
  EXPECT_TRUE(ReadHistory("missing.csv").rows.empty());
}

TEST(ReportHistory, AppendsUntilTwiceTheHorizonThenRewritesTheNewest) {
  WorkingDir dir("kx_report_save");
  const std::vector<std::string> columns = {"cycle", "x"};
  for (int cycle = 1; cycle <= 7; ++cycle) {
    const ReportHistory row{columns, {{double(cycle), 0.5}}};
    ASSERT_TRUE(SaveHistory("h.csv", ReadHistory("h.csv"), row, 3));
  }
  // 1..6 grow the file to 2*3 rows; 7 rewrites it with the newest 3.
  EXPECT_EQ(dir.Read("h.csv"), "cycle,x\n5,0.5\n6,0.5\n7,0.5\n");
  ASSERT_TRUE(SaveHistory("h.csv", ReadHistory("h.csv"), {{"cycle", "y"}, {{8, 1}}}, 3));
  EXPECT_EQ(dir.Read("h.csv"), "cycle,y\n8,1\n");  // new columns start again
}

TEST(ReportHistory, TornLastLineIsReplacedNotExtended) {
  WorkingDir dir("kx_report_torn");
  dir.Write("h.csv", "cycle,x\n1,0.5\n2,0.");  // a cycle stopped mid-append
  const ReportHistory on_disk = ReadHistory("h.csv");
  EXPECT_FALSE(on_disk.complete);
  ASSERT_TRUE(SaveHistory("h.csv", on_disk, {{"cycle", "x"}, {{3, 1}}}, 10));
  EXPECT_EQ(dir.Read("h.csv"), "cycle,x\n1,0.5\n3,1\n");
}

TEST(ReportPage, EmbedsTheCycleDataWithUnsetValuesAsNull) {
  const dbs::OptionStore o = CycleStore();
  const ResultsTable results = TwoPointResults();
  ReportInputs in{"tank", 6, &o, &results, {}, HistoryRowOf(o, 0), {"est_report.html"}};
  const std::string page = RenderReportPage(in);
  EXPECT_EQ(page.rfind("<!DOCTYPE html>", 0), 0u);
  EXPECT_NE(page.find("uPlot"), std::string::npos);
  EXPECT_EQ(page.find("src=\"http"), std::string::npos);  // nothing loaded from elsewhere
  EXPECT_NE(page.find("http-equiv=\"refresh\" content=\"1200\""), std::string::npos);
  const nlohmann::json d = PageData(page);
  EXPECT_EQ(d["imode"], 6);
  EXPECT_EQ(d["cv_type"], 1);
  EXPECT_EQ(d["outcome"]["objective"], 3.5);
  EXPECT_EQ(d["outcome"]["cycle"], 5);
  EXPECT_EQ(d["pages"][0], "est_report.html");
  EXPECT_EQ(d["results"]["values"][2][1], 1.1);
  ASSERT_EQ(d["variables"].size(), 4u);
  const nlohmann::json& level = d["variables"][3];
  EXPECT_EQ(level["class"], "CV");
  EXPECT_EQ(level["props"]["SPHI"], 1.2);
  EXPECT_FALSE(level["props"].contains("SPLO"));   // never set
  EXPECT_TRUE(level["props"]["LOWER"].is_null());  // unset bound sentinel
  EXPECT_EQ(d["variables"][1]["props"]["UPPER"], 2.0);
  EXPECT_FALSE(d["variables"][2]["props"].contains("SP"));  // an SV has no set point
}

TEST(ReportPage, NamesCannotCloseTheDataScript) {
  dbs::OptionStore o;
  const ResultsTable results{{"x"}, {0.0}, {{1.0}}};
  const std::string page = RenderReportPage({"a</script><b>", 1, &o, &results, {}, {}, {}});
  EXPECT_EQ(PageData(page)["app"], "a</script><b>");
  EXPECT_NE(page.find("<title>a&lt;/script&gt;&lt;b&gt; - "), std::string::npos);
}

TEST(ReportPage, CycleWritesPageAndAppendsHistory) {
  WorkingDir dir("kx_report_write");
  dir.Write("other_report.html", "x");
  dbs::OptionStore o = CycleStore();
  o.SetGlobal("HIST_HOR", 2);
  const ResultsTable results = TwoPointResults();
  dir.Write("est.meas", "level, 0, 0.8\nlevel, 1, 1.05\n");
  for (int cycle = 0; cycle < 3; ++cycle) {
    o.SetGlobal("CYCLECOUNT", cycle);
    ASSERT_TRUE(WriteReportPage("tank", o, 5, 0, results));
  }
  EXPECT_EQ(ReadHistory("tank_history.csv").rows.size(), 3u);  // appended, not yet trimmed
  const nlohmann::json d = PageData(dir.Read("tank_report.html"));
  EXPECT_EQ(d["pages"], nlohmann::json::array({"other_report.html"}));
  EXPECT_EQ(d["measurements"]["level"][1], 1.05);
  ASSERT_EQ(d["history"]["rows"].size(), 2u);  // the newest HIST_HOR
  EXPECT_EQ(d["history"]["rows"][0][0], 2);
  EXPECT_EQ(d["history"]["rows"][1][0], 3);
}

}  // namespace
}  // namespace kx::files
