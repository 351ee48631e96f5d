// Selector-coded routines of the variable side: values, independent variables, bounds,
// variable scaling, names and units.

#include "base/check.h"
#include "base/report.h"
#include "model/help_texts.h"
#include "model/routines.h"

namespace kx::model {

namespace {

void PrintEntry(int number, const std::string& name, double value) {
  Sayf("{:>6} {:<40} {:>24.16e}", number, name, value);
}

void PrintValues(ModelAccess& m, bool scaled, bool fixed_only) {
  Say(fmt::format("{}{}Variable Values", scaled ? "Scaled " : "Unscaled ",
                  fixed_only ? "Fixed " : ""));
  for (int n = 1; n <= m.nvar(); ++n) {
    const Variable& v = m.store().Var(n);
    if (fixed_only && !v.fixed) continue;
    PrintEntry(n, v.name, v.val / (scaled ? v.scale : 1.0));
  }
}

void PrintValuesAndDerivatives(ModelAccess& m, bool scaled, bool condensed) {
  Say(scaled ? "Scaled Variable Values and Derivatives"
             : "Unscaled Variable Values and Derivatives");
  for (int n = 1; n <= m.nvar(); ++n) {
    const Variable& v = m.store().Var(n);
    double s = scaled ? v.scale : 1.0;
    if (condensed) {
      PrintEntry(n, v.name, v.val / s);
    } else {
      Sayf("{:>6} {:<40} {:>24.16e} {:>24.16e}", n, v.name, v.val / s, v.d_val / s);
    }
  }
  if (!condensed) return;
  for (int n = 1; n <= m.nvar(); ++n) {
    const Variable& v = m.store().Var(n);
    if (v.idiff > 0) PrintEntry(m.nvar() + v.idiff, "$" + v.name, v.d_val / (scaled ? v.scale : 1));
  }
}

// Values (1-6), fixed values (11-16).
void VarValues(ModelAccess& m, int imsg, std::span<double> y) {
  bool fixed = imsg > 10;
  int action = (imsg - (fixed ? 11 : 1)) % 3;  // 0 input, 1 output, 2 print
  bool scaled = (imsg - (fixed ? 11 : 1)) < 3;
  if (action == 2) return PrintValues(m, scaled, fixed);
  if (fixed) {
    action == 0 ? m.SetFixedValues(scaled, y) : m.GetFixedValues(scaled, y);
  } else {
    action == 0 ? m.SetValues(scaled, y) : m.GetValues(scaled, y);
  }
}

// Derivatives (21-26), values and condensed derivatives (31-36).
void VarDerivatives(ModelAccess& m, int imsg, std::span<double> y) {
  bool condensed = imsg > 30;
  int offset = imsg - (condensed ? 31 : 21);
  int action = offset % 3;
  bool scaled = offset < 3;
  if (action == 2) return PrintValuesAndDerivatives(m, scaled, condensed);
  if (condensed) {
    action == 0 ? m.SetCondensed(scaled, y) : m.GetCondensed(scaled, y);
  } else {
    action == 0 ? m.SetDerivatives(scaled, y) : m.GetDerivatives(scaled, y);
  }
}

bool InRange(int imsg, int first, int last) { return imsg >= first && imsg <= last; }

}  // namespace

void zpm_var_vals(ModelAccess& m, int imsg, std::span<double> y) {
  if (imsg == 0) return PrintHelp("zpm_var_vals");
  if (InRange(imsg, 1, 6) || InRange(imsg, 11, 16)) return VarValues(m, imsg, y);
  if (InRange(imsg, 21, 26) || InRange(imsg, 31, 36)) return VarDerivatives(m, imsg, y);
  if (imsg == 27) return m.ZeroDerivatives();
  InvalidOption("zpm_var_vals", imsg);
}

void zpm_iv(ModelAccess& m, int imsg, int* niv, std::span<int> iy) {
  if (imsg == 0) return PrintHelp("zpm_iv");
  if (imsg != 1 && imsg != 2) InvalidOption("zpm_iv", imsg);
  int count = 0;
  for (int n = 1; n <= m.nvar(); ++n) {
    if (!m.store().Var(n).iv) continue;
    if (imsg == 2) {
      KX_CHECK(count < static_cast<int>(iy.size()));
      iy[count] = n;
    }
    ++count;
  }
  if (niv != nullptr) *niv = count;
}

void zpm_var_scaling(ModelAccess& m, int imsg, std::span<double> y) {
  switch (imsg) {
    case 0:
      return PrintHelp("zpm_var_scaling");
    case 1:
      return m.SetVarScaling(y);
    case 2:
      return m.GetVarScaling(y);
    case 3:
      return m.ResetVarScaling();
    default:
      InvalidOption("zpm_var_scaling", imsg);
  }
}

namespace {

// Names or units of all or the fixed variables.
void VarTexts(ModelAccess& m, int action, bool fixed_only, bool units, std::span<std::string> c) {
  int k = 0;
  for (int n = 1; n <= m.nvar(); ++n) {
    Variable& v = m.store().Var(n);
    if (fixed_only && !v.fixed) continue;
    if (action == 1) (units ? v.notes.mutable_value().units : v.name) = c[k];
    if (action == 2) c[k] = units ? v.units() : v.name;
    if (action == 3) Sayf("{:>6} {:<40} {}", n, v.name, units ? v.units() : "");
    ++k;
  }
}

void EqnNames(ModelAccess& m, int action, std::span<std::string> c) {
  for (int k = 0; k < m.num_eqns(); ++k) {
    Equation& e = m.store().eqns[k];
    if (action == 1) e.name = c[k];
    if (action == 2) c[k] = e.name;
    if (action == 3) Sayf("{:>6} {}", k + 1, e.name);
  }
}

}  // namespace

void zpm_names(ModelAccess& m, int imsg, std::span<std::string> c) {
  if (imsg == 0) return PrintHelp("zpm_names");
  int group = imsg / 10, action = imsg % 10;
  if (group > 2 || action < 1 || action > 3) InvalidOption("zpm_names", imsg);
  if (group == 2) return EqnNames(m, action, c);
  VarTexts(m, action, group == 1, /*units=*/false, c);
}

void zpm_units(ModelAccess& m, int imsg, std::span<std::string> c) {
  if (imsg == 0) return PrintHelp("zpm_units");
  int group = imsg / 10, action = imsg % 10;
  if (group > 1 || action < 1 || action > 3) InvalidOption("zpm_units", imsg);
  VarTexts(m, action, group == 1, /*units=*/true, c);
}

}  // namespace kx::model
