// files: the file routine (request-coded reads and writes of restart, DBS, JSON, info and
// report files), its help text, the info file and the replay step. Takes the option store
// and file names; never sees the horizon or the solvers.
#pragma once

#include "files/file_routine.h"
#include "files/files_help.h"
#include "files/info_file.h"
#include "files/replay.h"
