#include "objects/expander.h"

#include <gtest/gtest.h>

#include "base/report.h"
#include "model/builder.h"
#include "objects/objects_doc.h"
#include "objects_testing.h"

namespace kx::objects {
namespace {

using kx::testing::ScratchDir;

std::vector<std::string> Statements(const ObjectStatements& s) {
  std::vector<std::string> out;
  for (const auto* part :
       {&s.parameters, &s.variables, &s.intermediates, &s.equations, &s.connections}) {
    for (const lang::Statement& st : *part) out.push_back(st.text);
  }
  return out;
}

// Members and equations with qualified names; matrix rows skip zeros and keep signs.
TEST(Expander, WritesMembersAndEquations) {
  struct Case {
    const char* type_text;
    std::vector<std::string> expected;
  };
  const Case kCases[] = {
      {"lag(tau=2.5, k=-3)",
       {"s.tau = 2.5", "s.k = -3", "s.u", "s.y", "s.tau*$s.y = s.k*s.u - s.y"}},
      {"lti(a.csv, b.csv, c.csv)",
       {"s.x[1:2] = 0", "s.u[1:1] = 0", "s.y[1:1] = 0", "$s.x[1] = (1*s.x[2]) + 0",
        "$s.x[2] = (-2*s.x[1] - 0.5*s.x[2]) + (1*s.u[1])", "s.y[1] = (1*s.x[1]) + 0"}},
  };
  ScratchDir dir;
  dir.Write("a.csv", "0, 1\n-2, -0.5\n");
  dir.Write("b.csv", "0\n1\n");
  dir.Write("c.csv", "1 0\n");
  for (const Case& c : kCases) {
    ObjectInstance o = testing::Prepare(c.type_text, dir.str());
    EXPECT_EQ(Statements(WriteStatements(o, *FindObjectType(o.type))), c.expected);
  }
}

// Vectors of objects, members set by connections, and a data file embedded in the model.
TEST(Expander, VectorsOfObjectsAndMembersReachTheModel) {
  ScratchDir dir;
  const std::string text =
      "Constants\n n = 3\nEnd Constants\nFile pts.csv\nx, y\n0, 0\n2, 4\nEnd File\n"
      "Objects\n p[1:n] = lag(tau=2)\n t = sum(n)\n a = abs(integer=1)\n w = pwl(pts.csv)\n"
      "End Objects\n"
      "Variables\n z = 1\nEnd Variables\n"
      "Equations\n p[1:3].u = z\n t.x[1:3] = p[1:3].y\n a.x = t.y - 1\n z = 1\n w.x = 1\n"
      "End Equations\n"
      "Connections\n p[2].tau = 4\nEnd Connections\n";
  OutputCapture capture;
  model::ModelStore store = model::BuildModelFromText(text, {.work_dir = dir.str()});
  EXPECT_NE(capture.text().find("Objects       :          6"), std::string::npos) << capture.text();
  std::map<std::string, const model::Variable*> by_name;
  for (const model::Variable& v : store.vars) by_name[v.name] = &v;
  for (const char* name : {"p[1].y", "p[3].tau", "t.x[3]", "t.y", "a.int_b", "a.big", "w.y"})
    EXPECT_EQ(by_name.count(name), 1u) << name;
  EXPECT_TRUE(by_name["a.int_b"]->integer);
  EXPECT_FALSE(by_name["a.xp"]->integer);
  EXPECT_EQ(by_name["p[1].tau"]->val, 2);
  EXPECT_EQ(by_name["p[2].tau"]->val, 4);  // the connection sets the value
  EXPECT_EQ(by_name["p[3].tau"]->units(), "s");
  EXPECT_EQ(by_name["t.x[2]"]->units(), "");
  EXPECT_EQ(store.objects.size(), 6u);
}

// The parts of the table format no library object uses yet: intermediates, members and rows
// per compound, {obj}, table elements and connection lines.
TEST(Expander, IntermediatesCompoundsAndConnectionsOfATableEntry) {
  using K = MemberKind;
  const ObjectType type = {.keywords = {"feed"},
                           .family = "Test",
                           .summary = "test entry",
                           .arguments = {{"mw", ArgKind::kFile, nullptr, "molar masses"}},
                           .members = {{"n", K::kVariable, "nc", "1", "0"},
                                       {"total", K::kIntermediate, "", "n[1] + n[{nc}]"},
                                       {"mass", K::kVariable, "nc", "0"}},
                           .equations = {{"mass[{i}] = {mw[i,1]}*n[{i}]", "nc"}},
                           .connections = {{"{obj}.n[1] = x"}}};
  ScratchDir dir;
  dir.Write("mw.csv", "18.015\n-2.5\n");
  lang::ObjectDeclText decl{"s1", "feed", "mw.csv", 4};
  auto evaluate = [](std::string_view t) { return *ParseNumber(t); };
  const ObjectInstance o = MakeInstance(decl, type, {"water", "x2"}, evaluate, dir.str());
  const ObjectStatements st = WriteStatements(o, type);
  const std::vector<std::string> expected = {
      "s1.n[1:2] = 1, >= 0",          "s1.mass[1:2] = 0",
      "s1.total = s1.n[1] + s1.n[2]", "s1.mass[1] = 18.015*s1.n[1]",
      "s1.mass[2] = (-2.5)*s1.n[2]",  "s1.n[1] = x"};
  EXPECT_EQ(Statements(st), expected);
  ASSERT_EQ(st.connections.size(), 1u);
  EXPECT_EQ(st.connections[0].line, 4);
}

constexpr const char* kPage = KX_SOURCE_DIR "/docs/objects.md";

// The committed page must be what the tables generate; rerun with KX_UPDATE_DOCS=1 to
// regenerate it after changing a table.
TEST(ObjectsDoc, CommittedPageMatchesTheTables) {
  const std::string generated = RenderObjectsMarkdown();
  if (std::getenv("KX_UPDATE_DOCS") != nullptr) std::ofstream(kPage) << generated;
  EXPECT_EQ(kx::testing::ReadFile(kPage), generated)
      << "docs/objects.md drifted from the object tables; rerun with KX_UPDATE_DOCS=1";
}

TEST(ObjectsDoc, EveryTypeKeywordWithAnEntryIsKnownToTheReader) {
  const std::string page = RenderObjectsMarkdown();
  for (const ObjectType* t : ObjectTypes()) {
    for (const char* k : t->keywords) {
      bool listed = false;
      for (std::string_view w : lang::ObjectTypeKeywords()) listed = listed || w == k;
      EXPECT_TRUE(listed) << k;
      EXPECT_NE(page.find(std::string("`") + k + "`"), std::string::npos) << k;
    }
  }
}

}  // namespace
}  // namespace kx::objects
