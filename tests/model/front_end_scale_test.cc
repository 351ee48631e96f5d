// The front end stays linear in model size: an intermediate's value program holds its own
// expression only, reading the intermediates it names as inputs, so a chain of n
// intermediates compiles to O(n) instructions (inlining every dependency gave O(n^2)).
#include <gtest/gtest.h>

#include <string>

#include "builder_testing.h"
#include "model/builder.h"

namespace kx::model {
namespace {

using testing::Build;
using testing::ScratchDir;

std::string Chain(int n, const std::string& first) {
  return "Parameters\np = 0\nEnd Parameters\nVariables\nx = 2\nEnd Variables\n"
         "Intermediates\ns[1] = " + first + "\ns[2:" + std::to_string(n) + "] = s[1:" +
         std::to_string(n - 1) + "] + 1\nEnd Intermediates\nEquations\nx = s[" +
         std::to_string(n) + "]\nEnd Equations\n";
}

long ValueInstructions(const ModelStore& s) {
  long total = 0;
  for (const Intermediate& m : s.intermediates) total += s.programs[m.program].work_size();
  return total;
}

TEST(FrontEndScale, ChainOfIntermediatesCompilesToLinearSize) {
  ScratchDir dir;
  auto small = Build(Chain(200, "x"), dir);
  auto large = Build(Chain(2000, "x"), dir);
  ASSERT_FALSE(small.stopped || large.stopped) << small.output << large.output;
  // Ten times the chain, ten times the code (quadratic growth would give a hundred).
  const double ratio =
      static_cast<double>(ValueInstructions(large.store)) / ValueInstructions(small.store);
  EXPECT_LT(ratio, 11.0);
  EXPECT_GT(ratio, 9.0);
  for (int k : {0, 1, 999, 1999}) {
    EXPECT_EQ(large.store.intermediates[k].value, 2.0 + k) << k;
    EXPECT_LE(large.store.intermediates[k].columns.size(), 1u);
  }
  EXPECT_EQ(large.store.intermediates[0].columns, (std::vector<int>{1 + 1}));  // x after p
  EXPECT_EQ(large.store.intermediates[5].columns, (std::vector<int>{-5}));     // s[5]
  EXPECT_EQ(large.store.eqns[0].residual, 2.0 - (2.0 + 1999));
}

// A fault at the head of the chain is counted where it happens, once, and once more by the
// one equation that inlines the chain; not once per intermediate.
TEST(FrontEndScale, FaultAtTheHeadOfAChainCountsOncePerProgram) {
  ScratchDir dir;
  auto r = Build(Chain(500, "1/p"), dir);
  ASSERT_FALSE(r.stopped) << r.output;
  EXPECT_EQ(r.store.start_errors.divide_by_zero, 2);
}

// Along a chain of connections every merge moves the alias list on to the survivor; the
// absorbed records keep no storage, so memory stays linear in the chain (it was quadratic).
TEST(FrontEndScale, ConnectionChainKeepsOneAliasList) {
  ScratchDir dir;
  auto r = Build("Variables\nx[1:2000] = 1\nEnd Variables\nConnections\n"
                 "x[2:2000] = x[1:1999]\nEnd Connections\nEquations\nx[1] = 2\nEnd Equations\n",
                 dir);
  ASSERT_FALSE(r.stopped) << r.output;
  size_t held = 0, survivors = 0;
  for (const Variable& v : r.store.vars) {
    held += v.aliases.capacity();
    survivors += v.forward < 0;
  }
  EXPECT_EQ(survivors, 1u);
  EXPECT_LE(held, 2 * 1999u);
}

}  // namespace
}  // namespace kx::model
