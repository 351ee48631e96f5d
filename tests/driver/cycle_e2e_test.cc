// Runs the built program in a fresh working directory, as a user would, and checks what it
// prints, its exit status and the files it leaves.
#include <nlohmann/json.hpp>

#include "driver/cycle_fixture.h"

namespace kx::driver {
namespace {

// A small steady-state model: parameter u, variables y and z.
constexpr const char* kModel =
    "Model app\n"
    "  Parameters\n    u = 1\n  End Parameters\n"
    "  Variables\n    y = 0\n    z = 1, >= 0\n  End Variables\n"
    "  Equations\n    y = 2*u\n    z^2 = y + 1\n  End Equations\n"
    "End Model\n";

// No real x satisfies the one equation.
constexpr const char* kInfeasibleModel =
    "Model app\n  Variables\n    x = 1\n  End Variables\n"
    "  Equations\n    x^2 = -1\n  End Equations\nEnd Model\n";

// Every test starts with the small model as app.zpm.
class CycleE2e : public CycleTest {
 protected:
  void SetUp() override { Write("app.zpm", kModel); }
};

TEST_F(CycleE2e, FirstCycleRunsThePrologueSolvesAndWritesTheDatabase) {
  RunResult r = Run("app -ipopt");
  EXPECT_EQ(r.status, 1) << r.out;
  EXPECT_EQ(r.out.rfind("Kestrix Optimization Suite\n--------------------------\n"
                        "Kestrix, Version 0.8.2\n",
                        0),
            0u);
  EXPECT_TRUE(
      r.Has("COMMAND LINE ARGUMENTS\nRun id   : app\ncoldstart: 0\nimode    : 3\n"
            "dbs_read : T\ndbs_write: T\nspecs    : T\n"));
  EXPECT_TRUE(r.Has("--------- ZPM Model Size ------------"));
  EXPECT_TRUE(r.Has("WARNING: restart file not found - ss.t0\n"));
  EXPECT_TRUE(r.Has("Successful solution"));
  std::string dbs = Read("app.dbs");
  EXPECT_NE(dbs.find("ZPM.BAD_CYCLES 0\n"), std::string::npos);
  EXPECT_NE(dbs.find("ZPM.CYCLECOUNT 1\n"), std::string::npos);
  EXPECT_NE(dbs.find("NLC.APPSTATUS 1\n"), std::string::npos);
  auto json = nlohmann::json::parse(Read("options.json"));
  EXPECT_EQ(json["ZPM"]["CYCLECOUNT"], 1);
  EXPECT_EQ(json["NLC"]["SOLVESTATUS"], 1);
}

TEST_F(CycleE2e, MissingModelFileStopsBeforeAnythingIsWritten) {
  RunResult r = Run("nope -cold");
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(r.Has("Model file does not exist: nope.zpm\nSTOPPING...\n"));
  EXPECT_FALSE(r.Has("COMMAND LINE ARGUMENTS"));
  EXPECT_FALSE(Exists("nope.dbs"));
}

TEST_F(CycleE2e, NameWithAndWithoutExtensionIsTheSameApplication) {
  for (const char* name : {"APP.ZPM", "app.zpm", "App"}) {
    RunResult r = Run(name);
    EXPECT_TRUE(r.Has("Run id   : app\n")) << name;
  }
  EXPECT_NE(Read("app.dbs").find("ZPM.CYCLECOUNT 3\n"), std::string::npos);
}

TEST_F(CycleE2e, SwitchesOverrideTheDbsFilesAndAreWrittenBack) {
  Write("defaults.dbs", "ZPM.IMODE = 4\nZPM.SOLVER 2\n");
  Write("app.dbs", "ZPM.IMODE 5\n");
  RunResult r = Run("app -COLD -Ctl -SOLVER=IPOPT bareword");
  EXPECT_TRUE(r.Has("coldstart: 1\nimode    : 6\n"));
  std::string dbs = Read("app.dbs");
  EXPECT_NE(dbs.find("ZPM.IMODE 6\n"), std::string::npos);
  EXPECT_NE(dbs.find("ZPM.SOLVER 3\n"), std::string::npos);
  EXPECT_NE(dbs.find("ZPM.COLDSTART 0\n"), std::string::npos) << r.out;  // back to warm
  r = Run("app -solver=xyz -cold -warm");
  EXPECT_TRUE(r.Has("Unknown solver name: xyz\n"));
  EXPECT_TRUE(r.Has("coldstart: 0\n"));
  EXPECT_NE(Read("app.dbs").find("ZPM.SOLVER 3\n"), std::string::npos);
}

TEST_F(CycleE2e, OverridesWinAndBadDbsLinesOnlyWarn) {
  Write("app.info", "MV, u\nCV, y\n");
  Write("app.dbs", "ZPM.NODES 3\ngarbage\nu.COST = 2, 1, kg\nZPM.NOPE 1\ny.SPHI = high\n");
  Write("measurements.dbs", "y.MEAS 7.5\n");
  Write("overrides.dbs", "ZPM.NODES = 4\n");
  RunResult r = Run("app");
  EXPECT_TRUE(r.Has("Warning: app.dbs line 2:"));
  EXPECT_TRUE(r.Has("Warning: app.dbs line 4:"));
  EXPECT_TRUE(r.Has("Warning: app.dbs line 5:"));
  auto json = nlohmann::json::parse(Read("options.json"));
  EXPECT_EQ(json["ZPM"]["NODES"], 4);
  EXPECT_EQ(json["u"]["COST"], 2.0);
  EXPECT_EQ(json["y"]["MEAS"], 7.5);
  // The rewritten file is clean: the next cycle reads it without a warning.
  r = Run("app");
  EXPECT_FALSE(r.Has("Warning")) << r.out;
}

TEST_F(CycleE2e, SkipWriteLeavesTheDatabaseAlone) {
  Write("app.dbs", "ZPM.MAX_ITER 7\n");
  for (const char* sw : {"-skipwrite", "-SKIPREADWRITE"}) {
    RunResult r = Run(std::string("app ") + sw);
    EXPECT_TRUE(r.Has("dbs_write: F\n")) << sw;
    EXPECT_TRUE(r.Has("main: skip dbs write\n")) << sw;
    EXPECT_EQ(Read("app.dbs"), "ZPM.MAX_ITER 7\n");
    EXPECT_FALSE(Exists("options.json"));
  }
  Write("overrides.dbs", "ZPM.DBS_WRITE = 0\n");
  EXPECT_TRUE(Run("app").Has("main: skip dbs write\n"));
}

TEST_F(CycleE2e, KillRequestStopsBeforeAnyFileIsWritten) {
  Write("overrides.dbs", "ZPM.REQCTRLMODE = 0\n");
  RunResult r = Run("app -ctl");
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(r.Has("Requested Control Mode = 0 (KILL)\nZPM.REQCTRLMODE = 0\nSTOPPING...\n"));
  EXPECT_FALSE(r.Has("COMMAND LINE ARGUMENTS"));
  EXPECT_FALSE(Exists("app.dbs"));
  EXPECT_FALSE(Exists("options.json"));
}

TEST_F(CycleE2e, BadCyclesCountUpAndForceAColdStart) {
  Write("app.zpm", kInfeasibleModel);
  Write("defaults.dbs", "ZPM.AUTO_COLD 3\nZPM.SOLVER 3\n");
  for (int cycle = 1; cycle <= 3; ++cycle)  // BAD_CYCLES 0, 1, 2 at the start
    EXPECT_FALSE(Run("app").Has("Auto Coldstart")) << cycle;
  RunResult r = Run("app");
  EXPECT_TRUE(r.Has("\n Auto Coldstart: 3 bad cycles >= 3 auto cold limit\n\n"));
  EXPECT_TRUE(r.Has("coldstart: 1\n"));
  EXPECT_NE(Read("app.dbs").find("ZPM.BAD_CYCLES 4\n"), std::string::npos);
}

TEST_F(CycleE2e, BadSwitchPrintsTheHelpAndStops) {
  RunResult r = Run("app -cold -NotASwitch");
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(
      r.Has("argument not recognized: -notaswitch\n valid command line arguments are\n"
            "   -P                 = generate dummy file sparsity.unt\n"));
  EXPECT_TRUE(r.Has("-SNOPT, -MINOS)\n\nSTOPPING...\n"));
  EXPECT_FALSE(Exists("app.dbs"));
}

TEST_F(CycleE2e, DummySparsityFile) {
  RunResult r = Run("app -P");
  EXPECT_TRUE(r.Has("sparsity.unt generated\nSTOPPING...\n"));
  EXPECT_TRUE(Exists("sparsity.unt"));
  EXPECT_FALSE(Exists("app.dbs"));
}

TEST_F(CycleE2e, ReplayFeedsOneRowPerCycle) {
  Write("app.info", "CV, y\n");
  Write("replay.csv", "y.MEAS,ZPM.FILTER\n1.5,0.1\n2.5,0.2\n3.5,0.3\n");
  Write("app.dbs", "ZPM.REPLAY 2\n");
  RunResult r = Run("app");
  EXPECT_TRUE(r.Has("Replay Cycle: 2\n"));
  auto json = nlohmann::json::parse(Read("options.json"));
  EXPECT_EQ(json["y"]["MEAS"], 2.5);
  EXPECT_EQ(json["ZPM"]["REPLAY"], 3);
  r = Run("app");
  EXPECT_TRUE(r.Has("Replay Cycle: 3\n"));
  EXPECT_NE(Read("measurements.dbs").find("y.MEAS = 3.5\n"), std::string::npos);
  r = Run("app");
  EXPECT_TRUE(r.Has("Warning: replay.csv has no data row 4"));
}

TEST_F(CycleE2e, TimerTableAtDiagnosticLevelOne) {
  EXPECT_FALSE(Run("app").Has("zpm_files"));
  Write("overrides.dbs", "ZPM.DIAGLEVEL 1\n");
  RunResult r = Run("app");
  EXPECT_TRUE(r.Has("Timer"));
  EXPECT_TRUE(r.Has("zpm_files"));
  EXPECT_TRUE(r.Has("Total"));
}

TEST_F(CycleE2e, MoreThan99ArgumentsAreReportedNotParsed) {
  std::string args = "app";
  for (int i = 0; i < 97; ++i) args += " -l1";  // positions 2..98
  RunResult r = Run(args + " -ss");             // 99 arguments: all parsed
  EXPECT_FALSE(r.Has("zpm_getarg"));
  EXPECT_TRUE(r.Has("imode    : 1\n"));
  r = Run(args + " -l1 -ctl");  // -ctl at position 100; IMODE 1 comes from app.dbs
  EXPECT_TRUE(r.Has("zpm_getarg: ERROR: >= 100 command line arguments\n"));
  EXPECT_TRUE(r.Has("imode    : 1\n"));
}

TEST_F(CycleE2e, ModelStageBuildsTheModelAndWritesItsInitialFiles) {
  Write("overrides.dbs", "ZPM.DIAGLEVEL = 2\n");
  RunResult r = Run("app");
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(r.Has("Parsing model file app.zpm")) << r.out;
  EXPECT_TRUE(r.Has("Number of constraints : 2\n"));
  EXPECT_TRUE(r.Has("Degrees of freedom       :          0\n")) << r.out;
  EXPECT_TRUE(r.Has("Successful solution"));
  // Residuals at the start: y - 2*u = 0 - 2 and z^2 - (y + 1) = 1 - 1.
  std::string res = Read("model_init_res.txt");
  EXPECT_NE(res.find("Eqn(1)  -2.0000000000000000e+00   0 = (y)-(2*u)\n"), std::string::npos)
      << res;
  EXPECT_NE(res.find("Eqn(2)   0.0000000000000000e+00   0 = (z^2)-(y + 1)\n"), std::string::npos)
      << res;
  EXPECT_TRUE(Exists("model_init_values.txt"));
  // The stage listings: the byte code with its column map, and the patterns with names.
  std::string code = Read("model_bytecode.txt");
  EXPECT_NE(code.find("Eqn(2)"), std::string::npos) << code;
  EXPECT_NE(code.find("column 3 z"), std::string::npos) << code;
  std::string pattern = Read("model_sparsity.txt");
  EXPECT_NE(pattern.find("Jacobian non-zeros 4, Hessian non-zeros (lower triangle) 1"),
            std::string::npos)
      << pattern;
  EXPECT_NE(pattern.find("3  z  z"), std::string::npos) << pattern;
  EXPECT_NE(Read("app.dbs").find("NLC.APPSTATUS 1\n"), std::string::npos);
}

TEST_F(CycleE2e, ModelErrorsAndInfoFileMismatchesStopTheCycle) {
  Write("app.info", "SV, y\nCV, nosuch\n");
  RunResult r = Run("app");
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(r.Has("Error in app.info at line 2:")) << r.out;
  EXPECT_FALSE(Exists("app.dbs"));
  Write("app.info", "");
  Write("app.zpm", "Model app\nVariables\n x = 1\nEnd Variables\nEquations\n x = (2*x\n"
                   "End Equations\nEnd Model\n");
  r = Run("app");
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(r.Has("*** Error in syntax of function string: ")) << r.out;
  EXPECT_FALSE(Exists("app.dbs"));
}

TEST_F(CycleE2e, DomainErrorsAtTheStartAreCountedNotFatal) {
  Write("app.zpm", "Model app\nVariables\n x = -1\n y = 0\nEnd Variables\nEquations\n"
                   " y = log(x)\n x + y = 1\nEnd Equations\nEnd Model\n");
  RunResult r = Run("app");
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(r.Has("Count: Argument of LOG negative                1\n")) << r.out;
  EXPECT_TRUE(r.Has("Solver         :  ")) << r.out;
}

TEST_F(CycleE2e, StorageLevelOutsideItsRangeIsClampedWithAWarning) {
  Write("overrides.dbs", "ZPM.MAX_MEMORY = 1\n");
  RunResult r = Run("app");
  EXPECT_TRUE(r.Has("WARNING: MAX_MEMORY 1 outside 2-10, using 2\n")) << r.out;
  EXPECT_TRUE(r.Has("--------- ZPM Model Size ------------"));
}

TEST_F(CycleE2e, SequentialEstimationAndControlSayTheyAreNotAvailable) {
  for (const char* mode : {"-sqe", "-sqc"}) {
    RunResult r = Run(std::string("app ") + mode);
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.Has("sequential estimation and control (IMODE 8, 9)")) << r.out;
  }
  EXPECT_NE(Read("app.dbs").find("ZPM.BAD_CYCLES 2\n"), std::string::npos);
}

}  // namespace
}  // namespace kx::driver
