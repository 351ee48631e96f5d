// Help texts (selector 0) and the unknown-selector stop of every selector-coded routine.
#include <gtest/gtest.h>

#include <algorithm>
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
  std::vector<std::string> lines;             // lines that the help must contain, in order
};

std::vector<HelpCase> Cases() {
  int ny = 0;
  return {
      {"zpm_var_vals", [](ModelAccess& m, int i) { zpm_var_vals(m, i); }, 7,
       {"SUBROUTINE: zpm_var_vals(imsg,y)", "  0 = PRINT function help",
        "  1 = INPUT scaled variable values", "  6 = PRINT unscaled variable values",
        " 16 = PRINT unscaled fixed variable values",
        " 21 = INPUT scaled variable value derivatives", " 27 = SET derivative values to zero",
        " 36 = PRINT unscaled variable values and condensed derivatives"}},
      {"zpm_iv", [](ModelAccess& m, int i) { zpm_iv(m, i); }, 3,
       {"SUBROUTINE: zpm_iv (imsg,niv,iv)"}},
      {"zpm_constraints", [ny](ModelAccess& m, int i) mutable {
         zpm_constraints(m, i, Bound::kLower, false, &ny);
       }, 8,
       {"SUBROUTINE: zpm_constraints (imsg,bnd,scaled,ny,y,iy)",
        "  1 = INPUT variable constraints - all (input y)",
        "  2 = INPUT variable constraints - select (input y,iy)",
        "  3 = OUTPUT variable constraints - all (output y)",
        "  4 = OUTPUT variable constraints - non-default only with defaults for extra y length "
        "(output y,iy)",
        "  5 = OUTPUT variable constraints - non-default only with nothing for extra y length "
        "(output ny,y,iy)",
        "  6 = PRINT variable constraints - all", "  7 = PRINT variable constraints - non-default only",
        " 11 = OUTPUT equation constraints - all (output y)",
        " 12 = OUTPUT equation constraints - non-default only with defaults for extra y length "
        "(output y,iy)",
        "SEE ALSO: zpm_enforce_constraints"}},
      {"zpm_eqn_res", [](ModelAccess& m, int i) { zpm_eqn_res(m, i); }, 5,
       {"SUBROUTINE: zpm_eqn_res(imsg,y)", "  1 = OUTPUT active scaled equation residuals",
        " 14 = PRINT all unscaled equation residuals"}},
      {"zpm_eqn_lam", [](ModelAccess& m, int i) { zpm_eqn_lam(m, i); }, 4,
       {"SUBROUTINE: zpm_eqn_lam(imsg,y)", "  1 = INPUT Lagrange multipliers",
        "  2 = OUTPUT scaled Lagrange multipliers", "  3 = OUTPUT unscaled Lagrange multipliers"}},
      {"zpm_var_scaling", [](ModelAccess& m, int i) { zpm_var_scaling(m, i); }, 4,
       {"SUBROUTINE: zpm_var_scaling(imsg,y)", "  1 = INPUT variable value scaling",
        "  2 = OUTPUT variable value scaling", "  3 = RESET variable scaling to 1.0"}},
      {"zpm_eqn_scaling", [](ModelAccess& m, int i) { zpm_eqn_scaling(m, i); }, 4,
       {"SUBROUTINE: zpm_eqn_scaling(imsg,y)", "  1 = INPUT equation scaling",
        "  2 = OUTPUT equation scaling", "  3 = RESET equation scaling to 1.0"}},
      {"zpm_obj", [](ModelAccess& m, int i) { zpm_obj(m, i); }, 3,
       {"SUBROUTINE: zpm_obj (imsg,y)", "  1 = OUTPUT objective function: free obj & eqn",
        "  2 = OUTPUT objective function: include fixed obj variables too"}},
      {"zpm_obj_grad", [](ModelAccess& m, int i) { zpm_obj_grad(m, i); }, 3,
       {"SUBROUTINE: zpm_obj_grad (imsg,y,scaled)", "  1 = OUTPUT objective function gradient",
        "  2 = OUTPUT sparse objective function gradient"}},
      {"zpm_names", [](ModelAccess& m, int i) { zpm_names(m, i); }, 24,
       {"SUBROUTINE: zpm_names(imsg,c)", "  1 = INPUT variable names",
        " 13 = PRINT fixed variable names", " 23 = PRINT equation names",
        "  c is optional for imsg=0,3,13,23"}},
      {"zpm_units", [](ModelAccess& m, int i) { zpm_units(m, i); }, 23,
       {"SUBROUTINE: zpm_var_units(imsg,c)", "  1 = INPUT variable units",
        " 13 = PRINT fixed variable units", "  c is optional for imsg=0,3,13,23"}},
      {"zpm_dof", [](ModelAccess& m, int i) { zpm_dof(m, i); }, 5,
       {"FUNCTION: zpm_dof (imsg) RESULT (ndof)",
        "  1 = OUTPUT degrees of freedom for steady state: ndof",
        "  2 = and PRINT degrees of freedom for steady state: ndof",
        "  3 = and STOP if steady state ndof is not zero",
        "  4 = DOF analysis for sensitivity calculation (steady state problem)",
        " 11 = OUTPUT degrees of freedom for dynamic simulations: ndof",
        " 12 = and PRINT degrees of freedom for dynamic simulations: ndof",
        " 13 = and STOP if dynamic simulation ndof is not zero",
        " 14 = DOF analysis for sensitivity calculation (dynamic problem)"}},
      {"zpm_nnz", [](ModelAccess& m, int i) { zpm_nnz(m, i); }, 3,
       {"FUNCTION: zpm_nnz (imsg) RESULT (nnz)"}},
      {"zpm_nnzh", [](ModelAccess& m, int i) { zpm_nnzh(m, i); }, 3,
       {"FUNCTION: zpm_nnzh (imsg) RESULT (nnzh)"}},
      {"zpm_neqns", [](ModelAccess& m, int i) { zpm_neqns(m, i); }, 5,
       {"FUNCTION: zpm_neqns (imsg) RESULT (ndof)"}},
      {"zpm_condensed_sparsity", [](ModelAccess& m, int i) { zpm_condensed_sparsity(m, i, {}); },
       7, {"SUBROUTINE: zpm_condensed_sparsity (imsg,ia)"}},
      {"zpm_condensed_jacobian",
       [](ModelAccess& m, int i) { zpm_condensed_jacobian(m, i, {}, {}); }, 17,
       {"Subroutine zpm_condensed_sparsity sorts the sparsity pattern of a nvar x",
        "SUBROUTINE: zpm_condensed_jacobian (imsg,ia,a)"}},
      {"zpm_jacobian", [](ModelAccess& m, int i) { zpm_jacobian(m, i, 0, {}, {}); }, 11,
       {"SUBROUTINE: zpm_jacobian(nz,ir,ic,pd)"}},
      {"zpm_hessian", [](ModelAccess& m, int i) { zpm_hessian(m, i, 0, {}, {}); }, 9,
       {"SUBROUTINE: zpm_hessian(imsg,nz,ir,ic,{h})",
        "1,3 = RETURN scaled hessian values (1=SS, 3=DYN)",
        "2,4 = RETURN unscaled hessian values (2=SS, 4=DYN)",
        "5,6 = RETURN unscaled hessian values (obj terms only) (5=SS, 6=DYN)",
        "7,8 = RETURN scaled hessian values (obj terms only) (7=SS, 8=DYN)"}},
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
    std::vector<std::string> printed = capture.lines();
    EXPECT_EQ(printed, HelpText(c.routine)) << c.routine;
    ASSERT_FALSE(printed.empty()) << c.routine;
    EXPECT_EQ(printed.front(), c.lines.front()) << c.routine;
    auto at = printed.begin();
    for (const std::string& line : c.lines) {
      at = std::find(at, printed.end(), line);
      EXPECT_NE(at, printed.end()) << c.routine << " lacks, or misorders: " << line;
      if (at == printed.end()) break;
    }
    auto lines = testing::StopLines([&] { c.call(m, c.bad_selector); });
    std::vector<std::string> expected = {
        "ERROR: invalid option " + std::to_string(c.bad_selector) + " for " + c.routine,
        "STOPPING..."};
    EXPECT_EQ(lines, expected);
  }
  covered.push_back("zpm_jac_order");
  EXPECT_EQ(covered, HelpRoutines());
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
