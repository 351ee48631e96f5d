// lang/model_file: the model-file front end. Turns the text of a model file into a plain
// parsed description: sections, declarations with values and bounds, equation texts expanded
// over vector indices, intermediates, connections as name pairs, objects and compounds.
// Constants are evaluated here (through Compiler::EvalOnce); embedded File blocks are written
// out. Knows nothing of the model store: the model builder turns the description into records.
//
// Call protocol (one reader per model file, phases in this order, each timed by the caller):
//   Read(path) or ReadText(text)   lines joined, sections split, File blocks written
//   InitializeConstants()          Constants section evaluated in order
//   DetermineSize()                vector indices expanded, statements counted
//   Parse()                        declarations, equations, connections, objects parsed
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/text.h"
#include "lang/compiler.h"
#include "lang/vector_index.h"

namespace kx::lang {

inline constexpr int kMaxLineLength = 15000;     // logical and physical line limit
inline constexpr int kMaxNameLength = 100;       // variable, connection and object names
inline constexpr int kMaxConsecutiveColons = 10;

enum class Section {
  kNone, kConstants, kParameters, kVariables, kIntermediates, kEquations, kConnections,
  kObjects, kCompounds
};

// One logical line of the model file after joining continuations and removing comments.
struct Statement {
  int line = 0;      // physical line number where the statement starts (1-based)
  std::string text;  // trimmed text
  long copies = 1;   // a vector statement kept whole: see ranges
  // A declaration whose only range is in its name, and an equation, stay one statement when
  // expanded: `text` is then the statement as written, `ranges` its indices, and copy k is
  // the text with each range replaced by first + k (declarations keep copy 0 in `text`).
  std::shared_ptr<const std::vector<IndexRange>> ranges = nullptr;
};

struct ConstantDecl {
  std::string name;  // lower case
  double value = 0;
  int line = 0;
};

// A parameter or variable declaration `name = value, >= lo, <= hi`. `$x = v` in the
// Variables section sets the initial time derivative of x instead.
struct VariableDecl {
  std::string name;          // lower case, index included (`x[3]`)
  bool derivative = false;   // declared as `$name`: value is the initial dx/dt
  bool has_value = false;    // a value was written
  double value = 0;
  double lower = -1.0e20;    // -1e20: no lower bound
  double upper = 1.0e20;     // +1e20: no upper bound
  int line = 0;
  // A vector declaration whose elements differ only in the index of their name (`x[1:n]`)
  // is one declaration that stands for `copies` elements, `name` being the first.
  long copies = 1;

  // Element k (0 <= k < copies) as a declaration of its own.
  VariableDecl Element(long k) const {
    VariableDecl element = *this;
    element.copies = 1;
    element.name = ShiftIndex(name, k);
    return element;
  }
};

struct IntermediateDecl {
  std::string name;  // lower case
  std::string text;  // defining expression as written
  int line = 0;
};

// One equation record: residual form with bounds lower <= residual <= upper.
struct EquationDecl {
  std::string text;      // the statement as written (after index expansion)
  std::string residual;  // residual expression: `(lhs)-(rhs)`, objective expression
  int type = 1;          // 1: res = 0, 2: res >= 0, 3: res <= 0
  bool objective = false;
  double lower = 0;
  double upper = 0;
  int line = 0;
  int statement = 0;     // 1-based number of the expanded equation statement it came from
  // A vector equation whose copies differ only in their indices is one declaration that
  // stands for `copies` rows: copy 0 as parsed, with its texts, and the copies after it, whose
  // texts are made from `copied` (Row). Null `copied` and one row for any other equation, and
  // for each row of a statement whose residual does not show its indices in order.
  std::shared_ptr<const CopiedStatement> copied = nullptr;
  long copy = 0;         // which copy of the vector statement this row is (Row)
  long copies = 1;       // rows the declaration stands for

  std::string Text() const { return copy > 0 ? copied->Text(copy) : text; }
  std::string Residual() const { return copy > 0 ? copied->Residual(copy) : residual; }
  // Row k (0 <= k < copies) as a declaration of its own: the texts are made on demand.
  EquationDecl Row(long k) const {
    EquationDecl row = *this;
    row.copies = 1;
    if (k == 0) return row;
    row.text.clear();
    row.residual.clear();
    row.statement += static_cast<int>(k);
    row.copy = k;
    return row;
  }
};

struct ConnectionDecl {
  int number = 0;  // running number from 1, file order
  std::string a;   // side A, lower case
  std::string b;   // side B, lower case
  int line = 0;
};

struct ObjectDeclText {
  std::string name;       // lower case
  std::string type;       // object type keyword, lower case
  std::string arguments;  // text inside the parentheses, empty if none
  int line = 0;
};

// Counts of the model-size report.
struct ModelCounts {
  long objects = 0, constants = 0, parameters = 0, variables = 0, intermediates = 0;
  long connections = 0, equations = 0, residuals = 0;
};

struct ParsedModel {
  std::string name;  // from the Model line, may be empty
  std::vector<ConstantDecl> constants;
  std::vector<VariableDecl> parameters;
  std::vector<VariableDecl> variables;  // derivative declarations included, in order
  std::vector<IntermediateDecl> intermediates;
  std::vector<EquationDecl> equations;
  std::vector<ConnectionDecl> connections;
  std::vector<ObjectDeclText> objects;
  std::vector<std::string> compounds;
  std::vector<std::string> files_written;  // embedded File blocks, names as written
  ModelCounts counts;
};

struct ReaderOptions {
  int diaglevel = 0;
  std::string output_dir = ".";  // where embedded File blocks are written
  long max_range = 10000000;     // longest vector index range accepted
  int max_memory = 4;            // ZPM.MAX_MEMORY: each record store holds 100 * 10^max_memory
};

// Elements one record store of the model (variables and parameters, intermediates,
// equations, connections) may hold: 100 times the per-equation storage 10^max_memory.
long StoreCapacity(int max_memory);

// A statement whose vector indices are found, before its copies are written out.
struct IndexedStatement {
  size_t statement = 0;             // position in its section
  std::vector<IndexRange> indices;  // its bracketed indices
  long copies = 1;                  // statements it expands to
};

// Object type keywords of the Objects section, in the order they are tested.
const std::vector<std::string_view>& ObjectTypeKeywords();

// Parses one statement of the Objects section, `name = type[(arguments)]`; stops the run on
// malformed input or a type keyword that is not in the list.
ObjectDeclText ParseObjectStatement(const Statement& s);

class ModelFileReader {
 public:
  ModelFileReader(Compiler* compiler, ReaderOptions options);

