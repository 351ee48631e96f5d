#include "dbs/option_store.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "base/report.h"
#include "base/sentinels.h"
#include "dbs/option_table.h"
#include "dbs/options_doc.h"
#include "dbs/options_json.h"

namespace kx::dbs {
namespace {

TEST(OptionStore, NlcIsASecondNameForTheGlobals) {
  OptionStore store;
  store.Set("nlc", "solvestatus", 0);
  EXPECT_EQ(store.GetInt("ZPM", "SOLVESTATUS"), 0);
  store.SetGlobal("OBJFCNVAL", 12.5);
  EXPECT_EQ(store.GetReal("NLC", "OBJFCNVAL"), 12.5);
}

TEST(OptionStore, IntegerRecordsAreTruncatedOnRead) {
  OptionStore store;
  store.SetGlobal("IMODE", 5.9);
  store.SetGlobal("MAX_ITER", -3.7);
  store.SetGlobal("OTOL", 2.5e-3);
  EXPECT_EQ(store.Int("IMODE"), 5);
  EXPECT_EQ(store.Real("IMODE"), 5.0);
  EXPECT_EQ(store.Int("MAX_ITER"), -3);
  EXPECT_EQ(store.Real("OTOL"), 2.5e-3);
}

TEST(OptionStore, UnknownNameIsReportedAndTheRunGoesOn) {
  OptionStore store;
  OutputCapture out;
  EXPECT_EQ(store.Int("NOT_AN_OPTION"), 0);
  store.Set("ZPM", "ALSO_MISSING", 4);
  store.AddVariable("x", VarClass::kSV);
  EXPECT_EQ(store.GetReal("x", "DCOST"), 0.0);  // MV property, not on an SV
  EXPECT_EQ(out.lines(),
            (std::vector<std::string>{"zpm_dbs_add_property: not found ZPM.NOT_AN_OPTION",
                                      "zpm_dbs_add_property: not found ZPM.ALSO_MISSING",
                                      "zpm_dbs_add_property: not found X.DCOST"}));
}

// Defaults and descriptions are checked once, through docs/options.md (options_doc_test); here
// each class gets its own property list, names fold to lower case and arrays start at their
// default.
TEST(OptionStore, NewVariablesTakeTheirClassProperties) {
  OptionStore store;
  store.AddVariable("Flow", VarClass::kMV);
  store.AddVariable("level", VarClass::kCV);
  EXPECT_EQ(store.GetReal("FLOW", "dcost"), FindPropertyDef("DCOST")->default_value);
  EXPECT_EQ(store.GetReal("level", "PRED[1]"), FindPropertyDef("PRED")->default_value);
  EXPECT_EQ(store.GetReal("level", "MEAS"), kNoValue);
  for (VarClass c : {VarClass::kFV, VarClass::kMV, VarClass::kSV, VarClass::kCV}) {
    const std::string name(ClassName(c));
    store.AddVariable(name, c);
    EXPECT_EQ(store.FindVariable(name)->cls, c);
    EXPECT_EQ(store.FindVariable(name)->records.size(), ClassProperties(c).size()) << name;
  }
}

TEST(OptionStore, AddingAVariableTwiceKeepsItsRecords) {
  OptionStore store;
  ASSERT_TRUE(store.AddVariable("x", VarClass::kMV));
  store.Set("x", "COST", 3);
  EXPECT_TRUE(store.AddVariable("X", VarClass::kMV));
  EXPECT_FALSE(store.AddVariable("x", VarClass::kCV));
  EXPECT_EQ(store.GetReal("x", "COST"), 3);
  EXPECT_EQ(store.variables().size(), 1u);
}

TEST(OptionStore, ArraysFollowTheHorizonAndGrowOnlyOnRequest) {
  OptionStore store;
  store.AddVariable("u", VarClass::kMV);
  EXPECT_FALSE(store.Locate("u", "PRED[2]").has_value());
  auto slot = store.Locate("u", "PRED[4]", /*grow=*/true);
  ASSERT_TRUE(slot.has_value());
  EXPECT_EQ(slot->index, 3u);
  EXPECT_EQ(slot->record->values.size(), 4u);
  store.SetHorizon(10);
  store.Set("u", "DPRED[10]", 0.5);
  EXPECT_EQ(store.GetReal("u", "DPRED[10]"), 0.5);
  EXPECT_EQ(store.GetReal("u", "PRED[7]"), 1.0);
  EXPECT_FALSE(store.Locate("u", "PRED[0]", true).has_value());
  EXPECT_FALSE(store.Locate("u", "PRED[x]", true).has_value());
  EXPECT_FALSE(store.Locate("u", "COST[1]", true).has_value());  // not an array
  store.AddVariable("y", VarClass::kSV);  // registered after the horizon: sized to it
  EXPECT_TRUE(store.Locate("y", "PRED[10]").has_value());
}

TEST(OptionStore, FullNamesSplitAtTheLastDot) {
  OptionStore store;
  store.AddVariable("tank.level", VarClass::kCV);
  ASSERT_TRUE(store.LocateName("TANK.LEVEL.SPHI").has_value());
  EXPECT_TRUE(store.LocateName("zpm.imode").has_value());
  EXPECT_TRUE(store.LocateName("NLC.APPSTATUS").has_value());
  for (const char* bad : {"IMODE", ".IMODE", "ZPM.", "tank.SPHI", "other.level.SPHI"})
    EXPECT_FALSE(store.LocateName(bad).has_value()) << bad;
}

TEST(OptionTable, EveryClassPropertyHasADefinitionAndOutcomesAreOutputs) {
  EXPECT_EQ(FindPropertyDef("OSTATUSCHG[2]")->name, "OSTATUSCHG");
  for (VarClass c : {VarClass::kFV, VarClass::kMV, VarClass::kSV, VarClass::kCV})
    for (std::string_view p : ClassProperties(c))
      EXPECT_NE(FindPropertyDef(p), nullptr) << ClassName(c) << " " << p;
  for (std::string_view key : OutcomeKeys()) EXPECT_EQ(FindGlobalDef(key)->direction, 2);
}

TEST(OptionsJson, HoldsGlobalsOutcomeKeysAndVariablesWithTypedValues) {
  OptionStore s;
  s.AddVariable("u", VarClass::kMV);
  s.SetHorizon(2);
  s.SetGlobal("IMODE", 4.8);
  s.SetGlobal("SOLVETIME", 0.25);
  s.Set("u", "PRED[2]", 3.5);
  auto j = nlohmann::json::parse(FormatOptionsJson(s));
  EXPECT_EQ(j["ZPM"]["IMODE"], 4);
  EXPECT_TRUE(j["ZPM"]["IMODE"].is_number_integer());
  EXPECT_EQ(j["NLC"]["SOLVETIME"], 0.25);
  EXPECT_EQ(j["NLC"].size(), 6u);
  EXPECT_EQ(j["ZPM"].size(), 61u);
  EXPECT_EQ(j["u"]["PRED"], nlohmann::json::parse("[1.0, 3.5]"));
  EXPECT_EQ(j["u"]["DCOST"], 9.999999747378752e-06);
  EXPECT_EQ(j["u"]["OSTATUS[1]"], 0);
  // Keys keep store order.
  auto ordered = nlohmann::ordered_json::parse(FormatOptionsJson(s));
  EXPECT_EQ(ordered.begin().key(), "ZPM");
  EXPECT_EQ(ordered["ZPM"].begin().key(), "APPINFO");
}

constexpr const char* kPage = KX_SOURCE_DIR "/docs/options.md";

// The committed page must be exactly what the tables generate. To regenerate after a table
// change, run this test with KX_UPDATE_DOCS=1.
TEST(OptionsDoc, CommittedPageMatchesTheTables) {
  std::string generated = RenderOptionsMarkdown();
  if (std::getenv("KX_UPDATE_DOCS") != nullptr) std::ofstream(kPage) << generated;
  std::ifstream in(kPage);
  ASSERT_TRUE(in) << kPage << " is missing";
  std::stringstream committed;
  committed << in.rdbuf();
  EXPECT_EQ(committed.str(), generated)
      << "docs/options.md drifted from src/dbs/option_table.cc; rerun with KX_UPDATE_DOCS=1";
}

TEST(OptionsDoc, EveryOptionAndPropertyHasARow) {
  std::string page = RenderOptionsMarkdown();
  for (const OptionDef& d : GlobalOptionTable())
    EXPECT_NE(page.find("| `" + std::string(d.name) + "` |"), std::string::npos) << d.name;
  for (const OptionDef& d : PropertyTable())
    EXPECT_NE(page.find("| `" + std::string(d.name) + "` |"), std::string::npos) << d.name;
}

}  // namespace
}  // namespace kx::dbs
