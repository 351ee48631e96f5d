#include "solvers/asopt_qp.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <unordered_map>

#include <fmt/format.h>

namespace kx::solvers {
namespace {

constexpr double kRowRegularization = 1e-10;  // -eps on working rows that are dependent
constexpr double kElasticCurvature = 1e-10;   // elastic variables' curvature / elastic weight
constexpr int kRefinePasses = 2;              // corrections of the working rows' residuals
constexpr double kRowRounding = 1e-14;        // row residual relative to its terms left alone
constexpr double kRefineShare = 1e-3;         // ... and relative to the feasibility tolerance
constexpr int kDegenerateLimit = 8;           // degenerate steps before the smallest-index rule
constexpr int kCrashPasses = 12;              // working-set guesses before the active-set method
constexpr int kCrashFlipLimit = 2;            // state changes before the guess leaves it alone
constexpr int kBounceLimit = 4;               // constraints dropped right after a tiny addition
constexpr int kRepeatLimit = 3;               // visits of one working set that end the solve
constexpr double kActivityTolerance = 1e-12;  // row rounding relative to its largest term

// Largest step component, for telling real progress from rounding-level moves.
double MaxAbs(const std::vector<double>& v) {
  double m = 0.0;
  for (double a : v) m = std::max(m, std::abs(a));
  return m;
}

enum class EqpOutcome { kSolved, kNonconvex, kFailed };

// One solve of the QP; the extended variable vector holds the real variables, then one
// elastic variable per row that was violated at the starting point.
class ActiveSetQp {
 public:
  ActiveSetQp(const QpProblem& qp, KktFactor* factor)
      : qp_(qp), n_(qp.num_vars), m_(qp.num_rows), kkt_(factor ? factor : &own_kkt_) {
  }
  QpResult Run(const QpWorkingSet& guess);

 private:
  void BuildRows();
  void Initialize(const QpWorkingSet& guess);
  void Crash();
  void RepairStart(bool have_guess, const QpWorkingSet& guess);
  void AddElastic(int row, double sign, double value);
  bool HasLower(double v) const { return v > -qp_.infinity; }
  bool HasUpper(double v) const { return v < qp_.infinity; }
  double Lower(int j) const { return j < n_ ? qp_.xl[j] : 0.0; }
  double Upper(int j) const { return j < n_ ? qp_.xu[j] : qp_.infinity; }
  double Bound(int i) const { return row_state_[i] == Activity::kUpper ? qp_.ru[i] : qp_.rl[i]; }
  std::vector<double> Gradient() const;
  double RowTimes(int i, const std::vector<double>& v) const;
  // The KKT matrix of one working set as triplets of its lower triangle.
  struct KktMatrix {
    int dim = 0;
    std::vector<int> rows, cols;
    std::vector<double> values;
    size_t first_row_diagonal = 0;  // entry of the first row's diagonal
    void Add(int r, int c, double v) {
      rows.push_back(r);
      cols.push_back(c);
      values.push_back(v);
    }
  };
  bool IsFree(int j) const { return var_state_[j] == Activity::kFree; }
  bool InWorkingSet(int i) const { return row_state_[i] != Activity::kFree; }
  bool AtOptimalWorkingSet(double alpha);
  void AddBlocking(int var, int row, double alpha, bool tiny);
  EqpOutcome SolveEqp();
  KktMatrix AssembleKkt() const;
  bool Factor(const KktMatrix& k);
  void RegulariseWorkingRows(KktMatrix& k) const;
  std::vector<double> EqpRightHandSide() const;
  bool CorrectWorkingRows(const std::vector<double>& row_target, bool regularised);
  double RatioTest(int& blocking_var, int& blocking_row) const;
  bool DropWorstMultiplier(const std::vector<double>& g);
  std::vector<double> BoundMultipliers(std::vector<double> g) const;
  double MultiplierTolerance(const std::vector<double>& v) const;
  void ClampToBounds(int j);
  int AddBlockingAtZeroStep();
  double FeasTol(double b) const { return qp_.tolerance * (1.0 + std::abs(b)); }
  double RowTol(int i, double b) const;
  QpResult Finish(QpStatus status);
  bool Tracing() const { return qp_.print_level >= 1 && qp_.log; }
  int WorkingSetSize() const;
  std::string ConstraintName(int var, int row) const;
  void TraceStep(double step, double alpha, const std::string& change) const;
  bool PastDeadline() const { return std::chrono::steady_clock::now() > qp_.deadline; }

