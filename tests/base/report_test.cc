#include "base/report.h"

#include <gtest/gtest.h>

#include "base/text.h"
#include "base/timers.h"

namespace kx {
namespace {

TEST(Report, FatalPrintsMessageThenStopLineAndThrows) {
  OutputCapture out;
  try {
    Fatal({"first", "second"}, "Stopping...");
    FAIL() << "Fatal returned";
  } catch (const Stop& s) {
    EXPECT_EQ(s.stop_line(), "Stopping...");
    EXPECT_EQ(s.lines().size(), 3u);
  }
  EXPECT_EQ(out.lines(), (std::vector<std::string>{"first", "second", "Stopping..."}));
}

TEST(Text, ParseNumberAcceptsFortranExponentAndRejectsGarbage) {
  struct Case {
    const char* text;
    bool ok;
    double value;
  } cases[] = {{"2.5d3", true, 2500}, {" 2.5E3 ", true, 2500}, {"-1e-3", true, -1e-3},
               {".5", true, 0.5},     {"abc", false, 0},      {"1.2.3", false, 0},
               {"", false, 0},        {"nan", false, 0},      {"0x10", false, 0}};
  for (const auto& c : cases) {
    auto v = ParseNumber(c.text);
    EXPECT_EQ(v.has_value(), c.ok) << c.text;
    if (c.ok && v) {
      EXPECT_DOUBLE_EQ(*v, c.value) << c.text;
    }
  }
}

TEST(Text, FormatRealRoundTrips) {
  for (double v : {0.1, 1.0 / 3.0, -1.23456789e+20, 1.23456789e-40, 9.999999747378752e-06}) {
    EXPECT_EQ(*ParseNumber(FormatReal(v)), v);
  }
}

TEST(Timers, NestedStartsCountOnceAndTableIsBounded) {
  TimerTable t;
  int a = t.Id("a");
  t.Start(a);
  t.Start(a);
  t.Stop(a);
  t.Stop(a);
  EXPECT_EQ(t.Calls(a), 1);
  for (int i = 0; i < 100; ++i) t.Id("timer " + std::to_string(i));
  EXPECT_EQ(t.size(), TimerTable::kMaxTimers);
}

}  // namespace
}  // namespace kx
