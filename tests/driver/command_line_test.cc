#include "driver/command_line.h"

#include <gtest/gtest.h>

#include <tuple>

#include "base/report.h"
#include "base/text.h"

namespace kx::driver {
namespace {

std::vector<std::string> Args(std::initializer_list<const char*> switches) {
  std::vector<std::string> args = {"kestrix", "app"};
  args.insert(args.end(), switches.begin(), switches.end());
  return args;
}

// Each switch sets its flag and the option it stands for; the last of two rivals wins. -1
// leaves a flag to the DBS options. A solver word prints nothing; an unknown solver name is
// reported and changes nothing.
TEST(CommandLine, SwitchesSetTheirFlagsAndOptions) {
  struct Case {
    std::initializer_list<const char*> switches;
    int imode, coldstart, dbs_read, dbs_write, specs, solver;
    const char* message = nullptr;  // what is printed, checked when given
  } cases[] = {{{}, 3, 0, -1, -1, -1, 1},
               {{"-ss"}, 1, 0, -1, -1, -1, 1},
               {{"-UZPM_SSTATE_MPU"}, 2, 0, -1, -1, -1, 1},
               {{"-Rto"}, 3, 0, -1, -1, -1, 1},
               {{"-uzpm_isim"}, 4, 0, -1, -1, -1, 1},
               {{"-uzpm_dyn_sim"}, 4, 0, -1, -1, -1, 1},
               {{"-EST"}, 5, 0, -1, -1, -1, 1},
               {{"-uzpm_online_ctl"}, 6, 0, -1, -1, -1, 1},
               {{"-sqs"}, 7, 0, -1, -1, -1, 1},
               {{"-SQE"}, 8, 0, -1, -1, -1, 1},
               {{"-sqc"}, 9, 0, -1, -1, -1, 1},
               {{"-sim", "-ss"}, 1, 0, -1, -1, -1, 1},
               {{"-ctl", "-uzpm_icon"}, 6, 0, -1, -1, -1, 1},
               {{"-l1", "bare", "-est"}, 5, 0, -1, -1, -1, 1},
               {{"-COLD"}, 3, 1, -1, -1, -1, 1},
               {{"-cold", "-warm"}, 3, 0, -1, -1, -1, 1},
               {{"-skipread"}, 3, 0, 0, -1, -1, 1},
               {{"-SkipWrite"}, 3, 0, -1, 0, -1, 1},
               {{"-skipreadwrite"}, 3, 0, 0, 0, -1, 1},
               {{"-no_specs"}, 3, 0, -1, -1, 0, 1},
               {{"-no_specs", "-specs"}, 3, 0, -1, -1, -1, 1},
               {{"-ipopt"}, 3, 0, -1, -1, -1, 3, ""},
               {{"-SOLVER=IPOPT"}, 3, 0, -1, -1, -1, 3, ""},
               {{"-solver=-biopt"}, 3, 0, -1, -1, -1, 2, ""},
               {{"-all"}, 3, 0, -1, -1, -1, 0, ""},
               {{"-Minos"}, 3, 0, -1, -1, -1, 6, ""},
               {{"-solver=ipoptf"}, 3, 0, -1, -1, -1, 4, ""},
               {{"-snopt", "-asopt"}, 3, 0, -1, -1, -1, 1, ""},
               {{"-solver=xyz"}, 3, 0, -1, -1, -1, 1, "Unknown solver name: xyz"},
               {{"-ipopt", "-solver=XYZ"}, 3, 0, -1, -1, -1, 3, "Unknown solver name: xyz"},
               {{"-solver"}, 3, 0, -1, -1, -1, 1, "Unknown solver name: "}};
  for (const auto& c : cases) {
    std::string trace;
    for (const char* w : c.switches) trace += std::string(w) + " ";
    SCOPED_TRACE(trace);
    dbs::OptionStore store;
    OutputCapture out;
    CommandLineFlags f = ParseCommandLine(Args(c.switches), store);
    EXPECT_EQ(std::tie(f.imode, f.coldstart, f.dbs_read, f.dbs_write, f.specs, f.solver),
              std::tie(c.imode, c.coldstart, c.dbs_read, c.dbs_write, c.specs, c.solver));
    EXPECT_EQ(store.Int("IMODE"), c.imode);
    EXPECT_EQ(store.Int("COLDSTART"), c.coldstart);
    EXPECT_EQ(store.Int("SOLVER"), c.solver);
    if (c.message) {
      EXPECT_EQ(out.text(), *c.message ? std::string(c.message) + "\n" : "");
    }
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
  dbs::OptionStore store;  // a kill request stops (its lines: golden case cycle)
  store.SetGlobal("REQCTRLMODE", 0);
  OutputCapture out;
  EXPECT_THROW(ParseCommandLine(Args({"-ctl"}), store), Stop);
}

TEST(CommandLine, AutomaticColdStart) {
  struct Case {
    int auto_cold, bad_cycles, coldstart;
  } cases[] = {{3, 3, 1}, {3, 2, 0}, {0, 5, 0}, {1, 4, 1}};
  for (const auto& c : cases) {
    dbs::OptionStore store;
    store.SetGlobal("AUTO_COLD", c.auto_cold);
    store.SetGlobal("BAD_CYCLES", c.bad_cycles);
    OutputCapture out;  // the message: golden case cycle
    EXPECT_EQ(ParseCommandLine(Args({}), store).coldstart, c.coldstart);
    EXPECT_EQ(store.Int("COLDSTART"), c.coldstart);
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
