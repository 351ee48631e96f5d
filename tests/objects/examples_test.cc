// The object examples run as their READMEs tell a user to run them, with the outcomes the
// READMEs state.
#include <gtest/gtest.h>

#include <cmath>

#include "objects_testing.h"

namespace kx::objects {
namespace {

std::map<std::string, std::string> ExampleFiles(const std::string& folder,
                                                std::initializer_list<const char*> names) {
  std::map<std::string, std::string> files;
  for (const char* n : names)
    files[n] = kx::testing::ReadFile(std::string(KX_SOURCE_DIR) + "/examples/" + folder + "/" + n);
  return files;
}

TEST(ObjectExamples, PumpOperatingPoint) {
  const testing::Run r = testing::RunModel(
      ExampleFiles("objects_math", {"fit.zpm", "fit.dbs", "head.csv", "eff.csv"}), "fit");
  ASSERT_EQ(r.status, 1) << r.out;
  EXPECT_NEAR(r.At("flow"), 39, 1e-6);
  EXPECT_NEAR(r.At("head.y"), 41.97, 0.005);
  EXPECT_NEAR(r.At("pump.y[1]"), 0.756, 1e-6);  // 0.72 + (0.78 - 0.72) * 9/15
  EXPECT_NEAR(r.At("power"), 5.90, 0.005);
}

TEST(ObjectExamples, PidLevelLoopClampsAndSettles) {
  const testing::Run r =
      testing::RunModel(ExampleFiles("objects_pid", {"tank.zpm", "tank.dbs", "tank.csv"}), "tank");
  ASSERT_EQ(r.status, 1) << r.out;
  const std::vector<double>& time = r.results.at("time");
  double highest = 0, top_op_u = 0;
  for (size_t k = 0; k < time.size(); ++k) {
    highest = std::max(highest, r.At("inflow", k));
    top_op_u = std::max(top_op_u, r.At("lc.op_u", k));
    EXPECT_NEAR(r.At("lc.pv", k), r.At("level", k), 1e-12);  // one variable, two names
  }
  EXPECT_NEAR(highest, 2, 1e-6);  // clamped at op_hi
  EXPECT_GT(top_op_u, 2.5);       // while the unclamped output was above it
  EXPECT_NEAR(r.At("level", time.size() - 1), 1.5, 2e-3);
}

// Object members are classified in APP.info and written to the DBS file like any variable.
TEST(ObjectExamples, MembersAreClassifiedAndWrittenToTheDbsFile) {
  std::map<std::string, std::string> files =
      ExampleFiles("objects_pid", {"tank.zpm", "tank.dbs", "tank.csv"});
  files["tank.info"] = "FV, lc.kc\nSV, lc.op\nCV, level\n";
  kx::testing::ScratchDir dir("kx_objects");
  for (const auto& [name, text] : files) dir.Write(name, text);
  const std::string cmd = "cd '" + dir.str() + "' && '" KX_BINARY "' tank > /dev/null 2>&1";
  ASSERT_EQ(std::system(cmd.c_str()) >> 8, 1);
  const std::string dbs = dir.Read("tank.dbs");
  EXPECT_NE(dbs.find("lc.kc.NEWVAL 5\n"), std::string::npos) << dbs;
  const size_t at = dbs.find("\nlc.op.MODEL ");
  ASSERT_NE(at, std::string::npos) << dbs;
  EXPECT_NEAR(std::stod(dbs.substr(at + 13)), 0.7, 1e-9);  // the inflow at the start
}

}  // namespace
}  // namespace kx::objects
