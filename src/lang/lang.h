// lang: model text to byte code with exact derivatives. Takes expression texts and a name
// resolver; gives Programs (residual + first + second derivative byte code) and constant
// values. Never sees the model store, the horizon or the solvers.
#pragma once

#include "lang/compiler.h"
#include "lang/program.h"
