// The generated rows of estimation and control as the equation listing (zpm_eqn.txt) shows
// them: their names and stored texts for each error model, CV type and MV interpolation; and
// the tier loop.
#include "driver/cycle_fixture.h"

namespace kx::driver {
namespace {

const std::string kPlant = AppModel("x = 0", "2 * $x = -x + 3 * u + v", "u = 0\nv = 0");

class GeneratedRows : public CycleTest {
 protected:
  void SetUp() override {
    Write("app.zpm", kPlant);
    Write("app.info", "MV, u\nMV, v\nCV, x\n");
  }
  std::string Listing(const std::string& settings) {
    Write("app.dbs", "ZPM.DIAGLEVEL = 2\nZPM.CSV_READ = 0\nZPM.PRED_HOR = 2\nZPM.CTRL_HOR = 2\n" +
                         settings);
    last_ = Run("app -cold");
    return Read("zpm_eqn.txt");
  }
  RunResult last_;
};

TEST_F(GeneratedRows, NamesAndTextsOfEveryForm) {
  struct Case {
    const char* settings;
    std::vector<const char*> rows;  // "name  text" fragments that must be listed
  } cases[] = {
      {"ZPM.IMODE = 5\nZPM.EV_TYPE = 1\nx.MEAS = 1\n",
       {"x.meas_err_hi", R"(0 < err_{hi} - \left( ev - meas_{hi} \right))", "x.model_chg_lo",
        R"(minimize \left( w_{meas} err_{hi} + w_{meas} err_{lo} + w_{model} chg_{hi} + w_{model} chg_{lo} \right) fstatus)"}},
      {"ZPM.IMODE = 5\nZPM.EV_TYPE = 2\nx.MEAS = 1\n",
       {"x.obj_eqn", "minimize (wmeas * (model-meas)^2 + wmodel * (model-model_0)^2 * fstatus"}},
      {"ZPM.IMODE = 5\nZPM.EV_TYPE = 3\nx.MEAS = 1\n",
       {"x.error", R"(0 = err - \left( ev - meas \right))", "x.change"}},
      {"ZPM.IMODE = 6\nZPM.CV_TYPE = 1\nx.STATUS = 1\nx.SPHI = 2\nx.SPLO = 1\n",
       {"x.traj_slk_hi", R"(0 = -\tau \frac{\partial tr_{hi}}{\partial t} - tr_{hi} + sp_{hi})",
        "x.error_lo", R"(0 < err_{lo} + \left( bcv - tr_{lo} \right))", "x.cv_bias",
        "minimize (wsp_{hi} err_{hi} + wsp_{lo} err_{lo})"}},
      // Type 3 bounds the rate of the CV itself: an MV must be free to follow the trajectories.
      {"ZPM.IMODE = 6\nZPM.CV_TYPE = 3\nu.STATUS = 1\nx.STATUS = 1\nx.SPHI = 2\nx.SPLO = 1\n",
       {R"(0 < -\tau \frac{\partial bcv}{\partial t} - tr_{hi} + sp_{hi})",
        R"(0 = err_{hi} - \left( bcv - tr_{hi} \right))"}},
      {"ZPM.IMODE = 6\nZPM.CV_TYPE = 2\nx.STATUS = 1\nx.SP = 1\n",
       {"x.lag", R"(0 = err^2 - \left( bcv - tr \right)^2)", "minimize w_{sp} err^2",
        "minimize (cost * bcv)"}},
      {"ZPM.IMODE = 6\nZPM.NODES = 4\nZPM.MV_TYPE = 1\nu.STATUS = 1\n",
       {"0= u_2 - (0.724 u_1 + 0.276 u_4)", "0= u_3 - (0.276 u_1 + 0.724 u_4)",
        "u.du ", "0= du  - (u_4 - u_1)", "0= dudt * dt - du", "0 < du_{pos} - du",
        R"(minimize dcost * \left( du_{pos} + du_{neg} \right))"}},
      {"ZPM.IMODE = 6\nZPM.NODES = 3\nZPM.MV_TYPE = 0\nZPM.CV_TYPE = 2\nu.STATUS = 1\n",
       {"0= u_2 - u_1", "minimize dcost * du^2"}},
  };
  for (const Case& c : cases) {
    const std::string listing = Listing(c.settings);
    EXPECT_EQ(last_.status, 1) << c.settings << last_.out;
    for (const char* row : c.rows)
      EXPECT_NE(listing.find(row), std::string::npos) << c.settings << "\nmissing: " << row;
  }
}

TEST_F(GeneratedRows, TiersSolveOneAfterTheOther) {
  Listing("ZPM.IMODE = 6\nZPM.CV_TYPE = 2\nu.STATUS = 1\nu.TIER = 1\nv.STATUS = 1\n"
          "v.TIER = 2\nx.STATUS = 1\nx.SP = 1\nx.TIER = 1\n");
  EXPECT_EQ(last_.status, 1) << last_.out;
  const size_t first = last_.out.find("Tiered Optimization Cycle: 1");
  const size_t second = last_.out.find("Tiered Optimization Cycle: 2");
  EXPECT_NE(first, std::string::npos) << last_.out;
  EXPECT_NE(second, std::string::npos) << last_.out;
  EXPECT_LT(first, second);
}

}  // namespace
}  // namespace kx::driver
