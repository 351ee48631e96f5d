// lang: model text to byte code with exact derivatives. Takes expression texts and a name
// resolver; gives Programs (residual + first + second derivative byte code) and constant
// values. Never sees the model store, the horizon or the solvers.
//
// The expression pipeline, one file pair per step:
//   lexer     text -> tokens, with the syntax check and its messages
//   parser    tokens -> expression graph (names resolved by the caller)
//   graph     hash-consed, self-simplifying expression DAG
//   deriv     gradient (reverse sweep) and Hessian (forward sweeps) as more graph nodes
//   codegen   graph -> one SSA instruction array: residual, 1st-, 2nd-derivative segments
//   vm.cc     Program evaluation (the dispatch loop), listing, domain-fault report
//   opcodes   the instruction set and its parallel tables
//   compiler  the public entry points, intermediates, limits, one-time evaluation
#pragma once

#include "lang/compiler.h"
#include "lang/program.h"
