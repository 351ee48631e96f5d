#include "driver/command_line.h"

#include <gtest/gtest.h>

#include "base/report.h"
#include "base/text.h"

namespace kx::driver {
namespace {

std::vector<std::string> Args(std::initializer_list<const char*> switches) {
  std::vector<std::string> args = {"kestrix", "app"};
  args.insert(args.end(), switches.begin(), switches.end());
  return args;
}

TEST(CommandLine, ModeWordsSetImodeAndTheLastOneWins) {
  struct Case {
    std::initializer_list<const char*> switches;
    int imode;
  } cases[] = {{{}, 3},
               {{"-ss"}, 1},
               {{"-UZPM_SSTATE_MPU"}, 2},
               {{"-Rto"}, 3},
               {{"-uzpm_isim"}, 4},
               {{"-uzpm_dyn_sim"}, 4},
               {{"-EST"}, 5},
               {{"-uzpm_online_ctl"}, 6},
               {{"-sqs"}, 7},
               {{"-SQE"}, 8},
               {{"-sqc"}, 9},
               {{"-sim", "-ss"}, 1},
               {{"-ctl", "-uzpm_icon"}, 6},
               {{"-l1", "bare", "-est"}, 5}};
  for (const auto& c : cases) {
    dbs::OptionStore store;
    OutputCapture out;
    CommandLineFlags flags = ParseCommandLine(Args(c.switches), store);
    EXPECT_EQ(flags.imode, c.imode);
    EXPECT_EQ(store.Int("IMODE"), c.imode);
  }
}

TEST(CommandLine, FlagsAndColdStart) {
  struct Case {
    std::initializer_list<const char*> switches;
    int coldstart, dbs_read, dbs_write, specs;
  } cases[] = {{{}, 0, -1, -1, -1},
               {{"-COLD"}, 1, -1, -1, -1},
               {{"-cold", "-warm"}, 0, -1, -1, -1},
               {{"-skipread"}, 0, 0, -1, -1},
               {{"-SkipWrite"}, 0, -1, 0, -1},
               {{"-skipreadwrite"}, 0, 0, 0, -1},
               {{"-no_specs"}, 0, -1, -1, 0},
               {{"-no_specs", "-specs"}, 0, -1, -1, -1}};
  for (const auto& c : cases) {
    dbs::OptionStore store;
    CommandLineFlags f = ParseCommandLine(Args(c.switches), store);
    EXPECT_EQ(f.coldstart, c.coldstart);
    EXPECT_EQ(store.Int("COLDSTART"), c.coldstart);
    EXPECT_EQ(f.dbs_read, c.dbs_read);
    EXPECT_EQ(f.dbs_write, c.dbs_write);
    EXPECT_EQ(f.specs, c.specs);
  }
}

TEST(CommandLine, FlagsStartFromTheDbsOptions) {
  dbs::OptionStore store;
  store.SetGlobal("DBS_READ", 0.7);  // truncates to 0: false
  store.SetGlobal("DBS_WRITE", 2);
  store.SetGlobal("SPECS", 0);
  store.SetGlobal("COLDSTART", 1);
  CommandLineFlags f = ParseCommandLine(Args({}), store);
  EXPECT_EQ(f.dbs_read, 0);
  EXPECT_EQ(f.dbs_write, -1);
  EXPECT_EQ(f.specs, 0);
  EXPECT_EQ(f.coldstart, 1);
}

TEST(CommandLine, SolverWords) {
  struct Case {
    std::initializer_list<const char*> switches;
    int solver;
    const char* message;
  } cases[] = {{{"-ipopt"}, 3, ""},
               {{"-SOLVER=IPOPT"}, 3, ""},
               {{"-solver=-biopt"}, 2, ""},
               {{"-all"}, 0, ""},
               {{"-Minos"}, 6, ""},
               {{"-solver=ipoptf"}, 4, ""},
               {{"-snopt", "-asopt"}, 1, ""},
               {{"-solver=xyz"}, 1, "Unknown solver name: xyz"},
               {{"-ipopt", "-solver=XYZ"}, 3, "Unknown solver name: xyz"},
               {{"-solver"}, 1, "Unknown solver name: "}};
  for (const auto& c : cases) {
    dbs::OptionStore store;
    OutputCapture out;
    EXPECT_EQ(ParseCommandLine(Args(c.switches), store).solver, c.solver);
    EXPECT_EQ(store.Int("SOLVER"), c.solver);
    EXPECT_EQ(out.text(), *c.message ? std::string(c.message) + "\n" : "");
  }
}

TEST(CommandLine, UnknownSwitchStopsWithTheHelpText) {
  for (const char* bad : {"-bogus", "-imode=3", "-COLDX"}) {
    dbs::OptionStore store;
    OutputCapture out;
    EXPECT_THROW(ParseCommandLine(Args({"-cold", bad}), store), Stop);
    std::vector<std::string> lines = out.lines();
    ASSERT_EQ(lines.size(), 23u);
    std::string name = ToLower(bad).substr(0, ToLower(bad).find('='));
    EXPECT_EQ(lines[0], "argument not recognized: " + name);
    EXPECT_EQ(lines[22], "STOPPING...");
  }
}

TEST(CommandLine, RequestedControlModeAndKill) {
  struct Case {
    int reqctrlmode, imode, ctrlmode;
  } cases[] = {{2, 5, 1}, {2, 6, 2}, {3, 9, 3}, {1, 6, 1}, {3, 3, 1}, {7, 6, 1}, {-1, 6, 1}};
  for (const auto& c : cases) {
    dbs::OptionStore store;
    store.SetGlobal("REQCTRLMODE", c.reqctrlmode);
    store.SetGlobal("IMODE", c.imode);
    EXPECT_EQ(ParseCommandLine(Args({}), store).ctrlmode, c.ctrlmode);
    EXPECT_EQ(store.Int("CTRLMODE"), c.ctrlmode);
  }
  dbs::OptionStore store;
  store.SetGlobal("REQCTRLMODE", 0);
  OutputCapture out;
  EXPECT_THROW(ParseCommandLine(Args({"-ctl"}), store), Stop);
  EXPECT_EQ(out.lines(), (std::vector<std::string>{"Requested Control Mode = 0 (KILL)",
                                                   "ZPM.REQCTRLMODE = 0", "STOPPING..."}));
}

TEST(CommandLine, AutomaticColdStart) {
  struct Case {
    int auto_cold, bad_cycles, coldstart;
  } cases[] = {{3, 3, 1}, {3, 2, 0}, {0, 5, 0}, {1, 4, 1}};
  for (const auto& c : cases) {
    dbs::OptionStore store;
    store.SetGlobal("AUTO_COLD", c.auto_cold);
    store.SetGlobal("BAD_CYCLES", c.bad_cycles);
    OutputCapture out;
    EXPECT_EQ(ParseCommandLine(Args({}), store).coldstart, c.coldstart);
    EXPECT_EQ(store.Int("COLDSTART"), c.coldstart);
    if (c.coldstart) {
      EXPECT_EQ(out.lines(), (std::vector<std::string>{
                                 "",
                                 fmt::format(" Auto Coldstart: {} bad cycles >= {} auto cold limit",
                                             c.bad_cycles, c.auto_cold),
                                 ""}));
    }
  }
  dbs::OptionStore store;  // the command line still has the last word
  store.SetGlobal("AUTO_COLD", 3);
  store.SetGlobal("BAD_CYCLES", 3);
  OutputCapture out;
  EXPECT_EQ(ParseCommandLine(Args({"-warm"}), store).coldstart, 0);
}

TEST(CommandLine, ArgumentListLimits) {
  std::vector<std::string> args = {"kestrix", "app"};
  for (int i = 0; i < 97; ++i) args.push_back(i == 40 ? "-cold" : "-l1");
  args.push_back("-ss");  // position 99: still parsed
  dbs::OptionStore store;
  OutputCapture out;
  CommandLineFlags f = ParseCommandLine(args, store);
  EXPECT_EQ(f.imode, 1);
  EXPECT_EQ(f.coldstart, 1);
  EXPECT_TRUE(out.text().empty());
  args.push_back("-bogus");  // position 100: never looked at, only reported
  f = ParseCommandLine(args, store);
  EXPECT_EQ(out.text(), "zpm_getarg: ERROR: >= 100 command line arguments\n");
  // An empty argument ends the list: what follows is not read.
  dbs::OptionStore fresh;
  EXPECT_EQ(ParseCommandLine({"kestrix", "app", "", "-bogus"}, fresh).imode, 3);
}

TEST(CommandLine, ApplicationNameDropsTheExtensionAndIsCut) {
  EXPECT_EQ(ApplicationName("Demo.ZPM"), "demo");
  EXPECT_EQ(ApplicationName("demo"), "demo");
  EXPECT_EQ(ApplicationName("my.zpm.zpm"), "my.zpm");
  EXPECT_EQ(ApplicationName(std::string(120, 'a')), std::string(100, 'a'));
}

}  // namespace
}  // namespace kx::driver
