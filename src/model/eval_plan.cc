#include "model/eval_plan.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "base/check.h"

namespace kx::model {
namespace {

constexpr int kMaxLanes = 32;            // copies evaluated together
constexpr long kBlockDoubles = 1 << 14;  // work area of one block: 128 KB at most (when the
                                         // program allows more than one lane)

int LanesFor(const lang::Program& p) {
  return static_cast<int>(std::clamp<long>(kBlockDoubles / std::max(p.work_size(), 1), 1,
                                           kMaxLanes));
}

}  // namespace

EvalPlan::EvalPlan(const ModelStore& store, const EquationLayout& layout, Shape shape)
    : shape_(shape), nvar_(store.nvar), diff_var_(layout.diff_var),
      objective_all_(layout.objective_vars), programs_(store.programs.data()) {
  KX_CHECK(shape == Shape::kSteady || shape == Shape::kReduced);
  const size_t rows = layout.constraint_eqns.size() + layout.objective_eqns.size();
  eqn_.reserve(rows);
  row_.reserve(rows);
  cols_.reserve(layout.SlotsOf(layout.constraint_eqns) + layout.SlotsOf(layout.objective_eqns));
  AddGroups(store, layout, layout.constraint_eqns, false);
  AddGroups(store, layout, layout.objective_eqns, true);
  size_t work = 1;
  for (const std::vector<Group>* list : {&rows_, &objective_})
    for (const Group& g : *list)
      work = std::max(work, static_cast<size_t>(g.program->work_size()) * g.stride);
  work_.assign(work, 0.0);
  members_.resize(kMaxLanes);
  lane_cols_.resize(kMaxLanes);
  weight_.resize(kMaxLanes);
  // The point reaches as far as the columns the rows read: a steady problem without time
  // derivatives needs no derivative columns. A reduced one takes every column.
  size_t width = 2 * static_cast<size_t>(nvar_) + 1;
  if (shape == Shape::kSteady) {
    int32_t last = nvar_;
    for (int32_t c : cols_) last = std::max(last, c);
    width = static_cast<size_t>(last) + 1;
  }
  values_.assign(width, 0.0);
  PlanTables();
  LoadValues(store);
}

// Groups the rows `eqns` by program, each group's members in row order.
void EvalPlan::AddGroups(const ModelStore& store, const EquationLayout& layout,
                         const std::vector<int>& eqns, bool objective) {
  std::vector<int> order(eqns.size());
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
    return store.eqns[eqns[a]].program < store.eqns[eqns[b]].program;
  });
  std::vector<Group>& groups = objective ? objective_ : rows_;
  for (int k : order) {
    const int e = eqns[k];
    const int index = store.eqns[e].program;
    const lang::Program& p = store.programs[index];
    if (groups.empty() || groups.back().index != index) {
      groups.push_back(Group{&p, index, static_cast<int32_t>(eqn_.size()), 0, p.num_inputs(),
                             static_cast<int32_t>(p.hess_pairs().size()), LanesFor(p),
                             static_cast<int64_t>(cols_.size()), 0, 0, 0, {0, 0}, {0, 0}});
      // A derivative call runs only the instructions its outputs need: the residual, and
      // whatever feeds only it, is skipped.
      for (int d = 0; d < 2; ++d) {
        const std::vector<int32_t> need = p.Needed(d == 0 ? Part::kFirst : Part::kSecond);
        groups.back().need[d] = static_cast<int32_t>(needed_.size());
        groups.back().num_need[d] = static_cast<int32_t>(need.size());
        needed_.insert(needed_.end(), need.begin(), need.end());
      }
    }
    ++groups.back().count;
    eqn_.push_back(e);
    row_.push_back(objective ? -1 : k);
    for (int s = layout.slot_begin[e]; s < layout.slot_begin[e + 1]; ++s)
      cols_.push_back(layout.slot_column[s]);
  }
}

bool EvalPlan::Matches(const ModelStore& store) const {
  if (store.programs.data() != programs_ || store.nvar != nvar_) return false;
  for (const std::vector<Group>* list : {&rows_, &objective_})
    for (const Group& g : *list)
      for (int m = g.first; m < g.first + g.count; ++m)
        if (store.eqns[eqn_[m]].program != g.index) return false;
  return true;
}

