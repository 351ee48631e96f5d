// model/routines: the selector-coded model routines. Each takes the typed core and an integer
// selector `imsg`: 0 prints the routine's help text, the others put a vector into the store,
// take one out, print it or reset it; an unknown selector prints "ERROR: invalid option" and
// stops. Vectors are 0-based spans in variable order or row order (see model/access.h).
// Arguments marked optional in a routine's help may be passed empty for those selectors.
#pragma once

#include <span>
#include <string>

#include "model/access.h"
#include "model/btf.h"

namespace kx::model {

// ----- variables (routines_vars.cc) -----
void zpm_var_vals(ModelAccess& m, int imsg, std::span<double> y = {});
// 1: niv; 2: niv and the numbers of the independent variables in iv.
void zpm_iv(ModelAccess& m, int imsg, int* niv = nullptr, std::span<int> iy = {});
// `ny` in: length of y (and iy); out for 4, 5, 12: the number of entries listed. `iy` holds
// 1-based variable numbers (row numbers for 12).
void zpm_constraints(ModelAccess& m, int imsg, Bound bnd, bool scaled, int* ny,
                     std::span<double> y = {}, std::span<int> iy = {});
void zpm_var_scaling(ModelAccess& m, int imsg, std::span<double> y = {});
void zpm_names(ModelAccess& m, int imsg, std::span<std::string> c = {});
void zpm_units(ModelAccess& m, int imsg, std::span<std::string> c = {});

// ----- equations and objective (routines_eqns.cc) -----
void zpm_eqn_res(ModelAccess& m, int imsg, std::span<double> y = {});
void zpm_eqn_lam(ModelAccess& m, int imsg, std::span<double> y = {});
void zpm_eqn_scaling(ModelAccess& m, int imsg, std::span<double> y = {});
void zpm_obj(ModelAccess& m, int imsg, double* y = nullptr);
// 1: dense gradient (nvar); 2: values at the objective pattern's variables.
void zpm_obj_grad(ModelAccess& m, int imsg, std::span<double> y = {}, bool scaled = false);
int zpm_dof(ModelAccess& m, int imsg);
int zpm_neqns(ModelAccess& m, int imsg);

// ----- sparsity and derivatives (routines_sparse.cc) -----
int zpm_nnz(ModelAccess& m, int imsg);
int zpm_nnzh(ModelAccess& m, int imsg);
// `ia` (size nnz + nrows + 2; nrows = columns for the column form): ia[0] = nnz,
// ia[1..nnz] the column (row) index of each non-zero in row (column) order, then the 1-based
// start of each row (column) and nnz+1.
void zpm_condensed_sparsity(ModelAccess& m, int imsg, std::span<int> ia);
void zpm_condensed_jacobian(ModelAccess& m, int imsg, std::span<int> ia, std::span<double> a);
// `nz`: length of the caller's vectors. `pd` empty: pattern only.
void zpm_jacobian(ModelAccess& m, int imsg, int nz, std::span<int> ir, std::span<int> ic,
                  std::span<double> pd = {});
void zpm_hessian(ModelAccess& m, int imsg, int nz, std::span<int> ir, std::span<int> ic,
                 std::span<double> h = {});
// Block-triangular order of the square system of the current Jacobian structure (rows x the
// columns of calculated variables and, in the dynamic shapes, derivative columns).
BlockOrder zpm_jac_order(ModelAccess& m, int imsg);

}  // namespace kx::model
