// solvers/asopt_minlp: `Ace_MINLP_solve`, the entry of ASOPT: branch and bound over NLP
// relaxations (leaves), each solved by `Ace_CONVRG` warm-started from its parent's solution,
// multipliers and working set. Without integer variables it is a single NLP solve.
#pragma once

#include <vector>

#include "solvers/asopt_sqp.h"

namespace kx::solvers {

struct MinlpOutcome {
  SqpOutcome best;        // the returned solution (best integer solution, or the NLP)
  int nodes = 0;          // leaves solved
  int nlp_iterations = 0; // SQP iterations over all leaves
  bool setup_failed = false;  // the inputs were refused before any leaf was solved
};

// Solves from x with the problem's bounds; `control.mode` is the parametric mode of the root,
// whose warm-start data come from `state`. On return `state` holds what the root relaxation
// ended with (its point, multipliers, working set, Jacobian and Hessian) for the next call.
MinlpOutcome Ace_MINLP_solve(ProblemView& nlp, std::vector<double> x, const SqpControl& control,
                             SqpState& state);

}  // namespace kx::solvers
