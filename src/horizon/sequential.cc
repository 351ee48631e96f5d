#include "horizon/sequential.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "model/block_newton.h"

namespace kx::horizon {
namespace {

// Cuts the replicated model into the blocks the simulation solves.
class BlockCutter {
 public:
  BlockCutter(const Horizon& h, const model::ModelStore& base)
      : h_(h), base_(base), store_(h.store) {
    MarkModelRows();
  }

  std::vector<StepBlock> Cut() const {
    std::vector<StepBlock> blocks;
    const int steps = h_.grid.num_steps();
    for (int k = 0; k <= steps; ++k) blocks.push_back(k == 0 ? PointBlock({0}) : StepOf(k));
    return blocks;
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
    std::vector<char> model_row(store_.eqns.size(), 0);
    for (size_t r = 0; r < store_.eqns.size() && r < h_.eqn_origin.size(); ++r) {
      const model::Equation& q = store_.eqns[r];
      if (!q.active || q.obj_eqn || q.lower != q.upper) continue;
      const int origin = h_.eqn_origin[r];
      if (origin >= 0) {
        model_row[r] = base_.eqns[origin].statement > 0;
      } else if (origin == -1) {
        const model::Variable& b = base_.Var(h_.colloc_var[r]);
        model_row[r] = b.vtype != model::kVarGenerated;
      }
    }
    rows_at_point_.assign(h_.grid.num_points(), {});
    for (size_t r = 0; r < model_row.size(); ++r)
      if (model_row[r]) rows_at_point_[h_.eqn_point[r]].push_back(static_cast<int>(r));
  }

  StepBlock PointBlock(const std::vector<int>& points) const {
    StepBlock b;
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

  StepBlock StepOf(int k) const {
    std::vector<int> points;
    for (int j = 2; j <= h_.grid.nodes; ++j) points.push_back(h_.grid.Point(k, j));
    return PointBlock(points);
  }

  const Horizon& h_;
  const model::ModelStore& base_;
  const model::ModelStore& store_;
  std::vector<std::vector<int>> rows_at_point_;  // model rows of each point
};

bool SolveBlock(model::BlockNewton& newton, const StepBlock& b,
                const model::NewtonSettings& settings, double accept, SequentialOutcome* out) {
  if (b.rows.empty() && b.cols.empty()) return true;
  const model::NewtonResult r = newton.Solve(b.rows, b.cols, settings);
  out->iterations += r.iterations;
  const bool ok = r.ok || (r.residual <= accept && std::isfinite(r.residual));
  if (!ok) out->why = r.why;
  return ok;
}

}  // namespace

std::vector<StepBlock> SequentialBlocks(const Horizon& h, const model::ModelStore& base) {
  return BlockCutter(h, base).Cut();
}

SequentialOutcome SimulateBlocks(std::span<const StepBlock> blocks, model::ModelAccess& access,
                                 const SequentialSettings& settings) {
  model::BlockNewton newton(access);
  model::NewtonSettings newton_settings;
  newton_settings.tolerance = settings.tolerance;
  newton_settings.max_iter = settings.max_iter;
  SequentialOutcome out;
  for (size_t k = 0; k < blocks.size(); ++k) {
    if (!SolveBlock(newton, blocks[k], newton_settings, settings.accept, &out)) {
      out.failed_step = static_cast<int>(k);
      return out;
    }
    ++out.steps_solved;
  }
  out.ok = true;
  return out;
}

SequentialOutcome SimulateStepByStep(Horizon& h, const model::ModelStore& base,
                                     model::ModelAccess& access,
                                     const SequentialSettings& settings) {
  const std::vector<StepBlock> blocks = SequentialBlocks(h, base);
  return SimulateBlocks(blocks, access, settings);
}

}  // namespace kx::horizon
