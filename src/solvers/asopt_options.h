// solvers/asopt_options: the tuning options of the built-in active-set SQP solver ASOPT, read
// from "asopt.opt" and written to "asopt_current_options.opt", and the solver's integer and
// real parameter tables that its listings show under upper-case labels.
//
// Every option is one number. The 44 names are kept in the lookup order of the file reader;
// the written file uses its own order. Each option is used by the method: docs/solvers.md
// (section ASOPT) says what each one does.
#pragma once

#include <array>
#include <string>
#include <string_view>

namespace kx::solvers {

// The options in lookup order; the enumerator value is the 0-based index into the tables.
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
  kNlpPrintLevel,
  kInformationMessages,
  kQpPrintLevel,
  kNlpDebugLevel,
  kLinearSolverPrintLevel,
  kBacktrackFrequency,
  kDynamicScaling,
  kTrustRegionIterations,
  kMoveSuppressionLevel,
  kNlpMaximumIterations,
  kInitialHessianEstimateOption,
  kStepBoundType,
  kDampedIterations,
  kLineSearchStartMode,
  kFeasibilityModeIterations,
  kMaxDegreesOfFreedom,
  kObjectiveConvergenceTolerance,
  kConstraintConvergenceTolerance,
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

// The name of an option as written in the files ("minlp_maximum_iterations", ...).
std::string_view AsoptOptionName(AsoptOption option);
// The option with this lower-case name, or kNumAsoptOptions when there is none.
AsoptOption FindAsoptOption(std::string_view lower_name);

// Machine precision found by halving 1 until 1 + e/2 no longer differs from 1.
double ComputeMachinePrecision();

// The values of all options. Construction fills the built-in defaults.
class AsoptOptions {
 public:
  AsoptOptions();

  double operator[](AsoptOption option) const { return values_[option]; }
  int Int(AsoptOption option) const;
  void Set(AsoptOption option, double value);
  // Changes a default: the option still counts as not set.
  void SetDefault(AsoptOption option, double value) { values_[option] = value; }
  // True once the options file (or Set) has given the option a value.
  bool WasSet(AsoptOption option) const { return set_[option]; }

  // Reads `path` ("asopt.opt" in the run directory). A missing file changes nothing. Unknown
  // names and values that are not numbers are reported and skipped.
  void Read(const std::string& path = "asopt.opt");
  // Writes every option in the order of the current-options file; false when the file cannot
  // be opened.
  bool Write(const std::string& path = "asopt_current_options.opt") const;

 private:
  void ReadLine(std::string_view raw, int line_number);

  std::array<double, kNumAsoptOptions> values_;  // current value of each option
  std::array<bool, kNumAsoptOptions> set_{};     // true when set after construction
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
