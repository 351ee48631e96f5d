#include "horizon/sequential.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "model/block_newton.h"

namespace kx::horizon {
namespace {

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
      : h_(h), base_(base), store_(h.store), newton_(access) {
    newton_settings_.tolerance = settings.tolerance;
    newton_settings_.max_iter = settings.max_iter;
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

  bool Solve(const Block& b, SequentialOutcome* out) {
    if (b.rows.empty() && b.cols.empty()) return true;
    const model::NewtonResult r = newton_.Solve(b.rows, b.cols, newton_settings_);
    out->iterations += r.iterations;
    if (!r.ok) out->why = r.why;
    return r.ok;
  }

  Horizon& h_;
  const model::ModelStore& base_;
  model::ModelStore& store_;
  model::NewtonSettings newton_settings_;
  model::BlockNewton newton_;
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
