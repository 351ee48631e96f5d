#include "model/builder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "builder_testing.h"
#include "model/checks.h"
#include "model/connections.h"

namespace kx::model {
namespace {

using testing::Build;
using testing::ScratchDir;

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
  ASSERT_FALSE(r.stopped) << r.output;  // the warning is the golden case builder
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

std::string WithConnections(const std::string& connections) {
  return "Parameters\np = 1\nEnd Parameters\nVariables\na = 1\nb = 2\nc = 3\nEnd Variables\n"
         "Equations\na + b + c = p\nb = 2*c\nEnd Equations\nConnections\n" +
         connections + "\nEnd Connections\n";
}

TEST(Connections, MergeForwardsAndListsAliases) {
  ScratchDir dir;
  auto r = Build(WithConnections("a = b\nc = a"), dir);
  ASSERT_FALSE(r.stopped) << r.output;
  const ModelStore& s = r.store;
  EXPECT_EQ(s.nvar, 2);  // p and the merged c
  // Side A survives: after `a = b` a holds b; after `c = a` c holds a and, through it, b.
  int ia = testing::Find(s, "a"), ib = testing::Find(s, "b"), ic = testing::Find(s, "c");
  EXPECT_EQ(s.vars[ic].aliases, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(s.vars[ib].forward, ia);
  EXPECT_EQ(s.vars[ia].forward, ic);
  EXPECT_EQ(ResolveForward(s, ib), ic);
  EXPECT_EQ(s.vars[ia].number, 0);
  EXPECT_EQ(s.vars[ib].number, 0);
  // Both equations now read the one surviving column.
  EXPECT_EQ(s.eqns[1].columns, std::vector<int>{s.vars[ic].number});
  EXPECT_EQ(s.eqns[1].residual, 3 - 2 * 3);  // model_connections.txt: golden case builder
}

TEST(Connections, ReverseConnectionLeavesOneVariable) {
  ScratchDir dir;
  auto r = Build(WithConnections("a = b\nb = a\nB = A"), dir);
  ASSERT_FALSE(r.stopped) << r.output;
  EXPECT_EQ(r.store.nvar, 3);
  EXPECT_EQ(r.store.vars[testing::Find(r.store, "a")].aliases, std::vector<std::string>{"b"});
}

TEST(Connections, MergedRecordKeepsTheFixedMarkOfSideA) {
  ScratchDir dir;
  for (const char* c : {"a = p", "p = a"}) {
    auto r = Build(WithConnections(c), dir);
    ASSERT_FALSE(r.stopped) << r.output;
    const int survivor = ResolveForward(r.store, testing::Find(r.store, "a"));
    EXPECT_EQ(r.store.vars[survivor].fixed, c[0] == 'p') << c;
  }
}

// An object member joined to a declared parameter is that parameter, whichever side it is on.
TEST(Connections, ObjectMemberJoinedToAParameterStaysFixed) {
  ScratchDir dir;
  for (const char* c : {"f.u = uin", "uin = f.u"}) {
    auto r = Build(std::string("Parameters\nuin = 2\nEnd Parameters\n") +
                            "Variables\ny = 0\nEnd Variables\nObjects\nf = lag\nEnd Objects\n" +
                            "Connections\n" + c + "\nf.y = y\nEnd Connections\n", dir);
    ASSERT_FALSE(r.stopped) << r.output;
    const Variable& u = r.store.vars[ResolveForward(r.store, testing::Find(r.store, "f.u"))];
    EXPECT_TRUE(u.fixed) << c;
    EXPECT_EQ(u.val, 2) << c;
  }
}

TEST(Connections, FixedCalculatedAndValues) {
  ScratchDir dir;
  auto r = Build(WithConnections("a = fixed\nb = 2.5\np = calculated\nb = fixed\nc = 1d1"), dir);
  ASSERT_FALSE(r.stopped) << r.output;
  const ModelStore& s = r.store;
  const Variable& a = s.vars[testing::Find(s, "a")];
  EXPECT_TRUE(a.fixed);
  EXPECT_EQ(a.val, 1);  // `fixed` leaves the value alone
  EXPECT_EQ(a.spec, kSpecFixed);
  const Variable& b = s.vars[testing::Find(s, "b")];
  EXPECT_EQ(b.val, 2.5);
  EXPECT_EQ(b.spec, kSpecFixed);  // the later `fixed` replaces the value code
  EXPECT_TRUE(b.fixed);
  const Variable& p = s.vars[testing::Find(s, "p")];
  EXPECT_FALSE(p.fixed);
  EXPECT_EQ(p.spec, kSpecCalculated);
  EXPECT_EQ(s.vars[testing::Find(s, "c")].val, 10);
  EXPECT_EQ(s.vars[testing::Find(s, "c")].spec, kSpecValue);
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
  EXPECT_EQ(s.vars[1].aliases, std::vector<std::string>{"x"});
  s.vars[2].aliases.assign(kMaxAliasSteps + 1, "w");
  OutputCapture out;
  EXPECT_THROW(MergeVariables(&s, 1, 2), Stop);
  EXPECT_TRUE(out.Contains("zpm_variable_connect - 2: POSSIBLE INFINITE LOOP"));
  s.vars[1].aliases.assign(kMaxAliasSteps + 1, "w");  // the survivor's own list
  EXPECT_THROW(MergeVariables(&s, 1, 2), Stop);
  EXPECT_TRUE(out.Contains("zpm_variable_connect - 1: POSSIBLE INFINITE LOOP"));
}

// A parameter is a runtime value: a domain fault it causes at the starting point is counted
// like one caused by a variable, whatever the expression simplifies to (a shared
// subexpression such as log(p) is evaluated, and counted, once).
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
    held += v.aliases.capacity();
    survivors += v.forward < 0;
  }
  EXPECT_EQ(survivors, 1u);
  EXPECT_LE(held, 2 * 1999u);
}

}  // namespace
}  // namespace kx::model
