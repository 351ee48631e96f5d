// Test support for the horizon: builds a model quietly, replicates it, and solves a square
// replicated model with Newton steps on the dynamic callback set and a dense solve.
#pragma once

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "base/report.h"
#include "horizon/horizon.h"
#include "model/access.h"
#include "model/builder.h"
#include "model/nlp.h"
#include "testing/dense_solve.h"

namespace kx::horizon::testing {

// The number of the variable called `name` in `store`; 0 when there is none.
inline int NumberOf(const model::ModelStore& store, const std::string& name) {
  for (int n = 1; n <= store.nvar; ++n)
    if (store.Var(n).name == name) return n;
  return 0;
}

// Builds tests/models/horizon/NAME.zpm.
inline model::ModelStore BuildQuietly(const std::string& name) {
  OutputCapture quiet;
  model::BuildOptions options;
  options.max_memory = 10;
  return model::BuildModel(std::string(KX_SOURCE_DIR) + "/tests/models/horizon/" + name + ".zpm",
                           options);
}

// Grid and replication of `base` with NODES `nodes` and steps `dt`, output swallowed.
inline Horizon ReplicateQuietly(const model::ModelStore& base, int nodes,
                                const std::vector<double>& dt) {
  OutputCapture quiet;
  TimeGrid grid;
  grid.nodes = nodes;
  grid.positions = LobattoPositions(nodes);
  grid.dt = dt;
  grid.times.assign(dt.size() * (nodes - 1) + 1, 0.0);
  return Replicate(base, grid, nullptr, 0);
}

// Newton's method on the equality rows of a square replicated model (every free unknown, the
// differential variables' derivatives included, is a column). Writes the solution into the
// store. Returns the final infinity norm of the residuals, or -1 when the system is not square.
inline double SolveSquare(model::ModelStore& store, int max_iter = 30) {
  model::ModelAccess access(store);
  model::Nlp nlp(access, /*dynamic=*/true, /*scaled=*/false);
  int n = nlp.num_vars(), m = nlp.num_cons(), nnz = nlp.nnz_jac();
  std::vector<double> xl(n), xu(n), x(n), c(m), gl(m), gu(m), values(nnz);
  nlp.GetBounds(xl, xu);
  nlp.GetStart(x);
  nlp.GetConstraintBounds(gl, gu);
  std::vector<int> free_index(n, -1);
  int nfree = 0;
  for (int k = 0; k < n; ++k) {
    if (xl[k] != xu[k]) free_index[k] = nfree++;
  }
  if (nfree != m) return -1;
  std::vector<int> rows(nnz), cols(nnz);
  nlp.JacobianStructure(rows, cols);
  double norm = 0;
  for (int it = 0; it <= max_iter; ++it) {
    nlp.Constraints(x, c);
    norm = 0;
    for (int r = 0; r < m; ++r) norm = std::max(norm, std::abs(c[r] - gl[r]));
    if (norm < 1e-13 || it == max_iter) break;
    nlp.JacobianValues(x, values);
    std::vector<double> a(static_cast<size_t>(m) * m, 0.0), b(m);
    for (int k = 0; k < nnz; ++k) {
      const int f = free_index[cols[k] - 1];
      if (f >= 0) a[static_cast<size_t>(rows[k] - 1) * m + f] += values[k];
    }
    for (int r = 0; r < m; ++r) b[r] = -(c[r] - gl[r]);
    const std::vector<double> step = kx::testing::SolveDense(a, b);
    for (int k = 0; k < n; ++k) {
      if (free_index[k] >= 0) x[k] += step[free_index[k]];
    }
  }
  nlp.SetX(x);
  return norm;
}

}  // namespace kx::horizon::testing
