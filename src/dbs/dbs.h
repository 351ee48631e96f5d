// dbs: the option and measurement store. Owns the global option table (ZPM/NLC), the
// per-variable property tables (FV, MV, SV, CV), the DBS file reader and writer, options.json
// and the generated options page. Takes file names and text; gives option values. Depends
// on base only; never sees the model, the horizon or the solvers.
#pragma once

#include "base/file_writer.h"
#include "dbs/cycle_outcome.h"
#include "dbs/dbs_file.h"
#include "dbs/option_store.h"
#include "dbs/option_table.h"
#include "dbs/options_json.h"
