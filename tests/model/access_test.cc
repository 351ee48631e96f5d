// The typed core and the selector-coded routines of values, bounds, scaling, residuals,
// multipliers, objective, names, degrees of freedom and block ordering.
#include <gtest/gtest.h>

#include "model/nlp.h"
#include "model/routines.h"
#include "test_models.h"

namespace kx::model {
namespace {

using testing::MakeModel;

// x (free, scale 2), p (fixed, scale 4), y (free, differential, scale 0.5).
ModelStore ThreeVariables() {
  ModelStore store = MakeModel({{"x", 1.0, 0, 10}, {"p", 3.0, -kUnlimited, kUnlimited, true},
                                {"y", 2.0}},
                               {{"x*p - y"}, {"$y - x"}});
  store.Var(1).scale = 2;
  store.Var(2).scale = 4;
  store.Var(3).scale = 0.5;
  return store;
}

TEST(Access, ValueSelectorsRoundTripInTheirOwnUnits) {
  struct Case {
    int input, output;
    std::vector<double> in;      // given to the input selector
    std::vector<double> stored;  // expected record values afterwards (val or d_val)
    bool derivatives;
  };
  std::vector<Case> cases = {
      {1, 2, {1, 2, 3}, {2, 8, 1.5}, false},   // scaled values
      {4, 5, {1, 2, 3}, {1, 2, 3}, false},     // unscaled values
      {11, 12, {5}, {1, 20, 2}, false},        // scaled fixed values: only p
      {14, 15, {5}, {1, 5, 2}, false},         // unscaled fixed values
      {21, 22, {1, 2, 3}, {2, 8, 1.5}, true},  // scaled derivatives
      {24, 25, {1, 2, 3}, {1, 2, 3}, true},    // unscaled derivatives
  };
  for (const Case& c : cases) {
    ModelStore store = ThreeVariables();
    ModelAccess m(store);
    std::vector<double> in = c.in;
    zpm_var_vals(m, c.input, in);
    for (int n = 1; n <= 3; ++n) {
      const Variable& v = store.Var(n);
      EXPECT_DOUBLE_EQ(c.derivatives ? v.d_val : v.val, c.stored[n - 1]) << c.input;
    }
    std::vector<double> out(in.size());
    zpm_var_vals(m, c.output, out);
    EXPECT_EQ(out, c.in) << c.output;
  }
}

TEST(Access, CondensedVectorAppendsDifferentialDerivativesOnly) {
  ModelStore store = ThreeVariables();
  ModelAccess m(store);
  std::vector<double> y = {1, 2, 3, 7};  // nvar + ndiff
  zpm_var_vals(m, 34, y);
  EXPECT_DOUBLE_EQ(store.Var(3).d_val, 7);
  zpm_var_vals(m, 27);
  std::vector<double> out(4);
  zpm_var_vals(m, 32, out);
  EXPECT_EQ(out, (std::vector<double>{0.5, 0.5, 6, 0}));
}

TEST(Access, ScalingResetGivesOnes) {
  ModelStore store = ThreeVariables();
  ModelAccess m(store);
  std::vector<double> s(3), e = {5, 6};
  zpm_var_scaling(m, 3);
  zpm_var_scaling(m, 2, s);
  EXPECT_EQ(s, std::vector<double>(3, 1.0));
  zpm_eqn_scaling(m, 1, e);
  EXPECT_DOUBLE_EQ(store.eqns[1].scaling, 6);
  zpm_eqn_scaling(m, 3);
  zpm_eqn_scaling(m, 2, e);
  EXPECT_EQ(e, std::vector<double>(2, 1.0));
}

TEST(Access, ConstraintInputSkipsOutOfRangeIndicesAndRepairsInversions) {
  ModelStore store = ThreeVariables();
  ModelAccess m(store);
  int ny = 3;
  std::vector<double> y = {-5, 11, 4};
  std::vector<int> iy = {3, 4, 1};
  OutputCapture capture;
  zpm_constraints(m, 2, Bound::kLower, false, &ny, y, iy);  // x: lower 4 <= upper 10
  EXPECT_DOUBLE_EQ(store.Var(3).lower, -5);
  EXPECT_DOUBLE_EQ(store.Var(1).lower, 4);
  EXPECT_EQ(capture.lines(), std::vector<std::string>{
                                 "WARNING: zpm_constraints - iy(i) outside of allowable range"});
  std::vector<double> upper = {3, 0, 1e20};  // scaled: x upper 3*2 = 6; p is fixed
  zpm_constraints(m, 1, Bound::kUpper, true, nullptr, upper);
  EXPECT_DOUBLE_EQ(store.Var(1).upper, 6);
  std::vector<double> low = {8, 0, 0};  // x lower 8 > upper 6: repaired
  zpm_constraints(m, 1, Bound::kLower, false, nullptr, low);
  EXPECT_DOUBLE_EQ(store.Var(1).lower, 6);
  EXPECT_TRUE(capture.Contains("WARNING: lower bound > upper bound\nACTION: set lower = upper\n"
                               "VARIABLE: x\n"));
}

// The printed list of the bounds is the golden case builder.
TEST(Access, ConstraintOutputListsNonDefaultBounds) {
  ModelStore store = ThreeVariables();
  ModelAccess m(store);
  std::vector<double> y(3, -1);
  std::vector<int> iy(3, -1);
  int ny = 3;
  zpm_constraints(m, 4, Bound::kUpper, false, &ny, y, iy);  // x upper 10, p fixed at 3
  EXPECT_EQ(y, (std::vector<double>{10, 3, kUnlimited}));
  EXPECT_EQ(iy, (std::vector<int>{1, 2, 0}));
  zpm_constraints(m, 5, Bound::kUpper, false, &ny, y, iy);
  EXPECT_EQ(ny, 2);
  ny = 1;  // room for one entry: the list stops there
  zpm_constraints(m, 5, Bound::kUpper, false, &ny, y, iy);
  EXPECT_EQ(ny, 1);
  EXPECT_EQ(iy[0], 1);
  ny = 3;
  zpm_constraints(m, 3, Bound::kLower, true, &ny, y, iy);
  EXPECT_EQ(y, (std::vector<double>{0, 0.75, -kUnlimited}));  // unlimited stays unlimited
}

TEST(Access, ResidualsMultipliersAndScaledForms) {
  ModelStore store = ThreeVariables();  // res1 = 1*3 - 2 = 1, res2 = 0 - 1 = -1
  store.eqns.push_back(store.eqns[0]);
  store.eqns.back().active = false;
  ModelAccess m(store);
  store.eqns[0].scaling = 4;
  std::vector<double> r(2), all(3);
  zpm_eqn_res(m, 1, r);
  EXPECT_EQ(r, (std::vector<double>{0.25, -1}));
  zpm_eqn_res(m, 12, all);
  EXPECT_EQ(all, (std::vector<double>{1, -1, 1}));
  std::vector<double> lam = {2, 3};
  zpm_eqn_lam(m, 1, lam);
  zpm_eqn_lam(m, 3, lam);
  EXPECT_EQ(lam, (std::vector<double>{0.5, 3}));
  zpm_eqn_lam(m, 2, lam);
  EXPECT_EQ(lam, (std::vector<double>{2, 3}));
  EXPECT_EQ(zpm_neqns(m, 1), 2);
  EXPECT_EQ(zpm_neqns(m, 2), 1);
  EXPECT_EQ(zpm_neqns(m, 11), 3);
  EXPECT_EQ(zpm_neqns(m, 13), 2);
}

TEST(Access, ObjectiveIsNeverScaledButItsScaledGradientIs) {
  ModelStore store = MakeModel({{"x", 2.0}, {"obj1", 5.0}, {"obj2", 7.0, -kUnlimited,
                                 kUnlimited, true}},
                               {{"x^2 - obj1"}, {"3*x^2", true}});
  store.Var(1).scale = 10;
  store.Var(2).scale = 10;
  ModelAccess m(store);
  double f = 0;
  zpm_obj(m, 1, &f);
  EXPECT_DOUBLE_EQ(f, 5 + 12);
  zpm_obj(m, 2, &f);
  EXPECT_DOUBLE_EQ(f, 5 + 7 + 12);
  std::vector<double> g(3);
  zpm_obj_grad(m, 1, g, false);
  EXPECT_EQ(g, (std::vector<double>{12, 1, 0}));
  zpm_obj_grad(m, 1, g, true);
  EXPECT_EQ(g, (std::vector<double>{120, 10, 0}));
  std::vector<double> sparse(2);
  zpm_obj_grad(m, 2, sparse, false);
  EXPECT_EQ(m.ObjectivePattern(), (std::vector<int>{1, 2}));
  EXPECT_EQ(sparse, (std::vector<double>{12, 1}));
  EXPECT_EQ(zpm_neqns(m, 4), 1);
  EXPECT_EQ(zpm_nnz(m, 1), 2);  // the objective row is not a Jacobian row
}

// The printed names of the fixed variables: golden case builder.
TEST(Access, NamesAndUnits) {
  ModelStore store = ThreeVariables();
  ModelAccess m(store);
  std::vector<std::string> units = {"kg", "m", "s"}, fixed(1), names(2);
  zpm_units(m, 1, units);
  zpm_units(m, 12, fixed);
  EXPECT_EQ(fixed[0], "m");
  zpm_names(m, 22, names);
  EXPECT_EQ(names, (std::vector<std::string>{"eqn 1", "eqn 2"}));
}

// The report lines and stops of zpm_dof are golden files (tests/golden/input/dof.zpm); here the
// sensitivity count takes the independent FVs off.
TEST(Access, SensitivityDofSubtractsIndependentParameters) {
  ModelStore store = MakeModel({{"v1", 0.5, 0, 1}, {"v2", 0.5}, {"slk_1", 1, 0}}, {{"v1 - 1"}});
  ModelAccess m(store);
  m.num_independent_fv = 2;
  EXPECT_EQ(zpm_dof(m, 1), 1);  // 3 states - 1 row - 1 slack
  EXPECT_EQ(zpm_dof(m, 4), 0);  // 1 + 1 slack - 2 FVs: silent
  m.num_independent_mv = 1;
  OutputCapture capture;
  EXPECT_EQ(zpm_dof(m, 4), -1);
  EXPECT_TRUE(capture.Contains("Number of independent MVs: -        1"));
}

// A structurally singular Jacobian and its report: golden case cycle (presolve).
TEST(Access, BlockOrderFindsTheBlocks) {
  // x1 alone; x2 and x3 coupled: two blocks of sizes 1 and 2.
  ModelStore store = MakeModel({{"x1", 1}, {"x2", 1}, {"x3", 1}},
                               {{"x2*x3 - x1"}, {"x1 - 1"}, {"x2 - x3^2"}});
  ModelAccess m(store);
  std::vector<int> ia(zpm_nnz(m, 1) + 3 + 2);
  zpm_condensed_sparsity(m, 5, ia);
  BlockOrder order = zpm_jac_order(m, 1);
  ASSERT_TRUE(order.ordered);
  EXPECT_EQ(order.num_blocks, 2);
  EXPECT_EQ(order.block_start, (std::vector<int>{1, 2}));
  EXPECT_EQ(order.block_size, (std::vector<int>{1, 2}));
  // Permuted, every entry lies in or left of its row's diagonal block and the diagonal is full.
  std::vector<int> pos_row(4), pos_col(4), block(4);
  for (int k = 0; k < 3; ++k) pos_row[order.row_perm[k]] = pos_col[order.col_perm[k]] = k + 1;
  for (int b = 0; b < order.num_blocks; ++b) {
    for (int k = 0; k < order.block_size[b]; ++k) block[order.block_start[b] + k] = b;
  }
  const JacobianPattern& p = m.Jacobian(Shape::kSteady);
  std::vector<int> diagonal(4, 0);
  for (int k = 0; k < p.nnz(); ++k) {
    int r = pos_row[p.rows[k]], c = pos_col[p.cols[k]];
    EXPECT_GE(block[r], block[c]);
    if (r == c) diagonal[r] = 1;
  }
  EXPECT_EQ(diagonal, (std::vector<int>{0, 1, 1, 1}));
  EXPECT_FALSE(OrderBlockTriangular(0, {}, {}).ordered);
}

TEST(Access, NlpMovesStartValuesOntoBoundsAndPinsFixedVariables) {
  ModelStore store = ThreeVariables();
  store.Var(1).val = 12;  // above its upper bound 10
  ModelAccess m(store);
  Nlp nlp(m, true, false);
  ASSERT_EQ(nlp.num_vars(), 4);
  ASSERT_EQ(nlp.num_cons(), 2);
  std::vector<double> x(4), xl(4), xu(4);
  nlp.GetStart(x);
  EXPECT_DOUBLE_EQ(x[0], 10);
  nlp.GetBounds(xl, xu);
  EXPECT_DOUBLE_EQ(xl[1], 3);
  EXPECT_DOUBLE_EQ(xu[1], 3);
  std::vector<double> c(2);
  nlp.Constraints(x, c);
  EXPECT_EQ(c, (std::vector<double>{10 * 3 - 2, 0 - 10}));
  EXPECT_EQ(nlp.nnz_jac(), 5);  // x,p,y ; $y,x
}

}  // namespace
}  // namespace kx::model
