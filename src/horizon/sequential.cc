#include "horizon/sequential.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "linalg/sparse_lu.h"
#include "model/jacobian.h"

namespace kx::horizon {
namespace {

constexpr int kMaxHalvings = 30;  // step cuts of one Newton step before the step fails

// One block: its rows (equation indices) and unknown columns (1..nvar values, nvar + n the
// time derivative of variable n).
struct Block {
  std::vector<int> rows;
  std::vector<int> cols;
};

class StepSolver {
 public:
  StepSolver(Horizon& h, const model::ModelStore& base, model::ModelAccess& access,
             const SequentialSettings& settings)
      : h_(h), base_(base), store_(h.store), layout_(access.Layout()), settings_(settings) {
    scratch_.Reserve(layout_);
    unknown_.assign(2 * store_.nvar + 2, -1);
    MarkModelRows();
  }

  SequentialOutcome Run() {
    SequentialOutcome out;
    const int steps = h_.grid.num_steps();
    for (int k = 0; k <= steps; ++k) {
      const Block block = k == 0 ? PointBlock({0}) : StepBlock(k);
      if (!Solve(block, &out)) {
        out.failed_step = k;
        return out;
      }
      ++out.steps_solved;
    }
    out.ok = true;
    return out;
  }

 private:
  // A variable the simulation solves for: calculated, declared in the model (not a parameter
  // and not a generated member).
  bool IsUnknown(int number) const {
    const model::Variable& v = store_.Var(number);
    if (v.fixed || v.vtype == model::kVarStepLength) return false;
    if (number <= h_.vars_per_point && v.diff) return false;  // the initial condition holds
    const model::Variable& b = base_.Var((number - 1) % h_.vars_per_point + 1);
    return b.vtype != model::kVarParameter && b.vtype != model::kVarGenerated;
  }

  // Rows of the model itself: user equations and the collocation rows of its variables.
  void MarkModelRows() {
    model_row_.assign(store_.eqns.size(), 0);
    for (size_t r = 0; r < store_.eqns.size() && r < h_.eqn_origin.size(); ++r) {
      const model::Equation& q = store_.eqns[r];
      if (!q.active || q.obj_eqn || q.lower != q.upper) continue;
      const int origin = h_.eqn_origin[r];
      if (origin >= 0) {
        model_row_[r] = base_.eqns[origin].statement > 0;
      } else if (origin == -1) {
        const model::Variable& b = base_.Var(h_.colloc_var[r]);
        model_row_[r] = b.vtype != model::kVarGenerated;
      }
    }
    rows_at_point_.assign(h_.grid.num_points(), {});
    for (size_t r = 0; r < model_row_.size(); ++r)
      if (model_row_[r]) rows_at_point_[h_.eqn_point[r]].push_back(static_cast<int>(r));
  }

  Block PointBlock(const std::vector<int>& points) const {
    Block b;
    for (int p : points) {
      b.rows.insert(b.rows.end(), rows_at_point_[p].begin(), rows_at_point_[p].end());
      for (int n = 1; n <= h_.vars_per_point; ++n) {
        const int number = h_.Number(p, n);
        if (!IsUnknown(number)) continue;
        b.cols.push_back(number);
        if (store_.Var(number).idiff > 0) b.cols.push_back(store_.nvar + number);
      }
    }
    return b;
  }

  Block StepBlock(int k) const {
    std::vector<int> points;
    for (int j = 2; j <= h_.grid.nodes; ++j) points.push_back(h_.grid.Point(k, j));
    return PointBlock(points);
  }

  double& Value(int col) {
    return col <= store_.nvar ? store_.Var(col).val : store_.Var(col - store_.nvar).d_val;
  }

