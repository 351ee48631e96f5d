// Derivative checks by DIAGLEVEL through the program, on a model whose exact derivative and
// finite difference legitimately differ: abs() at its kink.
#include "driver/cycle_fixture.h"

namespace kx::driver {
namespace {

const std::string kKink = AppModel("x = 1\ny = 0", "x = 1\ny = abs(x - 1)");

class DerivativeChecks : public CycleTest {
 protected:
  void SetUp() override { Write("app.zpm", kKink); }
};

TEST_F(DerivativeChecks, LevelsFourFiveSix) {
  struct Case {
    int diaglevel;
    bool first, second;
  } cases[] = {{4, false, false}, {5, true, false}, {6, true, true}};
  for (const Case& c : cases) {
    Write("app.dbs", "ZPM.IMODE = 1\nZPM.DIAGLEVEL = " + std::to_string(c.diaglevel) + "\n");
    RunResult r = Run("app -cold");
    EXPECT_EQ(r.Has("checking constraint 1st derivatives..."), c.first) << c.diaglevel;
    EXPECT_EQ(r.Has("checking 2nd derivatives..."), c.second) << c.diaglevel;
  }
}

TEST_F(DerivativeChecks, TheKinkIsReportedWithItsEquationAndVariable) {
  Write("app.dbs", "ZPM.IMODE = 1\nZPM.DIAGLEVEL = 5\n");
  RunResult r = Run("app -cold");
  EXPECT_TRUE(r.Has("zpm_verify_jacobian: located 1 error (see verify_jacobian.txt)")) << r.out;
  const std::string report = Read("verify_jacobian.txt");
  EXPECT_NE(report.find("(==)"), std::string::npos) << report;
  EXPECT_NE(report.find("     Variable: x\n     Equation     : eqn 2\n"), std::string::npos)
      << report;
}

}  // namespace
}  // namespace kx::driver
