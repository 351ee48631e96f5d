// The conflict search after an infeasible solve, through the program: a 1,000-row model with
// three planted rows that cannot hold together, which must be the ones named first.
#include <fmt/format.h>

#include <sstream>

#include "driver/cycle_fixture.h"

namespace kx::driver {
namespace {

std::string PlantedModel() {
  std::string m = "Model app\n  Variables\n    x[1:1000] = 1\n    y = 0\n    z = 0\n"
                  "  End Variables\n  Equations\n    x[1] = 0.5\n";
  for (int i = 1; i < 1000; ++i) m += fmt::format("    x[{}] = x[{}] + 0.001*sin({})\n", i + 1, i, i);
  m += "    y + z*x[10]/x[10] >= 10\n";  // equation 1001
  m += "    y - x[20] + x[20] <= 3\n";    // 1002
  m += "    z <= 4 + 0*x[30]\n";          // 1003
  m += "    y^2 + x[40] >= 1\n";          // 1004: holds with the others
  return m + "  End Equations\nEnd Model\n";
}

class Infeasibility : public CycleTest {};

TEST_F(Infeasibility, ThePlantedRowsAreNamedFirst) {
  Write("app.zpm", PlantedModel());
  Write("app.dbs", "ZPM.IMODE = 3\nZPM.SOLVER = 3\n");
  RunResult r = Run("app -cold");
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(r.Has("Conflicting equations: 3 equations and 0 bounds cannot hold together"))
      << r.out;
  std::istringstream file(Read("infeasibilities.txt"));
  std::string line;
  std::getline(file, line);
  EXPECT_EQ(line, "! conflict: 3 equations and 0 bounds that cannot hold together");
  for (const char* name : {"eqn 1001", "eqn 1002", "eqn 1003"}) {
    std::getline(file, line);
    EXPECT_NE(line.find(name), std::string::npos) << line;
  }
}

TEST_F(Infeasibility, AConflictingBoundIsNamed) {
  Write("app.zpm", AppModel("y = 0, <= 3\nz = 0", "y + z >= 10\nz <= 4\nz^2 + y^2 >= 1"));
  Write("app.dbs", "ZPM.IMODE = 3\nZPM.SOLVER = 3\n");
  RunResult r = Run("app -cold");
  EXPECT_TRUE(r.Has("Conflicting equations: 2 equations and 1 bounds")) << r.out;
  EXPECT_NE(Read("infeasibilities.txt").find("!   bound    y                    <= 3"),
            std::string::npos)
      << Read("infeasibilities.txt");
}

}  // namespace
}  // namespace kx::driver
