// horizon/terms: generated members and rows of the estimation and control set-up. A member is
// an extra variable record named after its owner ("level.err_hi"); a row is an extra equation
// with a display text (the one equation listings show) and a residual expression written over
// placeholder names. Each distinct residual expression is compiled once; every row that uses
// it shares the program and keeps its own column map, so a CV's rows cost one compilation
// however many CVs, nodes or data sets carry them.
//
// Call protocol: AddMember() for every member, then Seal() (which numbers the members and moves
// the time-derivative columns of the rows already in the store past the new variables), then
// AddRow() for every row, then Finish() (counts).
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lang/program.h"
#include "model/records.h"

namespace kx::horizon {

// Where a placeholder of a generated row reads: a variable's value or its time derivative.
struct RowInput {
  std::string placeholder;  // name used in the residual expression
  int number = 0;           // variable number (1-based) in the store
  bool derivative = false;  // reads the time derivative ($placeholder in the expression)
};

// Kind of a generated row: "0 =" equality, "0 <" residual >= 0, objective contribution.
enum class RowKind { kEquality, kNonNegative, kObjective };

// A generated row as the tables of estimation and control give it: its name (after the
// owner's "name."), the text the listings show, the residual over placeholders, its kind.
struct RowDef {
  const char* name;
  const char* text;
  const char* expr;
  RowKind kind;
};

// The placeholders of one owner's rows, bound to its members.
using RowList = std::vector<RowInput>;

class TermBuilder {
 public:
  explicit TermBuilder(model::ModelStore& store) : store_(store) {}

  // Queues a member; returns the number it will have once sealed. A fixed member is a
  // parameter of the generated rows (a measurement, a weight, a set point).
  int AddMember(std::string name, double value, double lower, double upper, bool fixed,
                bool differential = false);
  // Numbers the queued members after the model's variables and remaps time-derivative columns.
  void Seal();

  // Adds a row; `expr` reads placeholders only (a derivative as `$name`). Returns its index
  // in the store's equation list.
  int AddRow(std::string name, std::string text, std::string_view expr,
             const std::vector<RowInput>& inputs, RowKind kind);
  // Counts the equation kinds again.
  void Finish();

  model::ModelStore& store() { return store_; }

 private:
  struct Compiled {
    int program = -1;                 // store program index
    std::vector<std::string> inputs;  // placeholder read by each local input ("$x" derivative)
  };
  const Compiled& Compile(std::string_view expr, const std::vector<RowInput>& inputs);

  model::ModelStore& store_;
  std::vector<model::Variable> queued_;     // members not yet numbered
  bool sealed_ = false;
  std::map<std::string, Compiled, std::less<>> programs_;  // by residual expression
};

}  // namespace kx::horizon
