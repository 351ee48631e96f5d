// Selector-coded routines of the equation side: residuals, multipliers, equation scaling,
// objective, degrees of freedom and equation counts.
#include <string>

#include "base/report.h"
#include "model/help_texts.h"
#include "model/routines.h"

namespace kx::model {

namespace {

void PrintResiduals(ModelAccess& m, bool active_only, bool scaled) {
  m.EvaluateResiduals();
  Say(scaled ? "Scaled Equation Residuals" : "Unscaled Equation Residuals");
  int count = active_only ? m.NumRows() : m.num_eqns();
  for (int k = 1; k <= count; ++k) {
    const Equation& e = active_only ? m.Row(k) : m.store().eqns[k - 1];
    Sayf("{:>6} {:<40} {:>24.16e}", k, e.name, scaled ? e.residual / e.scaling : e.residual);
  }
}

}  // namespace

void zpm_eqn_res(ModelAccess& m, int imsg, std::span<double> y) {
  switch (imsg) {
    case 0:
      return PrintHelp("zpm_eqn_res");
    case 1:
    case 2:
    case 11:
    case 12:
      m.EvaluateResiduals();
      return m.GetResiduals(imsg < 10, imsg % 10 == 1, y);
    case 3:
    case 4:
    case 13:
    case 14:
      return PrintResiduals(m, imsg < 10, imsg % 10 == 3);
    default:
      InvalidOption("zpm_eqn_res", imsg);
  }
}

void zpm_eqn_lam(ModelAccess& m, int imsg, std::span<double> y) {
  switch (imsg) {
    case 0:
      return PrintHelp("zpm_eqn_lam");
    case 1:
      return m.SetMultipliers(y);
    case 2:
    case 3:
      return m.GetMultipliers(imsg == 2, y);
    default:
      InvalidOption("zpm_eqn_lam", imsg);
  }
}

void zpm_eqn_scaling(ModelAccess& m, int imsg, std::span<double> y) {
  switch (imsg) {
    case 0:
      return PrintHelp("zpm_eqn_scaling");
    case 1:
      return m.SetEqnScaling(y);
    case 2:
      return m.GetEqnScaling(y);
    case 3:
      return m.ResetEqnScaling();
    default:
      InvalidOption("zpm_eqn_scaling", imsg);
  }
}

void zpm_obj(ModelAccess& m, int imsg, double* y) {
  if (imsg == 0) return PrintHelp("zpm_obj");
  if (imsg != 1 && imsg != 2) InvalidOption("zpm_obj", imsg);
  double f = m.Objective(imsg == 2);
  if (y != nullptr) *y = f;
}

void zpm_obj_grad(ModelAccess& m, int imsg, std::span<double> y, bool scaled) {
  switch (imsg) {
    case 0:
      return PrintHelp("zpm_obj_grad");
    case 1:
      return m.ObjectiveGradient(scaled, y);
    case 2:
      return m.SparseObjectiveGradient(scaled, y);
    default:
      InvalidOption("zpm_obj_grad", imsg);
  }
}

namespace {

const char kDashes[] = "---------------------------------------";  // 39

std::string Count(const char* label, int value) { return fmt::format("{}{:>8}", label, value); }

void PrintDof(const DofCounts& c) {
  Say(Count("Number of state variables:   ", c.num_state));
  Say(Count("Number of total equations: - ", c.num_equations));
  Say(Count("Number of slack variables: - ", c.num_slack));
  Say(kDashes);
  Say(Count("Degrees of freedom       :   ", c.ndof));
  if (c.num_bound > 0) {
    Say("");
    Say(Count("Number of bound variables: - ", c.num_bound));
  }
  Say("");
  if (c.ndof < 0) Say("* Warning: DOF <= 0");
}

// Sensitivity DOF: ndof + slacks - independent FVs - independent MVs; reported when not zero.
int SensitivityDof(const ModelAccess& m, const DofCounts& c) {
  int sdof = c.ndof + c.num_slack - m.num_independent_fv - m.num_independent_mv;
  if (sdof == 0) return 0;
  Say(Count("Number of state variables:   ", c.num_state));
  Say(Count("Number of total equations: - ", c.num_equations));
  Say(Count("Number of independent FVs: - ", m.num_independent_fv));
  Say(Count("Number of independent MVs: - ", m.num_independent_mv));
  Say(kDashes);
  Say(Count("Degrees of freedom       :   ", sdof));
  if (c.num_bound > 0) Say(Count("Number of bound variables: - ", c.num_bound));
  Say("Error: DOF must be zero for sensitivity analysis");
  return sdof;
}

}  // namespace

int zpm_dof(ModelAccess& m, int imsg) {
  if (imsg == 0) {
    PrintHelp("zpm_dof");
    return 0;
  }
  int action = imsg % 10;
  if ((imsg / 10 != 0 && imsg / 10 != 1) || action < 1 || action > 4) {
    InvalidOption("zpm_dof", imsg);
  }
  DofCounts c = m.CountDof(imsg > 10);
  if (action == 4) return SensitivityDof(m, c);
  if (action >= 2) PrintDof(c);
  if (action == 3 && c.ndof != 0) Fatal({"* Error: DOF must be zero for this mode"});
  return c.ndof;
}

int zpm_neqns(ModelAccess& m, int imsg) {
  if (imsg == 0) {
    PrintHelp("zpm_neqns");
    return 0;
  }
  if (imsg != 1 && imsg != 2 && imsg != 3 && imsg != 4 && imsg != 11 && imsg != 12 &&
      imsg != 13) {
    InvalidOption("zpm_neqns", imsg);
  }
  int count = 0;
  for (const Equation& e : m.store().eqns) {
    bool row = e.active && !e.obj_eqn && e.program >= 0;
    switch (imsg) {
      case 1: count += row; break;
      case 2: count += row && e.differential; break;
      case 3: count += row && !e.differential; break;
      case 4: count += e.active && e.obj_eqn; break;
      case 11: count += 1; break;
      case 12: count += e.differential; break;
      case 13: count += !e.differential; break;
    }
  }
  return count;
}

}  // namespace kx::model
