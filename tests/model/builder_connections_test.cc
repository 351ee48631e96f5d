#include <gtest/gtest.h>

#include "builder_testing.h"
#include "model/checks.h"
#include "model/connections.h"

namespace kx::model {
namespace {

using testing::Build;
using testing::Has;
using testing::ScratchDir;

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
  EXPECT_EQ(s.eqns[1].residual, 3 - 2 * 3);
  EXPECT_EQ(dir.Read("model_connections.txt"),
            "Connection # 1\nA: a\nB: b\n\nConnection # 2\nA: c\nB: a\n\n");
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

TEST(Connections, UnknownNameWritesValidNamesAndStops) {
  ScratchDir dir;
  auto r = Build(WithConnections("a = nowhere"), dir);
  ASSERT_TRUE(r.stopped);
  EXPECT_EQ(dir.Read("connect_error.t0"), "p\na\nb\nc\n");
  auto f = Build(WithConnections("nowhere = fixed"), dir);
  EXPECT_TRUE(f.stopped);
  EXPECT_TRUE(Has(f.output, "unable to locate variable"));
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

}  // namespace
}  // namespace kx::model
