// Dynamic simulation cycles end to end with the bundled tank example: the files of a cycle,
// the warm start of the next one with and without the time shift, and the horizon's stops.
#include <filesystem>
#include <fstream>
#include <sstream>

#include "driver/cycle_fixture.h"

namespace kx::driver {
namespace {

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::stringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// Field `column` (0-based) of a CSV line.
std::string Field(const std::string& line, int column) {
  std::stringstream in(line);
  std::string cell;
  for (int c = 0; c <= column; ++c) std::getline(in, cell, ',');
  return cell;
}

class DynamicCycle : public CycleTest {
 protected:
  void SetUp() override {
    for (const char* f : {"tank.zpm", "tank.csv", "tank.info", "tank.dbs"}) {
      std::ifstream in(std::string(KX_SOURCE_DIR) + "/examples/tank/" + f);
      std::stringstream text;
      text << in.rdbuf();
      Write(f, text.str());
    }
  }
};

TEST_F(DynamicCycle, TankSimulationWritesItsFilesAndTheNextCycleMovesOneStepOn) {
  RunResult r = Run("tank");
  ASSERT_EQ(r.status, 1) << r.out;
  EXPECT_TRUE(r.Has("Prediction Horizon: 8\n"));
  EXPECT_TRUE(r.Has("WARNING: restart file not found - sim.t0\n"));
  EXPECT_TRUE(r.Has("Dynamic Simulation with Interior Point Solver\n"));
  for (const char* f : {"sim.t0", "ic.t0", "sim.dxdt", "results.csv", "results.json", "lam.t0"})
    EXPECT_TRUE(Exists(f)) << f;
  std::vector<std::string> first = Lines(Read("results.csv"));
  ASSERT_EQ(first.size(), 10u);  // header and the 9 time points of the data file
  EXPECT_EQ(first[0], "time,inflow,cv,area,level,outflow");
  EXPECT_EQ(Field(first[4], 1), "1.5");  // the inflow column of the data file
  std::string dbs = Read("tank.dbs");
  EXPECT_NE(dbs.find("ZPM.PRED_HOR 8\n"), std::string::npos);
  EXPECT_NE(dbs.find("level.PRED[8] " + Field(first[9], 4) + "\n"), std::string::npos) << dbs;
  EXPECT_NE(Read("sim.t0").find("p(1).n(1).level = 1\n"), std::string::npos);  // fixed: no *
  EXPECT_NE(Read("ic.t0").find("outflow = 0.5 *\n"), std::string::npos);

  r = Run("tank");
  ASSERT_EQ(r.status, 1) << r.out;
  EXPECT_FALSE(r.Has("restart file not found"));
  std::vector<std::string> second = Lines(Read("results.csv"));
  EXPECT_EQ(Field(second[1], 4), Field(first[2], 4));  // level at 0 = previous level at 0.5

  Write("overrides.dbs", "ZPM.TIME_SHIFT = 0\n");
  r = Run("tank");
  EXPECT_TRUE(r.Has("Variable time shift OFF\n")) << r.out;
  EXPECT_EQ(Field(Lines(Read("results.csv"))[1], 4), Field(second[1], 4));
}

TEST_F(DynamicCycle, HorizonFromTheOptionsWithoutADataFile) {
  std::filesystem::remove(std::filesystem::path(dir_.str()) / "tank.csv");
  Write("overrides.dbs", "ZPM.CTRL_HOR = 12\nZPM.PRED_HOR = 10\nZPM.PRED_TIME = 0.25\n");
  RunResult r = Run("tank");
  EXPECT_TRUE(r.Has("WARNING: Adjusting control horizon (must be <= predict horizon)\n"))
      << r.out;
  EXPECT_TRUE(r.Has("Prediction Horizon: 10\n"));
  ASSERT_EQ(r.status, 1) << r.out;
  EXPECT_NE(Read("tank.dbs").find("ZPM.CTRL_HOR 10\n"), std::string::npos);
  EXPECT_EQ(Lines(Read("results.csv")).size(), 12u);
}

TEST_F(DynamicCycle, ASimulationMustBeSquare) {
  std::string model = Read("tank.zpm");
  model.insert(model.find("  End Variables"), "    spare = 0\n");  // in no equation
  Write("tank.zpm", model);
  RunResult r = Run("tank");
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(r.Has("* Error: DOF must be zero for this mode\nSTOPPING...\n")) << r.out;
  EXPECT_FALSE(r.Has("Solver         :"));
}

// Inputs that stop the cycle before anything is replicated, grouped by cause.
TEST_F(DynamicCycle, BadHorizonInputsStopTheCycle) {
  struct Case {
    const char* file;
    const char* text;
    const char* message;
  };
  const Case cases[] = {
      {"tank.csv", "time,inflow\n1,1\n2,1\n", "First row of CSV data must be at Time=0\n"
                                              "Current value = "},
      {"tank.csv", "time,inflow\n0,1\n1,1\n1,1\n", "Error: non-incremental time sequence\n"},
      {"tank.csv", "inflow\n1\n2\n", "zpm_dyn_model_init_a error: time unspecified in csv file\n"},
      {"overrides.dbs", "ZPM.NODES = 7\n", "Lobatto Order 7"},
      {"overrides.dbs", "ZPM.NODES = 1\n", "Lobatto Order 1"},
  };
  for (const Case& c : cases) {
    SetUp();
    Write("overrides.dbs", "");
    Write(c.file, c.text);
    RunResult r = Run("tank");
    EXPECT_EQ(r.status, 0) << c.text;
    EXPECT_TRUE(r.Has(c.message)) << c.text << r.out;
    EXPECT_FALSE(r.Has("Solver         :")) << c.text;
  }
}

}  // namespace
}  // namespace kx::driver
