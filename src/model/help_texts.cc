#include "model/help_texts.h"

#include <map>

#include "base/report.h"

namespace kx::model {

namespace {

// One selector line of a help text: the selector(s), then the action.
struct Sel {
  const char* key;
  const char* text;
};

struct HelpEntry {
  const char* routine;                    // routine name used in the error message
  std::vector<const char*> before;        // lines above the selector list (heading first)
  std::vector<Sel> selectors;             // in table order
  std::vector<const char*> after;         // notes below the selector list
};

// Builds the printed lines of one entry.
std::vector<std::string> Render(const HelpEntry& entry) {
  std::vector<std::string> lines(entry.before.begin(), entry.before.end());
  for (const Sel& s : entry.selectors) lines.push_back(fmt::format("{:>3} = {}", s.key, s.text));
  lines.insert(lines.end(), entry.after.begin(), entry.after.end());
  return lines;
}

const std::vector<HelpEntry>& Table() {
  static const std::vector<HelpEntry> table = {
      {"zpm_var_vals",
       {"SUBROUTINE: zpm_var_vals(imsg,y)"},
       {{"0", "PRINT function help"},
        {"1", "INPUT scaled variable values"},
        {"2", "OUTPUT scaled variable values"},
        {"3", "PRINT scaled variable values"},
        {"4", "INPUT unscaled variable values"},
        {"5", "OUTPUT unscaled variable values"},
        {"6", "PRINT unscaled variable values"},
        {"11", "INPUT scaled fixed variable values"},
        {"12", "OUTPUT scaled fixed variable values"},
        {"13", "PRINT scaled fixed variable values"},
        {"14", "INPUT unscaled fixed variable values"},
        {"15", "OUTPUT unscaled fixed variable values"},
        {"16", "PRINT unscaled fixed variable values"},
        {"21", "INPUT scaled variable value derivatives"},
        {"22", "OUTPUT scaled variable value derivatives"},
        {"23", "PRINT scaled variable value derivatives"},
        {"24", "INPUT unscaled variable value derivatives"},
        {"25", "OUTPUT unscaled variable value derivatives"},
        {"26", "PRINT unscaled variable value derivatives"},
        {"27", "SET derivative values to zero"},
        {"31", "INPUT scaled variable values and condensed derivatives"},
        {"32", "OUTPUT scaled variable values and condensed derivatives"},
        {"33", "PRINT scaled variable values and condensed derivatives"},
        {"34", "INPUT unscaled variable values and condensed derivatives"},
        {"35", "OUTPUT unscaled variable values and condensed derivatives"},
        {"36", "PRINT unscaled variable values and condensed derivatives"}},
       {"  y is optional for imsg=0,3,6 (not needed to print)"}},
      {"zpm_iv",
       {"SUBROUTINE: zpm_iv (imsg,niv,iv)"},
       {{"0", "PRINT function help"},
        {"1", "OUTPUT number of independent variables (niv)"},
        {"2", "OUTPUT niv and independent variables in sparse form (iv)"}},
       {}},
      {"zpm_constraints",
       {"SUBROUTINE: zpm_constraints (imsg,bnd,scaled,ny,y,iy)",
        "  Constraints apply to calculated (non-fixed) variables only",
        "  and only to state variables (x), not to differentials (dx/dt)",
        "  bnd: 1 = lower bound, 2 = upper bound; scaled: true = scaled bounds"},
       {{"0", "PRINT function help"},
        {"1", "INPUT variable constraints - all (input y)"},
        {"2", "INPUT variable constraints - select (input y,iy)"},
        {"3", "OUTPUT variable constraints - all (output y)"},
        {"4",
         "OUTPUT variable constraints - non-default only with defaults for extra y length "
         "(output y,iy)"},
        {"5",
         "OUTPUT variable constraints - non-default only with nothing for extra y length "
         "(output ny,y,iy)"},
        {"6", "PRINT variable constraints - all"},
        {"7", "PRINT variable constraints - non-default only"},
        {"11", "OUTPUT equation constraints - all (output y)"},
        {"12",
         "OUTPUT equation constraints - non-default only with defaults for extra y length "
         "(output y,iy)"}},
       {"SEE ALSO: zpm_enforce_constraints"}},
      {"zpm_eqn_res",
       {"SUBROUTINE: zpm_eqn_res(imsg,y)"},
       {{"0", "PRINT function help"},
        {"1", "OUTPUT active scaled equation residuals"},
        {"2", "OUTPUT active unscaled equation residuals"},
        {"3", "PRINT active scaled equation residuals"},
        {"4", "PRINT active unscaled equation residuals"},
        {"11", "OUTPUT all scaled equation residuals"},
        {"12", "OUTPUT all unscaled equation residuals"},
        {"13", "PRINT all scaled equation residuals"},
        {"14", "PRINT all unscaled equation residuals"}},
       {"  y is optional for imsg=0,3,4"}},
      {"zpm_eqn_lam",
       {"SUBROUTINE: zpm_eqn_lam(imsg,y)"},
       {{"0", "PRINT function help"},
        {"1", "INPUT Lagrange multipliers"},
        {"2", "OUTPUT scaled Lagrange multipliers"},
        {"3", "OUTPUT unscaled Lagrange multipliers"}},
       {}},
      {"zpm_var_scaling",
       {"SUBROUTINE: zpm_var_scaling(imsg,y)"},
       {{"0", "PRINT function help"},
        {"1", "INPUT variable value scaling"},
        {"2", "OUTPUT variable value scaling"},
        {"3", "RESET variable scaling to 1.0"}},
       {"  y is optional for imsg=0"}},
      {"zpm_eqn_scaling",
       {"SUBROUTINE: zpm_eqn_scaling(imsg,y)"},
       {{"0", "PRINT function help"},
        {"1", "INPUT equation scaling"},
        {"2", "OUTPUT equation scaling"},
        {"3", "RESET equation scaling to 1.0"}},
       {}},
      {"zpm_obj",
       {"SUBROUTINE: zpm_obj (imsg,y)"},
       {{"0", "PRINT function help"},
        {"1", "OUTPUT objective function: free obj & eqn"},
        {"2", "OUTPUT objective function: include fixed obj variables too"}},
       {}},
      {"zpm_obj_grad",
       {"SUBROUTINE: zpm_obj_grad (imsg,y,scaled)"},
       {{"0", "PRINT function help"},
        {"1", "OUTPUT objective function gradient"},
        {"2", "OUTPUT sparse objective function gradient"}},
       {"  scaled: true = gradient with respect to scaled variables"}},
      {"zpm_names",
       {"SUBROUTINE: zpm_names(imsg,c)"},
       {{"0", "PRINT function help"},
        {"1", "INPUT variable names"},
        {"2", "OUTPUT variable names"},
        {"3", "PRINT variable names"},
        {"11", "INPUT fixed variable names"},
        {"12", "OUTPUT fixed variable names"},
        {"13", "PRINT fixed variable names"},
        {"21", "INPUT equation names"},
        {"22", "OUTPUT equation names"},
        {"23", "PRINT equation names"}},
       {"  c is optional for imsg=0,3,13,23"}},
      {"zpm_units",
       {"SUBROUTINE: zpm_var_units(imsg,c)"},
       {{"0", "PRINT function help"},
        {"1", "INPUT variable units"},
        {"2", "OUTPUT variable units"},
        {"3", "PRINT variable units"},
        {"11", "INPUT fixed variable units"},
        {"12", "OUTPUT fixed variable units"},
        {"13", "PRINT fixed variable units"}},
       {"  c is optional for imsg=0,3,13,23"}},
      {"zpm_dof",
       {"FUNCTION: zpm_dof (imsg) RESULT (ndof)"},
       {{"0", "PRINT function help"},
        {"1", "OUTPUT degrees of freedom for steady state: ndof"},
        {"2", "and PRINT degrees of freedom for steady state: ndof"},
        {"3", "and STOP if steady state ndof is not zero"},
        {"4", "DOF analysis for sensitivity calculation (steady state problem)"},
        {"11", "OUTPUT degrees of freedom for dynamic simulations: ndof"},
        {"12", "and PRINT degrees of freedom for dynamic simulations: ndof"},
        {"13", "and STOP if dynamic simulation ndof is not zero"},
        {"14", "DOF analysis for sensitivity calculation (dynamic problem)"}},
       {}},
      {"zpm_nnz",
       {"FUNCTION: zpm_nnz (imsg) RESULT (nnz)"},
       {{"0", "PRINT function help"},
        {"1",
         "OUTPUT number of non-zeros for steady state simulations (derivatives of variables "
         "are NOT considered variables)"},
        {"2",
         "OUTPUT number of non-zeros for dynamic simulations (derivatives of variables are "
         "considered variables)"}},
       {}},
      {"zpm_nnzh",
       {"FUNCTION: zpm_nnzh (imsg) RESULT (nnzh)"},
       {{"0", "PRINT function help"},
        {"1",
         "OUTPUT number of hessian non-zeros for steady state simulations (derivatives of "
         "variables are NOT considered variables)"},
        {"2",
         "OUTPUT number of hessian non-zeros for dynamic simulations (derivatives of "
         "variables are considered variables)"}},
       {}},
      {"zpm_neqns",
       {"FUNCTION: zpm_neqns (imsg) RESULT (ndof)"},
       {{"0", "PRINT function help"},
        {"1", "OUTPUT number of active equations"},
        {"2", "OUTPUT number of active differential equations"},
        {"3", "OUTPUT number of active algebraic equations"},
        {"4", "OUTPUT number of active objective equations"},
        {"11", "OUTPUT number of all equations"},
        {"12", "OUTPUT number of all differential equations"},
        {"13", "OUTPUT number of all algebraic equations"}},
       {}},
      {"zpm_condensed_sparsity",
       {"SUBROUTINE: zpm_condensed_sparsity (imsg,ia)",
        "Subroutine zpm_condensed_sparsity sorts the sparsity pattern of a nvar x",
        "neqn matrix into row or column ordered condensed form",
        "Row-ordered condensed form:"},
       {{"1", "full Jacobian"},
        {"2", "full Jacobian"},
        {"3", "reduced-space Jacobian"},
        {"4", "reduced-space Jacobian"},
        {"5", "steady-state simulations"},
        {"6", "steady-state simulations"}},
       {"Column-ordered condensed form:",
        " 11 = full Jacobian",
        " 12 = full Jacobian",
        " 13 = reduced-space Jacobian",
        " 14 = reduced-space Jacobian",
        " 15 = steady-state simulations",
        " 16 = steady-state simulations"}},
      {"zpm_condensed_jacobian",
       {"Subroutine zpm_condensed_sparsity sorts the sparsity pattern of a nvar x",
        "neqn matrix and returns the values in the same order; the row and column",
        "ordered forms are selected by imsg=1-6 and imsg=11-16 repectively;",
        "derivative columns are those of the variables indentified as differential",
        "SUBROUTINE: zpm_condensed_jacobian (imsg,ia,a)"},
       {{"1", "RETURN scaled full Jacobian"},
        {"2", "RETURN unscaled full Jacobian"},
        {"3", "RETURN scaled reduced-space Jacobian"},
        {"4", "RETURN unscaled reduced-space Jacobian"},
        {"5", "RETURN scaled steady-state Jacobian"},
        {"6", "RETURN unscaled steady-state Jacobian"},
        {"11", "RETURN scaled full Jacobian (column ordered)"},
        {"12", "RETURN unscaled full Jacobian (column ordered)"},
        {"13", "RETURN scaled reduced-space Jacobian (column ordered)"},
        {"14", "RETURN unscaled reduced-space Jacobian (column ordered)"},
        {"15", "RETURN scaled steady-state Jacobian (column ordered)"},
        {"16", "RETURN unscaled steady-state Jacobian (column ordered)"}},
       {}},
      {"zpm_jacobian",
       {"SUBROUTINE: zpm_jacobian(nz,ir,ic,pd)"},
       {{"1", "RETURN scaled full Jacobian"},
        {"2", "RETURN unscaled full Jacobian"},
        {"3", "RETURN scaled reduced-space Jacobian"},
        {"4", "RETURN unscaled reduced-space Jacobian"},
        {"5", "RETURN scaled steady-state Jacobian"},
        {"6", "RETURN unscaled steady-state Jacobian"}},
       {"  nz is the length of ir, ic and pd; pd may be omitted for the pattern only"}},
      {"zpm_hessian",
       {"SUBROUTINE: zpm_hessian(imsg,nz,ir,ic,{h})", "Reduced-space Hessian options:"},
       {{"1,3", "RETURN scaled hessian values (1=SS, 3=DYN)"},
        {"2,4", "RETURN unscaled hessian values (2=SS, 4=DYN)"},
        {"5,6", "RETURN unscaled hessian values (obj terms only) (5=SS, 6=DYN)"},
        {"7,8", "RETURN scaled hessian values (obj terms only) (7=SS, 8=DYN)"}},
       {"  h may be omitted to obtain the pattern only"}},
      {"zpm_jac_order",
       {"SUBROUTINE: zpm_jac_order(imsg)"},
       {{"0", "PRINT function help"},
        {"1", "block triangular ordering of the current Jacobian structure"},
        {"2", "and PRINT the blocks"}},
       {}},
  };
  return table;
}

const std::map<std::string, std::vector<std::string>, std::less<>>& Rendered() {
  static const auto* rendered = [] {
    auto* m = new std::map<std::string, std::vector<std::string>, std::less<>>;
    for (const HelpEntry& e : Table()) (*m)[e.routine] = Render(e);
    return m;
  }();
  return *rendered;
}

}  // namespace

const std::vector<std::string>& HelpText(std::string_view routine) {
  static const std::vector<std::string> kNone;
  auto it = Rendered().find(routine);
  return it == Rendered().end() ? kNone : it->second;
}

std::vector<std::string> HelpRoutines() {
  std::vector<std::string> names;
  for (const HelpEntry& e : Table()) names.push_back(e.routine);
  return names;
}

void PrintHelp(std::string_view routine) {
  for (const std::string& line : HelpText(routine)) Say(line);
}

void InvalidOption(std::string_view routine, int imsg) {
  Fatal({fmt::format("ERROR: invalid option {} for {}", imsg, routine)});
}

}  // namespace kx::model