// Tables a group's function of an input when most of its members' columns are shared with
// other rows applying the same function: then each value is computed once instead of twice
// or more.
void EvalPlan::PlanTables() {
  const size_t width = values_.size();
  tables_.resize(lang::kNumOps);
  table_cols_.resize(lang::kNumOps);
  fresh_.assign(lang::kNumOps, 0);
  std::vector<std::vector<int32_t>> uses(lang::kNumOps);
  std::vector<std::vector<lang::Program::InputFunction>> found;
  auto col = [&](const Group& g, int32_t m, int32_t input) {
    return cols_[g.cols + static_cast<int64_t>(m - g.first) * g.inputs + input];
  };
  for (std::vector<Group>* list : {&rows_, &objective_}) {
    for (Group& g : *list) {
      found.push_back(g.program->InputFunctions());
      for (const auto& f : found.back()) {
        std::vector<int32_t>& u = uses[static_cast<int>(f.op)];
        if (u.empty()) u.assign(width, 0);
        for (int32_t m = g.first; m < g.first + g.count; ++m) ++u[col(g, m, f.input)];
      }
    }
  }
  size_t next = 0;
  for (std::vector<Group>* list : {&rows_, &objective_}) {
    for (Group& g : *list) {
      g.tabled = static_cast<int32_t>(tabled_.size());
      for (const auto& f : found[next]) {
        const int op = static_cast<int>(f.op);
        int32_t shared = 0;
        for (int32_t m = g.first; m < g.first + g.count; ++m)
          shared += uses[op][col(g, m, f.input)] > 1;
        if (2 * shared < g.count) continue;
        for (int32_t m = g.first; m < g.first + g.count; ++m)
          table_cols_[op].push_back(col(g, m, f.input));
        tabled_.push_back({f.instr, f.input, nullptr});  // its table is sized below
        tabled_op_.push_back(f.op);
      }
      g.num_tabled = static_cast<int32_t>(tabled_.size()) - g.tabled;
      ++next;
    }
  }
  // Each table's columns once, in increasing order (marked, then collected: no sort).
  std::vector<char> marked(width);
  for (std::vector<int32_t>& cols : table_cols_) {
    if (cols.empty()) continue;
    for (int32_t c : cols) marked[c] = 1;
    cols.clear();
    for (size_t c = 0; c < width; ++c) {
      if (!marked[c]) continue;
      cols.push_back(static_cast<int32_t>(c));
      marked[c] = 0;
    }
    cols.shrink_to_fit();
  }
  // A table reaches only as far as the last column it needs.
  for (int op = 0; op < lang::kNumOps; ++op)
    if (!table_cols_[op].empty()) tables_[op].assign(table_cols_[op].back() + 1, 0.0);
  for (size_t t = 0; t < tabled_.size(); ++t)
    tabled_[t].table = tables_[static_cast<int>(tabled_op_[t])].data();
}

namespace {

template <typename F>
void Fill(std::vector<double>* table, const std::vector<int32_t>& cols, const double* values,
          F f) {
  for (int32_t c : cols) (*table)[c] = f(values[c]);
}

}  // namespace

void EvalPlan::FreshTables(const Group& g, Part part) {
  const int end = g.program->PartEnd(part);
  for (int32_t t = g.tabled; t < g.tabled + g.num_tabled; ++t) {
    if (tabled_[t].instr >= end) break;
    const int op = static_cast<int>(tabled_op_[t]);
    if (fresh_[op]) continue;
    fresh_[op] = 1;
    std::vector<double>* table = &tables_[op];
    const std::vector<int32_t>& cols = table_cols_[op];
    const double* v = values_.data();
    switch (tabled_op_[t]) {
      case lang::Op::kExp: Fill(table, cols, v, [](double x) { return std::exp(x); }); break;
      case lang::Op::kSinh: Fill(table, cols, v, [](double x) { return std::sinh(x); }); break;
      case lang::Op::kCosh: Fill(table, cols, v, [](double x) { return std::cosh(x); }); break;
      case lang::Op::kTanh: Fill(table, cols, v, [](double x) { return std::tanh(x); }); break;
      case lang::Op::kSin: Fill(table, cols, v, [](double x) { return std::sin(x); }); break;
      case lang::Op::kCos: Fill(table, cols, v, [](double x) { return std::cos(x); }); break;
      case lang::Op::kTan: Fill(table, cols, v, [](double x) { return std::tan(x); }); break;
      case lang::Op::kAtan: Fill(table, cols, v, [](double x) { return std::atan(x); }); break;
      case lang::Op::kErf: Fill(table, cols, v, [](double x) { return std::erf(x); }); break;
      case lang::Op::kErfc: Fill(table, cols, v, [](double x) { return std::erfc(x); }); break;
      default: KX_CHECK(false);
    }
  }
}

