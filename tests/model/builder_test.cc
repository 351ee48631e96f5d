#include "model/builder.h"

#include <gtest/gtest.h>

#include <string>

#include "builder_testing.h"
#include "model/checks.h"
#include "model/connections.h"

namespace kx::model {
namespace {

using testing::Build;
using testing::ScratchDir;

// What the builder makes of values, bounds, name prefixes, connections and domain faults at
// the start is the golden case builder (records).
TEST(Checks, IntegerCountMustMatchTheIntMarks) {
  ScratchDir dir;
  auto r = Build("Variables\nint_n\nx\nEnd Variables\nEquations\nx = int_n\nEnd Equations\n", dir);
  ASSERT_FALSE(r.stopped) << r.output;
  EXPECT_EQ(r.store.num_integer, 1);
  EXPECT_NO_THROW(CheckIntegerCount(r.store, 1));
  OutputCapture out;
  EXPECT_THROW(CheckIntegerCount(r.store, 2), Stop);
  EXPECT_TRUE(out.Contains("Error: mismatch in number of integer values\nNI: 2\n Actual: 1"));
}

TEST(Checks, ActiveMarks) {
  struct Case {
    double val, lower, upper;
    char mark;
  } cases[] = {{1.0, 1.0 + 9e-6, 5.0, 'L'},   {1.0, 1.0 - 2e-5, 5.0, ' '},
               {5.0 - 9e-6, 0.0, 5.0, 'U'},   {2.0, 2.0, 2.0 + 9e-6, 'C'},
               {2.0, -1e20, 1e20, ' '},       {3.0, 3.0, 3.0, 'C'}};
  for (const auto& c : cases) {
    Variable v;
    v.val = c.val;
    v.lower = c.lower;
    v.upper = c.upper;
    EXPECT_EQ(ActiveMark(v), c.mark) << c.val << " " << c.lower << " " << c.upper;
  }
}

TEST(Checks, DifferentialVariableIsFixedOnlyAtTheFirstNode) {
  Variable v;
  v.name = "h";
  v.diff = true;
  v.number_n = 1;
  v.number_h = 1;
  FixVariable(&v);
  EXPECT_TRUE(v.fixed);
  v.fixed = false;
  v.number_n = 2;
  OutputCapture out;
  EXPECT_THROW(FixVariable(&v), Stop);
  EXPECT_TRUE(out.Contains("Error in CONSTANT_SETUP: differential variable cannot be fixed: h"));
  Variable a;
  a.number_n = 3;
  FixVariable(&a);  // algebraic variables are fixed at any node
  EXPECT_TRUE(a.fixed);
}

TEST(Connections, MergePrefersMarkedRecordsAndGuardsAliasLists) {
  ModelStore s;
  s.vars.resize(3);
  s.vars[0].name = "x";
  s.vars[1].name = "y";
  s.vars[1].preferred = true;
  s.vars[2].name = "z";
  EXPECT_EQ(MergeVariables(&s, 0, 1), 1);  // only y carries the mark
  EXPECT_EQ(s.vars[0].forward, 1);
  EXPECT_EQ(MergeVariables(&s, 0, 1), 1);  // already one record
  EXPECT_EQ(s.vars[1].aliases(), std::vector<std::string>{"x"});
  s.vars[2].notes.mutable_value().aliases.assign(kMaxAliasSteps + 1, "w");
  OutputCapture out;
  EXPECT_THROW(MergeVariables(&s, 1, 2), Stop);
  EXPECT_TRUE(out.Contains("zpm_variable_connect - 2: POSSIBLE INFINITE LOOP"));
  // The survivor's own list.
  s.vars[1].notes.mutable_value().aliases.assign(kMaxAliasSteps + 1, "w");
  EXPECT_THROW(MergeVariables(&s, 1, 2), Stop);
  EXPECT_TRUE(out.Contains("zpm_variable_connect - 1: POSSIBLE INFINITE LOOP"));
}

// The front end stays linear in model size: an intermediate's value program holds its own
// expression only, reading the intermediates it names as inputs, so a chain of n
// intermediates compiles to O(n) instructions (inlining every dependency gave O(n^2)).
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
    held += v.aliases().capacity();
    survivors += v.forward < 0;
  }
  EXPECT_EQ(survivors, 1u);
  EXPECT_LE(held, 2 * 1999u);
}

}  // namespace
}  // namespace kx::model
