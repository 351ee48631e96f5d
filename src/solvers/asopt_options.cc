#include "solvers/asopt_options.h"

#include <cmath>
#include <fstream>
#include <limits>
#include <sstream>

#include "base/base.h"
#include "base/file_writer.h"

namespace kx::solvers {
namespace {

// The range of an option holds every value with a meaning of its own; a value outside it would
// act as the default does, so refusing it only adds the message.
constexpr double kNoLimit = std::numeric_limits<double>::infinity();

using enum AsoptDefault;

// One row per option, in the order of AsoptOption and of the written file.
constexpr std::array<AsoptOptionRecord, kNumAsoptOptions> kTable = {{
    {"minlp_maximum_iterations", 'I', kFixed, 10000, -kNoLimit, kNoLimit,
     "most leaves solved; then the best integer solution is returned (status -9 without one)"},
    {"minlp_max_iter_with_int_sol", 'I', kFixed, 500, -kNoLimit, kNoLimit,
     "most leaves solved once an integer solution exists; then the best one is returned"},
    {"minlp_as_nlp", 'I', kFixed, 0, -kNoLimit, kNoLimit,
     "1 solves the relaxation only (integer variables treated as continuous)"},
    {"minlp_branch_method", 'I', kFixed, 1, 1, 3,
     "leaf selection: 1 lowest bound (best bound), 2 deepest first, 3 shallowest first"},
    {"minlp_gap_tol", 'D', kFixed, 1e-6, -kNoLimit, kNoLimit,
     "relative gap between best integer objective and best open bound that ends the search"},
    {"minlp_integer_tol", 'D', kFixed, 1e-2, -kNoLimit, kNoLimit,
     "distance from an integer within which a value counts as integer"},
    {"minlp_integer_max", 'D', kFixed, 2e9, -kNoLimit, kNoLimit,
     "values beyond this magnitude are not branched on"},
    {"minlp_integer_leaves", 'I', kFixed, 2, 1, 2,
     "1 dives: only the child nearest the relaxed value is opened; 2 opens both children"},
    {"minlp_print_level", 'I', kFixed, 1, -kNoLimit, kNoLimit,
     "1 the branch-and-bound events on the console (iteration frame and line, integer "
     "solutions, leaves dropped as duplicates or past a bound, failed leaves, the end of the "
     "search), 2 also the step trace, 10 the final point listing"},
    {"nlp_maximum_iterations", 'I', kRunMaxIter, 50, -kNoLimit, kNoLimit,
     "most SQP iterations per NLP (status -9)"},
    {"objective_convergence_tolerance", 'D', kRunOtol, 0, -kNoLimit, kNoLimit,
     "largest scaled first-order error at convergence"},
    {"constraint_convergence_tolerance", 'D', kRunRtol, 0, -kNoLimit, kNoLimit,
     "largest row violation at convergence; also the feasibility level of the unbounded test"},
    {"nlp_print_level", 'I', kFixed, 1, -kNoLimit, kNoLimit,
     "1 the final status line on the console (DIAGLEVEL >= 1), 2 every iteration line as well"},
    {"information_messages", 'I', kFixed, 0, 0, kNoLimit,
     "1 lists the inputs of the branch and bound (sizes, mode, start point with bounds, "
     "integer variables, row bounds) on the console and in the log"},
    {"qp_print_level", 'I', kFixed, 0, 0, kNoLimit,
     "1 and more: \"ASOPT.out\" gets one line per start-up pass of the QP (working-set size, "
     "constraints added and dropped) and one per QP iteration (working-set size, step length, "
     "the constraint added or dropped, or \"optimal\")"},
    {"nlp_debug_level", 'I', kFixed, 0, 0, kNoLimit,
     "1 prints the residual evaluation dump of the start point on the console and writes the "
     "integer and real parameter tables to the log"},
    {"linear_solver_print_level", 'I', kFixed, 0, 0, kNoLimit,
     "1 and more: \"ASOPT.out\" gets one line per KKT factorisation (dense or sparse, size, "
     "non-zeros, negative and null pivots, seconds)"},
    {"move_suppression_level", 'I', kFixed, 10, -kNoLimit, kNoLimit,
     "most step cut backs in one line search"},
    {"damped_iterations", 'I', kFixed, 0, -kNoLimit, kNoLimit,
     "the first this many iterations start their line search at step 0.5"},
    {"max_degrees_of_freedom", 'I', kFixed, 2e9, -kNoLimit, kNoLimit,
     "more free variables than this (minus equality rows) stops with status -4"},
    {"backtrack_frequency", 'I', kFixed, 2, -kNoLimit, kNoLimit,
     "second-order corrections per iteration; more (up to 10) only while each cuts the "
     "violation tenfold; 0 none"},
    {"dynamic_scaling", 'I', kFixed, 0, -kNoLimit, kNoLimit,
     "1 divides each row by its largest Jacobian entry at the start"},
    {"trust_region_iterations", 'I', kFixed, 0, -kNoLimit, kNoLimit,
     "the first this many iterations bound each step component by `trust_region_radius`"},
    {"initial_hessian_estimate_option", 'I', kFixed, 1, -kNoLimit, kNoLimit,
     "Hessian estimate for a problem without second derivatives (with them the exact Hessian "
     "is always used): 0 the identity, 1 the identity scaled by s'y/s's of the last step (s "
     "the step, y the change of the Lagrangian gradient), 2 or more the diagonal of finite "
     "differences of the Lagrangian gradient (one gradient and Jacobian evaluation per "
     "variable), each entry kept within the Hessian eigenvalue limits",
     " ! (0=unscaled I(n), 1=scaled I(n), 2+=finite diff"},
    {"step_bound_type", 'I', kFixed, 0, 0, 1,
     "0 `maximum_delta_x` is an absolute bound on each step component, 1 relative to "
     "max(1, abs(x))"},
    {"line_search_start_mode", 'I', kFixed, 1, 0, 1,
     "1 every line search starts at the full step, 0 at twice the last accepted step (at "
     "most 1)"},
    {"feasibility_mode_iterations", 'I', kFixed, 0, -kNoLimit, kNoLimit,
     "most consecutive feasibility-mode iterations before status -1 (0 no limit)"},
    {"objective_function_unbounded_limit", 'D', kFixed, -1e15, -kNoLimit, kNoLimit,
     "a feasible objective below it means unbounded"},
    {"initial_mu_value", 'D', kFixed, 1e-20, -kNoLimit, kNoLimit, "smallest merit penalty nu"},
    {"trust_region_radius", 'D', kFixed, 1e20, -kNoLimit, kNoLimit,
     "step bound in the first `trust_region_iterations` iterations"},
    {"prediction_parameter", 'D', kFixed, 0.1, -kNoLimit, kNoLimit,
     "merit penalty margin: nu is at least (1 + this) times the largest multiplier"},
    {"line_search_tolerance", 'D', kFixed, 0.1, -kNoLimit, kNoLimit,
     "fraction of the predicted merit decrease a step must achieve (Armijo)"},
    {"qp_tolerance", 'D', kEpsTwoThirds, 0, -kNoLimit, kNoLimit,
     "QP feasibility and multiplier tolerance (used times 1000, lowered at an infeasible "
     "point; see docs/solvers.md, QP tolerance)"},
    {"line_search_cutback_parameter", 'D', kFixed, 0.99, -kNoLimit, kNoLimit,
     "a cut back gives at most this (and at most 0.5) times the last trial step"},
    {"line_search_cutback_multiplier", 'D', kFixed, 0.1, -kNoLimit, kNoLimit,
     "a cut back gives at least this times the last trial step"},
    {"machine_precision", 'D', kEps, 0, -kNoLimit, kNoLimit,
     "rounding level of the merit comparison"},
    {"infinity", 'D', kFixed, 1e30, -kNoLimit, kNoLimit,
     "bounds of this magnitude or more are absent (never above 1e20, the problem's own limit)"},
    {"maximum_constraint_norm", 'D', kFixed, 2.0, -kNoLimit, kNoLimit,
     "a trial point may raise the row violation at most by this factor"},
    {"feasible_path_objective_change", 'D', kFixed, 1e20, -kNoLimit, kNoLimit,
     "largest objective rise a trial point may make"},
    {"objective_function_lower_limit", 'D', kFixed, -1e15, -kNoLimit, kNoLimit,
     "any objective below it means unbounded"},
    {"minimum_hessian_eigenvalue", 'D', kFixed, 1e-8, -kNoLimit, kNoLimit,
     "smallest Hessian shift delta; least entry of a Hessian estimate"},
    {"maximum_hessian_eigenvalue", 'D', kFixed, 1e12, -kNoLimit, kNoLimit,
     "a shift above this ends the solve with status -11; largest entry of a Hessian estimate"},
    {"fractional_subproblem_completion", 'D', kFixed, 1.0, -kNoLimit, kNoLimit,
     "scales the QP iteration limit max(100, 10 (n + m))"},
    {"maximum_delta_x", 'D', kFixed, 1e10, -kNoLimit, kNoLimit,
     "largest step component; a feasible point this far out means unbounded"},
}};

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

std::string BoundText(double v) {
  if (std::isinf(v)) return v < 0 ? "-inf" : "inf";
  return FormatReal(v);
}

std::string RangeText(const AsoptOptionRecord& r) {
  return "[" + BoundText(r.lower) + ", " + BoundText(r.upper) + "]";
}

std::string DefaultText(const AsoptOptionRecord& r) {
  switch (r.rule) {
    case AsoptDefault::kEps:
      return "eps, found at run time";
    case kEpsTwoThirds:
      return "eps^(2/3), about 3.7e-11";
    case kRunOtol:
      return "OTOL";
    case kRunRtol:
      return "RTOL";
    case kRunMaxIter:
      return "MAX_ITER";
    default:
      return FormatReal(r.default_value);
  }
}

}  // namespace

const std::array<AsoptOptionRecord, kNumAsoptOptions>& AsoptOptionTable() { return kTable; }

std::string_view AsoptOptionName(AsoptOption option) { return kTable[option].name; }

AsoptOption FindAsoptOption(std::string_view lower_name) {
  for (int i = 0; i < kNumAsoptOptions; ++i) {
    if (kTable[i].name == lower_name) return static_cast<AsoptOption>(i);
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

std::string RenderAsoptOptionsMarkdown() {
  std::string out =
      "# ASOPT options\n\n"
      "<!-- Generated from src/solvers/asopt_options.cc; tests/solvers/asopt_options_test.cc "
      "fails when this page drifts. Regenerate with KX_UPDATE_DOCS=1 "
      "build-dir/tests/kx_solvers_tests. -->\n\n"
      "Read from \"asopt.opt\" in the run directory, one `name value` per line (`!`, `#` and "
      "`%` start a comment); written, in this order, to \"asopt_current_options.opt\" at "
      "DIAGLEVEL 1 and above. Type: `I` integer (rounded when used), `D` real. A value outside "
      "the range is reported and skipped. OTOL, RTOL and MAX_ITER are the run's options.\n\n"
      "| option | type | default | range | what it does |\n|---|---|---|---|---|\n";
  for (const AsoptOptionRecord& r : kTable) {
    out += fmt::format("| `{}` | {} | {} | {} | {} |\n", r.name, r.type, DefaultText(r),
                       RangeText(r), r.text);
  }
  return out;
}

std::string_view IntegerParameterLabel(int index) { return kIntegerLabels[index]; }
std::string_view RealParameterLabel(int index) { return kRealLabels[index]; }

AsoptOptions::AsoptOptions() { FillDefaults(ComputeMachinePrecision()); }

AsoptOptions::AsoptOptions(double objective_tol, double constraint_tol, int max_iter)
    : AsoptOptions() {
  for (int i = 0; i < kNumAsoptOptions; ++i) {
    const AsoptDefault rule = kTable[i].rule;
    if (rule == kRunOtol) values_[i] = objective_tol;
    if (rule == kRunRtol) values_[i] = constraint_tol;
    if (rule == kRunMaxIter) values_[i] = max_iter;
  }
}

void AsoptOptions::FillDefaults(double eps) {
  const double qp_tol = std::pow(eps, 2.0 / 3.0);
  for (int i = 0; i < kNumAsoptOptions; ++i) {
    switch (kTable[i].rule) {
      case AsoptDefault::kEps:
        values_[i] = eps;
        break;
      case kEpsTwoThirds:
        values_[i] = qp_tol;
        break;
      case kRunOtol:
      case kRunRtol:
        values_[i] = 5 * std::sqrt(10.0 * qp_tol);
        break;
      default:
        values_[i] = kTable[i].default_value;
    }
  }
}

int AsoptOptions::Int(AsoptOption option) const {
  const double v = values_[option];
  if (v >= 2e9) return 2000000000;
  if (v <= -2e9) return -2000000000;
  return static_cast<int>(std::lround(v));
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
  const AsoptOptionRecord& record = kTable[option];
  const bool in_range = value && *value >= record.lower && *value <= record.upper;
  if (!in_range) {
    Sayf("{} in options file (asopt.opt) at line {}", value ? "Value out of range" : "Invalid syntax",
         line_number);
    Say("Line  : " + std::string(Trim(raw)));
    Say("Option: " + name);
    Say("Value : " + std::string(value_text));
    if (value) Say("Range : " + RangeText(record));
    return;
  }
  Set(option, *value);
}

bool AsoptOptions::Write(const std::string& path) const {
  std::ostringstream out;
  out << " !   Current options for solver ASOPT\n";
  out << " !   Save file as asopt.opt and modify options\n";
  for (int i = 0; i < kNumAsoptOptions; ++i) {
    out << fmt::format("{:<36} {}{}\n", kTable[i].name, FormatReal(values_[i]),
                       kTable[i].file_note);
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
