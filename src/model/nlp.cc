#include "model/nlp.h"

#include <algorithm>
#include <cstring>

#include "base/check.h"
#include "base/timers.h"

namespace kx::model {

Nlp::Nlp(ModelAccess& access, bool dynamic, bool scaled, PointHome home)
    : access_(access),
      dynamic_(dynamic),
      scaled_(scaled),
      jac_shape_(dynamic ? Shape::kReduced : Shape::kSteady),
      num_vars_(access.nvar() + (dynamic ? access.ndiff() : 0)),
      use_plan_(home == PointHome::kArrays && !scaled) {
  // A plan kept from an earlier solve must still describe the rows' programs.
  if (use_plan_ && !access_.Plan(jac_shape_).Matches(access_.store())) {
    access_.Invalidate();
    use_plan_ = access_.Plan(jac_shape_).Matches(access_.store());
  }
  Forget();
}

void Nlp::GetBounds(std::span<double> xl, std::span<double> xu) {
  KX_CHECK(static_cast<int>(xl.size()) >= num_vars_ && static_cast<int>(xu.size()) >= num_vars_);
  const ModelStore& store = access_.store();
  for (int n = 1; n <= store.nvar; ++n) {
    double s = scaled_ ? store.Var(n).scale : 1.0;
    xl[n - 1] = ModelAccess::ScaledBound(access_.EffectiveBound(Bound::kLower, n), s);
    xu[n - 1] = ModelAccess::ScaledBound(access_.EffectiveBound(Bound::kUpper, n), s);
  }
  for (int k = store.nvar; k < num_vars_; ++k) {
    xl[k] = -kUnlimited;
    xu[k] = kUnlimited;
  }
}

void Nlp::GetConstraintBounds(std::span<double> gl, std::span<double> gu) {
  for (int r = 1; r <= num_cons(); ++r) {
    const Equation& e = access_.Row(r);
    double s = scaled_ ? e.scaling : 1.0;
    gl[r - 1] = ModelAccess::ScaledBound(e.lower, s);
    gu[r - 1] = ModelAccess::ScaledBound(e.upper, s);
  }
}

void Nlp::GetStart(std::span<double> x) {
  if (dynamic_) {
    access_.GetCondensed(scaled_, x);
  } else {
    access_.GetValues(scaled_, x);
  }
  const ModelStore& store = access_.store();
  for (int n = 1; n <= store.nvar; ++n) {
    double s = scaled_ ? store.Var(n).scale : 1.0;
    double lo = ModelAccess::ScaledBound(access_.EffectiveBound(Bound::kLower, n), s);
    double hi = ModelAccess::ScaledBound(access_.EffectiveBound(Bound::kUpper, n), s);
    x[n - 1] = std::clamp(x[n - 1], std::min(lo, hi), std::max(lo, hi));
  }
}

void Nlp::Forget() {
  last_x_.clear();
  if (use_plan_) access_.Plan(jac_shape_).LoadValues(access_.store());
}

void Nlp::WriteRecords(std::span<const double> x) {
  if (dynamic_) {
    access_.SetCondensed(scaled_, x);
  } else {
    access_.SetValues(scaled_, x);
  }
}

void Nlp::SetX(std::span<const double> x) {
  if (use_plan_) {
    Planned(x);
    return;
  }
  // A solver asks for several quantities at one point: write the point once.
  if (x.size() == last_x_.size() && std::equal(x.begin(), x.end(), last_x_.begin())) return;
  last_x_.assign(x.begin(), x.end());
  WriteRecords(x);
}

EvalPlan& Nlp::Planned(std::span<const double> x) {
  EvalPlan& plan = access_.Plan(jac_shape_);
  // The point is compared with the one the plan holds (a plan rebuilt with the structure
  // holds the records' values), so that a repeated point reuses the plan's tables.
  if (!plan.HoldsPoint(x)) plan.SetPoint(x);
  return plan;
}

double Nlp::Objective(std::span<const double> x) {
  ScopedTimer timer("Objective Calc: zpm_p");
  if (use_plan_) return Planned(x).Objective(access_.mutable_domain_errors());
  SetX(x);
  return access_.Objective(false);
}

void Nlp::Gradient(std::span<const double> x, std::span<double> g) {
  ScopedTimer timer("Objective Grad: zpm_g");
  if (use_plan_) {
    access_.ObjectivePattern();  // checks the objective rows' columns
    Planned(x).Gradient(g, access_.mutable_domain_errors());
  } else {
    SetX(x);
    access_.ObjectiveGradient(scaled_, g);
  }
  std::fill(g.begin() + access_.nvar(), g.begin() + num_vars_, 0.0);
}

void Nlp::Constraints(std::span<const double> x, std::span<double> c) {
  ScopedTimer timer("Constraint Calc: zpm_c");
  if (use_plan_) return Planned(x).Residuals(c, access_.mutable_domain_errors());
  SetX(x);
  access_.EvaluateConstraintRows();
  access_.GetResiduals(true, scaled_, c);
}

void Nlp::JacobianStructure(std::span<int> rows, std::span<int> cols) {
  ScopedTimer timer("Sparsity: zpm_s");
  const JacobianPattern& p = access_.Jacobian(jac_shape_);
  std::copy(p.rows.begin(), p.rows.end(), rows.begin());
  std::copy(p.cols.begin(), p.cols.end(), cols.begin());
}

void Nlp::JacobianValues(std::span<const double> x, std::span<double> values) {
  ScopedTimer timer("1st Deriv #1: zpm_a1");
  if (use_plan_) {
    const JacobianPattern& pattern = access_.Jacobian(jac_shape_);
    return Planned(x).Jacobian(access_.Layout(), pattern, values,
                               access_.mutable_domain_errors());
  }
  SetX(x);
  access_.JacobianValues(jac_shape_, scaled_, values);
}

void Nlp::HessianStructure(std::span<int> rows, std::span<int> cols) {
  const HessianPattern& p = access_.Hessian(jac_shape_);
  std::copy(p.rows.begin(), p.rows.end(), rows.begin());
  std::copy(p.cols.begin(), p.cols.end(), cols.begin());
}

void Nlp::HessianValues(std::span<const double> x, double obj_factor,
                        std::span<const double> lambda, std::span<double> values) {
  if (use_plan_) {
    const HessianPattern& pattern = access_.Hessian(jac_shape_);
    return Planned(x).Hessian(pattern, obj_factor, lambda, values,
                              access_.mutable_domain_errors());
  }
  SetX(x);
  if (scaled_) {
    access_.SetMultipliers(lambda);
  } else {
    for (int r = 1; r <= num_cons(); ++r) access_.Row(r).lambda = lambda[r - 1];
  }
  HessianWeights weights{.obj_factor = obj_factor, .constraints = true};
  access_.HessianValues(jac_shape_, scaled_, weights, values);
}

std::vector<int> Nlp::IntegerColumns() const {
  std::vector<int> columns;
  const ModelStore& store = access_.store();
  for (int n = 1; n <= store.nvar; ++n)
    if (store.Var(n).integer) columns.push_back(n);
  return columns;
}

void Nlp::StoreSolution(std::span<const double> x, std::span<const double> lambda) {
  WriteRecords(x);
  Forget();
  if (!lambda.empty()) {
    if (scaled_) {
      access_.SetMultipliers(lambda);
    } else {
      for (int r = 1; r <= access_.NumRows(); ++r) access_.Row(r).lambda = lambda[r - 1];
    }
  }
  access_.EvaluateResiduals();
}

}  // namespace kx::model
