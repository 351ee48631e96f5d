// analysis/infeasibility: after a solve that ends with rows violated, a small set of equations
// and bounds that cannot hold together, so that a user of a large model reads the few rows
// that conflict. Rows are filtered by divide and conquer over the constraint rows (most
// violated first): a subset is kept when dropping it leaves the rest feasible, so the result
// is a minimal conflicting set of rows (an irreducible infeasible subset, as far as a local
// solver can tell feasibility) found with about 2 k log2(n/k) feasibility solves for a set of
// k rows among n. Each feasibility solve runs the interior-point library on the chosen rows
// with no objective, quietly. Then each finite bound of a variable in those rows is relaxed in
// turn: a bound without which the rows become feasible belongs to the conflict.
//
// Feasibility is judged by a local solver, so for nonconvex rows the set is a diagnosis, not a
// proof. The search stops at its time budget and says so.
#pragma once

#include <string>
#include <vector>

#include "model/access.h"

namespace kx::analysis {

struct ConflictSettings {
  bool dynamic = false;         // the problem's columns include the time derivatives
  double tolerance = 1e-6;      // RTOL: row violation and feasibility tolerance
  double seconds = 30.0;        // time budget of the search
  int max_rows = 20000;         // larger models are not searched
};

struct ConflictBound {
  int number = 0;     // variable
  bool upper = false; // which bound
  double value = 0;
};

struct Conflict {
  std::vector<int> rows;             // equation indices
  std::vector<ConflictBound> bounds;
  int solves = 0;                    // feasibility solves made
  bool complete = false;             // the search finished within its budget
};

// Nothing when no row is violated, the model is too large, or the chosen rows together are
// feasible by the solver. The model's values, active rows and bounds are left as found.
std::optional<Conflict> FindConflict(model::ModelAccess& access, const ConflictSettings& s);

// The lines that head "infeasibilities.txt" for a conflict.
std::string DescribeConflict(const model::ModelStore& store, const Conflict& conflict);

}  // namespace kx::analysis
