#include "dbs/option_table.h"

#include <array>

#include "base/sentinels.h"
#include "base/text.h"

namespace kx::dbs {
namespace {

// The global options in registration (and DBS write) order. Texts are kept as users know
// them, misspellings included.
constexpr OptionDef kGlobals[] = {
    {"APPINFO", 'I', 3, 0, "Application information: 0=good, error otherwise"},
    {"APPINFOCHG", 'I', 2, 0, "Application information change (new-old): 0=no change"},
    {"APPSTATUS", 'I', 2, 1, "Application status: 1=good, 0=bad"},
    {"AUTO_COLD", 'I', 1, 0,
     "Auto Coldstart: 0 (off), 1 (when BAD_CYCLES=1), 2 (when BAD_CYCLES=2), etc"},
    {"BAD_CYCLES", 'I', 3, 0, "Bad cycle count, resets after every good run"},
    {"BNDS_CHK", 'I', 1, 1, "Bounds checking: 1=ON, 0=OFF"},
    {"COLDSTART", 'I', 1, 0,
     "Cold start: 0=warm, 1-100=cold (note: returns to 0 with successful solution)"},
    {"CSV_READ", 'I', 1, 1, "CSV read: 0=Off, 1=On (fixed only), 2=On (fixed and calculated)"},
    {"CSV_WRITE", 'I', 1, 1, "CSV write: 0=Off, 1=On"},
    {"CTRL_HOR", 'I', 1, 1,
     "Control horizon: Horizon length where MVs can be adjusted by the solver"},
    {"CTRL_TIME", 'D', 1, 1, "Time for each step in the control horizon"},
    {"CTRL_UNITS", 'I', 1, 3, "Model time units (1=sec, 2=min, 3=hrs, 4=days, 5=yrs)"},
    {"CTRLMODE", 'I', 2, 1, "Control mode: 1=simulate, 2=predict, 3=control"},
    {"CV_WGT_SLOPE", 'D', 1, 0,
     "Slope for weight on future CV error (e.g. [+] favors steady state)"},
    {"CV_WGT_START", 'I', 1, 0, "Start interval for controlled variable error model weights"},
    {"CV_TYPE", 'I', 1, 1,
     "Controlled variable error model type: 1=dead-band, 2=squared, 3=ref traj A, 4=ref traj B"},
    {"CYCLECOUNT", 'I', 3, 0, "Cycle count: increments every cycle"},
    {"DBS_LEVEL", 'I', 1, 1, "DBS file level: Basic DBS file (0), Full DBS file (1)"},
    {"DBS_READ", 'I', 1, 1,
     "Description: Database read: 0=OFF, 1={Name = Value, Status, Units}, 2={Name = Value}"},
    {"DBS_WRITE", 'I', 1, 1,
     "Description: Database write: 0=OFF, 1={Name Value}, 2={Name = Value, Status, Units}"},
    {"DIAGLEVEL", 'I', 1, 0,
     "Diagnostic level: 0=none, 1=messages, 2=files, ... , 5=check 1st deriv"},
    {"EV_WGT_SLOPE", 'D', 1, 0,
     "Slope for weight on more cuurent EV error (e.g. favor near-term matching)"},
    {"EV_TYPE", 'I', 1, 1,
     "Estimated variable error model type: 1=linear, 2=squared, 3=approximate linear"},
    {"FILTER", 'D', 1, 1, "Filter Inputs: Meas = FILTER * New Value + (1-FILTER) * Last Value"},
    {"FRZE_CHK", 'I', 1, 0, "Frozen input checking: 1=ON, 0=OFF"},
    {"HIST_HOR", 'I', 1, 100, "History horizon (Dynamic cases only): Integer >= 0"},
    {"HIST_UNITS", 'I', 1, 0,
     "History time units on plots only (0=same as CTRL_UNITS, 1=sec, 2=min, 3=hrs, 4=days, "
     "5=yrs)"},
    {"ICD_CALC", 'I', 1, 0,
     "Specifications for initial condition differentials (MHE only): 0=OFF, 1=ON"},
    {"IMODE", 'I', 1, 3, "Model solution mode: 1=ss, 2=mpu, 3=rto, 4=sim, 5=est, 6=ctl, 7=sqs"},
    {"ITERATIONS", 'I', 2, 1, "Iterations for solution: >=1"},
    {"LINEAR", 'I', 1, 0,
     "Set to 1 for a linear programming (LP) or mixed-integer linear programming (MILP) "
     "problem"},
    {"MAX_ITER", 'I', 1, 100, "Maximum iteration: >=1"},
    {"MAX_MEMORY", 'I', 1, 4,
     "Maximum vector storage level, MAX_ALLOC = 10^MAX_MEMORY, default=10^4, range=2-10"},
    {"MAX_TIME", 'D', 1, 1.0e+20, "Maximum run time in seconds"},
    {"MEAS_CHK", 'I', 1, 1, "Measurement checking: 1=ON, 0=OFF"},
    {"MV_DCOST_SLOPE", 'D', 1, 0.1,
     "Slope for penalization on future MV moves (i.e. reduces controller procrastination)"},
    {"MV_STEP_HOR", 'I', 1, 1,
     "Step length for manipulated variables: 0 uses ZPM.MV_STEP_HOR as default"},
    {"MV_TYPE", 'I', 1, 1, "Manipulated variable type: 0=zero order hold, 1=linear"},
    {"NODES", 'I', 1, 2, "Nodes in each horizon step"},
    {"OBJFCNVAL", 'D', 2, 0, "Objective function value"},
    {"OTOL", 'D', 1, 1.0e-6, "Objective function tolerance for successful solution"},
    {"PRED_HOR", 'I', 1, 1, "Prediction horizon: Total horizon, including control horizon"},
    {"PRED_TIME", 'D', 1, 1, "Time for each step in the horizon"},
    {"REDUCE", 'I', 1, 0, "Presolve model reduction method: 0=off, 1=basic"},
    {"REPLAY", 'I', 3, 0, "Replay.csv to Measurements.dbs: 0=Off, >1 Row to read from Replay.csv"},
    {"REQCTRLMODE", 'I', 1, 3, "Requested control mode: 1=simulate, 2=predict, 3=control"},
    {"RTOL", 'D', 1, 1.0e-6, "Equation solution tolerance"},
    {"SCALING", 'I', 2, 1, "Variable and Equation Scaling: 0=OFF, 1=ON"},
    {"SENSITIVITY", 'I', 1, 0, "Sensitivity Analysis for Square Systems: 0=Off, 1=On"},
    {"SEQUENTIAL", 'I', 2, 0, "Sequential solution approach: 0=Off, 1=On"},
    {"SOLVER", 'I', 1, 1, "Solver options: 1=ASOPT, 2=BIOPT, 3=IPOPT, 4=IPOPT-v2.3, etc..."},
    {"SOLVESTATUS", 'I', 2, 1, "Solution solve status: 1=good"},
    {"SOLVETIME", 'D', 2, 1, "Solution time (seconds)"},
    {"SPECS", 'I', 1, 1, "Secifications from restart file: 1=ON, 0=OFF"},
    {"SPC_CHART", 'I', 1, 0, "Statistical Process Control (SPC) Chart Level"},
    {"STREAM_LEVEL", 'I', 1, 0, "Stream level options: 0=Mass Balance, 1=Mole and Energy Balances"},
    {"TIME_SHIFT", 'I', 1, 1, "Time shift for dynamic problems: 1=ON, 0=OFF"},
    {"WEB", 'I', 1, 1, "Generate HTML pages: 1=ON, 0=OFF"},
    {"WEB_MENU", 'I', 1, 1, "Generate HTML navigation menus: 1=ON, 0=OFF"},
    {"WEB_REFRESH", 'I', 1, 20, "Automatic refresh rate on HTML pages (default 20 minutes)"},
    {"WEB_PLOT_FREQ", 'I', 1, 1, "Automatic refresh rate on Plots (default 1 second)"},
};

constexpr int kMost = 2147483647;
// The documented ranges of integer options, as their descriptions give them.
constexpr OptionRange kRanges[] = {
    {"AUTO_COLD", 0, kMost},   {"BNDS_CHK", 0, 1},       {"COLDSTART", 0, 100},
    {"CSV_READ", 0, 2},        {"CSV_WRITE", 0, 1},      {"CTRL_HOR", 1, kMost},
    {"CTRL_UNITS", 1, 5},      {"CV_WGT_START", 0, kMost}, {"DBS_LEVEL", 0, 1},
    {"DIAGLEVEL", 0, kMost},   {"FRZE_CHK", 0, 1},       {"HIST_HOR", 0, kMost},
    {"HIST_UNITS", 0, 5},      {"ICD_CALC", 0, 1},       {"LINEAR", 0, 1},
    {"MAX_ITER", 1, kMost},    {"MEAS_CHK", 0, 1},       {"MV_STEP_HOR", 1, kMost},
    {"MV_TYPE", 0, 1},         {"PRED_HOR", 1, kMost},   {"REDUCE", 0, 2},
    {"REPLAY", 0, kMost},      {"REQCTRLMODE", 0, 3},    {"SCALING", 0, 1},
    {"SENSITIVITY", 0, 1},     {"SEQUENTIAL", 0, 1},     {"SPECS", 0, 1},
    {"TIME_SHIFT", 0, 1},      {"WEB", 0, 1},            {"WEB_MENU", 0, 1},
    {"WEB_PLOT_FREQ", 0, kMost}, {"WEB_REFRESH", 0, kMost},
};

// The DCOST default is the single-precision 1.0e-5 widened to double (9.999999747378752e-06).
constexpr double kDcostDefault = static_cast<double>(1.0e-5f);

// The per-variable properties, one row per name.
constexpr OptionDef kProperties[] = {
    {"AWS", 'I', 1, 0, "Anti-Windup Status for Manipulated Variables."},
    {"BIAS", 'D', 3, 0,
     "Additive Bias for Measured CVs.  DBS input when FSTATUS = 0.0, otherwise auto updated."},
    {"COST", 'D', 1, 0, "Cost weight: (+)=minimize, (-)=maximize"},
    {"CRITICAL", 'I', 1, 0, "Critical: 0=OFF, 1=ON"},
    {"DCOST", 'D', 1, kDcostDefault, "Delta cost penalty for MV movement"},
    {"DMAX", 'D', 1, kUnlimited, "Delta MV maximum step per horizon interval"},
    {"DMAXHI", 'D', 1, kUnlimited, "Delta MV positive maximum step per horizon interval"},
    {"DMAXLO", 'D', 1, -kUnlimited, "Delta MV negative maximum step per horizon interval"},
    {"DPRED", 'D', 2, 0, "Delta prediction changes for each step"},
    {"FDELAY", 'I', 1, 0, "Feedback delay: 0=No Delay, >=1 horizon steps for delay"},
    {"FSTATUS", 'D', 1, 1,
     "Feedback status: [1e-5 - 1] = ON (1 Default for FVs/MVs), 0=OFF (0 Default for "
     "SVs/CVs)"},
    {"LOWER", 'D', 1, kUnsetLower, "Lower bound"},
    {"LSTVAL", 'D', 2, kNoValue, "Last value from previous solution"},
    {"MEAS", 'D', 1, kNoValue, "Measured value"},
    {"MEAS_GAP", 'D', 1, 0.001, "Deadband for noise rejection of measurements in MHE"},
    {"MODEL", 'D', 2, kNoValue, "Model predicted value"},
    {"MV_STEP_HOR", 'I', 1, 0,
     "Step length for manipulated variables: 0 uses ZPM.MV_STEP_HOR as default"},
    {"NEWVAL", 'D', 2, kNoValue,
     "New value implemented by the estimator or controller (NEWVAL = MEAS when not in "
     "control)"},
    {"NXTVAL", 'D', 2, kNoValue,
     "Next value that the estimator or controller would implement were it on"},
    {"OSTATUS", 'I', 3, 0, "Bit encoding for status messages"},
    {"OSTATUSCHG", 'I', 1, 0, "Change in bit encoding for status messages"},
    {"PRED", 'D', 2, 1, "Prediction horizon"},
    {"PSTATUS", 'I', 1, 1, "Instrument status: 1=GOOD, 0=BAD"},
    {"REQONCTRL", 'I', 1, 0, "Required for control mode to be ON (3): 1=ON, 0=OFF"},
    {"SP", 'D', 1, kNoValue, "Set point for squared error model"},
    {"SPHI", 'D', 1, kNoValue, "Set point high for linear error model"},
    {"SPLO", 'D', 1, kNoValue, "Set point low for linear error model"},
    {"STATUS", 'I', 1, 0, "Status: 0=OFF, 1=ON"},
    {"TAU", 'D', 1, 1, "Time constant for controlled variable response"},
    {"TIER", 'I', 1, 1, "Successive optimization tiers 1-100 in ascending order"},
    {"TR_INIT", 'I', 1, 2,  // the text has no closing parenthesis
     "Traj initialization (0=dead-band, 1=re-center with coldstart/out-of-service, "
     "2=re-center always"},
    {"TR_OPEN", 'D', 1, 1, "Initial trajectory opening ratio (0=ref traj, 1=tunnel, 2=funnel)"},
    {"UPPER", 'D', 1, kUnsetUpper, "Upper bound"},
    {"VDVL", 'D', 1, kUnlimited, "Delta validity limit (moves 20% of violation)"},
    {"VLACTION", 'I', 1, 0, "Validity limit action (0=Use Last Value, 1=Move to Bound)"},
    {"VLHI", 'D', 1, kUnlimited, "Upper validity limit"},
    {"VLLO", 'D', 1, -kUnlimited, "Lower validity limit"},
    {"WMEAS", 'D', 1, 20, "Objective function weight on measured value"},
    {"WMODEL", 'D', 1, 2, "Objective function weight on model value"},
    {"WSP", 'D', 1, 20, "Objective function weight on set point for squared error model"},
    {"WSPHI", 'D', 1, 20, "Objective function weight on upper set point for linear error model"},
    {"WSPLO", 'D', 1, 20, "Objective function weight on lower set point for linear error model"},
};
constexpr std::string_view kFvProperties[] = {
    "CRITICAL", "DMAX",   "DMAXHI",     "DMAXLO",     "FSTATUS",       "LOWER",         "LSTVAL",
    "MEAS",     "NEWVAL", "OSTATUS[1]", "OSTATUS[2]", "OSTATUSCHG[1]", "OSTATUSCHG[2]", "PSTATUS",
    "STATUS",   "UPPER",  "VDVL",       "VLACTION",   "VLHI",          "VLLO"};

constexpr std::string_view kMvProperties[] = {
    "AWS",           "COST",   "CRITICAL", "DCOST",      "DMAX",       "DMAXHI",
    "DMAXLO",        "DPRED[", "FSTATUS",  "LOWER",      "LSTVAL",     "MEAS",
    "MV_STEP_HOR",   "NEWVAL", "NXTVAL",   "OSTATUS[1]", "OSTATUS[2]", "OSTATUSCHG[1]",
    "OSTATUSCHG[2]", "PRED[",  "PSTATUS",  "REQONCTRL",  "STATUS",     "TIER",
    "UPPER",         "VDVL",   "VLACTION", "VLHI",       "VLLO"};

constexpr std::string_view kSvProperties[] = {"FSTATUS", "LOWER", "MEAS",
                                              "MODEL",   "PRED[", "UPPER"};

constexpr std::string_view kCvProperties[] = {
    "BIAS",          "COST",     "CRITICAL", "FSTATUS",    "FDELAY",     "LOWER",
    "MEAS",          "MEAS_GAP", "MODEL",    "OSTATUS[1]", "OSTATUS[2]", "OSTATUSCHG[1]",
    "OSTATUSCHG[2]", "PRED[",    "PSTATUS",  "SP",         "SPHI",       "SPLO",
    "STATUS",        "TAU",      "TIER",     "TR_INIT",    "TR_OPEN",    "UPPER",      "VDVL",
    "VLACTION",      "WMEAS",    "WMODEL",   "WSP",        "WSPHI",      "WSPLO"};

constexpr std::string_view kOutcome[] = {"APPINFOCHG", "APPSTATUS",   "ITERATIONS",
                                         "OBJFCNVAL",  "SOLVESTATUS", "SOLVETIME"};

const OptionDef* FindIn(std::span<const OptionDef> table, std::string_view key) {
  for (const OptionDef& d : table)
    if (d.name == key) return &d;
  return nullptr;
}

}  // namespace

std::span<const OptionDef> GlobalOptionTable() { return kGlobals; }
std::span<const OptionDef> PropertyTable() { return kProperties; }
std::span<const std::string_view> OutcomeKeys() { return kOutcome; }

std::span<const std::string_view> ClassProperties(VarClass cls) {
  switch (cls) {
    case VarClass::kFV:
      return kFvProperties;
    case VarClass::kMV:
      return kMvProperties;
    case VarClass::kSV:
      return kSvProperties;
    case VarClass::kCV:
      return kCvProperties;
  }
  return {};
}

const OptionDef* FindGlobalDef(std::string_view key) { return FindIn(kGlobals, key); }

const OptionRange* FindGlobalRange(std::string_view key) {
  for (const OptionRange& r : kRanges)
    if (r.name == key) return &r;
  return nullptr;
}

const OptionDef* FindPropertyDef(std::string_view registered_name) {
  std::string_view base = registered_name.substr(0, registered_name.find('['));
  return FindIn(kProperties, base);
}

std::string_view ClassName(VarClass cls) {
  constexpr std::array<std::string_view, 4> kNames = {"FV", "MV", "SV", "CV"};
  return kNames[static_cast<int>(cls)];
}

std::optional<VarClass> ParseClass(std::string_view text) {
  std::string upper = ToUpper(Trim(text));
  for (VarClass c : {VarClass::kFV, VarClass::kMV, VarClass::kSV, VarClass::kCV})
    if (ClassName(c) == upper) return c;
  return std::nullopt;
}

}  // namespace kx::dbs
