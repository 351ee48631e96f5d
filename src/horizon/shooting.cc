#include "horizon/shooting.h"

#include <algorithm>
#include <cmath>
#include <tuple>

#include "base/check.h"
#include "base/report.h"
#include "base/sentinels.h"
#include "base/timers.h"
#include "model/block_newton.h"
#include "model/sparsity.h"

namespace kx::horizon {

Shooting::Shooting(Horizon& h, const model::ModelStore& base, model::ModelAccess& access,
                   const SequentialSettings& settings)
    : access_(access), nlp_(access, /*dynamic=*/true, /*scaled=*/false), settings_(settings) {
  num_full_ = nlp_.num_vars();
  const model::JacobianPattern& p = access_.Jacobian(model::Shape::kReduced);
  full_row_start_ = p.row_start;
  full_cols_.resize(p.cols.size());
  for (size_t k = 0; k < p.cols.size(); ++k) full_cols_[k] = p.cols[k] - 1;
  full_x_.resize(num_full_);
  nlp_.GetStart(full_x_);
  good_x_ = full_x_;
  ClassifyColumns(h, base);
  ClassifyRows();
  BuildReducedPattern();
  exact_hessian_ = nlp_.has_hessian();
  if (exact_hessian_) BuildHessianPattern();
}

// Eliminated columns are the simulation's unknowns; reduced unknowns are the other free
// columns that some row or the objective reads.
void Shooting::ClassifyColumns(const Horizon& h, const model::ModelStore& base) {
  CutBlocks(h, base);
  ChooseReducedUnknowns();
}

// The simulation's blocks in full rows and columns.
void Shooting::CutBlocks(const Horizon& h, const model::ModelStore& base) {
  const model::ModelStore& store = access_.store();
  const model::EquationLayout& layout = access_.Layout();
  blocks_ = SequentialBlocks(h, base);
  sim_pos_.assign(num_full_, -1);
  for (const StepBlock& b : blocks_) {
    if (b.rows.size() != b.cols.size())
      Fatal({"Sequential estimation and control: a simulation step is not square",
             fmt::format("  {} rows, {} unknowns", b.rows.size(), b.cols.size())});
    std::vector<int>& cols = block_cols_.emplace_back();
    std::vector<int>& rows = block_rows_.emplace_back();
    for (int c : b.cols) {
      const int col = model::ShapeColumn(store, model::Shape::kReduced, c) - 1;
      KX_CHECK(col >= 0 && sim_pos_[col] < 0);
      sim_pos_[col] = static_cast<int>(sim_cols_.size());
      sim_cols_.push_back(col);
      cols.push_back(col);
    }
    for (int e : b.rows) {
      KX_CHECK(layout.row_of_eqn[e] > 0);
      rows.push_back(layout.row_of_eqn[e] - 1);
    }
  }
}

void Shooting::ChooseReducedUnknowns() {
  std::vector<char> used(num_full_, 0);
  for (int c : full_cols_) used[c] = 1;
  for (int n : access_.ObjectivePattern()) used[n - 1] = 1;
  std::vector<double> xl(num_full_), xu(num_full_);
  nlp_.GetBounds(xl, xu);
  z_pos_.assign(num_full_, -1);
  for (int c = 0; c < num_full_; ++c) {
    if (sim_pos_[c] >= 0 || !used[c] || xl[c] >= xu[c]) continue;
    z_pos_[c] = static_cast<int>(z_members_.size());
    z_members_.push_back({c});
  }
  MoveStateBoundsToRows(xl, xu);
}

// A bound of a state becomes a reduced row x_s(z) within it, as the simultaneous program has
// it; the simulation itself runs without the bound, so that a trial point beyond it is a
// trajectory the optimiser can step back from, not a step that cannot solve.
void Shooting::MoveStateBoundsToRows(const std::vector<double>& xl, const std::vector<double>& xu) {
  model::ModelStore& store = access_.store();
  for (size_t s = 0; s < sim_cols_.size(); ++s) {
    const int c = sim_cols_[s];
    if (c >= store.nvar || (xl[c] <= -kUnlimited && xu[c] >= kUnlimited)) continue;
    model::Variable& v = store.Var(c + 1);
    bounded_.push_back({static_cast<int>(s), xl[c], xu[c], v.lower, v.upper});
    v.lower = -kUnlimited;
    v.upper = kUnlimited;
  }
}

void Shooting::RestoreStateBounds() {
  model::ModelStore& store = access_.store();
  for (const BoundedState& b : bounded_) {
    model::Variable& v = store.Var(sim_cols_[b.pos] + 1);
    v.lower = b.store_lower;
    v.upper = b.store_upper;
  }
  bounded_.clear();
}

Shooting::~Shooting() { RestoreStateBounds(); }

// Rows the simulation solves are eliminated; the rest are the reduced rows. Reduced unknowns
// that an eliminated row reads are the inputs the trajectory depends on.
void Shooting::ClassifyRows() {
  std::vector<char> eliminated(access_.NumRows(), 0);
  for (const std::vector<int>& rows : block_rows_)
    for (int r : rows) eliminated[r] = 1;
  for (int r = 0; r < access_.NumRows(); ++r)
    if (!eliminated[r]) g_rows_.push_back(r);
  MergeTiedCopies();
  input_pos_.assign(z_members_.size(), -1);
  for (int r = 0; r < access_.NumRows(); ++r) {
    if (!eliminated[r]) continue;
    for (int k = full_row_start_[r]; k < full_row_start_[r + 1]; ++k) {
      const int z = z_pos_[full_cols_[k]];
      if (z < 0 || input_pos_[z] >= 0) continue;
      input_pos_[z] = static_cast<int>(inputs_.size());
      inputs_.push_back(z);
    }
  }
}

// A row "u_a - u_b = 0" between two free value columns (the links of a free FV's copies, an
// MV's hold rows inside a step, and its move row over a step that may not move) makes them one
// reduced unknown and leaves the program. The inputs are then one per FV and one per move
// block of an MV, and the sensitivities as few.
void Shooting::MergeTiedCopies() {
  std::vector<int> parent(z_members_.size());
  for (size_t i = 0; i < parent.size(); ++i) parent[i] = static_cast<int>(i);
  auto root = [&](int i) {
    while (parent[i] != i) i = parent[i] = parent[parent[i]];
    return i;
  };
  std::vector<double> jac(full_cols_.size());
  nlp_.Forget();
  nlp_.JacobianValues(full_x_, jac);  // also writes full_x_ into the store
  model::BlockNewton probe(access_);
  std::vector<int> kept;
  for (int r : g_rows_) {
    int a = -1, b = -1;
    if (!IsTie(r, jac, probe, &a, &b)) {
      kept.push_back(r);
      continue;
    }
    parent[root(z_pos_[a])] = root(z_pos_[b]);
  }
  nlp_.Forget();
  g_rows_ = std::move(kept);
  std::vector<int> merged(z_members_.size(), -1);
  std::vector<std::vector<int>> members;
  for (size_t i = 0; i < z_members_.size(); ++i) {
    int& m = merged[root(static_cast<int>(i))];
    if (m < 0) m = static_cast<int>(members.size()), members.emplace_back();
    for (int c : z_members_[i]) {
      members[m].push_back(c);
      z_pos_[c] = m;
    }
  }
  z_members_ = std::move(members);
}

// Row r ties value columns *a and *b: an equality whose only free columns are those two, with
// opposite Jacobian entries, zero at equal values and linear in their difference (checked at
// three points).
bool Shooting::IsTie(int r, const std::vector<double>& jac, model::BlockNewton& probe, int* a,
                     int* b) {
  const model::Equation& e = access_.Row(r + 1);
  if (e.lower != e.upper) return false;
  std::vector<std::pair<int, double>> free;
  for (int k = full_row_start_[r]; k < full_row_start_[r + 1]; ++k) {
    const int c = full_cols_[k];
    if (sim_pos_[c] >= 0) return false;
    if (z_pos_[c] >= 0) free.emplace_back(c, jac[k]);
  }
  model::ModelStore& store = access_.store();
  if (free.size() != 2 || free[0].first >= store.nvar || free[1].first >= store.nvar) return false;
  const double v = free[0].second;
  if (v == 0.0 || std::abs(v + free[1].second) > 1e-12 * std::abs(v)) return false;
  double& x1 = store.Var(free[0].first + 1).val;
  double& x2 = store.Var(free[1].first + 1).val;
  const double s1 = x1, s2 = x2;
  const int eqn = access_.Layout().constraint_eqns[r];
  bool tie = true;
  for (const auto& [d1, d2, want] : {std::tuple{0.0, 0.0, 0.0}, {1.0, 1.0, 0.0}, {1.0, 0.0, v}}) {
    x1 = s2 + d1, x2 = s2 + d2;
    double res = 0;
    tie = tie && probe.Residual(eqn, &res) &&
          std::abs(res - e.lower - want) <= 1e-9 * (1 + std::abs(v));
  }
  x1 = s1, x2 = s2;
  *a = free[0].first, *b = free[1].first;
  return tie;
}

// A reduced row reads its own reduced unknowns and, through the trajectory, every input when
// it reads an eliminated column.
void Shooting::BuildReducedPattern() {
  std::vector<int> mark(z_members_.size(), -1);
  depends_on_states_.assign(g_rows_.size(), 0);
  for (size_t i = 0; i < g_rows_.size(); ++i) {
    jac_start_.push_back(static_cast<int>(jac_rows_.size()));
    auto add = [&](int z) {
      if (mark[z] == static_cast<int>(i)) return;
      mark[z] = static_cast<int>(i);
      jac_rows_.push_back(static_cast<int>(i));
      jac_cols_.push_back(z);
    };
    const int r = g_rows_[i];
    for (int k = full_row_start_[r]; k < full_row_start_[r + 1]; ++k) {
      const int c = full_cols_[k];
      if (z_pos_[c] >= 0) add(z_pos_[c]);
      if (sim_pos_[c] >= 0) depends_on_states_[i] = 1;
    }
    if (depends_on_states_[i])
      for (int z : inputs_) add(z);
  }
  for (size_t b = 0; b < bounded_.size(); ++b) {  // x_s(z): dense in the inputs
    jac_start_.push_back(static_cast<int>(jac_rows_.size()));
    for (int z : inputs_) {
      jac_rows_.push_back(static_cast<int>(g_rows_.size() + b));
      jac_cols_.push_back(z);
    }
  }
  jac_start_.push_back(static_cast<int>(jac_rows_.size()));
  scratch_.assign(z_members_.size(), 0.0);
}

void Shooting::Bounds(std::span<double> zl, std::span<double> zu) {
  std::vector<double> xl(num_full_), xu(num_full_);
  nlp_.GetBounds(xl, xu);
  for (size_t i = 0; i < z_members_.size(); ++i) {  // the tightest of the tied copies
    zl[i] = -kUnlimited, zu[i] = kUnlimited;
    for (int c : z_members_[i]) zl[i] = std::max(zl[i], xl[c]), zu[i] = std::min(zu[i], xu[c]);
  }
}

void Shooting::ConstraintBounds(std::span<double> cl, std::span<double> cu) {
  std::vector<double> gl(access_.NumRows()), gu(access_.NumRows());
  nlp_.GetConstraintBounds(gl, gu);
  for (size_t i = 0; i < g_rows_.size(); ++i) {
    cl[i] = gl[g_rows_[i]];
    cu[i] = gu[g_rows_[i]];
  }
  for (size_t b = 0; b < bounded_.size(); ++b) {
    cl[g_rows_.size() + b] = bounded_[b].lower;
    cu[g_rows_.size() + b] = bounded_[b].upper;
  }
}

void Shooting::Start(std::span<double> z) {
  for (size_t i = 0; i < z_members_.size(); ++i) z[i] = good_x_[z_members_[i].front()];
}

void Shooting::JacobianStructure(std::span<int> rows, std::span<int> cols) {
  std::copy(jac_rows_.begin(), jac_rows_.end(), rows.begin());
  std::copy(jac_cols_.begin(), jac_cols_.end(), cols.begin());
}

// The trajectory at z, simulated from the last one that solved.
bool Shooting::Simulate(std::span<const double> z) {
  if (!last_z_.empty() && std::equal(z.begin(), z.end(), last_z_.begin())) return last_ok_;
  last_z_.assign(z.begin(), z.end());
  sens_ok_ = false;
  full_x_ = good_x_;
  for (size_t i = 0; i < z_members_.size(); ++i)
    for (int c : z_members_[i]) full_x_[c] = z[i];
  nlp_.Forget();
  nlp_.SetX(full_x_);
  ++simulations_;
  const SequentialOutcome out = [&] {
    ScopedTimer timer("Shooting: simulation");
    return SimulateBlocks(blocks_, access_, settings_);
  }();
  nlp_.Forget();
  last_ok_ = out.ok;
  if (!out.ok) return false;
  access_.GetCondensed(false, full_x_);
  good_x_ = full_x_;
  return true;
}

bool Shooting::Objective(std::span<const double> z, double& f) {
  if (!Simulate(z)) return false;
  f = nlp_.Objective(full_x_);
  return true;
}

bool Shooting::Constraints(std::span<const double> z, std::span<double> c) {
  if (!Simulate(z)) return false;
  std::vector<double> full(access_.NumRows());
  nlp_.Constraints(full_x_, full);
  for (size_t i = 0; i < g_rows_.size(); ++i) c[i] = full[g_rows_[i]];
  for (size_t b = 0; b < bounded_.size(); ++b)
    c[g_rows_.size() + b] = full_x_[sim_cols_[bounded_[b].pos]];
  return true;
}

// dx/du over the whole trajectory, block after block.
bool Shooting::Sensitivities() {
  if (sens_ok_) return true;
  ScopedTimer timer("Shooting: sensitivities");
  full_jac_.resize(full_cols_.size());
  nlp_.JacobianValues(full_x_, full_jac_);
  sens_.assign(sim_cols_.size() * inputs_.size(), 0.0);
  for (size_t b = 0; b < blocks_.size(); ++b)
    if (!PropagateBlock(static_cast<int>(b))) return false;
  sens_ok_ = true;
  return true;
}

// J_kk dx_k/du = -(J_ku + sum_{j<k} J_kj dx_j/du) for block k.
bool Shooting::PropagateBlock(int b) {
  const std::vector<int>& cols = block_cols_[b];
  const std::vector<int>& rows = block_rows_[b];
  const int n = static_cast<int>(cols.size()), ni = num_inputs();
  if (n == 0) return true;
  const int first = sim_pos_[cols.front()];
  std::vector<int> tr, tc;
  std::vector<double> tv, rhs(static_cast<size_t>(n) * ni, 0.0);  // rhs column-major by input
  for (int i = 0; i < n; ++i) {
    const int r = rows[i];
    for (int k = full_row_start_[r]; k < full_row_start_[r + 1]; ++k) {
      const int c = full_cols_[k], s = sim_pos_[c];
      const double v = full_jac_[k];
      if (s >= first) {
        KX_CHECK(s < first + n);  // a step reads no later step
        tr.push_back(i), tc.push_back(s - first), tv.push_back(v);
      } else if (s >= 0) {
        const double* ds = &sens_[static_cast<size_t>(s) * ni];
        for (int q = 0; q < ni; ++q) rhs[static_cast<size_t>(q) * n + i] -= v * ds[q];
      } else if (z_pos_[c] >= 0 && input_pos_[z_pos_[c]] >= 0) {
        rhs[static_cast<size_t>(input_pos_[z_pos_[c]]) * n + i] -= v;
      }
    }
  }
  if (!lu_.Factor(n, tr, tc, tv)) return false;
  for (int q = 0; q < ni; ++q) {
    std::span<double> column(&rhs[static_cast<size_t>(q) * n], n);
    if (!lu_.Solve(column)) return false;
    for (int i = 0; i < n; ++i) sens_[static_cast<size_t>(first + i) * ni + q] = column[i];
  }
  return true;
}

bool Shooting::Gradient(std::span<const double> z, std::span<double> g) {
  if (!Simulate(z) || !Sensitivities()) return false;
  std::vector<double> full(num_full_);
  nlp_.Gradient(full_x_, full);
  const int ni = num_inputs();
  for (size_t i = 0; i < z_members_.size(); ++i) {
    g[i] = 0.0;
    for (int c : z_members_[i]) g[i] += full[c];
  }
  for (size_t s = 0; s < sim_cols_.size(); ++s) {
    const double d = full[sim_cols_[s]];
    if (d == 0.0) continue;
    for (int q = 0; q < ni; ++q) g[inputs_[q]] += d * sens_[s * ni + q];
  }
  return true;
}

bool Shooting::JacobianValues(std::span<const double> z, std::span<double> values) {
  if (!Simulate(z) || !Sensitivities()) return false;
  const int ni = num_inputs();
  for (size_t i = 0; i < g_rows_.size(); ++i) {
    const int r = g_rows_[i];
    for (int k = jac_start_[i]; k < jac_start_[i + 1]; ++k) scratch_[jac_cols_[k]] = 0.0;
    for (int k = full_row_start_[r]; k < full_row_start_[r + 1]; ++k) {
      const int c = full_cols_[k], s = sim_pos_[c];
      const double v = full_jac_[k];
      if (z_pos_[c] >= 0) scratch_[z_pos_[c]] += v;
      if (s < 0) continue;
      for (int q = 0; q < ni; ++q)
        scratch_[inputs_[q]] += v * sens_[static_cast<size_t>(s) * ni + q];
    }
    for (int k = jac_start_[i]; k < jac_start_[i + 1]; ++k) values[k] = scratch_[jac_cols_[k]];
  }
  for (size_t b = 0; b < bounded_.size(); ++b) {
    const size_t s = static_cast<size_t>(bounded_[b].pos);
    const int first = jac_start_[g_rows_.size() + b];
    for (int q = 0; q < ni; ++q) values[first + q] = sens_[s * ni + q];
  }
  return true;
}

bool Shooting::Store(std::span<const double> z, std::span<const double> lambda) {
  last_z_.clear();  // simulate again: the store may have been changed since
  const bool ok = Simulate(z);
  if (!ok) full_x_ = good_x_;
  // The eliminated rows' multipliers are the adjoint ones, as the full program would have them.
  std::vector<double> full_lambda;
  const bool adjoint =
      !lambda.empty() && ok && Sensitivities() && ModelRowMultipliers(1.0, lambda, &full_lambda);
  if (!lambda.empty() && !adjoint) {
    full_lambda.assign(access_.NumRows(), 0.0);
    for (size_t i = 0; i < g_rows_.size(); ++i) full_lambda[g_rows_[i]] = lambda[i];
  }
  nlp_.StoreSolution(full_x_, full_lambda);
  return ok;
}

}  // namespace kx::horizon