  // Phase "Read model file": prints "Parsing model file " and the name, reads the lines.
  void Read(const std::string& path);
  void ReadText(std::string_view text);
  // Phase "Initialize constants".
  void InitializeConstants();
  // Phase "Determine model size": expands vector indices; returns the counts.
  const ModelCounts& DetermineSize();
  // Phase "Parse and store model": parses every statement; the reader is spent afterwards.
  ParsedModel Parse();

  // Value of a constant declared so far, or nullptr.
  const double* FindConstant(std::string_view name) const;
  // Evaluates a constant expression (numbers and constants) written on line `line`.
  double EvaluateConstant(std::string_view text, int line) { return EvaluateConstantText(text, line); }
  // The statements of one section as read so far. Between InitializeConstants and
  // DetermineSize the object library replaces the Objects section by one statement per
  // object and adds the statements its objects expand to.
  std::vector<Statement>& SectionStatements(Section s) { return statements_[static_cast<int>(s)]; }

 private:
  // What a declared name stands for (see declared_).
  struct Declared {
    const char* kind;
    double value = 0;
    bool initial = false;  // a parameter or variable value: `value` holds it
  };
  // The elements base[first..last] of one vector declaration, entered at once.
  struct DeclaredRun {
    long first = 0;
    long last = 0;
    double value = 0;  // the initial value of every element
  };

  void ReadPhysicalLines(std::string_view text);
  void HandleStatement(const Statement& s);
  bool SwitchSection(const Statement& s);
  void StartFileBlock(const Statement& s);
  void FinishFileBlock();
  long FindCopies(const std::vector<Statement>& statements,
                  std::vector<IndexedStatement>* indexed);
  void CheckStoreSizes(const long (&counts)[4]) const;
  void ExpandSection(const std::vector<IndexedStatement>& indexed, Section section,
                     std::vector<Statement>* statements);
  double EvaluateConstantText(std::string_view text, int line);
  double EvaluateInitialValue(std::string_view text, const std::string& name, int line);
  bool IsDeclaredLater(const std::string& name);
  void CollectDeclaredNames();
  // Enters a new name; stops on a duplicate.
  Declared& CheckNewName(const std::string& name, const char* kind, bool derivative);
  // Enters the elements base[first..last] of a vector declaration; stops on a duplicate,
  // naming the first element declared before as CheckNewName would.
  void CheckNewRun(std::string_view base, long first, long last, const char* kind,
                   double value);
  // The vector declaration that holds the element `name`; null when none does.
  const DeclaredRun* FindDeclaredElement(std::string_view name) const;
  void ParseConstant(const Statement& s);
  void ParseDeclaration(const Statement& s, std::vector<VariableDecl>* out);
  void ParseBound(std::string_view part, const Statement& s, VariableDecl* d);
  void ParseIntermediate(const Statement& s);
  void ParseEquation(const Statement& s, int number);
  // The copies of an equation statement kept whole, numbered from *number + 1.
  void ParseEquationCopies(const Statement& s, int* number);
  void ParseConnection(const Statement& s);
  void ParseObject(const Statement& s);

  Compiler* compiler_;
  ReaderOptions options_;
  Section section_ = Section::kNone;
  std::vector<Statement> statements_[9];  // by Section
  // Open File block: name (empty when none), its lines, and the line that opened it.
  std::string file_name_;
  std::string file_body_;
  int file_line_ = 0;
  bool in_file_ = false;
  std::unordered_map<std::string, double> constant_values_;
  // Every declared name (a derivative's as "$name") with its kind ("variable:",
  // "intermediate:", ...), for duplicates; a parameter or variable with its initial value too,
  // which the values below it may read.
  std::unordered_map<std::string, Declared> declared_;
  // The elements of vector declarations (in neither table: not declared), by base name.
  TextMap<std::vector<DeclaredRun>> declared_runs_;
  // Base names of the elements entered one by one into declared_.
  std::unordered_set<std::string, TextHash, std::equal_to<>> declared_element_bases_;
  // The names of every parameter and variable statement (a value may read the ones above it,
  // not those below).
  std::unordered_set<std::string> declared_later_;
  bool names_collected_ = false;  // declared_later_ is filled (on the first question)
  ParsedModel model_;
};

// Runs all four phases without timing lines (tests and tools).
ParsedModel ReadModelText(std::string_view text, Compiler* compiler,
                          const ReaderOptions& options = {});

}  // namespace kx::lang
