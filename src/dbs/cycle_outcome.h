// The bookkeeping that ends every cycle, applied to the store just before the application's
// DBS file is written (file requests 52 and 53), so the next cycle reads it back:
// CYCLECOUNT increments; after a good cycle COLDSTART returns to 0 and BAD_CYCLES to 0;
// after a bad cycle BAD_CYCLES counts one more; a running replay (REPLAY > 0) moves on to
// its next row.
#pragma once

#include "dbs/option_store.h"

namespace kx::dbs {

void RecordCycleOutcome(OptionStore& store, bool good_solution);

}  // namespace kx::dbs
