// base: the pieces every other folder shares and nothing else: the one output path for
// messages, the fatal-stop exception, internal checks, the run timers, the sentinel values and
// small text helpers. Includes nothing from the rest of the project.
#pragma once

#include "base/check.h"
#include "base/report.h"
#include "base/sentinels.h"
#include "base/text.h"
#include "base/timers.h"
