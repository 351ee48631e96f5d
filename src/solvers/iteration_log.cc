#include "solvers/iteration_log.h"

#include <fmt/format.h>

namespace kx::solvers {

// Column for column as FormatIterationLine writes the values.
const std::string kIterationHeader =
    fmt::format("{:>4}  {:>14}  {:>8}  {:>8}  {:>8}  {:>8}  {:>8}  {:>8}  {:>8} {:>4}", "iter",
                "objective", "inf_pr", "inf_du", "penalty", "||dx||", "shift", "alpha_du",
                "alpha_pr", "its");

std::string FormatIterationLine(const IterationLine& l) {
  return fmt::format(
      "{:4d}{} {:14.7e}  {:8.2e}  {:8.2e}  {:8.2e}  {:8.2e}  {:8.2e}  {:8.2e}  {:8.2e}{}{:4d}",
      l.iter, l.tag, l.objective, l.inf_pr, l.inf_du, l.penalty, l.step, l.shift, l.alpha_du,
      l.alpha_pr, l.correction, l.its);
}

}  // namespace kx::solvers
