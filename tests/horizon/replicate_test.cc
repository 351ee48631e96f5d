// Replication over the horizon: simulated values against the discrete collocation solution,
// counts of a DAE, data columns per time point, and the link and counting checks.
#include "horizon/replicate.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "horizon/checks.h"
#include "horizon/horizon.h"
#include "horizon_testing.h"
#include "testing/dense_solve.h"
#include "testing/scratch_dir.h"
#include "testing/stop_lines.h"

namespace kx::horizon {
namespace {

using Lines = std::vector<std::string>;
using testing::BuildQuietly;
using testing::NumberOf;
using testing::ReplicateQuietly;
using testing::SolveSquare;

// tests/models/horizon/linear.zpm: dx/dt = a x from x(0).
constexpr double kRate = -0.7;  // a
constexpr double kStart = 2.0;  // x(0)

// Values at nodes 2..nodes of one step of dx/dt = a x from x1: (I - a dt M) X = x1 (all ones).
std::vector<double> DiscreteStep(int nodes, double dt, double x1) {
  const int m = nodes - 1;
  std::vector<double> mat = CollocationMatrix(nodes), a(m * m);
  for (int i = 0; i < m; ++i)
    for (int j = 0; j < m; ++j) a[i * m + j] = (i == j ? 1.0 : 0.0) - kRate * dt * mat[i * m + j];
  return kx::testing::SolveDense(a, std::vector<double>(m, x1));
}

TEST(Replicate, LinearTestEquationMatchesTheDiscreteCollocationSolution) {
  model::ModelStore base = BuildQuietly("linear");
  const std::vector<std::vector<double>> step_sets = {
      {0.2, 0.2, 0.2, 0.2, 0.2},     // equal steps
      {0.1, 0.35, 0.05, 0.5, 1.25},  // unequal steps, as from data rows
  };
  for (int nodes = kMinNodes; nodes <= kMaxNodes; ++nodes) {
    for (const std::vector<double>& dt : step_sets) {
      Horizon h = ReplicateQuietly(base, nodes, dt);
      ASSERT_GE(SolveSquare(h.store), 0.0) << "nodes " << nodes;
      int xb = NumberOf(base, "x");
      double x1 = kStart;
      for (int k = 1; k <= h.grid.num_steps(); ++k) {
        std::vector<double> want = DiscreteStep(nodes, dt[k - 1], x1);
        for (int j = 2; j <= nodes; ++j) {
          double got = h.store.Var(h.Number(h.grid.Point(k, j), xb)).val;
          EXPECT_NEAR(got, want[j - 2], 1e-10 * std::abs(want[j - 2]))
              << "nodes " << nodes << " step " << k << " node " << j;
        }
        x1 = want.back();
      }
      // The initial condition stays at the declared value.
      EXPECT_EQ(h.store.Var(h.Number(0, xb)).val, kStart);
    }
  }
}

// The counts of the set-up (7 points x 3 variables + 3 step lengths, 19 rows) are the golden
// case horizon.
TEST(Replicate, DaeHasTheRightCountsAndSolvesSquare) {
  model::ModelStore base = BuildQuietly("dae");
  Horizon h = ReplicateQuietly(base, 3, {0.5, 0.5, 1.0});
  const model::ModelStore& s = h.store;
  // x is differential at points 1..6; an algebraic row at all 7 points, a differential row and
  // a collocation row at 6.
  EXPECT_EQ(s.ndiff, 6);
  EXPECT_EQ(s.num_alg_eqns, 7);
  EXPECT_EQ(s.num_diff_eqns, 12);
  ASSERT_GE(SolveSquare(h.store), 0.0);
  EXPECT_LT(SolveSquare(h.store), 1e-12);
  int xb = NumberOf(base, "x"), yb = NumberOf(base, "y");
  // The algebraic equation holds at the horizon start, where x is the initial condition.
  EXPECT_NEAR(s.Var(h.Number(0, yb)).val, 2.0, 1e-12);
  // x decays; y follows it at every point.
  for (int p = 1; p < h.grid.num_points(); ++p) {
    double x = s.Var(h.Number(p, xb)).val;
    EXPECT_LT(x, s.Var(h.Number(p - 1, xb)).val);
    EXPECT_NEAR(s.Var(h.Number(p, yb)).val, 1 + x * x, 1e-12);
  }
}

TEST(Replicate, RecordsAreNamedAndNumberedByStepAndNode) {
  model::ModelStore base = BuildQuietly("dae");
  Horizon h = ReplicateQuietly(base, 3, {1.0, 2.0});
  const model::ModelStore& s = h.store;
  struct Case {
    int point;
    std::string name;
    int step, node;
    bool fixed;
    bool differential;
  };
  const Case cases[] = {
      {0, "p(1).n(1).x", 1, 1, true, false},  // initial condition, no derivative column
      {1, "p(1).n(2).x", 1, 2, false, true},
      {2, "p(1).n(3).x", 1, 3, false, true},  // = node 1 of step 2, written once
      {4, "p(2).n(3).x", 2, 3, false, true},
  };
  int xb = NumberOf(base, "x");
  for (const Case& c : cases) {
    const model::Variable& v = s.Var(h.Number(c.point, xb));
    EXPECT_EQ(v.name, c.name);
    EXPECT_EQ(v.number_h, c.step) << c.name;
    EXPECT_EQ(v.number_n, c.node) << c.name;
    EXPECT_EQ(v.fixed, c.fixed) << c.name;
    EXPECT_EQ(v.idiff > 0, c.differential) << c.name;
    EXPECT_EQ(v.number_d, c.differential ? s.nvar + v.idiff : 0) << c.name;
  }
  const model::Variable& dt2 = s.Var(h.StepLengthNumber(2));
  EXPECT_EQ(dt2.vtype, model::kVarStepLength);
  EXPECT_TRUE(dt2.fixed);
  EXPECT_EQ(dt2.val, 2.0);
  // Copies share the model equation's program; collocation rows share one per node.
  for (size_t e = 0; e < s.eqns.size(); ++e) {
    if (h.eqn_origin[e] >= 0) {
      EXPECT_EQ(s.eqns[e].program, base.eqns[h.eqn_origin[e]].program);
    }
  }
  EXPECT_EQ(s.programs.size(), base.programs.size() + 2);
}

// A vector row's copies make their texts from the statement they share, at every point too.
TEST(Replicate, RowsKeepTheTextsOfTheirModelEquations) {
  const model::ModelStore base = BuildQuietly("vector");
  const Horizon h = ReplicateQuietly(base, 3, {1.0, 1.0});
  int copies = 0;
  for (size_t e = 0; e < h.store.eqns.size(); ++e) {
    if (h.eqn_origin[e] < 0) continue;
    EXPECT_EQ(h.store.eqns[e].Text(), base.eqns[h.eqn_origin[e]].Text()) << e;
    ++copies;
  }
  EXPECT_GT(copies, 3);
  EXPECT_EQ(base.eqns[2].Text(), "$x[3] = -x[3]");
}

TEST(Replicate, DataColumnsGiveValuesPerTimePoint) {
  model::ModelStore base = BuildQuietly("linear");
  DataFile d = ParseDataFile("time,a,x,bogus\n0,-0.5,3,1\n0.5,,4,1\n1.5,-1,-,1\n", "app.csv");
  HorizonSettings s;
  s.nodes = 3;
  int ab = NumberOf(base, "a"), xb = NumberOf(base, "x");
  struct Case {
    int csv_read;
    std::vector<double> a, x;  // by point
  };
  // Interior nodes take the step's end row; an empty cell keeps the row before.
  const Case cases[] = {
      {1, {-0.5, -0.5, -0.5, -1, -1}, {2, 2, 2, 2, 2}},
      {2, {-0.5, -0.5, -0.5, -1, -1}, {3, 4, 4, 4, 4}},
  };
  for (const Case& c : cases) {
    s.csv_read = c.csv_read;
    OutputCapture out;
    TimeGrid grid = BuildTimeGrid(s, &d);
    Horizon h = Replicate(base, grid, &d, c.csv_read);
    EXPECT_EQ(out.lines(),
              (Lines{"Prediction Horizon: 2",
                     "WARNING: data column \"bogus\" is not a parameter or variable of the "
                     "model: ignored"}));
    for (int p = 0; p < grid.num_points(); ++p) {
      EXPECT_EQ(h.store.Var(h.Number(p, ab)).val, c.a[p]) << "csv_read " << c.csv_read;
      EXPECT_EQ(h.store.Var(h.Number(p, xb)).val, c.x[p]) << "csv_read " << c.csv_read;
    }
    EXPECT_TRUE(h.store.Var(h.Number(0, xb)).fixed);
  }
}

TEST(HorizonChecks, MissingLinksStopAndWriteTheListing) {
  model::ModelStore base = BuildQuietly("dae");
  Horizon good = ReplicateQuietly(base, 3, {1.0, 1.0});
  {
    OutputCapture out;
    CheckHorizonLinks(good, ".");
    EXPECT_TRUE(out.lines().empty());
  }
  struct Case {
    const char* what;
    bool last_step;  // break an element of the last step (next node) or before it
    std::string message;
  };
  const Case cases[] = {
      {"next horizon", false, "Ooops...next horizon not associated"},
      {"next node", true, "Ooops...next node not associated"},
  };
  for (const Case& c : cases) {
    Horizon h = ReplicateQuietly(base, 3, {1.0, 1.0});
    for (HorizonElement& el : h.elements) {
      bool last = el.position == el.num_positions;
      if (last != c.last_step || !el.linked_onward) continue;
      (c.last_step ? el.next_node : el.next_horizon) = 0;
      break;
    }
    kx::testing::ScratchDir dir;
    EXPECT_EQ(kx::testing::StopLines([&] { CheckHorizonLinks(h, dir.str()); }),
              (Lines{c.message, "See file horizon.txt", "Stopping...."}))
        << c.what;
    EXPECT_NE(dir.Read("horizon.txt").find("p(2).n(3).x"), std::string::npos) << c.what;
  }
}

TEST(HorizonChecks, InconsistentCountsStop) {
  model::ModelStore base = BuildQuietly("dae");
  {
    Horizon h = ReplicateQuietly(base, 2, {1.0, 1.0});
    // Drop the last copy of the differential model equation.
    for (int e = static_cast<int>(h.eqn_origin.size()) - 1; e >= 0; --e) {
      if (h.eqn_origin[e] >= 0 && base.eqns[h.eqn_origin[e]].differential) {
        h.store.eqns.erase(h.store.eqns.begin() + e);
        h.eqn_origin.erase(h.eqn_origin.begin() + e);
        break;
      }
    }
    EXPECT_EQ(kx::testing::StopLines([&] { ReportCounts(base, h); }),
              (Lines{"zpm_dyn_model_init_b ERROR: number of nodes not consistent",
                     "total number of differential equations: 1", "number of nodes: 3",
                     "STOPPING..."}));
  }
  {
    Horizon h = ReplicateQuietly(base, 2, {1.0, 1.0});
    model::Variable extra;
    extra.name = "stray";
    extra.number = h.store.nvar + 1;
    h.store.order.push_back(static_cast<int>(h.store.vars.size()));
    h.store.vars.push_back(extra);
    ++h.store.nvar;
    Lines lines = kx::testing::StopLines([&] { ReportCounts(base, h); });
    ASSERT_GE(lines.size(), 7u);
    EXPECT_EQ(lines[2], " variable imbalance       : 1");
    EXPECT_EQ(lines[5], "zpm_dyn_model ERROR: node number check");
    EXPECT_EQ(lines.back(), "STOPPING...");
  }
}

}  // namespace
}  // namespace kx::horizon
