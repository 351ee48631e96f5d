#include "driver/command_line.h"

#include <fmt/format.h>

#include <array>
#include <cmath>

#include "base/report.h"
#include "base/text.h"
#include "files/file_routine.h"

namespace kx::driver {
namespace {

enum class Action {
  kSparsity,
  kNothing,
  kCold,
  kWarm,
  kMode,
  kIgnoreIcon,
  kSkipRead,
  kSkipWrite,
  kSkipReadWrite,
  kSpecs,
  kNoSpecs,
  kSolver
};

struct Switch {
  std::string_view word;
  Action action;
  int imode;  // for kMode
};

// Compared in this order; the first match acts.
constexpr Switch kSwitches[] = {
    {"-p", Action::kSparsity, 0},
    {"-l1", Action::kNothing, 0},
    {"-cold", Action::kCold, 0},
    {"-warm", Action::kWarm, 0},
    {"-ss", Action::kMode, 1},
    {"-uzpm_sstate", Action::kMode, 1},
    {"-mpu", Action::kMode, 2},
    {"-uzpm_sstate_mpu", Action::kMode, 2},
    {"-rto", Action::kMode, 3},
    {"-sim", Action::kMode, 4},
    {"-uzpm_dyn_sim", Action::kMode, 4},
    {"-uzpm_online_sim", Action::kMode, 4},
    {"-uzpm_isim", Action::kMode, 4},
    {"-est", Action::kMode, 5},
    {"-ctl", Action::kMode, 6},
    {"-uzpm_online_ctl", Action::kMode, 6},
    {"-sqs", Action::kMode, 7},
    {"-sqe", Action::kMode, 8},
    {"-sqc", Action::kMode, 9},
    {"-uzpm_icon", Action::kIgnoreIcon, 0},
    {"-skipread", Action::kSkipRead, 0},
    {"-skipwrite", Action::kSkipWrite, 0},
    {"-skipreadwrite", Action::kSkipReadWrite, 0},
    {"-specs", Action::kSpecs, 0},
    {"-no_specs", Action::kNoSpecs, 0},
    {"-solver", Action::kSolver, 0},
    {"-all", Action::kSolver, 0},
    {"-asopt", Action::kSolver, 0},
    {"-biopt", Action::kSolver, 0},
    {"-ipopt", Action::kSolver, 0},
    {"-ipoptf", Action::kSolver, 0},
    {"-snopt", Action::kSolver, 0},
    {"-minos", Action::kSolver, 0},
};

constexpr std::array<std::string_view, 7> kSolverNames = {"all",    "asopt", "biopt", "ipopt",
                                                          "ipoptf", "snopt", "minos"};

constexpr std::array<std::string_view, 9> kModeWords = {"ss",  "mpu", "rto", "sim", "est",
                                                        "ctl", "sqs", "sqe", "sqc"};

constexpr const char* kHelp[] = {
    "   -P                 = generate dummy file sparsity.unt",
    "   -COLD              = coldstart flag",
    "   -WARM              = warmstart flag",
    "   -SPECS             = read specs from restart file",
    "   -NO_SPECS          = don't read specs from restart file",
    "   -SKIPREAD          = skip DBS file read",
    "   -SKIPWRITE         = skip DBS file write",
    "   -SKIPREADWRITE     = skip DBS file read and write",
    "   -SS                = steady state mode",
    "   -MPU               = steady state estimation (Model Parameter Update) mode",
    "   -RTO               = steady state control (Real-time Optimization) mode",
    "   -SIM               = dynamic simulation mode",
    "   -EST               = dynamic estimation (Moving Horizon Estimation) mode",
    "   -CTL               = dynamic nonlinear control mode",
    "   -SQS               = sequential dynamic simulation mode",
    "   -SQE               = sequential dynamic estimation (Moving Horizon Estimation) mode",
    "   -SQC               = sequential dynamic nonlinear control mode",
    "   -SOLVER=name       = solver technology (-SOLVER=ALL, ASOPT, BIOPT, IPOPT, IPOPTF, "
    "SNOPT, MINOS)",
    "   OR just -name      =                   (-ALL, -ASOPT, -BIOPT, -IPOPT, -IPOPTF, -SNOPT, "
    "-MINOS)",
};

// One argument as the parser sees it: the name part (the whole argument when it has no "="
// after its first character) and the value part.
struct Argument {
  std::string name;
  std::string value;
};

// The argument at `position` in a 100-character buffer, lower case, split at the first "=".
Argument FetchArgument(const std::vector<std::string>& args, int position) {
  std::string text;
  if (position < static_cast<int>(args.size()))
    text = ToLower(std::string_view(args[position]).substr(0, kArgumentLength));
  text = std::string(Trim(text));
  size_t eq = text.find('=');
  if (eq == std::string::npos || eq == 0) return Argument{text, ""};
  return Argument{text.substr(0, eq), text.substr(eq + 1)};
}

bool Flag(double real_option) { return std::trunc(real_option) != 0; }

// Kill request and control mode, taken from the options before the switches are read.
void ApplyRequestedControlMode(dbs::OptionStore& store, CommandLineFlags& flags) {
  int requested = store.Int("REQCTRLMODE");
  if (requested == 0) Fatal({"Requested Control Mode = 0 (KILL)", "ZPM.REQCTRLMODE = 0"});
  bool control_mode = flags.imode == 6 || flags.imode == 9;
  flags.ctrlmode = (control_mode && requested >= 1 && requested <= 3) ? requested : 1;
  store.SetGlobal("CTRLMODE", flags.ctrlmode);
}

void ApplyAutoColdStart(dbs::OptionStore& store, CommandLineFlags& flags) {
  int auto_cold = store.Int("AUTO_COLD");
  int bad_cycles = store.Int("BAD_CYCLES");
  if (auto_cold <= 0 || bad_cycles < auto_cold) return;
  Say("");
  Sayf(" Auto Coldstart: {} bad cycles >= {} auto cold limit", bad_cycles, auto_cold);
  Say("");
  flags.coldstart = 1;
  store.SetGlobal("COLDSTART", 1);
}

void SelectSolver(const Argument& arg, dbs::OptionStore& store, CommandLineFlags& flags) {
  std::string_view word = arg.name == "-solver" ? std::string_view(arg.value) : arg.name;
  int number = SolverNumber(word);
  if (number < 0) {
    Say(fmt::format("Unknown solver name: {}", word));
    number = store.Int("SOLVER");
  }
  flags.solver = number;
  store.SetGlobal("SOLVER", number);
}

[[noreturn]] void StopUnrecognized(const std::string& arg) {
  std::vector<std::string> lines = {"argument not recognized: " + arg,
                                    " valid command line arguments are"};
  for (const char* h : kHelp) lines.emplace_back(h);
  lines.emplace_back("");
  Fatal(lines);
}

const Switch* FindSwitch(std::string_view word) {
  for (const Switch& s : kSwitches)
    if (s.word == word) return &s;
  return nullptr;
}

void Apply(const Switch& s, const Argument& arg, dbs::OptionStore& store, CommandLineFlags& flags) {
  switch (s.action) {
    case Action::kSparsity:
      files::zpm_files(34, "sparsity.unt");
      Fatal({"sparsity.unt generated"});
    case Action::kNothing:
      break;
    case Action::kCold:
      flags.coldstart = 1;
      store.SetGlobal("COLDSTART", 1);
      break;
    case Action::kWarm:
      flags.coldstart = 0;
      store.SetGlobal("COLDSTART", 0);
      break;
    case Action::kMode:
      flags.imode = s.imode;
      store.SetGlobal("IMODE", s.imode);
      break;
    case Action::kIgnoreIcon:
      Say("");
      Say("Ignoring -uzpm_icon and using ZPM.imode value instead");
      Say("");
      break;
    case Action::kSkipRead:
      flags.dbs_read = 0;
      break;
    case Action::kSkipWrite:
      flags.dbs_write = 0;
      break;
    case Action::kSkipReadWrite:
      flags.dbs_read = flags.dbs_write = 0;
      break;
    case Action::kSpecs:
      flags.specs = -1;
      break;
    case Action::kNoSpecs:
      flags.specs = 0;
      break;
    case Action::kSolver:
      SelectSolver(arg, store, flags);
      break;
  }
}

// Flags and options as the DBS files left them, before any switch.
CommandLineFlags ReadStartingFlags(const dbs::OptionStore& store) {
  CommandLineFlags flags;
  flags.coldstart = store.Int("COLDSTART");
  flags.imode = store.Int("IMODE");
  flags.dbs_read = Flag(store.Real("DBS_READ")) ? -1 : 0;
  flags.dbs_write = Flag(store.Real("DBS_WRITE")) ? -1 : 0;
  flags.specs = Flag(store.Real("SPECS")) ? -1 : 0;
  flags.solver = store.Int("SOLVER");
  return flags;
}

}  // namespace

std::string ApplicationName(std::string_view arg) {
  std::string name = ToLower(Trim(arg.substr(0, kArgumentLength)));
  if (EndsWith(name, ".zpm")) name.resize(name.size() - 4);
  return name;
}

int SolverNumber(std::string_view word) {
  if (StartsWith(word, "-")) word.remove_prefix(1);
  for (size_t i = 0; i < kSolverNames.size(); ++i)
    if (kSolverNames[i] == word) return static_cast<int>(i);
  return -1;
}

std::string_view ModeWord(int imode) {
  return imode >= 1 && imode <= 9 ? kModeWords[imode - 1] : std::string_view();
}

CommandLineFlags ParseCommandLine(const std::vector<std::string>& args, dbs::OptionStore& store) {
  CommandLineFlags flags = ReadStartingFlags(store);
  int diaglevel = store.Int("DIAGLEVEL");
  ApplyRequestedControlMode(store, flags);
  ApplyAutoColdStart(store, flags);
  bool finished = false;
  for (int position = 1; position <= kMaxArguments && !finished; ++position) {
    Argument arg = FetchArgument(args, position);
    if (diaglevel > 1) Sayf("ARGUMENT {} {}", position, arg.name);
    if (arg.name.empty()) {
      finished = true;
    } else if (const Switch* s = FindSwitch(arg.name)) {
      Apply(*s, arg, store, flags);
    } else if (arg.name[0] == '-') {
      StopUnrecognized(arg.name);
    }
  }
  // Position 100 is never parsed; that it holds something is reported.
  if (!finished && static_cast<int>(args.size()) > kMaxArguments + 1 &&
      !Trim(args[kMaxArguments + 1]).empty())
    Say("zpm_getarg: ERROR: >= 100 command line arguments");
  flags.imode = store.Int("IMODE");
  flags.solver = store.Int("SOLVER");
  return flags;
}

void EchoCommandLine(std::string_view app, const CommandLineFlags& flags) {
  auto logical = [](int f) { return f != 0 ? "T" : "F"; };
  Say("COMMAND LINE ARGUMENTS");
  Sayf("Run id   : {}", app);
  Sayf("coldstart: {}", flags.coldstart);
  Sayf("imode    : {}", flags.imode);
  Sayf("dbs_read : {}", logical(flags.dbs_read));
  Sayf("dbs_write: {}", logical(flags.dbs_write));
  Sayf("specs    : {}", logical(flags.specs));
}

}  // namespace kx::driver
