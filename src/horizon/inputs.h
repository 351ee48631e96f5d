// horizon/inputs: the decision variables of the classes over a replicated model. An FV that is
// free is one value for the whole horizon (every data set): its copies are tied to the first
// by link rows. An MV that is free is one value per step: the values at the step boundaries
// are free and the interior nodes of a step follow from the step's ends by the in-step rows of
// MV_TYPE (0 zero-order hold "0= u_2 - u_1", 1 linear "0= u_2 - (0.5 u_1 + 0.5 u_3)", the
// weights being the node positions rounded to three decimals).
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "horizon/replicate.h"
#include "horizon/terms.h"

namespace kx::horizon {

// Rows added over existing variables of a replicated store, with the horizon's row bookkeeping;
// each distinct expression is compiled once for all of them.
class HorizonRows {
 public:
  explicit HorizonRows(Horizon& h) : h_(h), b_(h.store) { b_.Seal(); }
  // `expr` reads placeholders a, b, c, ... bound in order to the variables `numbers`.
  int Add(int point, std::string name, std::string text, std::string_view expr,
          const std::vector<int>& numbers, RowKind kind);
  // Counts the equation kinds again.
  void Finish() { b_.Finish(); }
  Horizon& horizon() { return h_; }

 private:
  Horizon& h_;
  TermBuilder b_;
};

// Frees every copy of base variable `number` and adds the link rows x(p) - x(0) = 0, p > 0.
void ShareOverHorizon(HorizonRows& rows, int number, const std::string& name);

// Frees the step-boundary copies of base variable `number` (all but point 0 when
// `first_fixed`) and adds the in-step rows of `mv_type` for the interior nodes. Stops with
// "Order N is not available" for an unknown node count.
void FreePerStep(HorizonRows& rows, int number, int mv_type, bool first_fixed);

}  // namespace kx::horizon
