// solvers/asopt_options: the tuning options of the built-in active-set SQP solver ASOPT, read
// from "asopt.opt" and written to "asopt_current_options.opt", and the solver's integer and
// real parameter tables that its listings show under upper-case labels.
//
// Every option is one number; one table row per option (AsoptOptionTable) gives its name,
// type, default, range and text. docs/asopt_options.md is generated from the table.
#pragma once

#include <array>
#include <string>
#include <string_view>

namespace kx::solvers {

// The options in the order of the option table (and of "asopt_current_options.opt"); the
// enumerator value is the 0-based index into the table.
enum AsoptOption : int {
  kMinlpMaximumIterations,
  kMinlpMaxIterWithIntSol,
  kMinlpAsNlp,
  kMinlpBranchMethod,
  kMinlpGapTol,
  kMinlpIntegerTol,
  kMinlpIntegerMax,
  kMinlpIntegerLeaves,
  kMinlpPrintLevel,
  kNlpMaximumIterations,
  kObjectiveConvergenceTolerance,
  kConstraintConvergenceTolerance,
  kNlpPrintLevel,
  kInformationMessages,
  kQpPrintLevel,
  kNlpDebugLevel,
  kLinearSolverPrintLevel,
  kMoveSuppressionLevel,
  kDampedIterations,
  kMaxDegreesOfFreedom,
  kBacktrackFrequency,
  kDynamicScaling,
  kTrustRegionIterations,
  kInitialHessianEstimateOption,
  kStepBoundType,
  kLineSearchStartMode,
  kFeasibilityModeIterations,
  kObjectiveFunctionUnboundedLimit,
  kInitialMuValue,
  kTrustRegionRadius,
  kPredictionParameter,
  kLineSearchTolerance,
  kQpTolerance,
  kLineSearchCutbackParameter,
  kLineSearchCutbackMultiplier,
  kMachinePrecision,
  kInfiniteBound,
  kMaximumConstraintNorm,
  kFeasiblePathObjectiveChange,
  kObjectiveFunctionLowerLimit,
  kMinimumHessianEigenvalue,
  kMaximumHessianEigenvalue,
  kFractionalSubproblemCompletion,
  kMaximumDeltaX,
  kNumAsoptOptions
};

// Where an option's default comes from: the table's value, or one computed at run time.
enum class AsoptDefault : char {
  kFixed,         // default_value
  kEps,           // the machine precision eps, found at run time
  kEpsTwoThirds,  // eps^(2/3)
  kRunOtol,       // the run's OTOL; without a run 5 sqrt(10 eps^(2/3))
  kRunRtol,       // the run's RTOL; without a run as kRunOtol
  kRunMaxIter,    // the run's MAX_ITER; without a run default_value
};

// One row of the option table: it drives the defaults, the reading of "asopt.opt" (name and
// range), "asopt_current_options.opt" and the page docs/asopt_options.md.
struct AsoptOptionRecord {
  std::string_view name;         // as written in the files
  char type;                     // 'I' integer (rounded when used), 'D' real
  AsoptDefault rule;             // where the default comes from
  double default_value;          // the default (kFixed, kRunMaxIter)
  double lower, upper;           // values outside are refused when read
  std::string_view text;         // what the option does
  std::string_view file_note = "";  // comment after the value in the written file
};

// The table, indexed by AsoptOption.
const std::array<AsoptOptionRecord, kNumAsoptOptions>& AsoptOptionTable();
// The name of an option as written in the files ("minlp_maximum_iterations", ...).
std::string_view AsoptOptionName(AsoptOption option);
// The option with this lower-case name, or kNumAsoptOptions when there is none.
AsoptOption FindAsoptOption(std::string_view lower_name);
// The page docs/asopt_options.md, generated from the table.
std::string RenderAsoptOptionsMarkdown();

// Machine precision found by halving 1 until 1 + e/2 no longer differs from 1.
double ComputeMachinePrecision();

// The values of all options. Construction fills the built-in defaults.
class AsoptOptions {
 public:
  AsoptOptions();
  // The defaults with the run's OTOL, RTOL and MAX_ITER for the options that follow them.
  AsoptOptions(double objective_tol, double constraint_tol, int max_iter);

  double operator[](AsoptOption option) const { return values_[option]; }
  int Int(AsoptOption option) const;
  void Set(AsoptOption option, double value) { values_[option] = value; }

  // Reads `path` ("asopt.opt" in the run directory). A missing file changes nothing. Unknown
  // names, values that are not numbers and values outside the option's range are reported
  // and skipped.
  void Read(const std::string& path = "asopt.opt");
  // Writes every option in the order of the current-options file; false when the file cannot
  // be opened.
  bool Write(const std::string& path = "asopt_current_options.opt") const;

 private:
  void ReadLine(std::string_view raw, int line_number);
  void FillDefaults(double eps);

  std::array<double, kNumAsoptOptions> values_;  // current value of each option
};

// The solver's parameter tables, filled from the options at the start of a solve ("Map
// system parameters") and printed in the debug listing of "ASOPT.out".
struct AsoptParameters {
  static constexpr int kNumInteger = 28;
  static constexpr int kNumReal = 21;
  std::array<int, kNumInteger> integers;  // in the order of IntegerParameterLabel
  std::array<double, kNumReal> reals;     // in the order of RealParameterLabel
};

std::string_view IntegerParameterLabel(int index);  // "BACKTRACK FREQUENCY", ...
std::string_view RealParameterLabel(int index);     // "OBJECTIVE PERTURBATION SIZE", ...

// Built-in defaults of both tables, then the values the options give.
AsoptParameters MapParameters(const AsoptOptions& options);

}  // namespace kx::solvers