void EvalPlan::LoadValues(const ModelStore& store) {
  ColumnValues(store, values_);
  // Which objective variables count may have changed with the marks since the last solve.
  objective_vars_.clear();
  for (int n : objective_all_)
    if (!store.Var(n).fixed) objective_vars_.push_back(n);
  std::fill(fresh_.begin(), fresh_.end(), 0);
}

void EvalPlan::SetPoint(std::span<const double> x) {
  std::fill(fresh_.begin(), fresh_.end(), 0);
  std::copy(x.begin(), x.begin() + nvar_, values_.begin() + 1);
  if (shape_ != Shape::kReduced) return;
  for (size_t i = 1; i < diff_var_.size(); ++i)
    if (diff_var_[i] > 0) values_[nvar_ + diff_var_[i]] = x[nvar_ + i - 1];
}

bool EvalPlan::HoldsPoint(std::span<const double> x) const {
  // A changed point usually differs early; an unchanged one is read once.
  if (!std::equal(x.begin(), x.begin() + nvar_, values_.begin() + 1)) return false;
  if (shape_ != Shape::kReduced) return true;
  for (size_t i = 1; i < diff_var_.size(); ++i)
    if (diff_var_[i] > 0 && values_[nvar_ + diff_var_[i]] != x[nvar_ + i - 1]) return false;
  return true;
}

void EvalPlan::Run(const Group& g, Part part, const int32_t* members, int lanes,
                   lang::DomainErrors* errs) {
  for (int l = 0; l < lanes; ++l)
    lane_cols_[l] = cols_.data() + g.cols + static_cast<int64_t>(members[l] - g.first) * g.inputs;
  FreshTables(g, part);
  // The work area keeps a group's constants from one block to the next of the same call.
  const bool constants_ready = filled_ == &g;
  filled_ = &g;
  std::span<const int32_t> only;
  if (part != Part::kResidual) {
    const int d = part == Part::kFirst ? 0 : 1;
    only = std::span<const int32_t>(needed_).subspan(g.need[d], g.num_need[d]);
  }
  g.program->RunBlock(part, values_.data(), lane_cols_.data(), lanes, g.stride, work_.data(),
                      std::span(tabled_).subspan(g.tabled, g.num_tabled), constants_ready,
                      only, errs);
}

// Runs `part` over every group of `groups` in blocks of consecutive members, then calls
// body(group, first member, lanes) to collect the block's results. A new call: no group's
// constants are in the work area yet.
template <typename Body>
void EvalPlan::ForEachBlock(const std::vector<Group>& groups, Part part,
                            lang::DomainErrors* errs, Body body) {
  filled_ = nullptr;
  for (const Group& g : groups) {
    for (int32_t m = g.first; m < g.first + g.count; m += g.stride) {
      const int lanes = std::min<int>(g.stride, g.first + g.count - m);
      std::iota(members_.begin(), members_.begin() + lanes, m);
      Run(g, part, members_.data(), lanes, errs);
      body(g, m, lanes);
    }
  }
}

double EvalPlan::Objective(lang::DomainErrors* errs) {
  double f = 0.0;
  for (int n : objective_vars_) f += values_[n];
  ForEachBlock(objective_, Part::kResidual, errs, [&](const Group& g, int32_t, int lanes) {
    const double* r = Slot(g, g.program->residual_slot());
    for (int l = 0; l < lanes; ++l) f += r[l];
  });
  return f;
}

void EvalPlan::Gradient(std::span<double> g_out, lang::DomainErrors* errs) {
  std::fill(g_out.begin(), g_out.begin() + nvar_, 0.0);
  for (int n : objective_vars_) g_out[n - 1] += 1.0;
  ForEachBlock(objective_, Part::kFirst, errs, [&](const Group& g, int32_t m, int lanes) {
    const int32_t* slots = g.program->gradient_slots();
    const int32_t* cols = cols_.data() + g.cols + static_cast<int64_t>(m - g.first) * g.inputs;
    for (int a = 0; a < g.inputs; ++a) {
      const double* d = Slot(g, slots[a]);
      // Objective rows read no time derivative (the objective pattern stops on one).
      for (int l = 0; l < lanes; ++l) g_out[cols[l * g.inputs + a] - 1] += d[l];
    }
  });
}

void EvalPlan::Residuals(std::span<double> c, lang::DomainErrors* errs) {
  ForEachBlock(rows_, Part::kResidual, errs, [&](const Group& g, int32_t m, int lanes) {
    const double* r = Slot(g, g.program->residual_slot());
    for (int l = 0; l < lanes; ++l) c[row_[m + l]] = r[l];
  });
}

