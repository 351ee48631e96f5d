// The data file reader, the horizon settings and the time grid with every stop it can give.
#include "horizon/time_grid.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testing/stop_lines.h"

namespace kx::horizon {
namespace {

using Lines = std::vector<std::string>;

TEST(DataFile, ReadsNamesRowsAndNoValueCells) {
  DataFile d = ParseDataFile(
      " \"Time\" , Feed ,\"T C\"\r\n0, 1.5d0, 2\n\n1,,nan\r\n2.5, - ,NaN\n3,4\n", "app.csv");
  EXPECT_EQ(d.columns, (Lines{"time", "feed", "tc"}));
  ASSERT_EQ(d.num_rows, 4);
  EXPECT_EQ(d.At(0, 1), 1.5);
  EXPECT_EQ(d.At(2, 0), 2.5);
  for (auto [r, c] : std::vector<std::pair<int, int>>{{1, 1}, {1, 2}, {2, 1}, {2, 2}, {3, 2}}) {
    EXPECT_TRUE(DataFile::IsNoValue(d.At(r, c))) << r << "," << c;
  }
  EXPECT_EQ(d.Column("feed"), 1);
  EXPECT_EQ(d.Column("missing"), -1);
}

TEST(DataFile, TextCellWarnsOnceAndReadsAsNoValue) {
  OutputCapture out;
  DataFile d = ParseDataFile("time,u\n0,abc\n1,xyz\n", "app.csv");
  EXPECT_TRUE(DataFile::IsNoValue(d.At(0, 1)));
  EXPECT_TRUE(DataFile::IsNoValue(d.At(1, 1)));
  ASSERT_EQ(out.lines().size(), 1u);
  EXPECT_NE(out.lines()[0].find("\"abc\" in row 1"), std::string::npos);
}

TEST(TimeGrid, FromOptionsControlStepsThenPredictionSteps) {
  HorizonSettings s;
  s.nodes = 3;
  s.ctrl_hor = 2, s.ctrl_time = 0.5;
  s.pred_hor = 4, s.pred_time = 2.0;
  OutputCapture out;
  TimeGrid g = BuildTimeGrid(s, nullptr);
  EXPECT_EQ(out.lines(), Lines{"Prediction Horizon: 4"});
  EXPECT_EQ(g.dt, (std::vector<double>{0.5, 0.5, 2.0, 2.0}));
  ASSERT_EQ(g.num_points(), 9);
  EXPECT_EQ(g.times, (std::vector<double>{0, 0.25, 0.5, 0.75, 1.0, 2.0, 3.0, 4.0, 5.0}));
  // Point naming: the step boundary belongs to the earlier step as its last node.
  EXPECT_EQ(g.StepOf(0), 1);
  EXPECT_EQ(g.NodeOf(0), 1);
  EXPECT_EQ(g.StepOf(2), 1);
  EXPECT_EQ(g.NodeOf(2), 3);
  EXPECT_EQ(g.StepOf(3), 2);
  EXPECT_EQ(g.NodeOf(3), 2);
  EXPECT_EQ(g.Point(2, 1), 2);
}

TEST(TimeGrid, ControlHorizonLongerThanPredictionIsAdjusted) {
  HorizonSettings s;
  s.ctrl_hor = 5, s.ctrl_time = 1.0;
  s.pred_hor = 3, s.pred_time = 7.0;
  OutputCapture out;
  TimeGrid g = BuildTimeGrid(s, nullptr);
  EXPECT_EQ(out.lines(), (Lines{"WARNING: Adjusting control horizon (must be <= predict horizon)",
                                "Prediction Horizon: 3"}));
  EXPECT_EQ(g.ctrl_hor, 3);
  EXPECT_EQ(g.dt, (std::vector<double>{1.0, 1.0, 1.0}));
}

TEST(TimeGrid, DataRowsGiveUnequalStepsAndInteriorNodes) {
  HorizonSettings s;
  s.nodes = 4;
  s.pred_hor = 99;  // ignored: the data sets the horizon
  DataFile d = ParseDataFile("x,time\n5,0\n6,0.5\n7,2\n", "app.csv");
  OutputCapture out;
  TimeGrid g = BuildTimeGrid(s, &d);
  EXPECT_EQ(out.lines(), Lines{"Prediction Horizon: 2"});
  EXPECT_TRUE(g.from_data);
  EXPECT_EQ(g.dt, (std::vector<double>{0.5, 1.5}));
  EXPECT_EQ(g.ctrl_hor, 2);
  ASSERT_EQ(g.num_points(), 7);
  EXPECT_NEAR(g.times[1], 0.5 * g.positions[1], 1e-15);
  EXPECT_NEAR(g.times[4], 0.5 + 1.5 * g.positions[1], 1e-15);
  EXPECT_EQ(g.times[3], 0.5);
  EXPECT_EQ(g.times[6], 2.0);
  EXPECT_EQ(g.RowOf(3), 1);
  EXPECT_EQ(g.RowOf(4), -1);
}

TEST(TimeGrid, DataIgnoredWhenCsvReadIsOff) {
  HorizonSettings s;
  s.csv_read = 0;
  s.pred_hor = 2;
  DataFile d = ParseDataFile("x\n1\n", "app.csv");  // no time column: not looked at
  OutputCapture out;
  EXPECT_EQ(BuildTimeGrid(s, &d).num_steps(), 2);
}

// Every stop of the grid, with the exact lines printed.
TEST(TimeGrid, BadTimeColumnsAndNodeCountsStop) {
  struct Case {
    const char* what;
    int nodes;
    std::string csv;
    Lines lines;
  };
  const Case cases[] = {
      {"no time column", 3, "t,x\n0,1\n1,2\n",
       {"zpm_dyn_model_init_a error: time unspecified in csv file",
        "  action: add a column with header \"time\" to csv file",
        "          or turn OFF csv_read in configuration", "STOPPING..."}},
      {"first time not 0", 3, "time,x\n0.5,1\n1,2\n",
       {"First row of CSV data must be at Time=0", "Current value = 0.5", "STOPPING..."}},
      {"repeated time", 3, "time\n0\n1\n1\n",
       {"Error: non-incremental time sequence", " time in data row 3", "STOPPING..."}},
      {"falling time", 2, "time\n0\n1\n2\n1.5\n",
       {"Error: non-incremental time sequence", " time in data row 4", "STOPPING..."}},
      {"missing time", 2, "time,x\n0,1\n,2\n",
       {"Error: non-incremental time sequence", " time in data row 2", "STOPPING..."}},
      {"one node", 1, "time\n0\n1\n", {"Lobatto Order 1 is not available", "Stopping. . ."}},
      {"seven nodes", 7, "time\n0\n1\n", {"Lobatto Order 7 is not available", "Stopping. . ."}},
  };
  for (const Case& c : cases) {
    HorizonSettings s;
    s.nodes = c.nodes;
    DataFile d = ParseDataFile(c.csv, "app.csv");
    EXPECT_EQ(testing::StopLines([&] { BuildTimeGrid(s, &d); }), c.lines) << c.what;
  }
}

TEST(TimeGrid, EmptyHorizonsStop) {
  HorizonSettings s;
  DataFile one_row = ParseDataFile("time\n0\n", "app.csv");
  EXPECT_FALSE(testing::StopLines([&] { BuildTimeGrid(s, &one_row); }).empty());
  s.pred_hor = 0;
  EXPECT_FALSE(testing::StopLines([&] { BuildTimeGrid(s, nullptr); }).empty());
  s.pred_hor = 2;
  s.pred_time = 0;
  EXPECT_FALSE(testing::StopLines([&] { BuildTimeGrid(s, nullptr); }).empty());
}

}  // namespace
}  // namespace kx::horizon