  const QpProblem& qp_;
  const int n_;                          // real variables
  const int m_;                          // rows
  std::vector<int> row_start_;           // CSR of A by rows; size m_+1
  std::vector<int> row_col_;             // column of each entry
  std::vector<double> row_val_;          // value of each entry
  std::vector<int> elastic_row_;         // row of each elastic variable
  std::vector<double> elastic_sign_;     // +1 raises the row, -1 lowers it
  std::vector<int> row_elastic_;         // elastic of each row, -1 for none
  std::vector<double> x_;                // current point, real then elastic variables
  std::vector<double> r_;                // A x including elastic terms; size m_
  std::vector<Activity> var_state_;      // working-set status of every variable
  std::vector<Activity> row_state_;      // working-set status of every row
  std::vector<double> p_;                // last EQP step; size of x_
  std::vector<double> y_;                // last EQP row multipliers; size m_
  bool solved_eqp_ = false;              // p_ and y_ hold an EQP solution (y_ empty for m_ 0)
  double elastic_curvature_ = 0.0;       // small Hessian diagonal of the elastic variables
  bool smallest_index_ = false;          // anti-cycling rule in force
  KktFactor own_kkt_;                    // the factorisation when the caller keeps none
  KktFactor* kkt_;                       // the factorisation in use
  int factorizations_before_ = 0;        // its count when this solve began
  int iterations_ = 0;
  int dropped_var_ = -1, dropped_row_ = -1;  // constraint released by the last drop
  std::vector<bool> released_var_;       // variables released by a multiplier in this solve
  std::vector<bool> released_row_;       // rows released by a multiplier in this solve
  int degenerate_ = 0;                   // steps of length zero in a row
  int bounces_ = 0;                      // constraints dropped right after their tiny add
  int added_var_ = -1, added_row_ = -1;  // the constraint the last step added
  bool tiny_since_add_ = false;          // every step since that add was tiny
  bool keep_residuals_ = false;          // leave row residuals within tolerance uncorrected
  std::unordered_map<uint64_t, int> visits_;  // working sets seen (by hash) and how often

