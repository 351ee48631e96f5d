#include "solvers/status.h"

#include <gtest/gtest.h>

namespace kx::solvers {
namespace {

TEST(StatusTest, WordsAndOutcomesFollowTheCodeTable) {
  struct Case {
    int code;
    const char* word;
    const char* outcome;
  };
  const Case cases[] = {
      {0, "SUCCESS", "Successful solution"},
      {-1, "NOFEASLN", "No feasible solution"},
      {-9, "MAXITER", "Maximum iterations"},
      {-11, "MAXACCY", "Requested accuracy unachievable"},
      {-13, "SYSTEMERR", "System error"},
      {-14, "", "Unsuccessful"},
      {1, "", "Unsuccessful"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(StatusWord(c.code), c.word) << c.code;
    EXPECT_EQ(OutcomeText(c.code), c.outcome) << c.code;
  }
}

}  // namespace
}  // namespace kx::solvers
