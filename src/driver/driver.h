// driver: the run driver. Owns the command line, the mode words and the order of one cycle
// (prologue, model stage, database write, timer report) and the exit status. Everything else
// is called from here.
#pragma once

#include "driver/command_line.h"
#include "driver/cycle.h"
