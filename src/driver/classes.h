// The classified variables of APP.info and the model, in steady state: the DBS values enter the
// model before the solve, and the outputs a steady-state cycle can give go back to the store.
//
// Before the solve (skipped with -skipread) the rules of horizon/classes.h apply:
// an FV or MV with a set MEAS (and a good instrument, PSTATUS != 0) moves its value to
// FSTATUS*MEAS + (1-FSTATUS)*value; an FV or MV is free when STATUS = 1, PSTATUS != 0 and the
// mode optimises (IMODE 3), fixed otherwise.
// After the solve: NEWVAL (FV and MV value) with LSTVAL the previous NEWVAL, MODEL (SV and CV
// value) and, for SV and CV, PRED[1] the same value.
#pragma once

#include "dbs/option_store.h"
#include "model/records.h"

namespace kx::driver {

void ApplyClassesToModel(const dbs::OptionStore& options, int imode, model::ModelStore& store);

void WriteModelToClasses(const model::ModelStore& store, dbs::OptionStore& options);

}  // namespace kx::driver