  // Residuals of the block's rows; with `jac`, also the Jacobian over its unknowns. False when
  // an evaluation failed (a domain error or a value that is not finite).
  bool Evaluate(const Block& b, std::vector<double>* res, std::vector<int>* jr,
                std::vector<int>* jc, std::vector<double>* jv) {
    res->assign(b.rows.size(), 0.0);
    if (jv) jr->clear(), jc->clear(), jv->clear();
    for (size_t i = 0; i < b.rows.size(); ++i) {
      const int e = b.rows[i];
      const lang::Program& prog = store_.programs[store_.eqns[e].program];
      model::GatherInputs(layout_, e, scratch_.in.data());
      const int before = scratch_.errors.Total();
      const double r = jv ? prog.Gradient(scratch_.in.data(), scratch_.work.data(),
                                          scratch_.grad.data(), &scratch_.errors)
                          : prog.Residual(scratch_.in.data(), scratch_.work.data(),
                                          &scratch_.errors);
      if (scratch_.errors.Total() != before || !std::isfinite(r)) return false;
      (*res)[i] = r;
      if (!jv) continue;
      const int first = layout_.slot_begin[e];
      for (int s = first; s < layout_.slot_begin[e + 1]; ++s) {
        const int u = unknown_[layout_.slot_column[s]];
        if (u < 0) continue;
        jr->push_back(static_cast<int>(i));
        jc->push_back(u);
        jv->push_back(scratch_.grad[s - first]);
      }
    }
    return true;
  }

  static double Norm(const std::vector<double>& r) {
    double m = 0;
    for (double v : r) m = std::max(m, std::abs(v));
    return m;
  }

  void Move(const Block& b, const std::vector<double>& from, const std::vector<double>& dx,
            double alpha) {
    for (size_t j = 0; j < b.cols.size(); ++j) {
      double v = from[j] + alpha * dx[j];
      const int c = b.cols[j];
      if (c <= store_.nvar) v = std::clamp(v, store_.Var(c).lower, store_.Var(c).upper);
      Value(c) = v;
    }
  }

  bool Solve(const Block& b, SequentialOutcome* out) {
    if (b.rows.empty() && b.cols.empty()) return true;
    if (b.rows.size() != b.cols.size()) {
      out->why = fmt::format("{} equations for {} unknowns", b.rows.size(), b.cols.size());
      return false;
    }
    for (size_t j = 0; j < b.cols.size(); ++j) unknown_[b.cols[j]] = static_cast<int>(j);
    const bool ok = Newton(b, out);
    for (int c : b.cols) unknown_[c] = -1;
    return ok;
  }

  bool Newton(const Block& b, SequentialOutcome* out) {
    std::vector<double> res, trial, jv, x(b.cols.size()), dx;
    std::vector<int> jr, jc;
    const int n = static_cast<int>(b.cols.size());
    for (int it = 0; it < settings_.max_iter; ++it) {
      for (int j = 0; j < n; ++j) x[j] = Value(b.cols[j]);
      if (!Evaluate(b, &res, &jr, &jc, &jv)) {
        out->why = "the equations cannot be evaluated at the step's start";
        return false;
      }
      const double norm = Norm(res);
      if (norm <= settings_.tolerance) return true;
      ++out->iterations;
      if (!lu_.Factor(n, jr, jc, jv)) {
        out->why = "singular step Jacobian";
        return false;
      }
      dx = res;
      for (double& v : dx) v = -v;
      if (!lu_.Solve(dx)) {
        out->why = "linear solve failed";
        return false;
      }
      double alpha = 1.0;
      int cuts = 0;
      for (; cuts < kMaxHalvings; ++cuts, alpha /= 2) {
        Move(b, x, dx, alpha);
        if (Evaluate(b, &trial, nullptr, nullptr, nullptr) && Norm(trial) < norm) break;
      }
      if (cuts == kMaxHalvings) {
        Move(b, x, dx, 0.0);
        out->why = fmt::format("no decrease of the residual {:.3e}", norm);
        return false;
      }
    }
    out->why = fmt::format("no convergence in {} iterations", settings_.max_iter);
    return false;
  }

  Horizon& h_;
  const model::ModelStore& base_;
  model::ModelStore& store_;
  const model::EquationLayout& layout_;
  SequentialSettings settings_;
  model::EvalScratch scratch_;
  linalg::SparseLu lu_;
  std::vector<int> unknown_;                    // unknown index of each column, -1 for none
  std::vector<char> model_row_;                 // the row belongs to the model itself
  std::vector<std::vector<int>> rows_at_point_;  // model rows of each point
};

}  // namespace

SequentialOutcome SimulateStepByStep(Horizon& h, const model::ModelStore& base,
                                     model::ModelAccess& access,
                                     const SequentialSettings& settings) {
  StepSolver solver(h, base, access, settings);
  return solver.Run();
}

}  // namespace kx::horizon
