// Help texts (selector 0) and the unknown-selector stop of every selector-coded routine.
#include <gtest/gtest.h>

#include <functional>

#include "model/help_texts.h"
#include "model/routines.h"
#include "test_models.h"

namespace kx::model {
namespace {

struct HelpCase {
  std::string routine;                        // name in the error message
  std::function<void(ModelAccess&, int)> call;
  int bad_selector;
  std::vector<std::string> lines;             // the whole help text
};

std::vector<HelpCase> Cases() {
  return {
      {"zpm_var_vals", [](ModelAccess& m, int i) { zpm_var_vals(m, i); }, 7,
       {"SUBROUTINE: zpm_var_vals(imsg,y)", "  0 = PRINT function help",
        "  1 = INPUT scaled variable values", "  2 = OUTPUT scaled variable values",
        "  3 = PRINT scaled variable values", "  4 = INPUT unscaled variable values",
        "  5 = OUTPUT unscaled variable values", "  6 = PRINT unscaled variable values",
        " 11 = INPUT scaled fixed variable values", " 12 = OUTPUT scaled fixed variable values",
        " 13 = PRINT scaled fixed variable values", " 14 = INPUT unscaled fixed variable values",
        " 15 = OUTPUT unscaled fixed variable values",
        " 16 = PRINT unscaled fixed variable values",
        " 21 = INPUT scaled variable value derivatives",
        " 22 = OUTPUT scaled variable value derivatives",
        " 23 = PRINT scaled variable value derivatives",
        " 24 = INPUT unscaled variable value derivatives",
        " 25 = OUTPUT unscaled variable value derivatives",
        " 26 = PRINT unscaled variable value derivatives", " 27 = SET derivative values to zero",
        " 31 = INPUT scaled variable values and condensed derivatives",
        " 32 = OUTPUT scaled variable values and condensed derivatives",
        " 33 = PRINT scaled variable values and condensed derivatives",
        " 34 = INPUT unscaled variable values and condensed derivatives",
        " 35 = OUTPUT unscaled variable values and condensed derivatives",
        " 36 = PRINT unscaled variable values and condensed derivatives",
        "  y is optional for imsg=0,3,6 (not needed to print)"}},
      {"zpm_iv", [](ModelAccess& m, int i) { zpm_iv(m, i); }, 3,
       {"SUBROUTINE: zpm_iv (imsg,niv,iv)", "  0 = PRINT function help",
        "  1 = OUTPUT number of independent variables (niv)",
        "  2 = OUTPUT niv and independent variables in sparse form (iv)"}},
      {"zpm_constraints",
       [](ModelAccess& m, int i) {
         int ny = 0;
         zpm_constraints(m, i, Bound::kLower, false, &ny);
       },
       8,
       {"SUBROUTINE: zpm_constraints (imsg,bnd,scaled,ny,y,iy)",
        "  Constraints apply to calculated (non-fixed) variables only",
        "  and only to state variables (x), not to differentials (dx/dt)",
        "  bnd: 1 = lower bound, 2 = upper bound; scaled: true = scaled bounds",
        "  0 = PRINT function help", "  1 = INPUT variable constraints - all (input y)",
        "  2 = INPUT variable constraints - select (input y,iy)",
        "  3 = OUTPUT variable constraints - all (output y)",
        "  4 = OUTPUT variable constraints - non-default only with defaults for extra y length "
        "(output y,iy)",
        "  5 = OUTPUT variable constraints - non-default only with nothing for extra y length "
        "(output ny,y,iy)",
        "  6 = PRINT variable constraints - all",
        "  7 = PRINT variable constraints - non-default only",
        " 11 = OUTPUT equation constraints - all (output y)",
        " 12 = OUTPUT equation constraints - non-default only with defaults for extra y length "
        "(output y,iy)",
        "SEE ALSO: zpm_enforce_constraints"}},
      {"zpm_eqn_res", [](ModelAccess& m, int i) { zpm_eqn_res(m, i); }, 5,
       {"SUBROUTINE: zpm_eqn_res(imsg,y)", "  0 = PRINT function help",
        "  1 = OUTPUT active scaled equation residuals",
        "  2 = OUTPUT active unscaled equation residuals",
        "  3 = PRINT active scaled equation residuals",
        "  4 = PRINT active unscaled equation residuals",
        " 11 = OUTPUT all scaled equation residuals", " 12 = OUTPUT all unscaled equation residuals",
        " 13 = PRINT all scaled equation residuals", " 14 = PRINT all unscaled equation residuals",
        "  y is optional for imsg=0,3,4"}},
      {"zpm_eqn_lam", [](ModelAccess& m, int i) { zpm_eqn_lam(m, i); }, 4,
       {"SUBROUTINE: zpm_eqn_lam(imsg,y)", "  0 = PRINT function help",
        "  1 = INPUT Lagrange multipliers", "  2 = OUTPUT scaled Lagrange multipliers",
        "  3 = OUTPUT unscaled Lagrange multipliers"}},
      {"zpm_var_scaling", [](ModelAccess& m, int i) { zpm_var_scaling(m, i); }, 4,
       {"SUBROUTINE: zpm_var_scaling(imsg,y)", "  0 = PRINT function help",
        "  1 = INPUT variable value scaling", "  2 = OUTPUT variable value scaling",
        "  3 = RESET variable scaling to 1.0", "  y is optional for imsg=0"}},
      {"zpm_eqn_scaling", [](ModelAccess& m, int i) { zpm_eqn_scaling(m, i); }, 4,
       {"SUBROUTINE: zpm_eqn_scaling(imsg,y)", "  0 = PRINT function help",
        "  1 = INPUT equation scaling", "  2 = OUTPUT equation scaling",
        "  3 = RESET equation scaling to 1.0"}},
      {"zpm_obj", [](ModelAccess& m, int i) { zpm_obj(m, i); }, 3,
       {"SUBROUTINE: zpm_obj (imsg,y)", "  0 = PRINT function help",
        "  1 = OUTPUT objective function: free obj & eqn",
        "  2 = OUTPUT objective function: include fixed obj variables too"}},
      {"zpm_obj_grad", [](ModelAccess& m, int i) { zpm_obj_grad(m, i); }, 3,
       {"SUBROUTINE: zpm_obj_grad (imsg,y,scaled)", "  0 = PRINT function help",
        "  1 = OUTPUT objective function gradient",
        "  2 = OUTPUT sparse objective function gradient",
        "  scaled: true = gradient with respect to scaled variables"}},
      {"zpm_names", [](ModelAccess& m, int i) { zpm_names(m, i); }, 24,
       {"SUBROUTINE: zpm_names(imsg,c)", "  0 = PRINT function help", "  1 = INPUT variable names",
        "  2 = OUTPUT variable names", "  3 = PRINT variable names",
        " 11 = INPUT fixed variable names", " 12 = OUTPUT fixed variable names",
        " 13 = PRINT fixed variable names", " 21 = INPUT equation names",
        " 22 = OUTPUT equation names", " 23 = PRINT equation names",
        "  c is optional for imsg=0,3,13,23"}},
      {"zpm_units", [](ModelAccess& m, int i) { zpm_units(m, i); }, 23,
       {"SUBROUTINE: zpm_var_units(imsg,c)", "  0 = PRINT function help",
        "  1 = INPUT variable units", "  2 = OUTPUT variable units", "  3 = PRINT variable units",
        " 11 = INPUT fixed variable units", " 12 = OUTPUT fixed variable units",
        " 13 = PRINT fixed variable units", "  c is optional for imsg=0,3,13,23"}},
      {"zpm_dof", [](ModelAccess& m, int i) { zpm_dof(m, i); }, 5,
       {"FUNCTION: zpm_dof (imsg) RESULT (ndof)", "  0 = PRINT function help",
        "  1 = OUTPUT degrees of freedom for steady state: ndof",
        "  2 = and PRINT degrees of freedom for steady state: ndof",
        "  3 = and STOP if steady state ndof is not zero",
        "  4 = DOF analysis for sensitivity calculation (steady state problem)",
        " 11 = OUTPUT degrees of freedom for dynamic simulations: ndof",
        " 12 = and PRINT degrees of freedom for dynamic simulations: ndof",
        " 13 = and STOP if dynamic simulation ndof is not zero",
        " 14 = DOF analysis for sensitivity calculation (dynamic problem)"}},
      {"zpm_nnz", [](ModelAccess& m, int i) { zpm_nnz(m, i); }, 3,
       {"FUNCTION: zpm_nnz (imsg) RESULT (nnz)", "  0 = PRINT function help",
        "  1 = OUTPUT number of non-zeros for steady state simulations (derivatives of "
        "variables are NOT considered variables)",
        "  2 = OUTPUT number of non-zeros for dynamic simulations (derivatives of variables "
        "are considered variables)"}},
      {"zpm_nnzh", [](ModelAccess& m, int i) { zpm_nnzh(m, i); }, 3,
       {"FUNCTION: zpm_nnzh (imsg) RESULT (nnzh)", "  0 = PRINT function help",
        "  1 = OUTPUT number of hessian non-zeros for steady state simulations (derivatives of "
        "variables are NOT considered variables)",
        "  2 = OUTPUT number of hessian non-zeros for dynamic simulations (derivatives of "
        "variables are considered variables)"}},
      {"zpm_neqns", [](ModelAccess& m, int i) { zpm_neqns(m, i); }, 5,
       {"FUNCTION: zpm_neqns (imsg) RESULT (ndof)", "  0 = PRINT function help",
        "  1 = OUTPUT number of active equations",
        "  2 = OUTPUT number of active differential equations",
        "  3 = OUTPUT number of active algebraic equations",
        "  4 = OUTPUT number of active objective equations",
        " 11 = OUTPUT number of all equations", " 12 = OUTPUT number of all differential equations",
        " 13 = OUTPUT number of all algebraic equations"}},
      {"zpm_condensed_sparsity", [](ModelAccess& m, int i) { zpm_condensed_sparsity(m, i, {}); },
       7,
       {"SUBROUTINE: zpm_condensed_sparsity (imsg,ia)",
        "Subroutine zpm_condensed_sparsity sorts the sparsity pattern of a nvar x",
        "neqn matrix into row or column ordered condensed form", "Row-ordered condensed form:",
        "  1 = full Jacobian", "  2 = full Jacobian", "  3 = reduced-space Jacobian",
        "  4 = reduced-space Jacobian", "  5 = steady-state simulations",
        "  6 = steady-state simulations", "Column-ordered condensed form:", " 11 = full Jacobian",
        " 12 = full Jacobian", " 13 = reduced-space Jacobian", " 14 = reduced-space Jacobian",
        " 15 = steady-state simulations", " 16 = steady-state simulations"}},
      {"zpm_condensed_jacobian",
       [](ModelAccess& m, int i) { zpm_condensed_jacobian(m, i, {}, {}); }, 17,
       {"Subroutine zpm_condensed_sparsity sorts the sparsity pattern of a nvar x",
        "neqn matrix and returns the values in the same order; the row and column",
        "ordered forms are selected by imsg=1-6 and imsg=11-16 repectively;",
        "derivative columns are those of the variables indentified as differential",
        "SUBROUTINE: zpm_condensed_jacobian (imsg,ia,a)", "  1 = RETURN scaled full Jacobian",
        "  2 = RETURN unscaled full Jacobian", "  3 = RETURN scaled reduced-space Jacobian",
        "  4 = RETURN unscaled reduced-space Jacobian", "  5 = RETURN scaled steady-state Jacobian",
        "  6 = RETURN unscaled steady-state Jacobian",
        " 11 = RETURN scaled full Jacobian (column ordered)",
        " 12 = RETURN unscaled full Jacobian (column ordered)",
        " 13 = RETURN scaled reduced-space Jacobian (column ordered)",
        " 14 = RETURN unscaled reduced-space Jacobian (column ordered)",
        " 15 = RETURN scaled steady-state Jacobian (column ordered)",
        " 16 = RETURN unscaled steady-state Jacobian (column ordered)"}},
      {"zpm_jacobian", [](ModelAccess& m, int i) { zpm_jacobian(m, i, 0, {}, {}); }, 11,
       {"SUBROUTINE: zpm_jacobian(nz,ir,ic,pd)", "  1 = RETURN scaled full Jacobian",
        "  2 = RETURN unscaled full Jacobian", "  3 = RETURN scaled reduced-space Jacobian",
        "  4 = RETURN unscaled reduced-space Jacobian", "  5 = RETURN scaled steady-state Jacobian",
        "  6 = RETURN unscaled steady-state Jacobian",
        "  nz is the length of ir, ic and pd; pd may be omitted for the pattern only"}},
      {"zpm_hessian", [](ModelAccess& m, int i) { zpm_hessian(m, i, 0, {}, {}); }, 9,
       {"SUBROUTINE: zpm_hessian(imsg,nz,ir,ic,{h})", "Reduced-space Hessian options:",
        "1,3 = RETURN scaled hessian values (1=SS, 3=DYN)",
        "2,4 = RETURN unscaled hessian values (2=SS, 4=DYN)",
        "5,6 = RETURN unscaled hessian values (obj terms only) (5=SS, 6=DYN)",
        "7,8 = RETURN scaled hessian values (obj terms only) (7=SS, 8=DYN)",
        "  h may be omitted to obtain the pattern only"}},
  };
}

TEST(Help, EveryRoutinePrintsItsHelpAndRejectsUnknownSelectors) {
  ModelStore store = testing::MakeModel({{"x", 1}}, {{"x - 1"}});
  ModelAccess m(store);
  std::vector<std::string> covered;
  for (const HelpCase& c : Cases()) {
    covered.push_back(c.routine);
    OutputCapture capture;
    c.call(m, 0);
    EXPECT_EQ(capture.lines(), c.lines) << c.routine;
    for (int bad : {c.bad_selector, -1}) {
      auto lines = testing::StopLines([&] { c.call(m, bad); });
      std::vector<std::string> expected = {
          "ERROR: invalid option " + std::to_string(bad) + " for " + c.routine, "STOPPING..."};
      EXPECT_EQ(lines, expected);
    }
  }
  covered.push_back("zpm_jac_order");
  EXPECT_EQ(covered, HelpRoutines());
  OutputCapture capture;
  zpm_jac_order(m, 0);
  std::vector<std::string> jac_order = {"SUBROUTINE: zpm_jac_order(imsg)",
                                        "  0 = PRINT function help",
                                        "  1 = block triangular ordering of the current Jacobian "
                                        "structure",
                                        "  2 = and PRINT the blocks"};
  EXPECT_EQ(capture.lines(), jac_order);
}

TEST(Help, JacOrderNeedsAStructureAndAKnownSelector) {
  ModelStore store = testing::MakeModel({{"x", 1}}, {{"x - 1"}});
  ModelAccess m(store);
  auto lines = testing::StopLines([&] { zpm_jac_order(m, 1); });
  std::vector<std::string> expected = {"Error: Need to define Jacobian structure type prior ",
                                       "  to calling zpm_jac_order (zpm_jacobian_structure=0)",
                                       "STOPPING..."};
  EXPECT_EQ(lines, expected);
  lines = testing::StopLines([&] { zpm_jac_order(m, 9); });
  EXPECT_EQ(lines.front(), "zpm_jac_order ERROR: invalid imsg=9");
}

}  // namespace
}  // namespace kx::model