// ----- second derivatives -----

namespace kx::horizon {

void Shooting::Projection(int c, std::vector<std::pair<int, double>>* row) const {
  row->clear();
  if (z_pos_[c] >= 0) {
    row->emplace_back(z_pos_[c], 1.0);
  } else if (sim_pos_[c] >= 0) {
    const int ni = num_inputs();
    const size_t s = static_cast<size_t>(sim_pos_[c]);
    for (int q = 0; q < ni; ++q)
      row->emplace_back(inputs_[q], sens_.empty() ? 1.0 : sens_[s * ni + q]);
  }
}

int Shooting::HessianSlot(int a, int b) const {
  if (a < b) std::swap(a, b);
  auto it = hess_slot_.find(static_cast<long long>(a) * num_vars() + b);
  return it == hess_slot_.end() ? -1 : it->second;
}

// Every pair of reduced unknowns that some full Hessian entry reaches through P.
void Shooting::BuildHessianPattern() {
  const int nnz = nlp_.nnz_hess();
  full_hess_rows_.resize(nnz);
  full_hess_cols_.resize(nnz);
  nlp_.HessianStructure(full_hess_rows_, full_hess_cols_);
  std::vector<std::pair<int, double>> pi, pj;
  for (int k = 0; k < nnz; ++k) {
    const int i = --full_hess_rows_[k], j = --full_hess_cols_[k];
    Projection(i, &pi);
    Projection(j, &pj);
    for (const auto& [a, wa] : pi) {
      for (const auto& [b, wb] : pj) {
        const int hi = std::max(a, b), lo = std::min(a, b);
        const long long key = static_cast<long long>(hi) * num_vars() + lo;
        if (hess_slot_.emplace(key, static_cast<int>(hess_rows_.size())).second) {
          hess_rows_.push_back(hi);
          hess_cols_.push_back(lo);
        }
      }
    }
  }
}

void Shooting::HessianStructure(std::span<int> rows, std::span<int> cols) {
  std::copy(hess_rows_.begin(), hess_rows_.end(), rows.begin());
  std::copy(hess_cols_.begin(), hess_cols_.end(), cols.begin());
}

// The model rows' multipliers: J_mx^T lambda_m = -(s grad_x f + J_gx^T lambda_g), by blocks
// from the last step back. `full_lambda` gets every row's multiplier.
bool Shooting::ModelRowMultipliers(double obj_factor, std::span<const double> lambda,
                                   std::vector<double>* full_lambda) {
  full_lambda->assign(access_.NumRows(), 0.0);
  for (size_t i = 0; i < g_rows_.size(); ++i) (*full_lambda)[g_rows_[i]] = lambda[i];
  std::vector<double> grad(num_full_), rhs(sim_cols_.size(), 0.0);
  nlp_.Gradient(full_x_, grad);
  for (size_t s = 0; s < sim_cols_.size(); ++s) rhs[s] = -obj_factor * grad[sim_cols_[s]];
  for (size_t i = 0; i < g_rows_.size(); ++i) {
    const int r = g_rows_[i];
    for (int k = full_row_start_[r]; k < full_row_start_[r + 1]; ++k) {
      const int s = sim_pos_[full_cols_[k]];
      if (s >= 0) rhs[s] -= lambda[i] * full_jac_[k];
    }
  }
  for (size_t b = 0; b < bounded_.size(); ++b) rhs[bounded_[b].pos] -= lambda[g_rows_.size() + b];
  for (int b = static_cast<int>(blocks_.size()) - 1; b >= 0; --b)
    if (!AdjointBlock(b, rhs, full_lambda)) return false;
  return true;
}

// Solves block b's transposed system for its rows' multipliers and moves their terms onto
// the right-hand sides of the earlier blocks' columns.
bool Shooting::AdjointBlock(int b, std::vector<double>& rhs, std::vector<double>* full_lambda) {
  const std::vector<int>& cols = block_cols_[b];
  const std::vector<int>& rows = block_rows_[b];
  const int n = static_cast<int>(cols.size());
  if (n == 0) return true;
  const int first = sim_pos_[cols.front()];
  std::vector<int> tr, tc;
  std::vector<double> tv;
  for (int i = 0; i < n; ++i) {
    const int r = rows[i];
    for (int k = full_row_start_[r]; k < full_row_start_[r + 1]; ++k) {
      const int s = sim_pos_[full_cols_[k]];
      if (s >= first) tr.push_back(s - first), tc.push_back(i), tv.push_back(full_jac_[k]);
    }
  }
  std::vector<double> mult(rhs.begin() + first, rhs.begin() + first + n);
  if (!lu_t_.Factor(n, tr, tc, tv) || !lu_t_.Solve(mult)) return false;
  for (int i = 0; i < n; ++i) {
    const int r = rows[i];
    (*full_lambda)[r] = mult[i];
    for (int k = full_row_start_[r]; k < full_row_start_[r + 1]; ++k) {
      const int s = sim_pos_[full_cols_[k]];
      if (s >= 0 && s < first) rhs[s] -= mult[i] * full_jac_[k];
    }
  }
  return true;
}

bool Shooting::HessianValues(std::span<const double> z, double obj_factor,
                             std::span<const double> lambda, std::span<double> values) {
  if (!Simulate(z) || !Sensitivities()) return false;
  std::vector<double> full_lambda;
  if (!ModelRowMultipliers(obj_factor, lambda, &full_lambda)) return false;
  std::vector<double> h(full_hess_rows_.size());
  nlp_.HessianValues(full_x_, obj_factor, full_lambda, h);
  std::fill(values.begin(), values.begin() + nnz_hess(), 0.0);
  std::vector<std::pair<int, double>> pi, pj;
  for (size_t k = 0; k < h.size(); ++k) {
    if (h[k] == 0.0) continue;
    const int i = full_hess_rows_[k], j = full_hess_cols_[k];
    Projection(i, &pi);
    Projection(j, &pj);
    // Lower triangle of h (p_i p_j^T + p_j p_i^T) for i != j, of h p_i p_i^T for i == j.
    for (const auto& [a, wa] : pi) {
      for (const auto& [b, wb] : pj) {
        if (i == j && a < b) continue;
        const double t = h[k] * wa * wb;
        values[HessianSlot(a, b)] += (i != j && a == b) ? 2 * t : t;
      }
    }
  }
  return true;
}

}  // namespace kx::horizon
