// The variable side of the typed core: values, derivative values, bounds and scaling.
#include "model/access.h"

#include "base/check.h"
#include "base/report.h"
#include "model/checks.h"

namespace kx::model {

namespace {

double ScaleOf(const Variable& v, bool scaled) { return scaled ? v.scale : 1.0; }

}  // namespace

void ModelAccess::GetValues(bool scaled, std::span<double> y) const {
  KX_CHECK(static_cast<int>(y.size()) >= nvar());
  for (int n = 1; n <= nvar(); ++n) {
    const Variable& v = store_.Var(n);
    y[n - 1] = v.val / ScaleOf(v, scaled);
  }
}

void ModelAccess::SetValues(bool scaled, std::span<const double> y) {
  KX_CHECK(static_cast<int>(y.size()) >= nvar());
  for (int n = 1; n <= nvar(); ++n) {
    Variable& v = store_.Var(n);
    v.val = y[n - 1] * ScaleOf(v, scaled);
  }
}

int ModelAccess::NumFixed() const {
  int count = 0;
  for (int n = 1; n <= nvar(); ++n) count += store_.Var(n).fixed ? 1 : 0;
  return count;
}

void ModelAccess::GetFixedValues(bool scaled, std::span<double> y) const {
  KX_CHECK(static_cast<int>(y.size()) >= NumFixed());
  int k = 0;
  for (int n = 1; n <= nvar(); ++n) {
    const Variable& v = store_.Var(n);
    if (v.fixed) y[k++] = v.val / ScaleOf(v, scaled);
  }
}

void ModelAccess::SetFixedValues(bool scaled, std::span<const double> y) {
  KX_CHECK(static_cast<int>(y.size()) >= NumFixed());
  int k = 0;
  for (int n = 1; n <= nvar(); ++n) {
    Variable& v = store_.Var(n);
    if (v.fixed) v.val = y[k++] * ScaleOf(v, scaled);
  }
}

void ModelAccess::GetDerivatives(bool scaled, std::span<double> y) const {
  KX_CHECK(static_cast<int>(y.size()) >= nvar());
  for (int n = 1; n <= nvar(); ++n) {
    const Variable& v = store_.Var(n);
    y[n - 1] = v.d_val / ScaleOf(v, scaled);
  }
}

void ModelAccess::SetDerivatives(bool scaled, std::span<const double> y) {
  KX_CHECK(static_cast<int>(y.size()) >= nvar());
  for (int n = 1; n <= nvar(); ++n) {
    Variable& v = store_.Var(n);
    v.d_val = y[n - 1] * ScaleOf(v, scaled);
  }
}

void ModelAccess::ZeroDerivatives() {
  for (int n = 1; n <= nvar(); ++n) store_.Var(n).d_val = 0.0;
}

void ModelAccess::GetCondensed(bool scaled, std::span<double> y) const {
  KX_CHECK(static_cast<int>(y.size()) >= nvar() + ndiff());
  GetValues(scaled, y);
  for (int n = 1; n <= nvar(); ++n) {
    const Variable& v = store_.Var(n);
    if (v.idiff > 0) y[nvar() + v.idiff - 1] = v.d_val / ScaleOf(v, scaled);
  }
}

void ModelAccess::SetCondensed(bool scaled, std::span<const double> y) {
  KX_CHECK(static_cast<int>(y.size()) >= nvar() + ndiff());
  SetValues(scaled, y);
  for (int n = 1; n <= nvar(); ++n) {
    Variable& v = store_.Var(n);
    if (v.idiff > 0) v.d_val = y[nvar() + v.idiff - 1] * ScaleOf(v, scaled);
  }
}

double ModelAccess::EffectiveBound(Bound b, int number) const {
  const Variable& v = store_.Var(number);
  if (v.fixed) return v.val;
  return b == Bound::kLower ? v.lower : v.upper;
}

void ModelAccess::SetBound(Bound b, int number, double value, bool scaled) {
  Variable& v = store_.Var(number);
  if (v.fixed) return;
  double unscaled = UnscaledBound(value, ScaleOf(v, scaled));
  (b == Bound::kLower ? v.lower : v.upper) = unscaled;
  RepairBounds(number);
}

void ModelAccess::RepairBounds(int number) { model::RepairBounds(&store_.Var(number)); }

bool ModelAccess::IsDefaultBound(Bound b, double value) {
  return b == Bound::kLower ? value <= -kUnlimited : value >= kUnlimited;
}

void ModelAccess::GetVarScaling(std::span<double> y) const {
  KX_CHECK(static_cast<int>(y.size()) >= nvar());
  for (int n = 1; n <= nvar(); ++n) y[n - 1] = store_.Var(n).scale;
}

void ModelAccess::SetVarScaling(std::span<const double> y) {
  KX_CHECK(static_cast<int>(y.size()) >= nvar());
  for (int n = 1; n <= nvar(); ++n) store_.Var(n).scale = y[n - 1];
}

void ModelAccess::ResetVarScaling() {
  for (int n = 1; n <= nvar(); ++n) store_.Var(n).scale = 1.0;
}

void ModelAccess::GetEqnScaling(std::span<double> y) {
  KX_CHECK(static_cast<int>(y.size()) >= NumRows());
  for (int r = 1; r <= NumRows(); ++r) y[r - 1] = Row(r).scaling;
}

void ModelAccess::SetEqnScaling(std::span<const double> y) {
  KX_CHECK(static_cast<int>(y.size()) >= NumRows());
  for (int r = 1; r <= NumRows(); ++r) Row(r).scaling = y[r - 1];
}

void ModelAccess::ResetEqnScaling() {
  for (Equation& e : store_.eqns) e.scaling = 1.0;
}

DofCounts ModelAccess::CountDof(bool dynamic) const {
  DofCounts c;
  for (int n = 1; n <= nvar(); ++n) {
    const Variable& v = store_.Var(n);
    if (v.fixed) continue;
    ++c.num_state;
    if (v.slack || v.vtype == kVarSlack) ++c.num_slack;
    if (ActiveMark(v) != ' ') ++c.num_bound;
  }
  if (dynamic) c.num_state += ndiff();
  for (const Equation& e : store_.eqns) {
    if (e.active && !e.obj_eqn && e.program >= 0) ++c.num_equations;
  }
  c.ndof = c.num_state - c.num_equations - c.num_slack;
  return c;
}

}  // namespace kx::model
