// Model reduction (REDUCE = 1) through the program: each sweep and each stop from a model
// written to produce it, and the reduced variables' values in the results.
#include <sstream>

#include "driver/cycle_fixture.h"

namespace kx::driver {
namespace {

std::string Model(const std::string& variables, const std::string& equations) {
  return AppModel(variables, equations, "p = 0\nq = 0");
}

class Reduction : public CycleTest {
 protected:
  RunResult Reduce(const std::string& model) {
    Write("app.zpm", model);
    Write("app.dbs", "ZPM.IMODE = 3\nZPM.REDUCE = 1\nZPM.DIAGLEVEL = 1\n");
    return Run("app -cold");
  }
};

TEST_F(Reduction, EachSweepAndItsMessage) {
  struct Case {
    const char* what;
    std::string model;
    const char* expected;
    int status;
  } cases[] = {
      {"orphan", Model("    x = 1\n    y = 0\n    z = 5\n", "    x + y^2 = 3\n    y = x^3\n"),
       "Reduce (Orphan): remove variable not in equations\n  Variable: z\n", 1},
      {"linear chain", Model("    x = 0\n    y = 0\n", "    2*x = 4\n    y = x + 3\n"),
       "Reduce (LinEq): remove equation and variable\n  Equation: eqn 2\n  Variable remove: y\n",
       1},
      {"connection", Model("    x = 1\n    y = 2\n", "    x = y\n    x^2 = 9\n"),
       "Reduce (Connect): remove equation and variable\n  Equation: eqn 1\n"
       "  Variable keep  : x\n  Variable remove: y\n",
       1},
      {"empty and satisfied", Model("    x = 0\n", "    x = 2\n    x^2 = 4\n"),
       "Reduce (Empty): remove equation with no remaining variables\n", 1},
      {"empty and violated", Model("    x = 0\n", "    x = 2\n    x^2 = 5\n"),
       "Reduce: infeasible equation with no remaining variables\n", 0},
      {"0*x = 0", Model("    x = 1\n    y = 1\n", "    p*x = q\n    y^2 = 4\n"),
       "Reduce (Zero): remove linear equation (e.g. 0*x=0)\n", 1},
      {"bound within 5e-11", Model("    x = 0, <= 1\n", "    x = 1 + 5e-11\n"),
       "Reduce (LinEq): remove equation and variable\n", 1},
      {"bound beyond 1e-9", Model("    x = 0, <= 1\n", "    x = 1 + 1e-9\n"),
       "Reduce (Error): infeasible equation, bound violation\n  Upper Bound: 1\n", 0},
  };
  for (const Case& c : cases) {
    RunResult r = Reduce(c.model);
    EXPECT_EQ(r.status, c.status) << c.what << "\n" << r.out;
    EXPECT_TRUE(r.Has(c.expected)) << c.what << "\n" << r.out;
    if (c.status == 0) {
      EXPECT_TRUE(r.Has("Stopping...\n")) << c.what;
    }
  }
}

TEST_F(Reduction, ZeroTimesXEqualsOneStops) {
  Write("app.zpm", Model("    x = 1\n", "    p*x = q\n"));
  Write("app.dbs", "ZPM.IMODE = 1\nZPM.REDUCE = 1\nq.MEAS = 1\n");
  Write("app.info", "FV, q\n");
  RunResult r = Run("app -cold");
  EXPECT_TRUE(r.Has("Reduce (Error): infeasible equation (e.g. 0*x=1)\n")) << r.out;
}

TEST_F(Reduction, ReducedValuesReachTheResultsAndRestartFile) {
  RunResult r = Reduce(Model("    a = 0\n    b = 0\n    c = 1\n    d = 1\n",
                             "    2*a = 4\n    b = a + 3\n    c = d\n    d^2 + b = 14\n"));
  ASSERT_EQ(r.status, 1) << r.out;
  // a and b by LinEq, d by its connection to c; the solver finds c.
  EXPECT_TRUE(r.Has("Reduction analysis complete\nEliminated 3 of 4 variables\n"
                    "Eliminated 3 of 4 equations\n"))
      << r.out;
  EXPECT_NE(Read("results.csv").find("\n0,0,0,2,5,3.0000"), std::string::npos)
      << Read("results.csv");
  EXPECT_NE(Read("rto.t0").find("ss.b = 5 *\nss.c = 3.0000"), std::string::npos) << Read("rto.t0");
  EXPECT_NE(Read("rto.t0").find("ss.d = 3.0000"), std::string::npos) << Read("rto.t0");
}

TEST_F(Reduction, BlockPresolveMessages) {
  struct Case {
    const char* what;
    std::string model;
    const char* dbs;
    const char* expected;
  } cases[] = {
      {"solved", Model("    x = 1\n    y = 1\n", "    x*y = 6\n    x^2 + y = 7\n"),
       "ZPM.IMODE = 1\nZPM.REDUCE = 2\nZPM.DIAGLEVEL = 1\n",
       " Pre-solve turn off DOF\n Pre-solve Variables: 2\n Pre-solve Equations: 2\n"
       " --- Solve block size: 2\nSuccessful Pre-solve Solution\n"},
      {"not square", Model("    x = 1\n    y = 1\n", "    x*y = 6\n    minimize x^2\n"),
       "ZPM.IMODE = 3\nZPM.REDUCE = 2\n",
       "Presolve requires equal number of variables and equations\nVariables: 2\n"
       "Equations: 1\n"},
      {"no zero-free diagonal",
       Model("    x = 1\n    y = 1\n    z = 1\n", "    x^2 = 1\n    exp(x) = 3\n    x + y + z = 3\n"),
       "ZPM.IMODE = 1\nZPM.REDUCE = 2\n",
       "Presolve did not find a zero-free diagonal\nDiagonal Non-zeros: 2\nDiagonal Length   : 3\n"},
      {"failed block", Model("    x = 1\n    y = 1\n", "    x^2 = -1\n    y = x^3 + 1\n"),
       "ZPM.IMODE = 1\nZPM.REDUCE = 2\n",
       "Could not perform presolve. Failed at block 1\nwith infeasible variables and equations "
       "reported in presolve.txt\nUse command zpm_get(server,app,'presolve.txt') to retrieve "
       "file\nUnsuccessful Pre-solve with error code -1\n"},
  };
  for (const Case& c : cases) {
    Write("app.zpm", c.model);
    Write("app.dbs", c.dbs);
    RunResult r = Run("app -cold");
    EXPECT_TRUE(r.Has("--- Begin Pre-solve  -----------------------\n")) << c.what;
    EXPECT_TRUE(r.Has(c.expected)) << c.what << "\n" << r.out;
    EXPECT_TRUE(r.Has("--- End Pre-solve -----------------------------------\n")) << c.what;
  }
  EXPECT_NE(Read("presolve.txt").find("eqn 1, "), std::string::npos) << Read("presolve.txt");
  EXPECT_NE(Read("presolve.txt").find("\nx, "), std::string::npos) << Read("presolve.txt");
}

TEST_F(Reduction, PresolveSaysWhenADerivativeFallsOutsideItsVariablesBlock) {
  Write("app.zpm", AppModel("x = 0", "$x = 2"));
  Write("app.dbs", "ZPM.IMODE = 4\nZPM.REDUCE = 2\nZPM.CSV_READ = 0\nZPM.PRED_HOR = 2\n");
  RunResult r = Run("app -cold");
  EXPECT_TRUE(r.Has("Cutback: variable and associated differential are not in the same block"))
      << r.out;
  EXPECT_EQ(r.status, 1) << r.out;
}

}  // namespace
}  // namespace kx::driver
