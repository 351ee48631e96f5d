// model/program_reuse: one program for every equation that differs from an earlier one only in
// its element indices. The copies of a vector statement (`x[1:n] - x[0:n-1] = ...`), and the
// same rows written out element by element, compile to the same byte code; only their column
// maps differ. An equation's shape is its residual text with the index digits dropped. Two
// equations of one shape share the program compiled for the first when their names resolve
// alike: the same constants, variables and derivatives in the same places, the same pattern of
// repeated columns (`x[i] - x[4]` at i = 4 reads one column, not two), and no intermediates
// (they bring columns of their own). The second equation's column map is read off its names.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "lang/compiler.h"
#include "lang/lexer.h"
#include "lang/vector_index.h"

namespace kx::model {

class ProgramShapes {
 public:
  // What a name stands for, without side effects and without stopping the run: kUnknown when
  // it is neither a constant nor a variable (the caller compiles and reports it then).
  using Lookup = std::function<lang::Symbol(std::string_view name, bool derivative)>;

  // The variable numbers of the elements base[first..last] of one vector, by index
  // (numbers[i - first]); `numbers` null when the elements are found by name only.
  struct ElementSlice {
    const int* numbers = nullptr;
    long first = 0;
    long last = -1;
    int derivative_offset = 0;  // column of a time derivative: offset + number
  };
  using SliceLookup = std::function<ElementSlice(std::string_view base)>;

  // `slices`, when given, answers for the names Lookup finds by index: FindCopy then reads a
  // moved name's column off its slice instead of looking the name up.
  explicit ProgramShapes(Lookup lookup, SliceLookup slices = nullptr)
      : lookup_(std::move(lookup)), slices_(std::move(slices)) {}

  // The program of an earlier equation of the same shape as `residual_text`, with this
  // equation's column map in `columns`; -1 when there is none (the caller compiles, then
  // calls Remember).
  int Find(std::string_view residual_text, std::vector<int>* columns);

  // Records `program`, compiled from the text of the last Find that returned -1, with its
  // column map, for the equations of the same shape that follow.
  void Remember(int program, const std::vector<int>& columns);

  // The copies of a vector equation differ from its first copy only in the indices at
  // `placed` (copy k reads them moved on by k, lang::WriteCopy), so their shape is the first
  // copy's. Called right after the first copy's Find (and Remember) with its text and the
  // program it got, PlanCopies notes which of its names carry those indices; false when the
  // copies cannot be read that way (the first copy has no shared shape, or a moved index
  // stands elsewhere than at the end of a name).
  bool PlanCopies(std::string_view residual_text, const std::vector<lang::IndexRange>& placed,
                  int program);

  // Find for copy k of the planned statement: only the moved names are looked up (by index
  // in their vector's slice when there is one), the text is not read again. -1 when this
  // copy resolves differently (the caller then calls Find on its text, which also reports
  // what is wrong with it).
  int FindCopy(long k, std::vector<int>* columns);

 private:
  // One name of the residual text, in reading order.
  struct Leaf {
    lang::Symbol::Kind kind = lang::Symbol::Kind::kUnknown;
    double value = 0;  // kConstant
    int column = 0;    // kColumn
    int first = 0;     // kColumn: the first leaf that reads the same column
  };
  // The program of one shape and how its inputs are read off the leaves.
  struct Shape {
    int program = -1;
    std::vector<Leaf> leaves;  // the leaves of the equation it was compiled from
    std::vector<int> input_leaf;  // per program input: a leaf that feeds it
  };

  // A name of the planned first copy whose index moves with the copy.
  struct Moved {
    int leaf = 0;
    std::string base;  // the name up to its '[', lower case
    long index = 0;    // its index in the first copy
    bool derivative = false;
    ElementSlice slice;  // its vector's elements, resolved once for every copy
  };
  // What FindCopy needs of the first copy.
  struct CopyPlan {
    const Shape* shape = nullptr;  // null: no plan
    std::vector<Leaf> leaves;
    std::vector<Moved> moved;
  };

  bool ReadLeaves(std::string_view text);
  bool MoveLeaf(std::string_view text, const lang::IndexRange& r, Moved* moved) const;
  void MarkRepeats();
  bool SameResolution(const Shape& shape) const;
  std::vector<int> ColumnsOf(const Shape& shape) const;

  Lookup lookup_;
  SliceLookup slices_;
  lang::Lexer lexer_;
  std::unordered_map<std::string, Shape> shapes_;  // by shape text
  std::string key_;            // shape text of the last Find
  bool eligible_ = false;      // the last Find's leaves are all constants and columns
  std::vector<Leaf> leaves_;   // leaves of the last Find
  std::vector<lang::Token> leaf_tokens_;  // their tokens, for PlanCopies
  CopyPlan plan_;              // the vector equation whose copies FindCopy reads
  std::string name_;           // scratch: one name in lower case
  std::unordered_map<int, int> first_of_;  // scratch: column -> first leaf reading it
};

}  // namespace kx::model
