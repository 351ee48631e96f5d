#include "dbs/options_json.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace kx::dbs {
namespace {

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
