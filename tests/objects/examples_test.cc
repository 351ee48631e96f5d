// The object examples run as their READMEs tell a user to run them, with the outcomes the
// READMEs state.
#include <gtest/gtest.h>

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
    double value;  // as the README rounds it
    double tol;
    int row = -1;  // the time point (row of the results); -1 for the last
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
      // The heater answers one sample late and settles at its gain.
      {"objects_arx",
       "heater",
       {{"outlet", 20, 1e-9, 5}, {"outlet", 21, 1e-9, 6}, {"outlet", 23.35, 1e-9, 7},
        {"outlet", 63.75, 0.01, 60}}},
  };
  for (const Case& c : kCases) {
    const testing::Run r = testing::RunModel(ExampleFiles(c.folder), c.app);
    ASSERT_EQ(r.status, 1) << r.out;
    for (const Outcome& o : c.outcomes) {
      ASSERT_GT(r.results.count(o.member), 0u) << c.folder << " " << o.member;
      const std::vector<double>& column = r.results.at(o.member);
      EXPECT_NEAR(o.row < 0 ? column.back() : r.At(o.member, o.row), o.value, o.tol)
          << c.folder << " " << o.member << " row " << o.row;
    }
  }
}

}  // namespace
}  // namespace kx::objects
