#include "dbs/cycle_outcome.h"

namespace kx::dbs {

void RecordCycleOutcome(OptionStore& store, bool good_solution) {
  store.SetGlobal("CYCLECOUNT", store.Int("CYCLECOUNT") + 1);
  if (good_solution) {
    store.SetGlobal("COLDSTART", 0);
    store.SetGlobal("BAD_CYCLES", 0);
  } else {
    store.SetGlobal("BAD_CYCLES", store.Int("BAD_CYCLES") + 1);
  }
  int replay = store.Int("REPLAY");
  if (replay > 0) store.SetGlobal("REPLAY", replay + 1);
}

}  // namespace kx::dbs
