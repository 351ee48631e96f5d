// The object examples run as their READMEs tell a user to run them, with the outcomes the
// READMEs state.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

#include "objects_testing.h"

namespace kx::objects {
namespace {

// Every file of examples/FOLDER but its README.
std::map<std::string, std::string> ExampleFiles(const std::string& folder) {
  std::map<std::string, std::string> files;
  for (const auto& entry :
       std::filesystem::directory_iterator(std::string(KX_SOURCE_DIR) + "/examples/" + folder)) {
    const std::string name = entry.path().filename().string();
    if (name != "README.md") files[name] = kx::testing::ReadFile(entry.path());
  }
  return files;
}

TEST(ObjectExamples, OutcomesAreAsDocumented) {
  struct Outcome {
    const char* member;
    double value;  // as the README rounds it, at the last time point
    double tol;
  };
  struct Case {
    const char* folder;
    const char* app;
    std::vector<Outcome> outcomes;
  };
  const Case kCases[] = {
      // 0.756 = 0.72 + (0.78 - 0.72) * 9/15
      {"objects_math",
       "fit",
       {{"flow", 39, 1e-6},
        {"head.y", 41.97, 0.005},
        {"pump.y[1]", 0.756, 1e-6},
        {"power", 5.90, 0.005}}},
      {"flowsheet_flash", "flowsheet", {{"drum.t", 372.41, 0.01}, {"heat.q", 68.38, 0.01}}},
      {"flowsheet_column", "column", {{"t2.t", 372.71, 0.01}, {"t3.x[1]", 0.196, 0.001}}},
      {"flowsheet_tank", "tank", {{"tk.level", 4.756, 0.001}, {"tk.t", 322.50, 0.01}}},
  };
  for (const Case& c : kCases) {
    const testing::Run r = testing::RunModel(ExampleFiles(c.folder), c.app);
    ASSERT_EQ(r.status, 1) << r.out;
    for (const Outcome& o : c.outcomes) {
      ASSERT_GT(r.results.count(o.member), 0u) << c.folder << " " << o.member;
      EXPECT_NEAR(r.results.at(o.member).back(), o.value, o.tol) << c.folder << " " << o.member;
    }
  }
}

TEST(ObjectExamples, PidLevelLoopClampsAndSettles) {
  const testing::Run r = testing::RunModel(ExampleFiles("objects_pid"), "tank");
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
  std::map<std::string, std::string> files = ExampleFiles("objects_pid");
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
