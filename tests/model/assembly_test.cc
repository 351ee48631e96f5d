// Jacobian and Hessian assembly checked against finite differences in every shape.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <set>

#include "model/access.h"
#include "model/routines.h"
#include "test_models.h"

namespace kx::model {
namespace {

using testing::MakeModel;
using testing::MakeRandomModel;
using testing::StopLines;

constexpr double kStep = 1e-6;

// Reads/writes the value behind a shape column (a variable value or a time derivative).
double& ColumnValue(ModelStore& store, Shape shape, int col) {
  if (col <= store.nvar) return store.Var(col).val;
  int d = col - store.nvar;
  if (shape == Shape::kReduced) {
    for (int n = 1; n <= store.nvar; ++n) {
      if (store.Var(n).idiff == d) return store.Var(n).d_val;
    }
  }
  return store.Var(d).d_val;
}

double ColumnScale(ModelStore& store, Shape shape, int col) {
  if (col <= store.nvar) return store.Var(col).scale;
  if (shape == Shape::kFull) return store.Var(col - store.nvar).scale;
  for (int n = 1; n <= store.nvar; ++n) {
    if (store.Var(n).idiff == col - store.nvar) return store.Var(n).scale;
  }
  return 0;
}

void RandomScaling(ModelStore& store, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> s(0.3, 3.0);
  for (Variable& v : store.vars) v.scale = s(rng);
  for (Equation& e : store.eqns) e.scaling = s(rng);
}

// Dense Jacobian of the (scaled) rows by central differences in the (scaled) columns.
std::map<std::pair<int, int>, double> FdJacobian(ModelAccess& m, Shape shape, bool scaled) {
  ModelStore& store = m.store();
  std::map<std::pair<int, int>, double> fd;
  std::vector<double> plus(m.NumRows()), minus(m.NumRows());
  for (int col = 1; col <= NumColumns(store, shape); ++col) {
    double& x = ColumnValue(store, shape, col);
    double h = kStep * (scaled ? ColumnScale(store, shape, col) : 1.0), saved = x;
    x = saved + h;
    m.EvaluateResiduals();
    m.GetResiduals(true, scaled, plus);
    x = saved - h;
    m.EvaluateResiduals();
    m.GetResiduals(true, scaled, minus);
    x = saved;
    for (int r = 0; r < m.NumRows(); ++r) {
      double d = (plus[r] - minus[r]) / (2 * kStep);
      if (std::abs(d) > 1e-9) fd[{r + 1, col}] = d;
    }
  }
  return fd;
}

void ExpectMatches(const std::map<std::pair<int, int>, double>& fd,
                   const std::vector<int>& rows, const std::vector<int>& cols,
                   const std::vector<double>& values, const std::string& what) {
  ASSERT_FALSE(fd.empty()) << what;
  std::map<std::pair<int, int>, double> got;
  for (size_t k = 0; k < rows.size(); ++k) got[{rows[k], cols[k]}] += values[k];
  for (auto [pos, d] : fd) {
    ASSERT_TRUE(got.count(pos)) << what << " misses (" << pos.first << "," << pos.second << ")";
    EXPECT_NEAR(got[pos], d, 1e-6 * (1 + std::abs(d))) << what << " at " << pos.first << ","
                                                        << pos.second;
  }
  for (auto [pos, v] : got) {
    if (!fd.count(pos)) {
      EXPECT_NEAR(v, 0.0, 1e-6) << what << " extra entry";
    }
  }
}

// The condensed forms by rows (`imsg`) and by columns (`imsg + 10`) hold the coordinate
// entries `ir`, `ic`, `pd` of the same selector, and their patterns alone are the same.
void ExpectCondensedForms(ModelAccess& m, int imsg, Shape shape, const std::vector<int>& ir,
                          const std::vector<int>& ic, const std::vector<double>& pd,
                          const std::string& what) {
  const int nnz = static_cast<int>(ir.size());
  std::map<std::pair<int, int>, double> coord;
  for (int k = 0; k < nnz; ++k) coord[{ir[k], ic[k]}] = pd[k];
  for (bool by_column : {false, true}) {
    const int nlines = by_column ? NumColumns(m.store(), shape) : m.NumRows();
    std::vector<int> ia(nnz + nlines + 2), ib(nnz + nlines + 2);
    std::vector<double> a(nnz);
    zpm_condensed_jacobian(m, imsg + (by_column ? 10 : 0), ia, a);
    ASSERT_EQ(ia[0], nnz) << what;
    ASSERT_EQ(ia[1 + nnz + nlines], nnz + 1) << what;
    std::map<std::pair<int, int>, double> condensed;
    for (int line = 1; line <= nlines; ++line) {
      for (int k = ia[nnz + line]; k < ia[nnz + line + 1]; ++k) {
        condensed[by_column ? std::pair{ia[k], line} : std::pair{line, ia[k]}] = a[k - 1];
      }
    }
    EXPECT_EQ(coord, condensed) << what << (by_column ? " by columns" : " by rows");
    zpm_condensed_sparsity(m, imsg + (by_column ? 10 : 0), ib);
    EXPECT_EQ(ia, ib) << what;
  }
}

TEST(Assembly, JacobianMatchesFiniteDifferencesInEveryShapeAndForm) {
  for (unsigned seed : {1u, 2u, 3u}) {
    ModelStore store = MakeRandomModel(seed, 12, 10);
    RandomScaling(store, seed);
    ModelAccess m(store);
    for (int imsg = 1; imsg <= 6; ++imsg) {
      Shape shape = imsg <= 2 ? Shape::kFull : imsg <= 4 ? Shape::kReduced : Shape::kSteady;
      int nnz = zpm_nnz(m, shape == Shape::kSteady ? 1 : 2);
      std::vector<int> ir(nnz), ic(nnz);
      std::vector<double> pd(nnz);
      zpm_jacobian(m, imsg, nnz, ir, ic, pd);
      std::string what = "seed " + std::to_string(seed) + " imsg " + std::to_string(imsg);
      ExpectMatches(FdJacobian(m, shape, imsg % 2 == 1), ir, ic, pd, what);
      if (shape == Shape::kSteady) {
        for (int c : ic) EXPECT_LE(c, store.nvar) << what;
      }
      // A pattern-only call hands out the same positions and no values.
      std::vector<int> jr(nnz, -1), jc(nnz, -1);
      zpm_jacobian(m, imsg, nnz, jr, jc);
      EXPECT_EQ(jr, ir) << what;
      EXPECT_EQ(jc, ic) << what;
      ExpectCondensedForms(m, imsg, shape, ir, ic, pd, what);
    }
  }
}

// Gradient of obj_factor * f + sum lambda r with respect to the (scaled) columns of `shape`.
std::vector<double> LagrangianGradient(ModelAccess& m, Shape jac_shape, bool scaled,
                                       double obj_factor, bool constraints) {
  ModelStore& store = m.store();
  int dim = NumColumns(store, jac_shape);
  std::vector<double> g(dim + 1, 0.0), dense(store.nvar);
  const JacobianPattern& p = m.Jacobian(jac_shape);
  std::vector<double> values(p.nnz());
  m.JacobianValues(jac_shape, false, values);
  for (int k = 0; constraints && k < p.nnz(); ++k) {
    g[p.cols[k]] += m.Row(p.rows[k]).lambda * values[k];
  }
  m.ObjectiveGradient(false, dense);
  for (int n = 1; n <= store.nvar; ++n) g[n] += obj_factor * dense[n - 1];
  for (int c = 1; scaled && c <= dim; ++c) g[c] *= ColumnScale(store, jac_shape, c);
  return g;
}

TEST(Assembly, HessianMatchesFiniteDifferencesOfTheLagrangianGradient) {
  for (unsigned seed : {4u, 5u}) {
    ModelStore store = MakeRandomModel(seed, 10, 9);
    RandomScaling(store, seed);
    std::mt19937 rng(seed);
    for (Equation& e : store.eqns) e.lambda = std::uniform_real_distribution<double>(-2, 2)(rng);
    ModelAccess m(store);
    m.obj_factor = 0.7;
    for (int imsg = 1; imsg <= 8; ++imsg) {
      bool dynamic = imsg == 3 || imsg == 4 || imsg == 6 || imsg == 8;
      bool scaled = imsg == 1 || imsg == 3 || imsg == 7 || imsg == 8;
      Shape shape = dynamic ? Shape::kReduced : Shape::kSteady;
      int nnzh = zpm_nnzh(m, dynamic ? 2 : 1);
      std::vector<int> ir(nnzh), ic(nnzh);
      std::vector<double> h(nnzh);
      zpm_hessian(m, imsg, nnzh, ir, ic, h);
      std::map<std::pair<int, int>, double> fd;
      for (int col = 1; col <= NumColumns(store, shape); ++col) {
        double& x = ColumnValue(store, shape, col);
        double step = kStep * (scaled ? ColumnScale(store, shape, col) : 1.0), saved = x;
        x = saved + step;
        auto gp = LagrangianGradient(m, shape, scaled, 0.7, imsg <= 4);
        x = saved - step;
        auto gm = LagrangianGradient(m, shape, scaled, 0.7, imsg <= 4);
        x = saved;
        for (int row = col; row < static_cast<int>(gp.size()); ++row) {
          double d = (gp[row] - gm[row]) / (2 * kStep);
          if (std::abs(d) > 1e-8) fd[{row, col}] = d;
        }
      }
      std::string what = "seed " + std::to_string(seed) + " imsg " + std::to_string(imsg);
      std::set<std::pair<int, int>> positions;
      for (size_t k = 0; k < ir.size(); ++k) {
        EXPECT_GE(ir[k], ic[k]) << what;
        EXPECT_TRUE(positions.insert({ir[k], ic[k]}).second) << what << " repeats a position";
        if (!dynamic) {
          EXPECT_LE(ir[k], store.nvar) << what;
        }
      }
      ExpectMatches(fd, ir, ic, h, what);
      // Pattern only: the same positions, and the multipliers and values are left alone.
      std::vector<int> pr(nnzh), pc(nnzh);
      zpm_hessian(m, imsg, nnzh, pr, pc);
      EXPECT_EQ(pr, ir) << what;
      EXPECT_EQ(pc, ic) << what;
    }
  }
}

// Each stop of the assembly with the lines it prints (the first `lines.size()` of them); the
// stops of vectors too short for the structure are golden cases (builder).
TEST(Assembly, StopsNameTheFaultAndTheSizes) {
  using Lines = std::vector<std::string>;
  struct Case {
    const char* what;
    std::function<void()> run;
    Lines lines;
  };
  std::vector<int> ir(4), ic(4);
  std::vector<double> pd(4);
  // A record that carries x*y after the Hessian pattern was built without its pair.
  ModelStore stale = MakeModel({{"x", 1}, {"y", 2}}, {{"x + y - 2"}, {"x*y - 1"}});
  stale.eqns[1].active = false;
  stale.eqns[0].lambda = 1;
  ModelAccess ms(stale);
  // A row added after the caller sized its vectors: the cached structure is rebuilt.
  ModelStore grown = MakeModel({{"x", 1}, {"y", 2}}, {{"x*y - 2"}});
  ModelAccess mg(grown);
  ModelStore derivative = MakeModel({{"x", 1}, {"y", 2}}, {{"x - 1"}, {"$x*y", true}});
  ModelAccess md(derivative);
  ModelStore outside = MakeModel({{"x", 1}, {"y", 2}}, {{"x - 1"}, {"x*y", true}});
  outside.eqns[1].columns[1] = 5;  // no variable position 5 in a model of two variables
  ModelAccess mo(outside);
  ModelStore unread = MakeModel({{"x", 1}, {"y", 2}, {"z", 0}}, {{"x - 1"}});
  double f = 0;
  const Case cases[] = {
      {"stale Hessian pattern",
       [&] {
         ASSERT_EQ(zpm_nnzh(ms, 1), 0);
         stale.eqns[0].program = 1;
         ms.HessianValues(Shape::kSteady, false, {}, pd);
       },
       {"did not find a match in setting sparse matrix element", "i: 2", "j: 1"}},
      {"structure grown since sizing",
       [&] {
         ASSERT_EQ(zpm_nnz(mg, 1), 2);
         ModelStore extra = MakeModel({{"x", 1}, {"y", 2}}, {{"x*y - 2"}, {"x + y"}});
         grown.programs = extra.programs;
         grown.eqns = extra.eqns;
         zpm_jacobian(mg, 6, 2, ir, ic, pd);
       },
       {"zpm_jacobian: insufficient vector size for ir, ic, and pd", "zpm_jacobian_structure: 6",
        "size of vectors ir,ic,pd: 2", "required size           : 4", "STOPPING"}},
      {"objective reads a derivative", [&] { zpm_obj_grad(md, 1, pd, false); },
       {"differentials not permitted in the objective function", "STOPPING..."}},
      {"objective reads a column outside the model", [&] { zpm_obj(mo, 1, &f); },
       {"Problem with internal sparsity for objective", "a%number: 5", "STOPPING..."}},
      {"update of a variable the row does not read", [&] { UpdateSparsity(unread, 0, 2, 3); },
       {"Update sparsity error", "Variable y in equation eqn 1 was not found.", "Stopping..."}},
  };
  for (const Case& c : cases) {
    Lines lines = StopLines(c.run);
    if (lines.size() > c.lines.size()) lines.resize(c.lines.size());
    EXPECT_EQ(lines, c.lines) << c.what;
  }
  EXPECT_EQ(zpm_nnz(mg, 1), 4);
}

}  // namespace
}  // namespace kx::model
