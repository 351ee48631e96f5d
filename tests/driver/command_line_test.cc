#include "driver/command_line.h"

#include <gtest/gtest.h>

#include "base/report.h"
#include "base/text.h"
#include "driver/cycle.h"
#include "testing/scratch_dir.h"

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
    EXPECT_EQ(lines[1], " valid command line arguments are");
    EXPECT_EQ(lines[2], "   -P                 = generate dummy file sparsity.unt");
    EXPECT_EQ(lines[20],
              "   OR just -name      =                   (-ALL, -ASOPT, -BIOPT, "
              "-IPOPT, -IPOPTF, -SNOPT, -MINOS)");
    EXPECT_EQ(lines[21], "");
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

TEST(CommandLine, ApplicationNameAndModeWords) {
  EXPECT_EQ(ApplicationName("Demo.ZPM"), "demo");
  EXPECT_EQ(ApplicationName("demo"), "demo");
  EXPECT_EQ(ApplicationName("my.zpm.zpm"), "my.zpm");
  EXPECT_EQ(ApplicationName(std::string(120, 'a')), std::string(100, 'a'));
  const char* words[] = {"", "ss", "mpu", "rto", "sim", "est", "ctl", "sqs", "sqe", "sqc", ""};
  for (int imode = 0; imode <= 10; ++imode) EXPECT_EQ(ModeWord(imode), words[imode]);
}

TEST(CommandLine, EchoAtHighDiagnosticLevel) {
  dbs::OptionStore store;
  store.SetGlobal("DIAGLEVEL", 2);
  OutputCapture out;
  ParseCommandLine(Args({"-SS"}), store);
  EXPECT_EQ(out.lines(),
            (std::vector<std::string>{"ARGUMENT 1 app", "ARGUMENT 2 -ss", "ARGUMENT 3 "}));
}

using kx::testing::WorkingDir;

int RunWith(std::vector<std::string> args, const ModelStage& stage) {
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  return RunCycle(static_cast<int>(argv.size()), argv.data(), stage);
}

TEST(RunCycle, AGoodSolveExitsWithOneAndEndsTheColdStart) {
  WorkingDir dir("kx_cycle_good");
  dir.Write("tank.zpm", "! model\n");
  dir.Write("tank.dbs", "ZPM.BAD_CYCLES 4\nZPM.COLDSTART 1\n");
  CycleState seen;
  auto good = [&](CycleState& s) {
    seen.app = s.app;
    seen.mode_word = s.mode_word;
    seen.flags = s.flags;
    s.store.SetGlobal("OBJFCNVAL", 42.5);
    return 0;
  };
  OutputCapture out;
  EXPECT_EQ(RunWith({"kestrix", "Tank.zpm", "-sim"}, good), 1);
  EXPECT_EQ(seen.app, "tank");
  EXPECT_EQ(seen.mode_word, "sim");
  EXPECT_EQ(seen.flags.coldstart, 1);
  std::string dbs = dir.Read("tank.dbs");
  for (const char* line : {"ZPM.BAD_CYCLES 0\n", "ZPM.COLDSTART 0\n", "ZPM.CYCLECOUNT 1\n",
                           "NLC.OBJFCNVAL 42.5\n", "ZPM.IMODE 4\n"})
    EXPECT_NE(dbs.find(line), std::string::npos) << line;
  EXPECT_FALSE(out.Contains("not available"));
}

TEST(RunCycle, AFailedSolveExitsWithZeroAndCountsABadCycle) {
  WorkingDir dir("kx_cycle_bad");
  dir.Write("tank.zpm", "! model\n");
  OutputCapture out;
  EXPECT_EQ(RunWith({"kestrix", "tank"}, [](CycleState&) { return 3; }), 0);
  EXPECT_NE(dir.Read("tank.dbs").find("ZPM.BAD_CYCLES 1\n"), std::string::npos);
  EXPECT_TRUE(dir.Exists("options.json"));
  auto unsolved = [](CycleState& s) {
    s.store.SetGlobal("APPSTATUS", 0);
    return -1;
  };
  EXPECT_EQ(RunWith({"kestrix", "tank"}, unsolved), 0);
  EXPECT_NE(dir.Read("tank.dbs").find("ZPM.BAD_CYCLES 2\n"), std::string::npos);
  EXPECT_NE(dir.Read("tank.dbs").find("NLC.APPSTATUS 0\n"), std::string::npos);
}

}  // namespace
}  // namespace kx::driver
