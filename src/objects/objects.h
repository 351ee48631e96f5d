// objects: the object library. Turns the declarations of the Objects section
// (`name = type(arguments)`) into ordinary model statements before the model's size is
// determined, so objects reach the records, the compiler, the horizon and the files exactly
// as the user's own statements do. Each object type is one declarative entry in the table of
// its family file (object_table.h describes the format); expander.cc is the one expander.
// Depends on lang (statements, constants) only; never sees the model store or the solvers.
#pragma once

#include "objects/expander.h"
#include "objects/object_table.h"
