// The tier loop of control: tiers solve one after the other. The generated rows' names and
// texts for each error model, CV type and MV interpolation are golden cases (cycle).
#include "driver/cycle_fixture.h"

namespace kx::driver {
namespace {

class GeneratedRows : public CycleTest {};

TEST_F(GeneratedRows, TiersSolveOneAfterTheOther) {
  Write("app.zpm", AppModel("x = 0", "2 * $x = -x + 3 * u + v", "u = 0\nv = 0"));
  Write("app.info", "MV, u\nMV, v\nCV, x\n");
  Write("app.dbs", "ZPM.CSV_READ = 0\nZPM.PRED_HOR = 2\nZPM.CTRL_HOR = 2\nZPM.IMODE = 6\n"
                   "ZPM.CV_TYPE = 2\nu.STATUS = 1\nu.TIER = 1\nv.STATUS = 1\nv.TIER = 2\n"
                   "x.STATUS = 1\nx.SP = 1\nx.TIER = 1\n");
  const RunResult r = Run("app -cold");
  EXPECT_EQ(r.status, 1) << r.out;
  const size_t first = r.out.find("Tiered Optimization Cycle: 1");
  const size_t second = r.out.find("Tiered Optimization Cycle: 2");
  EXPECT_NE(first, std::string::npos) << r.out;
  EXPECT_NE(second, std::string::npos) << r.out;
  EXPECT_LT(first, second);
}

}  // namespace
}  // namespace kx::driver
