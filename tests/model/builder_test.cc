#include "model/builder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <sstream>
#include <string>

#include "builder_testing.h"
#include "lang/lang_testing.h"
#include "model/checks.h"
#include "model/connections.h"

namespace kx::model {
namespace {

using testing::Build;
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

// Derivatives of a model equation built through the whole front end (reader, intermediates,
// time-derivative columns) against central finite differences. Every function and operator
// is checked the same way on the compiler's own tests.
TEST(BuilderDerivatives, IntermediatesAndTimeDerivativesChainThrough) {
  testing::ScratchDir dir;
  auto r = testing::Build(
      "Variables\nx = 0.7\ny = 1.3\n$x = 0.2\nEnd Variables\nIntermediates\n"
      "u = x*y\nv = exp(u) / y\nEnd Intermediates\nEquations\n$x * v = u^2 - y\nEnd Equations\n",
      dir);
  ASSERT_FALSE(r.stopped) << r.output;
  const Equation& q = r.store.eqns[0];
  ASSERT_EQ(q.columns.size(), 3u);  // x, y and dx/dt
  std::vector<double> in;
  GatherInputs(r.store, q.columns, &in);
  lang::testing::CheckDerivatives(r.store.programs[q.program], in, q.text);
  double u = 0.7 * 1.3;
  EXPECT_NEAR(q.residual, 0.2 * std::exp(u) / 1.3 - (u * u - 1.3), 1e-14);
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

// tests/models/twotanks.zpm, a model file written as a new user would write it (constants,
// vector ranges, parameters, intermediates, time derivatives, a continued two-sided inequality,
// an objective and connections), built through the file entry point at DIAGLEVEL 2. The
// initial residuals written to "model_init_res.txt" are checked against values worked out by
// hand.

// "Eqn(k) value   0 = expression" lines of model_init_res.txt, by equation number.
struct ResidualLine {
  double value = 0;
  std::string expression;
};

std::map<int, ResidualLine> ReadResiduals(const std::string& text) {
  std::map<int, ResidualLine> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("Eqn(", 0) != 0) continue;
    const size_t close = line.find(')');
    const size_t zero = line.find("   0 = ");
    ResidualLine r;
    r.value = std::stod(line.substr(close + 1, zero - close - 1));
    r.expression = line.substr(zero + 7);
    out[std::stoi(line.substr(4, close - 4))] = r;
  }
  return out;
}

TEST(BuilderUser, TwoTankModelWritesCorrectInitialResiduals) {
  testing::ScratchDir dir;
  const std::string path = std::string(KX_SOURCE_DIR) + "/tests/models/twotanks.zpm";
  BuildOptions o;
  o.diaglevel = 2;
  o.work_dir = dir.str();
  OutputCapture out;
  ModelStore s = BuildModel(path, o);

  EXPECT_TRUE(out.Contains("Parsing model file " + path + "\n"));
  EXPECT_TRUE(out.Contains("   Variables     :          9\n   Intermediates :          4\n"))
      << out.text();
  // hsp absorbed level_sp; the fixed mark reached hsp through the forward link.
  EXPECT_EQ(s.nvar, 8);
  const Variable& hsp = s.vars[testing::Find(s, "hsp")];
  EXPECT_TRUE(hsp.fixed);
  EXPECT_EQ(hsp.aliases, std::vector<std::string>{"level_sp"});
  EXPECT_EQ(s.ndiff, 2);
  EXPECT_EQ(s.num_diff_eqns, 2);
  EXPECT_EQ(s.num_obj_eqns, 1);
  const Variable& h1 = s.vars[testing::Find(s, "h[1]")];
  EXPECT_TRUE(h1.diff);
  EXPECT_EQ(h1.idiff, 1);
  EXPECT_EQ(h1.d_val, 0.05);
  const Variable& qin = s.vars[testing::Find(s, "qin")];
  EXPECT_TRUE(qin.fixed);
  EXPECT_EQ(qin.vtype, kVarParameter);
  // The first row reads dh[1]/dt as its own column.
  const Equation& e1 = s.eqns[0];
  EXPECT_TRUE(e1.differential);
  EXPECT_NE(std::find(e1.columns.begin(), e1.columns.end(), s.nvar + h1.number),
            e1.columns.end());
  // 0 <= h[1] + h[2] <= 30 is two rows.
  EXPECT_EQ(s.eqns[4].type, kGreater);
  EXPECT_EQ(s.eqns[5].type, kLess);
  EXPECT_TRUE(s.eqns[6].obj_eqn);

  // By hand: k = 0.1*sqrt(2*9.81), out = k*sqrt(1) = k.
  const double k = 0.1 * std::sqrt(2 * 9.81);
  const std::map<int, ResidualLine> res = ReadResiduals(dir.Read("model_init_res.txt"));
  ASSERT_EQ(res.size(), 7u) << dir.Read("model_init_res.txt");
  const double expected[] = {2 * 0.05 - (0.5 - 0.3), 2 * 0.0 - (0.3 - 0.3), 0.3 - k, 0.3 - k,
                             2.0 - 0, 2.0 - 30, (1.0 - 1.5) * (1.0 - 1.5)};
  for (int e = 1; e <= 7; ++e) {
    EXPECT_NEAR(res.at(e).value, expected[e - 1], 1e-14) << "Eqn(" << e << ")";
    EXPECT_NEAR(s.eqns[e - 1].residual, expected[e - 1], 1e-14) << "Eqn(" << e << ")";
  }
  EXPECT_EQ(res.at(1).expression, "(area[1]*$h[1])-(qin - q[1])");
  EXPECT_EQ(res.at(4).expression, "(q[2])-(out[2])");
  EXPECT_EQ(res.at(6).expression, "(h[1] + h[2])-(30)");
  EXPECT_EQ(res.at(7).expression, "(h[2] - hsp)^2");

  // Initial values: h[1] starts at 1 with dh/dt 0.05; the intermediates carry their values.
  const std::string values = dir.Read("model_init_values.txt");
  EXPECT_TRUE(testing::Has(values, fmt::format("{:>8} {:<40} {:>24.16e} {:>24.16e} {:>24.16e} {:>24.16e}",
                                      4, "h[1]", 1.0, 0.0, 10.0, 0.05)))
      << values;
  EXPECT_TRUE(testing::Has(values, fmt::format("{:>8} {:<40} {:>24.16e}", "", "out[2]", k))) << values;
  EXPECT_DOUBLE_EQ(s.intermediates[3].value, k);
  EXPECT_EQ(dir.Read("model_connections.txt"),
            "Connection # 1\nA: hsp\nB: level_sp\n\nConnection # 2\nA: level_sp\nB: fixed\n\n");
}

}  // namespace
}  // namespace kx::model
