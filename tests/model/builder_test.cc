#include "model/builder.h"

#include <gtest/gtest.h>

#include <cmath>

#include "model/checks.h"
#include "builder_testing.h"

namespace kx::model {
namespace {

using testing::Build;
using testing::Has;
using testing::ScratchDir;

TEST(Builder, InitialFilesOnlyAtDiaglevelTwo) {
  ScratchDir dir;
  auto r = Build("Variables\nx = 1\nEnd Variables\nEquations\nx = 2\nEnd Equations\n", dir, 1);
  ASSERT_FALSE(r.stopped) << r.output;
  EXPECT_FALSE(dir.Exists("model_init_res.txt"));
  EXPECT_EQ(r.store.eqns[0].residual, -1);
}

TEST(Builder, SteadyModelValuesAndObjective) {
  ScratchDir dir;
  OutputCapture out;
  BuildOptions o;
  o.work_dir = dir.str();
  ModelStore s = BuildModel(std::string(KX_SOURCE_DIR) + "/tests/models/steady.zpm", o);
  ASSERT_EQ(s.eqns.size(), 4u);
  EXPECT_NEAR(s.eqns[0].residual, 1 * 2 - 3, 1e-15);
  double t = (1 + 2) * 0.5;
  EXPECT_NEAR(s.eqns[1].residual, t + std::exp(0.5) - std::log(2.0) - 2 * M_PI, 1e-13);
  EXPECT_NEAR(s.eqns[2].residual, 4.5 - 3, 1e-15);  // w = 4.5 from the connection
  EXPECT_EQ(s.vars[testing::Find(s, "w")].spec, kSpecValue);
  EXPECT_TRUE(s.eqns[3].obj_eqn);
  EXPECT_NEAR(s.eqns[3].residual, -0.5, 1e-15);  // maximize z is minimize -(z)
  EXPECT_EQ(s.intermediates[1].value, t);
}

TEST(Builder, BoundRepairAndPrefixFlags) {
  ScratchDir dir;
  auto r = Build("Variables\nx = 4, >= 5, <= 3\nobj_cost\nint_n\nEnd Variables\n"
                 "Equations\nx = obj_cost + int_n\nEnd Equations\n",
                 dir);
  ASSERT_FALSE(r.stopped) << r.output;
  EXPECT_TRUE(Has(r.output, "WARNING: lower bound > upper bound\nACTION: set lower = upper\n"
                            "VARIABLE: x"));
  const Variable& x = r.store.vars[0];
  EXPECT_EQ(x.lower, 3);
  EXPECT_EQ(x.upper, 3);
  EXPECT_TRUE(r.store.vars[1].obj_def);
  EXPECT_TRUE(r.store.vars[2].integer);
  EXPECT_EQ(r.store.num_integer, 1);
  EXPECT_NO_THROW(CheckIntegerCount(r.store, 1));
  OutputCapture out;
  EXPECT_THROW(CheckIntegerCount(r.store, 2), Stop);
  EXPECT_TRUE(out.Contains("Error: mismatch in number of integer values\nNI: 2\n Actual: 1"));
}

TEST(Checks, ForwardChainsResolveUpTo9999Steps) {
  ModelStore s;
  s.vars.resize(10001);
  for (int i = 0; i < 9999; ++i) s.vars[i].forward = i + 1;
  EXPECT_EQ(ResolveForward(s, 0), 9999);
  s.vars[9999].forward = 10000;
  OutputCapture out;
  EXPECT_THROW(ResolveForward(s, 0), Stop);
  EXPECT_TRUE(out.Contains("zpm_check_forwarding: POSSIBLE INFINITE LOOP"));
  // A cycle is stopped by the same guard rather than walked forever.
  ModelStore c;
  c.vars.resize(2);
  c.vars[0].forward = 1;
  c.vars[1].forward = 0;
  EXPECT_THROW(ResolveForward(c, 0), Stop);
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

}  // namespace
}  // namespace kx::model
