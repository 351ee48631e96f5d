#include "objects/expander.h"

#include <gtest/gtest.h>

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

// Vectors of objects, members set by connections and a data file embedded in the model, as
// the builder makes them: golden case objects.

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
