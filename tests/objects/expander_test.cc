#include "objects/expander.h"

#include <gtest/gtest.h>

#include "base/report.h"
#include "model/builder.h"
#include "objects/objects_doc.h"
#include "objects_testing.h"
#include "testing/stop_lines.h"

namespace kx::objects {
namespace {

using kx::testing::ScratchDir;

std::string Joined(const std::vector<std::string>& lines) {
  std::string out;
  for (const std::string& l : lines) out += l + "\n";
  return out;
}

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
  EXPECT_EQ(by_name["p[3].tau"]->units, "s");
  EXPECT_EQ(by_name["t.x[2]"]->units, "");
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

// Every bad declaration stops with a message that names the object and its line.
TEST(Expander, BadInputStopsWithAMessageNamingTheLine) {
  struct Case {
    const char* declaration;
    const char* message;
    const char* equation = "";   // one more after v = 1
    const char* compounds = "";  // the compounds of the model
  };
  const Case kCases[] = {
      {"f = lag(tua=2)", "Object f (lag, line 2): unknown argument tua; lag takes: tau, k"},
      {"f = lag(2)", "lag takes 0 positional arguments (none), 1 given"},
      {"a = abs(1, 2)", "abs takes 1 positional argument (integer), 2 given"},
      {"a = abs(,)", "an argument is empty: ,"},
      {"a.b = lag", "an object name cannot contain '.'"},
      {"f = lag\n f = pid", "Object f (pid, line 3): already declared on line 2"},
      {"p[1:2] = lag\n p[2] = lag", "Object p[2] (lag, line 3): already declared on line 2"},
      {"f = lag(tau=1, tau=2)", "argument tau is given twice"},
      {"f = lag(tau=)", "argument tau has no value"},
      {"f = lag(tau=nosuch)", "Unknown constant: nosuch"},
      {"s = sum", "Object s (sum, line 2): argument n is missing"},
      {"s = sum(2.5)", "argument n = 2.5 must be a whole number"},
      {"s = sum(0)", "size n = 0 must be a whole number of at least 1"},
      {"s = cspline(missing.csv)", "Error: File missing.csv not available."},
      {"s = cspline(flat.csv)",
       "the x values in flat.csv must increase: point 3 (x = 1) follows x = 1"},
      {"s = cspline(bad.csv)", "file bad.csv line 3: \"x7\" is not a number"},
      {"s = cspline(ragged.csv)", "file ragged.csv line 2: 3 numbers where the rows above have 2"},
      {"s = cspline(one.csv)", "needs at least 2 points"},
      {"s = cspline(k.csv, v.csv)", "k.csv holds 3 knots but v.csv holds 2 values"},
      {"s = pwl(ragged.csv)", "ragged.csv line 2"},
      {"s = axb(a.csv, v.csv)", "A (a.csv) has 3 rows but b (v.csv) has 2 values"},
      {"s = lti(v.csv, a.csv, a.csv)", "A (v.csv) is 2 x 1, not square"},
      {"s = qobj(v.csv)", "Q (v.csv) is 2 x 1, not square"},
      {"c = pid(kc=0)", "kc must not be 0"},
      {"c = pid(op_lo=5, op_hi=1)", "op_lo must be below op_hi"},
      {"x = nosuchtype", "Lookup Object: nosuchtype\nline number: 2"},
      {"x = lag(tau=1", "Problem with object input:"},
      {"f = lag", "Invalid element: f.yy", " f.yy = 2\n"},
      {"f = lag", "line number: 9\nMembers of object f: tau, k, u, y", " f.yy = 2\n"},
      {"fl = flash",
       "Object fl (flash, line 2): needs the compounds of the model: list them in a Compounds "
       "section"},
      {"fl = flash(spec=3)", "Object fl (flash, line 5): spec must be 0, 1 or 2", "", "water"},
      {"fl = flash", "Object fl (flash, line 5): compound 'unobtainium' is not in the data bank",
       "", "benzene, unobtainium"},
  };
  ScratchDir dir;
  dir.Write("flat.csv", "x, y\n0, 1\n1, 2\n1, 3\n");
  dir.Write("bad.csv", "0 1\n1 2\nx7 3\n");
  dir.Write("ragged.csv", "0, 1\n1, 2, 3\n");
  dir.Write("one.csv", "0, 1\n");
  dir.Write("k.csv", "0\n1\n2\n");
  dir.Write("v.csv", "5\n6\n");
  dir.Write("a.csv", "1 0 0\n0 1 0\n0 0 1\n");
  for (const Case& c : kCases) {
    const std::string text =
        (*c.compounds ? "Compounds\n " + std::string(c.compounds) + "\nEnd Compounds\n"
                      : std::string()) +
        "Objects\n" + c.declaration +
        "\nEnd Objects\nVariables\n v\nEnd Variables\nEquations\n v = 1\n" + c.equation +
        "End Equations\n";
    std::vector<std::string> lines =
        kx::testing::StopLines([&] { model::BuildModelFromText(text, {.work_dir = dir.str()}); });
    EXPECT_NE(Joined(lines).find(c.message), std::string::npos) << c.declaration << "\n"
                                                                << Joined(lines);
  }
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
