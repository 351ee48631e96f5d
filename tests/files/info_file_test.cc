#include "files/info_file.h"

#include <gtest/gtest.h>

#include "base/report.h"

namespace kx::files {
namespace {

TEST(InfoFile, ParsesDeclarationsInFileOrder) {
  auto entries = ParseInfoText("! classes\n\nFV, K\n  mv ,valve\nSv temp\n# done\n% note\nCV,tank.level\n",
                               "app.info");
  ASSERT_EQ(entries.size(), 4u);
  EXPECT_EQ(entries[0].name, "k");
  EXPECT_EQ(entries[1].cls, dbs::VarClass::kMV);
  EXPECT_EQ(entries[1].name, "valve");
  EXPECT_EQ(entries[2].cls, dbs::VarClass::kSV);
  EXPECT_EQ(entries[3].name, "tank.level");
  EXPECT_EQ(entries[3].line, 8);
}

TEST(InfoFile, BadLinesStopNamingTheLine) {
  struct Case {
    const char* text;
    const char* message;
  } cases[] = {{"FV, a\nXV, b\n", "Error in app.info at line 2: class must be FV, MV, SV or CV"},
               {"MV\n", "Error in app.info at line 1: expected CLASS, name"},
               {"CV, a b\n", "Error in app.info at line 1: expected one variable name"}};
  for (const auto& c : cases) {
    OutputCapture out;
    EXPECT_THROW(ParseInfoText(c.text, "app.info"), Stop) << c.text;
    EXPECT_TRUE(out.Contains(c.message)) << out.text();
  }
}

TEST(InfoFile, ModelCheckRefusesUnknownNamesAndWrongKinds) {
  // 1 parameter, 2 variable, 0 unknown.
  ModelKindFn kind = [](std::string_view n) { return n == "p" ? 1 : n == "x" ? 2 : 0; };
  struct Case {
    const char* text;
    const char* message;  // "" when accepted
  } cases[] = {{"FV, p\nCV, x\n", ""},
               {"MV, p\nSV, x\n", ""},
               {"FV, p\nCV, y\n", "line 2: y is not in the model"},
               {"SV, p\n", "line 1: p must be a variable for class SV"},
               {"MV, x\n", "line 1: x must be a parameter for class MV"},
               {"FV, p\nMV, p\n", "line 2: p is already declared with another class"}};
  for (const auto& c : cases) {
    dbs::OptionStore store;
    OutputCapture out;
    auto entries = ParseInfoText(c.text, "app.info");
    if (*c.message == '\0') {
      EXPECT_NO_THROW(RegisterInfoEntries(entries, "app.info", store, kind)) << c.text;
    } else {
      EXPECT_THROW(RegisterInfoEntries(entries, "app.info", store, kind), Stop) << c.text;
      EXPECT_TRUE(out.Contains(c.message)) << c.text << "\n" << out.text();
    }
  }
  dbs::OptionStore store;
  RegisterInfoEntries(ParseInfoText("CV, anything\n", "app.info"), "app.info", store, nullptr);
  EXPECT_NE(store.FindVariable("anything"), nullptr);
}

}  // namespace
}  // namespace kx::files
