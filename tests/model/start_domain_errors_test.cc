// A parameter is a runtime value: a domain fault it causes at the starting point is counted
// like one caused by a variable, whatever the expression simplifies to (a shared
// subexpression such as log(p) is evaluated, and counted, once).
#include <gtest/gtest.h>

#include "builder_testing.h"
#include "model/builder.h"

namespace kx::model {
namespace {

using testing::Build;
using testing::ScratchDir;

TEST(StartDomainErrors, ParametersAreNotFoldedAway) {
  struct Case {
    const char* p;         // parameter value
    const char* equation;  // over the parameter p and the variable x
    long divide_by_zero, log_negative;
  };
  const Case cases[] = {
      {"0", "x = 0/p", 1, 0},        {"2", "x = 0/p", 0, 0},
      {"0", "x = 0*(1/p) + 1", 1, 0}, {"0", "x = (log(p) - log(p)) + 1", 0, 1},
      {"0", "x = 0/x + p", 1, 0},     {"0", "x = p*0 + 1", 0, 0},
  };
  for (const Case& c : cases) {
    ScratchDir dir;
    auto r = Build(std::string("Parameters\np = ") + c.p + "\nEnd Parameters\nVariables\nx = 0\n"
                       "End Variables\nEquations\n" + c.equation + "\nEnd Equations\n",
                   dir);
    ASSERT_FALSE(r.stopped) << r.output;
    EXPECT_EQ(r.store.start_errors.divide_by_zero, c.divide_by_zero) << c.equation << " p=" << c.p;
    EXPECT_EQ(r.store.start_errors.log_negative, c.log_negative) << c.equation << " p=" << c.p;
  }
}

}  // namespace
}  // namespace kx::model
