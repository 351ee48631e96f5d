#include "model/checks.h"

#include <cmath>

#include "base/report.h"

namespace kx::model {

int ResolveForward(const ModelStore& store, int index) {
  int steps = 0;
  while (store.vars[index].forward >= 0) {
    if (++steps > kMaxForwardSteps) {
      Fatal({"zpm_check_forwarding: POSSIBLE INFINITE LOOP",
             "variable: " + store.vars[index].name});
    }
    index = store.vars[index].forward;
  }
  return index;
}

bool RepairBounds(Variable* v) {
  if (!(v->lower > v->upper)) return false;
  Say("WARNING: lower bound > upper bound");
  Say("ACTION: set lower = upper");
  Say("VARIABLE: " + v->name);
  v->lower = v->upper;
  return true;
}

char ActiveMark(const Variable& v) {
  if (std::fabs(v.upper - v.lower) <= kActiveTolerance) return 'C';
  if (std::fabs(v.val - v.lower) <= kActiveTolerance) return 'L';
  if (std::fabs(v.val - v.upper) <= kActiveTolerance) return 'U';
  return ' ';
}

void CheckIntegerCount(const ModelStore& store, int ni) {
  int actual = 0;
  for (int i = 1; i <= store.nvar; ++i) actual += store.Var(i).integer ? 1 : 0;
  if (ni != actual) {
    Fatal({"Error: mismatch in number of integer values", fmt::format("NI: {}", ni),
           fmt::format(" Actual: {}", actual)});
  }
}

void FixVariable(Variable* v) {
  if (v->diff && !(v->number_n == 1 && v->number_h == 1)) {
    Fatal({"Error in CONSTANT_SETUP: differential variable cannot be fixed: " + v->name});
  }
  v->fixed = true;
}

}  // namespace kx::model