  bool WorkingSetRepeats();
};

// A working set the iterations come back to again and again: they cycle without progress (a
// step of a convex QP from a working set lowers the objective, so an exact solve never returns
// to one). Seen in control problems with degenerate move rows, where the cycle would otherwise
// run to the iteration limit, 10 (n + m) factorisations.
bool ActiveSetQp::WorkingSetRepeats() {
  uint64_t h = 1469598103934665603ull;  // FNV-1a over (index, state) of the active constraints
  auto mix = [&h](uint64_t v) {
    h ^= v;
    h *= 1099511628211ull;
  };
  for (size_t j = 0; j < var_state_.size(); ++j)
    if (var_state_[j] != Activity::kFree) mix(j * 4 + static_cast<uint64_t>(var_state_[j]));
  for (size_t i = 0; i < row_state_.size(); ++i)
    if (row_state_[i] != Activity::kFree)
      mix((i + var_state_.size()) * 4 + static_cast<uint64_t>(row_state_[i]));
  return ++visits_[h] >= kRepeatLimit;
}

void ActiveSetQp::BuildRows() {
  row_start_.assign(m_ + 1, 0);
  for (int r : qp_.a_rows) ++row_start_[r + 1];
  for (int i = 0; i < m_; ++i) row_start_[i + 1] += row_start_[i];
  row_col_.resize(qp_.a_rows.size());
  row_val_.resize(qp_.a_rows.size());
  std::vector<int> next(row_start_.begin(), row_start_.end() - 1);
  for (size_t k = 0; k < qp_.a_rows.size(); ++k) {
    const int pos = next[qp_.a_rows[k]]++;
    row_col_[pos] = qp_.a_cols[k];
    row_val_[pos] = qp_.a_vals[k];
  }
  row_elastic_.assign(m_, -1);
  elastic_curvature_ = std::max(kElasticCurvature, qp_.elastic_weight * kElasticCurvature);
}

// Feasibility tolerance of row i at bound b: the row's value a'x sums terms that can be far
// larger than the value itself, and the factorisation's solution error grows with them, so
// the tolerance grows with the largest term as well.
double ActiveSetQp::RowTol(int i, double b) const {
  double term = 0.0;
  for (int k = row_start_[i]; k < row_start_[i + 1]; ++k) {
    term = std::max(term, std::abs(row_val_[k] * x_[row_col_[k]]));
  }
  return FeasTol(b) + kActivityTolerance * term;
}

int ActiveSetQp::WorkingSetSize() const {
  int size = 0;
  for (Activity a : var_state_) size += a != Activity::kFree;
  for (Activity a : row_state_) size += a != Activity::kFree;
  return size;
}

// "x12" for a variable (elastic variables count on after the real ones), "r7" for a row.
std::string ActiveSetQp::ConstraintName(int var, int row) const {
  return var >= 0 ? fmt::format("x{}", var + 1) : fmt::format("r{}", row + 1);
}

void ActiveSetQp::TraceStep(double step, double alpha, const std::string& change) const {
  if (!Tracing()) return;
  qp_.log(fmt::format("   qp {:6d}  working set {:8d}  step {:10.3e}  alpha {:9.2e}  {}",
                      iterations_, WorkingSetSize(), step, alpha, change));
}

double ActiveSetQp::RowTimes(int i, const std::vector<double>& v) const {
  double s = 0.0;
  for (int k = row_start_[i]; k < row_start_[i + 1]; ++k) s += row_val_[k] * v[row_col_[k]];
  if (row_elastic_[i] >= 0) s += elastic_sign_[row_elastic_[i]] * v[n_ + row_elastic_[i]];
  return s;
}

// g = (H + delta I) x + c for the real variables, rho + mu e for the elastic ones.
std::vector<double> ActiveSetQp::Gradient() const {
  std::vector<double> g(x_.size());
  for (int j = 0; j < n_; ++j) g[j] = qp_.grad[j] + qp_.delta * x_[j];
  for (size_t k = 0; k < qp_.h_rows.size(); ++k) {
    const int r = qp_.h_rows[k], c = qp_.h_cols[k];
    g[r] += qp_.h_vals[k] * x_[c];
    if (r != c) g[c] += qp_.h_vals[k] * x_[r];
  }
  for (size_t e = 0; e < elastic_row_.size(); ++e) {
    g[n_ + e] = qp_.elastic_weight + elastic_curvature_ * x_[n_ + e];
  }
  return g;
}

void ActiveSetQp::AddElastic(int row, double sign, double value) {
  row_elastic_[row] = static_cast<int>(elastic_row_.size());
  elastic_row_.push_back(row);
  elastic_sign_.push_back(sign);
  x_.push_back(value);
  var_state_.push_back(Activity::kFree);
  r_[row] += sign * value;
}

void ActiveSetQp::Initialize(const QpWorkingSet& guess) {
  x_.assign(n_, 0.0);
  var_state_.assign(n_, Activity::kFree);
  row_state_.assign(m_, Activity::kFree);
  const bool have_guess = static_cast<int>(guess.vars.size()) == n_ &&
                          static_cast<int>(guess.rows.size()) == m_;
  if (have_guess) {
    for (int j = 0; j < n_; ++j) {
      if (guess.vars[j] == Activity::kLower && HasLower(qp_.xl[j])) {
        var_state_[j] = Activity::kLower;
        x_[j] = qp_.xl[j];
      } else if (guess.vars[j] == Activity::kUpper && HasUpper(qp_.xu[j])) {
        var_state_[j] = Activity::kUpper;
        x_[j] = qp_.xu[j];
      }
    }
    for (int i = 0; i < m_; ++i) {
      const Activity a = guess.rows[i];
      if ((a == Activity::kLower && HasLower(qp_.rl[i])) ||
          (a == Activity::kUpper && HasUpper(qp_.ru[i]))) {
        row_state_[i] = a;
      }
    }
  } else {
    for (int i = 0; i < m_; ++i) {
      if (qp_.rl[i] == qp_.ru[i] && HasLower(qp_.rl[i])) row_state_[i] = Activity::kLower;
    }
  }
  for (int j = 0; j < n_; ++j) {
    ClampToBounds(j);
    // A fixed variable is in the working set from the start, whatever the guess.
    if (qp_.xl[j] == qp_.xu[j] && HasLower(qp_.xl[j])) var_state_[j] = Activity::kLower;
  }
  Crash();
  QpWorkingSet start{var_state_, row_state_};
  RepairStart(true, start);
}

// Guesses the working set before the active-set iterations: each pass goes to the minimiser
// on the current working set, puts every bound and inequality row that point violates into
// the working set and takes out every one whose multiplier has the wrong sign. On problems
// whose solution has many active constraints this finds most of them in a few passes instead
// of one working-set change each; the active-set iterations that follow still decide
// optimality, so a poor guess costs time, never the answer. A constraint that has gone in and
// out again keeps its state for the remaining passes: without that the passes can swap the
// same few constraints back and forth until the pass limit.
void ActiveSetQp::Crash() {
  std::vector<unsigned char> var_flips(n_, 0), row_flips(m_, 0);
  for (int pass = 0; pass < kCrashPasses && iterations_ < qp_.max_iterations; ++pass) {
    if (PastDeadline()) return;
    ++iterations_;  // each pass is one factorisation, counted like an iteration
    r_.assign(m_, 0.0);
    for (int i = 0; i < m_; ++i) r_[i] = RowTimes(i, x_);
    if (SolveEqp() != EqpOutcome::kSolved) return;
    for (int j = 0; j < n_; ++j) x_[j] += p_[j];
    for (int i = 0; i < m_; ++i) r_[i] = RowTimes(i, x_);
    const std::vector<double> z = BoundMultipliers(Gradient());
    const double tol = MultiplierTolerance(z);
    int added = 0, dropped = 0;
    auto update = [&](Activity& state, unsigned char& flips, double value, double lo, double hi,
                      double multiplier, bool fixed) {
      Activity next = state;
      if (flips >= kCrashFlipLimit) {
        // Left as it is: the passes disagree about this constraint.
      } else if (state == Activity::kFree) {
        if (HasLower(lo) && value < lo - FeasTol(lo)) next = Activity::kLower;
        if (HasUpper(hi) && value > hi + FeasTol(hi)) next = Activity::kUpper;
      } else if (!fixed && (state == Activity::kLower ? multiplier < -tol : multiplier > tol)) {
        next = Activity::kFree;
      }
      added += state == Activity::kFree && next != state;
      dropped += next == Activity::kFree && next != state;
      flips += next != state;
      state = next;
    };
    for (int j = 0; j < n_; ++j) {
      update(var_state_[j], var_flips[j], x_[j], qp_.xl[j], qp_.xu[j], z[j],
             qp_.xl[j] == qp_.xu[j]);
      if (var_state_[j] == Activity::kLower) x_[j] = qp_.xl[j];
      if (var_state_[j] == Activity::kUpper) x_[j] = qp_.xu[j];
      if (var_state_[j] == Activity::kFree) ClampToBounds(j);
    }
    for (int i = 0; i < m_; ++i) {
      // Row multipliers y follow c + Hx + A'y - z = 0: a lower row wants y <= 0.
      update(row_state_[i], row_flips[i], r_[i], qp_.rl[i], qp_.ru[i], -y_[i],
             qp_.rl[i] == qp_.ru[i]);
    }
    if (Tracing()) {
      qp_.log(fmt::format("   qp start pass {:3d}  working set {:8d}  added {:7d}  "
                          "dropped {:7d}",
                          pass + 1, WorkingSetSize(), added, dropped));
    }
    if (added + dropped == 0) return;
  }
}

// Moves the candidate point onto the variable bounds and gives every violated row an elastic
// variable, so that the point is feasible for the extended problem.
void ActiveSetQp::RepairStart(bool have_guess, const QpWorkingSet& guess) {
  for (int j = 0; j < n_; ++j) {
    const double lo = qp_.xl[j], hi = qp_.xu[j];
    var_state_[j] = Activity::kFree;
    if (HasLower(lo) && x_[j] <= lo + FeasTol(lo)) {
      x_[j] = lo;
      var_state_[j] = Activity::kLower;
    } else if (HasUpper(hi) && x_[j] >= hi - FeasTol(hi)) {
      x_[j] = hi;
      var_state_[j] = Activity::kUpper;
    }
  }
  r_.assign(m_, 0.0);
  for (int i = 0; i < m_; ++i) r_[i] = RowTimes(i, x_);
  for (int i = 0; i < m_; ++i) {
    const double lo = qp_.rl[i], hi = qp_.ru[i], r = r_[i];
    const double tol_lo = RowTol(i, lo), tol_hi = RowTol(i, hi);
    const Activity wanted = have_guess ? guess.rows[i] : Activity::kFree;
    row_state_[i] = Activity::kFree;
    if (HasLower(lo) && (r < lo - tol_lo || lo == hi)) {
      row_state_[i] = Activity::kLower;
      if (r < lo - tol_lo) AddElastic(i, 1.0, lo - r);
      if (r > hi + tol_hi) AddElastic(i, -1.0, r - hi);
    } else if (HasUpper(hi) && r > hi + tol_hi) {
      row_state_[i] = Activity::kUpper;
      AddElastic(i, -1.0, r - hi);
    } else if (wanted == Activity::kLower && HasLower(lo) && r <= lo + tol_lo) {
      row_state_[i] = Activity::kLower;
    } else if (wanted == Activity::kUpper && HasUpper(hi) && r >= hi - tol_hi) {
      row_state_[i] = Activity::kUpper;
    }
  }
}

// Solves the equality-constrained QP of the working set for the step p_ and the multipliers
// y_ of the working rows. The KKT matrix keeps one slot for every variable and every row,
// whatever the working set: a variable on a bound becomes the equation p_j = 0 (diagonal 1),
// a row outside the working set the equation y_i = 0 (diagonal -1). Its structure is then
// the same for every working set, so the sparse factorisation analyses it once and each
// working-set change costs one numerical factorisation. The inertia is right when the
// negative pivots are exactly the rows.
EqpOutcome ActiveSetQp::SolveEqp() {
  KktMatrix kkt = AssembleKkt();
  if (!Factor(kkt)) return EqpOutcome::kFailed;
  const bool regularised = kkt_->ldl.num_null() > 0;
  if (regularised) {
    RegulariseWorkingRows(kkt);
    if (!Factor(kkt)) return EqpOutcome::kFailed;
  }
  if (kkt_->ldl.num_negative() > m_ || kkt_->ldl.num_null() > 0) return EqpOutcome::kNonconvex;
  std::vector<double> rhs = EqpRightHandSide();
  const int nt = static_cast<int>(x_.size());
  const std::vector<double> row_target(rhs.begin() + nt, rhs.end());
  if (!kkt_->ldl.Solve(rhs)) return EqpOutcome::kFailed;
  p_.assign(rhs.begin(), rhs.begin() + nt);
  y_.assign(rhs.begin() + nt, rhs.end());
  solved_eqp_ = true;
  if (!CorrectWorkingRows(row_target, regularised)) return EqpOutcome::kFailed;
  for (int j = 0; j < nt; ++j) {
    if (!IsFree(j)) p_[j] = 0.0;
  }
  for (int i = 0; i < m_; ++i) {
    if (!InWorkingSet(i)) y_[i] = 0.0;
  }
  return EqpOutcome::kSolved;
}

// The KKT matrix of the working set at full size, Hessian entries first, then the diagonal
// of the variables, then each row's diagonal and entries.
ActiveSetQp::KktMatrix ActiveSetQp::AssembleKkt() const {
  const int nt = static_cast<int>(x_.size());
  KktMatrix k;
  k.dim = nt + m_;
  k.rows.reserve(qp_.h_rows.size() + row_col_.size() + 2 * k.dim);
  k.cols.reserve(k.rows.capacity());
  k.values.reserve(k.rows.capacity());
  for (size_t e = 0; e < qp_.h_rows.size(); ++e) {
    const int r = qp_.h_rows[e], c = qp_.h_cols[e];
    k.Add(r, c, IsFree(r) && IsFree(c) ? qp_.h_vals[e] : 0.0);
  }
  for (int j = 0; j < nt; ++j) {
    k.Add(j, j, !IsFree(j) ? 1.0 : j < n_ ? qp_.delta : elastic_curvature_);
  }
  k.first_row_diagonal = k.rows.size();
  for (int i = 0; i < m_; ++i) {
    const bool working = InWorkingSet(i);
    k.Add(nt + i, nt + i, working ? 0.0 : -1.0);  // -eps when the working rows are dependent
    for (int e = row_start_[i]; e < row_start_[i + 1]; ++e) {
      k.Add(nt + i, row_col_[e], working && IsFree(row_col_[e]) ? row_val_[e] : 0.0);
    }
    const int el = row_elastic_[i];
    if (el >= 0) k.Add(nt + i, n_ + el, working && IsFree(n_ + el) ? elastic_sign_[el] : 0.0);
  }
  return k;
}

// Factors the KKT matrix; at factor_print_level 1 and more one trace line (dimension,
// non-zeros, kind, inertia, time). False when the factorisation failed outright.
bool ActiveSetQp::Factor(const KktMatrix& k) {
  ++kkt_->factorizations;
  const auto start = std::chrono::steady_clock::now();
  const bool ok =
      kkt_->ldl.Factor(k.dim, k.rows, k.cols, k.values) != linalg::FactorOutcome::kFailed;
  if (qp_.factor_print_level < 1 || !qp_.log) return ok;
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  qp_.log(fmt::format("   factor {:6d}  {}  n {:8d}  nnz {:9d}  negative {:8d}  null {:6d}  "
                      "{:9.4f} s{}",
                      kkt_->factorizations, kkt_->ldl.dense() ? "dense " : "sparse", k.dim,
                      k.rows.size(), kkt_->ldl.num_negative(), kkt_->ldl.num_null(),
                      took.count(), ok ? "" : "  FAILED"));
  return ok;
}

// Dependent working rows make the matrix singular: regularise the row block, which leaves a
// null-space Hessian that is not positive definite still visible.
void ActiveSetQp::RegulariseWorkingRows(KktMatrix& k) const {
  const int nt = static_cast<int>(x_.size());
  double scale = 1.0;
  for (size_t e = 0; e < k.first_row_diagonal; ++e) scale = std::max(scale, std::abs(k.values[e]));
  for (size_t e = k.first_row_diagonal; e < k.rows.size(); ++e) {
    if (k.rows[e] == k.cols[e] && InWorkingSet(k.rows[e] - nt)) {
      k.values[e] = -kRowRegularization * scale;
    }
  }
}

// Minus the gradient on the free variables; each working row's residual, unless residuals
// within tolerance are kept.
std::vector<double> ActiveSetQp::EqpRightHandSide() const {
  const int nt = static_cast<int>(x_.size());
  const std::vector<double> g = Gradient();
  std::vector<double> rhs(nt + m_, 0.0);
  for (int j = 0; j < nt; ++j) {
    if (IsFree(j)) rhs[j] = -g[j];
  }
  for (int i = 0; i < m_; ++i) {
    const double residual = Bound(i) - r_[i];
    if (InWorkingSet(i) && (!keep_residuals_ || std::abs(residual) > FeasTol(Bound(i)))) {
      rhs[nt + i] = residual;
    }
  }
  return rhs;
}

// The regularised row block misses each working row by eps * y_i; and the solve's error
// grows with the size of the whole solution, so multipliers far larger than the step (a
// variable entering its row with a tiny coefficient) leave working rows missed by about
// eps * |y| as well. Corrects the step against the rows themselves while a row misses by more
// than the rounding of its own terms (a pass or two suffices). False on a failed solve.
bool ActiveSetQp::CorrectWorkingRows(const std::vector<double>& row_target, bool regularised) {
  const int nt = static_cast<int>(x_.size());
  for (int pass = 0; pass < kRefinePasses; ++pass) {
    std::vector<double> fix(nt + m_, 0.0);
    bool refine = regularised;
    for (int i = 0; i < m_; ++i) {
      if (!InWorkingSet(i)) continue;
      fix[nt + i] = row_target[i] - RowTimes(i, p_);
      double terms = std::abs(row_target[i]);
      for (int k = row_start_[i]; k < row_start_[i + 1]; ++k) {
        terms += std::abs(row_val_[k] * p_[row_col_[k]]);
      }
      refine = refine || std::abs(fix[nt + i]) > std::max(kRowRounding * terms,
                                                          kRefineShare * FeasTol(Bound(i)));
    }
    if (!refine) break;
    if (!kkt_->ldl.Solve(fix)) return false;
    for (int j = 0; j < nt; ++j) p_[j] += fix[j];
    for (int i = 0; i < m_; ++i) y_[i] += fix[nt + i];
  }
  return true;
}

// Largest step in [0, 1] along p_ that keeps every bound and inactive row; names the
// constraint that blocks it (-1 when the full step is free).
double ActiveSetQp::RatioTest(int& blocking_var, int& blocking_row) const {
  blocking_var = blocking_row = -1;
  double alpha = 1.0;
  double best_pivot = 0.0;
  auto consider = [&](double slack, double rate, int var, int row) {
    const double a = std::max(0.0, slack / rate);
    const double tol = 1e-12 * std::max(1.0, alpha);
    if (a > alpha + tol) return;
    // Among constraints that block at the same step take the largest pivot, or the first
    // one under the anti-cycling rule.
    const bool tie = a >= alpha - tol && (blocking_var >= 0 || blocking_row >= 0);
    if (tie && (smallest_index_ || std::abs(rate) <= best_pivot)) return;
    alpha = std::min(alpha, a);
    best_pivot = std::abs(rate);
    blocking_var = var;
    blocking_row = row;
  };
  double pmax = 0.0;
  for (double v : p_) pmax = std::max(pmax, std::abs(v));
  const double tiny = 1e-14 * std::max(1.0, pmax);
  for (size_t j = 0; j < x_.size(); ++j) {
    if (var_state_[j] != Activity::kFree) continue;
    const int jj = static_cast<int>(j);
    if (p_[j] < -tiny && HasLower(Lower(jj))) consider(Lower(jj) - x_[j], p_[j], jj, -1);
    if (p_[j] > tiny && HasUpper(Upper(jj))) consider(Upper(jj) - x_[j], p_[j], jj, -1);
  }
  for (int i = 0; i < m_; ++i) {
    if (row_state_[i] != Activity::kFree) continue;
    const double ap = RowTimes(i, p_);
    if (ap < -tiny && HasLower(qp_.rl[i])) consider(qp_.rl[i] - r_[i], ap, -1, i);
    if (ap > tiny && HasUpper(qp_.ru[i])) consider(qp_.ru[i] - r_[i], ap, -1, i);
  }
  return alpha;
}

// After a step of length zero, puts into the working set as well every other constraint
// that the step direction p_ runs into within the same rounding length, and every constraint
// sitting on its bound that this solve has not released before. Each of them would otherwise
// be likely to block a later step at length zero and cost a factorisation of its own; one that
// the minimiser does not need leaves again through its multiplier, and a released constraint
// comes back only when the direction runs into it, so the batch cannot undo a drop. Returns
// how many it added.
int ActiveSetQp::AddBlockingAtZeroStep() {
  const double reach = 10.0 * FeasTol(MaxAbs(x_)) / std::max(MaxAbs(p_), 1e-300);
  const double tiny = 1e-14 * std::max(1.0, MaxAbs(p_));
  // The side of the constraint to activate: rate is its change along p_, slack_lo/slack_hi the
  // distances of its value to the two bounds (positive inside), tol its feasibility tolerance.
  auto side = [&](double rate, double slack_lo, double slack_hi, bool lo, bool hi, double tol,
                  bool released) {
    if (lo && rate < -tiny && std::max(0.0, slack_lo / -rate) <= reach) return Activity::kLower;
    if (hi && rate > tiny && std::max(0.0, slack_hi / rate) <= reach) return Activity::kUpper;
    if (released) return Activity::kFree;
    if (lo && std::abs(slack_lo) <= tol) return Activity::kLower;
    if (hi && std::abs(slack_hi) <= tol) return Activity::kUpper;
    return Activity::kFree;
  };
  int added = 0;
  for (size_t j = 0; j < x_.size(); ++j) {
    const int jj = static_cast<int>(j);
    if (var_state_[j] != Activity::kFree) continue;
    const double lo = Lower(jj), hi = Upper(jj);
    const Activity a = side(p_[j], x_[j] - lo, hi - x_[j], HasLower(lo), HasUpper(hi),
                            FeasTol(HasLower(lo) ? lo : hi), released_var_[j]);
    if (a == Activity::kFree) continue;
    var_state_[j] = a;
    x_[j] = a == Activity::kLower ? lo : hi;
    ++added;
  }
  for (int i = 0; i < m_; ++i) {
    if (row_state_[i] != Activity::kFree) continue;
    const double lo = qp_.rl[i], hi = qp_.ru[i];
    const double tol = RowTol(i, HasLower(lo) ? lo : hi);
    row_state_[i] = side(RowTimes(i, p_), r_[i] - lo, hi - r_[i], HasLower(lo), HasUpper(hi),
                         tol, released_row_[i]);
    added += row_state_[i] != Activity::kFree;
  }
  return added;
}

// Multipliers of the working set at the EQP minimiser; releases the constraint whose
// multiplier has the wrong sign by the most (the lowest index under the anti-cycling rule).
// False when every sign is right.
// Bound multipliers z = g + A'y of the working rows (elastic variables included), in the
// convention c + Hx + A'y - z = 0: z >= 0 at a lower bound, z <= 0 at an upper one.
std::vector<double> ActiveSetQp::BoundMultipliers(std::vector<double> g) const {
  for (int i = 0; i < m_; ++i) {
    if (row_state_[i] == Activity::kFree) continue;
    for (int k = row_start_[i]; k < row_start_[i + 1]; ++k) g[row_col_[k]] += row_val_[k] * y_[i];
    if (row_elastic_[i] >= 0) g[n_ + row_elastic_[i]] += elastic_sign_[row_elastic_[i]] * y_[i];
  }
  return g;
}

// Multiplier sign tolerance: the QP tolerance times the largest entry of v over the real
// variables that are not fixed (a fixed variable's multiplier absorbs any gradient, so it
// does not set the scale), at least times multiplier_scale.
double ActiveSetQp::MultiplierTolerance(const std::vector<double>& v) const {
  double largest = qp_.multiplier_scale;
  for (int j = 0; j < n_; ++j) {
    if (qp_.xl[j] != qp_.xu[j]) largest = std::max(largest, std::abs(v[j]));
  }
  return qp_.tolerance * largest;
}

void ActiveSetQp::ClampToBounds(int j) {
  x_[j] = std::clamp(x_[j], HasLower(qp_.xl[j]) ? qp_.xl[j] : x_[j],
                     HasUpper(qp_.xu[j]) ? qp_.xu[j] : x_[j]);
}

bool ActiveSetQp::DropWorstMultiplier(const std::vector<double>& g) {
  const std::vector<double> z = BoundMultipliers(g);
  const double tol = MultiplierTolerance(g);
  double worst = tol;
  int var = -1, row = -1;
  auto consider = [&](double violation, int v, int r) {
    if (violation <= tol) return;
    if (smallest_index_ ? (var < 0 && row < 0) : violation > worst) {
      worst = violation;
      var = v;
      row = r;
    }
  };
  for (size_t j = 0; j < x_.size() && !(smallest_index_ && var >= 0); ++j) {
    const int jj = static_cast<int>(j);
    if (var_state_[j] == Activity::kFree || Lower(jj) == Upper(jj)) continue;
    consider(var_state_[j] == Activity::kLower ? -z[j] : z[j], jj, -1);
  }
  for (int i = 0; i < m_ && !(smallest_index_ && (var >= 0 || row >= 0)); ++i) {
    if (row_state_[i] == Activity::kFree || qp_.rl[i] == qp_.ru[i]) continue;
    consider(row_state_[i] == Activity::kLower ? y_[i] : -y_[i], -1, i);
  }
  if (var >= 0) {
    var_state_[var] = Activity::kFree;
    released_var_[var] = true;
  }
  if (row >= 0) {
    row_state_[row] = Activity::kFree;
    released_row_[row] = true;
  }
  dropped_var_ = var;
  dropped_row_ = row;
  return var >= 0 || row >= 0;
}

QpResult ActiveSetQp::Finish(QpStatus status) {
  QpResult result;
  result.status = status;
  result.iterations = iterations_;
  result.factorizations = kkt_->factorizations - factorizations_before_;
  result.x.assign(x_.begin(), x_.begin() + n_);
  result.lambda.assign(m_, 0.0);
  result.z.assign(n_, 0.0);
  if (solved_eqp_) {
    const std::vector<double> g = Gradient();
    for (int j = 0; j < n_; ++j) {
      if (var_state_[j] != Activity::kFree) result.z[j] = g[j];
    }
    for (int i = 0; i < m_; ++i) {
      if (row_state_[i] == Activity::kFree) continue;
      result.lambda[i] = y_[i];
      for (int k = row_start_[i]; k < row_start_[i + 1]; ++k) {
        const int j = row_col_[k];
        if (var_state_[j] != Activity::kFree) result.z[j] += row_val_[k] * y_[i];
      }
    }
  }
  result.active.vars.assign(var_state_.begin(), var_state_.begin() + n_);
  result.active.rows = row_state_;
  for (size_t e = 0; e < elastic_row_.size(); ++e) result.violation += x_[n_ + e];
  if (status == QpStatus::kOptimal) {
    double scale = 1.0;
    for (int i : elastic_row_) {
      if (HasLower(qp_.rl[i])) scale = std::max(scale, std::abs(qp_.rl[i]));
      if (HasUpper(qp_.ru[i])) scale = std::max(scale, std::abs(qp_.ru[i]));
    }
    if (result.violation > 10 * qp_.tolerance * scale) result.status = QpStatus::kInfeasible;
  }
  return result;
}

// The active-set iterations. A constraint added by a step of rounding size whose multiplier
// then asks to release it again, with only rounding-size steps in between, means a working set
// that is dependent within the tolerance: the iterations would bounce between equivalent
// working sets, each correcting the same rounding-size row residual differently. After a few
// such bounces the residuals within the tolerance are left alone, which ends the bouncing.
QpResult ActiveSetQp::Run(const QpWorkingSet& guess) {
  factorizations_before_ = kkt_->factorizations;
  BuildRows();
  Initialize(guess);
  released_var_.assign(x_.size(), false);
  released_row_.assign(m_, false);
  while (iterations_ < qp_.max_iterations) {
    if (PastDeadline()) return Finish(QpStatus::kTimeLimit);
    ++iterations_;
    const EqpOutcome outcome = SolveEqp();
    if (outcome == EqpOutcome::kNonconvex) return Finish(QpStatus::kNonconvex);
    if (outcome == EqpOutcome::kFailed) return Finish(QpStatus::kFactorFailed);
    int var = -1, row = -1;
    const double alpha = RatioTest(var, row);
    const bool tiny = alpha * MaxAbs(p_) <= 10.0 * FeasTol(MaxAbs(x_));
    tiny_since_add_ = tiny_since_add_ && tiny;
    if (!tiny) bounces_ = 0;
    for (size_t j = 0; j < x_.size(); ++j) x_[j] += alpha * p_[j];
    for (int i = 0; i < m_; ++i) r_[i] = RowTimes(i, x_);
    if (var < 0 && row < 0) {
      if (AtOptimalWorkingSet(alpha)) return Finish(QpStatus::kOptimal);
    } else {
      AddBlocking(var, row, alpha, tiny);
    }
    if (WorkingSetRepeats()) {
      TraceStep(0.0, 0.0, "working set repeats: cycling");
      break;
    }
  }
  return Finish(QpStatus::kIterationLimit);
}

// At the minimiser of the working set: true when it is optimal, otherwise the constraint with
// the worst multiplier leaves the working set (a constraint bouncing in and out on tiny steps
// stops the correction of row residuals within tolerance).
bool ActiveSetQp::AtOptimalWorkingSet(double alpha) {
  if (!DropWorstMultiplier(Gradient())) {
    TraceStep(alpha * MaxAbs(p_), alpha, "optimal");
    return true;
  }
  TraceStep(alpha * MaxAbs(p_), alpha, "drop " + ConstraintName(dropped_var_, dropped_row_));
  const bool bounced = tiny_since_add_ && ((dropped_var_ >= 0 && dropped_var_ == added_var_) ||
                                           (dropped_row_ >= 0 && dropped_row_ == added_row_));
  if (bounced && ++bounces_ >= kBounceLimit) keep_residuals_ = true;
  return false;
}

// The step stopped at a constraint: it joins the working set (with the others a step that
// could not move runs into), and runs of such steps switch to the smallest-index rule.
void ActiveSetQp::AddBlocking(int var, int row, double alpha, bool tiny) {
  degenerate_ = alpha > 0 ? 0 : degenerate_ + 1;
  smallest_index_ = degenerate_ >= kDegenerateLimit;
  added_var_ = var;
  added_row_ = row;
  tiny_since_add_ = tiny;
  if (var >= 0) {
    const bool lower = p_[var] < 0;
    var_state_[var] = lower ? Activity::kLower : Activity::kUpper;
    x_[var] = lower ? Lower(var) : Upper(var);
  } else {
    row_state_[row] = RowTimes(row, p_) < 0 ? Activity::kLower : Activity::kUpper;
  }
  // Only a step that did not move at all: after a short real step the constraints near the
  // new point are no evidence of a degenerate vertex, and taking them in has made working
  // sets repeat on small integer problems.
  const int more = alpha == 0 && !smallest_index_ ? AddBlockingAtZeroStep() : 0;
  const std::string others = more > 0 ? fmt::format(" and {} more", more) : "";
  TraceStep(alpha * MaxAbs(p_), alpha, "add " + ConstraintName(var, row) + others);
}

}  // namespace

QpResult SolveQp(const QpProblem& qp, const QpWorkingSet& guess, KktFactor* factor) {
  ActiveSetQp solver(qp, factor);
  return solver.Run(guess);
}

}  // namespace kx::solvers
