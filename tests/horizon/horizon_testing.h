// Test support for the horizon: builds a model quietly, replicates it, and solves a square
// replicated model with Newton steps on the dynamic callback set and a sparse LU.
#pragma once

#include <umfpack.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "base/report.h"
#include "horizon/horizon.h"
#include "model/access.h"
#include "model/builder.h"
#include "model/nlp.h"

namespace kx::horizon::testing {

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

// Sparse LU solve of the n x n system given by triplets (0-based); false when singular.
inline bool SolveSparse(int n, const std::vector<int>& ti, const std::vector<int>& tj,
                        const std::vector<double>& tx, const std::vector<double>& b,
                        std::vector<double>* x) {
  int nz = static_cast<int>(tx.size());
  std::vector<int> ap(n + 1), ai(nz);
  std::vector<double> ax(nz);
  umfpack_di_triplet_to_col(n, n, nz, ti.data(), tj.data(), tx.data(), ap.data(), ai.data(),
                            ax.data(), nullptr);
  void* symbolic = nullptr;
  void* numeric = nullptr;
  bool ok = umfpack_di_symbolic(n, n, ap.data(), ai.data(), ax.data(), &symbolic, nullptr,
                                nullptr) == UMFPACK_OK;
  ok = ok && umfpack_di_numeric(ap.data(), ai.data(), ax.data(), symbolic, &numeric, nullptr,
                                nullptr) == UMFPACK_OK;
  x->assign(n, 0.0);
  ok = ok && umfpack_di_solve(UMFPACK_A, ap.data(), ai.data(), ax.data(), x->data(), b.data(),
                              numeric, nullptr, nullptr) == UMFPACK_OK;
  if (symbolic != nullptr) umfpack_di_free_symbolic(&symbolic);
  if (numeric != nullptr) umfpack_di_free_numeric(&numeric);
  return ok;
}

// Newton's method on the equality rows of a square replicated model (every free unknown, the
// differential variables' derivatives included, is a column). Writes the solution into the
// store. Returns the final infinity norm of the residuals, or -1 when the system is not square
// or the LU fails.
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
    std::vector<int> ti, tj;
    std::vector<double> tx, b(m), step;
    for (int k = 0; k < nnz; ++k) {
      int f = free_index[cols[k] - 1];
      if (f < 0) continue;
      ti.push_back(rows[k] - 1);
      tj.push_back(f);
      tx.push_back(values[k]);
    }
    for (int r = 0; r < m; ++r) b[r] = -(c[r] - gl[r]);
    if (!SolveSparse(m, ti, tj, tx, b, &step)) return -1;
    for (int k = 0; k < n; ++k) {
      if (free_index[k] >= 0) x[k] += step[free_index[k]];
    }
  }
  nlp.SetX(x);
  return norm;
}

}  // namespace kx::horizon::testing
