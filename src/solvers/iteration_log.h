// solvers/iteration_log: the one layout of the built-in solvers' iteration lines (ASOPT and
// BIOPT), a header and one line per iteration in fixed columns:
//   iter       objective    inf_pr    inf_du   penalty    ||dx||     shift  alpha_du  alpha_pr  its
// inf_pr is the row violation, inf_du the dual error, penalty the barrier parameter (BIOPT)
// or the merit penalty (ASOPT), shift the Hessian regularisation, its the line-search trials
// (BIOPT) or QP iterations (ASOPT). A tag after the number marks a restoration iteration
// ('r'), one before `its` a second-order correction ('s').
#pragma once

#include <string>

namespace kx::solvers {

struct IterationLine {
  int iter = 0;
  char tag = ' ';            // 'r' restoration
  double objective = 0.0;
  double inf_pr = 0.0;
  double inf_du = 0.0;
  double penalty = 0.0;
  double step = 0.0;         // largest step component
  double shift = 0.0;
  double alpha_du = 0.0;     // step length of the multipliers
  double alpha_pr = 0.0;     // step length of the point
  char correction = ' ';     // 's' second-order correction
  int its = 0;
};

extern const std::string kIterationHeader;
std::string FormatIterationLine(const IterationLine& line);

}  // namespace kx::solvers
