#include "dbs/dbs_file.h"

#include <gtest/gtest.h>

#include <limits>
#include <nlohmann/json.hpp>

#include "base/file_writer.h"
#include "base/report.h"
#include "base/sentinels.h"
#include "dbs/cycle_outcome.h"
#include "dbs/option_store.h"
#include "dbs/option_table.h"
#include "dbs/options_json.h"
#include "testing/scratch_dir.h"

namespace kx::dbs {
namespace {

// A store with every class and non-default values in globals, properties and arrays.
OptionStore BusyStore() {
  OptionStore s;
  s.AddVariable("feed", VarClass::kFV);
  s.AddVariable("valve", VarClass::kMV);
  s.AddVariable("temp", VarClass::kSV);
  s.AddVariable("tank.level", VarClass::kCV);
  s.SetHorizon(3);
  s.SetGlobal("IMODE", 6);
  s.SetGlobal("OTOL", 1.0 / 3.0);
  s.SetGlobal("OBJFCNVAL", -2.5e-17);
  s.Set("feed", "MEAS", 0.1);
  s.Set("valve", "DPRED[3]", 7.25);
  s.Set("valve", "OSTATUS[2]", 12);
  s.Set("tank.level", "SPHI", 1e300);
  s.Set("temp", "PRED[2]", -4.0);
  s.SetUnits("tank.level", "m");
  return s;
}

// Every element of every record of `a` equals that of `b`.
void ExpectSameValues(const OptionStore& a, const OptionStore& b) {
  ASSERT_EQ(a.variables().size(), b.variables().size());
  for (size_t i = 0; i < a.globals().size(); ++i)
    EXPECT_EQ(a.globals()[i].values, b.globals()[i].values) << a.globals()[i].name;
  for (size_t v = 0; v < a.variables().size(); ++v)
    for (size_t r = 0; r < a.variables()[v].records.size(); ++r)
      EXPECT_EQ(a.variables()[v].records[r].values, b.variables()[v].records[r].values)
          << a.variables()[v].name << "." << a.variables()[v].records[r].name;
}

OptionStore FreshWithSameVariables(const OptionStore& like) {
  OptionStore s;
  for (const Variable& v : like.variables()) s.AddVariable(v.name, v.cls);
  return s;
}

TEST(DbsFile, BothWriteFormsReadBackToTheSameStore) {
  OptionStore original = BusyStore();
  for (int form : {1, 2}) {
    OptionStore copy = FreshWithSameVariables(original);
    OutputCapture out;
    DbsReadResult r = ReadDbsText(FormatDbs(original, form, 1), "test.dbs", copy);
    EXPECT_EQ(r.warnings, 0) << out.text();
    ExpectSameValues(original, copy);
  }
  // Form 2 carries the units.
  EXPECT_NE(FormatDbs(original, 2, 1).find("\ntank.level.SPHI = 1e+300, 1, m\n"),
            std::string::npos);
}

// The lines of both forms, every record or the outputs and changed inputs only, and what the
// reader says of bad lines and values and what it keeps: golden case dbs.
TEST(DbsFile, MissingFileIsNotAnErrorAndLaterFilesOverride) {
  kx::testing::ScratchDir dir("kx_dbs_file_test");
  OptionStore s;
  OutputCapture out;
  EXPECT_FALSE(ReadDbsFile(dir.File("missing.dbs"), s).found);
  ASSERT_TRUE(WriteFileAtomically(dir.File("a.dbs"), "ZPM.NODES = 3\nZPM.IMODE 2\n"));
  ASSERT_TRUE(WriteFileAtomically(dir.File("b.dbs"), "ZPM.NODES 5\n"));
  EXPECT_TRUE(ReadDbsFile(dir.File("a.dbs"), s).found);
  ReadDbsFile(dir.File("b.dbs"), s);
  EXPECT_EQ(s.Int("NODES"), 5);
  EXPECT_EQ(s.Int("IMODE"), 2);
  EXPECT_TRUE(out.text().empty());
}

// Values read from DBS files pass one gate, finite numbers only and integer options within
// the int range, and integer options are truncated toward zero (golden case dbs); the
// engine's own counters stop at the int range too.
TEST(DbsNumericGate, CountersSaturate) {
  OptionStore s;
  // Counters stop at the largest int instead of wrapping to a negative count.
  s.SetGlobal("CYCLECOUNT", std::numeric_limits<int>::max());
  s.SetGlobal("BAD_CYCLES", std::numeric_limits<int>::max());
  RecordCycleOutcome(s, false);
  EXPECT_EQ(s.Int("CYCLECOUNT"), std::numeric_limits<int>::max());
  EXPECT_EQ(s.Int("BAD_CYCLES"), std::numeric_limits<int>::max());
  s.SetGlobal("MAX_ITER", 1e30);  // engine-set values convert without overflow
  EXPECT_EQ(s.Int("MAX_ITER"), std::numeric_limits<int>::max());
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

}  // namespace
}  // namespace kx::dbs
