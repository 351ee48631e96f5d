#include "model/block_newton.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace kx::model {
namespace {

constexpr int kMaxHalvings = 30;  // cuts of one Newton step before the solve fails

double Norm(const std::vector<double>& r) {
  double m = 0;
  for (double v : r) m = std::max(m, std::abs(v));
  return m;
}

}  // namespace

BlockNewton::BlockNewton(ModelAccess& access)
    : store_(access.store()), layout_(access.Layout()) {
  scratch_.Reserve(layout_);
  unknown_.assign(2 * store_.nvar + 2, -1);
}

double& BlockNewton::Value(int col) {
  return col <= store_.nvar ? store_.Var(col).val : store_.Var(col - store_.nvar).d_val;
}

bool BlockNewton::Residual(int e, double* r) {
  const lang::Program& p = store_.programs[store_.eqns[e].program];
  GatherInputs(layout_, e, scratch_.in.data());
  const int before = scratch_.errors.Total();
  *r = p.Residual(scratch_.in.data(), scratch_.work.data(), &scratch_.errors);
  return scratch_.errors.Total() == before && std::isfinite(*r);
}

bool BlockNewton::Evaluate(std::span<const int> rows, bool with_jacobian) {
  res_.assign(rows.size(), 0.0);
  jr_.clear(), jc_.clear(), jv_.clear();
  for (size_t i = 0; i < rows.size(); ++i) {
    const int e = rows[i];
    double r = 0;
    if (with_jacobian ? !RowGradient(store_, layout_, e, &scratch_, &r) : !Residual(e, &r))
      return false;
    res_[i] = r;
    if (!with_jacobian) continue;
    const int first = layout_.slot_begin[e];
    for (int s = first; s < layout_.slot_begin[e + 1]; ++s) {
      const int u = unknown_[layout_.slot_column[s]];
      if (u < 0) continue;
      jr_.push_back(static_cast<int>(i));
      jc_.push_back(u);
      jv_.push_back(scratch_.grad[s - first]);
    }
  }
  return true;
}

void BlockNewton::Move(std::span<const int> cols, const std::vector<double>& from, double alpha) {
  for (size_t j = 0; j < cols.size(); ++j) {
    double v = from[j] + alpha * dx_[j];
    const int c = cols[j];
    if (c <= store_.nvar) v = std::clamp(v, store_.Var(c).lower, store_.Var(c).upper);
    Value(c) = v;
  }
}

NewtonResult BlockNewton::Solve(std::span<const int> rows, std::span<const int> cols,
                                const NewtonSettings& settings) {
  NewtonResult out;
  if (rows.size() != cols.size()) {
    out.why = fmt::format("{} equations for {} unknowns", rows.size(), cols.size());
    return out;
  }
  for (size_t j = 0; j < cols.size(); ++j) unknown_[cols[j]] = static_cast<int>(j);
  const int n = static_cast<int>(cols.size());
  std::vector<double> x(n);
  for (int it = 0;; ++it) {
    for (int j = 0; j < n; ++j) x[j] = Value(cols[j]);
    if (!Evaluate(rows, true)) {
      out.why = "the equations cannot be evaluated";
      out.residual = std::numeric_limits<double>::infinity();  // no residual to report
      break;
    }
    out.residual = Norm(res_);
    if (out.residual <= settings.tolerance) {
      out.ok = true;
      break;
    }
    if (it == settings.max_iter) {
      out.why = fmt::format("no convergence in {} iterations", settings.max_iter);
      break;
    }
    ++out.iterations;
    dx_ = res_;
    for (double& v : dx_) v = -v;
    if (!lu_.Factor(n, jr_, jc_, jv_) || !lu_.Solve(dx_)) {
      out.why = "singular block Jacobian";
      break;
    }
    const double norm = out.residual;
    int cuts = 0;
    for (double alpha = 1.0; cuts < kMaxHalvings; ++cuts, alpha /= 2) {
      Move(cols, x, alpha);
      if (Evaluate(rows, false) && Norm(res_) < norm) break;
    }
    if (cuts == kMaxHalvings) {
      Move(cols, x, 0.0);
      out.why = fmt::format("no decrease of the residual {:.3e}", norm);
      break;
    }
  }
  for (int c : cols) unknown_[c] = -1;
  return out;
}

}  // namespace kx::model
