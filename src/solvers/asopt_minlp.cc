#include "solvers/asopt_minlp.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "base/base.h"
#include "solvers/status.h"

namespace kx::solvers {
namespace {

// One trial problem of the tree.
struct Leaf {
  std::vector<double> xl, xu;  // the leaf's variable bounds
  int depth = 0;
  double bound = -std::numeric_limits<double>::infinity();  // parent's objective
  bool solved = false;
  SqpState start;              // parent's final point, multipliers and working set
  int order = 0;               // creation number
};

class BranchAndBound {
 public:
  BranchAndBound(ProblemView& nlp, const SqpControl& control)
      : nlp_(nlp), control_(control), options_(*control.options) {}
  MinlpOutcome Run(std::vector<double> x, SqpState& state);

 private:
  // A step of the trace (console at print level 2) and an event of the search (level 1).
  void Step(const std::string& text) { Trace(text, options_.Int(kMinlpPrintLevel) >= 2); }
  void Event(const std::string& text) { Trace(text, options_.Int(kMinlpPrintLevel) >= 1); }
  void Trace(const std::string& text, bool console) {
    if (control_.log) control_.log->Line(text, console);
  }
  bool CheckInputs();
  void ListInputs(const std::vector<double>& x);
  int NextLeaf() const;
  double LowestOpenBound() const;
  double Gap() const;
  SqpOutcome SolveLeaf(Leaf& leaf, const std::vector<double>& x, int& nlp_its);
  bool IsIntegral(const std::vector<double>& x) const;
  void RecordInteger(const SqpOutcome& out, bool root);
  void Branch(const Leaf& leaf, const SqpOutcome& out, const SqpState& state);
  bool AddLeaf(Leaf leaf, bool upper_side, int var);
  void PrintIterationLine(int k, const SqpOutcome& out, int nlp_its, const Leaf& leaf);
  void ListFinal(const SqpOutcome& out);
  MinlpOutcome SolveContinuous(Leaf& root, const std::vector<double>& x, SqpState& state);
  bool SearchEnds(int index, int k);
  SqpOutcome SolveLeafOfIteration(int index, int k, const std::vector<double>& x,
                                  SqpState& state, MinlpOutcome& result);
  SqpOutcome BestOutcome(SqpOutcome last, const std::vector<double>& x) const;