void EvalPlan::PlanJacobian(const EquationLayout& layout, const JacobianPattern& pattern) {
  // The constraint rows' columns come first in cols_, the objective rows' after them.
  jac_at_.resize(objective_.empty() ? cols_.size() : objective_.front().cols);
  for (const Group& g : rows_) {
    for (int32_t m = g.first; m < g.first + g.count; ++m) {
      const int begin = layout.slot_begin[eqn_[m]];
      for (int a = 0; a < g.inputs; ++a)
        jac_at_[g.cols + static_cast<int64_t>(m - g.first) * g.inputs + a] =
            pattern.scatter[begin + a];
    }
  }
  jac_duplicates_ = pattern.has_duplicates;
  jac_planned_ = true;
}

void EvalPlan::Jacobian(const EquationLayout& layout, const JacobianPattern& pattern,
                        std::span<double> values, lang::DomainErrors* errs) {
  KX_CHECK(pattern.shape == shape_);
  if (!jac_planned_) PlanJacobian(layout, pattern);
  // Positions a row reads twice are summed; a position no slot feeds stays zero.
  if (jac_duplicates_) std::fill(values.begin(), values.begin() + pattern.nnz(), 0.0);
  ForEachBlock(rows_, Part::kFirst, errs, [&](const Group& g, int32_t m, int lanes) {
    const int32_t* slots = g.program->gradient_slots();
    const int32_t* at = jac_at_.data() + g.cols + static_cast<int64_t>(m - g.first) * g.inputs;
    for (int a = 0; a < g.inputs; ++a) {
      const double* d = Slot(g, slots[a]);
      for (int l = 0; l < lanes; ++l) {
        const int32_t p = at[l * g.inputs + a];
        if (p < 0) continue;
        if (jac_duplicates_) {
          values[p] += d[l];
        } else {
          values[p] = d[l];
        }
      }
    }
  });
}

void EvalPlan::PlanHessian(const HessianPattern& pattern) {
  if (hess_planned_) return;
  KX_CHECK(pattern.shape == shape_);
  size_t pairs = 0;
  for (const std::vector<Group>* list : {&rows_, &objective_})
    for (const Group& g : *list) pairs += static_cast<size_t>(g.count) * g.pairs;
  hess_at_.reserve(pairs);
  for (std::vector<Group>* list : {&rows_, &objective_}) {
    for (Group& g : *list) {
      g.pair_at = static_cast<int64_t>(hess_at_.size());
      for (int32_t m = g.first; m < g.first + g.count; ++m) {
        const int begin = pattern.pair_begin[eqn_[m]];
        hess_at_.insert(hess_at_.end(), pattern.scatter.begin() + begin,
                        pattern.scatter.begin() + begin + g.pairs);
      }
    }
  }
  hess_planned_ = true;
}

// Adds weight * the pairs of the `lanes` members listed in members_ (just evaluated).
void EvalPlan::AddPairs(const Group& g, int lanes, std::span<double> values) {
  const int32_t* slots = g.program->hessian_slots();
  const int32_t* at = hess_at_.data() + g.pair_at;
  for (int q = 0; q < g.pairs; ++q) {
    const double* h = Slot(g, slots[q]);
    for (int l = 0; l < lanes; ++l) {
      const int32_t k = at[static_cast<int64_t>(members_[l] - g.first) * g.pairs + q];
      if (k >= 0) {
        values[k] += weight_[l] * h[l];
      } else if (k <= -2) {
        values[-2 - k] += 2.0 * weight_[l] * h[l];
      }
    }
  }
}

void EvalPlan::Hessian(const HessianPattern& pattern, double obj_factor,
                       std::span<const double> lambda, std::span<double> values,
                       lang::DomainErrors* errs) {
  PlanHessian(pattern);
  std::fill(values.begin(), values.begin() + pattern.nnz(), 0.0);
  filled_ = nullptr;
  for (const std::vector<Group>* list : {&rows_, &objective_}) {
    for (const Group& g : *list) {
      if (g.pairs == 0) continue;
      // Blocks of the members whose weight is not zero: a row that does not count is not
      // evaluated, so its faults are neither counted nor spread into the sum.
      int lanes = 0;
      auto flush = [&] {
        Run(g, Part::kSecond, members_.data(), lanes, errs);
        AddPairs(g, lanes, values);
        lanes = 0;
      };
      for (int32_t m = g.first; m < g.first + g.count; ++m) {
        const double w = row_[m] < 0 ? obj_factor : lambda[row_[m]];
        if (w == 0.0) continue;
        members_[lanes] = m;
        weight_[lanes] = w;
        if (++lanes == g.stride) flush();
      }
      if (lanes > 0) flush();
    }
  }
}

}  // namespace kx::model
