// Every small test problem of the solver suite run as a user runs it: `kestrix app -ipopt` in
// a fresh directory must reach the known optimum, report it in the DBS file and leave a
// restart file from which the next cycle converges in fewer iterations.
#include <filesystem>
#include <fstream>
#include <sstream>

#include "driver/cycle_fixture.h"
#include "testing/nlp_suite.h"

namespace kx::driver {
namespace {

double DbsValue(const std::string& dbs, const std::string& key) {
  size_t at = dbs.find("\n" + key + " ");
  return at == std::string::npos ? -1e300 : std::stod(dbs.substr(at + key.size() + 2));
}

class SuiteCycle : public CycleTest, public ::testing::WithParamInterface<testing::SuiteEntry> {};

TEST_P(SuiteCycle, ReachesTheKnownOptimumAndRestartsWarm) {
  const testing::SuiteEntry& e = GetParam();
  std::ifstream in(e.path);
  std::stringstream text;
  text << in.rdbuf();
  Write("app.zpm", text.str());
  Write("overrides.dbs", "ZPM.RTOL = 1e-9\nZPM.MAX_ITER = 3000\n");
  RunResult r = Run("app -ipopt");
  ASSERT_EQ(r.status, 1) << r.out;
  std::string dbs = Read("app.dbs");
  EXPECT_LE(testing::RelativeError(DbsValue(dbs, "NLC.OBJFCNVAL"), e.optimum), 1e-6)
      << DbsValue(dbs, "NLC.OBJFCNVAL") << " vs " << e.optimum;
  EXPECT_EQ(DbsValue(dbs, "NLC.SOLVESTATUS"), 1);
  ASSERT_TRUE(Exists("rto.t0"));
  const double cold = DbsValue(dbs, "NLC.ITERATIONS");

  r = Run("app -ipopt");
  ASSERT_EQ(r.status, 1) << r.out;
  dbs = Read("app.dbs");
  EXPECT_LE(testing::RelativeError(DbsValue(dbs, "NLC.OBJFCNVAL"), e.optimum), 1e-6);
  EXPECT_LE(DbsValue(dbs, "NLC.ITERATIONS"), std::max(cold - 1, 1.0)) << "cold " << cold;
}

std::string Name(const ::testing::TestParamInfo<testing::SuiteEntry>& info) {
  std::string n = info.param.name;
  for (char& c : n)
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  return n;
}

INSTANTIATE_TEST_SUITE_P(Small, SuiteCycle, ::testing::ValuesIn(testing::NlpSuite(false)), Name);

}  // namespace
}  // namespace kx::driver