  ProblemView& nlp_;
  const SqpControl& control_;
  const AsoptOptions& options_;
  std::vector<int> integers_;       // integer variables branched on
  std::vector<Leaf> leaves_;        // open and solved leaves
  bool have_integer_ = false;
  SqpOutcome best_;                 // best integer solution
  int created_ = 0;
  int since_integer_ = 0;           // leaves solved since the first integer solution
  int limit_status_ = kNoFeasibleSolution;  // status of a search ending without an integer
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

bool BranchAndBound::CheckInputs() {
  Step("* Step: Map system parameters");
  Step("* Step: Check input to solver");
  if (options_.Int(kNlpMaximumIterations) <= 0) Trace("Warning: Max iterations <= 0", true);
  Step("* Step: Compute degrees of freedom");
  int ndf = 0;
  for (int j = 0; j < nlp_.n(); ++j) ndf += nlp_.xl()[j] != nlp_.xu()[j];
  for (int i = 0; i < nlp_.m(); ++i) ndf -= nlp_.cl()[i] == nlp_.cu()[i];
  Step(fmt::format("* Result: ndf = {}", ndf));
  if (ndf > options_[kMaxDegreesOfFreedom]) {
    Trace(fmt::format("Error: {} degrees of freedom exceed max_degrees_of_freedom {}", ndf,
                      FormatReal(options_[kMaxDegreesOfFreedom])),
          true);
    return false;
  }
  Step("* Step: Partition workspace");
  Step("* Step: Save initial values");
  return true;
}

constexpr const char* kModeTexts[] = {
    "cold start, use identity basis initially.",
    "Equalities in initial active set.",
    "User supplied active set.",
    "Active set from previous call.",
    "Use Jacobian from previous call.",
    "Use Hessian from previous call.",
    "Use Jacobian, Hessian from previous call.",
    "Only bounds on inactive constraints were changed."};

// The inputs of the search: sizes, mode, start point with bounds, integer variables and row
// bounds (information_messages 1 and more).
void BranchAndBound::ListInputs(const std::vector<double>& x) {
  const auto say = [&](const std::string& text) { Trace(text, true); };
  const int mode = static_cast<int>(control_.mode);
  say("  Subroutine Ace_MINLP_solve Inputs  ");
  say(fmt::format("{:10d} number of variables (n).", nlp_.n()));
  say(fmt::format("{:10d} number of general constraints (m).", nlp_.m()));
  say(fmt::format("{:10d} number of integer variables (ni).", integers_.size()));
  say(fmt::format("{:10d} number of zeros in the constraint derivative matrix (nz).",
                  nlp_.jac_rows().size()));
  say(fmt::format("{:10d} parametric mode with: {}", mode, kModeTexts[mode]));
  say("Initial Variable Values with Bounds");
  say(fmt::format("{:>8} {:>14} {:>14} {:>14}", "Index", "Lower", "Value", "Upper"));
  for (int j = 0; j < nlp_.n(); ++j) {
    say(fmt::format("{:>8} {:>14.6e} {:>14.6e} {:>14.6e}", j + 1, nlp_.xl()[j], x[j], nlp_.xu()[j]));
  }
  say("Integer Variables");
  for (int j : integers_) say(fmt::format("{:>8}", j + 1));
  say("Constraint Bounds");
  for (int i = 0; i < nlp_.m(); ++i) {
    say(fmt::format("{:>8} {:>14.6e} {:>14.6e}", i + 1, nlp_.cl()[i], nlp_.cu()[i]));
  }
}

// The open leaf to solve next: lowest bound (branch method 1), deepest (2) or shallowest (3);
// ties go to the deeper leaf, then to the newer one.
int BranchAndBound::NextLeaf() const {
  const int method = options_.Int(kMinlpBranchMethod);
  int best = -1;
  auto better = [&](const Leaf& a, const Leaf& b) {
    if (method == 2 && a.depth != b.depth) return a.depth > b.depth;
    if (method == 3 && a.depth != b.depth) return a.depth < b.depth;
    if (method != 2 && method != 3 && a.bound != b.bound) return a.bound < b.bound;
    if (a.depth != b.depth) return a.depth > b.depth;
    return a.order > b.order;
  };
  for (size_t i = 0; i < leaves_.size(); ++i) {
    if (leaves_[i].solved) continue;
    if (best < 0 || better(leaves_[i], leaves_[best])) best = static_cast<int>(i);
  }
  return best;
}

double BranchAndBound::LowestOpenBound() const {
  double lowest = std::numeric_limits<double>::infinity();
  for (const Leaf& l : leaves_) {
    if (!l.solved) lowest = std::min(lowest, l.bound);
  }
  return lowest;
}

// Relative distance between the best integer objective and the lowest open leaf.
double BranchAndBound::Gap() const {
  if (!have_integer_) return std::numeric_limits<double>::infinity();
  const double lowest = std::min(LowestOpenBound(), best_.objective);
  return (best_.objective - lowest) / std::max(1.0, std::abs(best_.objective));
}

SqpOutcome BranchAndBound::SolveLeaf(Leaf& leaf, const std::vector<double>& x, int& nlp_its) {
  Step("Load solution: x");
  Step("Load new bounds");
  Step("Reset initial active set");
  Step("Re-initialize NLP values");
  Step("NLP Solution Start");
  Step("* Step: Attempt NLP convergence");
  SqpControl control = control_;
  if (leaf.depth > 0) control.mode = WarmStart::kWorkingSet;  // the parent's
  SqpOutcome out = Ace_CONVRG(nlp_, leaf.xl, leaf.xu, x, leaf.start, control);
  nlp_its = out.iterations;
  Step("* Step: Check convergence status");
  if (out.status != kSuccess && out.status != kExternalAbort && out.status != kMaxIterations) {
    Step("* Result: Not Yet Solved");
    Step("* Step: Get feasible solution");
    // A second attempt from the same point with a cold working set.
    control.mode = WarmStart::kCold;
    SqpState fresh;
    SqpOutcome again = Ace_CONVRG(nlp_, leaf.xl, leaf.xu, x, fresh, control);
    nlp_its += again.iterations;
    if (again.status == kSuccess) {
      out = std::move(again);
      leaf.start = std::move(fresh);
    }
  }
  Step(out.status == kSuccess ? "* Result: Solved" : "* Result: Not Yet Solved");
  Step("* Step: Configure output parameters");
  return out;
}

bool BranchAndBound::IsIntegral(const std::vector<double>& x) const {
  const double tol = options_[kMinlpIntegerTol];
  for (int j : integers_) {
    if (std::abs(x[j] - std::round(x[j])) > tol) return false;
  }
  return true;
}

void BranchAndBound::RecordInteger(const SqpOutcome& out, bool root) {
  Event(root ? "Found integer solution on root node" : "Integer solution found");
  if (have_integer_ && out.objective >= best_.objective) return;
  Event(have_integer_ ? "New best integer solution" : "First integer solution");
  Step("Check that integer solution is unique");
  best_ = out;
  have_integer_ = true;
}

// Adds a leaf unless its bounds cross the variable's absolute bounds or it is already listed.
bool BranchAndBound::AddLeaf(Leaf leaf, bool upper_side, int var) {
  const char* side = upper_side ? "upper" : "lower";
  if (leaf.xl[var] > nlp_.xu()[var] || leaf.xu[var] < nlp_.xl()[var] || leaf.xl[var] > leaf.xu[var]) {
    Event(fmt::format("The {} leaf violated an absolute bound and was eliminated", side));
    return false;
  }
  for (const Leaf& other : leaves_) {
    bool same = true;
    for (int j : integers_) {
      same = same && other.xl[j] == leaf.xl[j] && other.xu[j] == leaf.xu[j];
    }
    if (same) {
      Event(fmt::format("The {} leaf of this branch is already in the list of potential or "
                        "solved problems",
                        side));
      return false;
    }
  }
  leaf.order = ++created_;
  leaves_.push_back(std::move(leaf));
  return true;
}

void BranchAndBound::Branch(const Leaf& leaf, const SqpOutcome& out, const SqpState& state) {
  Step("Not an integer solution");
  int var = -1;
  double worst = -1.0;
  for (int j : integers_) {
    if (std::abs(out.x[j]) > options_[kMinlpIntegerMax]) continue;
    const double d = std::abs(out.x[j] - std::round(out.x[j]));
    if (d > worst) {
      worst = d;
      var = j;
    }
  }
  if (var < 0) return;
  Step(fmt::format("Found max integer difference {} at integer {}", FormatReal(worst), var + 1));
  Step("Creating integer trial point");
  const double v = out.x[var];
  const bool both = options_.Int(kMinlpIntegerLeaves) != 1;
  const bool up_nearer = v - std::floor(v) >= 0.5;
  Leaf child;
  child.xl = leaf.xl;
  child.xu = leaf.xu;
  child.depth = leaf.depth + 1;
  child.bound = out.objective;
  child.start = state;
  Leaf up = child, down = child;
  up.xl[var] = std::ceil(v);
  down.xu[var] = std::floor(v);
  Step(fmt::format("Create >= trial leaf on integer {}", var + 1));
  Step(fmt::format("Create <= trial leaf on integer {}", var + 1));
  Step("Check uniqueness of <= and >= new leaves");
  if (both || !up_nearer) AddLeaf(std::move(down), false, var);
  if (both || up_nearer) AddLeaf(std::move(up), true, var);
}

void BranchAndBound::PrintIterationLine(int k, const SqpOutcome& out, int nlp_its,
                                        const Leaf& leaf) {
  int open = 0;
  for (const Leaf& l : leaves_) open += !l.solved;
  const double gap = Gap();
  Trace(fmt::format("Iter:{:6d} I:{:3d} Tm:{:9.2f} NLPi:{:5d} Dpth:{:4d} Lvs:{:5d} Obj:{:12.5e} "
                    "Gap:{:10.3e}",
                    k, out.status, SecondsSince(start_), nlp_its, leaf.depth, open, out.objective,
                    std::isfinite(gap) ? gap : 0.0),
        options_.Int(kMinlpPrintLevel) >= 1);
}

void BranchAndBound::ListFinal(const SqpOutcome& out) {
  if (options_.Int(kMinlpPrintLevel) < 10 || out.x.empty()) return;
  Trace("  Subroutine Ace_MINLP_solve Output  ", true);
  std::vector<double> c(nlp_.m());
  nlp_.Constraints(out.x, c);
  Trace("Equations", true);
  for (int i = 0; i < nlp_.m(); ++i) {
    Trace(fmt::format("equation: {} val: {} lower: {} upper: {} la: {}", i + 1, c[i], nlp_.cl()[i],
                      nlp_.cu()[i], out.lambda[i]),
          true);
  }
  Trace("Variables", true);
  for (int j = 0; j < nlp_.n(); ++j) {
    Trace(fmt::format("variable: {} val: {} lower: {} upper: {} la: {}", j + 1, out.x[j],
                      nlp_.xl()[j], nlp_.xu()[j], out.z_lower[j] - out.z_upper[j]),
          true);
  }
}

MinlpOutcome BranchAndBound::Run(std::vector<double> x, SqpState& state) {
  MinlpOutcome result;
  if (options_.Int(kMinlpAsNlp) == 0) integers_ = nlp_.problem().IntegerVariables();
  if (options_.Int(kInformationMessages) >= 1) ListInputs(x);
  if (!CheckInputs()) {
    result.best.status = kBadInputs;
    result.best.x = x;
    result.setup_failed = true;
    return result;
  }
  Leaf root;
  root.xl = nlp_.xl();
  root.xu = nlp_.xu();
  root.start = std::move(state);
  if (integers_.empty()) return SolveContinuous(root, x, state);
  leaves_.push_back(std::move(root));
  SqpOutcome last;
  for (int k = 1;; ++k) {
    const int index = NextLeaf();
    if (SearchEnds(index, k)) break;
    last = SolveLeafOfIteration(index, k, x, state, result);
  }
  result.best = BestOutcome(std::move(last), x);
  ListFinal(result.best);
  return result;
}

// A problem without integer variables: one leaf, the NLP itself.
MinlpOutcome BranchAndBound::SolveContinuous(Leaf& root, const std::vector<double>& x,
                                             SqpState& state) {
  MinlpOutcome result;
  int its = 0;
  result.best = SolveLeaf(root, x, its);
  state = std::move(root.start);
  result.nodes = 1;
  result.nlp_iterations = its;
  Event("No integer variables - completed branching");
  ListFinal(result.best);
  return result;
}

// True when the search is over before leaf `index` (-1: none open): no leaf left, the gap
// met, a leaf limit reached or MAX_TIME passed. Sets the status of a search without an
// integer solution.
bool BranchAndBound::SearchEnds(int index, int k) {
  if (index < 0) {
    Event(have_integer_ ? "No additional trial points, returning the best integer solution"
                        : "Warning: no more possible trial points and no integer solution");
    if (have_integer_) Event("MINLP: no other leaves, optimal solution found");
    return true;
  }
  if (have_integer_ && Gap() <= options_[kMinlpGapTol]) {
    Event(fmt::format("MINLP: gap {} within minlp_gap_tol, returning the best integer solution",
                      FormatReal(std::max(0.0, Gap()))));
    return true;
  }
  if (k > options_.Int(kMinlpMaximumIterations)) {
    Trace("Warning: reached maximum MINLP iterations, returning best solution", true);
    limit_status_ = kMaxIterations;
    Trace(fmt::format("Adjust minlp_maximum_iterations {} in asopt.opt to change limit",
                      options_.Int(kMinlpMaximumIterations)),
          true);
    return true;
  }
  if (have_integer_ && since_integer_ >= options_.Int(kMinlpMaxIterWithIntSol)) {
    Trace("Warning: best integer solution returned after maximum MINLP iterations", true);
    Trace(fmt::format("Adjust minlp_max_iter_with_int_sol {} in asopt.opt to change limit",
                      options_.Int(kMinlpMaxIterWithIntSol)),
          true);
    return true;
  }
  if (nlp_.TimeUp()) {
    limit_status_ = kExternalAbort;
    return true;
  }
  return false;
}

// Iteration k of the search: solves leaf `index`, then records an integer solution or
// branches on the leaf.
SqpOutcome BranchAndBound::SolveLeafOfIteration(int index, int k, const std::vector<double>& x,
                                                SqpState& state, MinlpOutcome& result) {
  Event("+-------------------------------------------+");
  Event(fmt::format("| MINLP Iter: {}", k));
  Event("+--------------------------------------------");
  leaves_[index].solved = true;
  Leaf leaf = leaves_[index];
  // The root starts from the caller's point; a child from its parent's solution.
  const std::vector<double> start = leaf.depth == 0 || leaf.start.x.empty() ? x : leaf.start.x;
  int nlp_its = 0;
  SqpOutcome out = SolveLeaf(leaf, start, nlp_its);
  if (leaf.depth == 0) state = leaf.start;
  ++result.nodes;
  result.nlp_iterations += nlp_its;
  if (have_integer_) ++since_integer_;
  if (out.status != kSuccess) {
    Event("Unsuccessful - terminate leaf with no branching");
  } else {
    leaves_[index].bound = out.objective;
    Step("Check if solution qualifies as integer");
    if (IsIntegral(out.x)) {
      RecordInteger(out, leaf.depth == 0);
    } else if (!have_integer_ || out.objective < best_.objective) {
      Branch(leaf, out, leaf.start);
    }
  }
  PrintIterationLine(k, out, nlp_its, leaf);
  if (out.status == kSuccess && IsIntegral(out.x)) {
    Event(fmt::format("--Integer Solution: {} Lowest Leaf: {} Gap: {}",
                      FormatReal(best_.objective),
                      FormatReal(std::min(LowestOpenBound(), best_.objective)),
                      FormatReal(Gap())));
  }
  Step("Go to next trial solution");
  return out;
}

// The best integer solution, or the last leaf's outcome under the status of the search's end.
SqpOutcome BranchAndBound::BestOutcome(SqpOutcome last, const std::vector<double>& x) const {
  if (have_integer_) {
    SqpOutcome best = best_;
    best.status = kSuccess;
    return best;
  }
  last.status = limit_status_;
  if (last.x.empty()) last.x = x;
  return last;
}

}  // namespace

MinlpOutcome Ace_MINLP_solve(ProblemView& nlp, std::vector<double> x, const SqpControl& control,
                             SqpState& state) {
  BranchAndBound bb(nlp, control);
  return bb.Run(std::move(x), state);
}

}  // namespace kx::solvers
