// files: the file routine (request-coded reads and writes of restart, DBS, JSON, info and
// listing files), its help text, the info file, the replay step, the results files and the
// files of a horizon (ic.t0, derivatives, est.meas, est.xfer, icd_calc.txt). Takes the option
// store, the model and, in the dynamic modes, its horizon; never sees the solvers.
#pragma once

#include "files/file_routine.h"
#include "files/files_help.h"
#include "files/info_file.h"
#include "files/replay.h"
