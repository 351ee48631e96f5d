#include "solvers/asopt_options.h"

#include <cmath>
#include <fstream>
#include <sstream>

#include "base/base.h"
#include "base/file_writer.h"

namespace kx::solvers {
namespace {

constexpr std::array<std::string_view, kNumAsoptOptions> kOptionNames = {
    "minlp_maximum_iterations",
    "minlp_max_iter_with_int_sol",
    "minlp_as_nlp",
    "minlp_branch_method",
    "minlp_gap_tol",
    "minlp_integer_tol",
    "minlp_integer_max",
    "minlp_integer_leaves",
    "minlp_print_level",
    "nlp_print_level",
    "information_messages",
    "qp_print_level",
    "nlp_debug_level",
    "linear_solver_print_level",
    "backtrack_frequency",
    "dynamic_scaling",
    "trust_region_iterations",
    "move_suppression_level",
    "nlp_maximum_iterations",
    "initial_hessian_estimate_option",
    "step_bound_type",
    "damped_iterations",
    "line_search_start_mode",
    "feasibility_mode_iterations",
    "max_degrees_of_freedom",
    "objective_convergence_tolerance",
    "constraint_convergence_tolerance",
    "objective_function_unbounded_limit",
    "initial_mu_value",
    "trust_region_radius",
    "prediction_parameter",
    "line_search_tolerance",
    "qp_tolerance",
    "line_search_cutback_parameter",
    "line_search_cutback_multiplier",
    "machine_precision",
    "infinity",
    "maximum_constraint_norm",
    "feasible_path_objective_change",
    "objective_function_lower_limit",
    "minimum_hessian_eigenvalue",
    "maximum_hessian_eigenvalue",
    "fractional_subproblem_completion",
    "maximum_delta_x",
};

// The order of "asopt_current_options.opt".
constexpr std::array<AsoptOption, kNumAsoptOptions> kWriteOrder = {
    kMinlpMaximumIterations, kMinlpMaxIterWithIntSol, kMinlpAsNlp, kMinlpBranchMethod,
    kMinlpGapTol, kMinlpIntegerTol, kMinlpIntegerMax, kMinlpIntegerLeaves, kMinlpPrintLevel,
    kNlpMaximumIterations, kObjectiveConvergenceTolerance, kConstraintConvergenceTolerance,
    kNlpPrintLevel, kInformationMessages, kQpPrintLevel, kNlpDebugLevel,
    kLinearSolverPrintLevel, kMoveSuppressionLevel, kDampedIterations, kMaxDegreesOfFreedom,
    kBacktrackFrequency, kDynamicScaling, kTrustRegionIterations,
    kInitialHessianEstimateOption, kStepBoundType, kLineSearchStartMode,
    kFeasibilityModeIterations, kObjectiveFunctionUnboundedLimit, kInitialMuValue,
    kTrustRegionRadius, kPredictionParameter, kLineSearchTolerance, kQpTolerance,
    kLineSearchCutbackParameter, kLineSearchCutbackMultiplier, kMachinePrecision, kInfiniteBound,
    kMaximumConstraintNorm, kFeasiblePathObjectiveChange, kObjectiveFunctionLowerLimit,
    kMinimumHessianEigenvalue, kMaximumHessianEigenvalue, kFractionalSubproblemCompletion,
    kMaximumDeltaX};

constexpr std::array<std::string_view, AsoptParameters::kNumInteger> kIntegerLabels = {
    "BACKTRACK FREQUENCY", "DYNAMIC SCALING", "TRUST REGION ITERATIONS",
    "OBJECTIVE DERIVATIVES", "PRINT FREQUENCY", "PRINT LEVEL", "MOVE SUPPRESSION LEVEL",
    "NOVMAXF", "NOVMAXJ", "PROBLEM TYPE", "MAXIMUM ITERATIONS", "FEASIBILITY MODE", "NOVVNRM",
    "SOLUTION TECHNOLOGY OPTION", "HESSIAN ESTIMATE OPTION", "STEP BOUND TYPE",
    "INFORMATION MESSAGES", "DAMPED ITERATIONS", "QP SUBPROBLEM ITERATION DUMP",
    "OBJECTIVE FUNCTION INDICATOR", "NOVXPRM", "CONSOL LOGICAL UNIT NUMBER",
    "REPORT LOGICAL UNIT NUMBER", "POINTER TO NLP INTEGER WORKSPACE",
    "POINTER TO NLP REAL WORKSPACE", "DEBUG PRINTING", "COMPLEMENTARITY STATUS",
    "LINE SEARCH START MODE"};
constexpr std::array<int, AsoptParameters::kNumInteger> kIntegerDefaults = {
    2, 0, 0, 0, 1, 0, 10, 5, 0, 1, 50, 0, 1, 1, 1, 0, 0, 0, -1, 1, 0, 6, 6, 1, 1, 0, 0, 1};
// The option that sets each integer parameter, kNumAsoptOptions for none.
constexpr std::array<AsoptOption, AsoptParameters::kNumInteger> kIntegerSources = {
    kBacktrackFrequency, kDynamicScaling, kTrustRegionIterations, kNumAsoptOptions,
    kNumAsoptOptions, kNlpPrintLevel, kMoveSuppressionLevel, kNumAsoptOptions,
    kNumAsoptOptions, kNumAsoptOptions, kNlpMaximumIterations, kFeasibilityModeIterations,
    kNumAsoptOptions, kNumAsoptOptions, kInitialHessianEstimateOption, kStepBoundType,
    kInformationMessages, kDampedIterations, kQpPrintLevel, kNumAsoptOptions,
    kNumAsoptOptions, kNumAsoptOptions, kNumAsoptOptions, kNumAsoptOptions,
    kNumAsoptOptions, kNlpDebugLevel, kNumAsoptOptions, kLineSearchStartMode};

constexpr std::array<std::string_view, AsoptParameters::kNumReal> kRealLabels = {
    "OBJECTIVE PERTURBATION SIZE", "CONSTRAINT PERTURBATION SIZE",
    "OBJECTIVE CONVERGENCE TOLERANCE", "CONSTRAINT CONVERGENCE TOLERANCE",
    "OBJECTIVE FUNCTION UNBOUNDED LIMIT", "INITIAL MU VALUE.", "TRUST REGION RADIUS",
    "PREDICTION PARAMETER", "LINE SEARCH TOLERANCE", "QP TOLERANCE",
    "LINE SEARCH CUTBACK PARAMETER", "LINE SEARCH CUTBACK MULTIPLIER", "MACHINE PRECISION",
    "INFINITY", "MAXIMUM CONSTRAINT NORM", "FEASIBLE PATH OBJECTIVE CHANGE",
    "OBJECTIVE FUNCTION LOWER LIMIT", "MINIMUM HESSIAN EIGENVALUE",
    "MAXIMUM HESSIAN EIGENVALUE", "FRACTIONAL SUBPROBLEM COMPLETION", "MAXIMUM DELTA X"};
constexpr std::array<AsoptOption, AsoptParameters::kNumReal> kRealSources = {
    kNumAsoptOptions, kNumAsoptOptions, kObjectiveConvergenceTolerance,
    kConstraintConvergenceTolerance, kObjectiveFunctionUnboundedLimit, kInitialMuValue,
    kTrustRegionRadius, kPredictionParameter, kLineSearchTolerance, kQpTolerance,
    kLineSearchCutbackParameter, kLineSearchCutbackMultiplier, kMachinePrecision, kInfiniteBound,
    kMaximumConstraintNorm, kFeasiblePathObjectiveChange, kObjectiveFunctionLowerLimit,
    kMinimumHessianEigenvalue, kMaximumHessianEigenvalue, kFractionalSubproblemCompletion,
    kMaximumDeltaX};

// The real parameter table's built-in defaults; eps is the machine precision.
std::array<double, AsoptParameters::kNumReal> RealDefaults(double eps) {
  const double t = std::pow(eps, 2.0 / 3.0);
  const double s = std::sqrt(10.0 * t);
  return {s,     s,    5 * s, 5 * s, -1e15, 1e-20, 1e20, 0.1,    0.1, t,   0.99,
          0.1,   eps,  1e30,  2.0,   1e20,  -1e15, 1e-8, 1e12,   1.0, 1e10};
}

constexpr size_t kLineBuffer = 100;  // characters of a line that the reader keeps

}  // namespace

std::string_view AsoptOptionName(AsoptOption option) { return kOptionNames[option]; }

AsoptOption FindAsoptOption(std::string_view lower_name) {
  for (int i = 0; i < kNumAsoptOptions; ++i) {
    if (kOptionNames[i] == lower_name) return static_cast<AsoptOption>(i);
  }
  return kNumAsoptOptions;
}

double ComputeMachinePrecision() {
  volatile double eps = 1.0;
  volatile double sum = 2.0;
  while (sum > 1.0) {
    eps = eps / 2.0;
    sum = 1.0 + eps / 2.0;
  }
  return eps;
}

std::string_view IntegerParameterLabel(int index) { return kIntegerLabels[index]; }
std::string_view RealParameterLabel(int index) { return kRealLabels[index]; }

AsoptOptions::AsoptOptions() {
  values_.fill(0.0);
  for (int i = 0; i < AsoptParameters::kNumInteger; ++i) {
    if (kIntegerSources[i] != kNumAsoptOptions) values_[kIntegerSources[i]] = kIntegerDefaults[i];
  }
  const auto reals = RealDefaults(ComputeMachinePrecision());
  for (int i = 0; i < AsoptParameters::kNumReal; ++i) {
    if (kRealSources[i] != kNumAsoptOptions) values_[kRealSources[i]] = reals[i];
  }
  // Options without a parameter of the same meaning, and print levels.
  values_[kMinlpMaximumIterations] = 10000;
  values_[kMinlpMaxIterWithIntSol] = 500;
  values_[kMinlpAsNlp] = 0;
  values_[kMinlpBranchMethod] = 1;
  values_[kMinlpGapTol] = 1e-6;
  values_[kMinlpIntegerTol] = 1e-2;
  values_[kMinlpIntegerMax] = 2e9;
  values_[kMinlpIntegerLeaves] = 2;
  values_[kMinlpPrintLevel] = 1;
  values_[kNlpPrintLevel] = 1;
  values_[kQpPrintLevel] = 0;
  values_[kNlpDebugLevel] = 0;
  values_[kLinearSolverPrintLevel] = 0;
  values_[kFeasibilityModeIterations] = 0;
  values_[kMaxDegreesOfFreedom] = 2e9;
}

int AsoptOptions::Int(AsoptOption option) const {
  const double v = values_[option];
  if (v >= 2e9) return 2000000000;
  if (v <= -2e9) return -2000000000;
  return static_cast<int>(std::lround(v));
}

void AsoptOptions::Set(AsoptOption option, double value) {
  values_[option] = value;
  set_[option] = true;
}

void AsoptOptions::Read(const std::string& path) {
  std::ifstream in(path);
  if (!in) return;
  std::string line;
  int line_number = 0;
  while (std::getline(in, line)) {
    ++line_number;
    if (line.size() > kLineBuffer) line.resize(kLineBuffer);
    ReadLine(line, line_number);
  }
}

void AsoptOptions::ReadLine(std::string_view raw, int line_number) {
  std::string text(raw.substr(0, raw.find_first_of("!#%")));
  for (char& c : text) {
    if (c == '\t' || c == '\r') c = ' ';
  }
  const std::string_view body = Trim(text);
  if (body.empty()) return;
  const size_t blank = body.find(' ');
  const std::string name = ToLower(body.substr(0, blank));
  const std::string_view value_text =
      blank == std::string_view::npos ? std::string_view() : Trim(body.substr(blank));
  const AsoptOption option = FindAsoptOption(name);
  if (option == kNumAsoptOptions) {
    Say("Unknown option: " + name);
    return;
  }
  const std::optional<double> value = ParseNumber(value_text);
  if (!value) {
    Sayf("Invalid syntax in options file (asopt.opt) at line {}", line_number);
    Say("Line  : " + std::string(Trim(raw)));
    Say("Option: " + name);
    Say("Value : " + std::string(value_text));
    return;
  }
  Set(option, *value);
}

bool AsoptOptions::Write(const std::string& path) const {
  std::ostringstream out;
  out << " !   Current options for solver ASOPT\n";
  out << " !   Save file as asopt.opt and modify options\n";
  for (AsoptOption option : kWriteOrder) {
    out << fmt::format("{:<36} {}", kOptionNames[option], FormatReal(values_[option]));
    if (option == kInitialHessianEstimateOption) {
      out << " ! (0=unscaled I(n), 1=scaled I(n), 2+=finite diff";
    }
    out << '\n';
  }
  return WriteFileAtomically(path, out.str());
}

AsoptParameters MapParameters(const AsoptOptions& options) {
  AsoptParameters p;
  for (int i = 0; i < AsoptParameters::kNumInteger; ++i) {
    p.integers[i] = kIntegerSources[i] == kNumAsoptOptions ? kIntegerDefaults[i]
                                                            : options.Int(kIntegerSources[i]);
  }
  const auto reals = RealDefaults(options[kMachinePrecision]);
  for (int i = 0; i < AsoptParameters::kNumReal; ++i) {
    p.reals[i] = kRealSources[i] == kNumAsoptOptions ? reals[i] : options[kRealSources[i]];
  }
  return p;
}

}  // namespace kx::solvers
