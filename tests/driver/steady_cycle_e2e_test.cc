// Steady-state cycles end to end: the solve, its report, the files a cycle leaves and what
// the next cycle reads from them.
#include <filesystem>

#include <nlohmann/json.hpp>

#include "driver/cycle_fixture.h"

namespace kx::driver {
namespace {

// The classic four-variable problem with a product constraint; optimum 17.0140173.
constexpr const char* kHs071 =
    "Model app\n  Variables\n    x[1:4] = 1, >= 1, <= 5\n  End Variables\n"
    "  Equations\n    x[1]*x[2]*x[3]*x[4] >= 25\n"
    "    x[1]^2 + x[2]^2 + x[3]^2 + x[4]^2 = 40\n"
    "    minimize x[1]*x[4]*(x[1]+x[2]+x[3]) + x[3]\n  End Equations\nEnd Model\n";

// A parameter p that an FV with STATUS = 1 frees; y follows it.
constexpr const char* kFvModel =
    "Model app\n  Parameters\n    p = 1\n  End Parameters\n"
    "  Variables\n    y = 0\n  End Variables\n"
    "  Equations\n    y = 2*p\n    minimize (y - 6)^2\n  End Equations\nEnd Model\n";

std::string Model(const std::string& equations, const std::string& variables = "x = 1") {
  return "Model app\n  Variables\n    " + variables + "\n  End Variables\n  Equations\n    " +
         equations + "\n  End Equations\nEnd Model\n";
}

double DbsValue(const std::string& dbs, const std::string& key) {
  size_t at = dbs.find("\n" + key + " ");
  return at == std::string::npos ? -1e300 : std::stod(dbs.substr(at + key.size() + 2));
}

class SteadyCycle : public CycleTest {};

TEST_F(SteadyCycle, GoodCycleWritesEveryFileAndTheNextCycleStartsWarm) {
  Write("app.zpm", kHs071);
  RunResult r = Run("app -ipopt");
  ASSERT_EQ(r.status, 1) << r.out;
  EXPECT_TRUE(r.Has("Steady State Optimization with Interior Point Solver\n"));
  EXPECT_TRUE(r.Has("Solver         :  IPOPT (v3.9)\n"));
  EXPECT_TRUE(r.Has("Successful solution\n"));
  EXPECT_FALSE(Exists("infeasibilities.txt"));
  std::string dbs = Read("app.dbs");
  EXPECT_NEAR(DbsValue(dbs, "NLC.OBJFCNVAL"), 17.0140173, 1e-6);
  EXPECT_EQ(DbsValue(dbs, "NLC.SOLVESTATUS"), 1);
  EXPECT_EQ(DbsValue(dbs, "NLC.APPINFOCHG"), 0);
  const double cold_iterations = DbsValue(dbs, "NLC.ITERATIONS");
  EXPECT_GT(cold_iterations, 5);

  std::string restart = Read("rto.t0");
  EXPECT_NE(restart.find("ss.x[2] = 4.74299"), std::string::npos) << restart;
  EXPECT_NE(restart.find(" *\n"), std::string::npos);
  std::string csv = Read("results.csv");
  EXPECT_EQ(csv.substr(0, csv.find('\n')), "time,x[1],x[2],x[3],x[4]");
  auto json = nlohmann::json::parse(Read("results.json"));
  EXPECT_NEAR(json["x[3]"][0].get<double>(), 3.82115, 1e-5);
  EXPECT_EQ(json["time"][0], 0.0);

  r = Run("app -ipopt");
  ASSERT_EQ(r.status, 1) << r.out;
  EXPECT_FALSE(r.Has("restart file not found"));
  EXPECT_LT(DbsValue(Read("app.dbs"), "NLC.ITERATIONS"), cold_iterations / 2);
}

TEST_F(SteadyCycle, FailedCycleIsCountedReportedAndResetByTheNextGoodOne) {
  Write("app.zpm", Model("x^2 = -1"));
  RunResult r = Run("app -ipopt");
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(r.Has("Unsuccessful with error code ")) << r.out;
  EXPECT_TRUE(r.Has("Creating file: infeasibilities.txt\n"
                    "Use command zpm_get(server,app,'infeasibilities.txt') to retrieve file\n"));
  EXPECT_NE(Read("infeasibilities.txt").find("VIOLATED"), std::string::npos);
  std::string dbs = Read("app.dbs");
  EXPECT_EQ(DbsValue(dbs, "ZPM.BAD_CYCLES"), 1);
  EXPECT_EQ(DbsValue(dbs, "NLC.APPSTATUS"), 0);
  EXPECT_EQ(DbsValue(dbs, "NLC.SOLVESTATUS"), 0);
  EXPECT_FALSE(Exists("rto.t0"));  // a failed solve leaves no restart file behind

  Write("app.zpm", Model("x^2 = 4", "x = 1, >= 0"));
  r = Run("app -ipopt");
  EXPECT_EQ(r.status, 1) << r.out;
  EXPECT_EQ(DbsValue(Read("app.dbs"), "ZPM.BAD_CYCLES"), 0);
}

TEST_F(SteadyCycle, BenchmarkModeTriesEverySolverAndWritesNothing) {
  Write("app.zpm", kHs071);
  Write("overrides.dbs", "ZPM.SOLVER = 0\n");
  RunResult r = Run("app");
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(r.Has("Benchmark Summary for Problem app\n"
                    "Solver         Variables Equations Res Evals Jac Evals Iter Info   "
                    "Objective  Solution Time  Status\n"))
      << r.out;
  EXPECT_TRUE(r.Has("\nIPOPT (v3.9)           4         2"));
  EXPECT_TRUE(r.Has("solver 5 not supported\nusing default solver: ASOPT\n"));
  EXPECT_TRUE(r.Has(std::string(100, '-') +
                    "\nDo not write DBS or restart files in benchmark mode\nSTOPPING...\n"));
  for (const char* file : {"app.dbs", "rto.t0", "results.csv", "results.json", "options.json"})
    EXPECT_FALSE(Exists(file)) << file;
}

TEST_F(SteadyCycle, UnsupportedSolverNumbersFallBackToTheDefault) {
  Write("app.zpm", kHs071);
  for (const char* solver : {"5", "6"}) {
    Write("overrides.dbs", std::string("ZPM.SOLVER = ") + solver + "\n");
    RunResult r = Run("app");
    EXPECT_TRUE(r.Has(std::string("solver ") + solver +
                      " not supported\nusing default solver: ASOPT\n"))
        << r.out;
  }
}

TEST_F(SteadyCycle, RtoRestartFileIsPreferredOverTheSteadyStateOne) {
  Write("app.zpm", kHs071);
  Write("rto.t0", "! from rto\nss.x[1] = 1 *\n");
  Write("ss.t0", "ss.x[1] = 2 *\n");
  Write("overrides.dbs", "ZPM.DIAGLEVEL = 1\n");
  RunResult r = Run("app -ipopt");
  EXPECT_TRUE(r.Has("Read restart file rto.t0: 1 values applied")) << r.out;
}

TEST_F(SteadyCycle, ClassifiedVariablesTakeTheirDbsValuesAndReportTheSolution) {
  Write("app.zpm", kFvModel);
  Write("app.info", "FV, p\nSV, y\n");
  Write("measurements.dbs", "p.STATUS = 1\n");
  RunResult r = Run("app -ipopt");
  ASSERT_EQ(r.status, 1) << r.out;
  std::string dbs = Read("app.dbs");
  EXPECT_NEAR(DbsValue(dbs, "p.NEWVAL"), 3.0, 1e-6) << dbs;
  EXPECT_NEAR(DbsValue(dbs, "y.MODEL"), 6.0, 1e-6);

  // In simulation the FV stays fixed; a measurement moves it by FSTATUS.
  Write("measurements.dbs", "p.STATUS = 1\np.MEAS = 5\np.FSTATUS = 0.5\n");
  r = Run("app -ipopt -ss");
  dbs = Read("app.dbs");
  EXPECT_NEAR(DbsValue(dbs, "p.NEWVAL"), 4.0, 1e-9) << r.out;  // restart value 3 -> 0.5*5+0.5*3
  EXPECT_NEAR(DbsValue(dbs, "p.LSTVAL"), 3.0, 1e-6);
  EXPECT_NEAR(DbsValue(dbs, "y.MODEL"), 8.0, 1e-6);
}

TEST_F(SteadyCycle, DataFileRowGivesTheParameters) {
  Write("app.zpm", kFvModel);
  Write("app.csv", "p, y, nosuch\n4, 100, 1\n");
  RunResult r = Run("app -ipopt -ss");
  ASSERT_EQ(r.status, 1) << r.out;
  EXPECT_TRUE(r.Has("WARNING: data column \"nosuch\" is not a parameter or variable of the "
                    "model: ignored\n"));
  EXPECT_EQ(Read("results.csv"), "time,p,y\n0,4,8\n");

  Write("overrides.dbs", "ZPM.CSV_READ = 0\n");
  std::filesystem::remove(std::filesystem::path(dir_.str()) / "ss.t0");  // it holds p = 4
  ASSERT_EQ(Run("app -ipopt -ss").status, 1);
  EXPECT_EQ(Read("results.csv"), "time,p,y\n0,1,2\n");
}

// Variables named int... are integers: the default solver branches on them, the others solve
// the relaxation and say so.
TEST_F(SteadyCycle, IntegerVariablesAreBranchedOnByTheDefaultSolverOnly) {
  Write("app.zpm",
        "Model app\n  Variables\n    int1 = 0, >= -5, <= 10\n    int2 = 0, >= -5, <= 10\n"
        "    z = 0, >= -10, <= 10\n  End Variables\n  Equations\n    int1 + int2 + z >= 2.5\n"
        "    minimize (int1 - 3.7)^2 + (int2 + 1.2)^2 + 0.5*int1*int2 + 2*z^2\n"
        "  End Equations\nEnd Model\n");
  RunResult r = Run("app");
  ASSERT_EQ(r.status, 1) << r.out;
  EXPECT_TRUE(r.Has("| MINLP Iter: 2\n")) << r.out;
  EXPECT_TRUE(r.Has("--Integer Solution: "));
  std::string csv = Read("results.csv");
  EXPECT_EQ(csv.substr(0, csv.rfind(',')), "time,int1,int2,z\n0,4,-2");
  EXPECT_NEAR(DbsValue(Read("app.dbs"), "NLC.OBJFCNVAL"), -2.77, 1e-6);

  std::filesystem::remove(std::filesystem::path(dir_.str()) / "rto.t0");
  std::filesystem::remove(std::filesystem::path(dir_.str()) / "lam.t0");
  r = Run("app -ipopt");
  EXPECT_TRUE(r.Has("WARNING: IPOPT solves the continuous relaxation: its 2 integer variables "
                    "may end between integers (only ASOPT branches on them)\n"))
      << r.out;
  EXPECT_LT(DbsValue(Read("app.dbs"), "NLC.OBJFCNVAL"), -3.2);  // the relaxation's optimum
}

TEST_F(SteadyCycle, DiagnosticLevelTwoWritesTheWarmStartFilesAndListings) {
  Write("app.zpm", kHs071);
  Write("overrides.dbs", "ZPM.DIAGLEVEL = 2\n");
  ASSERT_EQ(Run("app -ipopt").status, 1);
  for (const char* file : {"warm.t0", "lam.t0", "zpm_eqn.txt", "zpm_var.txt", "zpm_obj.txt",
                           "zpm_var_bounds.txt", "model_sparsity.txt"})
    EXPECT_TRUE(Exists(file)) << file;
  const std::string lam = Read("lam.t0");
  EXPECT_EQ(std::count(lam.begin(), lam.end(), '\n'), 3);  // a comment and two rows

  Write("lam.t0", "eqn 1 = 1\n");  // one value for two rows
  RunResult r = Run("app -ipopt");
  EXPECT_TRUE(r.Has("Warning: lam.t0 file load was unsuccessful\n")) << r.out;
  EXPECT_EQ(r.status, 1);
}

// What a user can write that no solver can finish: each ends with a status and a report.
TEST_F(SteadyCycle, HopelessProblemsEndWithAStatusNotACrash) {
  const std::string cases[] = {
      Model("minimize x"),                                // unbounded
      Model("y = sqrt(x)", "x = -1\n    y = 0"),          // NaN at the starting point
      Model("x + y = 1\n    2*x + 2*y = 3", "x = 0\n    y = 0"),  // singular and inconsistent
  };
  for (const std::string& model : cases) {
    Write("app.zpm", model);
    RunResult r = Run("app -ipopt");
    EXPECT_EQ(r.status, 0) << model << r.out;
    EXPECT_TRUE(r.Has("Unsuccessful with error code ")) << model << r.out;
    EXPECT_NE(Read("app.dbs").find("NLC.SOLVESTATUS 0\n"), std::string::npos);
  }
}

}  // namespace
}  // namespace kx::driver
