// lang/compiler: expression text to Program. Checks syntax (the messages are the system's
// own), resolves names through the caller, differentiates symbolically and emits byte code.
// Never sees the model store, the horizon or the solvers: names are resolved by a callback.
#pragma once

#include <functional>
#include <string_view>
#include <vector>

#include "lang/program.h"

namespace kx::lang {

// What a name in an expression stands for, as the caller's resolver says.
struct Symbol {
  enum class Kind { kUnknown, kConstant, kColumn, kIntermediate };
  Kind kind = Kind::kUnknown;
  double value = 0;       // kConstant: its value
  int column = 0;         // kColumn: 1..nvar a variable, nvar+1..2*nvar its time derivative
  int intermediate = -1;  // kIntermediate: handle returned by Compiler::DefineIntermediate
};

// Resolves a lower-case name; `derivative` is true for `$name` (time derivative of name).
// A kUnknown answer stops the run with "Invalid element: " and the name.
using Resolver = std::function<Symbol(std::string_view name, bool derivative)>;

// Storage limits of one equation: at most 10^max_memory columns, 10^max_memory first-derivative
// instructions and 10^max_memory second-derivative instructions.
struct CompileLimits {
  int max_memory = 4;
};

class Compiler {
 public:
  explicit Compiler(CompileLimits limits = {});
  ~Compiler();
  Compiler(const Compiler&) = delete;
  Compiler& operator=(const Compiler&) = delete;

  // Syntax check of one expression; on a fault prints "*** Error in syntax of function
  // string: ", the string, "Position: " and the 1-based position, and stops.
  void CheckSyntax(std::string_view text) const;
  // The same for the part of `statement` that starts at `offset`: the message shows the whole
  // statement and the position in it.
  void CheckSyntax(std::string_view part, std::string_view statement, int offset) const;

  // Compiles an intermediate's defining expression. Expressions compiled later that resolve a
  // name to this handle inline it, derivatives chained through.
  int DefineIntermediate(std::string_view text, const Resolver& resolve);

  // Compiles the residual expression of equation `eqn_index` (1-based; below 1 stops with
  // "Error: use eval_once for one time calculations") with first and second derivatives.
  // `columns` receives the model column of each local input, in local input order.
  Program CompileEquation(int eqn_index, std::string_view text, const Resolver& resolve,
                          std::vector<int>* columns);

  // Value program of an intermediate (residual = its value), with its input columns.
  Program CompileIntermediateValue(int handle, std::vector<int>* columns) const;

  // Evaluates a constant expression once; domain errors stop the run with the
  // "ERROR in Constants: ..." messages. Names must resolve to constants.
  double EvalOnce(std::string_view text, const Resolver& resolve);

 private:
  struct Impl;
  Impl* impl_;
};

}  // namespace kx::lang
