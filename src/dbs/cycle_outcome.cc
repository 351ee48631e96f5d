#include "dbs/cycle_outcome.h"

#include <climits>

namespace kx::dbs {

namespace {

// Counts one more, stopping at the largest int rather than wrapping.
void CountOneMore(OptionStore& store, std::string_view key) {
  const int n = store.Int(key);
  store.SetGlobal(key, n < INT_MAX ? n + 1 : n);
}

}  // namespace

void RecordCycleOutcome(OptionStore& store, bool good_solution) {
  CountOneMore(store, "CYCLECOUNT");
  if (good_solution) {
    store.SetGlobal("COLDSTART", 0);
    store.SetGlobal("BAD_CYCLES", 0);
  } else {
    CountOneMore(store, "BAD_CYCLES");
  }
  int replay = store.Int("REPLAY");
  if (replay > 0) CountOneMore(store, "REPLAY");
}

}  // namespace kx::dbs
