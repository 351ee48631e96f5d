// model/records: the variable and equation records of the model store, and the store that
// owns them for the whole run. Filled by the model builder (model/builder), read and written by
// the access routines (model/access) and the assembly (model/jacobian, model/hessian).
#pragma once

#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "base/boxed.h"
#include "base/sentinels.h"
#include "lang/program.h"
#include "lang/vector_index.h"

namespace kx::model {

// Kind code of a variable record (`vtype`).
enum VarType : char {
  kVarDeclared = 'v',   // declared in the Variables section
  kVarParameter = 'p',  // declared in the Parameters section (fixed unless freed)
  kVarSlack = 's',      // generated slack (name prefix "slk_")
  kVarStepLength = 't', // generated, fixed: length of a horizon step (collocation rows)
  kVarGenerated = 'g',  // member added by the estimation or control set-up ("level.err_hi")
};

// Spec code set by connections: 0 none, 1 fixed, 2 calculated, 3 value given.
enum SpecCode { kSpecNone = 0, kSpecFixed = 1, kSpecCalculated = 2, kSpecValue = 3 };

// What few variables carry, kept out of the record (Variable::notes).
struct VariableNotes {
  std::string units;                 // unit text
  std::vector<std::string> aliases;  // other names after connections
};

struct Variable {
  std::string name;             // full name, lower case (object prefix and index included)
  double val = 0;               // value
  double d_val = 0;             // time-derivative value
  double lower = -kUnlimited;   // lower bound (-1e20 = none)
  double upper = kUnlimited;    // upper bound (1e20 = none)
  double scale = 1.0;           // scaling factor; scaled value = val / scale
  Boxed<VariableNotes> notes;   // units and aliases, when it has any
  int number = 0;               // 1-based position in the variable vector; 0 when absorbed
  int idiff = 0;                // position among differential variables, 0 if not differential
  int number_v = 0;             // value position (horizon numbering)
  int number_d = 0;             // derivative position (horizon numbering)
  int number_n = 0;             // node of the horizon copy (1-based; 0 before replication)
  int number_h = 0;             // horizon step of the copy (1-based; 0 before replication)
  int forward = -1;             // record index this one was merged into; -1 for none
  int spec = kSpecNone;         // SpecCode from connections
  int line = 0;                 // model-file line of the declaration (messages)
  char vtype = kVarDeclared;    // VarType
  bool diff = false;            // its time derivative occurs in the model ("D")
  bool fixed = false;           // not a degree of freedom ("F")
  bool obj_def = false;         // objective contribution, name starts with "obj" ("X")
  bool iv = false;              // independent (null-space) variable
  bool integer = false;         // name starts with "int"
  bool slack = false;           // name starts with "slk"
  bool preferred = false;       // survives a merge with an unpreferred record

  const std::string& units() const { return notes.get().units; }
  const std::vector<std::string>& aliases() const { return notes.get().aliases; }
};

// Equation type codes.
enum EqnType { kEqual = 1, kGreater = 2, kLess = 3 };  // res = 0, res >= 0, res <= 0

struct Equation {
  std::string name;             // e.g. "eqn 12", or the generated row name
  std::string text;             // as written, for messages (display up to 300 characters);
                                // empty for a vector copy: read it with Text()
  int type = kEqual;            // EqnType
  bool active = true;           // part of the current problem
  bool differential = false;    // contains a time derivative
  bool obj_eqn = false;         // residual is an objective contribution (minimize row)
  double residual = 0;
  double lower = 0;             // residual bounds: 0/0 equality, 0/+1e20 for >=, -1e20/0 for <=
  double upper = 0;
  double scaling = 1.0;         // scaled residual = residual / scaling
  double lambda = 0;            // Lagrange multiplier
  std::vector<int> columns;     // model column of each program input: 1..nvar x, nvar+i dx_i/dt
  int program = -1;             // index into ModelStore::programs (shared by copies)
  int line = 0;                 // model-file line (messages)
  int statement = 0;            // equation statement (1-based) the row came from; 0 generated
  int copy = 0;                 // copy of a vector statement (0-based): texts from `copied`
  std::shared_ptr<const lang::CopiedStatement> copied;  // null for a row with its own text

  // The equation as written: its own text, or a vector copy's made from its statement.
  std::string Text() const { return copy > 0 ? copied->Text(copy) : text; }

  // How far the residual lies outside its bounds: 0 inside, infinite for a NaN residual.
  double Violation() const {
    if (residual < lower) return lower - residual;
    if (residual > upper) return residual - upper;
    return residual != residual ? std::numeric_limits<double>::infinity() : 0.0;
  }
};

struct Intermediate {
  std::string name;
  std::string text;             // defining expression
  int handle = -1;              // lang::Compiler intermediate handle
  int program = -1;             // value program (ModelStore::programs)
  std::vector<int> columns;     // inputs of the value program; -(j+1): intermediate j
  double value = 0;
  int line = 0;
};

struct Constant {
  std::string name;
  double value = 0;
};

struct Connection {
  int number = 0;               // running number from 1, file order
  std::string a, b;             // the two sides as written (lower case)
  int var_a = -1, var_b = -1;   // resolved record indices, -1 when not a variable
};

struct ObjectDecl {
  std::string name;
  std::string type;             // object type keyword
  std::string arguments;        // text inside the parentheses, empty if none
  int line = 0;
};

// The model store: every record for the whole run. Variables are kept in declaration order
// (the chain order); `order[number-1]` is the record index of the variable with that number.
struct ModelStore {
  std::string name;                         // model name from the Model line
  std::vector<Variable> vars;               // declaration order, absorbed records included
  std::vector<int> order;                   // record index by number; size nvar
  std::vector<Equation> eqns;               // equation order
  std::vector<Intermediate> intermediates;  // declaration order = evaluation order
  std::vector<Constant> constants;
  std::vector<Connection> connections;
  std::vector<ObjectDecl> objects;
  std::vector<std::string> compounds;
  std::vector<lang::Program> programs;      // compiled once, shared by equation copies
  int nvar = 0;                             // surviving variables (numbered 1..nvar)
  int ndiff = 0;                            // differential variables
  int num_integer = 0;                      // NI: variables flagged integer
  int num_diff_eqns = 0;                    // equations with a time derivative
  int num_alg_eqns = 0;                     // equations without one (objective rows excluded)
  int num_obj_eqns = 0;                     // objective rows
  bool exact_hessian = true;                // second derivatives are supplied to the solvers
  std::vector<std::string> files_read;      // paths of the data files the objects read
  std::vector<std::string> files_written;   // files the build wrote (File blocks, connections)
  lang::DomainErrors start_errors;          // met evaluating the starting point (builder)

  Variable& Var(int number) { return vars[order[number - 1]]; }
  const Variable& Var(int number) const { return vars[order[number - 1]]; }
};

}  // namespace kx::model
