// The command line: `kestrix APP [switches]`. Switches are read after the DBS files so they
// override them; every switch that changes a setting writes it back into the option store,
// so later stages read options only.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "dbs/option_store.h"

namespace kx::driver {

inline constexpr int kMaxArguments = 99;     // argument positions looked at
inline constexpr int kArgumentLength = 100;  // characters kept of each argument

// What the command-line stage hands to the run cycle. Logical flags: -1 true, 0 false.
struct CommandLineFlags {
  int coldstart = 0;   // 0 warm, > 0 cold
  int imode = 3;       // 1..9
  int dbs_read = -1;   // DBS values applied to the model
  int dbs_write = -1;  // application DBS file and options.json written after the solve
  int specs = -1;      // read the fixed/calculated marks of restart files
  int ctrlmode = 1;    // 1 simulate, 2 predict, 3 control
  int solver = 1;      // 0 all, 1..6
};

// Application name from argument 1: at most 100 characters, lower case, ".zpm" cut off.
std::string ApplicationName(std::string_view arg);

// Parses `args` (args[0] the program, args[1] the application name, then switches) against
// the options in `store`, writes changed options back and returns the flags. Stops the run
// for an unknown switch, "-p" and a kill request (REQCTRLMODE = 0).
CommandLineFlags ParseCommandLine(const std::vector<std::string>& args, dbs::OptionStore& store);

// Prints the "COMMAND LINE ARGUMENTS" block.
void EchoCommandLine(std::string_view app, const CommandLineFlags& flags);

// "ss", "mpu", "rto", "sim", "est", "ctl", "sqs", "sqe", "sqc" for IMODE 1..9; "" otherwise.
std::string_view ModeWord(int imode);

// Number of a solver name ("ipopt" or "-ipopt"), or -1.
int SolverNumber(std::string_view word);

}  // namespace kx::driver
