// zpm_constraints: variable and equation bounds in and out of the store.
#include <algorithm>

#include "base/check.h"
#include "base/report.h"
#include "model/help_texts.h"
#include "model/routines.h"

namespace kx::model {

namespace {

double DefaultBound(Bound b) { return b == Bound::kLower ? -kUnlimited : kUnlimited; }

double VarBound(ModelAccess& m, Bound b, int n, bool scaled) {
  double value = m.EffectiveBound(b, n);
  return scaled ? ModelAccess::ScaledBound(value, m.store().Var(n).scale) : value;
}

double RowBound(ModelAccess& m, Bound b, int r, bool scaled) {
  const Equation& e = m.Row(r);
  double value = b == Bound::kLower ? e.lower : e.upper;
  return scaled ? ModelAccess::ScaledBound(value, e.scaling) : value;
}

void InputSelected(ModelAccess& m, Bound bnd, bool scaled, int ny, std::span<const double> y,
                   std::span<const int> iy) {
  KX_CHECK(static_cast<int>(std::min(y.size(), iy.size())) >= ny);
  for (int i = 0; i < ny; ++i) {
    if (iy[i] < 1 || iy[i] > m.nvar()) {
      Say("WARNING: zpm_constraints - iy(i) outside of allowable range");
      continue;
    }
    m.SetBound(bnd, iy[i], y[i], scaled);
  }
}

// Lists the non-default bounds of variables (rows when `rows`) in y/iy, at most ny of them;
// with `pad`, the rest of y (length ny) gets the default bound and iy 0. Returns the number
// listed.
int ListNonDefault(ModelAccess& m, Bound bnd, bool scaled, bool rows, bool pad, int ny,
                   std::span<double> y, std::span<int> iy) {
  KX_CHECK(static_cast<int>(std::min(y.size(), iy.size())) >= ny);
  int count = 0;
  int total = rows ? m.NumRows() : m.nvar();
  for (int i = 1; i <= total && count < ny; ++i) {
    double value = rows ? RowBound(m, bnd, i, scaled) : VarBound(m, bnd, i, scaled);
    if (ModelAccess::IsDefaultBound(bnd, value)) continue;
    y[count] = value;
    iy[count] = i;
    ++count;
  }
  for (int k = count; pad && k < ny; ++k) {
    y[k] = DefaultBound(bnd);
    iy[k] = 0;
  }
  return count;
}

void PrintConstraints(ModelAccess& m, Bound bnd, bool scaled, bool non_default_only) {
  Say("Variable constraints");
  Say(std::string("Scaling: ") + (scaled ? "T" : "F"));
  const char* prefix = bnd == Bound::kLower ? "L: " : "U: ";
  for (int n = 1; n <= m.nvar(); ++n) {
    double value = VarBound(m, bnd, n, scaled);
    if (non_default_only && ModelAccess::IsDefaultBound(bnd, value)) continue;
    Say(prefix + fmt::format("{:>6} {:<40} {:>24.16e}", n, m.store().Var(n).name, value));
  }
}

}  // namespace

void zpm_constraints(ModelAccess& m, int imsg, Bound bnd, bool scaled, int* ny,
                     std::span<double> y, std::span<int> iy) {
  int length = ny != nullptr ? *ny : static_cast<int>(y.size());
  switch (imsg) {
    case 0:
      return PrintHelp("zpm_constraints");
    case 1:
      KX_CHECK(static_cast<int>(y.size()) >= m.nvar());
      for (int n = 1; n <= m.nvar(); ++n) m.SetBound(bnd, n, y[n - 1], scaled);
      return;
    case 2:
      return InputSelected(m, bnd, scaled, length, y, iy);
    case 3:
      KX_CHECK(static_cast<int>(y.size()) >= m.nvar());
      for (int n = 1; n <= m.nvar(); ++n) y[n - 1] = VarBound(m, bnd, n, scaled);
      return;
    case 4:
      ListNonDefault(m, bnd, scaled, false, true, length, y, iy);
      return;
    case 5: {
      int count = ListNonDefault(m, bnd, scaled, false, false, length, y, iy);
      if (ny != nullptr) *ny = count;
      return;
    }
    case 6:
    case 7:
      return PrintConstraints(m, bnd, scaled, imsg == 7);
    case 11:
      KX_CHECK(static_cast<int>(y.size()) >= m.NumRows());
      for (int r = 1; r <= m.NumRows(); ++r) y[r - 1] = RowBound(m, bnd, r, scaled);
      return;
    case 12:
      ListNonDefault(m, bnd, scaled, true, true, length, y, iy);
      return;
    default:
      InvalidOption("zpm_constraints", imsg);
  }
}

}  // namespace kx::model
