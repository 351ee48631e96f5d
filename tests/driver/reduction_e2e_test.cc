// Model reduction (REDUCE = 1) through the program: the reduced variables' values reach the
// results and the restart file. Each sweep's message is the golden case cycle.
#include "driver/cycle_fixture.h"

namespace kx::driver {
namespace {

class Reduction : public CycleTest {};

TEST_F(Reduction, ReducedValuesReachTheResultsAndRestartFile) {
  Write("app.zpm", AppModel("a = 0\nb = 0\nc = 1\nd = 1", "2*a = 4\nb = a + 3\nc = d\nd^2 + b = 14",
                            "p = 0\nq = 0"));
  Write("app.dbs", "ZPM.IMODE = 3\nZPM.REDUCE = 1\nZPM.DIAGLEVEL = 1\n");
  RunResult r = Run("app -cold");
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

}  // namespace
}  // namespace kx::driver
