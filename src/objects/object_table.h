// objects/object_table: the declarative description of an object type. Each object is one
// ObjectType entry in the table of its family file (math_objects.cc, control_objects.cc, ...);
// the expander (objects/expander) turns a declaration into ordinary model statements from it.
//
// Texts of an entry (member values, bounds, equations, connections) are model text with
//   - bare member names: `tau*$y = k*u - y` is written for object `f` as
//     `f.tau*$f.y = f.k*f.u - f.y` (a name followed by '(' is a function and left alone);
//   - placeholders in braces, replaced before the names are qualified:
//       {key}      a number (argument, parameter value, size) or a text set by `prepare`
//       {i}        the row of an equation or member written once per row (`over`)
//       {obj}      the object's name
//       {M*v}      row {i} of table M times member vector v: `(2*x[1]-x[3])`, or `0`
//       {M[r,c]}   element (r, c) of table M; r and c are numbers or `i`
//       {key[i]}   a text set by `prepare` under the name "key[<row>]"
#pragma once

#include <map>
#include <string>
#include <vector>

namespace kx::objects {

enum class MemberKind { kParameter, kVariable, kIntermediate };

// One named member an object adds to the model, `obj.name` (vector: `obj.name[1:size]`).
struct MemberSpec {
  const char* name;  // lower case
  MemberKind kind;
  const char* size = "";   // "" for a scalar, else the size placeholder key ("n")
  const char* value = "";  // declared value (intermediate: its definition); "" none
  const char* lower = "";  // lower bound text, "" none
  const char* upper = "";  // upper bound text, "" none
  const char* units = "";  // units shown in the docs
  const char* description = "";
  const char* when = "";  // "" always; "key": only when {key} != 0; "!key": when it is 0
};

enum class ArgKind {
  kNumber,   // a number or a constant expression
  kInteger,  // the same, whole
  kFile,     // a data file of the working directory: a table of numbers
};

// One argument of the declaration `type(a, b, key=value)`. Positional arguments fill the
// entry's arguments in order; a parameter member may always be set by name (`pid(kc=2)`).
struct ArgSpec {
  const char* name;
  ArgKind kind;
  const char* fallback = nullptr;  // default text; nullptr: the argument is required
  const char* description = "";
};

// One equation (or, in `connections`, one `a = b` line).
struct EquationSpec {
  const char* text;
  const char* over = "";  // "" once; else a size key: written for i = 1..{key}
  const char* when = "";  // as MemberSpec::when
};

// A table of numbers read from a file argument, row-major.
struct Table {
  int rows = 0;
  int cols = 0;
  std::vector<double> values;  // size rows * cols
  std::string file;            // file name as written
  double At(int r, int c) const { return values[static_cast<size_t>(r) * cols + c]; }
};

// What the expander knows of one declared object; `prepare` may add to it.
struct ObjectInstance {
  std::string name;                          // lower case, `p` or `p[2]`
  std::string type;                          // keyword as declared
  int line = 0;                              // line of the declaration
  std::map<std::string, double> numbers;     // arguments, parameter values, sizes
  std::map<std::string, Table> tables;       // file arguments by argument name
  std::map<std::string, std::string> texts;  // text placeholders
  std::vector<std::string> compounds;        // the Compounds section, in order; {nc} its size
};

// Checks the data of an instance and derives sizes and texts; stops the run through
// FailObject on bad input.
using PrepareFn = void (*)(ObjectInstance* o);

struct ObjectType {
  std::vector<const char*> keywords;  // type keywords; the first names the entry
  const char* family;                 // family title in the docs
  const char* summary;                // one line
  std::vector<ArgSpec> arguments;
  std::vector<MemberSpec> members;
  std::vector<EquationSpec> equations;
  PrepareFn prepare = nullptr;
  std::vector<EquationSpec> connections = {};  // Connections lines the object adds
};

// Every object type of every family, in documentation order.
const std::vector<const ObjectType*>& ObjectTypes();

// The entry of a type keyword, or nullptr.
const ObjectType* FindObjectType(std::string_view keyword);

// Units of member `member` (no index) of an object of type `keyword`; "" when not known.
std::string MemberUnits(std::string_view keyword, std::string_view member);

// Families (one per file); ObjectTypes() gathers them.
const std::vector<ObjectType>& MathObjectTypes();
const std::vector<ObjectType>& ControlObjectTypes();
const std::vector<ObjectType>& ThermoObjectTypes();
const std::vector<ObjectType>& ProcessObjectTypes();

// Stops the run with a message naming the object and its line:
// "Object <name> (<type>, line <n>): <what>".
[[noreturn]] void FailObject(const ObjectInstance& o, const std::string& what);

}  // namespace kx::objects
