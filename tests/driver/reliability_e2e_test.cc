// End-to-end regressions of bad numbers, files and memory, run as a user runs the program.
#include <gtest/gtest.h>

#include <filesystem>

#include "cycle_fixture.h"

namespace kx::driver {
namespace {

constexpr const char* kTank =
    "Model tank\n  Parameters\n    inflow = 1.5, >= 0, <= 5\n    valve = 0.6, >= 0, <= 1\n"
    "  End Parameters\n  Variables\n    level = 2, >= 0, <= 10\n    outflow = 1, >= 0\n"
    "  End Variables\n  Equations\n    outflow = 2.5 * valve * sqrt(level)\n"
    "    inflow = outflow\n  End Equations\nEnd Model\n";

class ReliabilityCycle : public CycleTest {
 protected:
  void SetUp() override {
    Write("tank.zpm", kTank);
    Write("tank.info", "FV, valve\nMV, inflow\nSV, outflow\nCV, level\n");
    Write("tank.dbs", "ZPM.IMODE = 1\n");
  }
  // The value written for NAME in tank.dbs ("NAME VALUE" lines).
  std::string Written(const std::string& name) {
    const std::string text = Read("tank.dbs");
    const size_t at = text.find("\n" + name + " ");
    if (at == std::string::npos) return "";
    const size_t start = at + name.size() + 2;
    return text.substr(start, text.find('\n', start) - start);
  }
};

TEST_F(ReliabilityCycle, OutOfRangeIntegersAreRefusedAndCountersStayValid) {
  Write("overrides.dbs", "ZPM.MAX_ITER = 1e10\nZPM.CYCLECOUNT = 1e21\n");
  RunResult r = Run("tank");
  EXPECT_TRUE(r.Has("Warning: overrides.dbs line 1: value of ZPM.MAX_ITER is out of the "
                    "integer range"))
      << r.out;
  EXPECT_TRUE(r.Has("Warning: overrides.dbs line 2: value of ZPM.CYCLECOUNT is out of the "
                    "integer range"));
  EXPECT_TRUE(r.Has("Successful solution"));
  EXPECT_EQ(Written("ZPM.MAX_ITER"), "100");
  EXPECT_EQ(Written("ZPM.CYCLECOUNT"), "1");
}

// An infinite bound is refused on reading; the file written back holds the unset sentinel,
// which the next cycle reads without a word.
TEST_F(ReliabilityCycle, InfiniteValuesNeverReachAFile) {
  Write("overrides.dbs", "inflow.UPPER = 1e999\n");
  RunResult first = Run("tank");
  EXPECT_TRUE(first.Has("Warning: overrides.dbs line 1: value of inflow.UPPER is not a number"))
      << first.out;
  EXPECT_EQ(Written("inflow.UPPER"), "1.23456789e+20");
  std::filesystem::remove(dir_.File("overrides.dbs"));
  RunResult second = Run("tank");
  EXPECT_FALSE(second.Has("Warning")) << second.out;
  for (const char* file : {"tank.dbs", "results.csv", "results.json", "options.json"}) {
    const std::string text = Read(file);
    EXPECT_EQ(text.find("inf\n"), std::string::npos) << file;
    EXPECT_EQ(text.find("nan"), std::string::npos) << file;
  }
}

TEST_F(ReliabilityCycle, DivisionByAZeroParameterIsCountedNotSimplifiedAway) {
  Write("tank.zpm",
        "Model tank\n  Parameters\n    p = 0\n  End Parameters\n  Variables\n    x = 1\n"
        "  End Variables\n  Equations\n    x = 0/p\n  End Equations\nEnd Model\n");
  Write("tank.info", "");
  RunResult r = Run("tank");
  EXPECT_TRUE(r.Has("Count: Division by zero                        1")) << r.out;
  EXPECT_FALSE(r.Has("Successful solution")) << r.out;
}

TEST_F(ReliabilityCycle, FileBlockThroughASymbolicLinkStops) {
  kx::testing::ScratchDir outside("kx_outside");
  outside.Write("victim.csv", "keep\n");
  std::filesystem::create_symlink(outside.File("victim.csv"), dir_.File("data.csv"));
  Write("tank.zpm", std::string("File data.csv\n0, 1\nEnd File\n") + kTank);
  RunResult r = Run("tank");
  EXPECT_TRUE(r.Has("Error: unable to write file data.csv: it is a symbolic link")) << r.out;
  EXPECT_EQ(outside.Read("victim.csv"), "keep\n");
}

// Memory exhaustion ends with one clear line, never an exception's text.
TEST_F(ReliabilityCycle, MemoryExhaustionIsOneClearLine) {
  Write("tank.zpm",
        "Model tank\n  Variables\n    x[1:10000000] = 1\n  End Variables\n  Equations\n"
        "    x[1:10000000] = 2\n  End Equations\nEnd Model\n");
  Write("tank.info", "");
  RunResult at_default = Run("tank");
  EXPECT_TRUE(at_default.Has("Error: Not enough memory to store model variables: 10000000 "
                             "elements, room for 1000000\n"
                             "Increase MAX_MEMORY 10^(2-10), Currently: 10^4\n"))
      << at_default.out;
  Write("tank.dbs", "ZPM.IMODE = 1\nZPM.MAX_MEMORY = 6\n");
  std::string cmd = "cd '" + dir_.str() + "' && ulimit -v 400000 && '" KX_BINARY "' tank 2>&1";
  std::string out;
  FILE* pipe = popen(cmd.c_str(), "r");
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, pipe)) > 0;) out.append(buf, n);
  pclose(pipe);
  EXPECT_TRUE(out.find("Error: out of memory") != std::string::npos) << out;
  EXPECT_EQ(out.find("bad_alloc"), std::string::npos) << out;
}

}  // namespace
}  // namespace kx::driver
