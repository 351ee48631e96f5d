#include "model/builder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <unistd.h>

#include "model/checks.h"
#include "builder_testing.h"

namespace kx::model {
namespace {

using testing::Build;
using testing::Has;
using testing::ScratchDir;

TEST(Builder, TankModelAsANewUserWritesIt) {
  ScratchDir dir;
  OutputCapture out;
  BuildOptions o;
  o.diaglevel = 2;
  o.work_dir = dir.str();
  ModelStore s = BuildModel(std::string(KX_SOURCE_DIR) + "/tests/models/tank.zpm", o);
  std::string text = out.text();
  // Phases in order, then the total and the size report.
  size_t pos = 0;
  const std::string dashes(54, '-');
  for (const char* label :
       {"Parsing model file ", "Read model file (sec):", "Initialize constants (sec):",
        "Determine model size (sec):", "Allocate memory (sec):", "Parse and store model (sec):",
        "Error checking (sec):", "Compile equations (sec):",
        "Check for uninitialized intermediates (sec):", dashes.c_str(),
        "Total Parse Time (sec):", "--------- ZPM Model Size ------------",
        "Each time step contains"}) {
    size_t at = text.find(label, pos);
    ASSERT_NE(at, std::string::npos) << label << "\n" << text;
    pos = at;
  }
  EXPECT_TRUE(Has(text, "Equations     :          9"));
  EXPECT_TRUE(Has(text, "Residuals     :          9"));
  EXPECT_TRUE(Has(text, "Variables     :         12"));

  EXPECT_EQ(s.nvar, 12);
  EXPECT_EQ(s.ndiff, 3);
  EXPECT_EQ(s.eqns.size(), 10u);
  EXPECT_EQ(s.num_obj_eqns, 1);
  EXPECT_EQ(s.num_diff_eqns, 3);
  int h1 = testing::Find(s, "h[1]");
  ASSERT_GE(h1, 0);
  EXPECT_TRUE(s.vars[h1].diff);
  EXPECT_EQ(s.vars[h1].idiff, 1);
  EXPECT_EQ(s.vars[h1].d_val, 0.1);
  EXPECT_TRUE(s.vars[testing::Find(s, "level_sp")].fixed);
  EXPECT_TRUE(s.vars[testing::Find(s, "inflow")].fixed);
  EXPECT_EQ(s.vars[testing::Find(s, "inflow")].vtype, kVarParameter);
  // First equation: 2.5*$h[1] = inflow - kv[1]*sqrt(h[1]+0.01); its columns include dh1/dt.
  const Equation& e1 = s.eqns[0];
  EXPECT_TRUE(e1.differential);
  EXPECT_NE(std::find(e1.columns.begin(), e1.columns.end(), s.nvar + s.vars[h1].number),
            e1.columns.end());
  EXPECT_NEAR(e1.residual, 2.5 * 0.1 - (1.2 - 0.4 * std::sqrt(1.01)), 1e-14);
  // total = h1+h2+h3 (continued line) and 0 <= total <= 30 as two rows.
  EXPECT_NEAR(s.eqns[6].residual, 0 - 3, 1e-14);
  EXPECT_EQ(s.eqns[7].type, kGreater);
  EXPECT_EQ(s.eqns[8].type, kLess);
  EXPECT_TRUE(s.eqns[9].obj_eqn);
  EXPECT_NEAR(s.eqns[9].residual, 1.0, 1e-14);  // (h[3] - 2)^2 at h = 1
  EXPECT_NEAR(s.intermediates[0].value, std::sqrt(1.01), 1e-14);

  std::string res = dir.Read("model_init_res.txt");
  EXPECT_TRUE(Has(res, "Eqn(1) ")) << res;
  EXPECT_TRUE(Has(res, "0 = (area * $h[1])-(inflow - outflow[1])")) << res;
  EXPECT_TRUE(Has(dir.Read("model_init_values.txt"), "level_sp"));
  EXPECT_TRUE(Has(dir.Read("model_connections.txt"), "Connection # 1\nA: level_sp\nB: fixed"));
}

TEST(Builder, InitialFilesOnlyAtDiaglevelTwo) {
  ScratchDir dir;
  auto r = Build("Variables\nx = 1\nEnd Variables\nEquations\nx = 2\nEnd Equations\n", dir, 1);
  ASSERT_FALSE(r.stopped) << r.output;
  EXPECT_FALSE(dir.Has("model_init_res.txt"));
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

TEST(Builder, ChecksOnCompiledEquations) {
  struct Case {
    const char* body;  // Equations section
    bool stops;
    std::vector<const char*> messages;
  } cases[] = {
      {"x = 1\n2 = 3", true, {"ERROR: equation 2 has no variables", "eqn 2", "2 = 3", "stopping..."}},
      {"x = 1\nminimize 2*3", false,
       {"WARNING: objective equation 2 has no variables", "minimize 2*3"}},
      {"x = 1\nx = $q", true, {"Invalid element"}},
      {"x = 1\nx = undefined_name", true, {"Invalid element"}},
  };
  for (const auto& c : cases) {
    ScratchDir dir;
    auto r = Build(std::string("Variables\nx\nEnd Variables\nEquations\n") + c.body +
                       "\nEnd Equations\n",
                   dir);
    EXPECT_EQ(r.stopped, c.stops) << c.body << "\n" << r.output;
    for (const char* m : c.messages) EXPECT_TRUE(Has(r.output, m)) << m << "\n" << r.output;
  }
}

TEST(Builder, IntermediateOrderAndUninitializedValues) {
  ScratchDir dir;
  auto r = Build(
      "Variables\nx = 1\ny\nEnd Variables\nIntermediates\nb = a*2\na = x+1\nEnd Intermediates\n"
      "Equations\ny = x\ny = b\nEnd Equations\n",
      dir);
  ASSERT_TRUE(r.stopped);
  for (const char* m : {"Intermediate variable is out of order",
                        "  causing a non-zero sparsity element to be zero.",
                        "Intermediate variables that are a function of other",
                        "  intermediate variables must be listed after their dependencies.",
                        "Equation 2", "=> y = b", "Number of variable derivatives detected:",
                        "Regular Variable", "Intermediate Variable", "STOPPING..."}) {
    EXPECT_TRUE(Has(r.output, m)) << m << "\n" << r.output;
  }
  // Not used by any equation: caught when intermediates are evaluated.
  auto u = Build(
      "Variables\nx = 1\nEnd Variables\nIntermediates\nb = a*2\na = x+1\nEnd Intermediates\n"
      "Equations\nx = 2\nEnd Equations\n",
      dir);
  ASSERT_TRUE(u.stopped);
  EXPECT_TRUE(Has(u.output, "Line 5 value uninitialized in expression: b = a*2")) << u.output;
}

TEST(Builder, ModelSizeAndObjectsStop) {
  ScratchDir dir;
  auto r = Build("Variables\nx\nEnd Variables\n", dir);
  EXPECT_TRUE(r.stopped);
  EXPECT_TRUE(Has(r.output, "Model must contain at least 1 variable and 1 equation"));
  auto o = Build("Objects\np1 = pid\nEnd Objects\nVariables\nx\nEnd Variables\n"
                 "Equations\nx=1\nEnd Equations\n",
                 dir);
  EXPECT_TRUE(o.stopped);
  EXPECT_TRUE(Has(o.output, "Object p1 of type pid is not available yet")) << o.output;
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
  EXPECT_EQ(kActiveTolerance, 9.999999747378752e-06);
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
