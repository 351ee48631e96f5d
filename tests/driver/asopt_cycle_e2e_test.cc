// The default solver as a user meets it: `kestrix app` in a directory with a model and an
// "asopt.opt", checked by the console lines and the objective the cycle writes. (The options
// reader and the branch-and-bound cases have their unit tests in tests/solvers.)
#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "driver/cycle_fixture.h"

namespace kx::driver {
namespace {

std::string Model(const std::string& variables, const std::string& equations) {
  return "Model app\n  Variables\n" + variables + "  End Variables\n  Equations\n" + equations +
         "  End Equations\nEnd Model\n";
}

size_t Count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

class AsoptCycle : public CycleTest {};

TEST_F(AsoptCycle, OptionsFileAndBranchAndBoundThroughTheProgram) {
  const std::string one_integer = "    int_x = 0, >= 0, <= 10\n";
  struct Case {
    const char* name;
    std::string model, options;
    double objective;                  // NaN: the solve is expected to fail
    std::vector<std::string> present;  // console text that must appear
    std::vector<std::string> absent;   // console text that must not
    size_t leaves;                     // "| MINLP Iter: " frames, 0 to skip the count
  };
  const double kFails = std::nan("");
  const Case cases[] = {
      {"capital name and trailing comment set the option",
       Model(one_integer, "    minimize (int_x-3)^2\n"), "MINLP_Print_Level 2 ! with steps\n", 0.0,
       {"* Step: Attempt NLP convergence\n", "Found integer solution on root node\n"},
       {"Unknown option", "Invalid syntax"}, 1},
      // With a negative integer tolerance no value counts as integer: every leaf branches on
      // the integral value 3 (the start is the optimum, so every leaf ends exactly there), and
      // x >= 3 then x <= 3 meets x <= 3 then x >= 3 in one leaf: 4 leaves in all.
      {"a leaf reached by two branch orders is solved once",
       Model("    int_x = 3, >= 0, <= 10\n", "    minimize (int_x-3)^2\n"), "minlp_integer_tol -1\n", kFails,
       {"The upper leaf of this branch is already in the list of potential or solved problems\n",
        "The lower leaf of this branch is already in the list of potential or solved problems\n",
        "Warning: no more possible trial points and no integer solution\n",
        "Unsuccessful with error code -1\n"},
       {}, 4},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove(dir_.File("app.dbs"));
    std::filesystem::remove(dir_.File("asopt.opt"));
    std::filesystem::remove(dir_.File("rto.t0"));
    Write("app.zpm", c.model);
    if (!c.options.empty()) Write("asopt.opt", c.options);
    const RunResult r = Run("app");
    for (const std::string& s : c.present) EXPECT_TRUE(r.Has(s)) << s << "\n" << r.out;
    for (const std::string& s : c.absent) EXPECT_FALSE(r.Has(s)) << s << "\n" << r.out;
    if (c.leaves > 0) {
      EXPECT_EQ(Count(r.out, "| MINLP Iter: "), c.leaves) << r.out;
    }
    if (std::isnan(c.objective)) continue;
    EXPECT_TRUE(r.Has("Successful solution\n")) << r.out;
    EXPECT_NEAR(DbsValue(Read("app.dbs"), "NLC.OBJFCNVAL"), c.objective, 1e-6) << r.out;
  }
}

}  // namespace
}  // namespace kx::driver
